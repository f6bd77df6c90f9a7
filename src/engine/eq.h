#pragma once
// CEQ: one biquad filter section with the cookbook coefficient formulas. Every channel strip runs four
// of them (high shelf, two peaks, low shelf), and the effect chain can hold them too.

#include <cstdint>

#include "engine/fx.h"

enum EQType : int32_t {
    eqLowShelf = 0,
    eqPeak = 1,
    eqHighShelf = 2,
    eqLowPass = 3,
    eqHighPass = 4,
    eqBandPass = 5,
    eqNotch = 6,
};

class CEQ : public CFX {
public:
    explicit CEQ(int32_t filterType, float freq = 4000.0f);

    void setSampleRate(float rate) override;
    // Direct form I on both channels; overwrites the outputs, so it works in place.
    void process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) override;
    void reset() override;
    // Recomputes the coefficients from the fields.
    void update();

    int32_t filterType;
    int32_t power = 1;
    float freq;
    float gain = 0.0f;  // dB
    float Q = 0.1f;
    float b0 = 1.0f, b1 = 0.0f, b2 = 0.0f, a1 = 0.0f, a2 = 0.0f;
    float x1L = 0.0f, x2L = 0.0f, y1L = 0.0f, y2L = 0.0f;
    float x1R = 0.0f, x2R = 0.0f, y1R = 0.0f, y2R = 0.0f;
};
