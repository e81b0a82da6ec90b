// Double-precision references of the volume interpolation kinds: the cubic weights from their
// textbook forms (Lagrange product, general Mitchell-Netravali polynomial) and sampling a volume
// at one position with inclusive bounds, the way remap and the affine warp are documented.
#pragma once

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
    int index[3][4];
    double weight[3][4];
    int taps = kind == InterpolationNearest ? 1 : kind == InterpolationLinear ? 2 : 4;
    for (int a = 0; a < 3; ++a) {
        auto clamp = [&](int t) { return t < lo[a] ? lo[a] : t > hi[a] ? hi[a] : t; };
        int base = int(std::trunc(pos[a]));
        if (taps == 1) {
            index[a][0] = int(std::nearbyint(pos[a]));
            weight[a][0] = 1;
            continue;
        }
        if (taps == 2 && base == hi[a]) --base;
        const double f = pos[a] - base;
        for (int t = 0; t < taps; ++t) {
            const int at = taps == 2 ? t : t - 1;
            index[a][t] = clamp(base + at);
            weight[a][t] = taps == 2 ? (t == 0 ? 1 - f : f) : cubicReferenceWeight(kind, at, f);
        }
    }
    double sum = 0;
    for (int k = 0; k < taps; ++k)
        for (int j = 0; j < taps; ++j)
            for (int i = 0; i < taps; ++i)
                sum += weight[2][k] * weight[1][j] * weight[0][i] *
                       double(voxel(index[0][i], index[1][j], index[2][k]));
    return sum;
}

}  // namespace vekr::test
