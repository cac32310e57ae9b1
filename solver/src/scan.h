// scan.h: checks of many numbers in operations that loops have in wide registers, without a branch.
//
// GCC keeps comparisons of doubles in such a loop one by one, which takes four times as long as these on their bits.
#pragma once

#include "tarvo.h"

#include <bit>
#include <cstdint>

namespace store {

constexpr uint64_t kEndOfFinite = std::bit_cast<uint64_t>(TRV_INFINITY);

inline uint64_t magnitude(double v) {
    return std::bit_cast<uint64_t>(v) & (UINT64_MAX >> 1);
}
// The first bit says that the number is infinite or NaN; that it is or is 0.
inline uint64_t notfinite(double v) {
    return kEndOfFinite - 1 - magnitude(v);
}
inline uint64_t notplain(double v) {
    return (magnitude(v) - 1) | notfinite(v);
}
inline bool firstbit(uint64_t bits) {
    return bits >> 63;
}

inline bool allfinite(int64_t n, const double *values) {
    uint64_t bits = 0;
    for (int64_t i = 0; i < n; i++)
        bits |= notfinite(values[i]);
    return !firstbit(bits);
}
// Finite and not 0.
inline bool allplain(int64_t n, const double *values) {
    uint64_t bits = 0;
    for (int64_t i = 0; i < n; i++)
        bits |= notplain(values[i]);
    return !firstbit(bits);
}
// 0 <= numbers[i] < end
inline bool allbelow(int64_t n, const int32_t *numbers, int32_t end) {
    const uint32_t last = static_cast<uint32_t>(end) - 1;
    uint32_t bits = 0;
    for (int64_t i = 0; i < n; i++) {
        const uint32_t number = static_cast<uint32_t>(numbers[i]);
        bits |= number | (last - number);
    }
    return !(bits >> 31);
}

// Copies what stands `step` apart (0: one for all); whether all are finite.
inline bool copyfinite(int64_t n, const double *from, int step, double *to) {
    if (step == 1)
        for (int64_t i = 0; i < n; i++)
            to[i] = from[i];
    else
        for (int64_t i = 0; i < n; i++)
            to[i] = from[i * step];
    return allfinite(n, to);
}

} // namespace store
