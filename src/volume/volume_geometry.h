// What the volume functions share: the interpolation codes, the resize coordinate mapping and
// the destination region of a resize, and the sizes of the work buffers.
#pragma once

#include <cstdint>

#include "resample_kernels.h"
#include "vekr.h"

namespace vekr::volume {

constexpr int kAxes = 3;  // x, y, z

// x, y, z >= 0 and every extent >= 1.
bool cuboidValid(const Cuboid& c);

bool isKnownInterpolation(int interpolation);
bool isCubicInterpolation(int interpolation);

// One axis of a resize: destination index i maps to the source position
// p(i) = (i + 0.5) * inverseFactor + offset - 0.5 (linear and cubic) or to the source index
// trunc((i + 0.5) * inverseFactor + offset - 1e-10) (nearest). The destination indices
// dstStart .. dstEnd - 1 are written.
struct AxisMapping {
    double inverseFactor;  // 1 / F
    double offset;         // -S / F
    int32_t dstStart, dstEnd;
};

struct ResizeRegion {
    AxisMapping axis[kAxes];
};

// The checks and the destination box every resize starts with. pointersPresent is false when
// the source, destination or work buffer pointer is null; kernel is the entry's lookup of the
// interpolation code, null for an unknown code. On StatusOk the region is filled;
// StatusWarnVoiOutsideSource and StatusWarnNoOperation mean there is nothing to write.
Status resolveResizeRegion(bool pointersPresent, VolumeSize srcVolume, Cuboid srcVOI, Cuboid dstVOI,
                           const double factor[kAxes], const double shift[kAxes],
                           const InterpolationKernel* kernel, ResizeRegion& region);
// The same for a caller that holds the public code (the benchmarks of the internal stages).
inline Status resolveResizeRegion(bool pointersPresent, VolumeSize srcVolume, Cuboid srcVOI,
                                  Cuboid dstVOI, const double factor[kAxes],
                                  const double shift[kAxes], int interpolation,
                                  ResizeRegion& region)
{
    return resolveResizeRegion(pointersPresent, srcVolume, srcVOI, dstVOI, factor, shift,
                               findInterpolationKernel(interpolation), region);
}

// The destination box that resizing srcVOI covers (no clipping to any destination); false
// when it is empty on an axis. Checks are the caller's.
bool coveredCuboid(Cuboid srcVOI, const double factor[kAxes], const double shift[kAxes],
                   Cuboid& out);

// Work-buffer bytes of one thread's share for a destination box of W x H x D, including the
// 64 bytes that let each share start on a 64-byte boundary (32-bit unsigned arithmetic).
uint32_t resizeBufferBytesPerThread(int32_t width, int32_t height, int32_t depth,
                                    int interpolation);

// The filter's buffer for a destination width and kernel extents, per thread.
uint32_t filterBufferBytesPerThread(int32_t width, VolumeSize kernel);

}  // namespace vekr::volume
