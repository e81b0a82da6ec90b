// The generated band polynomials against an independent long-double evaluation of the real
// spherical harmonics: associated Legendre functions by the three-term recurrence in l.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <complex>
#include <random>
#include <vector>

namespace vekr::sh {
#include "sh/sh_direct_bands.inc"
}  // namespace vekr::sh

namespace {

constexpr int kMaxBand = 15;
constexpr long double kPi = 3.141592653589793238462643383279502884L;

using Band = void (*)(const double&, const double&, const double&, const double&, double*);
const Band kBands[kMaxBand + 1] = {
    vekr::sh::evalDirectBand0<double>,  vekr::sh::evalDirectBand1<double>,
    vekr::sh::evalDirectBand2<double>,  vekr::sh::evalDirectBand3<double>,
    vekr::sh::evalDirectBand4<double>,  vekr::sh::evalDirectBand5<double>,
    vekr::sh::evalDirectBand6<double>,  vekr::sh::evalDirectBand7<double>,
    vekr::sh::evalDirectBand8<double>,  vekr::sh::evalDirectBand9<double>,
    vekr::sh::evalDirectBand10<double>, vekr::sh::evalDirectBand11<double>,
    vekr::sh::evalDirectBand12<double>, vekr::sh::evalDirectBand13<double>,
    vekr::sh::evalDirectBand14<double>, vekr::sh::evalDirectBand15<double>};

struct Direction {
    double x, y, z;
};

// d^m/dz^m P_l(z). The usual recurrence runs on P(l, m) = (-1)^m (1 - z^2)^(m/2) D(l, m);
// that factor is the same for every l, so it is left out here and applied by the caller:
// D(m, m) = (2m - 1)!!, D(m + 1, m) = (2m + 1) z D(m, m),
// D(l, m) = ((2l - 1) z D(l - 1, m) - (l + m - 1) D(l - 2, m)) / (l - m).
template <class S>
S legendreDerivative(int l, int m, S z)
{
    S dmm = S(1.0L);
    for (int i = 1; i <= m; ++i)
        dmm = dmm * S(2.0L * i - 1);
    if (l == m) return dmm;
    S prev = dmm;
    S cur = z * S(2.0L * m + 1) * dmm;
    for (int n = m + 2; n <= l; ++n) {
        const S next = (S(2.0L * n - 1) * z * cur - S(n + m - 1.0L) * prev) / S(n - m + 0.0L);
        prev = cur;
        cur = next;
    }
    return cur;
}

// sqrt(2) K(l, m) for m > 0, K(l, 0) for m = 0; K = sqrt((2l + 1)/(4 pi) (l - m)!/(l + m)!).
long double normalisation(int l, int m)
{
    long double ratio = 1.0L;
    for (int k = 1; k <= 2 * m; ++k)
        ratio /= static_cast<long double>(l - m + k);
    const long double k = std::sqrt((2 * l + 1) / (4 * kPi) * ratio);
    return m == 0 ? k : std::sqrt(2.0L) * k;
}

// Y(l, -l .. l). sin(theta) is hypot(x, y), not sqrt(1 - z^2): the directions are unit only to
// rounding, and near the poles the two differ by far more than the tolerance.
std::vector<long double> referenceBand(int l, const Direction& d)
{
    const long double x = d.x, y = d.y, z = d.z;
    const long double sinTheta = std::hypot(x, y);
    const long double phi = std::atan2(y, x);
    std::vector<long double> values(2 * l + 1);
    for (int m = 0; m <= l; ++m) {
        const long double sign = m % 2 ? -1.0L : 1.0L;
        const long double p =
            sign * std::pow(sinTheta, m) * legendreDerivative<long double>(l, m, z);
        const long double c = normalisation(l, m);
        values[l + m] = c * p * std::cos(m * phi);
        if (m > 0) values[l - m] = c * p * std::sin(m * phi);
    }
    return values;
}

// Sum of the magnitudes of the terms of Y(l, +-m) in the form the routines evaluate it, which
// bounds their rounding error. The coefficients of D(l, m) alternate in sign in powers of z^2,
// so sum |d_k| |z|^k is |D(l, m)(i |z|)|; |a_m|, |b_m| are bounded by (|x| + |y|)^m.
long double termMagnitude(int l, int m, const Direction& d)
{
    using C = std::complex<long double>;
    const long double dAtImaginary = std::abs(legendreDerivative<C>(l, m, C(0.0L, std::fabs(d.z))));
    return normalisation(l, m) * dAtImaginary * std::pow(std::fabs(d.x) + std::fabs(d.y), m);
}

std::vector<Direction> testDirections()
{
    std::vector<Direction> dirs = {{0, 0, 1}, {0, 0, -1}, {1, 0, 0}, {0, -1, 0}};
    std::mt19937 rng(20240611);
    std::normal_distribution<double> gauss;
    while (dirs.size() < 54) {
        const double a = gauss(rng), b = gauss(rng), c = gauss(rng);
        const double n = std::sqrt(a * a + b * b + c * c);
        dirs.push_back({a / n, b / n, c / n});
    }
    // Close to the poles, where the high bands cancel the most.
    for (const double z : {0.9995, -0.9995, 0.98}) {
        const double s = std::sqrt(1 - z * z);
        dirs.push_back({s * 0.6, s * -0.8, z});
    }
    return dirs;
}

TEST(ShDirectBands, MatchesLegendreRecurrence)
{
    for (const Direction& d : testDirections()) {
        for (int l = 0; l <= kMaxBand; ++l) {
            double out[2 * kMaxBand + 1];
            kBands[l](d.x, d.y, d.z, d.z * d.z, out);
            const std::vector<long double> ref = referenceBand(l, d);
            long double bandMax = 0;
            for (const long double v : ref)
                bandMax = std::fmax(bandMax, std::fabs(v));
            for (int m = -l; m <= l; ++m) {
                // 1e-12 of the band's largest value, plus 16 ulps of the summed term magnitudes:
                // near the poles bands 14 and 15 cancel terms 1e5 times the result, and double
                // Horner sums then lose a few times 1e-12 of the band's largest value.
                const long double tolerance =
                    1e-12L * bandMax + 16 * DBL_EPSILON * termMagnitude(l, std::abs(m), d);
                EXPECT_LE(std::fabs(out[l + m] - ref[l + m]), tolerance)
                    << "(l, m) = (" << l << ", " << m << ") at " << d.x << ", " << d.y << ", "
                    << d.z << ": " << out[l + m] << " vs " << double(ref[l + m]);
            }
        }
    }
}

// The familiar closed forms of bands 0 to 2 fix the phase convention (which sign, and sin for
// m < 0) independently of the recurrence.
TEST(ShDirectBands, MatchesClosedFormsOfLowBands)
{
    const double k1 = 0.4886025119029199, k2 = 1.092548430592079, k20 = 0.31539156525252;
    const double k22 = 0.5462742152960395;
    for (const Direction& d :
         {Direction{0.48, -0.6, 0.64}, Direction{1, 0, 0}, Direction{0, 0, 1}}) {
        const double x = d.x, y = d.y, z = d.z;
        double out[5];
        kBands[0](x, y, z, z * z, out);
        EXPECT_NEAR(out[0], 0.28209479177387814, 1e-16);
        kBands[1](x, y, z, z * z, out);
        const double band1[3] = {-k1 * y, k1 * z, -k1 * x};
        for (int i = 0; i < 3; ++i)
            EXPECT_NEAR(out[i], band1[i], 1e-15) << "m = " << i - 1;
        kBands[2](x, y, z, z * z, out);
        const double band2[5] = {k2 * x * y, -k2 * y * z, k20 * (3 * z * z - 1), -k2 * x * z,
                                 k22 * (x * x - y * y)};
        for (int i = 0; i < 5; ++i)
            EXPECT_NEAR(out[i], band2[i], 1e-14) << "m = " << i - 2;
    }
}

// Gauss-Legendre nodes and weights on [-1, 1] by Newton's method on P_n.
void gaussLegendre(int n, std::vector<long double>& nodes, std::vector<long double>& weights)
{
    nodes.assign(n, 0);
    weights.assign(n, 0);
    for (int i = 0; i < n; ++i) {
        long double t = std::cos(kPi * (i + 0.75L) / (n + 0.5L));
        long double derivative = 0;
        for (int iter = 0; iter < 100; ++iter) {
            long double p0 = 1, p1 = t;
            for (int k = 2; k <= n; ++k) {
                const long double p2 = ((2 * k - 1) * t * p1 - (k - 1) * p0) / k;
                p0 = p1;
                p1 = p2;
            }
            derivative = n * (t * p1 - p0) / (t * t - 1);
            const long double step = p1 / derivative;
            t -= step;
            if (std::fabs(step) < 1e-19L) break;
        }
        nodes[i] = t;
        weights[i] = 2 / ((1 - t * t) * derivative * derivative);
    }
}

// 16 Gauss-Legendre nodes in z and 32 equal steps in phi integrate every product of two
// functions of bands 0 to 15 exactly, so the Gram matrix must be the identity.
TEST(ShDirectBands, OrthonormalUnderQuadrature)
{
    constexpr int kCount = (kMaxBand + 1) * (kMaxBand + 1);
    constexpr int kPhiSteps = 32;
    std::vector<long double> nodes, weights;
    gaussLegendre(kMaxBand + 1, nodes, weights);
    std::vector<long double> gram(kCount * kCount, 0.0L);
    for (size_t j = 0; j < nodes.size(); ++j) {
        for (int k = 0; k < kPhiSteps; ++k) {
            const long double phi = 2 * kPi * k / kPhiSteps;
            const double z = double(nodes[j]);
            const double s = std::sqrt(1 - z * z);
            const double x = s * double(std::cos(phi)), y = s * double(std::sin(phi));
            double values[kCount];
            for (int l = 0; l <= kMaxBand; ++l)
                kBands[l](x, y, z, z * z, values + l * l);
            const long double w = weights[j] * 2 * kPi / kPhiSteps;
            for (int a = 0; a < kCount; ++a)
                for (int b = 0; b <= a; ++b)
                    gram[a * kCount + b] += w * values[a] * values[b];
        }
    }
    for (int a = 0; a < kCount; ++a) {
        for (int b = 0; b <= a; ++b) {
            const long double expected = a == b ? 1.0L : 0.0L;
            EXPECT_NEAR(double(gram[a * kCount + b]), double(expected), 1e-11)
                << "index " << a << " x " << b;
        }
    }
}

}  // namespace
