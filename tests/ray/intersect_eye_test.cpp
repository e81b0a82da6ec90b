// The exported nearest-hit function: miss outputs, ties and the special cases of the traversal,
// through the public interface (path choice and bounds: intersect_contract_test.cpp).
#include <gtest/gtest.h>

#include <cfloat>
#include <cstdint>
#include <vector>

#include "accel/kd_format.h"
#include "support/float_bits.h"
#include "support/ray_scenes.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

// n rays from (x, y, 1) straight down onto the z = 0 plane, spread along x from x0 by dx.
EyeRays raysDown(int width, int height, float x0, float dx, float y)
{
    EyeRays rays(width, height);
    rays.origin[2] = 1.0f;
    for (int i = 0; i < rays.count(); ++i) {
        rays.dir[0][i] = x0 + dx * float(i);
        rays.dir[1][i] = y;
        rays.dir[2][i] = -1.0f;
    }
    return rays;
}

// Two copies of the same unit quad (triangles 0-1 and 2-3) in z = 0.
Mesh twoCoincidentQuads()
{
    Mesh mesh;
    for (int copy = 0; copy < 2; ++copy) {
        const int a = mesh.addVertex(-1, -1, 0), b = mesh.addVertex(1, -1, 0);
        const int c = mesh.addVertex(1, 1, 0), d = mesh.addVertex(-1, 1, 0);
        mesh.addTriangle(a, b, c);
        mesh.addTriangle(a, c, d);
    }
    return mesh;
}

// Rays beside the quad under a finite or an unbounded limit, and rays onto it under a limit of
// 0, -0 or -2: every one misses, keeps its distance bit for bit and leaves its weights alone.
TEST(IntersectEye, MissesKeepDistanceAndWeights)
{
    const PreparedScene scene(twoCoincidentQuads());
    const HandTree tree = listLeafTree({0, 1, 2, 3});
    const float limits[5] = {7.5f, FLT_MAX, 0.0f, -0.0f, -2.0f};
    for (int height : {4, 5}) {  // both paths
        EyeRays rays = raysDown(8, height, -0.5f, 0.03f, 0.1f);
        for (int i = 0; i < rays.count(); ++i) {
            rays.maxDist[i] = limits[i % 5];
            if (i % 5 < 2) rays.dir[0][i] += 3.5f;  // beside the quad
        }
        rays.reset();
        ASSERT_EQ(intersectEye(rays, scene.context(tree.root())), StatusOk);
        for (int i = 0; i < rays.count(); ++i) {
            EXPECT_EQ(rays.triIndex[i], -1) << "ray " << i;
            EXPECT_EQ(floatBits(rays.dist[i]), floatBits(rays.maxDist[i])) << "ray " << i;
            EXPECT_EQ(rays.u[i], EyeRays::kUntouched) << "ray " << i;
            EXPECT_EQ(rays.v[i], EyeRays::kUntouched) << "ray " << i;
        }
    }
}

// Ties go to the triangle tested first, whichever its number, at the exact distance: the same
// quad listed twice in either order; the diagonal x = y that triangles 0 and 1 share, hit
// exactly, 1 listed first; a compact leaf of the coincident triangles 0 and 2, which tests
// word 0 first (0 qualifies for the count field, so 2 lands in word 0).
TEST(IntersectEye, TiesGoToTheTriangleTestedFirst)
{
    const PreparedScene scene(twoCoincidentQuads());
    HandTree compact(2);
    const int32_t pair[2] = {0, 2};
    accel::KdNode leaf{};
    ASSERT_TRUE(accel::encodeCompactLeaf(pair, 2, leaf));
    compact.set(0, leaf);
    struct Case {
        HandTree tree;
        float x0, dx, y0, dy;   // rays along (x0 + dx i, y0 + dy i, -1)
        int perWinner, winner;  // every ray's triangle / perWinner is winner
    };
    const Case cases[] = {{listLeafTree({0, 1, 2, 3}), -0.9f, 0.1f, 0.35f, 0.0f, 2, 0},
                          {listLeafTree({2, 3, 0, 1}), -0.9f, 0.1f, 0.35f, 0.0f, 2, 1},
                          {listLeafTree({1, 0}), -0.875f, 0.125f, -0.875f, 0.125f, 1, 1},
                          {compact, 0.2f, 0.04f, -0.5f, 0.0f, 1, 2}};
    for (const Case& c : cases)
        for (int height : {4, 3}) {
            EyeRays rays = raysDown(4, height, c.x0, c.dx, c.y0);
            for (int i = 0; i < rays.count(); ++i)
                rays.dir[1][i] += c.dy * float(i);
            intersectEye(rays, scene.context(c.tree.root()));
            for (int i = 0; i < rays.count(); ++i) {
                ASSERT_GE(rays.triIndex[i], 0) << "case " << &c - cases << " ray " << i;
                EXPECT_EQ(rays.triIndex[i] / c.perWinner, c.winner)
                    << "case " << &c - cases << " ray " << i;
                EXPECT_EQ(rays.dist[i], 1.0f) << "case " << &c - cases << " ray " << i;
            }
        }
}

TEST(IntersectEye, IgnoresHitsBehindTheOriginDegenerateRecordsAndEmptyLeaves)
{
    Mesh mesh = twoCoincidentQuads();
    mesh.addTriangle(0, 1, 1);  // triangle 4: two equal corners, an all-zero record
    const PreparedScene scene(mesh);
    ASSERT_EQ(scene.records[4].axes, 0u);
    // Root splits x at 0: the lower child is an empty leaf, the upper one lists 4, 0, 1.
    HandTree tree(3);
    tree.inner(0, 0, 0.0f, 1);
    tree.leaf(1, -1);
    tree.list(2, {4, 0, 1});
    // From x = -0.1 the all-zero record's plane x = 0 lies ahead of the rays going +x. From
    // (0.1, 0, 0), inside the listed leaf, every crossing of the quads lies at t = 0: no hit.
    for (const int height : {4, 5}) {
        for (const float z : {1.0f, 0.0f}) {
            EyeRays rays = raysDown(4, height, -0.85f, 1.8f / float(4 * height), 0.2f);
            rays.origin[0] = z > 0.0f ? -0.1f : 0.1f;
            rays.origin[2] = z;
            for (int i = 0; i < rays.count(); i += 3)
                rays.dir[2][i] = 1.0f;  // pointing away: the plane lies behind the origin
            rays.reset();
            intersectEye(rays, scene.context(tree.root()));
            for (int i = 0; i < rays.count(); ++i) {
                const bool expectHit = z > 0.0f && rays.dir[0][i] > 0.1f && rays.dir[2][i] < 0.0f;
                if (expectHit)
                    EXPECT_TRUE(rays.triIndex[i] == 0 || rays.triIndex[i] == 1) << "ray " << i;
                else
                    EXPECT_EQ(rays.triIndex[i], -1) << "ray " << i;
            }
        }
    }
}

TEST(IntersectEye, EdgesAndCornersAreInside)
{
    // The wall's triangle spans (y, z) = (-1, -1), (3, -1), (-1, 3) in x = 0.5; rays from x =
    // -1.5 meet the plane at t = 1 exactly on its three edges and at its three corners, where
    // one or two weights are exactly 0. Just outside an edge they miss.
    const PreparedScene scene(wallsAt({0.5f}));
    const HandTree tree = oneLeafTree(0);
    const float origin[3] = {-1.5f, 0.0f, 0.0f};
    const float onEdge[][2] = {{0.5f, -1}, {-1, 0.5f}, {1, 1},   {-1, -1},
                               {3, -1},    {-1, 3},    {2.5f, -1}, {0, 2}};
    const float outside[][2] = {{0.5f, -1.0001f}, {-1.0001f, 0.5f}, {1, 1.0001f}};
    for (const bool inside : {true, false}) {
        const auto dirOf = [&](int i) {
            const float* yz = inside ? onEdge[i % 8] : outside[i % 3];
            return std::array<float, 3>{2.0f, yz[0], yz[1]};
        };
        for (const Shot& shot : onBothPaths<EyeRays>(origin, dirOf, [&](EyeRays& rays) {
                 rays.reset();
                 intersectEye(rays, scene.context(tree.root()));
                 return shotOf(rays);
             })) {
            EXPECT_EQ(shot.triangle, inside ? 0 : -1) << (inside ? "on the edges" : "outside");
            if (inside) {
                EXPECT_EQ(shot.dist, 1.0f);
            }
        }
    }
}

TEST(IntersectEye, ParallelAxisDoesNotLimitTheInterval)
{
    // A wall in x = 0.5, within y, z of [-1, 3].
    const PreparedScene scene(wallsAt({0.5f}));
    const HandTree tree = listLeafTree({0});
    EyeRays rays(4, 4);
    rays.origin[0] = -3.0f;
    rays.origin[1] = 5.0f;  // outside the box on y
    for (int i = 0; i < rays.count(); ++i) {
        rays.dir[0][i] = 1.0f;
        rays.dir[1][i] = i % 2 ? 0.0f : 1e-7f;  // within the float epsilon: parallel
        rays.dir[2][i] = 0.01f * float(i - 8);
    }
    rays.reset();
    intersectEye(rays, scene.context(tree.root()));
    // Parallel on y, the ray is not clipped there; it passes beside the wall (y = 5).
    for (int i = 0; i < rays.count(); ++i)
        EXPECT_EQ(rays.triIndex[i], -1) << "ray " << i;
    // From inside the slab, the same directions hit the wall.
    rays.origin[1] = 0.25f;
    rays.reset();
    intersectEye(rays, scene.context(tree.root()));
    for (int i = 0; i < rays.count(); ++i) {
        EXPECT_GE(rays.triIndex[i], 0) << "ray " << i;
        EXPECT_EQ(rays.dist[i], 3.5f) << "ray " << i;
    }
}

}  // namespace
