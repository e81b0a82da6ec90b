// The per-axis tables of a resize (source taps, fractions, weights, border runs) and the carving
// of one thread's share of the work buffer into tables, row slots and intermediate planes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "resample_kernels.h"
#include "volume_geometry.h"

namespace vekr::volume {

// One axis of a resize. Entry j belongs to destination index dstStart + j.
struct AxisTable {
    int count = 0;      // dstEnd - dstStart
    int srcExtent = 0;  // N: the whole source volume along the axis, not the source box
    // Border runs: the leading and trailing entries whose taps reach outside 0 .. N-1 and are
    // clamped there (the nearest edge voxel stands in). Entries between them read their taps
    // unclamped. lead + trail <= count.
    int lead = 0, trail = 0;
    int32_t* base = nullptr;          // nearest: the source index, clamped; else floor(p)
    float* fraction = nullptr;        // linear, cubic: p - floor(p)
    float* weights = nullptr;         // cubic: four per entry, for taps base-1 .. base+2
    int16_t* fixedWeights = nullptr;  // 8u linear along x: w0, w1 per entry, 14 fraction bits
};

// Source indices of the taps of entry j: base (nearest), base and base+1 (linear), base-1 ..
// base+2 (cubic). Entries in a border run get them clamped to 0 .. N-1, which also covers
// N < 4, where the planes N-3 .. N-1 near the end collapse onto the ones that exist.
inline void tapIndices(const AxisTable& axis, int j, int taps, int32_t out[4])
{
    const int32_t first = taps == 4 ? axis.base[j] - 1 : axis.base[j];
    const bool border = j < axis.lead || j >= axis.count - axis.trail;
    for (int t = 0; t < taps; ++t) {
        int32_t s = first + t;
        if (border) s = s < 0 ? 0 : s >= axis.srcExtent ? axis.srcExtent - 1 : s;
        out[t] = s;
    }
}

// Fixed-point weights of the 8u linear resample along x: w0 + w1 = 1 << kFixedWeightBits.
constexpr int kFixedWeightBits = 14;

// What one thread carves from its share. Rows and planes hold floats; a row has the
// destination box's width, padded to rowStride so each starts on a 64-byte boundary.
struct ResizeWorkspace {
    AxisTable axis[kAxes];
    int taps = 1;                    // per axis: 1 nearest, 2 linear, 4 cubic
    float* rowSlots = nullptr;       // taps source rows resampled along x
    float* planeSlots = nullptr;     // taps intermediate planes (source planes resized in x, y)
    std::ptrdiff_t rowStride = 0;    // floats
    std::ptrdiff_t planeStride = 0;  // floats: rowStride times the box's height
    std::size_t bytesUsed = 0;       // from the start of the share, alignment included
};

// Carves the areas for a destination box of width x height x depth from share, each on a
// 64-byte boundary; the whole fits in resizeBufferBytesPerThread of the same box. Tables are
// left unfilled. fixedPointX asks for the 8u linear x weights.
ResizeWorkspace carveResizeWorkspace(uint8_t* share, int32_t width, int32_t height, int32_t depth,
                                     const InterpolationKernel& kernel, bool fixedPointX);

// Fills the tables of a carved workspace (whose box is the region's) for a source volume.
void fillResizeTables(ResizeWorkspace& ws, const ResizeRegion& region, VolumeSize srcVolume,
                      const InterpolationKernel& kernel);

}  // namespace vekr::volume
