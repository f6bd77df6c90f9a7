#pragma once
// CBitcrusher: holds every degrade-th input frame and rounds it to a grid of 2^-bits.
//
// The held frame is taken when the counter has run degrade - 1 frames, so a fresh crusher at degrade 4
// gives its held zeros for three frames before it takes its first sample. Rounding is half up, and the
// values are not limited to -1..1. There is no feedback: the holds are copies of the input and can't
// decay into denormal numbers.

#include <cstdint>

#include "engine/fx.h"

class CBitcrusher : public CFX {
public:
    CBitcrusher();

    void process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) override;
    // Words: i32 bits, i32 degrade.
    void saveWords(FXWords& words) const override;
    // Values outside the editor's ranges are brought into them.
    void loadWords(const FXWords& words) override;

    static constexpr int32_t minBits = 1, maxBits = 32;
    static constexpr int32_t minDegrade = 1, maxDegrade = 64;

    int32_t bits = 4;
    int32_t degrade = 4; // frames each held sample lasts
    int32_t counter = 0;
    float holdL = 0.0f, holdR = 0.0f;
};
