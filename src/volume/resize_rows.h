// Row kernels of the separable resize: a source row resampled along x into floats, and float
// rows blended along y (into an intermediate plane) or along z (into destination voxels).
//
// Arithmetic, the same in every twin:
// - linear: a + f (b - a) with the entry's fraction f, so equal taps give the tap back exactly;
//   8u along x instead (w0 a + w1 b) / 2^14 with the fixed-point weights, exact in float;
// - cubic: (w1 s1 + w0 s0) + (w3 s3 + w2 s2) in single precision, s0 .. s3 the taps
//   base-1 .. base+2;
// - voxels out: 32f as computed; 16u, and 8u after a linear blend, clamped to the type's range
//   and rounded to nearest (ties to even, the processor's default mode); 8u after a cubic
//   blend widened to double, + 0.5000001, clamped to 0 .. 255 and truncated.
#pragma once

#include <cstdint>

#include "resize_tables.h"

namespace vekr::volume {

// One set of row kernels for voxel type T, with all Scalar or all Avx twins; the two sets
// give the same bits. The Avx set may write voxels with streaming stores, which bypass the
// caches: worth it for destinations larger than the caches, where ordinary stores would evict
// the intermediate planes; fenceStreamingStores must follow before the call returns.
template <class T>
struct ResizeRowKernels {
    // Entries from .. to-1 of x from the row of voxel 0 of a source row, taps unclamped: the
    // interior between the border runs.
    void (*resampleLinear)(const T* srcRow, const AxisTable& x, int from, int to, float* out);
    void (*resampleCubic)(const T* srcRow, const AxisTable& x, int from, int to, float* out);
    // n floats from two or four rows with one fraction or four weights.
    void (*blendLinear)(const float* r0, const float* r1, float f, float* out, int n);
    void (*blendCubic)(const float* const rows[4], const float* w, float* out, int n);
    // The same into n voxels.
    void (*storeLinear)(const float* r0, const float* r1, float f, T* out, int n);
    void (*storeCubic)(const float* const rows[4], const float* w, T* out, int n);
};

template <class T>
ResizeRowKernels<T> scalarRowKernels();
template <class T>
ResizeRowKernels<T> avxRowKernels(bool streamingStores = false);

void fenceStreamingStores();

// Entries from .. to-1 of x with clamped taps (the border runs); taps is 2 or 4.
template <class T>
void resampleRowBorder(const T* srcRow, const AxisTable& x, int taps, int from, int to, float* out);

}  // namespace vekr::volume
