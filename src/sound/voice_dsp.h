#pragma once
// The per-chunk pieces every kind of sound shares: gain and coefficient ramps, peak hold, the filter tap
// and the filter states kept in the voice between chunks.

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "sound/voice.h"

namespace voicedsp {

// A ramp step towards target over `chunk` samples, limited to the slew limit.
inline float rampStep(float target, float current, int32_t chunk, float slew) {
    return std::clamp((target - current) / static_cast<float>(chunk), -slew, slew);
}

inline void raisePeak(float y, float& peak) {
    if (y > peak) peak = y;
    else if (-y > peak) peak = -y;
}

// Which state a filter tap reads: 0 low, 1 band, 2 high.
inline int32_t tapIndex(const float* tap, const float* band, const float* high) {
    if (tap == band) return 1;
    if (tap == high) return 2;
    return 0;
}

// Keeps low, band and high of both channels as a chunk's loop left them.
inline void storeFilter(SamplerVoice& voice, const float (&left)[3], const float (&right)[3]) {
    voice.lowL = left[0];
    voice.bandL = left[1];
    voice.highL = left[2];
    voice.lowR = right[0];
    voice.bandR = right[1];
    voice.highR = right[2];
}

// The end of a sounding voice's block: filter states, gains and the coefficient below 1e-10 become 0.
inline void flushStates(SamplerVoice& voice) {
    for (float* state : {&voice.lowL, &voice.bandL, &voice.highL, &voice.lowR, &voice.bandR, &voice.highR,
                         &voice.gainL, &voice.gainR, &voice.filterF})
        if (std::fabs(*state) < 1e-10f) *state = 0.0f;
}

}  // namespace voicedsp
