// Triangle acceleration records: each triangle in the projected form the ray tests read.
#pragma once

#include <cstddef>

#include "vekr.h"

namespace vekr::accel {

constexpr int kTriangleAccelBytes = 40;
static_assert(sizeof(TriangleAccel) == kTriangleAccelBytes);
// The ray tests read the record by word position: pin every field.
static_assert(offsetof(TriangleAccel, axes) == 0 && offsetof(TriangleAccel, nu) == 4 &&
              offsetof(TriangleAccel, pk) == 8 && offsetof(TriangleAccel, nv) == 12 &&
              offsetof(TriangleAccel, pu) == 16 && offsetof(TriangleAccel, pv) == 20 &&
              offsetof(TriangleAccel, e2u) == 24 && offsetof(TriangleAccel, e2v) == 28 &&
              offsetof(TriangleAccel, e1u) == 32 && offsetof(TriangleAccel, e1v) == 36);

constexpr uint32_t kAxisAlignedFlag = 0x80000000u;

// The record of triangle (p0, p1, p2); an all-zero record when its normal is zero.
TriangleAccel makeTriangleAccel(const float* p0, const float* p1, const float* p2);

// One record per triangle, in triangle order. triangles holds four ints per triangle, the
// first three indexing vertices (three floats each).
void initTriangleAccels(TriangleAccel* out, const float* vertices, const int* triangles,
                        int triangleCount);

}  // namespace vekr::accel
