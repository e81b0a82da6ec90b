// Row kernels of the affine warp (defined in volume_remap_warp.cpp): one destination row
// sampled at positions stepped along it.
#pragma once

#include "point_sampling.h"

namespace vekr::volume {

// n voxels of out from the positions start, start + step, (start + step) + step, ...: each
// one the previous plus step, added in double one after the other (that rounding is part of
// the result). Voxels whose position lies outside the window keep their contents.
template <class T>
using WarpRowKernel = void (*)(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                               const double start[3], const double step[3], T* out, int n);

// The kernel of a voxel type and kind. Scalar steps and samples voxel by voxel; Avx (the one the
// warp uses) steps a stretch of the row into a buffer with the same sequential sums, then
// samples it 8 voxels at a time (sample_lanes.h) with the tail voxel by voxel; a window the
// lanes cannot take (one voxel wide, bounds past 2^24, offsets past 2^31) goes voxel by voxel.
// The two give the same bits.
template <class T>
WarpRowKernel<T> warpRowKernel(const InterpolationKernel& kernel, RowPath path = RowPath::Avx);

}  // namespace vekr::volume
