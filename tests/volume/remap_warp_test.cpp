// Remap and affine warp against a double-precision reference, with every plane between guard
// pages and every byte around the written region compared; the inclusive bounds, the small-
// source downgrades, the determinant limit and thread counts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "support/float_bits.h"
#include "support/resample_reference.h"
#include "vekr.h"
#include "volume_exports.h"

using namespace vekr::test;

namespace {

struct Maps {
    GuardedVolume<float> x, y, z;
    explicit Maps(VolumeSize roi, FlushEnd end = FlushEnd::Back)
        : x(roi, true, end), y(roi, true, end), z(roi, true, end)
    {
    }
};

// Positions from a margin below the bounds to one above them, with every tenth coordinate on
// an integer (the bounds among them), every 13th just past the maximum, every 37th NaN.
Maps randomMaps(VolumeSize roi, const int lo[3], const int hi[3], unsigned seed,
                FlushEnd end = FlushEnd::Back)
{
    std::mt19937 rng(seed);
    Maps m(roi, end);
    GuardedVolume<float>* axes[3] = {&m.x, &m.y, &m.z};
    int n = 0;
    for (int a = 0; a < 3; ++a)
        axes[a]->fill([&](int, int, int) {
            ++n;
            if (n % 37 == 0) return std::numeric_limits<float>::quiet_NaN();
            if (n % 13 == 0) return std::nextafter(float(hi[a]), INFINITY);
            const int i = std::uniform_int_distribution<int>(lo[a] - 1, hi[a] + 1)(rng);
            if (n % 10 == 0) return float(i);
            return std::uniform_real_distribution<float>(lo[a] - 0.7f, hi[a] + 0.7f)(rng);
        });
    return m;
}

template <class T>
Status remap(const GuardedVolume<T>& src, Cuboid srcVOI, Maps& maps, GuardedVolume<T>& dst,
             VolumeSize roi, int kind)
{
    return VolumeExports<T>::kRemap(src.constPlanes(), src.size(), src.rowBytes(), srcVOI,
                                    maps.x.constPlanes(), maps.y.constPlanes(),
                                    maps.z.constPlanes(), maps.x.rowBytes(), dst.planes(),
                                    dst.rowBytes(), roi, kind);
}

void clippedBounds(VolumeSize v, Cuboid box, int lo[3], int hi[3])
{
    lo[0] = box.x, lo[1] = box.y, lo[2] = box.z;
    hi[0] = box.x + std::min(v.width - box.x, box.width) - 1;
    hi[1] = box.y + std::min(v.height - box.y, box.height) - 1;
    hi[2] = box.z + std::min(v.depth - box.z, box.depth) - 1;
}

template <class T>
Status warp(const GuardedVolume<T>& src, Cuboid srcVOI, GuardedVolume<T>& dst, Cuboid dstVOI,
            const double* coeffs, int kind)
{
    return VolumeExports<T>::kWarp(src.constPlanes(), src.size(), src.rowBytes(), srcVOI,
                                   dst.planes(), dst.rowBytes(), dstVOI, coeffs, kind, nullptr);
}

// The source position of destination (x, y, z): the forward map solved by Cramer's rule in
// long double, independent of the library's adjugate and of its stepping along rows.
void inverseImage(const double a[12], int x, int y, int z, double pos[3])
{
    using L = long double;
    const L m[3][3] = {{a[0], a[1], a[2]}, {a[4], a[5], a[6]}, {a[8], a[9], a[10]}};
    const L r[3] = {x - L(a[3]), y - L(a[7]), z - L(a[11])};
    auto det3 = [](const L c0[3], const L c1[3], const L c2[3]) {
        return c0[0] * (c1[1] * c2[2] - c1[2] * c2[1]) - c1[0] * (c0[1] * c2[2] - c0[2] * c2[1]) +
               c2[0] * (c0[1] * c1[2] - c0[2] * c1[1]);
    };
    const L col[3][3] = {
        {m[0][0], m[1][0], m[2][0]}, {m[0][1], m[1][1], m[2][1]}, {m[0][2], m[1][2], m[2][2]}};
    const L d = det3(col[0], col[1], col[2]);
    for (int k = 0; k < 3; ++k) {
        L c[3][3];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                c[i][j] = i == k ? r[j] : col[i][j];
        pos[k] = double(det3(c[0], c[1], c[2]) / d);
    }
}

// Positions within this of a bound, or (nearest) of a half voxel, are decided by the last bits
// of the stepping, which the long double reference does not reproduce: such voxels are skipped.
constexpr double kUndecided = 1e-9;

bool undecided(const double pos[3], const int lo[3], const int hi[3], int kind)
{
    for (int a = 0; a < 3; ++a) {
        if (std::fabs(pos[a] - lo[a]) < kUndecided || std::fabs(pos[a] - hi[a]) < kUndecided)
            return true;
        const double frac = pos[a] - std::floor(pos[a]);
        if (kind == InterpolationNearest && std::fabs(frac - 0.5) < kUndecided) return true;
    }
    return false;
}

// A remap over dstVOI's extent (dstVOI at the origin) with random maps or, with coefficients,
// an affine warp into dstVOI.
struct ResampleCase {
    const char* name;
    VolumeSize src;
    Cuboid srcVOI, dstVOI;
    bool warp;
    double coeffs[12];
};

// clang-format off
const ResampleCase kResampleCases[] = {
    {"RemapInnerBox", {9, 8, 7}, {1, 1, 1, 7, 6, 5}, {0, 0, 0, 21, 5, 4}, false, {}},
    {"RemapBoxPastTheVolume", {6, 5, 4}, {2, 1, 0, 20, 20, 20}, {0, 0, 0, 9, 6, 3}, false, {}},
    {"RemapThinBoxInALargeVolume", {8, 8, 8}, {2, 3, 4, 1, 2, 3}, {0, 0, 0, 17, 4, 3}, false, {}},
    {"WarpRotateScaleShear", {10, 9, 8}, {1, 0, 1, 8, 9, 6}, {0, 1, 0, 14, 12, 10}, true,
     {0.8, -0.6, 0.1, 4.3, 0.55, 0.75, 0.2, -0.4, 0.05, 0.1, 1.3, 0.7}},
    {"WarpMirrorAndSwapAxes", {7, 6, 5}, {0, 0, 0, 7, 6, 5}, {2, 1, 1, 9, 8, 7}, true,
     {0, 1.25, 0, 1.1, -1, 0, 0, 9.3, 0, 0, 1.1, 0.6}},
    {"WarpBoxPastTheVolume", {6, 5, 4}, {2, 1, 1, 30, 30, 30}, {0, 0, 0, 11, 9, 7}, true,
     {1.5, 0, 0, 0.25, 0, 1.5, 0, 0.1, 0, 0, 1.5, 0.3}},
};
// clang-format on

template <class T>
void expectNearReference(const ResampleCase& c, unsigned seed, FlushEnd end)
{
    std::mt19937 rng(seed);
    GuardedVolume<T> src(c.src, true, end);
    src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
    int lo[3], hi[3];
    clippedBounds(c.src, c.srcVOI, lo, hi);
    const VolumeSize roi = {c.dstVOI.width, c.dstVOI.height, c.dstVOI.depth};
    std::optional<Maps> maps;
    if (!c.warp) maps.emplace(randomMaps(roi, lo, hi, seed, end));
    for (int kind : kKinds) {
        GuardedVolume<T> dst(withMargin(c.dstVOI), true, end);
        const std::vector<T> before = dst.storage();
        ASSERT_EQ(c.warp ? warp(src, c.srcVOI, dst, c.dstVOI, c.coeffs, kind)
                         : remap(src, c.srcVOI, *maps, dst, roi, kind),
                  StatusOk);
        int written = 0;
        auto refAt = [&](int x, int y, int z) -> std::optional<double> {
            double pos[3];
            if (c.warp) {
                inverseImage(c.coeffs, x, y, z, pos);
                if (undecided(pos, lo, hi, kind)) return NAN;
            } else {
                pos[0] = maps->x.at(x, y, z), pos[1] = maps->y.at(x, y, z);
                pos[2] = maps->z.at(x, y, z);
            }
            auto r = samplePointReference([&](int i, int j, int k) { return src.at(i, j, k); }, lo,
                                          hi, kind, pos);
            written += r.has_value();
            return r;
        };
        expectRegion(dst, before, c.dstVOI, kind, tolerance<T>(kind), refAt);
        EXPECT_TRUE(!c.warp || written >= 30) << "kind " << kind << ": vacuous";
    }
}

void PrintTo(const ResampleCase& c, std::ostream* os)
{
    *os << c.name;
}

class VolumeRemapWarp : public testing::TestWithParam<ResampleCase> {};

TEST_P(VolumeRemapWarp, MatchesDoublePrecisionReferenceAndLeavesEverythingElse)
{
    for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front})
        forEachVoxelType(
            [&]<class T>(T, unsigned seed) { expectNearReference<T>(GetParam(), seed, end); });
}

INSTANTIATE_TEST_SUITE_P(Cases, VolumeRemapWarp, testing::ValuesIn(kResampleCases),
                         [](const auto& info) { return std::string(info.param.name); });

// A position exactly at the maximum is sampled (linear: voxels max - 1 and max with fraction 1,
// the value at max; the interpolating cubics give it too); one a float step above it leaves
// the voxel alone.
TEST(VolumeRemapBounds, MaximumIsInsideAndTheNextFloatOutside)
{
    GuardedVolume<float> src({6, 5, 4});
    src.fill([](int x, int y, int z) { return float(100 * z + 10 * y + x); });
    const Cuboid box = {1, 1, 1, 4, 3, 2};  // x 1..4, y 1..3, z 1..2
    Maps maps({2, 1, 1});
    maps.x.at(0, 0, 0) = 4.0f, maps.y.at(0, 0, 0) = 3.0f, maps.z.at(0, 0, 0) = 2.0f;
    maps.x.at(1, 0, 0) = std::nextafter(4.0f, 5.0f), maps.y.at(1, 0, 0) = 1.0f;
    maps.z.at(1, 0, 0) = 1.0f;
    for (int kind : kKinds) {
        GuardedVolume<float> dst({2, 1, 1});
        dst.fill([](int, int, int) { return -1.0f; });
        ASSERT_EQ(remap(src, box, maps, dst, {2, 1, 1}, kind), StatusOk);
        // The B-spline and B05C03 cubics smooth, so they only have to write something there.
        const bool interpolating =
            kind != InterpolationCubicBSpline && kind != InterpolationCubicB05C03;
        if (interpolating) {
            EXPECT_EQ(dst.at(0, 0, 0), 234.0f) << "kind " << kind;
        }
        EXPECT_NE(dst.at(0, 0, 0), -1.0f) << "kind " << kind;
        EXPECT_EQ(dst.at(1, 0, 0), -1.0f) << "kind " << kind;
    }
}

// The downgrades go by the whole volume: 3 deep makes cubic linear, 1 wide makes any kind
// nearest, whatever the box.
TEST(VolumeRemapBounds, SmallSourcesDowngradeTheKind)
{
    struct {
        VolumeSize src;
        int downgradedTo;
        std::vector<int> kinds;
    } const cases[] = {
        {{7, 6, 3}, InterpolationLinear, {4, 5, 6, 7}},
        {{1, 6, 5}, InterpolationNearest, {2, 4, 5, 6, 7}},
    };
    for (const auto& c : cases) {
        std::mt19937 rng(5);
        GuardedVolume<uint16_t> src(c.src);
        src.fill([&](int, int, int) { return randomVoxel<uint16_t>(rng); });
        const Cuboid box = {0, 0, 0, c.src.width, c.src.height, c.src.depth};
        int lo[3], hi[3];
        clippedBounds(c.src, box, lo, hi);
        const VolumeSize roi = {19, 4, 3};
        Maps maps = randomMaps(roi, lo, hi, 9);
        GuardedVolume<uint16_t> expected(roi);
        ASSERT_EQ(remap(src, box, maps, expected, roi, c.downgradedTo), StatusOk);
        for (int kind : c.kinds) {
            GuardedVolume<uint16_t> dst(roi);
            ASSERT_EQ(remap(src, box, maps, dst, roi, kind), StatusOk);
            EXPECT_EQ(dst.storage(), expected.storage()) << "kind " << kind;
        }
    }
}

// The identity puts every position on a voxel: nearest, linear and Catmull-Rom (weights 0, 1,
// 0, 0) copy the part of dstVOI inside the source box exactly; the rest keeps its contents.
TEST(VolumeWarpAffineIdentity, CopiesTheSourceBox)
{
    const double identity[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    std::mt19937 rng(4);
    GuardedVolume<float> src({9, 7, 6});
    src.fill([&](int, int, int) { return randomVoxel<float>(rng); });
    const Cuboid srcVOI = {2, 1, 1, 5, 5, 4}, dstVOI = {0, 0, 0, 9, 7, 6};
    const float kUntouched = vekr::test::bitsToFloat(0xA5A5A5A5u);  // what Planes starts with
    for (int kind : {InterpolationNearest, InterpolationLinear, InterpolationCubicCatmullRom}) {
        GuardedVolume<float> dst({9, 7, 6});
        ASSERT_EQ(warp(src, srcVOI, dst, dstVOI, identity, kind), StatusOk);
        for (int z = 0; z < 6; ++z)
            for (int y = 0; y < 7; ++y)
                for (int x = 0; x < 9; ++x) {
                    const bool inside = x >= 2 && x < 7 && y >= 1 && y < 6 && z >= 1 && z < 5;
                    const float expected = inside ? src.at(x, y, z) : kUntouched;
                    ASSERT_EQ(std::memcmp(&dst.at(x, y, z), &expected, 4), 0)
                        << "kind " << kind << " at " << x << "," << y << "," << z;
                }
    }
}

// A valid box may run past the last int when its rows share memory (a row step of 0); its row
// index once overflowed there. Of rows INT32_MAX - 5 .. INT32_MAX + 4, the first four take
// source rows 0 .. 3, in this order, into the one row; the rest map outside the source.
TEST(VolumeWarpAffineIdentity, BoxEndingAtTheLastIntOverRowsOfStepZero)
{
    std::vector<uint8_t> source(16);
    for (int i = 0; i < 16; ++i)
        source[size_t(i)] = uint8_t(10 + i);
    const uint8_t* srcPlanes[1] = {source.data()};
    std::vector<uint8_t> row(4, 0xA5);
    uint8_t* dstPlanes[1] = {row.data()};
    const double shiftDown[12] = {1, 0, 0, 0, 0, 1, 0, 2147483642.0, 0, 0, 1, 0};
    const Cuboid srcVOI = {0, 0, 0, 4, 4, 1}, dstVOI = {0, INT32_MAX - 5, 0, 4, 10, 1};
    EXPECT_EQ(vekrWarpAffine_8u_C1PV(srcPlanes, {4, 4, 1}, 4, srcVOI, dstPlanes, 0, dstVOI,
                                     shiftDown, InterpolationNearest, nullptr),
              StatusOk);
    EXPECT_EQ(row, std::vector<uint8_t>(source.begin() + 12, source.end()));
}

// |det| = 1e-10 exactly is accepted; a zero third row and a determinant a little below 1e-10
// are refused with nothing written.
TEST(VolumeWarpAffineIdentity, DeterminantLimitIsStrict)
{
    GuardedVolume<uint8_t> src({4, 4, 4});
    src.fill([](int x, int, int) { return uint8_t(x); });
    const Cuboid box = {0, 0, 0, 4, 4, 4};
    const double atLimit[12] = {1e-10, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    const double negativeAtLimit[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, -1e-10, 0};
    const double below[12] = {0.99e-10, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    const double singular[12] = {1, 2, 3, 4, 0, 1, 0, 0, 0, 0, 0, 5};
    for (const double* m : {atLimit, negativeAtLimit}) {
        GuardedVolume<uint8_t> dst({4, 4, 4});
        EXPECT_EQ(warp(src, box, dst, box, m, InterpolationLinear), StatusOk);
    }
    for (const double* m : {below, singular}) {
        GuardedVolume<uint8_t> dst({4, 4, 4});
        const std::vector<uint8_t> before = dst.storage();
        EXPECT_EQ(warp(src, box, dst, box, m, InterpolationNearest), StatusBadCoefficients);
        EXPECT_EQ(dst.storage(), before);
    }
}

// --- Threads and twins ------------------------------------------------------------------

// Every argument set of every function writes the same bytes on 2 and 3 threads as on one,
// whichever end its inputs or buffer sit flush against.
TEST_P(VolumeThreads, AnyThreadCountWritesTheSameBytes)
{
    const ThreadedCall& call = GetParam();
    for (int v = 0; v < call.variants; ++v) {
        std::vector<uint8_t> one;
        {
            const ThreadCountScope scope(1);
            one = call.run(v, FlushEnd::Back);
        }
        for (int threads : {2, 3})
            for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
                const ThreadCountScope scope(threads);
                EXPECT_EQ(call.run(v, end), one) << "variant " << v << ", threads " << threads;
            }
    }
}

// Boxes large enough for a team of three. Variant: type * 6 + kind index.
template <bool kWarp>
std::vector<uint8_t> remapOrWarpForTeams(int variant, FlushEnd end)
{
    std::vector<uint8_t> bytes;
    forVoxelType(variant / 6, [&]<class T>(T, unsigned) {
        const int kind = kKinds[variant % 6];
        std::mt19937 rng(12);
        GuardedVolume<T> src({30, 28, 26}, true, end);
        src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
        const Cuboid srcVOI = {1, 0, 1, 28, 28, 25};
        if constexpr (kWarp) {
            const double coeffs[12] = {1.4, 0.2, 0, -1, -0.1, 1.5, 0.1, 0.5, 0.05, 0, 1.9, -0.7};
            GuardedVolume<T> warped({48, 50, 52}, true, end);
            expectTeamOfThree(46, 48, 47);
            EXPECT_EQ(warp(src, srcVOI, warped, {1, 0, 2, 46, 48, 47}, coeffs, kind), StatusOk);
            bytes = bytesOf(warped.storage());
        } else {
            int lo[3], hi[3];
            clippedBounds(src.size(), srcVOI, lo, hi);
            const VolumeSize roi = {47, 46, 48};
            expectTeamOfThree(roi.width, roi.height, roi.depth);
            Maps maps = randomMaps(roi, lo, hi, 6, end);
            GuardedVolume<T> remapped(withMargin({0, 0, 0, roi.width, roi.height, roi.depth}), true,
                                      end);
            EXPECT_EQ(remap(src, srcVOI, maps, remapped, roi, kind), StatusOk);
            bytes = bytesOf(remapped.storage());
        }
    });
    return bytes;
}

INSTANTIATE_TEST_SUITE_P(RemapWarp, VolumeThreads,
                         testing::Values(ThreadedCall{"Remap", 18, remapOrWarpForTeams<false>},
                                         ThreadedCall{"WarpAffine", 18, remapOrWarpForTeams<true>}),
                         threadedCallName);

}  // namespace
