// Long-double spherical-harmonic reference, directions, an exact quadrature and states.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>
#include <random>
#include <type_traits>
#include <vector>

#include "support/float_bits.h"
#include "vekcore.h"
#include "vekr.h"

namespace vekr::test {

constexpr int kMaxShCount = 256;                    // (15 + 1)^2 values per direction
inline const float kY00 = bitsToFloat(0x3E906EBB);  // 1 / (2 sqrt(pi)) as the library holds it
inline const float kSentinel = bitsToFloat(0x7FC0DEAD);

inline int shCount(unsigned order)
{
    return int((order + 1) * (order + 1));
}

// Direction planes, one float unit vector per element.
struct Directions {
    std::vector<float> x, y, z;

    int size() const { return int(x.size()); }
    void add(double dx, double dy, double dz)
    {
        const double r = std::sqrt(dx * dx + dy * dy + dz * dz);
        x.push_back(float(dx / r)), y.push_back(float(dy / r)), z.push_back(float(dz / r));
    }
};

// Poles, axes, diagonals, the equator and directions a hair off the poles (where the float z
// rounds to within an ulp of 1, so 1 - z*z no longer matches x*x + y*y), then random ones.
inline Directions testDirections(int randomCount, unsigned seed)
{
    Directions d;
    for (int s : {1, -1}) {
        d.add(0, 0, s), d.add(s, 0, 0), d.add(0, s, 0), d.add(s, s, s), d.add(-s, s, 0.25 * s);
        d.add(3e-4, -2e-4 * s, s), d.add(1e-20 * s, 1e-20, 1);
    }
    for (int k = 0; k < 11; ++k)
        d.add(std::cos(2 * M_PI * k / 11 + 0.1), std::sin(2 * M_PI * k / 11 + 0.1), 0);
    std::mt19937 rng(seed);
    std::normal_distribution<double> g;
    for (int i = 0; i < randomCount; ++i) {
        const double a = g(rng), b = g(rng), c = g(rng);
        d.add(a, b, c);
    }
    return d;
}

// The real orthonormal basis with the Condon-Shortley phase, index l*l + l + m: the Legendre
// recurrence in z times {Re, Im} (x + iy)^m for sin^m(theta) {cos, sin}(m phi), the form the
// polynomials keep off unit length. T may be complex, to bound the polynomials' terms.
template <class T = long double>
std::vector<T> referenceBasis(std::type_identity_t<T> x, std::type_identity_t<T> y,
                              std::type_identity_t<T> z, unsigned order)
{
    const int L = int(order);
    const long double pi = 3.141592653589793238462643383279502884L;
    std::vector<T> out(size_t((L + 1) * (L + 1)));
    T re = 1, im = 0, pmm = 1;  // (x + iy)^m and (-1)^m (2m - 1)!!
    for (int m = 0; m <= L; ++m) {
        if (m > 0) {
            const T r = re * x - im * y;
            im = re * y + im * x, re = r, pmm *= -(2.0L * m - 1);
        }
        T q2 = 0, q1 = pmm;  // P(l - 2, m), P(l - 1, m) without sin^m
        for (int l = m; l <= L; ++l) {
            T q = q1;
            if (l == m + 1) q = z * (2.0L * m + 1) * pmm;
            if (l >= m + 2) q = ((2.0L * l - 1) * z * q1 - (l + m - 1.0L) * q2) / (l - m + 0.0L);
            if (l > m) q2 = q1, q1 = q;
            long double ratio = 1;  // (l - m)! / (l + m)!
            for (int k = l - m + 1; k <= l + m; ++k)
                ratio /= k;
            const long double k = std::sqrt((m ? 2 : 1) * (2 * l + 1) / (4 * pi) * ratio);
            out[size_t(l * l + l + m)] = k * q * re;
            if (m > 0) out[size_t(l * l + l - m)] = k * q * im;
        }
    }
    return out;
}

// Largest |value| of band l in a reference vector.
inline long double bandMax(const std::vector<long double>& ref, int l)
{
    long double largest = 0;
    for (int m = -l; m <= l; ++m)
        largest = std::max(largest, std::fabs(ref[size_t(l * l + l + m)]));
    return largest;
}

// Gauss-Legendre nodes in z times uniform angles in phi, weights summing to 4 pi: exact for a
// product of two basis functions of bands below zNodes when phiCount exceeds their summed orders.
struct SphereGrid {
    Directions dirs;
    std::vector<long double> weight;

    SphereGrid(int zNodes, int phiCount)
    {
        const long double pi = 3.141592653589793238462643383279502884L;
        for (int i = 0; i < zNodes; ++i) {
            long double z = std::cos(pi * (i + 0.75L) / (zNodes + 0.5L)), dp = 0;
            for (int iter = 0; iter < 100; ++iter) {
                long double p0 = 1, p1 = z;
                for (int n = 2; n <= zNodes; ++n) {
                    const long double p2 = ((2 * n - 1) * z * p1 - (n - 1) * p0) / n;
                    p0 = p1, p1 = p2;
                }
                dp = zNodes * (z * p1 - p0) / (z * z - 1);
                const long double step = p1 / dp;
                z -= step;
                if (std::fabs(step) < 1e-19L) break;
            }
            const long double s = std::sqrt(1 - z * z);
            for (int j = 0; j < phiCount; ++j) {
                const long double phi = 2 * pi * (j + 0.5L) / phiCount;
                dirs.x.push_back(float(s * std::cos(phi)));
                dirs.y.push_back(float(s * std::sin(phi)));
                dirs.z.push_back(float(z));
                weight.push_back(2 / ((1 - z * z) * dp * dp) * (2 * pi / phiCount));
            }
        }
    }
};

// A state the basis and the transforms evaluate with; the order-20 recurrence state serves
// orders up to 15 from its larger tables. Method -1 stands for no state (the band function).
struct StatePath {
    const char* name;
    int method;
    unsigned stateOrder;
    friend void PrintTo(const StatePath& path, std::ostream* os) { *os << path.name; }
};
inline const StatePath kStatePaths[] = {{"Direct", SHMethodDirect, 15},
                                        {"Recurrence", SHMethodRecurrence, 15},
                                        {"RecurrenceOnOrder20State", SHMethodRecurrence, 20}};

// An initialised state in a block of the library's allocator (64-byte aligned).
using ShState = std::unique_ptr<SHState, void (*)(void*)>;
inline ShState makeState(unsigned order, int method)
{
    int size = 0;
    EXPECT_EQ(vekrSHGetSize_32f(order, method, &size), StatusOk);
    ShState state(static_cast<SHState*>(vekMalloc(std::max(size, 16))), vekFree);
    EXPECT_EQ(vekrSHInit_32f(state.get(), order, method), StatusOk);
    return state;
}

}  // namespace vekr::test
