// The spherical-harmonic state: a 16-byte header and, for the recurrence, its two coefficient
// tables in the same caller-owned buffer, addressed by byte offsets from the header.
#pragma once

#include <cstdint>

#include "vekr.h"

namespace vekr::sh {

constexpr uint32_t kMaxOrder = 15;        // highest order either method evaluates
constexpr int kMaxBasisCount = 256;       // (kMaxOrder + 1)^2 values per direction
constexpr int kDirectStateBytes = 16;     // the header alone
constexpr uint32_t kTableAlignment = 16;  // both tables start on 16-byte boundaries
// The largest order whose recurrence state size, ((8 N + 30) & ~31) + 16 with
// N = (L + 1)(L + 2) / 2, fits in the int the size query writes: 2147302960 bytes for 23168,
// 2147488304 for 23169. Beyond it the 32-bit size wraps to a few bytes while the
// initialisation would write gigabytes, so both refuse such orders.
constexpr uint32_t kMaxRecurrenceStateOrder = 23168;

static_assert(sizeof(SHState) == kDirectStateBytes);

// Floats per table for order L: N = (L + 1)(L + 2) / 2, one block of l + 1 per band l (table
// B's first three floats stand for bands 0 and 1). 32-bit arithmetic, exact up to
// kMaxRecurrenceStateOrder.
uint32_t recurrenceTableFloats(uint32_t order);

// Bytes of a recurrence state: ((8 N + 30) & ~31) + 16. Enough for a buffer that starts on a
// 16-byte boundary.
uint32_t recurrenceStateBytes(uint32_t order);

// Clears the buffer, writes the header and, for the recurrence, fills both tables.
void initDirectState(void* state, uint32_t order);
void initRecurrenceState(void* state, uint32_t order);

// The recurrence tables: band l's block starts at float l (l + 1) / 2 in both.
struct RecurrenceTables {
    const float* a;  // a(l, 0..l); band 0: Y00; band 1: the m = 0 and |m| = 1 factors
    const float* b;  // b(l, 0..l-2), then two unused floats
};
RecurrenceTables recurrenceTables(const SHState& state);

}  // namespace vekr::sh
