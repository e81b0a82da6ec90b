// What the volume tests share: the exports by voxel type, the kinds, random voxels, the allowed
// distance from the double references, the region check, a scoped thread count and the
// thread-count test's parameter.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "support/guarded_volume.h"
#include "support/thread_count_scope.h"
#include "vekcore.h"
#include "vekr.h"
#include "volume/slice_split.h"

namespace vekr::test {

template <class T>
struct VolumeExports;
template <>
struct VolumeExports<uint8_t> {
    static constexpr auto kV = vekrResize_8u_C1V;
    static constexpr auto kPV = vekrResize_8u_C1PV;
    static constexpr auto kRemap = vekrRemap_8u_C1PV;
    static constexpr auto kWarp = vekrWarpAffine_8u_C1PV;
};
template <>
struct VolumeExports<uint16_t> {
    static constexpr auto kV = vekrResize_16u_C1V;
    static constexpr auto kPV = vekrResize_16u_C1PV;
    static constexpr auto kRemap = vekrRemap_16u_C1PV;
    static constexpr auto kWarp = vekrWarpAffine_16u_C1PV;
};
template <>
struct VolumeExports<float> {
    static constexpr auto kV = vekrResize_32f_C1V;
    static constexpr auto kPV = vekrResize_32f_C1PV;
    static constexpr auto kRemap = vekrRemap_32f_C1PV;
    static constexpr auto kWarp = vekrWarpAffine_32f_C1PV;
};

// f(T{}, seed) for 8u, 16u and 32f with seeds 1, 2, 3; or for the type-th of them alone.
template <class F>
void forVoxelType(int type, F f)
{
    if (type == 0) f(uint8_t{}, 1u);
    if (type == 1) f(uint16_t{}, 2u);
    if (type == 2) f(float{}, 3u);
}
template <class F>
void forEachVoxelType(F f)
{
    for (int type = 0; type < 3; ++type)
        forVoxelType(type, f);
}

constexpr int kKinds[] = {InterpolationNearest,         InterpolationLinear,
                          InterpolationCubicLagrange,   InterpolationCubicBSpline,
                          InterpolationCubicCatmullRom, InterpolationCubicB05C03};

template <class T>
T randomVoxel(std::mt19937& rng)
{
    if constexpr (std::is_same_v<T, float>)
        return std::uniform_real_distribution<float>(-100.0f, 100.0f)(rng);
    else
        return T(std::uniform_int_distribution<int>(0, std::numeric_limits<T>::max())(rng));
}

// Allowed distance from the reference (clamped to the type's range for 8u and 16u). 32f: 2^-20
// of the largest magnitude 100, a few float roundings of weights, products and sums (the worst
// seen is about 4). 8u, 16u: half a unit of rounding plus that float error. Nearest copies
// exactly.
template <class T>
double tolerance(int kind)
{
    if (kind == InterpolationNearest) return 0;
    constexpr double kMax = std::is_same_v<T, float> ? 100.0 : std::numeric_limits<T>::max();
    return (std::is_same_v<T, float> ? 0.0 : 0.5) + 0x1p-20 * kMax;
}

// A destination volume holding `box` with a margin after it on every axis, so that the bytes
// just past the box are compared too.
inline VolumeSize withMargin(Cuboid box)
{
    return {box.x + box.width + 2, box.y + box.height + 1, box.z + box.depth + 1};
}

// Every element of dst's storage against `before`: voxels of `box` for which refAt gives a
// value hold it within tol, voxels it gives NaN for (the reference cannot decide them) are
// skipped, and everything else (padding, voxels outside the box, voxels refAt gives nothing
// for) is unchanged bit for bit.
template <class T, class Ref>
void expectRegion(const GuardedVolume<T>& dst, const std::vector<T>& before, Cuboid box, int kind,
                  double tol, Ref refAt)
{
    const std::vector<T> after = dst.storage();
    for (size_t e = 0; e < after.size(); ++e) {
        int x, y, z;
        dst.locate(e, x, y, z);
        const bool inBox = x >= box.x && x < box.x + box.width && x < dst.size().width &&
                           y >= box.y && y < box.y + box.height && y < dst.size().height &&
                           z >= box.z && z < box.z + box.depth;
        const std::optional<double> ref = inBox ? refAt(x, y, z) : std::nullopt;
        if (ref && std::isnan(*ref)) continue;
        if (!ref) {
            ASSERT_EQ(std::memcmp(&after[e], &before[e], sizeof(T)), 0)
                << "kind " << kind << ": changed at " << x << "," << y << "," << z;
            continue;
        }
        double expected = *ref;
        if (!std::is_same_v<T, float>)
            expected = std::clamp(expected, 0.0, double(std::numeric_limits<T>::max()));
        ASSERT_NEAR(double(after[e]), expected, tol)
            << "kind " << kind << " at " << x << "," << y << "," << z;
    }
}

template <class T>
std::vector<uint8_t> bytesOf(const std::vector<T>& v)
{
    const auto* p = reinterpret_cast<const uint8_t*>(v.data());
    return {p, p + v.size() * sizeof(T)};
}

// One volume function large enough to fork a team: run(variant, end) gives the bytes it writes
// for one of `variants` argument sets (types, kinds), inputs or buffer flush against `end`.
// A box the volume functions share among three threads.
inline void expectTeamOfThree(int32_t width, int32_t height, int32_t depth)
{
    const ThreadCountScope scope(3);
    EXPECT_EQ(volume::slicesTeamSize(width, height, depth), 3);
}

struct ThreadedCall {
    const char* name;
    int variants;
    std::vector<uint8_t> (*run)(int variant, FlushEnd end);
};

inline void PrintTo(const ThreadedCall& c, std::ostream* os)
{
    *os << c.name;
}

}  // namespace vekr::test

// Defined once in remap_warp_test.cpp, instantiated by each function's file.
class VolumeThreads : public testing::TestWithParam<vekr::test::ThreadedCall> {};

inline std::string threadedCallName(const testing::TestParamInfo<vekr::test::ThreadedCall>& info)
{
    return info.param.name;
}
