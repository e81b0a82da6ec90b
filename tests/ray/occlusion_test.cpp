// Occlusion of segments from one origin: both paths against a double-precision brute force,
// tiles against single rays, the numeric rules on hand-made trees, path choice and bounds.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ray/kd_occlusion.h"
#include "support/guard_buffer.h"
#include "support/ray_scenes.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

// A block of segments from one origin, with the mask the caller passes in.
struct Segments {
    int width, height;
    float origin[3] = {0, 0, 0};
    AlignedVector<float> dir[3];
    AlignedVector<int32_t> maskIn, mask, triIndex;

    Segments(int w, int h) : width(w), height(h)
    {
        for (auto& plane : dir)
            plane.assign(size_t(w * h), 0.0f);
        maskIn.assign(size_t(w * h), 0);
        reset();
    }
    int count() const { return width * height; }
    void reset()
    {
        mask = maskIn;
        triIndex.assign(size_t(count()), INT32_MIN);
    }
    std::array<float, 3> direction(int i) const { return {dir[0][i], dir[1][i], dir[2][i]}; }
    ray::OcclusionBlock block()
    {
        planes = {dir[0].data(), dir[1].data(), dir[2].data()};
        return {origin, planes.data(), triIndex.data(), mask.data(), width, height};
    }
    std::array<const float*, 3> planes{};
};

Status occlude(const PreparedScene& scene, const void* root, Segments& s)
{
    const float* dir[3] = {s.dir[0].data(), s.dir[1].data(), s.dir[2].data()};
    const IntersectContext context = scene.context(root);
    return vekrIntersectAnySO_32f(s.origin, dir, s.triIndex.data(), s.mask.data(), s.width,
                                  s.height, &context);
}

// Segments from a light to points on and around the mesh, some stopping short of their
// target and some reaching past it, some masked out (-1, -7) and one with a positive word.
Segments shadowSegments(const Mesh& mesh, const float light[3], int width, int height,
                        uint32_t seed)
{
    const EyeRays rays = makeMixedRays(mesh, light, width, height, seed);
    Segments s(width, height);
    std::copy(light, light + 3, s.origin);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> length(0.3f, 1.6f);
    for (int i = 0; i < s.count(); ++i) {
        const float scale = length(rng);
        for (int k = 0; k < 3; ++k)
            s.dir[k][i] = rays.dir[k][i] * scale;
        s.maskIn[i] = i % 11 == 5 ? -1 : i % 13 == 6 ? -7 : i % 17 == 3 ? 5 : 0;
    }
    s.reset();
    return s;
}

struct OcclusionCase {
    SceneKind scene;
    TreeKind tree;
};

void PrintTo(const OcclusionCase& c, std::ostream* os)
{
    *os << sceneKindName(c.scene) << "/" << treeKindName(c.tree);
}

class OcclusionTest : public testing::TestWithParam<OcclusionCase> {
protected:
    void SetUp() override
    {
        scene_ = std::make_unique<PreparedScene>(makeTestScene(GetParam().scene));
        tree_ = std::make_unique<TestTree>(scene_->mesh, GetParam().tree);
        ASSERT_NE(tree_->root(), nullptr);
    }

    ray::SceneView view() const { return {nullptr, scene_->records.data(), tree_->rootNode()}; }

    // The verdict of every unambiguous segment against the reference; the reported occluder
    // must be one the reference finds clearly on the segment.
    void expectMatchesReference(const Segments& s, const char* path) const
    {
        int compared = 0, occluded = 0;
        for (int i = 0; i < s.count(); ++i) {
            if (s.maskIn[i] < 0) {
                ASSERT_EQ(s.triIndex[i], -1) << path << " ray " << i;
                ASSERT_EQ(s.mask[i], s.maskIn[i]) << path << " ray " << i;
                continue;
            }
            const auto d = s.direction(i);
            const ReferenceOcclusion ref = referenceOcclusion(scene_->mesh, s.origin, d.data());
            const bool found = s.triIndex[i] >= 0;
            ASSERT_EQ(s.mask[i], found ? -1 : s.maskIn[i]) << path << " ray " << i;
            if (ref.ambiguous) continue;
            ++compared;
            occluded += ref.occluded;
            ASSERT_EQ(found, ref.occluded) << path << " ray " << i;
            if (found) {
                const auto on = [&](const std::vector<int>& list) {
                    return std::find(list.begin(), list.end(), s.triIndex[i]) != list.end();
                };
                EXPECT_TRUE(on(ref.occluders) || on(ref.doubtful))
                    << path << " ray " << i << " reports " << s.triIndex[i];
            }
        }
        // Most segments decidable, and both verdicts well represented.
        EXPECT_GT(compared, s.count() * 2 / 3) << path;
        EXPECT_GT(occluded, compared / 8) << path;
        EXPECT_LT(occluded, compared * 7 / 8) << path;
    }

    std::unique_ptr<PreparedScene> scene_;
    std::unique_ptr<TestTree> tree_;
};

std::string caseName(const testing::TestParamInfo<OcclusionCase>& info)
{
    return std::string(sceneKindName(info.param.scene)) + treeKindName(info.param.tree);
}

TEST_P(OcclusionTest, BothPathsMatchBruteForceReference)
{
    const float lights[2][3] = {{0.4f, -0.7f, 4.0f}, {0.05f, -0.1f, 0.02f}};
    for (const auto& light : lights) {
        Segments single = shadowSegments(scene_->mesh, light, 32, 16, 11);
        Segments packet = single;
        ray::findOccludersSingle(view(), single.block());
        ASSERT_TRUE(ray::takesOcclusionPacketPath(packet.block()));
        ray::findOccludersPacket4x4(view(), packet.block());
        expectMatchesReference(single, "per-ray");
        expectMatchesReference(packet, "tile");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Scenes, OcclusionTest,
    testing::Values(OcclusionCase{SceneKind::Soup, TreeKind::MedianCompact},
                    OcclusionCase{SceneKind::Soup, TreeKind::MedianDeep},
                    OcclusionCase{SceneKind::HeightFieldInBox, TreeKind::MedianLists},
                    OcclusionCase{SceneKind::HeightFieldInBox, TreeKind::FullDepth}),
    caseName);

// --- Rules on hand-made trees: every case through a 4 x 4 block (tiles) and a 4 x 3 block
// (one ray at a time), all rays along (2, dy, tiny z spread) from the origin. ---------------

// The triangle each path reports for every ray of its block (-2 when the rays disagree).
std::vector<int> occludersOf(const Mesh& mesh, const HandTree& tree, const float origin[3],
                             float dy, int32_t maskWord = 0)
{
    const PreparedScene scene(mesh);
    std::vector<int> found;
    for (int height : {4, 3}) {
        Segments s(4, height);
        std::copy(origin, origin + 3, s.origin);
        for (int i = 0; i < s.count(); ++i) {
            s.dir[0][i] = 2.0f;
            s.dir[1][i] = dy;
            s.dir[2][i] = 0.001f * float(i);
            s.maskIn[i] = maskWord;
        }
        s.reset();
        EXPECT_EQ(occlude(scene, tree.nodes.data(), s), StatusOk);
        int verdict = s.triIndex[0];
        for (int i = 0; i < s.count(); ++i) {
            if (s.triIndex[i] != verdict) verdict = -2;
            EXPECT_EQ(s.mask[i], s.triIndex[i] >= 0 ? -1 : maskWord) << "ray " << i;
        }
        found.push_back(verdict);
    }
    return found;
}

HandTree oneLeaf(int triangle)
{
    HandTree tree(2);
    tree.leaf(0, triangle);
    return tree;
}

TEST(OcclusionRules, OnlyTheOpenSegmentOccludes)
{
    // From x = 0 along x = 2: walls at x = 0 (t = 0) and x = 2 (t = 1) do not occlude, one at
    // x = 1 does, and so does one just inside either end.
    const float origin[3] = {0, 0, 0};
    for (const auto& [x, occludes] : std::vector<std::pair<float, bool>>{
             {0.0f, false}, {2.0f, false}, {1.0f, true}, {1e-5f, true}, {1.9999f, true},
             {-0.5f, false}, {2.5f, false}}) {
        for (int found : occludersOf(wallsAt({x}), oneLeaf(0), origin, 0.0f))
            EXPECT_EQ(found, occludes ? 0 : -1) << "wall at x " << x;
    }
}

TEST(OcclusionRules, MaskedRaysAreNotTestedAndPositiveWordsAre)
{
    const float origin[3] = {0, 0, 0};
    for (int32_t word : {-1, -7, INT32_MIN})
        for (int found : occludersOf(wallsAt({1.0f}), oneLeaf(0), origin, 0.0f, word))
            EXPECT_EQ(found, -1) << "mask " << word;
    for (int found : occludersOf(wallsAt({1.0f}), oneLeaf(0), origin, 0.0f, 5))
        EXPECT_EQ(found, 0);
}

TEST(OcclusionRules, TheBoxIsNotRead)
{
    // The context's box lies far away; the wall on the segment is found all the same.
    const Mesh mesh = wallsAt({1.0f});
    std::vector<TriangleAccel> records(1);
    vekrTriangleAccelInit(records.data(), mesh.vertices.data(), mesh.triangles.data(), 1);
    const HandTree tree = oneLeaf(0);
    const float farBox[6] = {10, 10, 10, 11, 11, 11};
    const IntersectContext context{farBox, records.data(), tree.nodes.data()};
    for (int height : {4, 3}) {
        Segments s(4, height);
        for (int i = 0; i < s.count(); ++i)
            s.dir[0][i] = 2.0f;
        const float* dir[3] = {s.dir[0].data(), s.dir[1].data(), s.dir[2].data()};
        vekrIntersectAnySO_32f(s.origin, dir, s.triIndex.data(), s.mask.data(), 4, height,
                               &context);
        for (int i = 0; i < s.count(); ++i)
            EXPECT_EQ(s.triIndex[i], 0) << "height " << height << " ray " << i;
    }
}

TEST(OcclusionRules, FirstOccluderInTraversalOrderIsReported)
{
    // The near (lower) leaf lists the farther wall 0; the nearer wall 1 is listed only in the
    // upper leaf, visited later: the ray ends at wall 0.
    const float origin[3] = {0, 0, 0};
    for (int found : occludersOf(wallsAt({1.5f, 0.5f}), splitTree(0, 1.0f, 0, 1), origin, 0.0f))
        EXPECT_EQ(found, 0);
}

TEST(OcclusionRules, LeafEndingAtTheSegmentEndEndsTheRay)
{
    // The upper leaf lists a wall on the segment. With the split at the segment's end
    // (t = 1) the lower leaf ends the ray; with the split at t = 0.99 the upper leaf is
    // visited and the wall found.
    const float origin[3] = {0, 0, 0};
    for (const auto& [split, reached] :
         std::vector<std::pair<float, bool>>{{2.0f, false}, {1.98f, true}}) {
        for (int found : occludersOf(wallsAt({1.0f}), splitTree(0, split, -1, 0), origin, 0.0f))
            EXPECT_EQ(found, reached ? 0 : -1) << "split " << split;
    }
}

TEST(OcclusionRules, TinyComponentsKeepTheirSignAndTakeTheStandInInverse)
{
    // Coincident walls, 0 in the lower and 1 in the upper child of a split y = 0; the ray
    // starts on the split, so the near child is visited first: upper for a tiny negative y
    // (its sign flag is set, unlike for the nearest hit), lower for +0, -0 and tiny positive.
    const float onSplit[3] = {0, 0, 0};
    const HandTree coincident = splitTree(1, 0.0f, 0, 1);
    for (const auto& [dy, expected] : std::vector<std::pair<float, int>>{
             {-1.1920929e-7f, 1}, {-1e-9f, 1}, {1.1920929e-7f, 0}, {0.0f, 0}, {-0.0f, 0}}) {
        for (int found : occludersOf(wallsAt({1.0f, 1.0f}), coincident, onSplit, dy))
            EXPECT_EQ(found, expected) << "dy " << dy;
    }
    // 1e-6 below the split, only the upper leaf lists a wall. Single rays put the split at
    // t = 1e-6 * 83886.08 = 0.084 and visit both children; tiles put it at
    // 1e-6 * 8388608 = 8.4, beyond the segment, and visit the lower (empty) one alone.
    const float below[3] = {0, -1e-6f, 0};
    const std::vector<int> found =
        occludersOf(wallsAt({1.0f}), splitTree(1, 0.0f, -1, 0), below, 0.0f);
    EXPECT_EQ(found[0], -1) << "tiles";
    EXPECT_EQ(found[1], 0) << "single rays";
}

// --- Path choice and bounds ----------------------------------------------------------------

TEST(IntersectAny, PacketPathNeedsSidesOfFourAndFiveAlignedPlanes)
{
    Segments s(8, 4);
    EXPECT_TRUE(ray::takesOcclusionPacketPath(s.block()));
    Segments tall(8, 5);
    EXPECT_FALSE(ray::takesOcclusionPacketPath(tall.block()));
    Segments wide(9, 4);
    EXPECT_FALSE(ray::takesOcclusionPacketPath(wide.block()));
    for (int plane = 0; plane < 5; ++plane) {
        ray::OcclusionBlock shifted = s.block();
        const float* dir[3] = {shifted.dir[0], shifted.dir[1], shifted.dir[2]};
        if (plane < 3) dir[plane] += 1;
        shifted.dir = dir;
        if (plane == 3) shifted.triIndex += 1;
        if (plane == 4) shifted.mask += 1;
        EXPECT_FALSE(ray::takesOcclusionPacketPath(shifted)) << "plane " << plane;
    }
}

// Every plane against a guard page, for both paths and both ends; empty blocks read nothing.
TEST(IntersectAny, TouchesNothingPastTheBlock)
{
    const Mesh mesh = makeTriangleSoup(60, 5);
    const PreparedScene scene(mesh);
    const MedianKdTree tree(mesh, 8, 3);
    const IntersectContext context = scene.context(tree.root());
    const float light[3] = {0.1f, 0.2f, 3.0f};
    for (const auto& [w, h] : std::vector<std::pair<int, int>>{{8, 4}, {7, 3}, {1, 1}, {4, 8}}) {
        for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
            const Segments s = shadowSegments(mesh, light, w, h, 3);
            const size_t n = size_t(w * h);
            GuardedArray<float> dx(n, end), dy(n, end), dz(n, end);
            GuardedArray<int32_t> tri(n, end), mask(n, end);
            dx.copyFrom(s.dir[0].data());
            dy.copyFrom(s.dir[1].data());
            dz.copyFrom(s.dir[2].data());
            mask.copyFrom(s.maskIn.data());
            const float* dir[3] = {dx.data(), dy.data(), dz.data()};
            EXPECT_EQ(vekrIntersectAnySO_32f(light, dir, tri.data(), mask.data(), w, h, &context),
                      StatusOk);
        }
    }
    for (const auto& [w, h] : std::vector<std::pair<int, int>>{{0, 4}, {4, 0}, {-4, -4}})
        EXPECT_EQ(vekrIntersectAnySO_32f(nullptr, nullptr, nullptr, nullptr, w, h, nullptr),
                  StatusOk);
}

}  // namespace
