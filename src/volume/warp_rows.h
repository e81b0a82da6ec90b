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

// The kernel of a voxel type and kind: the Avx twin.
template <class T>
WarpRowKernel<T> warpRowKernel(const InterpolationKernel& kernel);

// Twins for 8u, 16u and 32f. Scalar steps and samples voxel by voxel. Avx steps a stretch of
// the row into a buffer with the same sequential sums, then samples it 8 voxels at a time
// (sample_lanes.h) with the tail voxel by voxel; a window the lanes cannot take (one voxel
// wide, or bounds past 2^24) goes through Scalar.
template <class T>
void warpNearestRowScalar(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                          const double start[3], const double step[3], T* out, int n);
template <class T>
void warpNearestRowAvx(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                       const double start[3], const double step[3], T* out, int n);
template <class T>
void warpLinearRowScalar(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                         const double start[3], const double step[3], T* out, int n);
template <class T>
void warpLinearRowAvx(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                      const double start[3], const double step[3], T* out, int n);
template <class T>
void warpCubicRowScalar(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                        const double start[3], const double step[3], T* out, int n);
template <class T>
void warpCubicRowAvx(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                     const double start[3], const double step[3], T* out, int n);

}  // namespace vekr::volume
