#pragma once
// Bit-for-bit comparison of rendered samples, for tests that hold two renders against each other.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace comparetest {

inline constexpr size_t noDifference = SIZE_MAX;

// The first index at or after `from` whose bits differ, the shorter length where one ends early, or
// noDifference.
inline size_t firstDifference(const std::vector<float>& a, const std::vector<float>& b, size_t from = 0) {
    const size_t common = std::min(a.size(), b.size());
    for (size_t n = from; n < common; ++n)
        if (std::memcmp(&a[n], &b[n], sizeof(float)) != 0) return n;
    return a.size() == b.size() ? noDifference : common;
}

} // namespace comparetest
