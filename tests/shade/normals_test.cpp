// Triangle normals, per-ray flat and smooth normals on both paths, and the argument checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "shade/normals.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "support/random_floats.h"
#include "support/thread_count_scope.h"
#include "vekcore.h"
#include "vekr.h"

using namespace vekr::test;
namespace shade = vekr::shade;

namespace {

const float kNaN = NAN, kInf = INFINITY;

// Vertices 0..2 are collinear on exact floats, the rest random. Every fifth triangle repeats a
// corner or uses the collinear three; the fourth int of each is junk.
struct Mesh {
    std::vector<float> vertices = {0, 0, 0, 1, 2, 3, 2, 4, 6};
    std::vector<int> triangles;
};

// With an extent, every 17th coordinate is NaN, infinite or 2^-13.
Mesh randomMesh(int triangleCount, unsigned seed, float extent = 0)
{
    Mesh m;
    const float e = extent > 0 ? extent : 50;
    const auto coords = randomFloats(size_t(triangleCount + 3) * 3, seed, -e, e);
    m.vertices.insert(m.vertices.end(), coords.begin(), coords.end());
    for (size_t i = 9; i < m.vertices.size() && extent > 0; i += 17)
        m.vertices[i] = (i % 3 == 0) ? kNaN : (i % 3 == 1 ? kInf : 0x1p-13f);
    std::mt19937 rng(seed);
    const auto pick = [&] { return int(rng() % unsigned(triangleCount + 6)); };
    for (int t = 0; t < triangleCount; ++t) {
        int a = pick(), b = pick(), c = pick();
        if (t % 5 == 3) b = a;
        if (t % 5 == 4) a = 2, b = 0, c = 1;
        m.triangles.insert(m.triangles.end(), {a, b, c, INT_MIN + t});
    }
    return m;
}

// Each float within half an ulp of its own rounding plus the double cross product's error,
// which grows as the triangle thins (|e1| |e2| / |n| is 1 / sin of the corner angle); +0 where
// the squared length is below 2^-52.
void expectNormalsNearReference(const Mesh& m, const float* normals, int n)
{
    for (size_t t = 0; t < size_t(n); ++t) {
        const auto at = [&](int corner, int a) -> long double {
            return m.vertices[size_t(m.triangles[t * 4 + size_t(corner)]) * 3 + size_t(a)];
        };
        long double e1[3], e2[3];
        for (int a = 0; a < 3; ++a)
            e1[a] = at(0, a) - at(2, a), e2[a] = at(1, a) - at(2, a);
        const long double c[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                                  e1[0] * e2[1] - e1[1] * e2[0]};
        const long double s = c[0] * c[0] + c[1] * c[1] + c[2] * c[2];
        const long double thin = std::sqrt((e1[0] * e1[0] + e1[1] * e1[1] + e1[2] * e1[2]) *
                                           (e2[0] * e2[0] + e2[1] * e2[1] + e2[2] * e2[2]) / s);
        for (size_t a = 0; a < 3; ++a) {
            const float actual = normals[t * 3 + a];
            EXPECT_TRUE(s >= 0x1p-52L || floatBits(actual) == 0) << "degenerate triangle " << t;
            if (s < 0x1p-52L) continue;
            const long double ref = c[a] / std::sqrt(s);
            EXPECT_LE(std::fabs(actual - ref),
                      std::ldexp(std::fabs(ref), -24) + 0x1p-50L * thin + 0x1p-149L)
                << "triangle " << t << ", axis " << a;
        }
    }
}

std::vector<float> runTriangles(void (*kernel)(const float*, const int*, float*, int),
                                const Mesh& m, int n)
{
    std::vector<float> out(size_t(n) * 3, -7.0f);
    kernel(m.vertices.data(), m.triangles.data(), out.data(), n);
    return out;
}

// A Newton step leaves 1.5 e^2 of the estimate's error e <= 1.5 * 2^-12, about 2^-22, plus a
// few roundings: a unit normal's components move by less than 2^-20.
constexpr float kRsqrtTolerance = 0x1p-20f;

// Hits in groups of four of each kind the vector path tells apart (one triangle, all missed,
// mixed, several), NaN and infinite u, v on some missed rays and finite ones on others (a
// finite pair must not leak a normal into a mixed group), and triangle 0 weighing N(0) =
// (2^-12, 2^-12, 0) alone: s = FLT_EPSILON exactly, zero on the vector path only, which shows
// the path taken. Flat copies exact bits; smooth gives the bits of the twin the alignment rule
// names, the scalar one within 1e-6 of the exact normal; missed rays get +0.
void expectPerRayNormals(FlushEnd flush, size_t shifted, int step, int n)
{
    const unsigned seed = unsigned(n * 16 + step);
    std::vector<float> triangleNormals = randomFloats(24, seed, -1, 1);
    std::vector<float> vertexNormals = randomFloats(24, seed + 1, 0.2f, 1);
    std::vector<float> u = randomFloats(size_t(n), seed + 2, 0, 1), v = u;
    std::vector<int> hits, indices;
    std::mt19937 rng(seed);
    const int misses[] = {-1, INT_MIN, -7};
    for (size_t i = 0, t = 0; i < size_t(n); ++i) {
        t = i % 4 ? t : rng() % 8;  // a group's triangles t, t + 1, t + 2, t of the last kind
        const int kinds[4] = {int(i / 16), misses[i % 3], i % 2 ? 0 : misses[i % 3],
                              int((t + i % 4 % 3) % 8)};
        hits.push_back(kinds[i / 4 % 4]);
        v[i] = (1 - u[i]) * float(rng() % 1024) / 1024;
        if (hits[i] < 0 && i % 4 > 1) u[i] = kNaN, v[i] = i % 3 == 1 ? kInf : -kInf;
        if (hits[i] == 0) u[i] = 1, v[i] = 0;
    }
    for (int i = 0; i < 8 * step; ++i)
        indices.push_back(i == 0 ? 0 : i % step < 3 ? int(rng() % 8) : -99999);
    vertexNormals[0] = vertexNormals[1] = 0x1p-12f, vertexNormals[2] = 0;
    triangleNormals[4] = bitsToFloat(0x7FC01234);  // a NaN payload

    GuardPool pool{flush, {}};
    const auto copy = [&](const auto& values) {
        return pool.copy(values, shifted == pool.arrays.size());
    };
    const float *flat = copy(triangleNormals), *normals = copy(vertexNormals);
    const int *normalIndices = copy(indices), *hitsAt = copy(hits);
    const float* uv[2] = {copy(u), copy(v)};
    float* const planes[3] = {copy(u), copy(u), copy(u)};
    const std::string where = std::to_string(n) + " rays, step " + std::to_string(step) +
                              ", shifted " + std::to_string(shifted) + ", ray ";

    ASSERT_EQ(vekrSurfFlatNormal_32f(flat, hitsAt, planes, n), StatusOk);
    for (size_t i = 0; i < size_t(n); ++i)
        for (size_t a = 0; a < 3; ++a)
            ASSERT_EQ(floatBits(planes[a][i]),
                      hits[i] < 0 ? 0u : floatBits(triangleNormals[size_t(hits[i]) * 3 + a]))
                << "flat, " << where << i;

    ASSERT_EQ(vekrSurfSmoothNormal_32f(normals, normalIndices, hitsAt, uv, planes, n, step),
              StatusOk);
    const bool vectorPath =
        n % 4 == 0 && std::all_of(pool.arrays.begin() + 1, pool.arrays.end(),
                                  [](const auto& p) { return uintptr_t(p.get()) % 16 == 0; });
    // Planes x, y, z one after another, 16-byte aligned when n is a multiple of 4.
    const auto run = [&](auto kernel) {
        std::vector<float> out(size_t(n) * 3 + 4, 12345.0f);
        float* const p[3] = {out.data(), out.data() + n, out.data() + 2 * n};
        const float* uvPlanes[2] = {u.data(), v.data()};
        kernel(vertexNormals.data(), indices.data(), hits.data(), uvPlanes, p, n, step);
        return out;
    };
    const auto scalar = run(&shade::interpolateSmoothNormalsScalar);
    const auto avx = n % 4 ? scalar : run(&shade::interpolateSmoothNormalsAvx);
    for (size_t i = 0; i < size_t(n); ++i) {
        double exact[3] = {0, 0, 0};  // the normal in double, or zeros for a miss
        const int* k = &indices[size_t(std::max(hits[i], 0) * step)];
        const double w[3] = {u[i], v[i], 1.0 - u[i] - v[i]};
        for (size_t a = 0; a < 3 && hits[i] >= 0; ++a)
            for (size_t corner = 0; corner < 3; ++corner)
                exact[a] += w[corner] * vertexNormals[size_t(k[corner]) * 3 + a];
        const double length = std::hypot(exact[0], exact[1], exact[2]);
        for (size_t a = 0; a < 3; ++a) {
            const size_t at = a * size_t(n) + i;
            ASSERT_EQ(floatBits(planes[a][i]), floatBits(vectorPath ? avx[at] : scalar[at]))
                << (vectorPath ? "vector path, " : "scalar path, ") << where << i;
            EXPECT_NEAR(scalar[at], hits[i] < 0 ? 0 : exact[a] / length, 1e-6) << where << i;
            EXPECT_NEAR(avx[at], hits[i] == 0 && n % 4 == 0 ? 0 : scalar[at], kRsqrtTolerance)
                << where << i;
            EXPECT_EQ(hits[i] < 0 ? floatBits(scalar[at]) | floatBits(avx[at]) : 0u, 0u)
                << where << i;
        }
    }
}

}  // namespace

// The entry between guard pages (the last record stops after the third int it reads) within
// the reference bound; on non-finite and extreme input the Avx twin and the entry on 1, 2 and 3
// threads write the scalar twin's bytes, wherever the shares' scalar tails fall.
TEST(TriangleNormal, ReferenceBetweenGuardPagesAndIdenticalBytesOnTwinsAndThreads)
{
    ThreadCountScope team(vekGetNumThreads());  // restored however the test ends
    for (int n = 0; n <= 42; ++n) {
        const int count = n == 41 ? 1001 : n == 42 ? 100003 : n;
        const Mesh m = randomMesh(count, unsigned(count) + 1);
        for (FlushEnd flush : {FlushEnd::Back, FlushEnd::Front}) {
            GuardPool pool{flush, {}};
            const int* triangles =
                pool.copy(std::vector<int>(m.triangles.begin(), m.triangles.end() - (count > 0)));
            float* normals = pool.copy(std::vector<float>(size_t(count) * 3));
            ASSERT_EQ(vekrTriangleNormal_32f(pool.copy(m.vertices), triangles, normals, count),
                      StatusOk);
            expectNormalsNearReference(m, normals, count);
        }
        if (count == 0) continue;
        const float extents[3] = {1e-9f, 1e30f, 50.0f};
        const Mesh odd = randomMesh(count, unsigned(count) + 100, extents[count % 3]);
        const auto scalar = runTriangles(&shade::computeTriangleNormalsScalar, odd, count);
        const auto same = [&](const std::vector<float>& out) {
            return std::memcmp(out.data(), scalar.data(), scalar.size() * 4) == 0;
        };
        EXPECT_TRUE(same(runTriangles(&shade::computeTriangleNormalsAvx, odd, count))) << count;
        for (int threads : {1, 2, 3}) {
            team.set(threads);
            EXPECT_TRUE(same(runTriangles(
                [](const float* v, const int* t, float* out, int c) {
                    ASSERT_EQ(vekrTriangleNormal_32f(v, t, out, c), StatusOk);
                },
                odd, count)))
                << count << " triangles, " << threads << " threads";
        }
    }
}

TEST(TriangleNormal, DocumentedCasesOrientationAndTheDoubleEpsilonThreshold)
{
    // Each case five times, so that the Avx twin has it in its four lanes and in its tail.
    const auto expectNormal = [](std::vector<float> vertices, std::vector<int> corners,
                                 std::vector<float> expected, const char* what) {
        Mesh m{vertices, {}};
        std::vector<float> all;
        for (int t = 0; t < 5; ++t) {
            m.triangles.insert(m.triangles.end(), {corners[0], corners[1], corners[2], 0});
            all.insert(all.end(), expected.begin(), expected.end());
        }
        EXPECT_EQ(runTriangles(&shade::computeTriangleNormalsScalar, m, 5), all) << what;
        EXPECT_EQ(runTriangles(&shade::computeTriangleNormalsAvx, m, 5), all) << what;
    };
    const std::vector<float> unit = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    expectNormal(unit, {0, 1, 2}, {0, 0, 1}, "counter-clockwise");
    expectNormal(unit, {0, 2, 1}, {0, 0, -1}, "clockwise");
    expectNormal(unit, {1, 1, 2}, {0, 0, 0}, "two equal corners");
    expectNormal({0, 0, 0, 1, 2, 3, -2, -4, -6}, {0, 1, 2}, {0, 0, 0}, "collinear");
    // Corner 0 on x, corner 1 on y and corner 2 at the origin: n = (0, 0, a b), s = (a b)^2.
    const float a = 0x1p-13f, b = 0x1.fffffep-14f;
    expectNormal({a, 0, 0, 0, a, 0, 0, 0, 0}, {0, 1, 2}, {0, 0, 1}, "s = 2^-52");
    expectNormal({a, 0, 0, 0, b, 0, 0, 0, 0}, {0, 1, 2}, {0, 0, 0}, "s just below 2^-52");
}

// --- Per-ray normals ---------------------------------------------------------------------

TEST(PerRayNormals, BothPathsBetweenGuardPagesAgainstTheReference)
{
    for (FlushEnd flush : {FlushEnd::Back, FlushEnd::Front})
        for (size_t shifted = 0; shifted <= 9; ++shifted)
            for (int step : {3, 4, 7})
                for (int n = 0; n <= 20; ++n)
                    expectPerRayNormals(flush, shifted, step, n);
}

// Corners 0, 1, 2 name normals 2, 0, 1: u = 1 gives N(2), v = 1 N(0), w = 1 N(1); opposite
// normals cancel. Order: u = 1/2, v = 2^-25 give w = (1 - u) - v = 1/2 - 2^-25 exactly; in z
// v N1 + u N0 = 1/4 - 2^23 rounds to -2^23 (a tie) before w N2 = 2^23 - 1/2 is added: -1/2,
// where the exact sum is -1/4, 1 - (u + v) gives w = 1/2 and the other grouping 0.
TEST(SmoothNormal, CornerWeightsCancellationAndEvaluationOrderOnBothTwins)
{
    const auto expectBoth = [](std::vector<float> normals, std::vector<int> indices, int step,
                               std::vector<int> hits, std::vector<float> u, std::vector<float> v,
                               std::vector<float> expected) {
        for (auto kernel :
             {&shade::interpolateSmoothNormalsScalar, &shade::interpolateSmoothNormalsAvx}) {
            GuardPool pool{FlushEnd::Front, {}};  // page-aligned
            float* const planes[3] = {pool.copy(u), pool.copy(u), pool.copy(u)};
            const float* uv[2] = {pool.copy(u), pool.copy(v)};
            kernel(normals.data(), indices.data(), pool.copy(hits), uv, planes, 4, step);
            for (size_t i = 0; i < 4; ++i)
                for (size_t a = 0; a < 3; ++a)
                    EXPECT_NEAR(planes[a][i], expected[3 * (i % (expected.size() / 3)) + a],
                                kRsqrtTolerance)
                        << "step " << step << ", ray " << i << ", axis " << a;
        }
    };
    expectBoth({0, 0, -5, 0, 0.5f, 0, 2, 0, 0, 0.3f, 0.4f, 0, -0.3f, -0.4f, 0},
               {2, 0, 1, -1, -1, 3, 4, 0, 0, 0}, 5, {0, 0, 0, 1}, {1, 0, 0, 0.5f}, {0, 1, 0, 0.5f},
               {1, 0, 0, 0, 0, -1, 0, 1, 0, 0, 0, 0});
    const float h = 1 / std::sqrt(3.0f), e = 0x1p-25f;
    expectBoth({0x1p24f, 0, -0x1p24f, 0, 0x1p24f, 0x1p23f, -0x1p24f, 0, 0x1p24f}, {0, 1, 2}, 3,
               {0, 0, 0, 0}, {0.5f, 0.5f, 0.5f, 0.5f}, {e, e, e, e}, {h, h, -h});
}

// --- Argument checks ---------------------------------------------------------------------

namespace {

// One triangle and one ray, the output holding a sentinel 7.
struct NormalCall {
    float vertices[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0}, u = 0.25f, v = 0.25f, out[3] = {7, 7, 7};
    int triangles[4] = {0, 1, 2, 0}, hit = 0;
    float* outPlanes[3] = {out, out + 1, out + 2};
    const float* uvPlanes[2] = {&u, &v};
    bool untouched() const { return out[0] == 7 && out[1] == 7 && out[2] == 7; }
};

// Pointer argument `bit` of a call, or null where that bit of `nulls` is set.
template <class T>
T* arg(unsigned nulls, int bit, T* p)
{
    return nulls >> bit & 1 ? nullptr : p;
}

// A function whose first `checked` pointer arguments are checked in order, then the count;
// the pointers of `unchecked` never are (for smooth, bit 5 nulls the planes inside uv and
// normals). Vertices stand for the triangle and vertex normals, triangles for normal indices.
using N = NormalCall;
const struct {
    const char* name;
    int checked;
    unsigned unchecked;
    Status (*run)(N&, unsigned, int);
} kCheckedFunctions[] = {
    {"triangle", 3, 0,
     [](N& c, unsigned z, int n) {
         return vekrTriangleNormal_32f(arg(z, 0, c.vertices), arg(z, 1, c.triangles),
                                       arg(z, 2, c.out), n);
     }},
    {"flat", 2, 1 << 2,
     [](N& c, unsigned z, int n) {
         return vekrSurfFlatNormal_32f(arg(z, 0, c.vertices), arg(z, 1, &c.hit),
                                       arg(z, 2, c.outPlanes), n);
     }},
    {"smooth", 5, 1 << 5, [](N& c, unsigned z, int n) {
         if (z >> 5 & 1) c.uvPlanes[1] = nullptr, c.outPlanes[0] = nullptr;
         return vekrSurfSmoothNormal_32f(arg(z, 0, c.vertices), arg(z, 1, c.triangles),
                                         arg(z, 2, &c.hit), arg(z, 3, c.uvPlanes),
                                         arg(z, 4, c.outPlanes), n, 4);
     }}};

}  // namespace

// Pointer k null together with every later one and a count of 0, so that only the documented
// order gives StatusNullPointer, then a count of 0 alone; nothing is written by either, nor
// with a negative count, but a valid call writes.
TEST(NormalChecks, FirstFailingCheckInOrderWinsAndNothingIsWritten)
{
    for (const auto& f : kCheckedFunctions) {
        for (int k = 0; k <= f.checked; ++k) {
            N call;
            const unsigned nulls = ((1u << f.checked) - (1u << k)) | f.unchecked;
            EXPECT_EQ(f.run(call, nulls, 0), k < f.checked ? StatusNullPointer : StatusOk)
                << f.name << ", pointer " << k;
            EXPECT_TRUE(call.untouched()) << f.name << ", pointer " << k;
        }
        for (int count : {-1, INT_MIN, 1}) {
            N call;
            EXPECT_EQ(f.run(call, 0, count), StatusOk) << f.name << ", count " << count;
            EXPECT_EQ(call.untouched(), count < 0) << f.name << ", count " << count;
        }
    }
}
