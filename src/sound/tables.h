#pragma once
// The wave tables of the sounds: one cycle in 65,536 doubles each, built once by the first sound made,
// so that no voice ever builds them.
//
// The oscillators read sine with the factor 65535 and no interpolation (waveIndex); phases are never
// wrapped in place, because the factor is not the table size and a wrap by one cycle would move the
// index by one step. The LFOs read all four with rounding (lfoIndex).

#include <cmath>
#include <cstdint>

struct SoundTables {
    static constexpr int32_t size = 65536;
    static constexpr int32_t mask = size - 1;

    double sine[size];   // sin(2 pi i / size)
    double tri[size];    // 0 -> 1 over the first quarter, 1 -> -1 over the middle half, -1 -> 0
    double saw[size];    // 0 -> 1 over the first half, -1 -> 0 over the second
    double pulse[size];  // +1 for the first half, -1 for the second

    static const SoundTables& get();
};

// Table index of an oscillator phase in cycles: trunc(p * 65535), floor modulo the size. A phase so
// large that it no longer fits a 64-bit integer (only a damaged setting gets there) reads index 0.
inline int32_t waveIndex(double phase) {
    const double x = phase * 65535.0;
    if (!(std::fabs(x) < 4.0e18)) return 0;
    return static_cast<int32_t>(static_cast<int64_t>(x) & SoundTables::mask);
}

// Table index of an LFO phase: floor(p * 65535 + 0.5), floor modulo the size.
inline int32_t lfoIndex(double phase) {
    const double x = std::floor(phase * 65535.0 + 0.5);
    if (!(std::fabs(x) < 4.0e18)) return 0;
    return static_cast<int32_t>(static_cast<int64_t>(x) & SoundTables::mask);
}
