// Unsigned integer keys made from float bits, whose integer order is the float order, and a
// linear-time sort of 64-bit items by a key in their upper half.
#pragma once

#include <cstdint>
#include <cstring>

namespace vekr::accel {

// Non-negative floats get their sign bit set, negative ones all bits inverted. -0 and +0 get
// different keys, so callers add 0.0f first (which turns -0 into +0); NaN has no place.
inline uint32_t floatKey(float f)
{
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return (bits & 0x80000000u) != 0 ? ~bits : bits | 0x80000000u;
}

inline float keyFloat(uint32_t key)
{
    const uint32_t bits = (key & 0x80000000u) != 0 ? key & 0x7FFFFFFFu : ~key;
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

// The counts sortByUpperKey needs: two passes of 2^16 buckets.
constexpr int64_t kSortCountWords = int64_t(2) << 16;

// Sorts items[0 .. n-1] (n < 2^31) ascending by their upper 32 bits, keeping the order of items
// with equal upper halves; buffer[0 .. n-1] and counts[0 .. kSortCountWords-1] are scratch.
// Two least-significant-digit radix passes of 16 bits over the upper half, from items into
// buffer and back; a pass whose digit is the same in every item is skipped, and then the items
// are copied back.
void sortByUpperKey(uint64_t* items, uint64_t* buffer, uint32_t* counts, int64_t n);

}  // namespace vekr::accel
