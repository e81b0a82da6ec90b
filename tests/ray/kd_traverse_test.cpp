// Nearest hits of rays from one origin: the per-ray path against a double-precision brute force
// and tiles against single rays, over every scene and tree kind of the sweep.
#include <gtest/gtest.h>

#include <cfloat>
#include <tuple>

#include "ray/kd_traverse.h"
#include "support/ray_scenes.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

// Eyes outside the scene and inside it.
const float kEyes[2][3] = {{0.4f, -0.7f, 4.0f}, {0.05f, -0.1f, 0.02f}};

TEST_P(RayScenes, NearestHitPerRayMatchesBruteForceAndTilesMatchSingleRays)
{
    for (const auto& eye : kEyes)
        for (const auto& [width, height, seed] : {std::tuple{24, 20, 11u}, {32, 16, 23u}}) {
            EyeRays single = makeMixedRays(scene->mesh, eye, width, height, seed);
            EyeRays packet = single;
            ray::intersectEyeRaysSingle(view(), single.block());
            ASSERT_TRUE(ray::takesPacketPath(packet.block()));
            ray::intersectEyeRaysPacket4x4(view(), packet.block());
            const int compared = expectNearestHits(scene->mesh, single, packet, 0.0).first;
            // The reference must leave most rays decidable, or the test proves little.
            EXPECT_GT(compared, single.count() * 3 / 4) << width << " x " << height;
        }
}

// Coherent camera rays, where tiles share their descent most of the time.
TEST_P(RayScenes, NearestHitTilesAgreeOnCoherentCameraRays)
{
    EyeRays single(64, 48);
    const float eye[3] = {0.3f, -2.6f, 2.2f};
    std::copy(eye, eye + 3, single.origin);
    for (int r = 0; r < single.height; ++r)
        for (int c = 0; c < single.width; ++c) {
            const int i = r * single.width + c;
            single.dir[0][i] = -0.3f + (float(c) - 32.0f) / 40.0f;
            single.dir[1][i] = 2.6f + (float(r) - 24.0f) / 80.0f;
            single.dir[2][i] = -2.2f + (float(r) - 24.0f) / 40.0f;
        }
    single.reset();
    EyeRays packet = single;
    ray::intersectEyeRaysSingle(view(), single.block());
    ray::intersectEyeRaysPacket4x4(view(), packet.block());
    int hits = 0;
    for (int i = 0; i < single.count(); ++i) {
        hits += single.triIndex[i] >= 0;
        const auto d = single.direction(i);
        if (packet.triIndex[i] == single.triIndex[i]) continue;
        EXPECT_TRUE(referenceNearestHit(scene->mesh, single.origin, d.data(), FLT_MAX).ambiguous)
            << "ray " << i;
    }
    EXPECT_GT(hits, single.count() / 4);
}

// Every test on the sweep fixture, from any file of this program, runs on these.
std::vector<SceneCase> allSceneCases()
{
    std::vector<SceneCase> cases;
    for (SceneKind scene : {SceneKind::Soup, SceneKind::HeightFieldInBox})
        for (TreeKind tree : {TreeKind::Simple, TreeKind::FullDepth, TreeKind::MedianCompact,
                              TreeKind::MedianLists, TreeKind::MedianDeep})
            cases.push_back({scene, tree});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Scenes, RayScenes, testing::ValuesIn(allSceneCases()),
                         [](const auto& info) { return sceneCaseName(info.param); });

}  // namespace
