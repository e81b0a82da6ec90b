#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "accel/kd_build_budget.h"
#include "accel/kd_build_sah.h"
#include "accel/kd_format.h"
#include "ray/kd_traverse.h"
#include "support/float_bits.h"
#include "support/guard_buffer.h"
#include "support/kd_sah_reference.h"
#include "support/ray_scenes.h"
#include "vekcore.h"
#include "vekr.h"

using namespace vekr;
using namespace vekr::test;

namespace {

// --- Scenes ------------------------------------------------------------------------------

struct Scene {
    std::string name;
    Mesh mesh;
    std::optional<BoundBox> clip;  // passed as pBoundBox, and the rays' box
};

// Axis-aligned quads in the planes x = i and y = j of a unit grid, and cubes whose faces lie in
// those planes too: many flat triangles in the planes a sweep costs.
Mesh makeGridPlanes()
{
    Mesh mesh;
    auto quad = [&](int axis, float at, float u0, float v0, float u1, float v1) {
        int v[4];
        for (int c = 0; c < 4; ++c) {
            float p[3];
            p[axis] = at;
            p[(axis + 1) % 3] = c == 1 || c == 2 ? u1 : u0;
            p[(axis + 2) % 3] = c >= 2 ? v1 : v0;
            v[c] = mesh.addVertex(p[0], p[1], p[2]);
        }
        mesh.addTriangle(v[0], v[1], v[2]);
        mesh.addTriangle(v[0], v[2], v[3]);
    };
    for (int i = 0; i <= 4; ++i) {
        quad(0, float(i), 0.0f, 0.0f, float(1 + i % 3), 2.0f);
        quad(1, float(i), float(i % 2), 1.0f, 4.0f, 3.0f);
        quad(2, float(i) * 0.5f, 1.0f, 1.0f, 2.0f, 2.0f);  // stacked, same outline
    }
    for (int c = 0; c < 3; ++c)
        mesh = concatenate(mesh, makeBoxMesh(float(c), float(c) + 1.0f));
    return mesh;
}

std::vector<Scene> makeScenes()
{
    std::vector<Scene> scenes;
    scenes.push_back({"Soup", makeTriangleSoup(700, 5), std::nullopt});
    scenes.push_back(
        {"HeightFieldInBox", concatenate(makeHeightField(12, 3), makeBoxMesh(-1.5f, 1.5f)), {}});
    Mesh flat = makeTriangleSoup(300, 9);
    for (size_t i = 2; i < flat.vertices.size(); i += 3)
        flat.vertices[i] = 0.25f;
    scenes.push_back({"FlatInZ", flat, std::nullopt});
    scenes.push_back({"GridPlanes", makeGridPlanes(), std::nullopt});
    // Zero-area triangles of every kind among ordinary ones: a point, a repeated vertex,
    // collinear vertices along an axis and across.
    Mesh degenerate = makeTriangleSoup(200, 13);
    for (int i = 0; i < 40; ++i) {
        // Dyadic coordinates: the midpoint m of a and c is exact, so a, m, c are collinear.
        const float x = -1.0f + 0.0625f * float(i);
        const int a = degenerate.addVertex(x, 0.125f, -0.25f);
        const int b = degenerate.addVertex(x, 0.125f + 0.03125f * float(i % 5), -0.25f);
        const int c = degenerate.addVertex(x + 0.5f, 0.375f, 0.25f);
        const int m = degenerate.addVertex(x + 0.25f, 0.25f, 0.0f);
        degenerate.addTriangle(a, a, a);
        degenerate.addTriangle(a, b, b);
        degenerate.addTriangle(a, b, a);
        degenerate.addTriangle(a, m, c);
    }
    scenes.push_back({"Degenerate", degenerate, std::nullopt});
    scenes.push_back({"SoupPartlyOutsideBox", makeTriangleSoup(500, 21),
                      BoundBox{-0.6f, -0.9f, -0.5f, 0.7f, 0.5f, 0.8f}});
    return scenes;
}

// --- Builds ------------------------------------------------------------------------------

struct Tree {
    void* block = nullptr;
    int size = 0;
    Status status = StatusOk;
    Tree() = default;
    Tree(const Tree&) = delete;
    ~Tree() { vekrKDTreeFree(block); }
    const accel::KdNode* root() const { return static_cast<const accel::KdNode*>(block); }
};

struct BuildSettings {
    uint32_t method;
    uint32_t maxDepth;
    float ratio;
};

// The exported build, with the mesh between guard pages so no read strays past its arrays.
void buildExported(const Mesh& mesh, const BoundBox* clip, const BuildSettings& s, Tree& tree,
                   uint32_t memoryLimitMB = 256)
{
    GuardedArray<float> vertices(mesh.vertices.size(), FlushEnd::Back);
    GuardedArray<int> triangles(mesh.triangles.size(), FlushEnd::Front);
    vertices.copyFrom(mesh.vertices.data());
    triangles.copyFrom(mesh.triangles.data());
    const KDTreeBuildParams params{s.method, s.maxDepth, s.ratio, memoryLimitMB,
                                   clip ? &clip->minX : nullptr};
    tree.status =
        vekrKDTreeBuildAlloc(&tree.block, vertices.data(), triangles.data(), mesh.vertexCount(),
                             mesh.triangleCount(), &tree.size, &params);
}

// --- Tree walk ---------------------------------------------------------------------------

struct LeafCell {
    accel::Cell cell;
    std::vector<int32_t> triangles;
};

struct TreeShape {
    int innerNodes = 0;
    int deepestPath = 0;  // most inner nodes on one root-to-leaf path
    std::vector<LeafCell> leaves;
};

// Walks the block from the root cell, checking each inner node's split against its cell and
// every child pair and list against the block's extent.
void walk(const accel::KdNode* node, const Tree& tree, accel::Cell cell, int depth,
          TreeShape& shape)
{
    const char* begin = static_cast<const char*>(tree.block);
    const char* end = begin + tree.size;
    if (!accel::isLeaf(*node)) {
        ++shape.innerNodes;
        const int axis = accel::innerAxis(*node);
        const float split = accel::innerSplit(*node);
        ASSERT_LT(axis, 3);
        ASSERT_TRUE(split >= cell.lo[axis] && split <= cell.hi[axis])
            << "split " << split << " outside [" << cell.lo[axis] << ", " << cell.hi[axis] << "]";
        const accel::KdNode* children = accel::innerChildren(node);
        ASSERT_GT(accel::innerChildOffset(*node), 0);
        ASSERT_LE(reinterpret_cast<const char*>(children + 2), end);
        accel::Cell below = cell, above = cell;
        below.hi[axis] = split;
        above.lo[axis] = split;
        walk(children, tree, below, depth + 1, shape);
        walk(children + 1, tree, above, depth + 1, shape);
        return;
    }
    shape.deepestPath = std::max(shape.deepestPath, depth);
    const accel::LeafTriangles leaf = accel::decodeLeaf(node);
    if (leaf.list != nullptr) {
        ASSERT_GE(reinterpret_cast<const char*>(leaf.list), reinterpret_cast<const char*>(node));
        ASSERT_LE(reinterpret_cast<const char*>(leaf.list + leaf.count), end);
    }
    LeafCell out{cell, {}};
    for (int i = 0; i < leaf.count; ++i)
        out.triangles.push_back(leaf[i]);
    shape.leaves.push_back(std::move(out));
}

TreeShape walkTree(const Tree& tree, const accel::Cell& rootCell)
{
    TreeShape shape;
    walk(tree.root(), tree, rootCell, 0, shape);
    return shape;
}

accel::Cell vertexBounds(const Mesh& mesh, int t)
{
    accel::Cell c{{INFINITY, INFINITY, INFINITY}, {-INFINITY, -INFINITY, -INFINITY}};
    for (int i = 0; i < 3; ++i)
        for (int k = 0; k < 3; ++k) {
            const float x = mesh.vertices[3 * mesh.triangles[4 * t + i] + k];
            c.lo[k] = std::min(c.lo[k], x);
            c.hi[k] = std::max(c.hi[k], x);
        }
    return c;
}

accel::Cell rootCellOf(const Scene& scene)
{
    if (scene.clip) {
        const BoundBox& b = *scene.clip;
        return {{b.minX, b.minY, b.minZ}, {b.maxX, b.maxY, b.maxZ}};
    }
    accel::Cell root = vertexBounds(scene.mesh, 0);
    for (int t = 1; t < scene.mesh.triangleCount(); ++t) {
        const accel::Cell c = vertexBounds(scene.mesh, t);
        for (int k = 0; k < 3; ++k) {
            root.lo[k] = std::min(root.lo[k], c.lo[k]);
            root.hi[k] = std::max(root.hi[k], c.hi[k]);
        }
    }
    return root;
}

enum class Reach { No, Yes, EitherSide };

// Whether a triangle of these bounds must be listed in the cell: its bounds overlap the cell
// with positive length on every axis where they are not flat; flat on an axis, they lie
// inside the cell's slab. Lying flat in the cell's boundary plane, the triangle may have been
// given to the neighbour. A cell flat on an axis holds only triangles flat in its plane: the
// others reach the cell beside it too and are listed there.
Reach reachesCell(const accel::Cell& bounds, const accel::Cell& cell)
{
    Reach reach = Reach::Yes;
    for (int k = 0; k < 3; ++k) {
        const float a = bounds.lo[k], b = bounds.hi[k], lo = cell.lo[k], hi = cell.hi[k];
        if (a == b) {
            if (a < lo || a > hi) return Reach::No;
            if (a == lo || a == hi) reach = Reach::EitherSide;
        } else if (!(a < hi && b > lo) || lo == hi) {
            return Reach::No;
        }
    }
    return reach;
}

// Points of the triangle on a barycentric grid.
std::vector<std::array<double, 3>> samplePoints(const Mesh& mesh, int t)
{
    constexpr int kSteps = 6;
    std::vector<std::array<double, 3>> points;
    const auto p0 = mesh.vertex(mesh.triangles[4 * t]);
    const auto p1 = mesh.vertex(mesh.triangles[4 * t + 1]);
    const auto p2 = mesh.vertex(mesh.triangles[4 * t + 2]);
    for (int i = 0; i <= kSteps; ++i)
        for (int j = 0; i + j <= kSteps; ++j) {
            const double a = double(i) / kSteps, b = double(j) / kSteps, c = 1.0 - a - b;
            points.push_back({a * p0[0] + b * p1[0] + c * p2[0], a * p0[1] + b * p1[1] + c * p2[1],
                              a * p0[2] + b * p1[2] + c * p2[2]});
        }
    return points;
}

bool strictlyInside(const std::array<double, 3>& p, const accel::Cell& c)
{
    for (int k = 0; k < 3; ++k)
        if (!(p[k] > c.lo[k] && p[k] < c.hi[k])) return false;
    return true;
}

// Without a clip box the extents are the vertex bounds: a triangle is listed in a leaf exactly
// when it reaches the leaf's cell. With one, every triangle with a point strictly inside the
// cell must be listed, and only triangles whose bounds touch the cell may be.
void expectLeavesListReachingTriangles(const Scene& scene, const TreeShape& shape)
{
    const Mesh& mesh = scene.mesh;
    for (size_t l = 0; l < shape.leaves.size(); ++l) {
        const LeafCell& leaf = shape.leaves[l];
        std::vector<char> listed(size_t(mesh.triangleCount()), 0);
        for (int32_t t : leaf.triangles) {
            ASSERT_TRUE(t >= 0 && t < mesh.triangleCount()) << "leaf " << l;
            ASSERT_FALSE(listed[size_t(t)]) << "leaf " << l << " lists " << t << " twice";
            listed[size_t(t)] = 1;
        }
        for (int t = 0; t < mesh.triangleCount(); ++t) {
            const accel::Cell bounds = vertexBounds(mesh, t);
            if (!scene.clip) {
                const Reach reach = reachesCell(bounds, leaf.cell);
                if (reach == Reach::EitherSide) continue;
                ASSERT_EQ(bool(listed[size_t(t)]), reach == Reach::Yes)
                    << "leaf " << l << ", triangle " << t << " cell " << leaf.cell.lo[0] << ","
                    << leaf.cell.lo[1] << "," << leaf.cell.lo[2] << " - " << leaf.cell.hi[0] << ","
                    << leaf.cell.hi[1] << "," << leaf.cell.hi[2] << " tri " << bounds.lo[0] << ","
                    << bounds.lo[1] << "," << bounds.lo[2] << " - " << bounds.hi[0] << ","
                    << bounds.hi[1] << "," << bounds.hi[2];
                continue;
            }
            if (listed[size_t(t)]) {
                for (int k = 0; k < 3; ++k)
                    ASSERT_TRUE(bounds.lo[k] <= leaf.cell.hi[k] && bounds.hi[k] >= leaf.cell.lo[k])
                        << "leaf " << l << ", triangle " << t;
                continue;
            }
            for (const auto& p : samplePoints(mesh, t))
                ASSERT_FALSE(strictlyInside(p, leaf.cell)) << "leaf " << l << ", triangle " << t;
        }
    }
}

// --- Rays --------------------------------------------------------------------------------

ray::EyeRayBlock blockOf(EyeRays& rays)
{
    static thread_local const float* dir[3];
    for (int k = 0; k < 3; ++k)
        dir[k] = rays.dir[k].data();
    return {rays.origin,          dir,        rays.dist.data(), rays.u.data(), rays.v.data(),
            rays.triIndex.data(), rays.width, rays.height};
}

bool insideBox(const BoundBox& b, const float origin[3], const std::array<float, 3>& dir,
               float dist)
{
    const float* lo = &b.minX;
    for (int k = 0; k < 3; ++k) {
        const double x = double(origin[k]) + double(dist) * double(dir[k]);
        const double margin = 1e-3 * (double(lo[k + 3]) - double(lo[k]));
        if (!(x > lo[k] + margin && x < lo[k + 3] - margin)) return false;
    }
    return true;
}

// Nearest hits through the tree against those through the one-leaf tree. The triangle tests
// are the same, so wherever the nearest hit is unique both find the same triangle at the same
// distance, bit for bit. With a clip box only hits well inside it count: the one-leaf tree
// also finds hits outside, where the tree holds no triangles.
void expectSameNearestHits(const Scene& scene, const Tree& tree, const std::string& what)
{
    PreparedScene prepared(scene.mesh);
    if (scene.clip) prepared.box = *scene.clip;
    Tree simple;
    buildExported(scene.mesh, nullptr, {KDTreeBuildSimple, 0, 0.0f}, simple);
    ASSERT_EQ(simple.status, StatusOk);
    const ray::SceneView viaTree{&prepared.box.minX, prepared.records.data(), tree.root()};
    const ray::SceneView viaList{&prepared.box.minX, prepared.records.data(), simple.root()};
    const float outside[3] = {0.4f, -0.7f, 4.5f};
    const float inside[3] = {0.05f, 0.3f, 0.2f};
    int compared = 0, hits = 0;
    for (const float* origin : {outside, inside}) {
        EyeRays expected = makeMixedRays(scene.mesh, origin, 32, 24, 17);
        EyeRays actual = expected;
        ray::intersectEyeRaysSingle(viaList, blockOf(expected));
        ray::intersectEyeRaysSingle(viaTree, blockOf(actual));
        for (int i = 0; i < expected.count(); ++i) {
            const auto d = expected.direction(i);
            const bool decisive = expected.triIndex[i] < 0 || !scene.clip ||
                                  insideBox(*scene.clip, origin, d, expected.dist[i]);
            if (!decisive) {
                // Found by the list outside the box: the tree can only do as well or miss.
                EXPECT_GE(actual.dist[i], expected.dist[i]) << what << ", ray " << i;
                continue;
            }
            // On a shared edge or vertex, the triangle of the first cell visited wins.
            if (referenceNearestHit(scene.mesh, origin, d.data(), expected.maxDist[i]).ambiguous)
                continue;
            ++compared;
            hits += expected.triIndex[i] >= 0;
            ASSERT_EQ(actual.triIndex[i], expected.triIndex[i]) << what << ", ray " << i;
            ASSERT_EQ(floatBits(actual.dist[i]), floatBits(expected.dist[i]))
                << what << ", ray " << i;
        }
    }
    EXPECT_GT(compared, 600) << what;
    EXPECT_GT(hits, compared / 20) << what;
}

const uint32_t kSahMethods[] = {KDTreeBuildSah, KDTreeBuildSahFullDepth};

std::string methodName(uint32_t method)
{
    return method == KDTreeBuildSah ? "sah" : "full-depth";
}

// --- End to end --------------------------------------------------------------------------

TEST(KdBuildSah, NearestHitsMatchTheOneLeafTreeAndLeavesListWhatReachesThem)
{
    const BuildSettings settings[] = {{0, 50, 1.0f}, {0, 50, 0.0f}, {0, 7, 0.5f}};
    for (const Scene& scene : makeScenes())
        for (uint32_t method : kSahMethods)
            for (BuildSettings s : settings) {
                s.method = method;
                const std::string what = scene.name + ", " + methodName(method) + ", depth " +
                                         std::to_string(s.maxDepth) + ", ratio " +
                                         std::to_string(s.ratio);
                Tree tree;
                buildExported(scene.mesh, scene.clip ? &*scene.clip : nullptr, s, tree);
                ASSERT_EQ(tree.status, StatusOk) << what;
                const TreeShape shape = walkTree(tree, rootCellOf(scene));
                ASSERT_FALSE(testing::Test::HasFatalFailure()) << what;
                EXPECT_LE(shape.deepestPath, accel::kMaxInnerNodesOnPath) << what;
                if (method == KDTreeBuildSah)
                    EXPECT_LE(shape.innerNodes, int(s.maxDepth)) << what;
                else
                    EXPECT_LE(shape.deepestPath, int(s.maxDepth)) << what;
                EXPECT_GT(shape.innerNodes, 0) << what;
                expectLeavesListReachingTriangles(scene, shape);
                ASSERT_FALSE(testing::Test::HasFatalFailure()) << what;
                expectSameNearestHits(scene, tree, what);
            }
}

}  // namespace

namespace {

// --- Edge cases --------------------------------------------------------------------------

const int32_t* wordsOf(const Tree& tree)
{
    return static_cast<const int32_t*>(tree.block);
}

TEST(KdBuildSah, EdgeCasesOfTheCostModel)
{
    for (uint32_t method : kSahMethods) {
        const std::string what = methodName(method);
        {  // No triangles: the one-leaf tree's empty root.
            Tree tree;
            buildExported(Mesh{}, nullptr, {method, 50, 1.0f}, tree);
            ASSERT_EQ(tree.status, StatusOk) << what;
            EXPECT_EQ(tree.size, 16) << what;
            EXPECT_EQ(std::vector<int32_t>(wordsOf(tree), wordsOf(tree) + 4),
                      (std::vector<int32_t>{-16, 0, 0, 0}))
                << what;
        }
        {  // Depth 0: a root list leaf of every triangle in ascending order.
            Tree tree;
            const Mesh soup = makeTriangleSoup(5, 1);
            buildExported(soup, nullptr, {method, 0, 1.0f}, tree);
            ASSERT_EQ(tree.status, StatusOk) << what;
            EXPECT_EQ(std::vector<int32_t>(wordsOf(tree), wordsOf(tree) + 9),
                      (std::vector<int32_t>{-16, 5, 0, 0, 0, 1, 2, 3, 4}))
                << what;
        }
        {  // Triangles in z = 5 only: the flat axis is never split.
            Mesh flat = makeTriangleSoup(200, 3);
            for (size_t i = 2; i < flat.vertices.size(); i += 3)
                flat.vertices[i] = 5.0f;
            Tree tree;
            buildExported(flat, nullptr, {method, 50, 1.0f}, tree);
            ASSERT_EQ(tree.status, StatusOk) << what;
            const Scene scene{"flat", flat, std::nullopt};
            const TreeShape shape = walkTree(tree, rootCellOf(scene));
            for (const LeafCell& leaf : shape.leaves)
                EXPECT_EQ(leaf.cell.lo[2], leaf.cell.hi[2]) << what;
            EXPECT_GT(shape.innerNodes, 10) << what;
        }
        {  // Triangles in the upper 0.8 of the box in x: the first cut takes the empty space off
           // below them.
            Mesh soup = makeTriangleSoup(100, 8);
            float lowest = INFINITY;
            for (size_t i = 0; i < soup.vertices.size(); i += 3)
                lowest = std::min(lowest, soup.vertices[i]);
            const BoundBox box{lowest - 1.0f, -2.0f, -2.0f, 2.0f, 2.0f, 2.0f};
            Tree tree;
            buildExported(soup, &box, {method, 50, 1.0f}, tree);
            ASSERT_EQ(tree.status, StatusOk) << what;
            EXPECT_EQ(accel::innerAxis(*tree.root()), 0) << what;
            EXPECT_EQ(accel::innerSplit(*tree.root()), lowest) << what;
        }
    }
}

// --- Memory ------------------------------------------------------------------------------

uint32_t smallestBudgetMB(const Mesh& mesh)
{
    const uint64_t bytes = accel::sahRequiredBytes(mesh.vertexCount(), mesh.triangleCount());
    return uint32_t((bytes + (1u << 20) - 1) >> 20);
}

TEST(KdBuildSah, BudgetBelowTheRequirementIsRefusedBeforeAnyAllocation)
{
    const Mesh soup = makeTriangleSoup(3000, 4);  // 9000 vertices: needs 33 MB + 0.35 MB
    ASSERT_EQ(smallestBudgetMB(soup), 33u);
    const Mesh bigger = makeTriangleSoup(20000, 4);  // 60000 vertices: 35 MB
    ASSERT_EQ(smallestBudgetMB(bigger), 35u);
    for (uint32_t method : kSahMethods)
        for (const Mesh* mesh : {&soup, &bigger}) {
            const uint32_t enough = smallestBudgetMB(*mesh);
            for (uint32_t mb : {32u, enough - 1, enough}) {
                const long long live = vekGetLiveAllocationCount();
                vekFailNthAllocation(1);  // a refusal must not even try to allocate
                Tree tree;
                buildExported(*mesh, nullptr, {method, 50, 1.0f}, tree, mb);
                vekFailNthAllocation(0);
                if (mb < enough) {
                    EXPECT_EQ(tree.status, StatusNoMemory) << mb;
                    EXPECT_EQ(tree.block, nullptr) << mb;
                    EXPECT_EQ(vekGetLiveAllocationCount(), live) << mb;
                } else {
                    // The first allocation failed on purpose: the build got past the check.
                    EXPECT_EQ(tree.status, StatusNoMemory) << mb;
                    Tree ok;
                    buildExported(*mesh, nullptr, {method, 50, 1.0f}, ok, mb);
                    EXPECT_EQ(ok.status, StatusOk) << mb;
                }
            }
        }
}

TEST(KdBuildSah, EveryFailedAllocationIsNoMemoryWithNothingLeaked)
{
    // More triangles than a level split needs, so that the full depth's levels allocate too.
    const Mesh mesh = concatenate(makeTriangleSoup(accel::kSahLevelMinTriangles + 500, 6),
                                  makeBoxMesh(-2.0f, 2.0f));
    for (uint32_t method : kSahMethods) {
        int n = 1;
        for (;; ++n) {
            const long long live = vekGetLiveAllocationCount();
            vekFailNthAllocation(n);
            Tree tree;
            buildExported(mesh, nullptr, {method, 50, 1.0f}, tree);
            vekFailNthAllocation(0);
            if (tree.status == StatusOk) break;
            EXPECT_EQ(tree.status, StatusNoMemory) << n;
            EXPECT_EQ(tree.block, nullptr) << n;
            EXPECT_EQ(vekGetLiveAllocationCount(), live) << n;
        }
        EXPECT_GE(n, 4) << methodName(method);  // planes, two pools, the block
    }
}

}  // namespace

namespace {

// Thin triangles in the plane z = 0, half of them along x and half along y, crossing each other
// in a grid: the cost model splits down to cells of two or three triangles, and the tree's
// nodes and lists outgrow the two pool blocks the requirement pays for.
Mesh makeCrossingPlanks(int perAxis)
{
    Mesh mesh;
    const float length = 100.0f, pitch = length / float(perAxis);
    for (int i = 0; i < perAxis; ++i) {
        const float at = (float(i) + 0.5f) * pitch;
        mesh.addTriangle(mesh.addVertex(0.0f, at, 0.0f), mesh.addVertex(length, at, 0.0f),
                         mesh.addVertex(0.5f * length, at + 0.1f * pitch, 0.0f));
        mesh.addTriangle(mesh.addVertex(at, 0.0f, 0.0f), mesh.addVertex(at, length, 0.0f),
                         mesh.addVertex(at + 0.1f * pitch, 0.5f * length, 0.0f));
    }
    return mesh;
}

// Subtrees built side by side take scratch of their own, but the budget is charged the same
// for every team: the least budget that suffices is the same for 1, 2 and 3 threads, and one
// megabyte less runs out during the build, with nothing leaked.
TEST(KdBuildSah, BudgetRunningOutDuringTheBuildIsMemoryLimitForEveryThreadCount)
{
    const Mesh planks = makeCrossingPlanks(700);
    auto build = [&](int threads, uint32_t mb) {
        const int previous = vekGetNumThreads();
        vekSetNumThreads(threads);
        const long long live = vekGetLiveAllocationCount();
        Tree tree;
        buildExported(planks, nullptr, {KDTreeBuildSahFullDepth, 50, 1.0f}, tree, mb);
        vekSetNumThreads(previous);
        if (tree.status != StatusOk) {
            EXPECT_EQ(tree.block, nullptr);
            EXPECT_EQ(vekGetLiveAllocationCount(), live);
        }
        return tree.status;
    };
    // The smallest budget runs out, 64 MB more suffice: the last two checks confirm both.
    uint32_t fails = smallestBudgetMB(planks), suffices = fails + 64;
    while (suffices - fails > 1) {
        const uint32_t middle = (fails + suffices) / 2;
        (build(1, middle) == StatusOk ? suffices : fails) = middle;
    }
    for (int threads : {2, 3}) {
        EXPECT_EQ(build(threads, fails), StatusMemoryLimit) << threads << " threads";
        EXPECT_EQ(build(threads, suffices), StatusOk) << threads << " threads";
    }
}

}  // namespace

namespace {

// --- Against the plain build ----------------------------------------------------------

// An OFF file as the example renderer reads it: polygons fan-triangulated, comments and face
// colours skipped.
Mesh loadOffMesh(const std::string& path)
{
    std::ifstream in(path);
    std::vector<std::vector<double>> lines;  // the numbers of each line that has any
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::vector<double> numbers;
        for (double x; words >> x;)
            numbers.push_back(x);
        if (!numbers.empty()) lines.push_back(numbers);
    }
    Mesh mesh;
    if (lines.empty()) return mesh;
    const size_t vertexCount = size_t(lines[0][0]);
    for (size_t i = 1; i <= vertexCount && i < lines.size(); ++i)
        mesh.addVertex(float(lines[i][0]), float(lines[i][1]), float(lines[i][2]));
    for (size_t i = vertexCount + 1; i < lines.size(); ++i)
        for (size_t c = 3; c <= size_t(lines[i][0]); ++c)
            mesh.addTriangle(int(lines[i][1]), int(lines[i][c - 1]), int(lines[i][c]));
    return mesh;
}

// The scenes of the end-to-end test, and: every triangle twice, a height field sharing every
// vertex among six triangles (as a scanned surface does), bounds at -0, and the example
// renderer's pyramid.
std::vector<Scene> makeReferenceScenes()
{
    std::vector<Scene> scenes = makeScenes();
    const Mesh soup = makeTriangleSoup(150, 17);
    scenes.push_back({"Duplicates", concatenate(soup, soup), std::nullopt});
    scenes.push_back({"Scan", makeHeightField(40, 11), std::nullopt});
    // The root cell takes its bounds from the first triangle that reaches them: here -0 on
    // both sides (its x is -0, the least; its y ends at -0, the largest) while the other
    // triangles lie flat at +0 or reach it. -0 and +0 must count as one position.
    Mesh signedZeros;
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    auto addTriangle = [&](const float(&x)[3], const float(&y)[3]) {
        int v[3];
        for (int c = 0; c < 3; ++c)
            v[c] = signedZeros.addVertex(x[c], y[c], unit(rng));
        signedZeros.addTriangle(v[0], v[1], v[2]);
    };
    addTriangle({-0.0f, -0.0f, -0.0f}, {-1.0f, -0.5f, -0.0f});
    for (int i = 0; i < 300; ++i) {
        const bool flat = i % 3 == 0;
        addTriangle({flat ? 0.0f : unit(rng), flat ? 0.0f : unit(rng), flat ? 0.0f : unit(rng)},
                    {-unit(rng), -unit(rng), i % 4 == 0 ? 0.0f : -unit(rng)});
    }
    scenes.push_back({"SignedZeroBounds", signedZeros, std::nullopt});
    // Found by fuzzing against the plain build: a point at z = -0 and one other triangle; the
    // empty space above the point is cut at the cell's -0 bound, which was written as +0.
    Mesh pointAtZero;
    for (const auto& v :
         {std::array{0x1.0a066p-4f, 0x1.de05a8p-1f, -0x0p+0f},
          std::array{-0x1p+0f, -0x1p+0f, 0x1p+0f}, std::array{-0x1.a4205cp-1f, 0x1p+0f, -0x0p+0f}})
        pointAtZero.addVertex(v[0], v[1], v[2]);
    pointAtZero.addTriangle(0, 0, 0);
    pointAtZero.addTriangle(1, 2, 2);
    scenes.push_back({"SignedZeroCut", pointAtZero, std::nullopt});
    const Mesh pyramid = loadOffMesh(VEKR_EXAMPLE_DATA_DIR "/pyramid.off");
    EXPECT_EQ(pyramid.triangleCount(), 6);
    scenes.push_back({"Pyramid", pyramid, std::nullopt});
    return scenes;
}

TEST(KdBuildSah, BlockIsThatOfThePlainBuildForEveryMethodSettingAndBudget)
{
    const BuildSettings settings[] = {{0, 50, 1.0f}, {0, 50, 0.0f}, {0, 7, 0.5f}, {0, 0, 1.0f}};
    for (const Scene& scene : makeReferenceScenes())
        for (uint32_t method : kSahMethods)
            for (BuildSettings s : settings) {
                s.method = method;
                const BoundBox* clip = scene.clip ? &*scene.clip : nullptr;
                const ReferenceSahBuild reference(scene.mesh, clip ? &clip->minX : nullptr, method,
                                                  s.maxDepth, s.ratio);
                for (uint32_t mb : {smallestBudgetMB(scene.mesh), 256u}) {
                    const std::string what = scene.name + ", " + methodName(method) + ", depth " +
                                             std::to_string(s.maxDepth) + ", ratio " +
                                             std::to_string(s.ratio) + ", " + std::to_string(mb) +
                                             " MB";
                    Tree tree;
                    buildExported(scene.mesh, clip, s, tree, mb);
                    ASSERT_EQ(tree.status, StatusOk) << what;
                    const auto* bytes = static_cast<const uint8_t*>(tree.block);
                    ASSERT_EQ(std::vector<uint8_t>(bytes, bytes + tree.size), reference.bytes())
                        << what;
                }
            }
}

Status buildWith(const Mesh& mesh, const BoundBox* clip, uint32_t method, int threads,
                 int32_t parallelMinTriangles, int32_t levelMinTriangles, uint64_t budgetBytes,
                 std::vector<uint8_t>* bytes = nullptr)
{
    const int previous = vekGetNumThreads();
    vekSetNumThreads(threads);
    const accel::SahBuildOptions options{1.0f,
                                         50,
                                         budgetBytes,
                                         method == KDTreeBuildSah
                                             ? accel::SahDepthRule::SplitsInTree
                                             : accel::SahDepthRule::SplitsOnPath,
                                         parallelMinTriangles,
                                         levelMinTriangles};
    void* block = nullptr;
    int size = 0;
    const Status status = accel::buildKdTreeSah(
        {mesh.vertices.data(), mesh.triangles.data(), mesh.vertexCount(), mesh.triangleCount()},
        clip ? &clip->minX : nullptr, options, &block, &size);
    vekSetNumThreads(previous);
    if (bytes != nullptr && status == StatusOk)
        bytes->assign(static_cast<const uint8_t*>(block),
                      static_cast<const uint8_t*>(block) + size);
    vekrKDTreeFree(block);
    return status;
}

std::vector<uint8_t> buildBytes(const Mesh& mesh, const BoundBox* clip, uint32_t method,
                                int threads, int32_t parallelMinTriangles,
                                int32_t levelMinTriangles)
{
    std::vector<uint8_t> bytes;
    EXPECT_EQ(buildWith(mesh, clip, method, threads, parallelMinTriangles, levelMinTriangles,
                        uint64_t(512) << 20, &bytes),
              StatusOk);
    return bytes;
}

// The work shared in every way the build can: 1 to 3 threads; the split search in a parallel
// region or not; for the full depth, every node split level by level, none, or the large ones.
TEST(KdBuildSah, BlockIsThatOfThePlainBuildForEveryThreadCountAndSharingOfTheWork)
{
    const Mesh mesh = concatenate(concatenate(makeTriangleSoup(4000, 31), makeHeightField(30, 2)),
                                  makeGridPlanes());
    const BoundBox clip{-0.8f, -1.2f, -0.6f, 1.1f, 0.9f, 1.3f};
    for (uint32_t method : kSahMethods)
        for (const BoundBox* box : {static_cast<const BoundBox*>(nullptr), &clip}) {
            const ReferenceSahBuild reference(mesh, box ? &box->minX : nullptr, method, 50, 1.0f);
            ASSERT_GT(reference.bytes().size(), 1000u);
            for (int threads : {1, 2, 3})
                for (int32_t parallelMin : {accel::kSahParallelMinTriangles, INT32_MAX})
                    for (int32_t levelMin : {0, 300, accel::kSahLevelMinTriangles, INT32_MAX})
                        EXPECT_EQ(buildBytes(mesh, box, method, threads, parallelMin, levelMin),
                                  reference.bytes())
                            << methodName(method) << ", " << threads << " threads, parallel from "
                            << parallelMin << ", levels from " << levelMin
                            << (box ? ", clipped" : "");
        }
}

}  // namespace
