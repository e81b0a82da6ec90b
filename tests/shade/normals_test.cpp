#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "shade/normals.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "vekcore.h"
#include "vekr.h"

using vekr::test::floatBits;
using vekr::test::FlushEnd;
using vekr::test::GuardedArray;
namespace shade = vekr::shade;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// Vertices 0..2 are collinear on exact floats; the rest are random. Every fifth triangle
// repeats a corner or uses the collinear three.
struct Mesh {
    std::vector<float> vertices = {0, 0, 0, 1, 2, 3, 2, 4, 6};
    std::vector<int> triangles;  // four ints per triangle; the fourth is junk
};

Mesh randomMesh(int triangleCount, unsigned seed, float extent = 50.0f)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> coord(-extent, extent);
    Mesh m;
    const int vertexCount = triangleCount + 6;
    for (int i = 9; i < vertexCount * 3; ++i)
        m.vertices.push_back(coord(rng));
    std::uniform_int_distribution<int> pick(0, vertexCount - 1);
    for (int t = 0; t < triangleCount; ++t) {
        int a = pick(rng), b = pick(rng), c = pick(rng);
        if (t % 5 == 3) b = a;
        if (t % 5 == 4) a = 2, b = 0, c = 1;
        m.triangles.insert(m.triangles.end(), {a, b, c, INT_MIN + t});
    }
    return m;
}

// Independent reference in long double, with the bound each float output must meet: half an
// ulp of its own rounding plus the double cross product's error, which grows as the triangle
// thins (|e1| |e2| / |n| is 1 / sin of the corner angle).
void expectNormalsNearReference(const Mesh& m, const float* normals, int n)
{
    for (int t = 0; t < n; ++t) {
        long double e1[3], e2[3];
        for (int a = 0; a < 3; ++a) {
            const long double v2 = m.vertices[size_t(m.triangles[size_t(t) * 4 + 2]) * 3 + a];
            e1[a] = m.vertices[size_t(m.triangles[size_t(t) * 4]) * 3 + a] - v2;
            e2[a] = m.vertices[size_t(m.triangles[size_t(t) * 4 + 1]) * 3 + a] - v2;
        }
        const long double c[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                                  e1[0] * e2[1] - e1[1] * e2[0]};
        const long double s = c[0] * c[0] + c[1] * c[1] + c[2] * c[2];
        const long double len1 = std::sqrt(e1[0] * e1[0] + e1[1] * e1[1] + e1[2] * e1[2]);
        const long double len2 = std::sqrt(e2[0] * e2[0] + e2[1] * e2[1] + e2[2] * e2[2]);
        for (int a = 0; a < 3; ++a) {
            const float actual = normals[size_t(t) * 3 + a];
            if (s < 0x1p-52L) {
                EXPECT_EQ(floatBits(actual), 0u) << "degenerate triangle " << t;
                continue;
            }
            const long double ref = c[a] / std::sqrt(s);
            const long double bound =
                std::ldexp(std::fabs(ref), -24) + 0x1p-50L * len1 * len2 / std::sqrt(s) + 0x1p-149L;
            EXPECT_LE(std::fabs(actual - ref), bound) << "triangle " << t << ", axis " << a;
        }
    }
}

// Sets the library's thread count for one scope.
class ThreadCountScope {
public:
    explicit ThreadCountScope(int threads) : saved_(vekGetNumThreads())
    {
        vekSetNumThreads(threads);
    }
    ~ThreadCountScope() { vekSetNumThreads(saved_); }

private:
    int saved_;
};

using TriangleKernel = void (*)(const float*, const int*, float*, int);

std::vector<float> runTriangles(TriangleKernel kernel, const Mesh& m, int n)
{
    std::vector<float> out(size_t(n) * 3, -7.0f);
    kernel(m.vertices.data(), m.triangles.data(), out.data(), n);
    return out;
}

// Byte equality, so that NaNs and signed zeros count too.
bool sameBytes(const std::vector<float>& a, const std::vector<float>& b)
{
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * 4) == 0);
}

}  // namespace

TEST(TriangleNormal, MatchesLongDoubleReferenceBetweenGuardPages)
{
    std::vector<int> counts;
    for (int n = 0; n <= 20; ++n)
        counts.push_back(n);
    counts.push_back(1001);
    for (FlushEnd flush : {FlushEnd::Back, FlushEnd::Front})
        for (int n : counts) {
            const Mesh m = randomMesh(n, unsigned(n) + 1);
            GuardedArray<float> vertices(m.vertices.size(), flush);
            vertices.copyFrom(m.vertices.data());
            // The last record stops after its third int: the fourth is never read.
            GuardedArray<int> triangles(n > 0 ? size_t(n) * 4 - 1 : 0, flush);
            triangles.copyFrom(m.triangles.data());
            GuardedArray<float> normals(size_t(n) * 3, flush);
            ASSERT_EQ(vekrTriangleNormal_32f(vertices.data(), triangles.data(), normals.data(), n),
                      StatusOk);
            expectNormalsNearReference(m, normals.data(), n);
        }
}

TEST(TriangleNormal, DocumentedCasesOrientationAndTheDoubleEpsilonThreshold)
{
    // Each case five times, so that the Avx twin has it in its four lanes and in its tail.
    const auto expectNormal = [](std::vector<float> vertices, std::vector<int> corners,
                                 std::vector<float> expected, const char* what) {
        Mesh m;
        m.vertices = vertices;
        for (int t = 0; t < 5; ++t)
            m.triangles.insert(m.triangles.end(), {corners[0], corners[1], corners[2], 0});
        for (TriangleKernel kernel :
             {&shade::computeTriangleNormalsScalar, &shade::computeTriangleNormalsAvx}) {
            const auto out = runTriangles(kernel, m, 5);
            for (int t = 0; t < 5; ++t)
                EXPECT_EQ(std::vector<float>(out.begin() + t * 3, out.begin() + t * 3 + 3),
                          expected)
                    << what << ", triangle " << t;
        }
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

TEST(TriangleNormal, AvxTwinMatchesScalarBitForBitIncludingNonFiniteInput)
{
    for (int n = 0; n <= 40; ++n) {
        Mesh m = randomMesh(n, unsigned(n) + 100, n % 2 ? 1e30f : 1e-9f);
        for (size_t i = 9; i < m.vertices.size(); i += 17)
            m.vertices[i] = (i % 3 == 0) ? kNaN : (i % 3 == 1 ? kInf : 0x1p-13f);
        const auto scalar = runTriangles(&shade::computeTriangleNormalsScalar, m, n);
        const auto avx = runTriangles(&shade::computeTriangleNormalsAvx, m, n);
        ASSERT_TRUE(sameBytes(scalar, avx)) << n << " triangles";
    }
}

TEST(TriangleNormal, OneTwoAndThreeThreadsWriteIdenticalBytes)
{
    for (int n : {1, 2, 3, 5, 7, 9, 11, 13, 1001, 100003}) {
        const Mesh m = randomMesh(n, unsigned(n) + 200);
        std::vector<float> single;
        for (int threads : {1, 2, 3}) {
            ThreadCountScope scope(threads);
            const auto out = runTriangles(
                [](const float* v, const int* t, float* out, int count) {
                    ASSERT_EQ(vekrTriangleNormal_32f(v, t, out, count), StatusOk);
                },
                m, n);
            if (threads == 1) single = out;
            ASSERT_TRUE(sameBytes(single, out)) << n << " triangles, " << threads << " threads";
        }
    }
}

// --- Per-ray normals ---------------------------------------------------------------------

namespace {

// Hit indices in groups of four of every kind the vector path tells apart: one triangle for
// all, all missed, missed and hit mixed (the first lane missed too), distinct triangles.
std::vector<int> hitPattern(int rayCount, int triangleCount, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> pick(0, triangleCount - 1);
    const int misses[] = {-1, INT_MIN, -7};
    std::vector<int> hits(static_cast<size_t>(rayCount));
    int shared = 0;
    for (int i = 0; i < rayCount; ++i) {
        if (i % 4 == 0) shared = pick(rng);
        switch (i / 4 % 4) {
            case 0:
                hits[size_t(i)] = shared;
                break;
            case 1:
                hits[size_t(i)] = misses[i % 3];
                break;
            case 2:
                hits[size_t(i)] = (i % 4 == 0 || i % 4 == 2) ? misses[i % 3] : pick(rng);
                break;
            default:
                hits[size_t(i)] = pick(rng);
                break;
        }
    }
    return hits;
}

std::vector<float> randomFloats(size_t count, unsigned seed, float lo, float hi)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(lo, hi);
    std::vector<float> v(count);
    for (float& x : v)
        x = dist(rng);
    return v;
}

// Inputs of one per-ray call. Rays get barycentric weights inside the triangle; two missed rays
// in three get NaN and infinities instead. Vertex normals lie in one octant, so none cancel.
struct RayCase {
    int rayCount, triangleCount, indexStep;
    std::vector<int> hits;
    std::vector<float> triangleNormals, vertexNormals, u, v;
    std::vector<int> normalIndices;

    RayCase(int rays, int triangles, int step, unsigned seed)
        : rayCount(rays),
          triangleCount(triangles),
          indexStep(step),
          hits(hitPattern(rays, triangles, seed)),
          triangleNormals(randomFloats(size_t(triangles) * 3, seed + 1, -1, 1)),
          vertexNormals(randomFloats(size_t(triangles) * 3, seed + 2, 0.2f, 1)),
          u(randomFloats(size_t(rays), seed + 3, 0, 1)),
          v(randomFloats(size_t(rays), seed + 4, 0, 1))
    {
        std::mt19937 rng(seed + 5);
        for (int i = 0; i < triangles * step; ++i)
            normalIndices.push_back(i % step < 3 ? int(rng() % unsigned(triangles)) : -99999);
        for (size_t i = 0; i < hits.size(); ++i) {
            if (u[i] + v[i] > 1) u[i] = 1 - u[i], v[i] = 1 - v[i];
            if (hits[i] < 0 && i % 3 > 0) u[i] = kNaN, v[i] = i % 3 == 1 ? kInf : -kInf;
        }
    }
};

// The exact normal of each ray in double, or zeros where it misses or cancels.
std::vector<double> smoothReference(const RayCase& c)
{
    std::vector<double> out(size_t(c.rayCount) * 3, 0.0);
    for (size_t i = 0; i < size_t(c.rayCount); ++i) {
        if (c.hits[i] < 0) continue;
        const int* k = &c.normalIndices[size_t(c.hits[i]) * size_t(c.indexStep)];
        const double u = c.u[i], v = c.v[i], w = 1.0 - u - v;
        double n[3], s = 0;
        for (int a = 0; a < 3; ++a) {
            n[a] = u * c.vertexNormals[size_t(k[0]) * 3 + size_t(a)] +
                   v * c.vertexNormals[size_t(k[1]) * 3 + size_t(a)] +
                   w * c.vertexNormals[size_t(k[2]) * 3 + size_t(a)];
            s += n[a] * n[a];
        }
        for (int a = 0; a < 3; ++a)
            out[size_t(a) * size_t(c.rayCount) + i] = s < FLT_EPSILON ? 0.0 : n[a] / std::sqrt(s);
    }
    return out;
}

// Three output planes in one block, x then y then z.
struct Planes {
    std::vector<float> block;
    float* p[3];
    explicit Planes(int rayCount) : block(size_t(rayCount) * 3 + 4, 12345.0f)
    {
        // Plane starts 16-byte aligned when rayCount is a multiple of 4 (the block is).
        for (int a = 0; a < 3; ++a)
            p[a] = block.data() + size_t(a) * size_t(rayCount);
    }
    float at(int axis, int i) const { return p[axis][i]; }
};

using SmoothKernel = void (*)(const float*, const int*, const int*, const float* const[2],
                              float* const[3], int, int);

Planes runSmooth(SmoothKernel kernel, const RayCase& c)
{
    Planes out(c.rayCount);
    const float* uv[2] = {c.u.data(), c.v.data()};
    kernel(c.vertexNormals.data(), c.normalIndices.data(), c.hits.data(), uv, out.p, c.rayCount,
           c.indexStep);
    return out;
}

// One Newton step leaves about 1.5 e^2 of the estimate's relative error e <= 1.5 * 2^-12, about
// 2^-22, plus a few roundings: a unit normal's components move by less than 2^-20. Without the
// step the error is near 2^-12.
constexpr float kRefinedRsqrtTolerance = 0x1p-20f;

}  // namespace

TEST(SmoothNormal, ScalarTwinMatchesDoubleAndAvxTwinMatchesScalar)
{
    for (int step : {3, 4, 7})
        for (int groups = 0; groups <= 12; ++groups) {
            const RayCase c(groups * 4, 11, step, unsigned(groups * 10 + step));
            const auto reference = smoothReference(c);
            const Planes scalar = runSmooth(&shade::interpolateSmoothNormalsScalar, c);
            const Planes avx = runSmooth(&shade::interpolateSmoothNormalsAvx, c);
            for (int i = 0; i < c.rayCount; ++i)
                for (int a = 0; a < 3; ++a) {
                    const double ref = reference[size_t(a) * size_t(c.rayCount) + size_t(i)];
                    EXPECT_NEAR(scalar.at(a, i), ref, 1e-6) << "ray " << i << ", step " << step;
                    EXPECT_NEAR(avx.at(a, i), scalar.at(a, i), kRefinedRsqrtTolerance)
                        << "ray " << i << ", step " << step;
                    if (c.hits[size_t(i)] < 0) {
                        EXPECT_EQ(floatBits(scalar.at(a, i)), 0u) << "missed ray " << i;
                        EXPECT_EQ(floatBits(avx.at(a, i)), 0u) << "missed ray " << i;
                    }
                }
        }
}

TEST(SmoothNormal, UWeighsCorner0VWeighsCorner1AndCancelledNormalsAreZero)
{
    // Triangle 0 names normals 2, 0, 1 for its corners, in records of five ints; triangle 1
    // blends two opposite normals, which cancel at u = v = 1/2 (w = 0).
    alignas(16) const float normals[16] = {0, 0,    -5,   0, 0.5f,  0,     2, 0,
                                           0, 0.3f, 0.4f, 0, -0.3f, -0.4f, 0, 0};
    alignas(16) const int indices[12] = {2, 0, 1, -1, -1, 3, 4, 0, 0, 0, 0, 0};
    alignas(16) const int hits[8] = {0, 0, 0, 1, 0, 0, 0, 1};
    alignas(16) const float u[8] = {1, 0, 0, 0.5f, 1, 0, 0, 0.5f};
    alignas(16) const float v[8] = {0, 1, 0, 0.5f, 0, 1, 0, 0.5f};
    const float expected[4][3] = {{1, 0, 0}, {0, 0, -1}, {0, 1, 0}, {0, 0, 0}};
    const float* uv[2] = {u, v};
    for (int rayCount : {8, 7}) {  // the vector path, then the scalar one
        alignas(16) float x[8], y[8], z[8];
        float* const planes[3] = {x, y, z};
        ASSERT_EQ(vekrSurfSmoothNormal_32f(normals, indices, hits, uv, planes, rayCount, 5),
                  StatusOk);
        for (int i = 0; i < rayCount; ++i)
            for (int a = 0; a < 3; ++a)
                EXPECT_NEAR(planes[a][i], expected[i % 4][a], kRefinedRsqrtTolerance)
                    << "ray " << i << " of " << rayCount;
    }
}

// The evaluation order is part of the result. u = 1/2 and v = 2^-25 give w = (1 - u) - v =
// 1/2 - 2^-25 exactly, where 1 - (u + v) rounds to 1/2; in z, v N1 + u N0 = 1/4 - 2^23 rounds
// to -2^23 (a tie, to even) before w N2 = 2^23 - 1/2 is added, which gives -1/2 where the
// exact sum is -1/4 and the other grouping gives 0.
TEST(SmoothNormal, EvaluationOrderIsPartOfTheResult)
{
    alignas(16) const float normals[12] = {0x1p24f,  0, -0x1p24f, 0, 0x1p24f, 0x1p23f,
                                           -0x1p24f, 0, 0x1p24f,  0, 0,       0};
    alignas(16) const int indices[4] = {0, 1, 2, 0};
    alignas(16) const int hits[4] = {0, 0, 0, 0};
    alignas(16) const float u[4] = {0.5f, 0.5f, 0.5f, 0.5f};
    alignas(16) const float v[4] = {0x1p-25f, 0x1p-25f, 0x1p-25f, 0x1p-25f};
    const float* uv[2] = {u, v};
    const double third = 1 / std::sqrt(3.0);  // n = (1/2, 1/2, -1/2) before normalising
    for (SmoothKernel kernel :
         {&shade::interpolateSmoothNormalsScalar, &shade::interpolateSmoothNormalsAvx}) {
        alignas(16) float x[4], y[4], z[4];
        float* const planes[3] = {x, y, z};
        kernel(normals, indices, hits, uv, planes, 4, 3);
        for (int i = 0; i < 4; ++i) {
            EXPECT_NEAR(x[i], third, kRefinedRsqrtTolerance) << "ray " << i;
            EXPECT_NEAR(y[i], third, kRefinedRsqrtTolerance) << "ray " << i;
            EXPECT_NEAR(z[i], -third, kRefinedRsqrtTolerance) << "ray " << i;
        }
    }
}

// A squared length of exactly FLT_EPSILON (2^-24 + 2^-24) is zero on the vector path and
// normalised on the scalar one, which makes the path each call takes visible.
TEST(SmoothNormal, SquaredLengthOfExactlyFltEpsilonShowsTheChosenPath)
{
    const float kEdge = 0x1p-12f;
    // Eight arrays: vertex normals, normal indices, hits, u, v, x, y, z. Each can be shifted
    // by one element off its 16-byte (page) alignment.
    for (int shifted = -1; shifted < 8; ++shifted)
        for (int rayCount : {8, 7}) {
            const auto at = [&](int which) { return which == shifted ? 1 : 0; };
            GuardedArray<float> vn(7, FlushEnd::Front), u(9, FlushEnd::Front),
                v(9, FlushEnd::Front), x(9, FlushEnd::Front), y(9, FlushEnd::Front),
                z(9, FlushEnd::Front);
            GuardedArray<int> ni(7, FlushEnd::Front), hits(9, FlushEnd::Front);
            const float normal[6] = {kEdge, kEdge, 0, 0, 0, 0};
            // Triangle 0 has N(0) at corner 0 and triangle 1 at corner 1; all the weight is there.
            const int indices[6] = {0, 1, 1, 1, 0, 1};
            const int hitList[8] = {0, 0, 0, 0, 0, 1, -1, 0};  // broadcast, then mixed
            std::memcpy(vn.data() + at(0), normal, sizeof normal);
            std::memcpy(ni.data() + at(1), indices, sizeof indices);
            std::memcpy(hits.data() + at(2), hitList, sizeof hitList);
            for (int i = 0; i < 8; ++i) {
                u.data()[at(3) + i] = hitList[i] == 1 ? 0.0f : 1.0f;
                v.data()[at(4) + i] = hitList[i] == 1 ? 1.0f : 0.0f;
            }
            const float* uv[2] = {u.data() + at(3), v.data() + at(4)};
            float* const planes[3] = {x.data() + at(5), y.data() + at(6), z.data() + at(7)};
            ASSERT_EQ(vekrSurfSmoothNormal_32f(vn.data() + at(0), ni.data() + at(1),
                                               hits.data() + at(2), uv, planes, rayCount, 3),
                      StatusOk);
            const bool vectorPath = shifted < 0 && rayCount == 8;
            for (int i = 0; i < rayCount; ++i) {
                const double expected = hitList[i] < 0 || vectorPath ? 0.0 : 1 / std::sqrt(2.0);
                for (int a = 0; a < 2; ++a)
                    EXPECT_NEAR(planes[a][i], expected, 1e-7)
                        << "shifted " << shifted << ", ray " << i << " of " << rayCount;
            }
        }
}

namespace {

template <class T>
std::unique_ptr<GuardedArray<T>> guardedCopy(const std::vector<T>& v, FlushEnd flush)
{
    auto g = std::make_unique<GuardedArray<T>>(v.size(), flush);
    g->copyFrom(v.data());
    return g;
}

bool aligned16(const void* p)
{
    return reinterpret_cast<uintptr_t>(p) % 16 == 0;
}

}  // namespace

// Flush against the back, arrays of 8 triangles start 16-byte aligned and arrays of 5 do not;
// the planes do when the ray count is a multiple of 4. Both paths of the flat normal must copy
// the exact bits; the smooth normal must give the bits of the twin the alignment rule names.
// Neither may touch anything outside its buffers.
TEST(PerRayNormals, GuardPagesAroundEveryBufferOnBothPaths)
{
    for (FlushEnd flush : {FlushEnd::Back, FlushEnd::Front})
        for (int triangles : {8, 5})
            for (int n = 0; n <= 20; ++n) {
                RayCase c(n, triangles, 4, unsigned(n * 16 + triangles));
                c.triangleNormals[4] = vekr::test::bitsToFloat(0x7FC01234);  // a NaN payload
                const auto triangleNormals = guardedCopy(c.triangleNormals, flush);
                const auto vertexNormals = guardedCopy(c.vertexNormals, flush);
                const auto normalIndices = guardedCopy(c.normalIndices, flush);
                const auto hits = guardedCopy(c.hits, flush);
                const auto u = guardedCopy(c.u, flush), v = guardedCopy(c.v, flush);
                GuardedArray<float> x(size_t(n), flush), y(size_t(n), flush), z(size_t(n), flush);
                float* const planes[3] = {x.data(), y.data(), z.data()};
                const float* uv[2] = {u->data(), v->data()};
                const auto expectPlanes = [&](const Planes& expected, const char* what) {
                    for (int i = 0; i < n; ++i)
                        for (int a = 0; a < 3; ++a)
                            ASSERT_EQ(floatBits(planes[a][i]), floatBits(expected.at(a, i)))
                                << what << ", " << n << " rays, " << triangles << " triangles, ray "
                                << i;
                };

                ASSERT_EQ(vekrSurfFlatNormal_32f(triangleNormals->data(), hits->data(), planes, n),
                          StatusOk);
                Planes flat(n);  // the triangle's normal as it stands, or zeros for a miss
                for (int i = 0; i < n; ++i)
                    for (int a = 0; a < 3; ++a)
                        flat.p[a][i] = c.hits[size_t(i)] < 0
                                           ? 0.0f
                                           : c.triangleNormals[size_t(c.hits[size_t(i)]) * 3 + a];
                expectPlanes(flat, "flat");

                ASSERT_EQ(vekrSurfSmoothNormal_32f(vertexNormals->data(), normalIndices->data(),
                                                   hits->data(), uv, planes, n, c.indexStep),
                          StatusOk);
                bool vectorPath = n % 4 == 0;
                for (const void* p :
                     {(const void*)vertexNormals->data(), (const void*)normalIndices->data(),
                      (const void*)hits->data(), (const void*)uv[0], (const void*)uv[1],
                      (const void*)planes[0], (const void*)planes[1], (const void*)planes[2]})
                    vectorPath = vectorPath && aligned16(p);
                const Planes smooth = runSmooth(vectorPath ? &shade::interpolateSmoothNormalsAvx
                                                           : &shade::interpolateSmoothNormalsScalar,
                                                c);
                expectPlanes(smooth, vectorPath ? "smooth, vector path" : "smooth, scalar path");
            }
}

// --- Argument checks ---------------------------------------------------------------------

namespace {

// A valid call of any of the three functions on one triangle and one ray, with outputs
// filled with a sentinel; a test spoils it and checks that a failed call writes nothing.
struct NormalCall {
    float vertices[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    int triangles[4] = {0, 1, 2, 0};
    int hits[1] = {0};
    float u[1] = {0.25f}, v[1] = {0.25f};
    float out[3] = {12345.0f, 12345.0f, 12345.0f};
    float* outPlanes[3] = {out, out + 1, out + 2};
    const float* uvPlanes[2] = {u, v};

    const float* pVertices = vertices;  // also the triangle and vertex normals
    const int* pTriangles = triangles;  // also the normal indices
    const int* pHits = hits;
    const float* const* pUV = uvPlanes;
    float* pOut = out;
    float* const* pPlanes = outPlanes;
    int count = 1;

    bool untouched() const
    {
        return out[0] == 12345.0f && out[1] == 12345.0f && out[2] == 12345.0f;
    }
};

struct Check {
    const char* what;
    void (*spoil)(NormalCall&);
    Status expected;
};

struct CheckedFunction {
    const char* name;
    Status (*run)(NormalCall&);
    std::vector<Check> checks;  // in their documented order
};

const Check kCountZero = {"count 0", [](NormalCall& c) { c.count = 0; }, StatusOk};

const CheckedFunction kCheckedFunctions[] = {
    {"triangle",
     [](NormalCall& c) {
         return vekrTriangleNormal_32f(c.pVertices, c.pTriangles, c.pOut, c.count);
     },
     {{"vertices", [](NormalCall& c) { c.pVertices = nullptr; }, StatusNullPointer},
      {"indices", [](NormalCall& c) { c.pTriangles = nullptr; }, StatusNullPointer},
      {"normals", [](NormalCall& c) { c.pOut = nullptr; }, StatusNullPointer},
      kCountZero}},
    {"flat",
     [](NormalCall& c) { return vekrSurfFlatNormal_32f(c.pVertices, c.pHits, c.pPlanes, c.count); },
     {{"triangle normals", [](NormalCall& c) { c.pVertices = nullptr; }, StatusNullPointer},
      {"hits", [](NormalCall& c) { c.pHits = nullptr; }, StatusNullPointer},
      // The plane array is never checked.
      {"plane array", [](NormalCall& c) { c.pPlanes = nullptr; }, StatusOk},
      kCountZero}},
    {"smooth",
     [](NormalCall& c) {
         return vekrSurfSmoothNormal_32f(c.pVertices, c.pTriangles, c.pHits, c.pUV, c.pPlanes,
                                         c.count, 4);
     },
     {{"vertex normals", [](NormalCall& c) { c.pVertices = nullptr; }, StatusNullPointer},
      {"normal indices", [](NormalCall& c) { c.pTriangles = nullptr; }, StatusNullPointer},
      {"hits", [](NormalCall& c) { c.pHits = nullptr; }, StatusNullPointer},
      {"uv", [](NormalCall& c) { c.pUV = nullptr; }, StatusNullPointer},
      {"normals", [](NormalCall& c) { c.pPlanes = nullptr; }, StatusNullPointer},
      // The planes inside uv and normals are not checked.
      {"inner planes", [](NormalCall& c) { c.uvPlanes[1] = nullptr, c.outPlanes[0] = nullptr; },
       StatusOk},
      kCountZero}},
};

}  // namespace

// Check k is spoiled together with every later one, so only the documented order returns
// check k's status; each call must leave the sentinel outputs as they were.
TEST(NormalChecks, FirstFailingCheckInOrderWinsAndNothingIsWritten)
{
    for (const CheckedFunction& f : kCheckedFunctions) {
        for (size_t k = 0; k < f.checks.size(); ++k) {
            NormalCall call;
            for (size_t j = k; j < f.checks.size(); ++j)
                f.checks[j].spoil(call);
            EXPECT_EQ(f.run(call), f.checks[k].expected) << f.name << ", " << f.checks[k].what;
            EXPECT_TRUE(call.untouched()) << f.name << ", " << f.checks[k].what;
        }
        for (int count : {-1, INT_MIN}) {
            NormalCall call;
            call.count = count;
            EXPECT_EQ(f.run(call), StatusOk) << f.name << ", count " << count;
            EXPECT_TRUE(call.untouched()) << f.name << ", count " << count;
        }
        NormalCall valid;
        EXPECT_EQ(f.run(valid), StatusOk) << f.name;
        EXPECT_FALSE(valid.untouched()) << f.name;
    }
}
