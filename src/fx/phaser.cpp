#include "fx/phaser.h"

#include "fx/time_effects.h"

namespace {

// One channel's sample through the chain of all-pass sections with coefficient c; the feedback memory
// takes the output.
float allPassChain(std::array<float, CPhaser::stages>& state, float& memory, float fb, float c, float in) {
    float x = fb * memory + in;
    float y = 0.0f;
    for (float& s : state) {
        y = s - c * x;
        s = c * y + x;
        x = y;
    }
    flushDenormal(y);
    memory = y;
    return y;
}

} // namespace

CPhaser::CPhaser() : CFX(fxPhaser), tables_(LFOTables::get()) {
    setName("Phaser");
    dry = 0.5f;
    wet = 0.5f;
}

void CPhaser::process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) {
    const float lo = 2.0f * rangeMin / sampleRate;
    const float span = 2.0f * rangeMax / sampleRate - lo;
    // Just below 1, so that full feedback still decays.
    const float fb = feedback * 0.998f;
    const double ph = timefx::lfoOffset(phase);
    const double inc = timefx::lfoIncrement(rate, sync, mul, div, tempo, sampleRate);
    const float* table = wave == 1 ? tables_.triangle : wave == 2 ? tables_.saw : tables_.sine;

    for (int32_t i = 0; i < frames; ++i) {
        const float xl = inL[i];
        const float xr = inR[i];

        const float wl = span * timefx::lfoRead(table, lfoPhase) + lo;
        lfoPhase += inc;
        const float yl = allPassChain(stateL, memL, fb, (1.0f - wl) / (1.0f + wl), xl);
        outL[i] = yl * wet + xl * dry;

        const float wr = span * timefx::lfoRead(table, lfoPhase + ph) + lo;
        const float yr = allPassChain(stateR, memR, fb, (1.0f - wr) / (1.0f + wr), xr);
        outR[i] = yr * wet + xr * dry;
    }

    for (float& s : stateL)
        flushDenormal(s);
    for (float& s : stateR)
        flushDenormal(s);
    flushDenormal(memL);
    flushDenormal(memR);
    timefx::lfoWrap(lfoPhase);
}

void CPhaser::saveWords(FXWords& words) const {
    words.setF32(0, rate);
    words.setF32(1, feedback);
    words.setF32(2, phase);
    words.setF32(3, rangeMin);
    words.setF32(4, rangeMax);
}

void CPhaser::loadWords(const FXWords& words) {
    rate = words.f32(0);
    feedback = words.f32(1);
    phase = words.f32(2);
    rangeMin = words.f32(3);
    rangeMax = words.f32(4);
}
