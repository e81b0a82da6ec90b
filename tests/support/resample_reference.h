// Double-precision references of the volume interpolation kinds: the cubic weights from their
// textbook forms (Lagrange product, general Mitchell-Netravali polynomial), the taps of a resize,
// and sampling a volume at one position with inclusive bounds, the way remap and the affine warp
// are documented.
#pragma once

#include <algorithm>
#include <cmath>
#include <optional>

#include "vekr.h"

namespace vekr::test {

// Mitchell-Netravali (B, C) cubic, from its general form.
inline double mitchellNetravali(double b, double c, double t)
{
    t = std::fabs(t);
    if (t < 1)
        return ((12 - 9 * b - 6 * c) * t * t * t + (-18 + 12 * b + 6 * c) * t * t + 6 - 2 * b) / 6;
    if (t < 2)
        return ((-b - 6 * c) * t * t * t + (6 * b + 30 * c) * t * t + (-12 * b - 48 * c) * t +
                8 * b + 24 * c) /
               6;
    return 0;
}

// Weight of the tap at offset `at` (-1, 0, 1 or 2) from the base for a sample at fraction f.
inline double cubicReferenceWeight(int kind, int at, double f)
{
    switch (kind) {
        case InterpolationCubicLagrange: {  // product form through -1, 0, 1, 2
            double w = 1;
            for (int m = -1; m <= 2; ++m)
                if (m != at) w *= (f - m) / (at - m);
            return w;
        }
        case InterpolationCubicBSpline:
            return mitchellNetravali(1, 0, at - f);
        case InterpolationCubicCatmullRom:
            return mitchellNetravali(0, 0.5, at - f);
        default:
            return mitchellNetravali(0.5, 0.3, at - f);
    }
}

// The taps of one sample on one axis: source indices and their weights in double.
struct AxisTaps {
    int count = 0;
    int index[4];
    double weight[4];
};

// The sum of voxel(x, y, z) weighted by the taps of the three axes, in double.
template <class Voxel>
double sumOverTaps(Voxel voxel, const AxisTaps t[3])
{
    double sum = 0;
    for (int k = 0; k < t[2].count; ++k)
        for (int j = 0; j < t[1].count; ++j)
            for (int i = 0; i < t[0].count; ++i)
                sum += t[2].weight[k] * t[1].weight[j] * t[0].weight[i] *
                       double(voxel(t[0].index[i], t[1].index[j], t[2].index[k]));
    return sum;
}

// Linear weights 1 - f and f at offsets 0 and 1, cubic ones at -1 .. 2 from the base, each
// index through clampIndex.
template <class Clamp>
void interpolatingTaps(AxisTaps& t, int kind, double base, double f, Clamp clampIndex)
{
    for (int k = 0; k < t.count; ++k) {
        const int at = t.count == 2 ? k : k - 1;
        t.index[k] = clampIndex(base + at);
        t.weight[k] = t.count == 2 ? (k == 0 ? 1 - f : f) : cubicReferenceWeight(kind, at, f);
    }
}

inline int tapCount(int kind)
{
    return kind == InterpolationNearest ? 1 : kind == InterpolationLinear ? 2 : 4;
}

// Resize: the taps of destination index i on an axis of `extent` source voxels, clamped to it.
// Nearest: the voxel holding the centre (i + 0.5) / factor - shift / factor, a hair below it.
// Otherwise the centre less half a voxel, its floor the base.
inline AxisTaps resizeAxisTaps(int kind, int i, double factor, double shift, int extent)
{
    const double inverse = 1.0 / factor, offset = -shift / factor;
    auto clampIndex = [extent](double s) { return int(std::clamp(s, 0.0, extent - 1.0)); };
    AxisTaps t;
    t.count = tapCount(kind);
    if (t.count == 1) {
        t.index[0] = clampIndex(std::trunc((i + 0.5) * inverse + offset - 1e-10));
        t.weight[0] = 1;
        return t;
    }
    const double p = (i + 0.5) * inverse + offset - 0.5;
    const double base = std::floor(p);
    interpolatingTaps(t, kind, base, p - base, clampIndex);
    return t;
}

// The value at pos of a volume read through voxel(x, y, z), in double, or nothing when pos lies
// outside the inclusive bounds lo .. hi (NaN included). Nearest: rint per axis. Linear: base
// trunc, one lower at the maximum, weights 1 - f and f. Cubic: base trunc, taps base-1 ..
// base+2 clamped to the bounds.
template <class Voxel>
std::optional<double> samplePointReference(Voxel voxel, const int lo[3], const int hi[3], int kind,
                                           const double pos[3])
{
    for (int a = 0; a < 3; ++a)
        if (!(pos[a] >= lo[a] && pos[a] <= hi[a])) return std::nullopt;
    AxisTaps taps[3];
    for (int a = 0; a < 3; ++a) {
        AxisTaps& t = taps[a];
        t.count = tapCount(kind);
        auto clamp = [&](int s) { return s < lo[a] ? lo[a] : s > hi[a] ? hi[a] : s; };
        int base = int(std::trunc(pos[a]));
        if (t.count == 1) {
            t.index[0] = int(std::nearbyint(pos[a]));
            t.weight[0] = 1;
            continue;
        }
        if (t.count == 2 && base == hi[a]) --base;
        interpolatingTaps(t, kind, base, pos[a] - base, [&](double s) { return clamp(int(s)); });
    }
    return sumOverTaps(voxel, taps);
}

}  // namespace vekr::test
