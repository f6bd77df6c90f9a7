#pragma once
// The random source of the "Random" LFO wave: a seedable linear congruential generator giving 0..32767,
// one per sampler, so that a render is the same every time and no two threads share a state.

#include <cstdint>

class CSoundRandom {
public:
    static constexpr int32_t maxValue = 32767;

    explicit CSoundRandom(uint32_t seed = 1) : state_(seed) {}

    void seed(uint32_t value) { state_ = value; }
    // The next value, 0..32767.
    int32_t next() {
        state_ = state_ * 214013u + 2531011u;
        return static_cast<int32_t>((state_ >> 16) & 0x7FFFu);
    }

private:
    uint32_t state_;
};
