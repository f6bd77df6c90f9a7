#pragma once
// Stereo test signals for effects and the loop that runs an effect over them in blocks.

#include "engine/fx.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace stereotest {

struct Stereo {
    explicit Stereo(size_t frames, float fill = 0.0f) : l(frames, fill), r(frames, fill) {}
    size_t size() const { return l.size(); }
    std::vector<float> l, r;
};

inline Stereo impulse(size_t frames, float left, float right, size_t at = 0) {
    Stereo s(frames);
    s.l[at] = left;
    s.r[at] = right;
    return s;
}

// Deterministic noise in -amplitude..amplitude, different on the two sides and for each seed.
inline Stereo noise(size_t frames, float amplitude = 1.0f, uint32_t seed = 12345) {
    Stereo s(frames);
    auto next = [&] {
        seed = seed * 1664525u + 1013904223u;
        return amplitude * (static_cast<float>(seed >> 8) / 8388608.0f - 1.0f);
    };
    for (size_t i = 0; i < frames; ++i) {
        s.l[i] = next();
        s.r[i] = next();
    }
    return s;
}

// Runs the whole signal through the effect in blocks; `out` keeps what it held where the effect adds.
inline Stereo run(CFX& fx, const Stereo& in, size_t block = 1024, float fill = 0.0f) {
    Stereo out(in.size(), fill);
    for (size_t at = 0; at < in.size(); at += block) {
        const auto n = static_cast<int32_t>(std::min(block, in.size() - at));
        fx.process(in.l.data() + at, in.r.data() + at, out.l.data() + at, out.r.data() + at, n);
    }
    return out;
}

// The first sample at or after `from` that is not exactly 0; the size when there is none.
inline size_t firstNonZero(const std::vector<float>& v, size_t from = 0) {
    const auto it = std::find_if(v.begin() + static_cast<std::ptrdiff_t>(from), v.end(),
                                 [](float x) { return x != 0.0f; });
    return static_cast<size_t>(it - v.begin());
}

inline bool allZero(const float* data, size_t n) {
    return std::all_of(data, data + n, [](float x) { return x == 0.0f; });
}

} // namespace stereotest
