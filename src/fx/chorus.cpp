#include "fx/chorus.h"

#include <algorithm>
#include <cmath>

#include "fx/time_effects.h"

namespace {

constexpr int32_t ringMask = CChorus::bufferFrames - 1;

// One channel's tap: linear interpolation at position p of the ring. The integer part is a floor, so the
// fraction stays in 0..1 where p is negative (just after the write position wrapped); the mask is then
// a floor modulo.
float tapAt(const float* ring, double p) {
    const double whole = std::floor(p);
    const int64_t i = static_cast<int64_t>(whole);
    const float a = ring[i & ringMask];
    const float b = ring[(i + 1) & ringMask];
    return a + (b - a) * static_cast<float>(p - whole);
}

} // namespace

CChorus::CChorus() : CFX(fxChorus), tables_(LFOTables::get()) {
    setName("Chorus");
    dry = 0.5f;
    wet = 0.5f;
}

void CChorus::setEnabled(bool on) {
    CFX::setEnabled(on);
    if (!on || bufL) return;
    bufL = std::make_unique<float[]>(bufferFrames);
    bufR = std::make_unique<float[]>(bufferFrames);
}

void CChorus::reset() {
    if (bufL) std::fill_n(bufL.get(), bufferFrames, 0.0f);
    if (bufR) std::fill_n(bufR.get(), bufferFrames, 0.0f);
}

void CChorus::process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) {
    if (!bufL || !bufR) return;
    const double inc = timefx::lfoIncrement(rate, sync, mul, div, tempo, sampleRate);
    // The nominal tap stays inside the ring, however long the delay or high the rate.
    const double s = std::clamp(static_cast<double>(sampleRate) * delay * 0.001, 0.0,
                                static_cast<double>(bufferFrames - 2));
    const double swing = depth * s;
    const double ph = timefx::lfoOffset(phase);
    const float* table = wave >= 0.5f ? tables_.triangle : tables_.sine;

    for (int32_t i = 0; i < frames; ++i) {
        const float xl = inL[i];
        const float xr = inR[i];

        const float vl = tapAt(bufL.get(), swing * timefx::lfoRead(table, lfoPhase) + (writeL - s - 1.0));
        float cellL = vl * feedback + xl;
        flushDenormal(cellL);
        bufL[writeL] = cellL;
        outL[i] = vl * wet + xl * dry;

        const float vr =
            tapAt(bufR.get(), swing * timefx::lfoRead(table, lfoPhase + ph) + (writeR - s - 1.0));
        float cellR = vr * feedback + xr;
        flushDenormal(cellR);
        bufR[writeR] = cellR;
        outR[i] = vr * wet + xr * dry;

        writeL = (writeL + 1) & ringMask;
        writeR = (writeR + 1) & ringMask;
        lfoPhase += inc;
    }
    timefx::lfoWrap(lfoPhase);
}

void CChorus::saveWords(FXWords& words) const {
    words.setF32(0, delay);
    words.setF32(1, depth);
    words.setF32(2, phase);
    words.setF32(3, feedback);
    words.setF32(4, rate);
}

void CChorus::loadWords(const FXWords& words) {
    delay = words.f32(0);
    depth = words.f32(1);
    phase = words.f32(2);
    feedback = words.f32(3);
    rate = words.f32(4);
}
