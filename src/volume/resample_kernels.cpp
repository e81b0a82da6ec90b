// Interpolation kernels. The cubics are the four-point Lagrange polynomial and three members of
// the two-parameter (B, C) family of Mitchell and Netravali (1988).
#include "resample_kernels.h"

#include <immintrin.h>

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

// Four doubles in lanes with the arithmetic operators, so that one polynomial text is evaluated
// in double or in lanes with the same operations in the same order.
struct DoubleLanes {
    __m256d v;
};
inline DoubleLanes operator+(DoubleLanes a, double b)
{
    return {_mm256_add_pd(a.v, _mm256_set1_pd(b))};
}
inline DoubleLanes operator-(DoubleLanes a, DoubleLanes b)
{
    return {_mm256_sub_pd(a.v, b.v)};
}
inline DoubleLanes operator+(DoubleLanes a, DoubleLanes b)
{
    return {_mm256_add_pd(a.v, b.v)};
}
inline DoubleLanes operator*(DoubleLanes a, DoubleLanes b)
{
    return {_mm256_mul_pd(a.v, b.v)};
}
inline DoubleLanes operator*(double a, DoubleLanes b)
{
    return {_mm256_mul_pd(_mm256_set1_pd(a), b.v)};
}
inline DoubleLanes operator/(DoubleLanes a, double b)
{
    return {_mm256_div_pd(a.v, _mm256_set1_pd(b))};
}
inline DoubleLanes operator-(DoubleLanes a)
{
    return {_mm256_xor_pd(a.v, _mm256_set1_pd(-0.0))};
}

// The cubics: w(t) = near(t) for t < 1, far(t) for 1 <= t < 2, 0 beyond. The polynomials are
// evaluated term by term as written, t^3 as t * t * t.
struct Lagrange {
    template <class D>
    static D near(D t)
    {
        return 0.5 * t * t * t - t * t - 0.5 * t + 1.0;
    }
    template <class D>
    static D far(D t)
    {
        return -t * t * t / 6.0 + t * t - (11.0 / 6.0) * t + 1.0;
    }
};

// B = 1, C = 0.
struct BSpline {
    template <class D>
    static D near(D t)
    {
        return 0.5 * t * t * t - t * t + 2.0 / 3.0;
    }
    template <class D>
    static D far(D t)
    {
        return -t * t * t / 6.0 + t * t - 2.0 * t + 4.0 / 3.0;
    }
};

// B = 0, C = 1/2.
struct CatmullRom {
    template <class D>
    static D near(D t)
    {
        return 1.5 * t * t * t - 2.5 * t * t + 1.0;
    }
    template <class D>
    static D far(D t)
    {
        return -0.5 * t * t * t + 2.5 * t * t - 4.0 * t + 2.0;
    }
};

// B = 1/2, C = 3/10: (12 - 9B - 6C) / 6 = 0.95, (-18 + 12B + 6C) / 6 = -1.7, (6 - 2B) / 6 = 5/6;
// (-B - 6C) / 6 = -23/60, (6B + 30C) / 6 = 2, (-12B - 48C) / 6 = -3.4, (8B + 24C) / 6 = 28/15.
struct B05C03 {
    template <class D>
    static D near(D t)
    {
        return 0.95 * t * t * t - 1.7 * t * t + 0.8333333333333334;
    }
    template <class D>
    static D far(D t)
    {
        return -0.38333333333333336 * t * t * t + 2.0 * t * t - 3.4 * t + 1.8666666666666667;
    }
};

template <class Cubic>
double cubicWeight(double t)
{
    if (t < 1.0) return Cubic::near(t);
    if (t < 2.0) return Cubic::far(t);
    if (t >= 2.0) return 0.0;
    return kNaNDistanceWeight;
}

// The four weights of computeCubicWeights for four fractions 0 <= f <= 1, where the distances
// 1 + f, f, 1 - f, 2 - f fall on known sides of 1 and 2 except at f = 0 and f = 1.
template <class Cubic>
inline void cubicWeightQuad(__m256d f, __m256d weights[4])
{
    const __m256d one = _mm256_set1_pd(1.0), zero = _mm256_setzero_pd();
    const __m256d farAtOne = _mm256_set1_pd(Cubic::far(1.0));
    const __m256d atOne = _mm256_cmp_pd(f, one, _CMP_EQ_OQ);
    const __m256d atZero = _mm256_cmp_pd(f, zero, _CMP_EQ_OQ);
    const DoubleLanes t = {f};
    const __m256d w0 = Cubic::far(DoubleLanes{_mm256_add_pd(one, f)}).v;   // 2 at f = 1: 0
    const __m256d w1 = Cubic::near(t).v;                                   // 1 at f = 1: far
    const __m256d w2 = Cubic::near(DoubleLanes{_mm256_sub_pd(one, f)}).v;  // 1 at f = 0: far
    const __m256d w3 =
        Cubic::far(DoubleLanes{_mm256_sub_pd(_mm256_set1_pd(2.0), f)}).v;  // 2 at f = 0: 0
    weights[0] = _mm256_andnot_pd(atOne, w0);
    weights[1] = _mm256_blendv_pd(w1, farAtOne, atOne);
    weights[2] = _mm256_blendv_pd(w2, farAtOne, atZero);
    weights[3] = _mm256_andnot_pd(atZero, w3);
}

// Eight lanes of one axis: two quads of double, each weight rounded to float.
template <class Cubic>
void cubicWeightLanes(__m256 fraction, __m256 weights[4])
{
    __m256d half[2][4];
    cubicWeightQuad<Cubic>(_mm256_cvtps_pd(_mm256_castps256_ps128(fraction)), half[0]);
    cubicWeightQuad<Cubic>(_mm256_cvtps_pd(_mm256_extractf128_ps(fraction, 1)), half[1]);
    for (int k = 0; k < 4; ++k)
        weights[k] = _mm256_set_m128(_mm256_cvtpd_ps(half[1][k]), _mm256_cvtpd_ps(half[0][k]));
}

constexpr InterpolationKernel kKernels[] = {
    {InterpolationNearest, 1, nullptr, nullptr},
    {InterpolationLinear, 2, linearWeight, nullptr},
    {InterpolationCubicLagrange, 4, cubicWeight<Lagrange>, cubicWeightLanes<Lagrange>},
    {InterpolationCubicBSpline, 4, cubicWeight<BSpline>, cubicWeightLanes<BSpline>},
    {InterpolationCubicCatmullRom, 4, cubicWeight<CatmullRom>, cubicWeightLanes<CatmullRom>},
    {InterpolationCubicB05C03, 4, cubicWeight<B05C03>, cubicWeightLanes<B05C03>},
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
