// What the four intersection functions promise alike, over a table of them and their planes:
// nothing read or written past the block on either path, the packet path only for sides of
// four and every plane aligned, and nothing touched for an empty block.
#include <gtest/gtest.h>

#include <cfloat>
#include <cstdint>
#include <memory>
#include <tuple>
#include <vector>

#include "ray/kd_layers.h"
#include "ray/kd_many_origins.h"
#include "ray/kd_occlusion.h"
#include "ray/kd_traverse.h"
#include "support/guard_buffer.h"
#include "support/ray_scenes.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

const float kEye[3] = {0.1f, 0.2f, 3.0f};  // the shared origin, or the light
constexpr int kLayers = 3;

int32_t* ints(float* plane)
{
    return reinterpret_cast<int32_t*>(plane);
}

// One function through its planes of 4-byte elements (index and mask planes hold int32_t), in
// the order listed, so that runs of them serve as the functions' plane arrays; planes from
// `layeredFrom` on hold kLayers blocks of the rays.
struct IntersectFunction {
    const char* name;
    int planeCount, layeredFrom;
    bool heightField;  // scene: a triangle soup, or a height field in a box (rays cross it thrice)
    void (*fill)(const Mesh&, int w, int h, float* const* p);  // the inputs of a w x h block
    Status (*call)(float* const* p, int w, int h, const IntersectContext& context);
    bool (*packetPath)(float* const* p, int w, int h);  // the internal path choice
};

void copyTo(const AlignedVector<float>& v, float* plane)
{
    std::copy(v.begin(), v.end(), plane);
}

const IntersectFunction kFunctions[] = {
    {"EyeSO: dir x, y, z, dist, u, v, triIndex", 7, 7, false,
     [](const Mesh& mesh, int w, int h, float* const* p) {
         const EyeRays rays = makeMixedRays(mesh, kEye, w, h, 3);
         for (int k = 0; k < 3; ++k)
             copyTo(rays.dir[k], p[k]);
         copyTo(rays.maxDist, p[3]);
     },
     [](float* const* p, int w, int h, const IntersectContext& context) {
         return vekrIntersectEyeSO_32f(kEye, p, p[3], p + 4, ints(p[6]), &context, w, h);
     },
     [](float* const* p, int w, int h) {
         return ray::takesPacketPath({kEye, p, p[3], p[4], p[5], ints(p[6]), w, h});
     }},
    {"AnySO: dir x, y, z, triIndex, mask", 5, 5, false,
     [](const Mesh& mesh, int w, int h, float* const* p) {
         const Segments s = shadowSegments(mesh, kEye, w, h, 3);
         for (int k = 0; k < 3; ++k)
             copyTo(s.dir[k], p[k]);
         std::copy(s.maskIn.begin(), s.maskIn.end(), ints(p[4]));
     },
     [](float* const* p, int w, int h, const IntersectContext& context) {
         return vekrIntersectAnySO_32f(kEye, p, ints(p[3]), ints(p[4]), w, h, &context);
     },
     [](float* const* p, int w, int h) {
         return ray::takesOcclusionPacketPath({kEye, p, ints(p[3]), ints(p[4]), w, h});
     }},
    {"MO: origin x, y, z, dir x, y, z, dist, u, v, triIndex", 10, 10, false,
     [](const Mesh& mesh, int w, int h, float* const* p) {
         const OwnOriginRays rays = makeOwnOriginRays(mesh, w, h, 3);
         for (int k = 0; k < 3; ++k) {
             copyTo(rays.org[k], p[k]);
             copyTo(rays.dir[k], p[k + 3]);
         }
         copyTo(rays.maxDist, p[6]);
     },
     [](float* const* p, int w, int h, const IntersectContext& context) {
         return vekrIntersectMO_32f(p, p + 3, p[6], p + 7, ints(p[9]), &context, w, h);
     },
     [](float* const* p, int w, int h) {
         return ray::takesManyOriginsPacketPath({p, p + 3, p[6], p[7], p[8], ints(p[9]), w, h});
     }},
    {"MultipleSO: dir x, y, z, then per layer dist, u, v, triIndex", 7, 3, true,
     [](const Mesh&, int w, int h, float* const* p) {
         for (int i = 0; i < w * h; ++i) {  // down through the box, the height field and out
             p[0][i] = 0.03f * float(i % 5) - 0.1f;
             p[1][i] = -0.02f * float(i % 7);
             p[2][i] = -1.0f;
             p[3][i] = FLT_MAX;
         }
     },
     [](float* const* p, int w, int h, const IntersectContext& context) {
         return vekrIntersectMultipleSO_32f(kEye, p, p[3], p + 4, ints(p[6]), w, h, kLayers,
                                            &context);
     },
     [](float* const* p, int w, int h) {
         return ray::takesLayersPacketPath({kEye, p, p[3], p[4], p[5], ints(p[6]), w, h, kLayers});
     }},
};

// Every plane against a guard page at either end, on both paths (4 x 8 and 8 x 4 take the
// tiles, 7 x 3 and 1 x 1 single rays); layered rays reach the last layer.
TEST(IntersectContract, TouchesNothingPastTheBlock)
{
    const PreparedScene soup(makeTriangleSoup(60, 5));
    const PreparedScene field(makeTestScene(SceneKind::HeightFieldInBox));
    const MedianKdTree soupTree(soup.mesh, 8, 3), fieldTree(field.mesh, 10, 3);
    for (const IntersectFunction& f : kFunctions) {
        const IntersectContext context =
            f.heightField ? field.context(fieldTree.root()) : soup.context(soupTree.root());
        for (const auto& [w, h] : std::vector<std::pair<int, int>>{{8, 4}, {7, 3}, {1, 1}, {4, 8}})
            for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
                const size_t n = size_t(w * h);
                std::vector<std::unique_ptr<GuardedArray<float>>> guarded;
                std::vector<float*> p;
                for (int j = 0; j < f.planeCount; ++j) {
                    guarded.push_back(std::make_unique<GuardedArray<float>>(
                        j < f.layeredFrom ? n : n * kLayers, end));
                    p.push_back(guarded.back()->data());
                }
                f.fill(f.heightField ? field.mesh : soup.mesh, w, h, p.data());
                EXPECT_EQ(f.packetPath(p.data(), w, h), w % 4 == 0 && h % 4 == 0)
                    << f.name << ", " << w << " x " << h;
                EXPECT_EQ(f.call(p.data(), w, h, context), StatusOk) << f.name;
                if (f.layeredFrom < f.planeCount) {
                    EXPECT_GE(ints(p.back())[n * kLayers - 1], 0)
                        << w << " x " << h << ": last layer not reached";
                }
            }
    }
}

// Sides multiples of 4 and every plane 16-byte aligned; one plane off by one float, each in turn.
TEST(IntersectContract, PacketPathNeedsSidesOfFourAndEveryPlaneAligned)
{
    AlignedVector<float> storage(10 * 16);
    for (const IntersectFunction& f : kFunctions) {
        std::vector<float*> p;
        for (int j = 0; j < f.planeCount; ++j)
            p.push_back(storage.data() + 16 * j);
        for (const auto& [w, h, packet] : std::vector<std::tuple<int, int, bool>>{
                 {8, 4, true}, {4, 8, true}, {8, 5, false}, {6, 4, false}, {9, 4, false},
                 {2, 8, false}})
            EXPECT_EQ(f.packetPath(p.data(), w, h), packet) << f.name << ", " << w << " x " << h;
        for (int j = 0; j < f.planeCount; ++j) {
            std::vector<float*> shifted = p;
            shifted[size_t(j)] += 1;
            EXPECT_FALSE(f.packetPath(shifted.data(), 8, 4)) << f.name << ", plane " << j;
        }
    }
}

// Every pointer null, the context's too: a side (or the layer count) below 1 reads and writes
// nothing.
TEST(IntersectContract, EmptyBlocksTouchNothing)
{
    for (const auto& [w, h, layers] : std::vector<std::tuple<int, int, int>>{
             {0, 4, 3}, {4, 0, 3}, {-4, -4, 3}, {4, -1, 3}, {-4, 4, 3}, {4, 4, 0}, {4, 4, -2},
             {0, 0, 0}}) {
        EXPECT_EQ(vekrIntersectMultipleSO_32f(nullptr, nullptr, nullptr, nullptr, nullptr, w, h,
                                              layers, nullptr),
                  StatusOk)
            << w << " x " << h << " x " << layers;
        if (w > 0 && h > 0) continue;
        EXPECT_EQ(vekrIntersectEyeSO_32f(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, w, h),
                  StatusOk);
        EXPECT_EQ(vekrIntersectAnySO_32f(nullptr, nullptr, nullptr, nullptr, w, h, nullptr),
                  StatusOk);
        EXPECT_EQ(vekrIntersectMO_32f(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, w, h),
                  StatusOk);
    }
}

}  // namespace
