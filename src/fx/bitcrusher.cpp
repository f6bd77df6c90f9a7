#include "fx/bitcrusher.h"

#include <algorithm>
#include <cmath>

namespace {

// floor(hold / step + 0.5) * step with step = 0.5^bits. Scaling by a power of two is exact in double,
// so multiplying by 2^bits gives the same value as dividing by the step.
float quantise(float hold, double scale, double step) {
    return static_cast<float>(std::floor(static_cast<double>(hold) * scale + 0.5) * step);
}

} // namespace

CBitcrusher::CBitcrusher() : CFX(fxBitcrusher) {
    setName("Bit Crusher");
}

void CBitcrusher::process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) {
    const double step = std::ldexp(1.0, -bits);
    const double scale = std::ldexp(1.0, bits);
    const int32_t takeAt = degrade - 1;
    // The output only changes when a new frame is held, so it is rounded once per hold.
    float heldL = quantise(holdL, scale, step);
    float heldR = quantise(holdR, scale, step);
    for (int32_t i = 0; i < frames; ++i) {
        if (counter >= takeAt) {
            holdL = inL[i];
            holdR = inR[i];
            counter = 0;
            heldL = quantise(holdL, scale, step);
            heldR = quantise(holdR, scale, step);
        } else {
            ++counter;
        }
        outL[i] = heldL;
        outR[i] = heldR;
    }
}

void CBitcrusher::saveWords(FXWords& words) const {
    words.setI32(0, bits);
    words.setI32(1, degrade);
}

void CBitcrusher::loadWords(const FXWords& words) {
    bits = std::clamp(words.i32(0), minBits, maxBits);
    degrade = std::clamp(words.i32(1), minDegrade, maxDegrade);
}
