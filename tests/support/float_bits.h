// Bit-level float helpers for exact comparisons in tests.
#pragma once

#include <cstdint>
#include <cstring>

namespace vekr::test {

inline uint32_t floatBits(float f)
{
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

// Always inlined: on 32-bit x86 a float returned from a call passes through the x87 stack,
// which would quiet the signalling NaNs the tests write as sentinels and expect as results.
[[gnu::always_inline]] inline float bitsToFloat(uint32_t u)
{
    float f;
    std::memcpy(&f, &u, sizeof f);
    return f;
}

}  // namespace vekr::test
