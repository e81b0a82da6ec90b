// Row kernels of remap: one destination row sampled at the positions of three map rows.
#pragma once

#include "point_sampling.h"

namespace vekr::volume {

// n voxels of out from the positions (mx[i], my[i], mz[i]); voxels whose position lies
// outside the window keep their contents.
template <class T>
using RemapRowKernel = void (*)(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                                const float* mx, const float* my, const float* mz, T* out, int n);

// The kernel of a voxel type and kind: the Avx twin.
template <class T>
RemapRowKernel<T> remapRowKernel(const InterpolationKernel& kernel);

// Twins for 8u, 16u and 32f. Scalar is the per-voxel sampler in a loop. Avx runs 8 voxels at a
// time (sample_lanes.h) and the tail through Scalar; for a window the lanes cannot take (one
// voxel wide, or bounds past 2^24) the whole row goes through Scalar.
template <class T>
void remapNearestRowScalar(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                           const float* mx, const float* my, const float* mz, T* out, int n);
template <class T>
void remapNearestRowAvx(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                        const float* mx, const float* my, const float* mz, T* out, int n);
template <class T>
void remapLinearRowScalar(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                          const float* mx, const float* my, const float* mz, T* out, int n);
template <class T>
void remapLinearRowAvx(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                       const float* mx, const float* my, const float* mz, T* out, int n);

template <class T>
void remapCubicRowScalar(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                         const float* mx, const float* my, const float* mz, T* out, int n);
template <class T>
void remapCubicRowAvx(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                      const float* mx, const float* my, const float* mz, T* out, int n);

// The 32f linear pair under its own names.
void remapLinearRow32fScalar(const SourceWindow<float>& src, const InterpolationKernel& kernel,
                             const float* mx, const float* my, const float* mz, float* out, int n);
void remapLinearRow32fAvx(const SourceWindow<float>& src, const InterpolationKernel& kernel,
                          const float* mx, const float* my, const float* mz, float* out, int n);

}  // namespace vekr::volume
