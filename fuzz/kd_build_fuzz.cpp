// Fuzzes the acceleration entry points: triangle records, the scene box and the KD-tree build by
// every method identifier (known or not) with random meshes, parameters, budgets and injected
// allocation failures. A tree the library builds is a valid input to the intersection
// functions, so a few rays are traced through it as well.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <vector>

#include "exact_buffers.h"
#include "fuzz_inputs.h"

using namespace vekr::fuzz;

namespace {

constexpr int kMaxVertices = 300;
constexpr int kMaxTriangles = 300;
constexpr uint32_t kMaxSplits = 50;  // the inner nodes a path may pass through

// The mesh: exact vertex and triangle arrays. Vertices lie on a small grid (coincident and
// collinear corners come often) or anywhere, with special values sprinkled in; every corner
// names a vertex of the mesh.
struct Mesh {
    int vertexCount = 0;
    int triangleCount = 0;
    float* vertices = nullptr;
    int* triangles = nullptr;
};

Mesh pickMesh(FuzzedDataProvider& in, ExactBlocks& blocks)
{
    Mesh m;
    m.vertexCount = in.ConsumeIntegralInRange<int>(0, kMaxVertices);
    m.triangleCount = m.vertexCount > 0 ? in.ConsumeIntegralInRange<int>(0, kMaxTriangles) : 0;
    m.vertices = blocks.take<float>(3 * std::size_t(m.vertexCount));
    m.triangles = blocks.take<int>(4 * std::size_t(m.triangleCount));
    const bool onGrid = !in.ConsumeBool();
    const float scale = pickReal<float>(in, 1e-3f, 100.0f);
    fillValues(in, m.vertices, 3 * std::size_t(m.vertexCount), [&](uint64_t r) {
        return onGrid ? float(r % 8) * scale : float(int64_t(r % 2001) - 1000) * 1e-2f * scale;
    });
    const auto vertexCount = uint64_t(m.vertexCount);
    fillValues(in, m.triangles, 4 * std::size_t(m.triangleCount),
               [&](uint64_t r) { return int(r % vertexCount); });
    // fillValues may have put any int somewhere: bring the corners back into the mesh.
    for (int t = 0; t < m.triangleCount; ++t)
        for (int c = 0; c < 3; ++c) {
            int& corner = m.triangles[4 * t + c];
            corner = int(uint32_t(corner) % uint32_t(m.vertexCount));
        }
    return m;
}

uint32_t pickMethod(FuzzedDataProvider& in)
{
    switch (in.ConsumeIntegralInRange<int>(0, 7)) {
        case 0:
        case 1:
            return KDTreeBuildSah;
        case 2:
        case 3:
            return KDTreeBuildSahFullDepth;
        case 4:
        case 5:
            return KDTreeBuildSimple;
        case 6:
            return 0;
        default:
            return in.ConsumeIntegral<uint32_t>();
    }
}

// The budget the build needs, rounded up to megabytes, and its neighbours and wrapping values.
uint32_t pickMemoryLimit(FuzzedDataProvider& in, const Mesh& m)
{
    const uint64_t required =
        12 * uint64_t(m.vertexCount) + 84 * uint64_t(m.triangleCount) + 33554676;
    const auto enough = uint32_t((required + (1u << 20) - 1) >> 20);
    const uint32_t values[] = {enough, enough + 1,    64,  enough - 1, 31, 32,
                               4096,   4096 + enough, 8192};
    if (rarely(in)) return in.ConsumeIntegral<uint32_t>();
    return values[in.ConsumeIntegralInRange<std::size_t>(0, std::size(values) - 1)];
}

// The status the documented checks give before a build starts, or StatusOk when it may start.
Status expectedCheckStatus(void** ppTree, const float* vertices, const int* triangles,
                           int vertexCount, int triangleCount, const int* pTreeSize,
                           const KDTreeBuildParams* params)
{
    if (!ppTree || !vertices || !triangles || !pTreeSize) return StatusNullPointer;
    if (vertexCount < 0 || triangleCount < 0) return StatusBadSize;
    if (!params) return StatusNullPointer;
    const uint32_t method = params->method;
    if (method != KDTreeBuildSimple && method != KDTreeBuildSah &&
        method != KDTreeBuildSahFullDepth)
        return StatusBadArgument;
    if (params->maxDepth > kMaxSplits) return StatusBadParameter;
    if (method == KDTreeBuildSimple) return StatusOk;
    if (params->ratio < 0.0f || params->ratio > 1.0f) return StatusBadParameter;
    if (uint32_t(params->memoryLimitMB << 19) < 0x1000000u) return StatusNoMemory;
    const uint64_t required = 12 * uint64_t(vertexCount) + 84 * uint64_t(triangleCount) + 33554676;
    if (uint64_t(uint32_t(params->memoryLimitMB << 20)) < required) return StatusNoMemory;
    return StatusOk;
}

// What the documented block format promises: every node and list inside the reported size,
// every index a triangle of the mesh, a known axis and a positive, 8-byte child offset.
struct TreeShape {
    int innerNodes = 0;
    int deepestPath = 0;  // inner nodes on the longest root-to-leaf path
};

int32_t wordAt(const std::vector<uint8_t>& block, std::size_t at)
{
    int32_t w;
    std::memcpy(&w, block.data() + at, 4);
    return w;
}

void requireTriangle(int64_t index, int triangleCount)
{
    require(index >= 0 && index < triangleCount, "a leaf names a triangle outside the mesh");
}

void walkNode(const std::vector<uint8_t>& block, std::size_t at, int depth, int triangleCount,
              TreeShape& shape)
{
    require(at % 8 == 0 && at + 8 <= block.size(), "a node lies outside the reported tree size");
    const int32_t w0 = wordAt(block, at), w1 = wordAt(block, at + 4);
    if (w0 >= 0) {
        require((w0 & 7) <= 2, "an inner node with an unknown axis");
        require(depth < int(kMaxSplits), "a path through more than 50 inner nodes");
        const std::size_t children = at + std::size_t(w0 & ~7);
        require((w0 & ~7) > 0 && children + 16 <= block.size(), "a child pair outside the tree");
        ++shape.innerNodes;
        shape.deepestPath = std::max(shape.deepestPath, depth + 1);
        walkNode(block, children, depth + 1, triangleCount, shape);
        walkNode(block, children + 8, depth + 1, triangleCount, shape);
        return;
    }
    if (w1 > 0) {
        const int64_t list = int64_t(at) - int64_t(w0 & ~3);
        require(list >= 16 && list + 4 * int64_t(w1) <= int64_t(block.size()),
                "a leaf list outside the reported tree size");
        for (int32_t i = 0; i < w1; ++i)
            requireTriangle(wordAt(block, std::size_t(list) + 4 * std::size_t(i)), triangleCount);
    } else if (w1 < 0) {
        const int count = w1 & 3;
        require(count >= 1, "a compact leaf of no triangles");
        const int64_t k = (w1 & 0x7FFFFFFC) >> 2;
        if (count < 3) {
            requireTriangle(w0 & 0x7FFFFFFF, triangleCount);
            if (count == 2) requireTriangle(k, triangleCount);
        } else {
            requireTriangle(k - ((w0 & 0x7FFFFFFF) >> 16), triangleCount);
            requireTriangle(k, triangleCount);
            requireTriangle(k + (w0 & 0xFFFF), triangleCount);
        }
    }
}

void checkTreeBlock(const void* tree, int treeSize, const Mesh& m, const KDTreeBuildParams& p)
{
    require(tree != nullptr && treeSize >= 16, "a built tree smaller than its root");
    // Copying every reported byte reads past the block if the size overstates it.
    std::vector<uint8_t> block(static_cast<std::size_t>(treeSize));
    std::memcpy(block.data(), tree, block.size());
    TreeShape shape;
    walkNode(block, 0, 0, m.triangleCount, shape);
    if (p.method == KDTreeBuildSimple)
        require(treeSize == 16 + 4 * m.triangleCount && shape.innerNodes == 0,
                "the simple build is not one list leaf of every triangle");
    if (p.method == KDTreeBuildSah)
        require(uint32_t(shape.innerNodes) <= p.maxDepth, "more splits in the tree than maxDepth");
    if (p.method == KDTreeBuildSahFullDepth)
        require(uint32_t(shape.deepestPath) <= p.maxDepth, "more splits on a path than maxDepth");
}

void requireHitIndices(const int32_t* triIndex, std::size_t n, int triangleCount)
{
    for (std::size_t i = 0; i < n; ++i)
        require(triIndex[i] >= -1 && triIndex[i] < triangleCount,
                "an intersection reports a triangle outside the mesh");
}

// One block of rays through each intersection function, aimed at points of the scene box so
// that most reach the tree. Sides of 4 or 8 on 64-byte aligned planes take the packet paths.
void traceRays(FuzzedDataProvider& in, Fence fence, const float box[6],
               const TriangleAccel* records, const void* tree, int triangleCount)
{
    auto side = [&] {
        return in.ConsumeBool() ? 4 * in.ConsumeIntegralInRange<int>(1, 2)
                                : in.ConsumeIntegralInRange<int>(1, 8);
    };
    const int width = side(), height = side();
    const int layers = in.ConsumeIntegralInRange<int>(1, 4);
    const auto n = std::size_t(width) * std::size_t(height);
    ExactBlocks rays(fence);
    // Points between the box's corners, widened by its extent (a box of infinite or NaN
    // extent: the unit cube).
    auto between = [&](int k, uint64_t r) {
        float lo = box[k], hi = box[k + 3];
        if (!std::isfinite(hi - lo)) lo = -1.0f, hi = 1.0f;
        return lo - (hi - lo) + 3.0f * (hi - lo) * float(r % 1024) / 1024.0f;
    };
    float origin[3];
    const uint64_t originBits = in.ConsumeIntegral<uint64_t>();
    for (int k = 0; k < 3; ++k)
        origin[k] = between(k, originBits >> (16 * k));
    float* originPlanes[3];
    float* dir[3];
    for (int k = 0; k < 3; ++k) {
        originPlanes[k] = rays.take<float>(n);
        dir[k] = rays.take<float>(n);
        fillValues(in, originPlanes[k], n, [&](uint64_t r) { return between(k, r); });
        fillValues(in, dir[k], n, [&](uint64_t r) { return between(k, r) - origin[k]; });
    }
    float* dist = rays.take<float>(n * std::size_t(layers));
    std::fill(dist, dist + n, in.ConsumeBool() ? FLT_MAX : pickReal(in, 0.0f, 4.0f));
    float* uv[2] = {rays.take<float>(n * std::size_t(layers)),
                    rays.take<float>(n * std::size_t(layers))};
    int32_t* tri = rays.take<int32_t>(n * std::size_t(layers));
    int32_t* mask = rays.take<int32_t>(n);
    fillValues(in, mask, n, [](uint64_t r) { return r % 4 == 0 ? -1 : 0; });

    const IntersectContext context{box, records, tree};
    vekrIntersectEyeSO_32f(origin, dir, dist, uv, tri, &context, width, height);
    requireHitIndices(tri, n, triangleCount);
    vekrIntersectAnySO_32f(origin, dir, tri, mask, width, height, &context);
    requireHitIndices(tri, n, triangleCount);
    std::fill(dist, dist + n, FLT_MAX);
    vekrIntersectMO_32f(originPlanes, dir, dist, uv, tri, &context, width, height);
    requireHitIndices(tri, n, triangleCount);
    std::fill(dist, dist + n, FLT_MAX);
    vekrIntersectMultipleSO_32f(origin, dir, dist, uv, tri, width, height, layers, &context);
    requireHitIndices(tri, n * std::size_t(layers), triangleCount);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    pickThreadCount(in);
    const Fence fence = pickFence(in);
    ExactBlocks blocks(fence);
    const Mesh m = pickMesh(in, blocks);

    int recordBytes = -1;
    int* recordSizeOut = maybeNull(in, &recordBytes);
    requireStatus(vekrTriangleAccelGetSize(recordSizeOut),
                  recordSizeOut ? StatusOk : StatusNullPointer, "vekrTriangleAccelGetSize");
    require(!recordSizeOut || recordBytes == int(sizeof(TriangleAccel)), "record size is not 40");

    float* box = blocks.take<float>(6);
    const float* boxVertices = maybeNull(in, static_cast<const float*>(m.vertices));
    const auto beforeBox = blocks.snapshot();
    const Status boxStatus = vekrSetBoundBox_32f(boxVertices, m.vertexCount, box);
    requireStatus(boxStatus, boxVertices ? StatusOk : StatusNullPointer, "vekrSetBoundBox_32f");
    require(boxVertices || blocks.unchangedSince(beforeBox), "a refused box call wrote");

    TriangleAccel* records = blocks.take<TriangleAccel>(std::size_t(m.triangleCount));
    requireStatus(vekrTriangleAccelInit(records, m.vertices, m.triangles, m.triangleCount),
                  StatusOk, "vekrTriangleAccelInit");

    KDTreeBuildParams params{pickMethod(in), 0, 0.0f, pickMemoryLimit(in, m), nullptr};
    params.maxDepth = rarely(in) ? in.ConsumeIntegral<uint32_t>()
                                 : in.ConsumeIntegralInRange<uint32_t>(0, kMaxSplits + 1);
    params.ratio = pickReal(in, 0.0f, 1.0f);
    float* ownBox = blocks.take<float>(6);
    fillValues(in, ownBox, 6, [&](uint64_t r) { return box[r % 6]; });
    // The scene's own box, none (the vertices' box) or any box, even one that misses the mesh.
    const float* const boxChoices[3] = {box, nullptr, ownBox};
    params.pBoundBox = boxChoices[in.ConsumeIntegralInRange<int>(0, 2)];

    const int vertexCount = rarely(in) ? pickCount(in, kMaxVertices) : m.vertexCount;
    const int triangleCount = rarely(in) ? pickCount(in, kMaxTriangles) : m.triangleCount;
    void* tree = reinterpret_cast<void*>(uintptr_t(0x5EED));  // sentinels for "untouched"
    int treeSize = -12345;
    void** treeOut = maybeNull(in, &tree);
    int* treeSizeOut = maybeNull(in, &treeSize);
    const float* vertices = maybeNull(in, static_cast<const float*>(m.vertices));
    const int* triangles = maybeNull(in, static_cast<const int*>(m.triangles));
    const KDTreeBuildParams* paramsIn =
        maybeNull(in, static_cast<const KDTreeBuildParams*>(&params));
    // Counts that differ from the arrays' are only passed where no array is read.
    const Status expected = expectedCheckStatus(treeOut, vertices, triangles, vertexCount,
                                                triangleCount, treeSizeOut, paramsIn);
    const bool countsHonest = vertexCount == m.vertexCount && triangleCount == m.triangleCount;
    if (expected == StatusOk && !countsHonest &&
        !(params.method == KDTreeBuildSimple && vertexCount >= 0 && triangleCount >= 0 &&
          triangleCount <= kMaxTriangles))
        return 0;

    const int failAt = rarely(in) ? in.ConsumeIntegralInRange<int>(1, 40) : 0;
    const long long liveBefore = vekGetLiveAllocationCount();
    vekFailNthAllocation(failAt);
    const Status status = vekrKDTreeBuildAlloc(treeOut, vertices, triangles, vertexCount,
                                               triangleCount, treeSizeOut, paramsIn);
    vekFailNthAllocation(0);

    if (expected != StatusOk) {
        requireStatus(status, expected, "vekrKDTreeBuildAlloc");
    } else if (status != StatusOk) {
        // A build that started may still fail: memory refused by the injected failure, the
        // budget outgrown during the build.
        require(status == StatusNoMemory || status == StatusMemoryLimit,
                "vekrKDTreeBuildAlloc failed a build with an undocumented status");
        require(status != StatusNoMemory || failAt > 0, "StatusNoMemory with memory to spare");
    }
    if (status != StatusOk) {
        require(tree == reinterpret_cast<void*>(uintptr_t(0x5EED)) && treeSize == -12345,
                "a failed build wrote its outputs");
        require(vekGetLiveAllocationCount() == liveBefore, "a failed build leaked");
        return 0;
    }
    require(vekGetLiveAllocationCount() == liveBefore + 1, "a build holds more than its tree");
    Mesh built = m;
    built.triangleCount = triangleCount;
    checkTreeBlock(tree, treeSize, built, params);
    if (countsHonest && params.pBoundBox != ownBox && m.vertexCount > 0)
        traceRays(in, fence, box, records, tree, m.triangleCount);
    requireStatus(vekrKDTreeFree(tree), StatusOk, "vekrKDTreeFree");
    requireStatus(vekrKDTreeFree(nullptr), StatusOk, "vekrKDTreeFree(null)");
    require(vekGetLiveAllocationCount() == liveBefore, "the freed tree is still counted");
    return 0;
}
