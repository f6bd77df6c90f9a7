#include "files/soundfont_import.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <tuple>

#include "engine/engine.h"
#include "engine/undo.h"
#include "sound/sampler.h"
#include "sound/wav_sound.h"

namespace files {

namespace {

// The shortest loop a bank may ask for; shorter ones are damage, and play unlooped.
constexpr int32_t minimumLoop = 32;
// Sample rates a bank may give; others are damage and are held at the nearest end.
constexpr float lowestRate = 1000.0f, highestRate = 384000.0f;

// The clips one import has made, by what makes two zones play the same frames the same way.
using ClipKey = std::tuple<int32_t, uint32_t, uint32_t, bool, int32_t, int32_t>;
using ClipCache = std::map<ClipKey, CSampleClip*>;

// A SoundFont's release is the time of a 96 dB fall at an even rate in decibels, so 60 dB, past which a
// tail is lost under any music, go by in 60/96 of it. The envelope here releases linearly in its level,
// which the gain law squares, and is 60 dB down only at its very end: it gets that share of the time.
// (A release runs with the curve of the stage it leaves, and the sustain's is straight.)
constexpr float releaseShare = 60.0f / 96.0f;
// A SoundFont decay falls at an even rate in decibels. A curved decay segment comes within a decibel of
// that on average down to -50 dB with a curve of 0.03 + 0.0037 D for a fall of D dB (fitted over falls
// of 6 to 100 dB), where a straight one strays by up to 20.
float decayCurve(float sustainLevel) {
    const float depth = -20.0f * std::log10(std::max(sustainLevel, 1e-5f));
    return std::clamp(0.03f + 0.0037f * depth, 0.0f, 1.0f);
}

// The longest envelope time scale, in ms: beyond the longest time a SoundFont can give.
constexpr int32_t maxTimeScale = 120000;

// An envelope time x lasts x² of the envelope's time scale.
float timeShare(const CEnv& envelope, float seconds) {
    const float scale = envelope.timeScale > 0 ? static_cast<float>(envelope.timeScale) * 0.001f : 5.0f;
    return std::clamp(std::sqrt(seconds / scale), 0.0f, 0.999f);
}

CSampleClip* clipFor(CSampler& sampler, const SoundFontBank& bank, const SoundFontZone& zone, ClipCache& clips, CUndo* undo) {
    const SoundFontSample& header = bank.samples[static_cast<size_t>(zone.sample)];
    const bool loop = zone.loop && zone.loopEnd - zone.loopStart >= minimumLoop;
    const ClipKey key{zone.sample, zone.start, zone.end, loop, zone.loopStart, zone.rootKey};
    if (const auto found = clips.find(key); found != clips.end()) return found->second;

    // A looped clip ends one frame behind its loop end; what lies after the loop is never heard.
    int64_t frames = loop ? int64_t{zone.loopEnd} + 1 : int64_t{zone.end} - zone.start;
    frames = std::min<int64_t>(frames, static_cast<int64_t>(bank.sampleData.size()) - zone.start);
    if (frames < 1) return nullptr;
    auto bytes = std::make_unique_for_overwrite<uint8_t[]>(static_cast<size_t>(frames) * 2);
    std::memcpy(bytes.get(), bank.sampleData.data() + zone.start, static_cast<size_t>(frames) * 2);

    auto* clip = new CSampleClip();
    clip->path = header.name.c_str();
    clip->name = header.name.c_str();
    clip->rootKey = static_cast<uint8_t>(std::clamp(zone.rootKey, 0, 127));
    clip->loop = loop ? loopForward : loopOff;
    clip->loopStart = loop ? zone.loopStart : 0;
    clip->sampleRate = header.sampleRate > 0 ? std::clamp(static_cast<float>(header.sampleRate), lowestRate, highestRate) : 44100.0f;
    clip->bits = 16;
    clip->channels = 1;
    clip->frames = static_cast<int32_t>(frames);
    clip->start = 0;
    clip->end = clip->frames - 1;
    clip->adopt(std::move(bytes), frames * 2);
    if (undo) insertItem(*undo, clip, sampler.samplePool, -1);
    else sampler.samplePool.add(clip);
    clips.emplace(key, clip);
    return clip;
}

CWavSound* soundFor(CSampler& sampler, const SoundFontPresetZone& presetZone, const SoundFontZone& zone, CSampleClip& clip) {
    const int32_t keyLow = std::max(presetZone.keyLow, zone.keyLow), keyHigh = std::min(presetZone.keyHigh, zone.keyHigh);
    const int32_t velLow = std::max(presetZone.velLow, zone.velLow), velHigh = std::min(presetZone.velHigh, zone.velHigh);
    if (keyLow > keyHigh || velLow > velHigh) return nullptr;
    auto* sound = new CWavSound();
    sound->pool = &sampler.samplePool;
    sound->setSample(&clip);
    sound->keyLow = keyLow;
    sound->keyHigh = keyHigh;
    sound->velLow = velLow;
    sound->velHigh = velHigh;
    sound->fine = zone.fine;
    sound->pan = zone.pan;
    // The gain law squares the volume: the attenuation's amplitude is its square.
    sound->volume = std::sqrt(std::pow(10.0f, -zone.attenuation / 20.0f));
    // SoundFont players attenuate a note by 40 log10(127 / velocity) dB by default: the volume scaled by
    // the velocity, which the gain law squares.
    sound->vel.params[0] = {1, targetVolume, 1.0f};
    // The amplitude envelope scales the volume, which the gain law squares: its levels are square roots.
    CEnv& amp = sound->envelope[0];
    // Times past the envelope's usual scale (a piano's decay of twenty seconds) widen the scale rather
    // than being cut short.
    const float longest = std::max({zone.attackSeconds, zone.decaySeconds, zone.releaseSeconds * releaseShare});
    amp.timeScale = std::clamp(static_cast<int32_t>(std::ceil(longest * 1000.0f / 0.998f)), amp.timeScale, maxTimeScale);
    amp.attack = timeShare(amp, zone.attackSeconds);
    amp.decay = timeShare(amp, zone.decaySeconds);
    amp.sustain = std::sqrt(zone.sustainLevel);
    amp.releaseTime = timeShare(amp, zone.releaseSeconds * releaseShare);
    amp.dc = decayCurve(zone.sustainLevel);
    sound->setBlockSize(sampler.engine ? sampler.engine->blockSize : 1024);
    sound->setSampleRate(sampler.engine ? sampler.engine->sampleRate : 44100.0f);
    return sound;
}

CSynthProg* makeProgram(CSampler& sampler, const SoundFontBank& bank, const SoundFontPreset& preset, ClipCache& clips, CUndo* undo) {
    CSynthProg* program = sampler.makeProgram();
    program->name = preset.name.c_str();
    CLayer* layer = program->addLayer();
    program->selectedLayer = layer;
    for (const SoundFontPresetZone& presetZone : preset.zones) {
        for (const SoundFontZone& zone : presetZone.zones) {
            CSampleClip* clip = clipFor(sampler, bank, zone, clips, undo);
            if (!clip) continue;
            if (CWavSound* sound = soundFor(sampler, presetZone, zone, *clip)) layer->addSound(sound);
        }
    }
    return program;
}

}  // namespace

CSynthProg* makeSoundFontProgram(CSampler& sampler, const SoundFontBank& bank, const SoundFontPreset& preset) {
    ClipCache clips;
    return makeProgram(sampler, bank, preset, clips, nullptr);
}

int32_t importSoundFont(CSampler& sampler, const CString& path, CUndo* undo, std::string* error) {
    auto bank = std::make_unique<SoundFontBank>();
    if (!readSoundFont(*bank, path)) {
        if (error) *error = bank->error;
        return -1;
    }
    ClipCache clips;
    int32_t made = 0;
    const int32_t room = CSampler::maxPrograms - sampler.programs.count();
    for (const SoundFontPreset& preset : bank->presets) {
        if (made >= room) break;
        CSynthProg* program = makeProgram(sampler, *bank, preset, clips, undo);
        if (undo) insertItem(*undo, program, sampler.programs, -1).kindFlags = undoItemAddProgram;
        else sampler.programs.add(program);
        ++made;
    }
    return made;
}

}  // namespace files
