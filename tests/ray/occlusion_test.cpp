// Occlusion of segments from one origin: both paths against a double-precision brute force,
// tiles against single rays, the numeric rules on hand-made trees (path choice and bounds:
// intersect_contract_test.cpp).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "ray/kd_occlusion.h"
#include "support/ray_scenes.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

// The verdict of every unambiguous segment against the reference; the reported occluder must
// be one the reference finds clearly on the segment.
void expectOccludersMatchReference(const Mesh& mesh, const Segments& s, const char* path)
{
    int compared = 0, occluded = 0;
    for (int i = 0; i < s.count(); ++i) {
        if (s.maskIn[i] < 0) {
            ASSERT_EQ(s.triIndex[i], -1) << path << " ray " << i;
            ASSERT_EQ(s.mask[i], s.maskIn[i]) << path << " ray " << i;
            continue;
        }
        const auto d = s.direction(i);
        const ReferenceOcclusion ref = referenceOcclusion(mesh, s.origin, d.data());
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

// The scene's box is left out: occlusion must not read it.
TEST_P(RayScenes, OcclusionOnBothPathsMatchesBruteForce)
{
    const ray::SceneView noBox{nullptr, scene->records.data(), tree->rootNode()};
    const float lights[2][3] = {{0.4f, -0.7f, 4.0f}, {0.05f, -0.1f, 0.02f}};
    for (const auto& light : lights) {
        Segments single = shadowSegments(scene->mesh, light, 32, 16, 11);
        Segments packet = single;
        ray::findOccludersSingle(noBox, single.block());
        ASSERT_TRUE(ray::takesOcclusionPacketPath(packet.block()));
        ray::findOccludersPacket4x4(noBox, packet.block());
        expectOccludersMatchReference(scene->mesh, single, "per-ray");
        expectOccludersMatchReference(scene->mesh, packet, "tile");
    }
}

// --- Rules on hand-made trees: every case on both paths (onBothPaths), all rays along
// (2, dy, tiny z spread) from the origin, under a context box far from the scene. -----------

// The triangle each path reports for every ray of its block (-2 when the rays disagree).
std::vector<int> occludersOf(const Mesh& mesh, const HandTree& tree, const float origin[3],
                             float dy, int32_t maskWord = 0)
{
    const PreparedScene scene(mesh);
    const float farBox[6] = {10, 10, 10, 11, 11, 11};  // the box is not read
    const IntersectContext context = scene.context(tree.root(), farBox);
    return onBothPaths<Segments>(
        origin, [&](int i) { return std::array<float, 3>{2.0f, dy, 0.001f * float(i)}; },
        [&](Segments& s) {
            std::fill(s.maskIn.begin(), s.maskIn.end(), maskWord);
            s.reset();
            EXPECT_EQ(vekrIntersectAnySO_32f(s.origin, s.dirs(), s.triIndex.data(), s.mask.data(),
                                             s.width, s.height, &context),
                      StatusOk);
            for (int i = 0; i < s.count(); ++i)
                EXPECT_EQ(s.mask[i], s.triIndex[i] >= 0 ? -1 : maskWord) << "ray " << i;
            return shotOf(s).triangle;
        });
}

TEST(OcclusionRules, OnlyTheOpenSegmentOfUnmaskedRaysOccludes)
{
    // From x = 0 along x = 2: walls at x = 0 (t = 0) and x = 2 (t = 1) do not occlude, one at
    // x = 1 does, and so does one just inside either end. Negative mask words skip the ray,
    // positive ones do not.
    const float origin[3] = {0, 0, 0};
    struct Case {
        float x;
        int32_t maskWord;
        bool occludes;
    };
    for (const Case& c : {Case{0.0f, 0, false}, {2.0f, 0, false}, {1.0f, 0, true}, {1e-5f, 0, true},
                          {1.9999f, 0, true}, {-0.5f, 0, false}, {2.5f, 0, false},
                          {1.0f, -1, false}, {1.0f, -7, false}, {1.0f, INT32_MIN, false},
                          {1.0f, 5, true}}) {
        for (int found : occludersOf(wallsAt({c.x}), oneLeafTree(0), origin, 0.0f, c.maskWord))
            EXPECT_EQ(found, c.occludes ? 0 : -1) << "wall at x " << c.x << ", mask " << c.maskWord;
    }
}

TEST(OcclusionRules, FirstOccluderInTraversalOrderIsReported)
{
    // The near (lower) leaf lists the farther wall 0; the nearer wall 1 is listed only in the
    // upper leaf, visited later: the ray ends at wall 0.
    const float origin[3] = {0, 0, 0};
    for (int found : occludersOf(wallsAt({1.5f, 0.5f}), splitTree(0, 1.0f, 0, 1), origin, 0.0f))
        EXPECT_EQ(found, 0);
    // Within one leaf the list order decides, ray by ray. From x = -0.5: the all-zero record 1
    // (its plane x = 0 on the segment) never occludes; triangle 0 (x = 1, top edge at
    // z = 0.0026) covers rays 0 to 3 of the z spread, wall 2 (x = 1.25) every ray.
    Mesh mesh;
    const int a = mesh.addVertex(1, -1, -1);
    const int b = mesh.addVertex(1, 1, 0.0026f);
    const int c = mesh.addVertex(1, -1, 0.0026f);
    mesh.addTriangle(a, b, c);
    mesh.addTriangle(a, b, b);
    const PreparedScene scene(concatenate(mesh, wallsAt({1.25f})));
    ASSERT_EQ(scene.records[1].axes, 0u);
    const HandTree tree = listLeafTree({1, 0, 2});
    const float behind[3] = {-0.5f, 0, 0};
    const float farBox[6] = {10, 10, 10, 11, 11, 11};
    const IntersectContext context = scene.context(tree.root(), farBox);
    const auto dirOf = [](int i) { return std::array<float, 3>{2.0f, 0.0f, 0.001f * float(i)}; };
    for (const auto& found : onBothPaths<Segments>(behind, dirOf, [&](Segments& s) {
             s.reset();
             EXPECT_EQ(vekrIntersectAnySO_32f(s.origin, s.dirs(), s.triIndex.data(), s.mask.data(),
                                              s.width, s.height, &context),
                       StatusOk);
             return s.triIndex;
         }))
        for (size_t i = 0; i < found.size(); ++i)
            EXPECT_EQ(found[i], i <= 3 ? 0 : 2) << "ray " << i;
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

}  // namespace
