#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "ray/hit_points.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

// Rays with random inputs; mask words drawn so that whole groups of eight are sometimes all
// -1, sometimes mixed, and sometimes hold values other than 0 and -1.
struct HitPointInputs {
    std::vector<float> dir[3], origin[3], dist;
    std::vector<int32_t> mask;

    HitPointInputs(int count, uint32_t seed)
    {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<float> value(-3.0f, 3.0f);
        std::uniform_int_distribution<int> kind(0, 9);
        for (int k = 0; k < 3; ++k)
            for (int i = 0; i < count; ++i) {
                dir[k].push_back(value(rng));
                origin[k].push_back(value(rng));
            }
        for (int i = 0; i < count; ++i) {
            dist.push_back(std::fabs(value(rng)) + (i % 11 == 5 ? FLT_MAX : 0.0f));
            const bool groupMasked = (i / 8) % 3 == 1;  // every third group all negative
            const int k = kind(rng);
            // Masked groups mix -1 with other negative words: the shortcut tests the sign.
            const int32_t negative = i % 4 == 1 ? INT32_MIN : i % 4 == 2 ? int32_t(0x807FFFFF) : -1;
            mask.push_back(groupMasked ? negative : k < 5 ? 0 : k < 9 ? -1 : int32_t(0x807FFFFF));
        }
    }
};

// The documented rule, written from its description: P = (d * t) * eps + o; a full group of
// eight whose mask words are all negative is stored as computed, everything else is ANDed with
// the complement of its mask word.
float expectedCoordinate(const HitPointInputs& in, bool sharedOrigin, int k, int i, int count,
                         float eps)
{
    const float o = sharedOrigin ? in.origin[k][0] : in.origin[k][i];
    const float p = (in.dir[k][i] * in.dist[i]) * eps + o;
    const int group = i / 8 * 8;
    bool keep = group + 8 <= count;
    for (int j = group; keep && j < group + 8; ++j)
        keep = in.mask[j] < 0;
    return keep ? p : bitsToFloat(floatBits(p) & ~uint32_t(in.mask[i]));
}

using HitFn = void (*)(const ray::HitPointRays&, float* const[3]);

struct HitPath {
    const char* name;
    HitFn fn;  // null: the exported functions
};

void PrintTo(const HitPath& path, std::ostream* os)
{
    *os << path.name;
}

class HitPoints : public testing::TestWithParam<HitPath> {};

TEST_P(HitPoints, FollowTheGroupMaskRuleWithoutTouchingPastCount)
{
    const float eps = 0.999f;
    for (bool shared : {true, false})
        for (int count = 0; count <= 40; ++count)
            for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
                const HitPointInputs in(count, uint32_t(count));
                GuardPool g{end, {}};
                const std::vector<float> zeros(static_cast<size_t>(count));
                const float* dirs[3] = {g.copy(in.dir[0]), g.copy(in.dir[1]), g.copy(in.dir[2])};
                const float* origins[3] = {g.copy(in.origin[0]), g.copy(in.origin[1]),
                                           g.copy(in.origin[2])};
                float* const points[3] = {g.copy(zeros), g.copy(zeros), g.copy(zeros)};
                const float* dist = g.copy(in.dist);
                const int32_t* mask = g.copy(in.mask);
                const float sharedOrigin[3] = {in.origin[0].empty() ? 0 : in.origin[0][0],
                                               in.origin[1].empty() ? 0 : in.origin[1][0],
                                               in.origin[2].empty() ? 0 : in.origin[2][0]};
                if (GetParam().fn) {
                    GetParam().fn({shared ? sharedOrigin : nullptr, shared ? nullptr : origins,
                                   dirs, dist, mask, count, eps},
                                  points);
                } else if (shared) {
                    ASSERT_EQ(vekrHitPoint3DEpsS0_32f_M(sharedOrigin, dirs, dist, mask, points,
                                                        count, eps),
                              StatusOk);
                } else {
                    ASSERT_EQ(vekrHitPoint3DEpsM0_32f_M(origins, dirs, dist, mask, points, count,
                                                        eps),
                              StatusOk);
                }
                for (int i = 0; i < count; ++i)
                    for (int k = 0; k < 3; ++k)
                        ASSERT_EQ(floatBits(points[k][i]),
                                  floatBits(expectedCoordinate(in, shared, k, i, count, eps)))
                            << "count " << count << " ray " << i << " axis " << k;
            }
}

INSTANTIATE_TEST_SUITE_P(Paths, HitPoints,
                         testing::Values(HitPath{"Scalar", ray::computeHitPointsScalar},
                                         HitPath{"Avx", ray::computeHitPointsAvx},
                                         HitPath{"Exported", nullptr}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(HitPointsRule, FullMaskedGroupKeepsPointsButTailAndMixedGroupsDoNot)
{
    const float origin[3] = {1, 2, 3};
    std::vector<float> d(9, 1.0f), dist(9, 2.0f), x(9), y(9), z(9);
    std::vector<int32_t> mask(9, -1);
    const float* dirs[3] = {d.data(), d.data(), d.data()};
    float* const points[3] = {x.data(), y.data(), z.data()};
    ASSERT_EQ(vekrHitPoint3DEpsS0_32f_M(origin, dirs, dist.data(), mask.data(), points, 9, 1.0f),
              StatusOk);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(x[i], 3.0f) << "ray " << i;  // the all-negative group is stored as computed
    EXPECT_EQ(x[8], 0.0f);                     // the tail is always masked
    mask[5] = 0;
    vekrHitPoint3DEpsS0_32f_M(origin, dirs, dist.data(), mask.data(), points, 9, 1.0f);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(z[i], i == 5 ? 5.0f : 0.0f) << "ray " << i;
}

// Each pointer null alone, the planes of origins too: StatusNullPointer with nothing written.
// The single origin is not checked, and a count of 0 touches nothing.
TEST(HitPointsChecks, NullPointersWithNothingWritten)
{
    std::vector<float> d(4, 1.0f), dist(4, 1.0f), x(4, 7.0f);
    std::vector<int32_t> mask(4, 0);
    const float* planes[3] = {d.data(), d.data(), d.data()};
    float* const points[3] = {x.data(), x.data(), x.data()};
    for (int at = 0; at < 5; ++at) {
        const auto drop = [at](int k, auto p) -> decltype(p) { return at == k ? nullptr : p; };
        if (at < 4) {
            EXPECT_EQ(vekrHitPoint3DEpsS0_32f_M(d.data(), drop(0, planes), drop(1, dist.data()),
                                                drop(2, mask.data()), drop(3, points), 4, 1.0f),
                      StatusNullPointer)
                << "pointer " << at;
        }
        EXPECT_EQ(vekrHitPoint3DEpsM0_32f_M(drop(4, planes), drop(0, planes), drop(1, dist.data()),
                                            drop(2, mask.data()), drop(3, points), 4, 1.0f),
                  StatusNullPointer)
            << "pointer " << at;
    }
    EXPECT_EQ(x, std::vector<float>(4, 7.0f));
    EXPECT_EQ(vekrHitPoint3DEpsS0_32f_M(nullptr, planes, dist.data(), mask.data(), points, 0, 1.0f),
              StatusOk);
}

}  // namespace
