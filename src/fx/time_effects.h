#pragma once
// The four effects with memory: delay, reverb, chorus and phaser. registerTimeEffects() makes them known
// to createFX. The helpers below are the one LFO rule that the chorus and the phaser share.

#include <cstdint>

#include "engine/fx.h"

void registerTimeEffects();

namespace timefx {

// Phase step per sample in table units: `rate` Hz, or with sync on, `div` cycles every `mul` beats of
// `tempo`. A multiplier or divisor of 0 counts as 1; without a sample rate the LFO stands still.
double lfoIncrement(float rate, int32_t sync, int32_t mul, int32_t div, float tempo, float sampleRate);

// Table value at a phase in table units: trunc(phase), then a floor modulo by the table size. The mask
// is that modulo for any sign, since the size is a power of two.
inline float lfoRead(const float* table, double phase) {
    return table[static_cast<int64_t>(phase) & (LFOTables::size - 1)];
}

// At the end of a block the phase comes back by one cycle at most; it only ever moves forward.
inline void lfoWrap(double& phase) {
    if (phase >= LFOTables::size) phase -= LFOTables::size;
}

// Phase offset in table units for an angle in degrees.
inline double lfoOffset(float degrees) {
    return static_cast<double>(degrees) * LFOTables::size / 360.0;
}

} // namespace timefx
