#pragma once
// The chain's dynamics and colour kinds: the compressor, the bit crusher and the filter. All three
// overwrite their outputs and leave dry and wet at 1.0, so they can work in place on the chain's scratch.

#include <algorithm>
#include <cmath>

// Makes the three kinds available to createFX by their numbers.
void registerDynamicsEffects();

// A setting read from a file, brought into the range the editor offers, so that no stored value can
// reach a division by zero or an unstable filter. Not-a-number reads as `fallback`.
inline float boundedSetting(float value, float lo, float hi, float fallback) {
    if (std::isnan(value)) return fallback;
    return std::clamp(value, lo, hi);
}
