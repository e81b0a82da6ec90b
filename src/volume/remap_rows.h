// Row kernels of remap: one destination row sampled at the positions of three map rows.
#pragma once

#include "point_sampling.h"

namespace vekr::volume {

// n voxels of out from the positions (mx[i], my[i], mz[i]); voxels whose position lies
// outside the window keep their contents.
template <class T>
using RemapRowKernel = void (*)(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                                const float* mx, const float* my, const float* mz, T* out, int n);

// The kernel of a voxel type and kind. Scalar is the per-voxel sampler in a loop; Avx (the one
// remap uses) samples 8 voxels at a time (sample_lanes.h) and the tail through the per-voxel
// sampler, or the whole row when the lanes cannot take the window (one voxel wide, bounds past
// 2^24, offsets past 2^31). The two give the same bits.
template <class T>
RemapRowKernel<T> remapRowKernel(const InterpolationKernel& kernel, RowPath path = RowPath::Avx);

}  // namespace vekr::volume
