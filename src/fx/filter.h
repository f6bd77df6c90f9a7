#pragma once
// CFilterFX: a two-pole state-variable filter on both channels with one coefficient, the cutoff squared.
// The coefficient does not depend on the sample rate: at another rate one setting gives another corner.
//
// A cutoff change glides over exactly 300 samples, at any block size: a block is cut where the ramp ends,
// and there the cutoff lands on its target exactly. The ramp starts at the head of the next block, from
// the present cutoff, so the audio thread is the only writer of the ramp; a change during a ramp starts
// a new one from where the cutoff stands.

#include <cstdint>

#include "engine/fx.h"

enum FilterOutput : int32_t {
    filterLowPass = 0,
    filterBandPass = 1,
    filterHighPass = 2,
};

class CFilterFX : public CFX {
public:
    CFilterFX();

    void process(const float* inL, const float* inR, float* outL, float* outR, int32_t frames) override;
    // Turning the filter on clears its states, so that a stale resonance does not sound.
    void setEnabled(bool on) override;
    // The cutoff, 0..1; a value that differs from the last one glides there from the next block on.
    void setCutoff(float value);
    // Words: i32 filter type, f32 cutoff, f32 Q.
    void saveWords(FXWords& words) const override;
    // Values outside the editor's ranges are brought into them; a new cutoff glides like setCutoff.
    void loadWords(const FXWords& words) override;

    static constexpr int32_t rampLength = 300;

    float low[2] = {};  // low-pass state, left and right
    float band[2] = {}; // band-pass state
    float high[2] = {}; // high-pass output of the last sample
    int32_t type = filterLowPass;
    float q = 0.0f; // resonance 0..1
    float lastTarget = 1.0f;
    float target = 1.0f;
    float cutoff = 1.0f; // present value of the ramp
    float rampStep = 0.0f;
    int32_t rampLeft = 0;
};
