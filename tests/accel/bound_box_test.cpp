#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "accel/bound_box.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "vekr.h"

using vekr::test::floatBits;
using vekr::test::FlushEnd;
using vekr::test::GuardedArray;

namespace {

using BoxFunction = void (*)(const float*, int, float*);

// The three ways to the box: the exported function and each scan twin on its own.
void boxThroughApi(const float* v, int n, float* box)
{
    ASSERT_EQ(vekrSetBoundBox_32f(v, n, box), StatusOk);
}
void boxThroughScalar(const float* v, int n, float* box)
{
    auto e = vekr::accel::initialExtremes();
    vekr::accel::scanExtremesScalar(v, n, e);
    vekr::accel::writeWidenedBox(e, box);
}
void boxThroughAvx(const float* v, int n, float* box)
{
    auto e = vekr::accel::initialExtremes();
    vekr::accel::scanExtremesAvx(v, n, e);
    vekr::accel::writeWidenedBox(e, box);
}

// Independent reference: extremes in double over the non-NaN coordinates, the margin as
// documented (single precision, from the largest magnitude, never below FLT_MIN * 1e-4).
std::vector<float> referenceBox(const std::vector<float>& v, int n)
{
    double lo[3] = {FLT_MAX, FLT_MAX, FLT_MAX}, hi[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
    for (int i = 0; i < n; ++i)
        for (int a = 0; a < 3; ++a) {
            const double x = v[size_t(i) * 3 + a];
            if (std::isnan(x)) continue;
            lo[a] = std::min(lo[a], x);
            hi[a] = std::max(hi[a], x);
        }
    double largest = FLT_MIN;
    for (int a = 0; a < 3; ++a)
        largest = std::max({largest, std::fabs(lo[a]), std::fabs(hi[a])});
    const float m = 0.0001f * float(largest);
    return {float(lo[0]) - m, float(lo[1]) - m, float(lo[2]) - m,
            float(hi[0]) + m, float(hi[1]) + m, float(hi[2]) + m};
}

std::vector<float> randomVertices(int n, unsigned seed, float nanFraction = 0)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> coord(-1000.0f, 1000.0f);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<float> v(size_t(n) * 3);
    for (float& x : v)
        x = unit(rng) < nanFraction ? std::numeric_limits<float>::quiet_NaN() : coord(rng);
    return v;
}

void expectSameBits(const float* actual, const std::vector<float>& expected,
                    const std::string& what)
{
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(floatBits(actual[i]), floatBits(expected[size_t(i)]))
            << what << ", field " << i << ": " << actual[i] << " vs " << expected[size_t(i)];
}

struct BoxPath {
    const char* name;
    BoxFunction run;
};
void PrintTo(const BoxPath& path, std::ostream* os)
{
    *os << path.name;
}
std::string pathName(const ::testing::TestParamInfo<BoxPath>& info)
{
    return info.param.name;
}

class BoundBoxPaths : public ::testing::TestWithParam<BoxPath> {};

}  // namespace

TEST_P(BoundBoxPaths, MatchesReferenceAcrossTheVectorBoundary)
{
    std::vector<int> counts;
    for (int n = 0; n <= 40; ++n)
        counts.push_back(n);
    counts.insert(counts.end(), {1000, 100003});
    for (FlushEnd flush : {FlushEnd::Back, FlushEnd::Front}) {
        for (int n : counts) {
            const auto v = randomVertices(n, unsigned(n) + 1);
            GuardedArray<float> guarded(v.size(), flush);
            guarded.copyFrom(v.data());
            GuardedArray<float> box(6, flush);
            GetParam().run(guarded.data(), n, box.data());
            expectSameBits(box.data(), referenceBox(v, n), "count " + std::to_string(n));
        }
    }
}

TEST_P(BoundBoxPaths, NaNCoordinatesNeverTakeAnExtreme)
{
    for (int n : {1, 7, 8, 9, 17, 40, 1001}) {
        const auto v = randomVertices(n, unsigned(n) + 100, 0.2f);
        float box[6];
        GetParam().run(v.data(), n, box);
        expectSameBits(box, referenceBox(v, n), "count " + std::to_string(n));
        for (float x : std::vector<float>(box, box + 6))
            EXPECT_FALSE(std::isnan(x));
    }
}

TEST_P(BoundBoxPaths, SignedZerosGiveTheSameBoxAsAScan)
{
    // -0 and +0 compare equal, so which one a scan keeps depends on the order; the margin
    // makes the written box independent of it.
    std::vector<float> v(24 * 3);
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = (i * 7 % 5 < 2) ? -0.0f : 0.0f;
    float box[6];
    GetParam().run(v.data(), 24, box);
    expectSameBits(box, referenceBox(v, 24), "zeros");
}

INSTANTIATE_TEST_SUITE_P(Paths, BoundBoxPaths,
                         ::testing::Values(BoxPath{"Scalar", &boxThroughScalar},
                                           BoxPath{"Avx", &boxThroughAvx},
                                           BoxPath{"Api", &boxThroughApi}),
                         pathName);

TEST(BoundBox, NonPositiveCountGivesTheWidenedInvertedBox)
{
    const float m = 0.0001f * FLT_MAX;
    const std::vector<float> inverted = {FLT_MAX - m,  FLT_MAX - m,  FLT_MAX - m,
                                         -FLT_MAX + m, -FLT_MAX + m, -FLT_MAX + m};
    GuardedArray<float> nothing(0);  // any read faults
    for (int n : {0, -1, -100}) {
        float box[6];
        EXPECT_EQ(vekrSetBoundBox_32f(nothing.data(), n, box), StatusOk);
        expectSameBits(box, inverted, "count " + std::to_string(n));
    }
}

TEST(BoundBox, OneVertexAndNegativeCoordinatesGetTheUniformMargin)
{
    const float one[3] = {1, 2, 3};
    float box[6];
    ASSERT_EQ(vekrSetBoundBox_32f(one, 1, box), StatusOk);
    const float expected[6] = {0.9997f, 1.9997f, 2.9997f, 1.0003f, 2.0003f, 3.0003f};
    for (int i = 0; i < 6; ++i)
        EXPECT_FLOAT_EQ(box[i], expected[i]) << i;

    const float corners[6] = {-100, 0, 0, 1, 1, 1};
    ASSERT_EQ(vekrSetBoundBox_32f(corners, 2, box), StatusOk);
    const float m = 0.0001f * 100.0f;
    const float expectedWide[6] = {-100 - m, 0 - m, 0 - m, 1 + m, 1 + m, 1 + m};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(floatBits(box[i]), floatBits(expectedWide[i])) << i;

    // All at the origin: the margin is FLT_MIN * 1e-4, never zero.
    const float origin[3] = {0, 0, 0};
    ASSERT_EQ(vekrSetBoundBox_32f(origin, 1, box), StatusOk);
    EXPECT_LT(box[0], 0.0f);
    EXPECT_GT(box[3], 0.0f);
}

TEST(BoundBox, NullVerticesLeaveTheBoxUntouched)
{
    for (int n : {-1, 0, 5}) {
        float box[6] = {1, 2, 3, 4, 5, 6};
        EXPECT_EQ(vekrSetBoundBox_32f(nullptr, n, box), StatusNullPointer);
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(box[i], float(i + 1));
    }
}
