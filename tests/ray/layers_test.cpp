// Successive hits along rays from one origin: both paths against a brute force over all
// triangles per layer, one layer against the nearest-hit function, the exclusion rules on
// hand-made trees (path choice and bounds: intersect_contract_test.cpp).
#include <gtest/gtest.h>

#include <cfloat>
#include <cstdint>
#include <vector>

#include "ray/kd_layers.h"
#include "support/float_bits.h"
#include "support/ray_scenes.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

// A block of rays with `layers` blocks of hit planes: layer 0 of dist holds the maximum
// distance, every other element a sentinel.
struct LayeredRays {
    EyeRays rays;
    int layers;
    AlignedVector<float> dist, u, v;
    AlignedVector<int32_t> triIndex;

    LayeredRays(const EyeRays& r, int layerCount) : rays(r), layers(layerCount) { reset(); }
    size_t size() const { return size_t(rays.count() * layers); }
    void reset()
    {
        dist.assign(size(), EyeRays::kUntouched);
        std::copy(rays.maxDist.begin(), rays.maxDist.end(), dist.begin());
        u.assign(size(), EyeRays::kUntouched);
        v.assign(size(), EyeRays::kUntouched);
        triIndex.assign(size(), INT32_MIN);
    }
    ray::LayeredRayBlock block()
    {
        return {rays.origin, rays.dirs(),    dist.data(), u.data(), v.data(), triIndex.data(),
                rays.width,  rays.height, layers};
    }
    Status intersect(const IntersectContext& context)
    {
        float* uv[2] = {u.data(), v.data()};
        return vekrIntersectMultipleSO_32f(rays.origin, rays.dirs(), dist.data(), uv, triIndex.data(),
                                           rays.width, rays.height, layers, &context);
    }
    // Element of layer k of ray i.
    size_t at(int k, int i) const { return size_t(k * rays.count() + i); }
};

// Every layer of every ray against the reference, bit for bit, up to its first ambiguous
// layer; returns the number of hits compared in layer 0 and in later layers.
std::pair<int, int> expectMatchesReference(const LayeredRays& out, const std::vector<TriangleAccel>& records,
                           const char* path)
{
    int hits[2] = {0, 0};
    for (int i = 0; i < out.rays.count(); ++i) {
        const auto d = out.rays.direction(i);
        const auto ref = referenceLayers(records, out.rays.origin, d.data(), out.rays.maxDist[i],
                                         out.layers);
        for (int k = 0; k < out.layers && !ref[size_t(k)].ambiguous; ++k) {
            const ReferenceLayer& layer = ref[size_t(k)];
            const size_t e = out.at(k, i);
            EXPECT_EQ(out.triIndex[e], layer.triangle) << path << " ray " << i << " layer " << k;
            if (out.triIndex[e] != layer.triangle) break;
            const float distIn = k == 0 ? out.rays.maxDist[i] : EyeRays::kUntouched;
            EXPECT_EQ(floatBits(out.dist[e]), floatBits(layer.distWritten ? layer.dist : distIn))
                << path << " ray " << i << " layer " << k;
            const bool hit = layer.triangle >= 0;
            EXPECT_EQ(floatBits(out.u[e]), floatBits(hit ? layer.u : EyeRays::kUntouched))
                << path << " ray " << i << " layer " << k;
            EXPECT_EQ(floatBits(out.v[e]), floatBits(hit ? layer.v : EyeRays::kUntouched))
                << path << " ray " << i << " layer " << k;
            hits[k > 0] += hit;
        }
    }
    return {hits[0], hits[1]};
}

TEST_P(RayScenes, LayersOnBothPathsMatchBruteForceLayerByLayer)
{
    const float eyes[2][3] = {{0.4f, -0.7f, 4.0f}, {0.05f, -0.1f, 0.02f}};
    for (const auto& eye : eyes) {
        LayeredRays single(makeMixedRays(scene->mesh, eye, 32, 16, 17), 6);
        // The paths leave the -1 fill to their caller.
        std::fill(single.triIndex.begin(), single.triIndex.end(), -1);
        LayeredRays packet = single;
        ray::intersectLayersSingle(view(), single.block());
        ASSERT_TRUE(ray::takesLayersPacketPath(packet.block()));
        ray::intersectLayersPacket4x4(view(), packet.block());
        const auto [first, later] = expectMatchesReference(single, scene->records, "per-ray");
        const auto [tileFirst, tileLater] = expectMatchesReference(packet, scene->records, "tile");
        EXPECT_GT(first, single.rays.count() / 4) << "too few first hits decidable";
        EXPECT_GT(later, single.rays.count() / 4) << "too few later hits decidable";
        EXPECT_GE(tileFirst + tileLater, (first + later) * 9 / 10);
    }
}

// With one layer, the per-ray path is the nearest hit but for its wider split tolerance, which
// only makes a difference where the nearest hit is in doubt.
TEST_P(RayScenes, OneLayerIsTheNearestHit)
{
    const IntersectContext context = scene->context(tree->root());
    const float eye[3] = {0.3f, -0.6f, 3.5f};
    EyeRays nearest = makeMixedRays(scene->mesh, eye, 23, 13, 5);
    LayeredRays layered(nearest, 1);
    ASSERT_EQ(intersectEye(nearest, context), StatusOk);
    ASSERT_EQ(layered.intersect(context), StatusOk);
    int same = 0;
    for (int i = 0; i < nearest.count(); ++i) {
        if (layered.triIndex[i] != nearest.triIndex[i]) {
            const auto d = nearest.direction(i);
            const float limit = nearest.maxDist[i];
            EXPECT_TRUE(referenceNearestHit(scene->mesh, eye, d.data(), limit).ambiguous)
                << "ray " << i;
            continue;
        }
        ++same;
        EXPECT_EQ(floatBits(layered.dist[i]), floatBits(nearest.dist[i])) << "ray " << i;
        EXPECT_EQ(floatBits(layered.u[i]), floatBits(nearest.u[i])) << "ray " << i;
        EXPECT_EQ(floatBits(layered.v[i]), floatBits(nearest.v[i])) << "ray " << i;
    }
    EXPECT_GT(same, nearest.count() * 9 / 10);
}

// --- Hand-made cases, each on both paths (onBothPaths) ------------------------------------

// Rays from origin along dirOf(i) for each path, in the mesh's box unless another is given.
template <class DirFn>
std::vector<LayeredRays> shootLayers(const PreparedScene& scene, const void* root,
                                     const float origin[3], int layers, DirFn dirOf,
                                     const float* box = nullptr)
{
    const IntersectContext context = scene.context(root, box);
    return onBothPaths<EyeRays>(origin, dirOf, [&](const EyeRays& rays) {
        LayeredRays out(rays, layers);
        EXPECT_EQ(ray::takesLayersPacketPath(out.block()), rays.height == 4);
        EXPECT_EQ(out.intersect(context), StatusOk);
        return out;
    });
}

TEST(LayersRules, ClosedBoxIsCrossedTwiceThenNothing)
{
    // From z = 5 down through the box [-1, 1]^3, away from the face diagonals: the top face
    // at t = 4, the bottom one at t = 6; layer 2 gets -1 and the largest float, its weights
    // stay; layer 3 keeps its sentinels.
    const PreparedScene scene(makeBoxMesh(-1.0f, 1.0f));
    const TestTree tree(scene.mesh, TreeKind::FullDepth);
    const float origin[3] = {0.5f, -0.3f, 5.0f};
    for (const LayeredRays& out : shootLayers(scene, tree.root(), origin, 4, [](int i) {
             return std::array<float, 3>{0.003f + 0.01f * float(i % 4), -0.001f - 0.02f * float(i / 4),
                                         -1.0f};
         })) {
        for (int i = 0; i < out.rays.count(); ++i) {
            const int top = out.triIndex[out.at(0, i)], bottom = out.triIndex[out.at(1, i)];
            EXPECT_TRUE(top == 2 || top == 3) << "ray " << i << " got " << top;
            EXPECT_TRUE(bottom == 0 || bottom == 1) << "ray " << i << " got " << bottom;
            EXPECT_EQ(out.dist[out.at(0, i)], 4.0f) << "ray " << i;
            EXPECT_EQ(out.dist[out.at(1, i)], 6.0f) << "ray " << i;
            EXPECT_EQ(out.triIndex[out.at(2, i)], -1) << "ray " << i;
            EXPECT_EQ(out.dist[out.at(2, i)], FLT_MAX) << "ray " << i;
            EXPECT_EQ(out.u[out.at(2, i)], EyeRays::kUntouched) << "ray " << i;
            EXPECT_EQ(out.v[out.at(2, i)], EyeRays::kUntouched) << "ray " << i;
            EXPECT_EQ(out.triIndex[out.at(3, i)], -1) << "ray " << i;
            EXPECT_EQ(out.dist[out.at(3, i)], EyeRays::kUntouched) << "ray " << i;
            EXPECT_EQ(out.u[out.at(3, i)], EyeRays::kUntouched) << "ray " << i;
        }
    }
}

TEST(LayersRules, ContinuedRayReachesAsFarAsItsWidenedBoxExit)
{
    // Walls 0 and 1 at x = 0.5 and 1 bound the box on x; wall 1 is listed only past a split at
    // x = 1.00025. Continued from wall 0, the ray leaves the box at t = 0.5, widened to 0.5001:
    // the split lies 1.5e-4 beyond, within the per-ray tolerance (1.9e-4) but not the tile's
    // (1.2e-5), so only the ray-at-a-time path finds wall 1 in layer 1.
    const PreparedScene scene(wallsAt({0.5f, 1.0f}));
    const HandTree tree = splitTree(0, 1.00025f, 0, 1);
    const float origin[3] = {0, 0, 0};
    const float box[6] = {0.5f, -2, -2, 1.0f, 4, 4};
    const auto dirOf = [](int i) { return std::array<float, 3>{1.0f, 0.001f * float(i), 0.002f}; };
    for (const LayeredRays& out : shootLayers(scene, tree.root(), origin, 2, dirOf, box)) {
        const bool tile = out.rays.height == 4;
        for (int i = 0; i < out.rays.count(); ++i) {
            EXPECT_EQ(out.triIndex[out.at(0, i)], 0) << "ray " << i;
            EXPECT_EQ(out.triIndex[out.at(1, i)], tile ? -1 : 1) << "ray " << i;
        }
    }
}

TEST(LayersRules, TriangleAtTheContinuedOriginIsNotFoundAgain)
{
    // Walls 0 and 1 coincide at x = 1, wall 2 stands at x = 2. From x = 0 along x, the ray
    // stops on wall 0 at t = 1 exactly; wall 1 then lies at distance 0 and is not a hit.
    const PreparedScene scene(wallsAt({1.0f, 1.0f, 2.0f}));
    const HandTree tree = listLeafTree({0, 1, 2});
    const float origin[3] = {0, 0, 0};
    for (const LayeredRays& out : shootLayers(scene, tree.root(), origin, 3, [](int i) {
             return std::array<float, 3>{1.0f, 0.001f * float(i), 0.002f};
         })) {
        for (int i = 0; i < out.rays.count(); ++i) {
            EXPECT_EQ(out.triIndex[out.at(0, i)], 0) << "ray " << i;
            EXPECT_EQ(out.triIndex[out.at(1, i)], 2) << "ray " << i;
            EXPECT_EQ(out.dist[out.at(1, i)], 2.0f) << "ray " << i;
            EXPECT_EQ(out.triIndex[out.at(2, i)], -1) << "ray " << i;
        }
    }
}

TEST(LayersRules, RingOfEightEarlierHitsWrapsInLayerNine)
{
    // Eight copies of one triangle in the plane x = 1.5 + 0.5 (y - 1000), crossed at
    // y ~ 1000.7 along (~1, ~-4, dz), so den ~ 3. When the first hit rounds to a point just
    // before the plane, the next crossing lies at t ~ 4e-8, a third of an ulp in x and far
    // below one in y: the origin no longer moves, and the copies come one per layer, the
    // earlier ones excluded by the ring, until the ring is not consulted in layer 9 and copy
    // 0 comes back. The brute force takes the same steps, so every output must match it.
    Mesh mesh;
    for (int copy = 0; copy < 8; ++copy) {
        const int a = mesh.addVertex(-0.5f, 996, -2), b = mesh.addVertex(4.5f, 1006, -2);
        const int c = mesh.addVertex(1.5f, 1000, 4);
        mesh.addTriangle(a, b, c);
    }
    const PreparedScene scene(mesh);
    const HandTree tree = listLeafTree({0, 1, 2, 3, 4, 5, 6, 7});
    const float origin[3] = {1.75f, 1001, 1};
    int wraps = 0;
    for (int round = 0; round < 8; ++round) {
        for (LayeredRays& out : shootLayers(scene, tree.root(), origin, 10, [&](int i) {
                 return std::array<float, 3>{1.0f + 0.001f * float(i), -4.0f + 0.0007f * float(round),
                                             0.01f * float(i - 8)};
             })) {
            for (int i = 0; i < out.rays.count(); ++i) {
                const auto d = out.rays.direction(i);
                const auto ref = referenceLayers(scene.records, origin, d.data(), FLT_MAX, 10);
                wraps += ref[8].triangle == 0;
                for (int k = 0; k < 10; ++k) {
                    ASSERT_EQ(out.triIndex[out.at(k, i)], ref[size_t(k)].triangle)
                        << "round " << round << " ray " << i << " layer " << k;
                    if (ref[size_t(k)].distWritten) {
                        ASSERT_EQ(floatBits(out.dist[out.at(k, i)]), floatBits(ref[size_t(k)].dist))
                            << "round " << round << " ray " << i << " layer " << k;
                    }
                }
            }
        }
    }
    EXPECT_GT(wraps, 0) << "no ray came back to copy 0 in layer 9";
}

}  // namespace
