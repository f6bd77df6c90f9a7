#include "sound/sound.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "core/stream.h"
#include "engine/engine.h"
#include "fx/chorus.h"
#include "fx/phaser.h"
#include "core/block_in.h"
#include "sound/fx_state.h"
#include "sound/osc_sound.h"
#include "sound/program.h"
#include "sound/sound_random.h"
#include "sound/tables.h"
#include "sound/wav_sound.h"

namespace {

constexpr int32_t noWrap = std::numeric_limits<int32_t>::max();
// LFO steps are limited to a quarter cycle a sample: far above any rate the editor offers, and what
// keeps a damaged rate from stalling a voice in chunks of no length.
constexpr double maxLFOIncrement = 0.25;

// Saturating conversion of a non-negative sample count.
int32_t toCount(double samples) {
    if (!(samples > 0.0)) return 0;
    return samples < noWrap ? static_cast<int32_t>(samples) : noWrap;
}

double tempoOf(const SamplerVoice& voice) {
    return voice.engine ? voice.engine->bpm.load(std::memory_order_relaxed) : 120.0;
}

// An LFO's rate for this voice; only a rate in beats asks the engine for its tempo.
double lfoHz(const SamplerVoice& voice, const CLFO& lfo) { return lfo.sync == 0 ? lfo.rate : lfo.rateHz(tempoOf(voice)); }

// Cycles per sample at a rate; 0 (standing still) for a rate that is not positive.
double lfoIncrementAt(const SamplerVoice& voice, double hz) {
    const double inc = hz / voice.sampleRate;
    if (!(inc > 0.0)) return 0.0;
    return std::min(inc, maxLFOIncrement);
}

double lfoIncrement(const SamplerVoice& voice, const CLFO& lfo) { return lfoIncrementAt(voice, lfoHz(voice, lfo)); }

void writeRouting(CStream& stream, const CMod& mod) {
    for (const RoutingEntry& entry : mod.params) {
        stream.writeU8(entry.flag);
        stream.writeF32(entry.amount);
        stream.writeI32(entry.index);
    }
}

void readRouting(BlockIn& in, CMod& mod) {
    for (RoutingEntry& entry : mod.params) {
        in.u8(entry.flag);
        in.f32(entry.amount);
        in.i32(entry.index);
    }
}

void writeEnvelope(CStream& stream, const CEnv& env) {
    stream.writeU8(env.enabled);
    for (int32_t k = 0; k < 3; ++k) stream.writeU8(0);
    for (float value : {env.initial, env.attack, env.ac, env.decay, env.dc, env.sustain, env.releaseTime, env.rc})
        stream.writeF32(value);
    stream.writeI32(0);
    stream.writeI32(0);
    stream.writeI32(env.timeScale);
}

void readEnvelope(BlockIn& in, CEnv& env) {
    in.u8(env.enabled);
    in.skip(3);
    for (float* value : {&env.initial, &env.attack, &env.ac, &env.decay, &env.dc, &env.sustain, &env.releaseTime, &env.rc})
        in.f32(*value);
    in.skip(8);
    in.i32(env.timeScale);
}

void writeLFO(CStream& stream, const CLFO& lfo) {
    stream.writeU8(static_cast<uint8_t>(lfo.wave));
    stream.writeF32(lfo.rate);
    stream.writeU8(static_cast<uint8_t>(lfo.sync));
    stream.writeU8(static_cast<uint8_t>(lfo.mul));
    stream.writeU8(static_cast<uint8_t>(lfo.div));
    stream.writeI32(lfo.delay);
    stream.writeU8(static_cast<uint8_t>(lfo.inv));
    stream.writeU8(static_cast<uint8_t>(lfo.restart));
    stream.writeU8(0);
    stream.writeU8(0);
    writeRouting(stream, lfo);
}

void readLFO(BlockIn& in, CLFO& lfo) {
    in.u8To(lfo.wave);
    in.f32(lfo.rate);
    in.u8To(lfo.sync);
    in.u8To(lfo.mul);
    in.u8To(lfo.div);
    in.i32(lfo.delay);
    in.u8To(lfo.inv);
    in.u8To(lfo.restart);
    in.skip(2);
    readRouting(in, lfo);
}

// Payload sizes in words of the insert effects' saved forms inside "soundfx".
constexpr int32_t phaserWords = 5, phaserZeros = 4;
constexpr int32_t chorusWords = 5, chorusZeros = 3;

}  // namespace

CSound::CSound(int32_t subKind) : CObject(0, subKind) {
    SoundTables::get();
    for (int32_t i = 0; i < envelopeCount; ++i) envelope[i].id = i;
    envelope[0].enabled = 1;
    envelope[0].releaseTime = 0.1f;
    envelope[0].params[0].index = targetVolume;
    envelope[0].params[0].amount = 1.0f;
    envelope[1].enabled = 1;
    envelope[1].params[0].index = targetCutoff;
    envelope[1].params[0].amount = 1.0f;
    for (int32_t i = 0; i < lfoCount; ++i) {
        lfo[i].id = 7 + i;
        lfo[i].params[0].index = targetPitch + i;
    }
    // Made directly rather than through the effect registry: the sampler casts them to their classes.
    fx[0] = std::make_unique<CPhaser>();
    fx[1] = std::make_unique<CChorus>();
    fx[0]->name = "Phaser";
    fx[1]->name = "Chorus";
}

CSound::~CSound() = default;

CSynthProg* CSound::program() const { return layer ? layer->prog : nullptr; }

void CSound::setBlockSize(int32_t frames) {
    for (const std::unique_ptr<CFX>& effect : fx) effect->setBlockSize(frames);
}

void CSound::setSampleRate(float rate) {
    for (const std::unique_ptr<CFX>& effect : fx) effect->setSampleRate(rate);
}

void CSound::noteOn(SamplerVoice& voice) {
    voice.firstChunk = 1;
    switch (filter) {
    case filterBand:
        voice.tapL = &voice.bandL;
        voice.tapR = &voice.bandR;
        break;
    case filterHigh:
        voice.tapL = &voice.highL;
        voice.tapR = &voice.highR;
        break;
    default:
        voice.tapL = &voice.lowL;
        voice.tapR = &voice.lowR;
        break;
    }
    voice.sound = this;
    voice.volumeScale = 1.0f;
    voice.panOffset = 0.0f;
    voice.cutoffScale = 1.0f;
    voice.lowL = voice.bandL = voice.highL = 0.0f;
    voice.lowR = voice.bandR = voice.highR = 0.0f;
    startModulators(voice);
}

void CSound::startModulators(SamplerVoice& voice) {
    for (int32_t m = 0; m < envelopeCount; ++m) voice.mods[m] = &envelope[m];
    voice.mods[envelopeCount] = &pitchEnv;
    for (int32_t m = 0; m < voiceModulators; ++m) voice.mods[m]->start(voice.modState[m]);

    for (int32_t i = 0; i < lfoCount; ++i) {
        LFOState& state = voice.lfo[i];
        const CLFO& settings = lfo[i];
        state.lfo = &settings;
        state.table = lfoTable(settings.wave);
        state.phase = 0.0;
        state.value = 0.5f;
        state.inc = 0.0;
        state.incHz = std::numeric_limits<double>::quiet_NaN();
        state.toWrap = 0;
        state.delayLeft = toCount(std::floor(settings.delay * double{voice.sampleRate} * 0.001 + 0.5));
        if (settings.restart == restartFree) {
            // The engine's frame counter gives every voice the same phase.
            const int64_t played = voice.engine ? voice.engine->framesPlayed.load(std::memory_order_relaxed) : 0;
            const double x = static_cast<double>(played) * lfoIncrement(voice, settings);
            state.phase = x - std::trunc(x);
        } else if (settings.restart == restartMono && voice.previous) {
            state.phase = voice.previous->lfo[i].phase;
        }
    }
}

void CSound::setTargetBase(int32_t target, float v) {
    switch (target) {
    case targetVolume: volume = v; break;
    case targetPan: pan = 2.0f * v - 1.0f; break;
    case targetCutoff: cutoff = v; break;
    case targetQ: q = v; break;
    default: break;
    }
}

int32_t CSound::cutChunk(SamplerVoice& voice, int32_t chunk, WrapRounding rounding) const {
    if (voice.glideLeft > 0) chunk = std::min(chunk, voice.glideLeft);
    for (int32_t m = 0; m < voiceModulators; ++m) {
        const ModState& state = voice.modState[m];
        if (voice.mods[m] && state.running) chunk = std::min(chunk, std::max(state.left, 0));
    }
    for (LFOState& state : voice.lfo) {
        if (!state.lfo) continue;
        if (state.delayLeft != 0) chunk = std::min(chunk, state.delayLeft);
        // The rate mostly holds from one chunk to the next; the increment is worked out when it moves.
        if (const double hz = lfoHz(voice, *state.lfo); !(hz == state.incHz)) {
            state.incHz = hz;
            state.inc = lfoIncrementAt(voice, hz);
        }
        if (state.inc > 0.0 && 1.0 - state.phase > (chunk + 3) * state.inc) {
            // The wrap lies beyond this chunk, even one a frame longer than asked for, by more than any
            // rounding of the count could move it; the count is worked out again next chunk, so "not in
            // this one" is all it needs to say.
            state.toWrap = chunk + 2;
        } else if (state.inc > 0.0) {
            const double samples = (1.0 - state.phase) / state.inc;
            state.toWrap = toCount(rounding == WrapRounding::nearest ? std::floor(samples + 0.5) : std::trunc(samples));
        } else {
            state.toWrap = noWrap;
        }
        chunk = std::min(chunk, state.toWrap);
    }
    return chunk;
}

namespace {

// The value a running segment reaches `ahead` frames past where it stands.
void advanceSegment(ModState& state, int32_t ahead) {
    if (!state.running || state.total < 1) return;
    float t = static_cast<float>(state.total - state.left + ahead) / static_cast<float>(state.total);
    const float k = state.curve * state.curve * 63.0f + 1.0f;
    const float c = state.curve < 0.0f ? k : 1.0f / k;
    if (k != 1.0f) t = 1.0f - (c / (t * (1.0f - c) + c) - c) / (1.0f - c);
    state.value = state.from + (state.to - state.from) * t;
}

}  // namespace

void CSound::noteReaching(SamplerVoice& voice) {
    uint32_t reaching = 0;
    for (int32_t m = 0; m < voiceModulators; ++m)
        if (voice.mods[m] && reachesAnyTarget(voice.mods[m]->params)) reaching |= 1u << m;
    for (int32_t i = 0; i < lfoCount; ++i)
        if (voice.lfo[i].lfo && reachesAnyTarget(voice.lfo[i].lfo->params)) reaching |= 1u << (voiceModulators + i);
    voice.reaching = reaching;
}

void CSound::modulate(SamplerVoice& voice, int32_t chunk) {
    for (int32_t m = 0; m < voiceModulators; ++m) {
        if (!voice.mods[m]) continue;
        // An envelope that reaches no target needn't be worked out each chunk: its segment is stateless
        // given where it stands, and a release catches it up first. Oscillators read the pitch envelope
        // directly.
        const bool routed = voice.reaching & (1u << m);
        if (m < envelopeCount && !routed) continue;
        advanceSegment(voice.modState[m], chunk);
        if (routed) applyRouting(voice.mods[m]->params, voice.modState[m].value, targets);
    }
    for (int32_t i = 0; i < lfoCount; ++i) {
        LFOState& state = voice.lfo[i];
        if (!state.lfo) continue;
        // Only a routed LFO reads its wave: the tables are large, and a read is often a cache miss.
        const bool routed = voice.reaching & (1u << (voiceModulators + i));
        if (state.delayLeft != 0) {
            state.value = 0.5f;
            state.delayLeft -= chunk;
        } else {
            if (routed && state.lfo->wave != waveRandom)
                state.value = static_cast<float>(state.table[lfoIndex(state.phase)] * 0.5 + 0.5);
            state.phase += chunk * state.inc;
        }
        if (routed) applyRouting(state.lfo->params, state.value, targets);
    }
    applyRouting(vel.params, voice.velocity, targets);
}

void CSound::catchUp(SamplerVoice& voice) {
    for (int32_t m = 0; m < voiceModulators; ++m)
        if (voice.mods[m]) advanceSegment(voice.modState[m], 0);
}

void CSound::endChunk(SamplerVoice& voice, int32_t chunk) const {
    if (voice.glideLeft > 0) {
        voice.pitch += static_cast<float>(chunk) * voice.glideStep;
        voice.glideLeft -= chunk;
    }
    for (int32_t m = 0; m < voiceModulators; ++m) {
        ModState& state = voice.modState[m];
        if (!voice.mods[m] || !state.running) continue;
        state.left -= chunk;
        if (state.left > 0) continue;
        state.value = state.to;
        voice.mods[m]->next(state);
        if (m == 0 && state.stage == stageEnded) {
            // The amplitude envelope has ended: 10 ms of closing, and nothing else steps.
            voice.closing = static_cast<int32_t>(double{voice.sampleRate} * 0.01);
            return;
        }
    }
    for (LFOState& state : voice.lfo) {
        if (!state.lfo) continue;
        state.toWrap -= chunk;
        if (state.toWrap > 0) continue;
        state.phase -= 1.0;
        if (state.lfo->wave == waveRandom && voice.random)
            state.value = static_cast<float>(voice.random->next()) / static_cast<float>(CSoundRandom::maxValue);
    }
}

void CSound::panGains(float volume, float pan, float& gainL, float& gainR) {
    const float p = std::clamp(pan, -1.0f, 1.0f);
    const float v = volume * volume;
    if (p >= 0.0f) {
        gainL = (1.0f - p) * v;
        gainR = (p * 0.5f + 1.0f) * v;
    } else {
        gainL = (1.0f - p * 0.5f) * v;
        gainR = (p + 1.0f) * v;
    }
}

float CSound::bendSemitones() const {
    const CSynthProg* prog = program();
    return prog ? static_cast<float>(bendRange) * prog->bend : 0.0f;
}

void CSound::save(CStream& stream) const {
    const int32_t sound = beginBlock(stream, "sound");
    stream.writeU8(static_cast<uint8_t>(subKind));
    writeString(stream, name);
    stream.writeU8(mode);
    stream.writeU8(group);
    stream.writeU8(0);
    stream.writeU8(0);
    stream.writeF32(volume);
    stream.writeF32(pan);
    stream.writeI32(filter);
    stream.writeF32(cutoff);
    stream.writeF32(q);
    stream.writeI32(dist);
    stream.writeI32(0);
    stream.writeI32(0);
    stream.writeF32(coarse);
    stream.writeF32(fine);
    stream.writeI32(glide);
    stream.writeI32(bendRange);
    for (int32_t k = 0; k < 14; ++k) stream.writeI32(0);
    stream.writeF32(sends[0]);
    stream.writeF32(sends[1]);
    stream.writeI32(0);
    for (int32_t value : {int32_t{mute}, int32_t{drumFlag}, int32_t{solo}, 0, keyLow, keyHigh, velLow, velHigh})
        stream.writeU8(static_cast<uint8_t>(value));
    saveKind(stream);
    stream.closeBlock(sound);

    const int32_t mod = beginBlock(stream, "soundmod");
    writeRouting(stream, vel);
    writeEnvelope(stream, envelope[0]);
    writeEnvelope(stream, envelope[1]);
    for (const CLFO& each : lfo) writeLFO(stream, each);
    for (int32_t i = 2; i < envelopeCount; ++i) {
        writeEnvelope(stream, envelope[i]);
        writeRouting(stream, envelope[i]);
    }
    writeRouting(stream, cp);
    for (int32_t target : ccMap) stream.writeU8(static_cast<uint8_t>(target));
    stream.closeBlock(mod);

    const int32_t effects = beginBlock(stream, "soundfx");
    saveFXState(stream, *fx[0], phaserWords, phaserZeros);
    saveFXState(stream, *fx[1], chorusWords, chorusZeros);
    stream.closeBlock(effects);
}

void CSound::loadSound(BlockIn& in) {
    in.string(name);
    in.u8(mode);
    in.u8(group);
    in.skip(2);
    in.f32(volume);
    in.f32(pan);
    in.i32(filter);
    in.f32(cutoff);
    in.f32(q);
    in.i32(dist);
    in.skip(8);
    in.f32(coarse);
    in.f32(fine);
    in.i32(glide);
    in.i32(bendRange);
    in.skip(14 * 4);
    in.f32(sends[0]);
    in.f32(sends[1]);
    in.skip(4);
    in.u8(mute);
    in.u8(drumFlag);
    in.u8(solo);
    in.skip(1);
    in.u8To(keyLow);
    in.u8To(keyHigh);
    in.u8To(velLow);
    in.u8To(velHigh);
    loadKind(in);
}

void CSound::loadModulation(BlockIn& in) {
    readRouting(in, vel);
    readEnvelope(in, envelope[0]);
    readEnvelope(in, envelope[1]);
    for (CLFO& each : lfo) readLFO(in, each);
    for (int32_t i = 2; i < envelopeCount; ++i) {
        readEnvelope(in, envelope[i]);
        readRouting(in, envelope[i]);
    }
    readRouting(in, cp);
    for (int32_t& target : ccMap) in.u8To(target);
}

void CSound::loadEffects(BlockIn& in) {
    loadFXState(in, *fx[0], phaserWords, phaserZeros);
    loadFXState(in, *fx[1], chorusWords, chorusZeros);
}

CSound* createSound(int32_t subKind) {
    if (subKind == soundOscillator) return new COSCSound();
    if (subKind == soundSampled) return new CWavSound();
    return nullptr;
}
