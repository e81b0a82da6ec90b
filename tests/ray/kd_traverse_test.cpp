#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "accel/kd_format.h"
#include "ray/kd_traverse.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "support/ray_scenes.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

enum class Eye { Outside, Inside };

struct TraverseCase {
    SceneKind scene;
    TreeKind tree;
    Eye eye;
};

void PrintTo(const TraverseCase& c, std::ostream* os)
{
    *os << int(c.scene) << "/" << int(c.tree) << "/" << int(c.eye);
}

std::string caseName(const testing::TestParamInfo<TraverseCase>& info)
{
    return std::string(sceneKindName(info.param.scene)) + treeKindName(info.param.tree) +
           (info.param.eye == Eye::Outside ? "Outside" : "Inside");
}

class TraverseTest : public testing::TestWithParam<TraverseCase> {
protected:
    void SetUp() override
    {
        scene_ = std::make_unique<PreparedScene>(makeTestScene(GetParam().scene));
        tree_ = std::make_unique<TestTree>(scene_->mesh, GetParam().tree);
    }

    ray::SceneView view() const
    {
        return {&scene_->box.minX, scene_->records.data(), tree_->rootNode()};
    }
    static ray::EyeRayBlock blockOf(EyeRays& rays)
    {
        return {rays.origin,          rays.dirs(), rays.dist.data(), rays.u.data(), rays.v.data(),
                rays.triIndex.data(), rays.width,  rays.height};
    }
    EyeRays makeRays(int width, int height, uint32_t seed) const
    {
        const float outside[3] = {0.4f, -0.7f, 4.0f};
        const float inside[3] = {0.05f, -0.1f, 0.02f};
        return makeMixedRays(scene_->mesh, GetParam().eye == Eye::Outside ? outside : inside, width,
                             height, seed);
    }

    std::unique_ptr<PreparedScene> scene_;
    std::unique_ptr<TestTree> tree_;
};

TEST_P(TraverseTest, PerRayPathMatchesBruteForceAndTilesMatchSingleRays)
{
    for (const auto& [width, height, seed] : {std::tuple{24, 20, 11u}, {32, 16, 23u}}) {
        EyeRays single = makeRays(width, height, seed);
        EyeRays packet = single;
        ray::intersectEyeRaysSingle(view(), blockOf(single));
        ASSERT_TRUE(ray::takesPacketPath(blockOf(packet)));
        ray::intersectEyeRaysPacket4x4(view(), blockOf(packet));
        const int compared = expectNearestHits(scene_->mesh, single, packet, 0.0).first;
        // The reference must leave most rays decidable, or the test proves little.
        EXPECT_GT(compared, single.count() * 3 / 4) << width << " x " << height;
    }
}

// Coherent camera rays, where tiles share their descent most of the time.
TEST_P(TraverseTest, PacketPathAgreesOnCoherentCameraRays)
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
    ray::intersectEyeRaysSingle(view(), blockOf(single));
    ray::intersectEyeRaysPacket4x4(view(), blockOf(packet));
    int hits = 0;
    for (int i = 0; i < single.count(); ++i) {
        hits += single.triIndex[i] >= 0;
        const auto d = single.direction(i);
        if (packet.triIndex[i] == single.triIndex[i]) continue;
        EXPECT_TRUE(referenceNearestHit(scene_->mesh, single.origin, d.data(), FLT_MAX).ambiguous)
            << "ray " << i;
    }
    EXPECT_GT(hits, single.count() / 4);
}

INSTANTIATE_TEST_SUITE_P(
    Scenes, TraverseTest,
    testing::Values(TraverseCase{SceneKind::Soup, TreeKind::Simple, Eye::Outside},
                    TraverseCase{SceneKind::Soup, TreeKind::MedianCompact, Eye::Outside},
                    TraverseCase{SceneKind::Soup, TreeKind::MedianLists, Eye::Inside},
                    TraverseCase{SceneKind::Soup, TreeKind::MedianDeep, Eye::Inside},
                    TraverseCase{SceneKind::HeightFieldInBox, TreeKind::Simple, Eye::Inside},
                    TraverseCase{SceneKind::HeightFieldInBox, TreeKind::MedianCompact, Eye::Inside},
                    TraverseCase{SceneKind::HeightFieldInBox, TreeKind::MedianLists, Eye::Outside},
                    TraverseCase{SceneKind::HeightFieldInBox, TreeKind::MedianDeep, Eye::Outside}),
    caseName);

}  // namespace
