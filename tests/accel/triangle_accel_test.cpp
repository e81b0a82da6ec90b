#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "accel/triangle_accel.h"
#include "support/float_bits.h"
#include "vekr.h"

using vekr::accel::kAxisAlignedFlag;
using vekr::test::floatBits;

namespace {

struct Mesh {
    std::vector<float> vertices;
    std::vector<int> triangles;  // four ints per triangle
    int triangleCount() const { return int(triangles.size() / 4); }
    const float* vertex(int tri, int corner) const
    {
        return &vertices[size_t(triangles[size_t(tri) * 4 + corner]) * 3];
    }
};

Mesh randomMesh(int triangleCount, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> coord(-50.0f, 50.0f);
    Mesh m;
    const int vertexCount = triangleCount + 2;
    for (int i = 0; i < vertexCount * 3; ++i)
        m.vertices.push_back(coord(rng));
    std::uniform_int_distribution<int> pick(0, vertexCount - 1);
    for (int t = 0; t < triangleCount; ++t) {
        int a = pick(rng), b = pick(rng), c = pick(rng);
        while (b == a)
            b = pick(rng);
        while (c == a || c == b)
            c = pick(rng);
        m.triangles.insert(m.triangles.end(), {a, b, c, 7 * t});
    }
    return m;
}

std::vector<TriangleAccel> initThroughApi(const Mesh& m)
{
    std::vector<TriangleAccel> recs(size_t(m.triangleCount()));
    EXPECT_EQ(vekrTriangleAccelInit(recs.data(), m.vertices.data(), m.triangles.data(),
                                    m.triangleCount()),
              StatusOk);
    return recs;
}

TriangleAccel recordOf(std::initializer_list<float> p0, std::initializer_list<float> p1,
                       std::initializer_list<float> p2)
{
    return vekr::accel::makeTriangleAccel(p0.begin(), p1.begin(), p2.begin());
}

// Within a few float ulps of a long double reference (allowing for values near zero).
void expectNearFloat(float actual, long double reference, long double scale, const char* what,
                     int tri)
{
    const long double tolerance = 4 * 1.1920929e-7L * (std::fabs(reference) + 1e-6L * scale);
    EXPECT_NEAR(double(actual), double(reference), double(tolerance))
        << what << ", triangle " << tri;
}

}  // namespace

TEST(TriangleAccel, RecordSizeIsForty)
{
    int size = 0;
    EXPECT_EQ(vekrTriangleAccelGetSize(&size), StatusOk);
    EXPECT_EQ(size, 40);
    EXPECT_EQ(vekrTriangleAccelGetSize(nullptr), StatusNullPointer);
}

// The plane and edge fields against a long double computation written from the geometry:
// the normal by a cross product, the plane through p2, the weights as ratios of areas.
TEST(TriangleAccel, FieldsMatchLongDoubleGeometry)
{
    const Mesh m = randomMesh(2000, 11);
    const auto recs = initThroughApi(m);
    for (int t = 0; t < m.triangleCount(); ++t) {
        long double p[3][3];
        for (int c = 0; c < 3; ++c)
            for (int a = 0; a < 3; ++a)
                p[c][a] = m.vertex(t, c)[a];
        long double e1[3], e2[3];
        for (int a = 0; a < 3; ++a) {
            e1[a] = p[0][a] - p[2][a];
            e2[a] = p[1][a] - p[2][a];
        }
        const long double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                                  e1[0] * e2[1] - e1[1] * e2[0]};
        int k = 0;
        for (int a = 1; a < 3; ++a)
            if (std::fabs(n[a]) > std::fabs(n[k])) k = a;
        const int u = k == 0 ? 1 : 0, v = k == 2 ? 1 : 2;
        const TriangleAccel& r = recs[size_t(t)];
        ASSERT_EQ(r.axes, uint32_t(k * 16 + u * 4 + v)) << "triangle " << t;
        const long double scale = 50;
        expectNearFloat(r.nu, n[u] / n[k], 1, "nu", t);
        expectNearFloat(r.nv, n[v] / n[k], 1, "nv", t);
        EXPECT_EQ(floatBits(r.pk), floatBits(float(p[2][k]))) << t;
        EXPECT_EQ(floatBits(r.pu), floatBits(float(p[2][u]))) << t;
        EXPECT_EQ(floatBits(r.pv), floatBits(float(p[2][v]))) << t;
        // Weight of p0 at q = w[u]*e2v - w[v]*e2u with w = q - p2; at q = p0 it is 1, so the
        // edge fields are the 2-D cross products divided by the projected area.
        const long double area = e1[u] * e2[v] - e1[v] * e2[u];
        expectNearFloat(r.e2u, e2[u] / area, scale, "e2u", t);
        expectNearFloat(r.e2v, e2[v] / area, scale, "e2v", t);
        expectNearFloat(r.e1u, e1[u] / area, scale, "e1u", t);
        expectNearFloat(r.e1v, e1[v] / area, scale, "e1v", t);
    }
}

TEST(TriangleAccel, ReconstructsBarycentricWeightsOfPointsInTheTriangle)
{
    const Mesh m = randomMesh(500, 12);
    const auto recs = initThroughApi(m);
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int t = 0; t < m.triangleCount(); ++t) {
        const TriangleAccel& r = recs[size_t(t)];
        const int k = (r.axes >> 4) & 3, u = (r.axes >> 2) & 3, v = r.axes & 3;
        for (int sample = 0; sample < 8; ++sample) {
            double a = unit(rng), b = unit(rng);
            if (a + b > 1) a = 1 - a, b = 1 - b;
            double q[3];
            for (int x = 0; x < 3; ++x)
                q[x] =
                    a * m.vertex(t, 0)[x] + b * m.vertex(t, 1)[x] + (1 - a - b) * m.vertex(t, 2)[x];
            // The point lies in the record's plane.
            const double lhs = q[k] + double(r.nu) * q[u] + double(r.nv) * q[v];
            const double rhs = double(r.pk) + double(r.nu) * r.pu + double(r.nv) * r.pv;
            const double planeScale = 50 * (1 + std::fabs(r.nu) + std::fabs(r.nv));
            EXPECT_NEAR(lhs, rhs, 1e-5 * planeScale) << "triangle " << t;
            const double wu = q[u] - r.pu, wv = q[v] - r.pv;
            const double w0 = wu * r.e2v - wv * r.e2u;
            const double w1 = wv * r.e1u - wu * r.e1v;
            const double conditioning =
                100 * (std::fabs(r.e2u) + std::fabs(r.e2v) + std::fabs(r.e1u) + std::fabs(r.e1v));
            EXPECT_NEAR(w0, a, 1e-6 * conditioning + 1e-6) << "triangle " << t;
            EXPECT_NEAR(w1, b, 1e-6 * conditioning + 1e-6) << "triangle " << t;
        }
    }
}

TEST(TriangleAccel, TriangleInPlaneZIsAxisAlignedForBothWindings)
{
    for (bool clockwise : {false, true}) {
        const TriangleAccel r = clockwise ? recordOf({0, 0, 5}, {0, 1, 5}, {1, 0, 5})
                                          : recordOf({0, 0, 5}, {1, 0, 5}, {0, 1, 5});
        EXPECT_EQ(r.axes, kAxisAlignedFlag | 2u << 4 | 0u << 2 | 1u) << clockwise;
        EXPECT_EQ(floatBits(r.nu), 0u);
        EXPECT_EQ(floatBits(r.nv), 0u);
        EXPECT_EQ(r.pk, 5.0f);
        // Weights still come out right: p0 gets 1 at p0.
        const float w0 = (0 - r.pu) * r.e2v - (0 - r.pv) * r.e2u;
        EXPECT_FLOAT_EQ(w0, 1.0f) << clockwise;
    }
}

TEST(TriangleAccel, DominantAxisTiesGoToTheLowerAxis)
{
    // n = (1, 1, 0) * c: |n.x| = |n.y| > |n.z|.
    EXPECT_EQ(recordOf({0, 0, 0}, {0, 0, 1}, {1, -1, 0}).axes >> 4 & 3, 0u);
    // n = (0, 1, 1) * c: y and z tie, y wins.
    EXPECT_EQ(recordOf({0, 0, 0}, {1, 0, 0}, {0, 1, -1}).axes >> 4 & 3, 1u);
    // n along -y: k = 1 and the weights still reconstruct p1.
    const TriangleAccel r = recordOf({0, 0, 0}, {1, 0, 0}, {0, 0, 1});
    EXPECT_EQ(r.axes, kAxisAlignedFlag | 1u << 4 | 0u << 2 | 2u);
    const float w1 = (0 - r.pv) * r.e1u - (1 - r.pu) * r.e1v;
    EXPECT_FLOAT_EQ(w1, 1.0f);
}

TEST(TriangleAccel, DegenerateTrianglesGiveZeroRecords)
{
    const TriangleAccel zero{};
    for (const TriangleAccel& r :
         {recordOf({1, 2, 3}, {1, 2, 3}, {4, 5, 6}), recordOf({0, 0, 0}, {1, 1, 1}, {2, 2, 2}),
          recordOf({7, 7, 7}, {7, 7, 7}, {7, 7, 7})})
        EXPECT_EQ(std::memcmp(&r, &zero, sizeof zero), 0);
}

TEST(TriangleAccel, AxisAlignedOnlyWhenBothMinorComponentsAreBelowDoubleEpsilon)
{
    // p0 = (1, 0, s), p1 = (0, 1, s), p2 = 0 give n = (-s, -s, 1): both minor components are
    // below 2.22e-16 for s = 1e-16 and above it for s = 1e-15.
    const TriangleAccel flat = recordOf({1, 0, 1e-16f}, {0, 1, 1e-16f}, {0, 0, 0});
    EXPECT_EQ(flat.axes, kAxisAlignedFlag | 2u << 4 | 0u << 2 | 1u);
    EXPECT_EQ(floatBits(flat.nu), 0u);
    EXPECT_EQ(floatBits(flat.nv), 0u);

    const TriangleAccel tilted = recordOf({1, 0, 1e-15f}, {0, 1, 1e-15f}, {0, 0, 0});
    EXPECT_EQ(tilted.axes, 2u << 4 | 0u << 2 | 1u);
    EXPECT_EQ(tilted.nu, float(-double(1e-15f)));
    EXPECT_EQ(tilted.nv, float(-double(1e-15f)));

    // n = (0, c, 1): only n.x is negligible, so bit 31 stays clear and the ratios are kept.
    const TriangleAccel one = recordOf({0, 0, 0}, {1, 0, 0}, {0, 1, -1e-3f});
    EXPECT_EQ(one.axes, 2u << 4 | 0u << 2 | 1u);
    EXPECT_EQ(one.nu, 0.0f);
    EXPECT_NE(one.nv, 0.0f);
}

TEST(TriangleAccel, NonPositiveCountWritesNothing)
{
    const float vertices[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const int triangles[4] = {0, 1, 2, 0};
    TriangleAccel out;
    std::memset(&out, 0xAB, sizeof out);
    for (int count : {0, -1, -1000}) {
        EXPECT_EQ(vekrTriangleAccelInit(&out, vertices, triangles, count), StatusOk);
        EXPECT_EQ(reinterpret_cast<const unsigned char*>(&out)[17], 0xAB);
        EXPECT_EQ(vekrTriangleAccelInit(nullptr, nullptr, nullptr, count), StatusOk);
    }
}
