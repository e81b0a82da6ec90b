#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ray/secondary_rays.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

const float kLight[3] = {0.25f, 4.0f, -1.5f};
const float kThreshold = 0x1.c98710p-10f;  // 0.0017453292

// 0..40 across the vector widths, then a large multiple of 4 and one that is not.
std::vector<int> sweepCounts()
{
    std::vector<int> counts;
    for (int n = 0; n <= 40; ++n)
        counts.push_back(n);
    return counts.push_back(1000), counts.push_back(1003), counts;
}

// Random rays, plus by ray the cases the rules single out: grazing points (normal +z, point
// near the light's z), eyeDot 0, mask words other than 0 and -1, whole groups of eight
// negative words. a is the hit point or incident direction, b the normal.
struct RayInputs {
    std::vector<float> a[3], b[3], eyeDot;
    std::vector<int32_t> mask;
    RayInputs(int n, uint32_t seed)
    {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<float> value(-2.0f, 2.0f);
        const int32_t words[] = {0, 0, 0, 0, 5, -1, -7, INT32_MIN, 0x01000001, 123456789};
        for (int i = 0; i < n; ++i) {
            const int kind = int(rng() % 8);
            for (int k = 0; k < 3; ++k) {
                a[k].push_back(kind == 0 && k == 2 ? kLight[2] + value(rng) * 0.002f : value(rng));
                b[k].push_back(kind == 0 ? float(k == 2) : value(rng));
            }
            eyeDot.push_back(kind == 1 ? 0.0f : value(rng));
            mask.push_back(i / 8 % 4 == 2 ? -1 - int32_t(rng() % 3) : words[rng() % 10]);
        }
    }
};

// The shadow rules, evaluated independently: mask word, |dot| and v (or zeros) of ray i.
struct ShadowResult {
    int32_t mask;
    float dot, dir[3];
};
ShadowResult expectedShadow(const RayInputs& in, int i, bool inGroupOfEight)
{
    const float v[3] = {in.a[0][i] - kLight[0], in.a[1][i] - kLight[1], in.a[2][i] - kLight[2]};
    float dot = ((v[0] * in.b[0][i]) + (v[1] * in.b[1][i])) + (v[2] * in.b[2][i]);
    const int32_t word = in.mask[i];
    const ShadowResult unlit{inGroupOfEight || word >= 0 ? -1 : word, 0.0f, {0, 0, 0}};
    bool valid;
    if (inGroupOfEight) {
        valid = word >= 0 && in.eyeDot[i] * dot > 0 && std::fabs(dot) >= kThreshold;
    } else {
        if (std::fabs(dot) < kThreshold) dot = 0.0f;
        valid = word >= 0 && in.eyeDot[i] * dot > 0;  // NaN products fail too
    }
    // Group words go through float (the sweep's stay below 2^31 - 64, where that is defined).
    const int32_t kept = inGroupOfEight ? int32_t(float(word)) : word;
    return valid ? ShadowResult{kept, std::fabs(dot), {v[0], v[1], v[2]}} : unlit;
}

using ShadowFn = void (*)(const ray::ShadowRayRun&);
void castShadowExported(const ray::ShadowRayRun& r)
{
    ASSERT_EQ(vekrCastShadowSO_32f(r.lightPos, r.eyeDot, r.normal, r.hitPoint, r.mask, r.shadowDot,
                                   r.shadowDir, r.count),
              StatusOk);
}

class ShadowRays : public testing::TestWithParam<ShadowFn> {};

TEST_P(ShadowRays, MatchTheGroupAndTailRulesWithoutTouchingPastCount)
{
    for (int count : sweepCounts())
        for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
            const RayInputs in(count, uint32_t(count));
            GuardPool g{end, {}};
            const float* hit[3] = {g.copy(in.a[0]), g.copy(in.a[1]), g.copy(in.a[2])};
            const float* normal[3] = {g.copy(in.b[0]), g.copy(in.b[1]), g.copy(in.b[2])};
            float* dir[3] = {g.copy(in.b[0]), g.copy(in.b[1]), g.copy(in.b[2])};
            float* dot = g.copy(in.eyeDot);
            int32_t* mask = g.copy(in.mask);
            GetParam()({kLight, g.copy(in.eyeDot), normal, hit, mask, dot, dir, count});
            for (int i = 0; i < count; ++i) {
                const ShadowResult e = expectedShadow(in, i, i < count / 8 * 8);
                ASSERT_EQ(mask[i], e.mask) << "count " << count << " ray " << i;
                ASSERT_EQ(floatBits(dot[i]), floatBits(e.dot)) << "count " << count << " ray " << i;
                for (int k = 0; k < 3; ++k)
                    ASSERT_EQ(floatBits(dir[k][i]), floatBits(e.dir[k])) << "ray " << i;
            }
        }
}

// Worked by hand, each case in a group of eight (ray 0) and in the tail (ray 8). Light at the
// origin, normal +z, point (1, 2, z): v = the point and dot = z exactly.
struct ShadowCase {
    const char* what;
    float eyeDot, z;
    int32_t mask;
    bool lit;
    int32_t groupMask, tailMask;
};
const ShadowCase kShadowCases[] = {
    {"lit", 1.0f, 0.5f, 0, true, 0, 0},
    {"lit from the back", -0.5f, -0.25f, 5, true, 5, 5},
    {"wrong side", -2.0f, 0.5f, 3, false, -1, -1},
    {"eyeDot exactly 0", 0.0f, 0.5f, 0, false, -1, -1},
    {"grazing", 1.0f, 0.001f, 0, false, -1, -1},
    {"grazing, same sign", -1.0f, -0.001f, 0, false, -1, -1},
    {"|dot| at the threshold", 1.0f, kThreshold, 0, true, 0, 0},
    {"|dot| just below", 1.0f, 0x1.c9870ep-10f, 0, false, -1, -1},
    {"negative word", 1.0f, 0.5f, -7, false, -1, -7},
    {"word above 2^24", 1.0f, 0.5f, 0x01000001, true, 0x01000000, 0x01000001},
    // 2^31 - 1 rounds to 2^31, which the vector conversion back returns as INT32_MIN.
    {"largest word", 1.0f, 0.5f, INT32_MAX, true, INT32_MIN, INT32_MAX},
};

TEST_P(ShadowRays, HandWorkedCasesInGroupAndTail)
{
    const float origin[3] = {0, 0, 0};
    for (const ShadowCase& c : kShadowCases) {
        std::vector<float> x(9, 1.0f), y(9, 2.0f), z(9, c.z), zero(9, 0.0f), one(9, 1.0f);
        std::vector<float> eyeDot(9, c.eyeDot), dot(9), dir[3] = {x, x, x};
        std::vector<int32_t> mask(9, c.mask);
        const float* hit[3] = {x.data(), y.data(), z.data()};
        const float* normal[3] = {zero.data(), zero.data(), one.data()};
        float* out[3] = {dir[0].data(), dir[1].data(), dir[2].data()};
        GetParam()({origin, eyeDot.data(), normal, hit, mask.data(), dot.data(), out, 9});
        for (int i : {0, 8}) {
            EXPECT_EQ(mask[i], i == 0 ? c.groupMask : c.tailMask) << c.what << ", ray " << i;
            EXPECT_EQ(dot[i], c.lit ? std::fabs(c.z) : 0.0f) << c.what << ", ray " << i;
            EXPECT_EQ(dir[0][i], c.lit ? 1.0f : 0.0f) << c.what << ", ray " << i;
            EXPECT_EQ(dir[2][i], c.lit ? c.z : 0.0f) << c.what << ", ray " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, ShadowRays,
                         testing::Values(ray::castShadowRaysScalar, ray::castShadowRaysAvx,
                                         castShadowExported),
                         [](const testing::TestParamInfo<ShadowFn>& info) {
                             return std::string(info.index == 0   ? "Scalar"
                                                : info.index == 1 ? "Avx"
                                                                  : "Exported");
                         });

// R = D - (dot + dot) * N with the dot order of either path; zeros under a negative word.
float expectedReflection(const RayInputs& in, int i, int k, bool byFours)
{
    const float dx = in.a[0][i], dy = in.a[1][i], dz = in.a[2][i];
    const float nx = in.b[0][i], ny = in.b[1][i], nz = in.b[2][i];
    const float dot =
        byFours ? ((dx * nx) + (dy * ny)) + (dz * nz) : ((dy * ny) + (dz * nz)) + (dx * nx);
    return in.mask[i] < 0 ? 0.0f : in.a[k][i] - (dot + dot) * in.b[k][i];
}

struct ReflectPath {
    void (*fn)(const ray::ReflectionRayRun&);  // null: the exported function
    bool byFours, alignedOnly;
};

std::string reflectPathName(const testing::TestParamInfo<ReflectPath>& info)
{
    static const char* kNames[] = {"QuadsScalar", "QuadsAvx", "QuadsAlignedAvx", "OneByOne",
                                   "Exported"};
    return kNames[info.index];
}

class ReflectionRays : public testing::TestWithParam<ReflectPath> {};

TEST_P(ReflectionRays, MatchTheirDotOrderWithoutTouchingPastCount)
{
    const ReflectPath path = GetParam();
    int ordersDiffer = 0;
    // odd: which of the ten pointers (incident, normal and reflected planes, then the mask)
    // is off 16-byte alignment; -1 for none.
    for (int count : sweepCounts())
        for (int odd = -1; odd < 10; ++odd)
            for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
                if ((path.byFours && count % 4 != 0) || (path.alignedOnly && odd != -1)) continue;
                const bool byFours = path.fn ? path.byFours : count % 4 == 0;
                const RayInputs in(count, uint32_t(count) + 100);
                GuardPool g{end, {}};
                const float* d[3] = {g.copy(in.a[0], odd == 0), g.copy(in.a[1], odd == 1),
                                     g.copy(in.a[2], odd == 2)};
                const float* n[3] = {g.copy(in.b[0], odd == 3), g.copy(in.b[1], odd == 4),
                                     g.copy(in.b[2], odd == 5)};
                float* r[3] = {g.copy(in.a[0], odd == 6), g.copy(in.a[1], odd == 7),
                               g.copy(in.a[2], odd == 8)};
                const int32_t* mask = g.copy(in.mask, odd == 9);
                if (path.fn)
                    path.fn({d, mask, n, r, count});
                else
                    ASSERT_EQ(vekrCastReflectionRay_32f(d, mask, n, r, count), StatusOk);
                for (int i = 0; i < count; ++i)
                    for (int k = 0; k < 3; ++k) {
                        const float e = expectedReflection(in, i, k, byFours);
                        ordersDiffer += e != expectedReflection(in, i, k, !byFours);
                        ASSERT_EQ(floatBits(r[k][i]), floatBits(e))
                            << "count " << count << " odd pointer " << odd << " ray " << i;
                    }
            }
    EXPECT_GT(ordersDiffer, 0) << "the inputs do not tell the two dot orders apart";
}

INSTANTIATE_TEST_SUITE_P(Paths, ReflectionRays,
                         testing::Values(ReflectPath{ray::reflectQuadsScalar, true, false},
                                         ReflectPath{ray::reflectQuadsAvx, true, false},
                                         ReflectPath{ray::reflectQuadsAlignedAvx, true, true},
                                         ReflectPath{ray::reflectOneByOne, false, false},
                                         ReflectPath{nullptr, false, false}),
                         reflectPathName);

// Each pointer null in turn, in check order, with 4 rays and with none (pointers come first):
// StatusNullPointer, outputs as they were. Counts below 1 over empty guarded planes and a null
// light (never checked): StatusOk, nothing read or written.
TEST(SecondaryRaysChecks, NullPointersInOrderWithNothingWritten)
{
    std::vector<float> in(4, 0.5f), out(4, 7.0f);
    std::vector<int32_t> mask(4, 0);
    const float* p[3] = {in.data(), in.data(), in.data()};
    float* o[3] = {out.data(), out.data(), out.data()};
    for (int count : {4, 0})
        for (int at = 0; at < 6; ++at) {
            EXPECT_EQ(
                vekrCastShadowSO_32f(kLight, at == 0 ? nullptr : in.data(), at == 1 ? nullptr : p,
                                     at == 2 ? nullptr : p, at == 3 ? nullptr : mask.data(),
                                     at == 5 ? nullptr : out.data(), at == 4 ? nullptr : o, count),
                StatusNullPointer)
                << "shadow, check " << at;
            EXPECT_EQ(vekrCastReflectionRay_32f(
                          at == 0 ? nullptr : p, at == 1 || at > 3 ? nullptr : mask.data(),
                          at == 2 ? nullptr : p, at == 3 ? nullptr : o, count),
                      StatusNullPointer)
                << "reflection, check " << at;
        }
    EXPECT_EQ(out, std::vector<float>(4, 7.0f));
    EXPECT_EQ(mask, std::vector<int32_t>(4, 0));

    GuardPool g{FlushEnd::Back, {}};
    float* e = g.copy(std::vector<float>{});
    int32_t* m = g.copy(std::vector<int32_t>{});
    float* const none[3] = {e, e, e};
    for (int count : {0, -1, INT32_MIN}) {
        EXPECT_EQ(vekrCastShadowSO_32f(nullptr, e, none, none, m, e, none, count), StatusOk);
        EXPECT_EQ(vekrCastReflectionRay_32f(none, m, none, none, count), StatusOk);
    }
}

}  // namespace
