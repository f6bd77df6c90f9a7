#include "fx/filter.h"

#include <algorithm>

#include "fx/dynamics.h"

namespace {

struct Channel {
    float low, band, high;
};

// One sample of one channel; the output is the state the type names, read after the updates.
template <int32_t Output> float tick(Channel& s, float in, float c, float damping) {
    s.low += c * s.band;
    s.high = in - s.low - damping * s.band;
    s.band += c * s.high;
    if constexpr (Output == filterBandPass) return s.band;
    if constexpr (Output == filterHighPass) return s.high;
    return s.low;
}

// A span that holds no ramp end. Outside a ramp rampStep is 0, and adding it leaves the cutoff as it is.
template <int32_t Output>
void runSpan(CFilterFX& f, const float* inL, const float* inR, float* outL, float* outR, int32_t frames,
             float damping) {
    Channel left{f.low[0], f.band[0], f.high[0]};
    Channel right{f.low[1], f.band[1], f.high[1]};
    float cutoff = f.cutoff;
    const float rampStep = f.rampStep;
    for (int32_t i = 0; i < frames; ++i) {
        const float inLeft = inL[i], inRight = inR[i];
        const float c = cutoff * cutoff;
        outL[i] = tick<Output>(left, inLeft, c, damping);
        outR[i] = tick<Output>(right, inRight, c, damping);
        cutoff += rampStep;
    }
    f.low[0] = left.low;
    f.band[0] = left.band;
    f.high[0] = left.high;
    f.low[1] = right.low;
    f.band[1] = right.band;
    f.high[1] = right.high;
    f.cutoff = cutoff;
}

using SpanRunner = void (*)(CFilterFX&, const float*, const float*, float*, float*, int32_t, float);

SpanRunner runnerFor(int32_t type) {
    switch (type) {
    case filterBandPass:
        return runSpan<filterBandPass>;
    case filterHighPass:
        return runSpan<filterHighPass>;
    default:
        return runSpan<filterLowPass>;
    }
}

} // namespace

CFilterFX::CFilterFX() : CFX(fxFilter) {
    setName("Filter");
}

void CFilterFX::process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) {
    // target is read once: the editor may store a new one while this block runs.
    const float goal = target;
    if (goal != lastTarget) {
        lastTarget = goal;
        rampStep = (goal - cutoff) / static_cast<float>(rampLength);
        rampLeft = rampLength;
    }
    const float damping = 1.0f - q * 0.99f;
    const SpanRunner run = runnerFor(type);
    for (int32_t done = 0; done < frames;) {
        const int32_t span = rampLeft > 0 ? std::min(rampLeft, frames - done) : frames - done;
        run(*this, inL + done, inR + done, outL + done, outR + done, span, damping);
        done += span;
        if (rampLeft > 0) {
            rampLeft -= span;
            // Land on the target itself rather than on the sum of 300 rounded steps.
            if (rampLeft == 0) {
                cutoff = lastTarget;
                rampStep = 0.0f;
            }
        }
    }
    for (int32_t ch = 0; ch < 2; ++ch) {
        flushDenormal(low[ch]);
        flushDenormal(band[ch]);
    }
}

void CFilterFX::setEnabled(bool on) {
    CFX::setEnabled(on);
    if (!on) return;
    for (int32_t ch = 0; ch < 2; ++ch)
        low[ch] = band[ch] = high[ch] = 0.0f;
}

void CFilterFX::setCutoff(float value) {
    target = boundedSetting(value, 0.0f, 1.0f, target);
}

void CFilterFX::saveWords(FXWords& words) const {
    words.setI32(0, type);
    words.setF32(1, target);
    words.setF32(2, q);
}

void CFilterFX::loadWords(const FXWords& words) {
    type =
        std::clamp(words.i32(0), static_cast<int32_t>(filterLowPass), static_cast<int32_t>(filterHighPass));
    setCutoff(words.f32(1));
    q = boundedSetting(words.f32(2), 0.0f, 1.0f, 0.0f);
}
