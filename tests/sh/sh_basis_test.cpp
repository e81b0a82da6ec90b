// The basis and the state against independent references, and the kernels against their twins.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "frame/clear_block.h"
#include "sh/sh_basis.h"
#include "sh/sh_transform.h"
#include "sh_reference.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"

namespace vekr::sh {
#include "sh/sh_direct_bands.inc"
}  // namespace vekr::sh

using namespace vekr;
using namespace vekr::test;

namespace {

// vekrSH_32f on a state of the given order and method, or vekrSHBand_32f band by band.
const StatePath kDirect = kStatePaths[0];

// Bands 0 to 15, 256 values per direction, every input and output flush against a guard page.
std::vector<float> evaluate(const StatePath& path, const Directions& d, FlushEnd end)
{
    const size_t n = size_t(d.size());
    GuardedArray<float> x(n, end), y(n, end), z(n, end), dst(n * kMaxShCount, end);
    x.copyFrom(d.x.data()), y.copyFrom(d.y.data()), z.copyFrom(d.z.data());
    std::vector<float> out(n * kMaxShCount, kSentinel);
    if (path.method >= 0) {
        const ShState state = makeState(path.stateOrder, path.method);
        EXPECT_EQ(vekrSH_32f(x.data(), y.data(), z.data(), int(n), dst.data(), 15, state.get()),
                  StatusOk);
        return std::vector<float>(dst.data(), dst.data() + dst.size());
    }
    for (size_t l = 0; l <= 15; ++l) {
        GuardedArray<float> band(n * (2 * l + 1), end);
        EXPECT_EQ(vekrSHBand_32f(x.data(), y.data(), z.data(), int(n), band.data(), unsigned(l)),
                  StatusOk);
        for (size_t i = 0; i < n; ++i)
            std::copy_n(&band.data()[i * (2 * l + 1)], 2 * l + 1, &out[i * kMaxShCount + l * l]);
    }
    return out;
}

class ShBasis : public testing::TestWithParam<StatePath> {};

}  // namespace

// Within 1e-5 of the band's largest reference value, and of the direct method: the direct
// method rounds once (6e-8), the recurrence carries float rounding to ~4e-6 at l = 15.
TEST_P(ShBasis, MatchesTheLongDoubleReferenceAndTheDirectMethod)
{
    const Directions d = testDirections(400, 1);
    const auto direct = evaluate(kDirect, d, FlushEnd::Back);
    int reported = 0;  // the first 20 failures
    for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
        const auto v = evaluate(GetParam(), d, end);
        for (size_t i = 0; i < size_t(d.size()); ++i) {
            const auto ref = referenceBasis(d.x[i], d.y[i], d.z[i], 15);
            for (size_t k = 0, at = i * kMaxShCount; k < kMaxShCount; ++k, ++at) {
                const long double bound = 1e-5L * bandMax(ref, int(std::sqrt(double(k))));
                EXPECT_TRUE((std::fabs(v[at] - ref[k]) <= bound &&
                             std::fabs(double(v[at]) - direct[at]) <= bound) ||
                            ++reported > 20)
                    << "direction " << i << " index " << k << ": " << v[at] << " vs "
                    << double(ref[k]) << ", direct " << direct[at];
            }
        }
    }
}

// The documented values (to 8 digits; the recurrence rounds a product or two more) and exact
// zeros on the axes: every m != 0 term carries a factor x or y, every m < 0 term a factor y.
TEST_P(ShBasis, GivesTheDocumentedValuesAndExactZerosOnTheAxes)
{
    Directions d;
    d.add(0, 0, 1), d.add(1, 0, 0), d.add(0, 0, -1);
    const std::vector<float> v = evaluate(GetParam(), d, FlushEnd::Front);
    const float *pole = &v[0], *east = &v[kMaxShCount], *south = &v[2 * kMaxShCount];
    const float tol = 1.5e-7f;
    for (const float* y : {pole, east, south})
        EXPECT_EQ(floatBits(y[0]), floatBits(kY00));
    EXPECT_NEAR(pole[2], 0.48860251f, tol);
    EXPECT_NEAR(pole[6], 0.63078313f, tol);
    EXPECT_NEAR(east[3], -0.48860251f, tol);
    EXPECT_NEAR(east[8], 0.54627422f, tol);
    EXPECT_NEAR(east[6], -0.31539157f, tol);
    for (int l = 1; l <= 15; ++l)
        for (int m = -l; m <= l; ++m) {
            const int k = l * l + l + m;
            EXPECT_TRUE(m == 0 || (pole[k] == 0 && south[k] == 0)) << "pole, l " << l << " m " << m;
            EXPECT_TRUE(m >= 0 || east[k] == 0) << "(1,0,0) l " << l << " m " << m;
        }
}

// 16 nodes in z (exact to degree 31) and 32 angles make every product of bands <= 15 exact; the
// float nodes (~6e-7) and basis errors (a few 1e-6) stay far below 2e-5, a wrong constant not.
TEST_P(ShBasis, IsOrthonormalUnderAnExactQuadrature)
{
    const SphereGrid grid(16, 32);
    const std::vector<float> v = evaluate(GetParam(), grid.dirs, FlushEnd::Back);
    double worst = 0;
    int worstA = 0, worstB = 0;
    for (int a = 0; a < kMaxShCount; ++a)
        for (int b = a; b < kMaxShCount; ++b) {
            double sum = 0;
            for (int i = 0; i < grid.dirs.size(); ++i)
                sum += double(grid.weight[size_t(i)]) * v[size_t(i * kMaxShCount + a)] *
                       v[size_t(i * kMaxShCount + b)];
            const double err = std::fabs(sum - (a == b ? 1.0 : 0.0));
            if (err > worst) worst = err, worstA = a, worstB = b;
        }
    EXPECT_LE(worst, 2e-5) << "entry (" << worstA << ", " << worstB << ")";
}

INSTANTIATE_TEST_SUITE_P(Paths, ShBasis,
                         testing::Values(kStatePaths[0], kStatePaths[1], kStatePaths[2],
                                         StatePath{"Band", -1, 0}),
                         [](const auto& info) { return std::string(info.param.name); });

// --- State ----------------------------------------------------------------------------------

// Both check the pointer, the direct order, then the method; a failed init writes nothing.
TEST(ShState, DocumentedSizesAndStatusesInOrder)
{
    std::vector<std::tuple<bool, unsigned, int, Status, int>> cases = {
        {false, 0, SHMethodDirect, StatusOk, 16},
        {false, 15, SHMethodDirect, StatusOk, 16},
        {false, 16, SHMethodDirect, StatusBadSize, 0},
        {false, UINT_MAX, SHMethodDirect, StatusBadSize, 0},
        {false, 2, SHMethodRecurrence, StatusOk, 80},
        {false, 0, 2, StatusOutOfRange, 0},
        {false, 16, -1, StatusOutOfRange, 0},
        {true, 16, SHMethodDirect, StatusNullPointer, 0},
        {true, 16, 2, StatusNullPointer, 0},
        {true, 3, SHMethodRecurrence, StatusNullPointer, 0},
        // The largest recurrence state whose size an int holds; past it the 32-bit size once
        // wrapped (to 16 bytes for UINT_MAX) and the initialisation overran the buffer.
        {false, 23168, SHMethodRecurrence, StatusOk, 2147302960},
        {false, 23169, SHMethodRecurrence, StatusBadSize, 0},
        {false, 65535, SHMethodRecurrence, StatusBadSize, 0},
        {false, UINT_MAX, SHMethodRecurrence, StatusBadSize, 0}};
    for (unsigned order : {0u, 1u, 3u, 15u, 16u, 20u, 100u, 1000u, 4000u})
        cases.push_back({false, order, SHMethodRecurrence, StatusOk,
                         ((8 * int((order + 1) * (order + 2) / 2) + 30) & ~31) + 16});
    for (const auto& [null, order, method, expected, bytes] : cases) {
        int size = -12345;
        std::vector<unsigned char> buffer(1024, 0xAB);
        EXPECT_EQ(vekrSHGetSize_32f(order, method, null ? nullptr : &size), expected)
            << "order " << order << " method " << method << " null " << null;
        EXPECT_EQ(size, expected == StatusOk ? bytes : -12345) << "order " << order;
        if (expected == StatusOk) continue;
        EXPECT_EQ(vekrSHInit_32f(null ? nullptr : buffer.data(), order, method), expected)
            << "init, order " << order << " method " << method << " null " << null;
        EXPECT_EQ(buffer, std::vector<unsigned char>(1024, 0xAB)) << "order " << order;
    }
}

// Between guard pages: header, table A at 16 and B at the next 16-byte boundary after it, band
// by band at l(l + 1) / 2 + m, zero bytes elsewhere. The tables are found by offset: a copy
// elsewhere, the original overwritten, evaluates alike.
TEST(ShState, LaysOutTheRecurrenceTablesClearsTheRestAndCanBeCopied)
{
    const Directions d = testDirections(40, 4);
    for (unsigned order : {0u, 1u, 2u, 3u, 4u, 7u, 15u, 16u, 20u, 33u})
        for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
            int size = 0;
            ASSERT_EQ(vekrSHGetSize_32f(order, SHMethodRecurrence, &size), StatusOk);
            GuardedArray<unsigned char> buffer(size_t(size), end);
            std::memset(buffer.data(), 0xAB, size_t(size));
            ASSERT_EQ(vekrSHInit_32f(buffer.data(), order, SHMethodRecurrence), StatusOk);
            SHState h;
            std::memcpy(&h, buffer.data(), sizeof h);
            const uint32_t n = (order + 1) * (order + 2) / 2;
            EXPECT_EQ(h.order, order);
            EXPECT_EQ(h.method, SHMethodRecurrence);
            ASSERT_EQ(h.coeffA, 16u) << "order " << order;
            ASSERT_EQ(h.coeffB, (16 + 4 * n + 15) & ~15u) << "order " << order;
            ASSERT_LE(h.coeffB + 4 * n, uint32_t(size)) << "order " << order;
            // a(l, m) and b(l, m) in long double, rounded once; bands 0 and 1 of A always.
            std::vector<float> expected(size_t(size - 16) / 4, 0.0f);
            float *a = expected.data(), *b = expected.data() + (h.coeffB - 16) / 4;
            a[0] = kY00, a[1] = float(0.4886025119029199), a[2] = -float(0.4886025119029199);
            for (int l = 2; l <= int(order); ++l)
                for (int m = 0; m <= l; ++m) {
                    const long double ll = l, mm = m;
                    a[l * (l + 1) / 2 + m] =
                        m == l ? float(-std::sqrt((2 * ll + 1) / (2 * ll)))
                               : float(std::sqrt((4 * ll * ll - 1) / (ll * ll - mm * mm)));
                    if (m <= l - 2)
                        b[l * (l + 1) / 2 + m] =
                            float(-std::sqrt((2 * ll + 1) * ((ll - 1) * (ll - 1) - mm * mm) /
                                             ((2 * ll - 3) * (ll * ll - mm * mm))));
                }
            const float* actual = reinterpret_cast<const float*>(buffer.data() + 16);
            for (size_t i = 0; i < expected.size(); ++i)
                ASSERT_EQ(floatBits(actual[i]), floatBits(expected[i]))
                    << "order " << order << ", byte offset " << 16 + 4 * i;
            std::vector<float> before(size_t(d.size() * kMaxShCount)), after = before;
            const auto eval = [&](const void* state, std::vector<float>& out) {
                ASSERT_EQ(vekrSH_32f(d.x.data(), d.y.data(), d.z.data(), d.size(), out.data(),
                                     std::min(order, 15u), static_cast<const SHState*>(state)),
                          StatusOk);
            };
            eval(buffer.data(), before);
            const ShState block(static_cast<SHState*>(vekMalloc(size + 16)), vekFree);
            char* copy = reinterpret_cast<char*>(block.get()) + 16;
            std::memcpy(copy, buffer.data(), size_t(size));
            std::memset(buffer.data(), 0xFF, size_t(size));
            eval(copy, after);
            EXPECT_TRUE(before == after) << "copy, order " << order;
        }
    for (unsigned order : {0u, 15u}) {
        GuardedArray<unsigned char> buffer(16);
        std::memset(buffer.data(), 0xAB, 16);
        ASSERT_EQ(vekrSHInit_32f(buffer.data(), order, SHMethodDirect), StatusOk);
        const uint32_t expected[4] = {order, SHMethodDirect, 0, 0};
        EXPECT_EQ(std::memcmp(buffer.data(), expected, 16), 0) << "order " << order;
    }
}

// --- Kernels --------------------------------------------------------------------------------

namespace {

using Band = void (*)(const double&, const double&, const double&, const double&, double*);
const Band kBands[16] = {
    sh::evalDirectBand0<double>,  sh::evalDirectBand1<double>,  sh::evalDirectBand2<double>,
    sh::evalDirectBand3<double>,  sh::evalDirectBand4<double>,  sh::evalDirectBand5<double>,
    sh::evalDirectBand6<double>,  sh::evalDirectBand7<double>,  sh::evalDirectBand8<double>,
    sh::evalDirectBand9<double>,  sh::evalDirectBand10<double>, sh::evalDirectBand11<double>,
    sh::evalDirectBand12<double>, sh::evalDirectBand13<double>, sh::evalDirectBand14<double>,
    sh::evalDirectBand15<double>};

// The summed |terms| of each Y(l, m) in polynomial form, bounding its rounding: D(l, m)
// alternates in sign in z^2, so sum |d_k z^k| = |D(l, m)(i |z|)|; |a_m|, |b_m| <= (|x| + |y|)^m.
std::vector<long double> termMagnitudes(double x, double y, double z)
{
    using C = std::complex<long double>;
    const auto t = referenceBasis<C>(std::fabs(x) + std::fabs(y), 0, C(0, std::fabs(z)), 15);
    std::vector<long double> out(t.size());
    for (int l = 0; l <= 15; ++l)
        for (int m = -l; m <= l; ++m)
            out[size_t(l * l + l + m)] = std::abs(t[size_t(l * l + l + std::abs(m))]);
    return out;
}

}  // namespace

// 1e-12 of the band's largest value plus 16 ulps of the summed |terms| (near the poles bands 14,
// 15 cancel terms 1e5 times the result); closed forms of bands 0-2 fix the sign convention.
TEST(ShKernels, DoubleBandPolynomialsMatchTheReferenceAndTheClosedForms)
{
    const Directions d = testDirections(50, 6);
    for (size_t i = 0; i < size_t(d.size()); ++i) {
        const double x = d.x[i], y = d.y[i], z = d.z[i], k1 = 0.4886025119029199;
        const double k2 = 1.092548430592079, k20 = 0.31539156525252, k22 = 0.5462742152960395;
        const double band1[3] = {-k1 * y, k1 * z, -k1 * x};
        const double band2[5] = {k2 * x * y, -k2 * y * z, k20 * (3 * z * z - 1), -k2 * x * z,
                                 k22 * (x * x - y * y)};
        const auto ref = referenceBasis(x, y, z, 15);
        const auto terms = termMagnitudes(x, y, z);
        double out[kMaxShCount];
        for (int l = 0; l <= 15; ++l)
            kBands[l](x, y, z, z * z, out + l * l);
        EXPECT_NEAR(out[0], 0.28209479177387814, 1e-16) << "direction " << i;
        for (int k = 0; k < 8; ++k)
            EXPECT_NEAR(out[1 + k], k < 3 ? band1[k] : band2[k - 3], k < 3 ? 1e-15 : 1e-14)
                << "index " << 1 + k << " at direction " << i;
        for (int l = 0; l <= 15; ++l)
            for (int k = l * l; k <= l * l + 2 * l; ++k)
                EXPECT_LE(std::fabs(out[k] - ref[size_t(k)]),
                          1e-12L * bandMax(ref, l) + 16 * DBL_EPSILON * terms[size_t(k)])
                    << "index " << k << " at (" << x << ", " << y << ", " << z << "): " << out[k]
                    << " vs " << double(ref[size_t(k)]);
    }
}

// Every length across the vector groups, inputs and outputs flush against guard pages, with
// ordinary and streaming stores.
TEST(ShKernels, VectorBasisAndBandMatchTheScalarTwinsBitForBit)
{
    const Directions all = testDirections(20, 7);
    Directions d;  // the poles, axes and diagonals spread among random directions
    for (int i = 0; i < all.size(); ++i) {
        const size_t j = size_t(i * 7 % all.size());
        d.x.push_back(all.x[j]), d.y.push_back(all.y[j]), d.z.push_back(all.z[j]);
    }
    // Every lower order gives the leading values of order 15 bit for bit: no band is left out.
    const sh::Directions twenty{d.x.data(), d.y.data(), d.z.data(), d.size()};
    std::vector<float> full(size_t(kMaxShCount * d.size())), part(full.size());
    sh::evalBasisDirectScalar(twenty, 15, full.data());
    for (unsigned order = 0; order < 15; ++order) {
        const size_t count = size_t(shCount(order));
        sh::evalBasisDirectScalar(twenty, order, part.data());
        for (size_t i = 0; i < size_t(d.size()); ++i)
            EXPECT_EQ(std::memcmp(&part[i * count], &full[i * kMaxShCount], count * 4), 0)
                << "order " << order << " direction " << i;
    }
    for (unsigned order : {0u, 1u, 2u, 7u, 15u}) {
        const ShState state = makeState(order, SHMethodRecurrence);
        const sh::RecurrenceTables tables = sh::recurrenceTables(*state);
        const size_t count = size_t(shCount(order)), band = 2 * order + 1;
        for (int n = 0; n <= 19; ++n)
            for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
                GuardedArray<float> x(size_t(n), end), y(size_t(n), end), z(size_t(n), end);
                GuardedArray<float> out(count * size_t(n), end), outBand(band * size_t(n), end);
                x.copyFrom(d.x.data()), y.copyFrom(d.y.data()), z.copyFrom(d.z.data());
                const sh::Directions dirs{x.data(), y.data(), z.data(), n};
                std::vector<float> expected(count * size_t(n) + 1);  // never empty
                const auto expectSame = [&](GuardedArray<float>& actual, const char* what) {
                    ASSERT_EQ(std::memcmp(actual.data(), expected.data(), actual.size() * 4), 0)
                        << what << ", order " << order << " length " << n;
                };
                for (sh::Stores stores : {sh::Stores::BySize, sh::Stores::Streaming}) {
                    sh::evalBasisDirectScalar(dirs, order, expected.data());
                    sh::evalBasisDirectAvx(dirs, order, out.data(), stores);
                    expectSame(out, "direct");
                    sh::evalBasisRecurrenceScalar(dirs, order, tables, expected.data());
                    sh::evalBasisRecurrenceAvx(dirs, order, tables, out.data(), stores);
                    expectSame(out, "recurrence");
                    sh::evalBandDirectScalar(dirs, order, expected.data());
                    sh::evalBandDirectAvx(dirs, order, outBand.data(), stores);
                    expectSame(outBand, "band");
                }
            }
    }
}

TEST(ShKernels, DotProductTwinsAgreeBitForBit)
{
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    for (int n = 0; n <= 40; ++n) {
        GuardedArray<float> a(static_cast<size_t>(n)), b(static_cast<size_t>(n));
        for (int k = 0; k < n; ++k)
            a.data()[k] = value(rng), b.data()[k] = value(rng) * 1000.0f;
        EXPECT_EQ(sh::dotProductScalar(a.data(), b.data(), n),
                  sh::dotProductAvx(a.data(), b.data(), n))
            << "n " << n;
    }
}

// A block beyond the caches goes through streaming stores; both ends are unaligned.
TEST(ShKernels, ClearBlockZeroesExactlyTheBlock)
{
    const size_t large = size_t(std::max(vekGetMaxCacheSizeB(), 0x200000)) + 4096 + 13;
    for (size_t bytes : {size_t(0), size_t(1), size_t(100), size_t(0x200001), large}) {
        std::vector<unsigned char> buffer(bytes + 80, 0xAB);
        frame::clearBlock(buffer.data() + 7, bytes);
        for (size_t i = 0; i < buffer.size(); ++i)
            ASSERT_EQ(buffer[i], i >= 7 && i < 7 + bytes ? 0 : 0xAB)
                << "bytes " << bytes << " at " << i;
    }
}
