// Sampling a source volume at single positions, as remap and the affine warp do: a position
// outside the inclusive bounds is skipped, one inside is read by nearest, trilinear or tricubic
// interpolation with its taps held inside the bounds. Positions come as float (remap maps) or
// double (warp steps); the bounds test is done in that type.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "resample_kernels.h"
#include "voxel_rounding.h"

namespace vekr::volume {

// The two twins of a row kernel: per voxel, or eight voxels at a time in AVX lanes.
enum class RowPath { Scalar, Avx };

// The source as sampled: planes, a row step in voxels, and the inclusive bounds of the source
// box (already clipped to the volume) on x, y, z.
template <class T>
struct SourceWindow {
    const T* const* planes = nullptr;
    std::ptrdiff_t rowStep = 0;
    int32_t lo[3] = {0, 0, 0};
    int32_t hi[3] = {0, 0, 0};

    T at(int32_t x, int32_t y, int32_t z) const { return planes[z][y * rowStep + x]; }

    // Inclusive on both sides, in the position's own type. Written as two >= / <= tests so a
    // NaN coordinate falls outside: such a voxel is left as it was rather than read from an
    // index that NaN has no value for.
    template <class C>
    bool contains(C x, C y, C z) const
    {
        return x >= C(lo[0]) && x <= C(hi[0]) && y >= C(lo[1]) && y <= C(hi[1]) && z >= C(lo[2]) &&
               z <= C(hi[2]);
    }
};

inline int32_t clampTap(int32_t t, int32_t lo, int32_t hi)
{
    return t < lo ? lo : t > hi ? hi : t;
}

// One axis of a position inside the bounds, resolved for a kind: the tap indices (1, 2 or 4,
// clamped to the bounds) and the fraction past the base.
struct AxisPoint {
    int32_t tap[4];
    float fraction;
};

// rint: to nearest, ties to even (the processor's default mode). The clamp only matters for
// bounds too large for a float to hold exactly.
template <class C>
inline int32_t nearestTap(C c, int32_t lo, int32_t hi)
{
    return clampTap(int32_t(std::nearbyint(c)), lo, hi);
}

// Base trunc(c) (c >= 0 here, so the floor), reduced by one at the maximum so that base and
// base + 1 both exist; a coordinate at the maximum then gets fraction 1. The fraction is taken
// in the position's type and rounded to float once. With a box one voxel wide base is below
// the box and the first tap is clamped onto it; its weight is 0 anyway.
template <class C>
inline AxisPoint linearPoint(C c, int32_t lo, int32_t hi)
{
    C base = std::trunc(c);
    if (base >= C(hi)) base = C(hi - 1);
    const int32_t b = int32_t(base);
    return {{clampTap(b, lo, hi), clampTap(b + 1, lo, hi), 0, 0}, float(c - base)};
}

// Taps base - 1 .. base + 2 around base trunc(c), clamped to the bounds: the edge voxel stands
// in for any tap beyond it.
template <class C>
inline AxisPoint cubicPoint(C c, int32_t lo, int32_t hi)
{
    const C base = std::trunc(c);
    const int32_t b = clampTap(int32_t(base), lo, hi);
    return {{clampTap(b - 1, lo, hi), b, clampTap(b + 1, lo, hi), clampTap(b + 2, lo, hi)},
            float(c - base)};
}

// The blend with weights (1 - f) and f, in this order, for both the scalar and the AVX path.
inline float linearBlend(float a, float b, float f)
{
    return (1.0f - f) * a + f * b;
}

// The same pairing as the resize's cubic blend.
inline float cubicBlend(const float s[4], const float w[4])
{
    return (w[1] * s[1] + w[0] * s[0]) + (w[3] * s[3] + w[2] * s[2]);
}

// --- Per-voxel samplers: write *out only when (x, y, z) lies inside the bounds -------------

template <class T, class C>
inline void sampleNearest(const SourceWindow<T>& s, const InterpolationKernel&, C x, C y, C z,
                          T* out)
{
    if (!s.contains(x, y, z)) return;
    *out = s.at(nearestTap(x, s.lo[0], s.hi[0]), nearestTap(y, s.lo[1], s.hi[1]),
                nearestTap(z, s.lo[2], s.hi[2]));
}

// Trilinear: along x, then y, then z, in single precision.
template <class T, class C>
inline void sampleLinear(const SourceWindow<T>& s, const InterpolationKernel&, C x, C y, C z,
                         T* out)
{
    if (!s.contains(x, y, z)) return;
    const AxisPoint px = linearPoint(x, s.lo[0], s.hi[0]);
    const AxisPoint py = linearPoint(y, s.lo[1], s.hi[1]);
    const AxisPoint pz = linearPoint(z, s.lo[2], s.hi[2]);
    float alongY[2];
    for (int k = 0; k < 2; ++k) {
        float alongX[2];
        for (int j = 0; j < 2; ++j) {
            const T* row = s.planes[pz.tap[k]] + py.tap[j] * s.rowStep;
            alongX[j] = linearBlend(float(row[px.tap[0]]), float(row[px.tap[1]]), px.fraction);
        }
        alongY[k] = linearBlend(alongX[0], alongX[1], py.fraction);
    }
    *out = roundToVoxel<T>(linearBlend(alongY[0], alongY[1], pz.fraction));
}

// Tricubic with the kernel's four weights per axis: along x, then y, then z.
template <class T, class C>
inline void sampleCubic(const SourceWindow<T>& s, const InterpolationKernel& kernel, C x, C y, C z,
                        T* out)
{
    if (!s.contains(x, y, z)) return;
    const AxisPoint px = cubicPoint(x, s.lo[0], s.hi[0]);
    const AxisPoint py = cubicPoint(y, s.lo[1], s.hi[1]);
    const AxisPoint pz = cubicPoint(z, s.lo[2], s.hi[2]);
    float wx[4], wy[4], wz[4];
    computeCubicWeights(kernel, px.fraction, wx);
    computeCubicWeights(kernel, py.fraction, wy);
    computeCubicWeights(kernel, pz.fraction, wz);
    float alongY[4];
    for (int k = 0; k < 4; ++k) {
        float alongX[4];
        for (int j = 0; j < 4; ++j) {
            const T* row = s.planes[pz.tap[k]] + py.tap[j] * s.rowStep;
            const float taps[4] = {float(row[px.tap[0]]), float(row[px.tap[1]]),
                                   float(row[px.tap[2]]), float(row[px.tap[3]])};
            alongX[j] = cubicBlend(taps, wx);
        }
        alongY[k] = cubicBlend(alongX, wy);
    }
    *out = roundToVoxel<T>(cubicBlend(alongY, wz));
}

}  // namespace vekr::volume
