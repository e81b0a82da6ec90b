// The traversal's numeric rules, each pinned by a hand-made tree whose leaves list triangles
// where the geometry alone would not put them, so visiting a leaf or not shows in the result.
// Every case runs a 4 x 4 block (tiles) and a 4 x 3 block (one ray at a time).
#include <gtest/gtest.h>

#include <cfloat>
#include <cstdint>
#include <random>
#include <vector>

#include "accel/kd_format.h"
#include "support/float_bits.h"
#include "support/ray_scenes.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

// Rays from origin along (1, dy, tiny z spread) through the given box, on both paths.
std::vector<Shot> shoot(const Mesh& mesh, const HandTree& tree, const float box[6],
                        const float origin[3], float dy)
{
    const PreparedScene scene(mesh);
    const IntersectContext context = scene.context(tree.root(), box);
    return onBothPaths<EyeRays>(
        origin, [&](int i) { return std::array<float, 3>{1.0f, dy, 0.001f * float(i)}; },
        [&](EyeRays& rays) {
            intersectEye(rays, context);
            return shotOf(rays);
        });
}

TEST(TraversalRules, ChildWithinTheDescentToleranceIsStillVisited)
{
    // The box starts just past the split x = 0 (t 1 + d for a ray from x = -1); the lower leaf
    // lists a wall inside the box, which is found only if that leaf is visited.
    const Mesh mesh = wallsAt({0.5f});
    const float origin[3] = {-1, 0, 0};
    const HandTree tree = splitTree(0, 0.0f, 0, -1);
    for (const auto& [start, visited] :
         std::vector<std::pair<float, bool>>{{5e-6f, true}, {2e-5f, false}}) {
        const float box[6] = {start, -2, -2, 1, 2, 2};
        for (const Shot& shot : shoot(mesh, tree, box, origin, 0.0f))
            EXPECT_EQ(shot.triangle, visited ? 0 : -1) << "box start " << start;
    }
}

TEST(TraversalRules, FarEndIsWidenedBeforeDescending)
{
    // The box ends at x = 0 (t = 2); the split lies 5e-5 beyond. Only the widened far end
    // reaches the upper leaf and its wall.
    const Mesh mesh = wallsAt({-0.5f});
    const float origin[3] = {-2, 0, 0};
    const float box[6] = {-1, -2, -2, 0, 2, 2};
    for (const Shot& shot : shoot(mesh, splitTree(0, 5e-5f, -1, 0), box, origin, 0.0f))
        EXPECT_EQ(shot.triangle, 0);
    // The wall's own box is flat: the ray enters and leaves it at the same t, and still hits.
    const float flat[6] = {-0.5f, -2, -2, -0.5f, 2, 2};
    for (const Shot& shot : shoot(mesh, oneLeafTree(0), flat, origin, 0.0f))
        EXPECT_EQ(shot.triangle, 0);
}

TEST(TraversalRules, HitAtTheEndOfALeafEndsTheRay)
{
    // Wall 0 lies exactly on the split (t = 1, the end of the lower leaf); wall 1, nearer,
    // is listed only in the upper leaf: a ray that stops at its first leaf never sees it.
    const Mesh mesh = wallsAt({0.0f, -0.5f});
    const float origin[3] = {-1, 0, 0};
    const float box[6] = {-0.75f, -2, -2, 1, 2, 2};
    for (const Shot& shot : shoot(mesh, splitTree(0, 0.0f, 0, 1), box, origin, 0.0f)) {
        EXPECT_EQ(shot.triangle, 0);
        EXPECT_EQ(shot.dist, 1.0f);
    }
}

TEST(TraversalRules, NearPartEndsNoEarlierThanTheEntry)
{
    // The box is entered at t = 1; the split lies 5e-6 before, within the tolerance, so both
    // children are visited and the near part ends at max(entry, split) = 1. The lower leaf's
    // wall 0 is hit at t = 1 - 2e-6, before that end, which ends the ray; the upper leaf's
    // wall 1, nearer still, is never tested.
    const Mesh mesh = wallsAt({-2e-6f, -4e-6f});
    const float origin[3] = {-1, 0, 0};
    const float box[6] = {0, -2, -2, 1, 2, 2};
    for (const Shot& shot : shoot(mesh, splitTree(0, -5e-6f, 0, 1), box, origin, 0.0f))
        EXPECT_EQ(shot.triangle, 0);
}

TEST(TraversalRules, NearlyParallelAxisTakesTheSubstituteInverseAndNoSign)
{
    // Coincident walls, 0 in the lower and 1 in the upper child of a split y = 0. A y
    // direction of magnitude up to the float epsilon counts as parallel: sign flag 0 and
    // inverse 838860800 whatever its sign.
    const Mesh mesh = wallsAt({0.5f, 0.5f});
    const float box[6] = {-0.5f, -2, -2, 1, 2, 2};
    const HandTree tree = splitTree(1, 0.0f, 0, 1);
    for (float dy : {1.1920929e-7f, -1.1920929e-7f, 0.0f, -0.0f}) {
        // From the split itself the ray starts past it (t 0 < entry 0.5): the far child, upper
        // for a zero sign, alone.
        const float onSplit[3] = {-1, 0, 0};
        for (const Shot& shot : shoot(mesh, tree, box, onSplit, dy))
            EXPECT_EQ(shot.triangle, 1) << "dy " << dy;
        // 1e-8 below: the split lies at t = 1e-8 * 838860800 = 8.4, beyond the box: the
        // lower child alone (a larger inverse or an exact one would choose otherwise).
        const float below[3] = {-1, -1e-8f, 0};
        for (const Shot& shot : shoot(mesh, tree, box, below, dy))
            EXPECT_EQ(shot.triangle, 0) << "dy " << dy;
    }
}

TEST(TraversalRules, FiftyPendingFarChildrenAreAllVisited)
{
    // A chain of 50 splits on x, each pushing its upper leaf before descending to the lower
    // child. The deepest lower leaf lists wall 0 (x = 0.9); the root's upper leaf, popped
    // last, lists wall 1 (x = 0.7), nearer.
    const Mesh mesh = wallsAt({0.9f, 0.7f});
    const int depth = accel::kMaxInnerNodesOnPath;
    HandTree tree(2 * depth + 2);
    for (int i = 0; i < depth; ++i) {
        const int slot = i == 0 ? 0 : 2 * i;
        tree.inner(slot, 0, 0.5f - 0.009f * float(i), 2 * i + 2);
        tree.leaf(2 * i + 3, i == 0 ? 1 : -1);
    }
    tree.leaf(2 * depth, 0);
    const float origin[3] = {-1, 0, 0};
    const float box[6] = {0, -2, -2, 1, 2, 2};
    for (const Shot& shot : shoot(mesh, tree, box, origin, 0.0f)) {
        EXPECT_EQ(shot.triangle, 1);
        EXPECT_EQ(shot.dist, 1.7f);
    }
}

// The ray-triangle test in the documented order of operations (crossRecordInOrder, transcribed
// step by step); both paths must give its bits.
TEST(TraversalRules, TriangleTestKeepsItsEvaluationOrder)
{
    const PreparedScene scene(makeTriangleSoup(64, 21));
    const Mesh& mesh = scene.mesh;
    const float box[6] = {-2, -2, -2, 2, 2, 2};
    std::mt19937 rng(4);
    std::uniform_real_distribution<float> jitter(-0.02f, 0.02f);
    int compared = 0;
    for (int t = 0; t < mesh.triangleCount(); ++t) {
        const HandTree tree = oneLeafTree(t);
        const IntersectContext context = scene.context(tree.root(), box);
        const float o[3] = {0.1f + jitter(rng), -0.2f + jitter(rng), 1.9f};
        for (int height : {4, 3}) {
            EyeRays rays(4, height);
            std::copy(o, o + 3, rays.origin);
            for (int i = 0; i < rays.count(); ++i) {
                // Towards the centre of the triangle, spread a little.
                for (int k = 0; k < 3; ++k) {
                    float c = 0;
                    for (int corner = 0; corner < 3; ++corner)
                        c += mesh.vertices[size_t(3 * mesh.triangles[4 * t + corner] + k)];
                    rays.dir[k][i] = c / 3.0f - o[k] + jitter(rng);
                }
            }
            intersectEye(rays, context);
            for (int i = 0; i < rays.count(); ++i) {
                if (rays.triIndex[i] != t) continue;
                float dist, u, v;
                crossRecordInOrder(scene.records[size_t(t)], o, rays.direction(i).data(), dist, u, v);
                ASSERT_EQ(floatBits(rays.dist[i]), floatBits(dist)) << "triangle " << t;
                ASSERT_EQ(floatBits(rays.u[i]), floatBits(u)) << "triangle " << t;
                ASSERT_EQ(floatBits(rays.v[i]), floatBits(v)) << "triangle " << t;
                ++compared;
            }
        }
    }
    EXPECT_GT(compared, 64 * 28 / 2);
}

}  // namespace
