// The 3-D filter of signed 16-bit volumes: a convolution with a kernel of 32-bit integers,
// summed exactly in 64-bit integers, divided with rounding half away from zero and saturated
// to the 16-bit range. Destination voxel (x, y, z) is
//   round(sum over i, j, k of K(i, j, k) * src(x + ax - i, y + ay - j, z + az - k) / divisor)
// with src(x, y, z) = srcPlanes[z][y * srcRowStep + x]: plane, row and voxel indices may be
// negative or run past the destination's extent, into the caller's padding.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vekr.h"

namespace vekr::volume {

// One filter call in voxel units.
struct FilterJob {
    const int16_t* const* srcPlanes;  // plane 0 is the counterpart of destination plane 0
    std::ptrdiff_t srcRowStep;        // voxels
    int16_t* const* dstPlanes;
    std::ptrdiff_t dstRowStep;  // voxels
    VolumeSize roi;             // destination extents written from voxel (0, 0, 0)
    const int32_t* kernel;      // x fastest, then y, then z
    VolumeSize kernelExtent;
    int32_t anchor[3];  // x, y, z: the kernel element that meets src(x, y, z)
    int32_t divisor;    // nonzero
};

// What a row kernel reads for one destination row. Tap t meets the t-th source voxel in reading
// order (x fastest, then rows, then planes, each ascending), so the taps are the kernel reversed.
struct FilterRowSource {
    // Each tap in four equal 32-bit lanes, 16-byte aligned; or, when pairedTaps, taps 2p and
    // 2p + 1 as the low and high 16 bits of every 32-bit lane of pair p (an odd last tap paired
    // with 0).
    const int32_t* taps;
    bool pairedTaps;
    VolumeSize kernelExtent;       // kw, kh, kd
    const int16_t* const* planes;  // the kd planes the row reads, lowest first
    std::ptrdiff_t firstOffset;    // voxels from each plane pointer to the first voxel x = 0 reads
    std::ptrdiff_t rowStep;        // voxels
    int32_t divisor;
};

// Whether every partial sum of a kernel fits in a signed 32-bit integer with its taps in 16 bits:
// each tap in -32768 .. 32767 and the sum of their magnitudes at most 65535, so that no sum of
// products with 16-bit voxels reaches 2^31; and at most 512 elements.
bool fitsPairedTaps(const int32_t* kernel, VolumeSize kernelExtent);

// round(sum / divisor), half away from zero, saturated to -32768 .. 32767. The sum is any
// 64-bit value; the divisor is nonzero.
int16_t roundDivideSaturate(int64_t sum, int32_t divisor);

// Destination voxels 0 .. width - 1 of one row. The two agree bit for bit: both sum exactly,
// Scalar in 64-bit integers, Avx in 64-bit lanes or, for paired taps, in 32-bit lanes.
using FilterRowKernel = void (*)(const FilterRowSource& src, int16_t* dst, int32_t width);
void filterRowScalar(const FilterRowSource& src, int16_t* dst, int32_t width);
void filterRowAvx(const FilterRowSource& src, int16_t* dst, int32_t width);

// Writes the taps of the row kernels at the first 64-byte boundary of share (16 bytes per
// kernel element, or per pair of elements when paired) and returns them.
const int32_t* layOutFilterTaps(const int32_t* kernel, VolumeSize kernelExtent, bool paired,
                                uint8_t* share);

// Destination slices sliceBegin .. sliceEnd - 1 with one thread's share of the work buffer.
void filterSlices(const FilterJob& job, uint8_t* share, int32_t sliceBegin, int32_t sliceEnd,
                  FilterRowKernel rowKernel);

// The whole region. Split over a team of the library's threads when it is at least 16 voxels
// on each axis and there is more than one thread: with n members, member t writes the slices
// from t * q on, q = depth / n, q of them or, the last member, q + depth % n, in the share at
// buffer + t * filterBufferBytesPerThread. Every voxel's sum is exact, so any team size gives
// the same bytes.
void filterVolume(const FilterJob& job, uint8_t* buffer, FilterRowKernel rowKernel = filterRowAvx);

}  // namespace vekr::volume
