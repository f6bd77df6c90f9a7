#include "sound/modulation.h"

#include <cmath>
#include <limits>

#include "sound/tables.h"

namespace {

std::atomic<double> sampleRateForTimes{44100.0};

// The longest segment a time parameter can give: more than a day at any rate.
constexpr double maxSegment = std::numeric_limits<int32_t>::max() / 2;

}  // namespace

const char* targetName(int32_t index) {
    static const char* const names[targetCount] = {"",   "Pitch", "Volume",   "Pan",   "Cutoff",
                                                    "Q",  "OscFB", "ModFB",    "PhaseMod", "Detune"};
    return index >= 0 && index < targetCount ? names[index] : "";
}

void setModulationSampleRate(double rate) {
    if (rate > 0.0) sampleRateForTimes.store(rate, std::memory_order_relaxed);
}

double modulationSampleRate() { return sampleRateForTimes.load(std::memory_order_relaxed); }

int32_t timeToSamples(float x, int32_t timeScale) {
    const double v = std::floor(double{x} * x * timeScale * modulationSampleRate() * 0.001 + 0.5);
    if (!(v > 0.0)) return 0;
    return static_cast<int32_t>(v < maxSegment ? v : maxSegment);
}

void CEnv::start(ModState& state) const {
    state.running = 1;
    state.stage = stageAttack;
    state.value = state.from = initial;
    state.to = 1.0f;
    state.curve = ac;
    state.left = state.total = timeToSamples(attack, timeScale);
}

void CEnv::next(ModState& state) const {
    switch (state.stage) {
    case stageAttack:
        state.stage = stageDecay;
        state.from = 1.0f;
        state.to = sustain;
        state.curve = dc;
        state.left = state.total = timeToSamples(decay, timeScale);
        break;
    case stageDecay:
        state.running = 0;
        state.stage = stageSustain;
        state.from = state.to = sustain;
        state.curve = 0.0f;
        state.left = state.total = 0;
        break;
    case stageRelease:
        // The release curve is written where no segment moves any more; a release runs with the curve
        // its predecessor left.
        state.running = 0;
        state.stage = stageEnded;
        state.from = state.to = 0.0f;
        state.curve = rc;
        state.left = state.total = 0;
        break;
    default:
        break;
    }
}

void CEnv::release(ModState& state) const {
    state.from = state.value;
    state.to = 0.0f;
    state.running = 1;
    state.stage = stageRelease;
    state.left = state.total = timeToSamples(releaseTime, timeScale);
}

void CPitchEnv::start(ModState& state) const {
    state.running = 1;
    state.stage = stageAttack;
    state.value = state.from = startLevel;
    state.to = 0.0f;
    state.curve = attackCurve;
    state.left = state.total = timeToSamples(attackTime, timeScale);
}

void CPitchEnv::next(ModState& state) const {
    if (state.stage == stageAttack) {
        state.running = 0;
        state.stage = stageSustain;
        state.from = state.to = state.curve = 0.0f;
        state.left = 0;
    } else if (state.stage == stageRelease) {
        state.running = 0;
        state.stage = stageEnded;
        state.from = state.to = releaseLevel;
        state.curve = releaseCurve;
        state.left = 0;
    }
}

void CPitchEnv::release(ModState& state) const {
    state.from = state.value;
    state.running = 1;
    state.stage = stageRelease;
    state.to = releaseLevel;
    state.left = state.total = timeToSamples(releaseTime, timeScale);
}

const double* lfoTable(int32_t wave) {
    const SoundTables& tables = SoundTables::get();
    switch (wave) {
    case waveTri: return tables.tri;
    case waveSaw: return tables.saw;
    case wavePulse: return tables.pulse;
    default: return tables.sine;
    }
}
