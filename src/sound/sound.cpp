#include "sound/sound.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "engine/engine.h"
#include "sound/osc_sound.h"
#include "sound/program.h"
#include "sound/sound_random.h"
#include "sound/tables.h"

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

// Cycles per sample of an LFO for this voice; 0 (standing still) for a rate that is not positive.
double lfoIncrement(const SamplerVoice& voice, const CLFO& lfo) {
    const double inc = lfo.rateHz(tempoOf(voice)) / voice.sampleRate;
    if (!(inc > 0.0)) return 0.0;
    return std::min(inc, maxLFOIncrement);
}

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
    fx[0].reset(createFX(fxPhaser));
    fx[1].reset(createFX(fxChorus));
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
        state.inc = lfoIncrement(voice, *state.lfo);
        if (state.inc > 0.0) {
            const double samples = (1.0 - state.phase) / state.inc;
            state.toWrap = toCount(rounding == WrapRounding::nearest ? std::floor(samples + 0.5) : std::trunc(samples));
        } else {
            state.toWrap = noWrap;
        }
        chunk = std::min(chunk, state.toWrap);
    }
    return chunk;
}

void CSound::modulate(SamplerVoice& voice, int32_t chunk) {
    for (int32_t m = 0; m < voiceModulators; ++m) {
        if (!voice.mods[m]) continue;
        ModState& state = voice.modState[m];
        if (state.running && state.total >= 1) {
            float t = static_cast<float>(state.total - state.left + chunk) / static_cast<float>(state.total);
            const float k = state.curve * state.curve * 63.0f + 1.0f;
            const float c = state.curve < 0.0f ? k : 1.0f / k;
            if (k != 1.0f) t = 1.0f - (c / (t * (1.0f - c) + c) - c) / (1.0f - c);
            state.value = state.from + (state.to - state.from) * t;
        }
        applyRouting(voice.mods[m]->params, state.value, targets);
    }
    for (LFOState& state : voice.lfo) {
        if (!state.lfo) continue;
        if (state.delayLeft != 0) {
            state.value = 0.5f;
            state.delayLeft -= chunk;
        } else {
            if (state.lfo->wave != waveRandom)
                state.value = static_cast<float>(state.table[lfoIndex(state.phase)] * 0.5 + 0.5);
            state.phase += chunk * state.inc;
        }
        applyRouting(state.lfo->params, state.value, targets);
    }
    applyRouting(vel.params, voice.velocity, targets);
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

CSound* createSound(int32_t subKind) {
    if (subKind == soundOscillator) return new COSCSound();
    return nullptr;
}
