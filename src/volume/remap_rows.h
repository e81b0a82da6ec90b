// Row kernels of remap: one destination row sampled at the positions of three map rows.
#pragma once

#include "point_sampling.h"

namespace vekr::volume {

// n voxels of out from the positions (mx[i], my[i], mz[i]); voxels whose position lies
// outside the window keep their contents.
template <class T>
using RemapRowKernel = void (*)(const SourceWindow<T>& src, const InterpolationKernel& kernel,
                                const float* mx, const float* my, const float* mz, T* out, int n);

// The kernel of a voxel type and kind: the per-voxel samplers in a loop, or for 32f linear the
// Avx twin below.
template <class T>
RemapRowKernel<T> remapRowKernel(const InterpolationKernel& kernel);

// 32f trilinear twins. The Avx twin runs 8 voxels at a time: bounds, bases and fractions in
// lanes, the eight taps of each lane inside the bounds read one by one (no gathers in AVX),
// the blends in lanes in the scalar order, and a masked store of the lanes inside. The tail
// goes through the Scalar twin.
void remapLinearRow32fScalar(const SourceWindow<float>& src, const InterpolationKernel& kernel,
                             const float* mx, const float* my, const float* mz, float* out, int n);
void remapLinearRow32fAvx(const SourceWindow<float>& src, const InterpolationKernel& kernel,
                          const float* mx, const float* my, const float* mz, float* out, int n);

}  // namespace vekr::volume
