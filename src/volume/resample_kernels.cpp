// Interpolation kernels. The cubics are the four-point Lagrange polynomial and three members of
// the two-parameter (B, C) family of Mitchell and Netravali (1988).
#include "resample_kernels.h"

#include <cmath>

#include "vekr.h"

namespace vekr::volume {
namespace {

// Every weight function takes a distance t >= 0. A NaN distance fails every branch and gets
// 1.0: it comes only from a NaN position, and a weight of 1 keeps the NaN in the result.
constexpr double kNaNDistanceWeight = 1.0;

double linearWeight(double t)
{
    if (t < 1.0) return 1.0 - t;
    if (t >= 1.0) return 0.0;
    return kNaNDistanceWeight;
}

// The polynomials are evaluated term by term as written, t^3 as t * t * t.
using Polynomial = double (*)(double);

template <Polynomial kNear, Polynomial kFar>
double cubicWeight(double t)
{
    if (t < 1.0) return kNear(t);
    if (t < 2.0) return kFar(t);
    if (t >= 2.0) return 0.0;
    return kNaNDistanceWeight;
}

double lagrangeNear(double t)
{
    return 0.5 * t * t * t - t * t - 0.5 * t + 1.0;
}
double lagrangeFar(double t)
{
    return -t * t * t / 6.0 + t * t - (11.0 / 6.0) * t + 1.0;
}

// B = 1, C = 0.
double bSplineNear(double t)
{
    return 0.5 * t * t * t - t * t + 2.0 / 3.0;
}
double bSplineFar(double t)
{
    return -t * t * t / 6.0 + t * t - 2.0 * t + 4.0 / 3.0;
}

// B = 0, C = 1/2.
double catmullRomNear(double t)
{
    return 1.5 * t * t * t - 2.5 * t * t + 1.0;
}
double catmullRomFar(double t)
{
    return -0.5 * t * t * t + 2.5 * t * t - 4.0 * t + 2.0;
}

// B = 1/2, C = 3/10: (12 - 9B - 6C) / 6 = 0.95, (-18 + 12B + 6C) / 6 = -1.7, (6 - 2B) / 6 = 5/6;
// (-B - 6C) / 6 = -23/60, (6B + 30C) / 6 = 2, (-12B - 48C) / 6 = -3.4, (8B + 24C) / 6 = 28/15.
double b05c03Near(double t)
{
    return 0.95 * t * t * t - 1.7 * t * t + 0.8333333333333334;
}
double b05c03Far(double t)
{
    return -0.38333333333333336 * t * t * t + 2.0 * t * t - 3.4 * t + 1.8666666666666667;
}

constexpr InterpolationKernel kKernels[] = {
    {InterpolationNearest, 1, nullptr},
    {InterpolationLinear, 2, linearWeight},
    {InterpolationCubicLagrange, 4, cubicWeight<lagrangeNear, lagrangeFar>},
    {InterpolationCubicBSpline, 4, cubicWeight<bSplineNear, bSplineFar>},
    {InterpolationCubicCatmullRom, 4, cubicWeight<catmullRomNear, catmullRomFar>},
    {InterpolationCubicB05C03, 4, cubicWeight<b05c03Near, b05c03Far>},
};

}  // namespace

const InterpolationKernel* findInterpolationKernel(int interpolation)
{
    for (const InterpolationKernel& k : kKernels)
        if (k.code == interpolation) return &k;
    return nullptr;
}

void computeCubicWeights(const InterpolationKernel& kernel, float fraction, float weights[4])
{
    const double f = fraction;
    weights[0] = float(kernel.weight(std::fabs(-1.0 - f)));
    weights[1] = float(kernel.weight(std::fabs(-f)));
    weights[2] = float(kernel.weight(std::fabs(1.0 - f)));
    weights[3] = float(kernel.weight(std::fabs(2.0 - f)));
}

}  // namespace vekr::volume
