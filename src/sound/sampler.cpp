#include "sound/sampler.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "engine/engine.h"
#include "engine/io.h"
#include "engine/undo.h"
#include "fx/delay.h"
#include "fx/time_effects.h"
#include "platform/platform.h"
#include "sound/osc_sound.h"
#include "sound/wav_sound.h"

namespace {

constexpr uint8_t statusNoteOff = 0x80;
constexpr uint8_t statusNoteOn = 0x90;
constexpr uint8_t statusControl = 0xB0;
constexpr uint8_t statusPitchWheel = 0xE0;
constexpr int32_t allNotesOff = 123;

// The frame an event acts on: floor(frame + 0.5), inside the cycle.
int32_t eventFrame(const CMIDIEvent& event, int32_t frames) {
    const double at = std::floor(event.frame + 0.5);
    if (!(at > 0.0)) return 0;
    return at < frames ? static_cast<int32_t>(at) : frames;
}

// Samples of a glide at the engine's rate; 0 for the first note of a sound.
int32_t glideSamples(const CSound& sound, float sampleRate) {
    if (sound.lastNote == -1.0f) return 0;
    const double samples = std::floor(sound.glide * double{sampleRate} * 0.001 + 0.5);
    if (!(samples > 0.0)) return 0;
    return samples < 1.0e9 ? static_cast<int32_t>(samples) : 1000000000;
}

template <class Fn>
void forEachSound(const CSynthProg& prog, Fn fn) {
    for (CLayer* layer : prog.layers)
        for (CSound* sound : layer->sounds) fn(*sound);
}

std::unique_ptr<float[], CSampler::FreeFloats> zeroedFloats(size_t count) {
    auto* memory = static_cast<float*>(std::calloc(count, sizeof(float)));
    if (!memory) throw std::bad_alloc();
    return std::unique_ptr<float[], CSampler::FreeFloats>(memory);
}

}  // namespace

CSampler::CSampler(CQV* engine)
    : CComp(engine, compSampler),
      delayL(zeroedFloats(delayFrames)),
      delayR(zeroedFloats(delayFrames)),
      interpScratch(std::make_unique_for_overwrite<float[]>(scratchFrames)) {
    name = "Synthesizer";
    setBlockSize(engine ? engine->blockSize : 1024);
    for (int32_t index = 0; index < mixerParamCount; ++index) mixParams.add(new CMixerParam(this, index));
}

CSampler::~CSampler() {
    // Programs go before the delay memory they borrow.
    programs.deleteAll();
    samplePool.deleteAll();
    mixParams.deleteAll();
}

void CSampler::createBasePorts() {
    addInputPort();
    addOutputChannel(2);
}

void CSampler::createPorts() {
    createBasePorts();
    if (!programs.empty()) return;
    const int32_t count = factoryProgram(nullptr, -1, nullptr, false);
    for (int32_t index = 0; index < count; ++index) factoryProgram(nullptr, index, nullptr, true);
    program = 0;
}

CSynthProg* CSampler::currentProgram() const { return static_cast<CSynthProg*>(programs.getAt(program)); }

CSynthProg* CSampler::makeProgram() const {
    const float rate = engine ? engine->sampleRate : 44100.0f;
    auto* prog = new CSynthProg(blockFrames, rate);
    if (CFX* delay = prog->delay(); delay->subKind == fxDelay)
        static_cast<CDelay*>(delay)->shareBuffers(delayL.get(), delayR.get());
    return prog;
}

CSynthProg* CSampler::makeDefaultProgram() const {
    CSynthProg* prog = makeProgram();
    CLayer* layer = prog->addLayer();
    prog->selectedLayer = layer;
    auto* sound = new COSCSound();
    sound->feed1 = 0.9f;
    sound->detune = 0.4f;
    sound->width = 0.2f;
    prepareSound(*sound);
    layer->addSound(sound);
    return prog;
}

void CSampler::prepareSound(CSound& sound) const {
    if (sound.subKind == soundSampled) static_cast<CWavSound&>(sound).pool = &samplePool;
    sound.setBlockSize(blockFrames);
    sound.setSampleRate(engine ? engine->sampleRate : 44100.0f);
}

bool CSampler::addDefaultProgram(CUndo* step) {
    if (programs.count() >= maxPrograms) return false;
    CSynthProg* prog = makeDefaultProgram();
    if (step) {
        insertItem(*step, prog, programs, -1).kindFlags = undoItemAddProgram;
    } else {
        programs.add(prog);
        setProgram(programs.count() - 1);
    }
    return true;
}

void CSampler::deleteProgram(CUndo& step, int32_t index) {
    CObject* prog = programs.getAt(index);
    if (!prog) return;
    removeItem(step, prog, &programs, nullptr, index).kindFlags = undoItemDelete;
    if (programs.count() == 1) addDefaultProgram(&step);
}

void CSampler::deleteSound(CUndo& step, CSound& sound) const {
    if (!sound.layer) return;
    TList<CSound>& list = sound.layer->sounds;
    removeItem(step, &sound, &list, nullptr, list.indexOf(&sound)).kindFlags = undoItemDelete;
}

void CSampler::undoApplied(CUndoItem* item, int32_t direction) {
    if (!item || !item->object) return;
    if (item->kindFlags == undoItemAddProgram && direction == undodirection::forward &&
        programs.indexOf(item->object) >= 0)
        setProgram(programs.count() - 1);
    if (program >= programs.count()) program = std::max(programs.count() - 1, 0);
    stopLostVoices();
    repairSelections();
    raise(change::program);
}

void CSampler::stopLostVoices() {
    for (SamplerVoice& voice : voices) {
        if (voice.state == voiceFree) continue;
        bool found = false;
        for (CObject* object : programs) {
            forEachSound(*static_cast<CSynthProg*>(object), [&](const CSound& sound) {
                found = found || &sound == voice.sound;
            });
            if (found) break;
        }
        if (!found) voice.state = voiceFree;
    }
}

void CSampler::repairSelections() {
    for (CObject* object : programs) {
        auto* prog = static_cast<CSynthProg*>(object);
        if (prog->layers.indexOf(prog->selectedLayer) < 0) prog->selectedLayer = prog->layers.getAt(0);
        for (CLayer* layer : prog->layers)
            if (layer->sounds.indexOf(layer->selectedSound) < 0) layer->selectedSound = layer->sounds.getAt(0);
    }
}

bool CSampler::postEvent(uint32_t midi, double frame) {
    CMIDIEvent event;
    event.frame = frame;
    event.midi = midi;
    return queue.post(event);
}

void CSampler::beginCycle(int32_t frames) {
    if (CSynthProg* prog = currentProgram()) {
        for (const std::unique_ptr<CFX>& effect : prog->fx) {
            if (!effect->inputL) continue;
            std::fill_n(effect->inputL.get(), frames, 0.0f);
            std::fill_n(effect->inputR.get(), frames, 0.0f);
        }
    }
    CComp::beginCycle(frames);
}

void CSampler::processBlock(int32_t frames) {
    CInputPort* port = firstInputPort();
    if (port) queue.drainInto(*port);
    int32_t position = 0;
    for (const CMIDIEvent* event = port ? port->first() : nullptr; event; event = event->next) {
        if (!concerns(*event)) continue;
        const int32_t at = eventFrame(*event, frames);
        if (at > position) {
            generate(at - position, position);
            position = at;
        }
        handleEvent(*event);
    }
    if (frames > position) generate(frames - position, position);
    runSendEffects(frames);
}

bool CSampler::concerns(const CMIDIEvent& event) const {
    if (event.type == EventType::param) return event.target == nullptr || event.target == this;
    if (event.type != EventType::midi) return false;
    return mch == -1 || (event.status() & 0x0F) == mch;
}

void CSampler::handleEvent(const CMIDIEvent& event) {
    if (event.type == EventType::param) {
        if (event.value != getParam(event.param)) setParam(event.param, event.value);
        return;
    }
    const uint8_t status = event.status() & 0xF0;
    if (status == statusNoteOff || (status == statusNoteOn && event.data2() == 0)) {
        noteOff(event.data1());
        return;
    }
    CSynthProg* prog = currentProgram();
    if (!prog) return;
    switch (status) {
    case statusNoteOn:
        forEachSound(*prog, [&](CSound& sound) { startNote(sound, event); });
        break;
    case statusControl:
        if (event.data1() == allNotesOff) {
            if (std::any_of(prog->layers.begin(), prog->layers.end(), [](CLayer* layer) { return !layer->sounds.empty(); }))
                stopAllVoices();
        } else if (event.data1() < controllerCount) {
            const float v = event.data2() / 127.0f;
            forEachSound(*prog, [&](CSound& sound) { sound.setTargetBase(sound.ccMap[event.data1()], v); });
        }
        break;
    case statusPitchWheel: {
        const int32_t value14 = event.data1() | (event.data2() << 7);
        prog->bend = static_cast<float>(value14 - 8192) * 0.00012207031f;
        break;
    }
    default:
        break;
    }
}

void CSampler::noteOff(int32_t key) {
    for (SamplerVoice& voice : voices) {
        if (voice.state != voiceSounding || voice.note != key || voice.modState[0].stage == stageRelease) continue;
        CSound::catchUp(voice);
        for (int32_t m = 0; m < voiceModulators; ++m) {
            if (!voice.mods[m]) continue;
            voice.mods[m]->release(voice.modState[m]);
            // A release of exactly 1.0 on envelopes 1 to 5 means no release: the value holds.
            if (m >= 1 && m < envelopeCount && voice.sound->envelope[m].releaseTime == 1.0f)
                voice.modState[m].running = 0;
        }
    }
}

void CSampler::startNote(CSound& sound, const CMIDIEvent& event) {
    const int32_t key = event.data1();
    const int32_t velocity = event.data2();
    if (!sound.canPlay() || sound.mute || key < sound.keyLow || key > sound.keyHigh || velocity < sound.velLow || velocity > sound.velHigh)
        return;
    SamplerVoice* voice = allocate(sound, event, sound.group);
    if (!voice) return;
    voice->engine = engine;
    voice->outL = outL.get();
    voice->outR = outR.get();
    voice->readL = readL.get();
    voice->readR = readR.get();
    voice->interpScratch = interpScratch.get();
    voice->random = &random;
    sound.noteOn(*voice);
}

SamplerVoice* CSampler::allocate(CSound& sound, const CMIDIEvent& event, uint8_t group) {
    const int32_t note = event.data1();
    const float sampleRate = engine ? engine->sampleRate : 44100.0f;
    int32_t free = -1, same = -1;
    for (int32_t i = 0; i < voiceCount; ++i) {
        SamplerVoice& voice = voices[i];
        if (voice.state == voiceFree) {
            free = i;
            continue;
        }
        if (voice.closing > 0) continue;
        if (voice.sound == &sound) {
            same = i;
            if (sound.mode == modeMono) {
                // Mono retarget: the sounding voice glides from where it is; no new voice, no gain jump.
                voice.note = note;
                voice.glideLeft = glideSamples(sound, sampleRate);
                if (voice.glideLeft > 0) voice.glideStep = (static_cast<float>(note) - voice.pitch) / voice.glideLeft;
                else voice.pitch = static_cast<float>(note);
                if (voice.modState[0].stage == stageRelease) sound.startModulators(voice);
                return nullptr;
            }
        }
        if (group != 0 && voice.group == group) {
            free = i;
            break;
        }
    }
    if (free < 0) return nullptr;

    SamplerVoice& voice = voices[free];
    voice.note = note;
    voice.previous = same >= 0 ? &voices[same] : nullptr;
    voice.glideLeft = glideSamples(sound, sampleRate);
    if (voice.glideLeft > 0) {
        voice.glideStep = (static_cast<float>(note) - sound.lastNote) / voice.glideLeft;
        voice.pitch = sound.lastNote;
    } else {
        voice.pitch = static_cast<float>(note);
    }
    sound.lastNote = static_cast<float>(note);
    voice.channel = event.status() & 0x0F;
    voice.group = group;
    voice.velocity = event.data2() / 127.0f;
    voice.sampleRate = sampleRate;
    voice.sound = &sound;
    voice.closing = 0;
    sound.startVoice(voice);
    voice.state = voiceSounding;
    return &voice;
}

int32_t CSampler::soundingVoices() const {
    return static_cast<int32_t>(
        std::count_if(std::begin(voices), std::end(voices), [](const SamplerVoice& v) { return v.state == voiceSounding; }));
}

void CSampler::stopAllVoices() {
    for (SamplerVoice& voice : voices) voice.state = voiceFree;
}

void CSampler::generate(int32_t frames, int32_t offset) {
    for (SamplerVoice& voice : voices)
        if (voice.state == voiceSounding) voice.sound->voiceCounter = 0;
    COutputChannel* out = firstOutputChannel();
    const float tempo = engine ? engine->bpm.load(std::memory_order_relaxed) : 120.0f;
    float* bufL = outL.get();
    float* bufR = outR.get();

    // Whether a sound's voices need buffers of their own: for its inserts, or for sends that hear it.
    const auto needsBuffers = [](const CSound& sound) {
        for (const std::unique_ptr<CFX>& insert : sound.fx)
            if (insert->enabled) return true;
        if (const CSynthProg* prog = sound.program())
            for (int32_t k = 0; k < soundSends; ++k)
                if (prog->fx[k]->enabled && sound.sends[k] > 0.0f && prog->fx[k]->inputL) return true;
        return false;
    };

    // Sampled voices that go straight to the output render in groups once the others are done.
    SamplerVoice* straightSampled[voiceCount];
    int32_t straightCount = 0;
    for (int32_t i = 0; i < voiceCount; ++i) {
        if (voices[i].state != voiceSounding || voices[i].sound->voiceCounter != 0) continue;
        CSound& sound = *voices[i].sound;
        // A sound with nothing between its voices and the output adds them straight into it.
        const bool straight = out && out->left() && !needsBuffers(sound);
        float* intoL = straight ? out->left() + offset : bufL;
        float* intoR = straight ? out->right() + offset : bufR;
        if (!straight) {
            std::fill_n(bufL, frames, 0.0f);
            std::fill_n(bufR, frames, 0.0f);
        }
        for (int32_t j = i; j < voiceCount; ++j) {
            if (voices[j].state != voiceSounding || voices[j].sound != &sound) continue;
            ++sound.voiceCounter;
            if (straight && sound.subKind == soundSampled) straightSampled[straightCount++] = &voices[j];
            else sound.process(intoL, intoR, voices[j], frames);
        }
        if (straight) continue;
        for (const std::unique_ptr<CFX>& insert : sound.fx) {
            if (!insert->enabled) continue;
            insert->tempo = tempo;
            insert->process(bufL, bufR, bufL, bufR, frames);
        }
        if (const CSynthProg* prog = sound.program()) {
            for (int32_t k = 0; k < soundSends; ++k) {
                const CFX& send = *prog->fx[k];
                const float level = sound.sends[k];
                if (!send.enabled || !(level > 0.0f) || !send.inputL) continue;
                float* inL = send.inputL.get() + offset;
                float* inR = send.inputR.get() + offset;
                for (int32_t n = 0; n < frames; ++n) inL[n] += level * bufL[n];
                for (int32_t n = 0; n < frames; ++n) inR[n] += level * bufR[n];
            }
        }
        if (out && out->left()) {
            float* left = out->left() + offset;
            float* right = out->right() + offset;
            for (int32_t n = 0; n < frames; ++n) left[n] += bufL[n];
            for (int32_t n = 0; n < frames; ++n) right[n] += bufR[n];
        }
    }
    if (straightCount == 0) return;
    float* intoL = out->left() + offset;
    float* intoR = out->right() + offset;
    for (int32_t k = 0; k < straightCount; k += CWavSound::maxGroup)
        CWavSound::processGroup(intoL, intoR, straightSampled + k, std::min(CWavSound::maxGroup, straightCount - k), frames);
}

void CSampler::runSendEffects(int32_t frames) {
    CSynthProg* prog = currentProgram();
    COutputChannel* out = firstOutputChannel();
    if (!prog || !out || !out->left()) return;
    const float tempo = engine ? engine->bpm.load(std::memory_order_relaxed) : 120.0f;
    for (const std::unique_ptr<CFX>& effect : prog->fx) {
        if (!effect->enabled || !effect->inputL) continue;
        effect->tempo = tempo;
        effect->process(effect->inputL.get(), effect->inputR.get(), out->left(), out->right(), frames);
    }
}

void CSampler::setBlockSize(int32_t frames) {
    CComp::setBlockSize(frames);
    const auto size = static_cast<size_t>(std::max(frames, 1));
    outL = std::make_unique<float[]>(size);
    outR = std::make_unique<float[]>(size);
    readL = std::make_unique<float[]>(size);
    readR = std::make_unique<float[]>(size);
    for (CObject* object : programs) {
        auto* prog = static_cast<CSynthProg*>(object);
        for (const std::unique_ptr<CFX>& effect : prog->fx) effect->setBlockSize(frames);
        forEachSound(*prog, [frames](CSound& sound) { sound.setBlockSize(frames); });
    }
}

void CSampler::setSampleRate(double rate) {
    CComp::setSampleRate(rate);
    setModulationSampleRate(rate);
    const auto r = static_cast<float>(rate);
    for (CObject* object : programs) {
        auto* prog = static_cast<CSynthProg*>(object);
        for (const std::unique_ptr<CFX>& effect : prog->fx) effect->setSampleRate(r);
        forEachSound(*prog, [r](CSound& sound) { sound.setSampleRate(r); });
    }
}

void CSampler::guiTick() {
    CComp::guiTick();
    CSynthProg* prog = currentProgram();
    if (!prog) return;
    forEachSound(*prog, [](CSound& sound) {
        for (Meter* meter : {&sound.peakL, &sound.peakR}) {
            const float v = meter->load(std::memory_order_relaxed) - 0.05f;
            meter->store(v > 0.0f ? v : 0.0f, std::memory_order_relaxed);
        }
    });
}

void CSampler::setParam(int32_t index, float value) {
    if (index < 0) {
        CComp::setParam(index, value);
        return;
    }
    if (index >= paramCount) return;
    paramValues[index] = value;
    if (CSynthProg* prog = currentProgram())
        forEachSound(*prog, [&](CSound& sound) { sound.setTargetBase(sound.ccMap[index], value); });
}

float CSampler::getParam(int32_t index) const {
    if (index < 0) return CComp::getParam(index);
    return index < paramCount ? paramValues[index] : 0.0f;
}

CString CSampler::getParamName(int32_t index) const {
    if (index < 0) return CComp::getParamName(index);
    if (index >= paramCount) return CString();
    const CSynthProg* prog = currentProgram();
    const CLayer* layer = prog ? prog->selectedLayer : nullptr;
    const CSound* sound = layer ? layer->sounds.getAt(0) : nullptr;
    const char* target = sound ? targetName(sound->ccMap[index]) : "";
    if (target[0] != '\0') return target;
    return concat("CC-", intToString(index));
}

CString CSampler::getParamDisplay(int32_t index) const {
    if (index < 0) return CComp::getParamDisplay(index);
    if (index >= paramCount) return CString();
    char text[64];
    std::snprintf(text, sizeof text, "%0.2f", static_cast<double>(paramValues[index]));
    return text;
}

void CSampler::setProgram(int32_t index) {
    programTime = platform::milliseconds();
    if (index == program || index < 0 || index >= programs.count()) return;
    program = index;
    raise(change::program);
}

CString CSampler::getProgramName(int32_t index) const {
    const CObject* prog = programs.getAt(index);
    return prog ? prog->name : CString();
}

void CSampler::setProgramName(int32_t index, CString newName) {
    if (CObject* prog = programs.getAt(index)) {
        prog->name = std::move(newName);
        raise(change::program);
    }
}

void registerSoundComponents() {
    registerTimeEffects();
    registerCompType(compSampler, [](CQV* engine) -> CComp* { return new CSampler(engine); });
}
