#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "ray/secondary_rays.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

const int kCounts[] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13,   14,  15,
                       16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29,  30,  31,
                       32, 33, 34, 35, 36, 37, 38, 39, 40, 1000, 1003};
const float kLight[3] = {0.25f, 4.0f, -1.5f};
const float kThreshold = 0x1.c98710p-10f;  // 0.0017453292

// Guarded copies of `lead` ignored elements then the data, flush against one guard page; a
// lead of 1 takes the planes off 16-byte alignment.
template <class T>
struct Guarded {
    GuardedArray<T> array;
    int lead;
    Guarded(const std::vector<T>& data, FlushEnd end, int lead_ = 0)
        : array(data.size() + size_t(lead_), end), lead(lead_)
    {
        std::copy(data.begin(), data.end(), array.data() + lead);
    }
    T* data() { return array.data() + lead; }
};

// Three planes; bit k of leadBits gives plane k a lead of 1.
template <class T>
struct Guarded3 {
    Guarded<T> p[3];
    T* ptr[3];
    Guarded3(const std::vector<T> (&data)[3], FlushEnd end, unsigned leadBits = 0)
        : p{{data[0], end, int(leadBits & 1)},
            {data[1], end, int(leadBits >> 1 & 1)},
            {data[2], end, int(leadBits >> 2 & 1)}},
          ptr{p[0].data(), p[1].data(), p[2].data()}
    {
    }
};

// Inputs of n rays for both functions: random vectors plus, by ray, the cases the validity
// rules single out (grazing points, eyeDot 0, mask words other than 0 and -1), and whole
// groups of eight negative words.
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
                a[k].push_back(value(rng));
                b[k].push_back(kind == 0 ? float(k == 2) : value(rng));
            }
            if (kind == 0) a[2].back() = kLight[2] + value(rng) * 0.002f;  // |dot| near 0
            eyeDot.push_back(kind == 1 ? 0.0f : value(rng));
            mask.push_back(i / 8 % 4 == 2 ? -1 - int32_t(rng() % 3) : words[rng() % 10]);
        }
    }
};

// ---- Shadow rays -----------------------------------------------------------------------------

struct ShadowResult {
    int32_t mask;
    float dot, dir[3];
};

// The documented rules, evaluated independently; a = hit point, b = normal.
ShadowResult expectedShadow(const RayInputs& in, int i, bool inGroupOfEight)
{
    const float v[3] = {in.a[0][i] - kLight[0], in.a[1][i] - kLight[1], in.a[2][i] - kLight[2]};
    float dot = ((v[0] * in.b[0][i]) + (v[1] * in.b[1][i])) + (v[2] * in.b[2][i]);
    const int32_t word = in.mask[i];
    const ShadowResult unlit{inGroupOfEight || word >= 0 ? -1 : word, 0.0f, {0, 0, 0}};
    if (inGroupOfEight) {
        const bool valid = word >= 0 && in.eyeDot[i] * dot > 0 && std::fabs(dot) >= kThreshold;
        // The sweep's words stay below 2^31 - 64, where the float round trip is defined.
        return valid ? ShadowResult{int32_t(float(word)), std::fabs(dot), {v[0], v[1], v[2]}}
                     : unlit;
    }
    if (std::fabs(dot) < kThreshold) dot = 0.0f;
    if (word < 0 || !(in.eyeDot[i] * dot > 0)) return unlit;
    return {word, std::fabs(dot), {v[0], v[1], v[2]}};
}

struct ShadowPath {
    const char* name;
    void (*fn)(const ray::ShadowRayRun&);  // null: the exported function
};

void castShadow(const ShadowPath& path, const ray::ShadowRayRun& run)
{
    if (path.fn)
        path.fn(run);
    else
        ASSERT_EQ(vekrCastShadowSO_32f(run.lightPos, run.eyeDot, run.normal, run.hitPoint,
                                       run.mask, run.shadowDot, run.shadowDir, run.count),
                  StatusOk);
}

class ShadowRays : public testing::TestWithParam<ShadowPath> {};

TEST_P(ShadowRays, MatchTheGroupAndTailRulesWithoutTouchingPastCount)
{
    for (int count : kCounts)
        for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
            const RayInputs in(count, uint32_t(count));
            Guarded3<float> hit(in.a, end), normal(in.b, end), dir(in.b, end);
            Guarded<float> eyeDot(in.eyeDot, end), dot(in.eyeDot, end);
            Guarded<int32_t> mask(in.mask, end);
            castShadow(GetParam(), {kLight, eyeDot.data(), normal.ptr, hit.ptr, mask.data(),
                                    dot.data(), dir.ptr, count});
            for (int i = 0; i < count; ++i) {
                const ShadowResult e = expectedShadow(in, i, i < count / 8 * 8);
                ASSERT_EQ(mask.data()[i], e.mask) << "count " << count << " ray " << i;
                ASSERT_EQ(floatBits(dot.data()[i]), floatBits(e.dot)) << "ray " << i;
                for (int k = 0; k < 3; ++k)
                    ASSERT_EQ(floatBits(dir.ptr[k][i]), floatBits(e.dir[k])) << "ray " << i;
            }
        }
}

// Hand-worked cases, each placed in a group of eight (ray 0) and in the tail (ray 8). The
// light is at the origin and the normal is +z, so v = (1, 2, z) and dot = z exactly.
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
        castShadow(GetParam(),
                   {origin, eyeDot.data(), normal, hit, mask.data(), dot.data(), out, 9});
        for (int i : {0, 8}) {
            EXPECT_EQ(mask[i], i == 0 ? c.groupMask : c.tailMask) << c.what << ", ray " << i;
            EXPECT_EQ(dot[i], c.lit ? std::fabs(c.z) : 0.0f) << c.what << ", ray " << i;
            EXPECT_EQ(dir[2][i], c.lit ? c.z : 0.0f) << c.what << ", ray " << i;
            EXPECT_EQ(dir[1][i], c.lit ? 2.0f : 0.0f) << c.what << ", ray " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, ShadowRays,
                         testing::Values(ShadowPath{"Scalar", ray::castShadowRaysScalar},
                                         ShadowPath{"Avx", ray::castShadowRaysAvx},
                                         ShadowPath{"Exported", nullptr}),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- Reflection rays -------------------------------------------------------------------------

// R = D - (dot + dot) * N in either documented dot order; a = D, b = N.
float expectedReflection(const RayInputs& in, int i, int k, bool byFours)
{
    if (in.mask[i] < 0) return 0.0f;
    const float dx = in.a[0][i], dy = in.a[1][i], dz = in.a[2][i];
    const float nx = in.b[0][i], ny = in.b[1][i], nz = in.b[2][i];
    const float dot =
        byFours ? ((dx * nx) + (dy * ny)) + (dz * nz) : ((dy * ny) + (dz * nz)) + (dx * nx);
    return in.a[k][i] - (dot + dot) * in.b[k][i];
}

struct ReflectPath {
    const char* name;
    void (*fn)(const ray::ReflectionRayRun&);  // null: the exported function
    bool byFours, alignedOnly;
};

class ReflectionRays : public testing::TestWithParam<ReflectPath> {};

TEST_P(ReflectionRays, MatchTheirDotOrderWithoutTouchingPastCount)
{
    const ReflectPath& path = GetParam();
    int ordersDiffer = 0;
    // odd: which of the ten pointers (incident, normal, reflected planes, mask) is off
    // 16-byte alignment; -1 for none.
    for (int count : kCounts)
        for (int odd = -1; odd < 10; ++odd)
            for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
                const bool byFours = path.fn ? path.byFours : count % 4 == 0;
                if ((path.byFours && count % 4 != 0) || (path.alignedOnly && odd != -1)) continue;
                const auto leadBits = [odd](int first) {
                    return odd >= first && odd < first + 3 ? 1u << (odd - first) : 0u;
                };
                const RayInputs in(count, uint32_t(count) + 100);
                Guarded3<float> incident(in.a, end, leadBits(0)), normal(in.b, end, leadBits(3)),
                    out(in.a, end, leadBits(6));
                Guarded<int32_t> mask(in.mask, end, odd == 9);
                const ray::ReflectionRayRun run{incident.ptr, mask.data(), normal.ptr, out.ptr,
                                                count};
                if (path.fn)
                    path.fn(run);
                else
                    ASSERT_EQ(vekrCastReflectionRay_32f(incident.ptr, mask.data(), normal.ptr,
                                                        out.ptr, count),
                              StatusOk);
                for (int i = 0; i < count; ++i)
                    for (int k = 0; k < 3; ++k) {
                        const float e = expectedReflection(in, i, k, byFours);
                        ordersDiffer += e != expectedReflection(in, i, k, !byFours);
                        ASSERT_EQ(floatBits(out.ptr[k][i]), floatBits(e))
                            << "count " << count << " odd pointer " << odd << " ray " << i;
                    }
            }
    EXPECT_GT(ordersDiffer, 0) << "the inputs do not tell the two dot orders apart";
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ReflectionRays,
    testing::Values(ReflectPath{"QuadsScalar", ray::reflectQuadsScalar, true, false},
                    ReflectPath{"QuadsAvx", ray::reflectQuadsAvx, true, false},
                    ReflectPath{"QuadsAlignedAvx", ray::reflectQuadsAlignedAvx, true, true},
                    ReflectPath{"OneByOne", ray::reflectOneByOne, false, false},
                    ReflectPath{"Exported", nullptr, false, false}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- Argument checks -------------------------------------------------------------------------

// Each pointer null in turn, in the documented check order, with count 4 and with count 0
// (the pointers are checked first): StatusNullPointer and every output left as it was. Then
// counts below 1 over empty guarded planes: StatusOk, nothing read or written.
TEST(SecondaryRaysChecks, NullPointersInOrderWithNothingWritten)
{
    const float light[3] = {1, 2, 3};
    std::vector<float> in(4, 0.5f), out(4, 7.0f);
    std::vector<int32_t> mask(4, 0);
    const float* planes[3] = {in.data(), in.data(), in.data()};
    float* outs[3] = {out.data(), out.data(), out.data()};
    for (int count : {4, 0})
        for (int nullAt = 0; nullAt < 6; ++nullAt) {
            EXPECT_EQ(vekrCastShadowSO_32f(light, nullAt == 0 ? nullptr : in.data(),
                                           nullAt == 1 ? nullptr : planes,
                                           nullAt == 2 ? nullptr : planes,
                                           nullAt == 3 ? nullptr : mask.data(),
                                           nullAt == 5 ? nullptr : out.data(),
                                           nullAt == 4 ? nullptr : outs, count),
                      StatusNullPointer)
                << "shadow, null argument " << nullAt << " of the check order";
            if (nullAt < 4) {
                EXPECT_EQ(vekrCastReflectionRay_32f(nullAt == 0 ? nullptr : planes,
                                                    nullAt == 1 ? nullptr : mask.data(),
                                                    nullAt == 2 ? nullptr : planes,
                                                    nullAt == 3 ? nullptr : outs, count),
                          StatusNullPointer)
                    << "reflection, null argument " << nullAt;
            }
        }
    EXPECT_EQ(out, std::vector<float>(4, 7.0f));
    EXPECT_EQ(mask, std::vector<int32_t>(4, 0));

    const std::vector<float> none[3];
    Guarded3<float> empty(none, FlushEnd::Back);
    Guarded<int32_t> emptyMask({}, FlushEnd::Back);
    for (int count : {0, -1, -8, INT32_MIN}) {
        // The light position is not checked and, with no rays, not read.
        EXPECT_EQ(vekrCastShadowSO_32f(nullptr, empty.ptr[0], empty.ptr, empty.ptr,
                                       emptyMask.data(), empty.ptr[1], empty.ptr, count),
                  StatusOk);
        EXPECT_EQ(
            vekrCastReflectionRay_32f(empty.ptr, emptyMask.data(), empty.ptr, empty.ptr, count),
            StatusOk);
    }
}

}  // namespace
