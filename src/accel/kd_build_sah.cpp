// The surface-area-heuristic build: the triangles' extents and the root's events, sorted once
// per axis, then the tree. The method bounded in splits builds it depth first on the calling
// thread (its split counter follows that order); the full-depth method with the team
// (kd_sah_levels.h). Build nodes and leaf lists stay in pools until the tree is written out.
#include "kd_build_sah.h"

#include <algorithm>

#include "float_keys.h"
#include "frame/parallel_region.h"
#include "frame/scratch.h"
#include "kd_build_budget.h"
#include "kd_format.h"
#include "kd_sah_events.h"
#include "kd_sah_levels.h"

namespace vekr::accel {

namespace {

// Triangles are listed in parts of this many, side by side, then moved together.
constexpr int32_t kExtentPart = 1 << 12;

// Fills root (its lists in rootWords, laid out for two events per triangle and axis) from
// the mesh, in four steps: the parts' extents, side by side; their moving together; each
// axis's events; each axis's sort. The scratch comes from the stack pool and goes back to it:
// first the extents, then over them a sort buffer for each of up to three team members (a team
// of one touches only the first, where the extents were), and the parts' counts and bounds.
Status makeRoot(const MeshView& mesh, const float* clipBox, int32_t parallelMinTriangles,
                WordPool& stack, int32_t* rootWords, SahNode& root, float* triangleBounds)
{
    const int32_t n = mesh.triangleCount;
    root.count = n;
    for (int k = 0; k < 3; ++k)
        root.eventCount[k] = 2 * n;
    placeSahNode(rootWords, root);

    const int32_t parts = (n + kExtentPart - 1) / kExtentPart;
    const int64_t memberWords = 4 * int64_t(n) + kSortCountWords;
    const WordPool::Mark base = stack.mark();
    Status status = StatusOk;
    int32_t* scratch = stack.take(std::max(6 * int64_t(n), 3 * memberWords), &status);
    auto* partBounds = reinterpret_cast<float*>(stack.take(7 * int64_t(parts), &status));
    if (scratch == nullptr || partBounds == nullptr) return status;
    int32_t* partCounts = reinterpret_cast<int32_t*>(partBounds + 6 * int64_t(parts));
    TriangleExtents extents;
    for (int k = 0; k < 3; ++k) {
        extents.lower[k] = reinterpret_cast<float*>(scratch + k * int64_t(n));
        extents.upper[k] = reinterpret_cast<float*>(scratch + (k + 3) * int64_t(n));
    }

    auto listParts = [&](int member, int teamSize) {
        for (int32_t part = member; part < parts; part += teamSize) {
            const int32_t first = part * kExtentPart;
            TriangleExtents at;
            for (int k = 0; k < 3; ++k) {
                at.lower[k] = extents.lower[k] + first;
                at.upper[k] = extents.upper[k] + first;
            }
            float* bounds = partBounds + 6 * int64_t(part);
            resetBounds(bounds);
            partCounts[part] = listTriangles(mesh, clipBox, first, std::min(first + kExtentPart, n),
                                             at, root.list + first, bounds);
        }
    };
    // In part order: each part moves down, never over a part not yet moved.
    auto joinParts = [&] {
        float bounds[6];
        resetBounds(bounds);
        int32_t count = 0;
        for (int32_t part = 0; part < parts; ++part) {
            const int32_t first = part * kExtentPart, listed = partCounts[part];
            for (int k = 0; k < 3; ++k) {
                std::copy(extents.lower[k] + first, extents.lower[k] + first + listed,
                          extents.lower[k] + count);
                std::copy(extents.upper[k] + first, extents.upper[k] + first + listed,
                          extents.upper[k] + count);
                bounds[k] = std::min(bounds[k], partBounds[6 * part + k]);
                bounds[k + 3] = std::max(bounds[k + 3], partBounds[6 * part + k + 3]);
            }
            std::copy(root.list + first, root.list + first + listed, root.list + count);
            count += listed;
        }
        root.count = count;
        root.cell = rootCellOf(clipBox, bounds, count);
        if (triangleBounds != nullptr)
            for (int32_t i = 0; i < count; ++i) {
                float* at = triangleBounds + 6 * int64_t(root.list[i]);
                for (int k = 0; k < 3; ++k) {
                    at[k] = extents.lower[k][i];
                    at[k + 3] = extents.upper[k][i];
                }
            }
        markFlatTriangles(extents, root);
    };
    auto makeEvents = [&](int member, int teamSize) {
        for (int axis = member; axis < 3; axis += teamSize)
            makeRootEvents(extents, axis, root);
    };
    auto sortEvents = [&](int member, int teamSize) {
        for (int axis = member; axis < 3; axis += teamSize) {
            int32_t* words = scratch + int64_t(member) * memberWords;
            sortRootEvents(root, axis, reinterpret_cast<uint64_t*>(words),
                           reinterpret_cast<uint32_t*>(words + 4 * int64_t(n)));
        }
    };
    if (n >= parallelMinTriangles) {
        frame::runParallelRegion([&](int member, int teamSize) {
            listParts(member, teamSize);
#pragma omp barrier
            if (member == 0) joinParts();
#pragma omp barrier
            makeEvents(member, teamSize);
#pragma omp barrier
            sortEvents(member, teamSize);
        });
    } else {
        listParts(0, 1);
        joinParts();
        makeEvents(0, 1);
        sortEvents(0, 1);
    }
    stack.rewind(base);
    return StatusOk;
}

}  // namespace

Status buildKdTreeSah(const MeshView& mesh, const float* clipBox, const SahBuildOptions& options,
                      void** ppTree, int* pTreeSize)
{
    if (options.budgetBytes < sahRequiredBytes(mesh.vertexCount, mesh.triangleCount))
        return StatusNoMemory;
    BuildNode root{kBuildLeaf, {0}, {nullptr}};
    if (mesh.triangleCount == 0) return emitKdTree(root, ppTree, pTreeSize);

    // The control words, the root's lists and a byte per triangle for the partitions: the
    // requirement check has made room for them.
    BuildBudget budget(options.budgetBytes);
    if (mesh.triangleCount >= kMaxListedTriangles) return StatusNoMemory;
    const int32_t n = mesh.triangleCount;
    const int32_t rootEvents[3] = {2 * n, 2 * n, 2 * n};
    const int64_t rootWords = sahNodeWords(n, rootEvents);
    const int64_t sidesWords = (int64_t(n) + 7) / 8 * 2;
    if (!budget.charge(kSahControlBytes + uint64_t(rootWords + sidesWords) * 4))
        return StatusMemoryLimit;
    frame::ScratchArray<uint64_t> rootBlock{int((rootWords + sidesWords + 1) / 2)};
    if (!rootBlock) return StatusNoMemory;
    auto* sides = reinterpret_cast<uint8_t*>(rootBlock.get() + (rootWords + 1) / 2);
    std::fill(sides, sides + n, uint8_t(0));

    // The full depth keeps each triangle's extent by number, so that small nodes sweep only
    // the axes that can win (findBestSplitBounded). The bounded method keeps its own charges.
    const bool fullDepth = options.depthRule == SahDepthRule::SplitsOnPath;
    const int boundsCount = fullDepth ? 6 * n : 0;
    if (!budget.charge(uint64_t(boundsCount) * sizeof(float))) return StatusMemoryLimit;
    frame::ScratchArray<float> triangleBounds{boundsCount};
    if (fullDepth && !triangleBounds) return StatusNoMemory;

    WordPool stack(budget);
    SahNode rootLists{};
    Status status =
        makeRoot(mesh, clipBox, options.parallelMinTriangles, stack,
                 reinterpret_cast<int32_t*>(rootBlock.get()), rootLists, triangleBounds.get());
    if (status != StatusOk) return status;

    const SahTreeRules rules{options.depthRule, options.maxDepth, sahGainFactor(options.ratio),
                             options.parallelMinTriangles, triangleBounds.get()};
    // The leaf lists live in the builders' pools: emit before they are released.
    if (options.depthRule == SahDepthRule::SplitsInTree) {
        WordPool kept(budget);
        SahSubtreeBuilder builder(rules, stack, kept, sides);
        status = builder.build(rootLists, 0, root);
        return status != StatusOk ? status : emitKdTree(root, ppTree, pTreeSize);
    }
    SahLevelBuilder levels(rules, options.levelMinTriangles, budget, n, sides);
    status = levels.build(rootLists, root);
    return status != StatusOk ? status : emitKdTree(root, ppTree, pTreeSize, true);
}

}  // namespace vekr::accel
