// Nearest hits of rays with one origin each: the per-ray path against a double-precision brute
// force, tiles against single rays, the strict box and triangle rules on hand-made trees (path
// choice and bounds: intersect_contract_test.cpp).
#include <gtest/gtest.h>

#include <cfloat>
#include <cstdint>
#include <vector>

#include "ray/kd_many_origins.h"
#include "support/float_bits.h"
#include "support/ray_scenes.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

TEST_P(RayScenes, ManyOriginsPerRayMatchesBruteForceAndTilesMatchSingleRays)
{
    OwnOriginRays single = makeOwnOriginRays(scene->mesh, 32, 16, 11);
    OwnOriginRays packet = single;
    ray::intersectManyOriginsSingle(view(), single.block());
    ASSERT_TRUE(ray::takesManyOriginsPacketPath(packet.block()));
    ray::intersectManyOriginsPacket4x4(view(), packet.block());
    // A hit within 1e-5 of the limit or of a second hit is flagged ambiguous: the 1e-5 rule
    // decides those by order. Distances relative to the coordinates for short hits from origins
    // near a surface.
    const auto [compared, hits] = expectNearestHits(scene->mesh, single, packet, 1.0);
    EXPECT_GT(compared, single.count() * 2 / 3);
    EXPECT_GT(hits, compared / 4);
}

// --- Rules on hand-made trees: every case on both paths (onBothPaths), all rays from one
// origin along (dx, dy, spread * ray number). ------------------------------------------------

std::vector<Shot> shoot(const Mesh& mesh, const void* root, const float box[6],
                        const float origin[3], float dx, float dy, float maxDist = FLT_MAX,
                        float spread = 0.001f)
{
    const PreparedScene scene(mesh);
    const IntersectContext context = scene.context(root, box);
    return onBothPaths<OwnOriginRays>(
        origin, [&](int i) { return std::array<float, 3>{dx, dy, spread * float(i)}; },
        [&](OwnOriginRays& rays) {
            for (int k = 0; k < 3; ++k)
                std::fill(rays.org[k].begin(), rays.org[k].end(), origin[k]);
            std::fill(rays.maxDist.begin(), rays.maxDist.end(), maxDist);
            rays.reset();
            EXPECT_EQ(ray::takesManyOriginsPacketPath(rays.block()), rays.height == 4);
            float* uv[2] = {rays.u.data(), rays.v.data()};
            EXPECT_EQ(vekrIntersectMO_32f(rays.origins(), rays.dirs(), rays.dist.data(), uv,
                                          rays.triIndex.data(), &context, 4, rays.height),
                      StatusOk);
            for (int i = 0; i < rays.count(); ++i)
                if (rays.triIndex[i] < 0) {
                    EXPECT_EQ(floatBits(rays.dist[i]), floatBits(maxDist)) << "ray " << i;
                    EXPECT_EQ(rays.u[i], EyeRays::kUntouched) << "ray " << i;
                }
            return shotOf(rays);
        });
}

const float kWideBox[6] = {-2, -2, -2, 2, 2, 2};

TEST(ManyOriginsRules, TinyComponentMissesUnlessStrictlyInsideItsSlab)
{
    // The box spans y = -0.5 to 0.5, the wall x = 0.5 y = -1 to 3. A y component of magnitude
    // up to the float epsilon hits the wall only from strictly inside the slab; on either face
    // it misses. Just above the epsilon, the ray from the face enters the box.
    const Mesh mesh = wallsAt({0.5f});
    const HandTree tree = listLeafTree({0});
    const float box[6] = {-2, -0.5f, -2, 2, 0.5f, 2};
    const float tiny[] = {0.0f, -0.0f, 1e-8f, -1e-8f, 1.1920929e-7f, -1.1920929e-7f};
    for (const auto& [y, inside] : std::vector<std::pair<float, bool>>{
             {0.25f, true}, {0.75f, false}, {0.5f, false}, {-0.5f, false}, {-0.75f, false}}) {
        const float origin[3] = {-1, y, 0};
        for (float dy : tiny)
            for (const Shot& shot : shoot(mesh, tree.root(), box, origin, 1.0f, dy))
                EXPECT_EQ(shot.triangle, inside ? 0 : -1) << "y " << y << " dy " << dy;
    }
    const float onFace[3] = {-1, 0.5f, 0};
    for (const Shot& shot : shoot(mesh, tree.root(), box, onFace, 1.0f, -1.5e-7f))
        EXPECT_EQ(shot.triangle, 0);
}

TEST(ManyOriginsRules, SlabDistancesMultiplyByTheReciprocal)
{
    // The root splits x at the box's far face; only the upper leaf lists the wall. From
    // x = -5000, t ~ 5000 (one ulp 4.9e-4, the 1e-4 widening rounds away): the far end
    // (1 - O) * (1 / dx) equals the split distance and both children are visited, while
    // (1 - O) / dx lies one ulp short and would leave the upper leaf out.
    const float dx = 0x1.000b58p+0f;
    const float across = 1.0f - -5000.0f;
    ASSERT_GT(across * (1.0f / dx), across / dx);
    const float origin[3] = {-5000, 0, 0};
    const float box[6] = {-2, -2, -2, 1, 2, 2};
    for (const Shot& shot :
         shoot(wallsAt({0.5f}), splitTree(0, 1.0f, -1, 0).root(), box, origin, dx, 0.0f,
               FLT_MAX, 1e-5f))
        EXPECT_EQ(shot.triangle, 0);
}

TEST(ManyOriginsRules, EdgeOnTriangleIsNeverHit)
{
    // The wall x = 0.5 crossed at t ~ 1 with den = dx: below 1.1920929e-6 the wall is passed
    // over, at or above it is hit, for either sign.
    const Mesh mesh = wallsAt({0.5f});
    const HandTree tree = listLeafTree({0});
    for (const auto& [dx, hit] : std::vector<std::pair<float, bool>>{
             {1e-6f, false}, {-1e-6f, false}, {1.18e-6f, false}, {1.1920929e-6f, true},
             {1.3e-6f, true}, {-1.3e-6f, true}}) {
        const float origin[3] = {0.5f - dx, -0.5f, 0};
        for (const Shot& shot : shoot(mesh, tree.root(), kWideBox, origin, dx, 1.0f))
            EXPECT_EQ(shot.triangle, hit ? 0 : -1) << "dx " << dx;
    }
}

TEST(ManyOriginsRules, NewHitMustBeNearerByMoreThanTheTolerance)
{
    const float origin[3] = {0, 0, 0};
    // A first hit must lie more than 1e-5 before the caller's maximum distance of 1.
    for (const auto& [x, hit] :
         std::vector<std::pair<float, bool>>{{0.999995f, false}, {0.99998f, true}}) {
        const HandTree tree = listLeafTree({0});
        for (const Shot& shot : shoot(wallsAt({x}), tree.root(), kWideBox, origin, 1, 0, 1.0f))
            EXPECT_EQ(shot.triangle, hit ? 0 : -1) << "wall at " << x;
    }
    // Wall 0, found first in the lower leaf, keeps the hit against wall 1 of the upper leaf
    // unless wall 1 lies more than 1e-5 nearer.
    for (const auto& [x0, kept] : std::vector<std::pair<float, int>>{{0.500005f, 0}, {0.50002f, 1}}) {
        for (const Shot& shot : shoot(wallsAt({x0, 0.5f}), splitTree(0, 0.25f, 0, 1).root(),
                                      kWideBox, origin, 1, 0)) {
            EXPECT_EQ(shot.triangle, kept) << "far wall at " << x0;
            EXPECT_EQ(shot.dist, kept == 0 ? x0 : 0.5f) << "far wall at " << x0;
        }
    }
}

TEST(ManyOriginsRules, TinyComponentsTakeTheirOwnSubstituteInverse)
{
    // Walls 0 (x = 0.9, lower leaf) and 1 (x = 0.95, upper leaf) of a split y = 0, from
    // delta below the split with a tiny y component: the split lies at t = delta * inverse,
    // the box interval is [0.5, 2]. Below 0.5 only the upper leaf is visited (wall 1), above
    // it the lower one first (wall 0). Single rays pin their inverse between 76923 and 90909
    // (83886.078125), tiles theirs between 2.5e8 and 1e9 (838860800).
    const Mesh mesh = wallsAt({0.9f, 0.95f});
    const HandTree tree = splitTree(1, 0.0f, 0, 1);
    const float box[6] = {-0.5f, -2, -2, 1, 2, 2};
    struct Case {
        float delta;
        int tiles, single;
    };
    for (const Case& c : {Case{5e-10f, 1, 1}, Case{2e-9f, 0, 1}, Case{5.5e-6f, 0, 1},
                          Case{6.5e-6f, 0, 0}}) {
        const float origin[3] = {-1, -c.delta, 0};
        for (float dy : {0.0f, 1e-8f, -1e-8f}) {
            const std::vector<Shot> shots = shoot(mesh, tree.root(), box, origin, 1, dy);
            EXPECT_EQ(shots[0].triangle, c.tiles) << "tiles, delta " << c.delta << " dy " << dy;
            EXPECT_EQ(shots[1].triangle, c.single) << "single, delta " << c.delta << " dy " << dy;
        }
    }
}

}  // namespace
