// Independent long-double spherical-harmonic reference, direction sets, a sphere quadrature
// grid and state buffers for the spherical-harmonic tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <random>
#include <vector>

#include "vekcore.h"
#include "vekr.h"

namespace vekr::test {

constexpr unsigned kMaxShOrder = 15;
constexpr int kMaxShCount = int((kMaxShOrder + 1) * (kMaxShOrder + 1));

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
        x.push_back(float(dx / r));
        y.push_back(float(dy / r));
        z.push_back(float(dz / r));
    }
};

// Poles, axes, the equator, near-pole and diagonal directions, then random ones.
inline Directions testDirections(int randomCount, unsigned seed)
{
    Directions d;
    for (int s : {1, -1}) {
        d.add(0, 0, s);
        d.add(s, 0, 0);
        d.add(0, s, 0);
        d.add(s, s, s);
        d.add(-s, s, 0.25 * s);
        // A hair off the pole: the float z rounds to within an ulp of 1, so 1 - z*z no longer
        // matches x*x + y*y.
        d.add(3e-4, -2e-4 * s, s);
        d.add(1e-20 * s, 1e-20, 1);
    }
    for (int k = 0; k < 11; ++k) {
        const double phi = 2 * M_PI * k / 11 + 0.1;
        d.add(std::cos(phi), std::sin(phi), 0);
    }
    std::mt19937 rng(seed);
    std::normal_distribution<double> g;
    for (int i = 0; i < randomCount; ++i) {
        const double a = g(rng), b = g(rng), c = g(rng);
        d.add(a, b, c);
    }
    return d;
}

// The real orthonormal basis with the Condon-Shortley phase at the float direction widened, up
// to band order, index l*l + l + m. P(l,m) comes from the Legendre recurrence in z with the
// sin^m(theta) factor kept apart: sin^m(theta) cos(m phi) and sin^m(theta) sin(m phi) are the
// real and imaginary parts of (x + iy)^m, equal on the unit sphere and, on a float vector a
// rounding off unit length, the form a polynomial evaluation follows too (near the poles
// sqrt(1 - z*z) and hypot(x, y) can differ by tens of percent).
inline std::vector<long double> referenceBasis(float xf, float yf, float zf, unsigned order)
{
    const int L = int(order);
    const long double x = xf, y = yf, z = zf;
    const long double pi = 3.141592653589793238462643383279502884L;
    std::vector<long double> out(size_t((L + 1) * (L + 1)));
    long double re = 1, im = 0;  // (x + iy)^m
    long double pmm = 1;         // (-1)^m (2m - 1)!!
    for (int m = 0; m <= L; ++m) {
        if (m > 0) {
            const long double r = re * x - im * y;
            im = re * y + im * x;
            re = r;
            pmm *= -(2 * m - 1);
        }
        long double q2 = 0, q1 = pmm;  // P(l - 2, m), P(l - 1, m) without sin^m
        for (int l = m; l <= L; ++l) {
            long double q = q1;
            if (l == m + 1) q = z * (2 * m + 1) * pmm;
            if (l >= m + 2) q = ((2 * l - 1) * z * q1 - (l + m - 1) * q2) / (l - m);
            if (l > m) q2 = q1, q1 = q;
            long double ratio = 1;  // (l - m)! / (l + m)!
            for (int k = l - m + 1; k <= l + m; ++k)
                ratio /= k;
            const long double k = std::sqrt((2 * l + 1) / (4 * pi) * ratio);
            const size_t centre = size_t(l * l + l);
            if (m == 0) {
                out[centre] = k * q;
            } else {
                out[centre + size_t(m)] = std::sqrt(2.0L) * k * q * re;
                out[centre - size_t(m)] = std::sqrt(2.0L) * k * q * im;
            }
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

// Gauss-Legendre nodes in z times uniform angles in phi, with weights summing to 4 pi. Exact
// for a product of two basis functions of bands up to zNodes - 1 when phiCount exceeds their
// summed orders: terms with m1 + m2 odd (not polynomial in z) average to zero over phi.
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
            const long double w = 2 / ((1 - z * z) * dp * dp) * (2 * pi / phiCount);
            const long double s = std::sqrt(1 - z * z);
            for (int j = 0; j < phiCount; ++j) {
                const long double phi = 2 * pi * (j + 0.5L) / phiCount;
                dirs.x.push_back(float(s * std::cos(phi)));
                dirs.y.push_back(float(s * std::sin(phi)));
                dirs.z.push_back(float(z));
                weight.push_back(w);
            }
        }
    }
};

// A state in a block of the library's allocator (64-byte aligned), starting offset bytes in.
class ShStateBuffer {
public:
    ShStateBuffer(unsigned order, int method, size_t offset = 0) : offset_(offset)
    {
        int size = 0;
        EXPECT_EQ(vekrSHGetSize_32f(order, method, &size), StatusOk);
        size_ = size_t(std::max(size, 16));
        block_ = static_cast<unsigned char*>(vekMalloc(size_ + offset_));
        EXPECT_EQ(vekrSHInit_32f(bytes(), order, method), StatusOk);
    }
    ~ShStateBuffer() { vekFree(block_); }
    ShStateBuffer(const ShStateBuffer&) = delete;
    ShStateBuffer& operator=(const ShStateBuffer&) = delete;

    unsigned char* bytes() { return block_ + offset_; }
    size_t size() const { return size_; }
    SHState* state() { return reinterpret_cast<SHState*>(bytes()); }

private:
    size_t offset_;
    size_t size_ = 0;
    unsigned char* block_ = nullptr;
};

// One documented check of an entry function: how to make a valid call fail it, and the status.
template <class Call>
struct CallCheck {
    const char* what;
    void (*spoil)(Call&);
    Status expected;
};

// Check k is spoiled together with every later one, the later ones first so that check k's
// spoil wins where two touch the same argument: only the documented order gives check k's
// status. Then each check alone, so that one of several checks with the same status cannot hide
// behind another. A failing call, and one with a negative length, leaves the outputs as they were.
template <class Call>
void expectChecksInOrder(const std::vector<CallCheck<Call>>& checks, int method,
                         Status (*run)(Call&))
{
    for (bool alone : {false, true})
        for (size_t k = 0; k < checks.size(); ++k) {
            Call call(method);
            for (size_t j = alone ? k + 1 : checks.size(); j-- > k;)
                checks[j].spoil(call);
            const char* how = alone ? " alone, method " : " and later, method ";
            EXPECT_EQ(run(call), checks[k].expected) << checks[k].what << how << method;
            if (checks[k].expected != StatusOk || call.length < 0) {
                EXPECT_TRUE(call.outputsUntouched()) << checks[k].what << how << method;
            }
        }
}

}  // namespace vekr::test
