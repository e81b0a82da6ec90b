// The surface-area-heuristic build: nodes are split depth first, the lower child first, with
// the higher children waiting on an explicit stack; their triangle lists live on a stack of
// words that is rewound when a subtree is done. Leaves and build nodes go to a second pool
// that lasts until the tree is written out.
#include "kd_build_sah.h"

#include <algorithm>
#include <cstring>

#include "frame/scratch.h"
#include "kd_build_budget.h"
#include "kd_format.h"

namespace vekr::accel {

namespace {

// Per-triangle planes: six extent bounds, then per axis starts, ends and a sort buffer, then
// the copy of a list being partitioned.
constexpr int kExtentPlanes = 6;
constexpr int kKeyPlanes = 9;
constexpr int kPlaneCount = kExtentPlanes + kKeyPlanes + 1;

// A pair of build nodes takes 8 words, its size with 8-byte pointers, on every target: the
// build then charges its budget alike on 32-bit x86 and x86-64, and a scene that runs out of
// budget on one runs out on the other.
constexpr int64_t kPairWords = 8;
static_assert(2 * sizeof(BuildNode) <= 4 * kPairWords);

// A node whose subtree is still to be built: its list lies on the work stack from listStart
// up to listEnd.
struct OpenNode {
    BuildNode* node;
    Cell cell;
    const int32_t* list;
    int32_t count;
    uint32_t splitsAbove;  // inner nodes on the path from the root
    WordPool::Mark listStart, listEnd;
};

class SahBuilder {
public:
    SahBuilder(const SahBuildOptions& options, BuildBudget& budget)
        : options_(options),
          gainFactor_(sahGainFactor(options.ratio)),
          stack_(budget),
          kept_(budget)
    {
    }

    Status build(const MeshView& mesh, const float* clipBox, uint32_t* planes, BuildNode& root);

private:
    bool maySplit(const OpenNode& node) const
    {
        const uint32_t splits =
            options_.depthRule == SahDepthRule::SplitsInTree ? splitCount_ : node.splitsAbove;
        return splits < options_.maxDepth && node.count > 0;
    }
    Status split(OpenNode& node, const SahSplit& split, OpenNode& above);
    Status makeLeaf(const OpenNode& node);

    const SahBuildOptions& options_;
    const float gainFactor_;
    TriangleExtents extents_{};
    SahSearchScratch scratch_{};
    int32_t* partitionCopy_ = nullptr;
    WordPool stack_;  // lists of the open nodes
    WordPool kept_;   // build nodes and leaf lists
    uint32_t splitCount_ = 0;
};

Status SahBuilder::build(const MeshView& mesh, const float* clipBox, uint32_t* planes,
                         BuildNode& root)
{
    const int64_t n = mesh.triangleCount;
    for (int k = 0; k < 3; ++k) {
        extents_.lower[k] = reinterpret_cast<float*>(planes + k * n);
        extents_.upper[k] = reinterpret_cast<float*>(planes + (k + 3) * n);
        scratch_.starts[k] = planes + (kExtentPlanes + k) * n;
        scratch_.ends[k] = planes + (kExtentPlanes + 3 + k) * n;
        scratch_.sortBuffer[k] = planes + (kExtentPlanes + 6 + k) * n;
    }
    partitionCopy_ = reinterpret_cast<int32_t*>(planes + (kPlaneCount - 1) * n);

    Status status = StatusOk;
    const WordPool::Mark base = stack_.mark();
    int32_t* rootList = stack_.take(n, &status);
    if (rootList == nullptr) return status;
    OpenNode node{&root, {}, rootList, 0, 0, base, {}};
    node.count = computeTriangleExtents(mesh, clipBox, extents_, rootList, node.cell);
    stack_.rewind(base);
    stack_.take(node.count, &status);  // the same words again: no more than were taken
    node.listEnd = stack_.mark();

    // At most one waiting node per split on the current path, and at most 50 of those.
    OpenNode waiting[kMaxInnerNodesOnPath];
    int waitingCount = 0;
    for (;;) {
        SahSplit best;
        if (maySplit(node)) {
            best = findBestSplit({node.list, node.count, node.cell}, extents_, scratch_,
                                 options_.parallelMinTriangles);
            if (best.axis >= 0 && !sahSplitPays(sahLeafCost(node.cell, node.count), best.cost,
                                                node.count, gainFactor_))
                best.axis = -1;
        }
        if (best.axis >= 0) {
            status = split(node, best, waiting[waitingCount++]);
            if (status != StatusOk) return status;
            continue;  // on with the lower child
        }
        status = makeLeaf(node);
        if (status != StatusOk) return status;
        if (waitingCount == 0) return StatusOk;
        node = waiting[--waitingCount];
        stack_.rewind(node.listEnd);
    }
}

// Turns node into an inner node and itself into its lower child; above receives the higher
// one. A triangle goes to each side its trimmed extent reaches past the plane; one lying flat
// in the plane goes to the side the search chose. The sides' sizes must be the counts the
// sweep costed.
Status SahBuilder::split(OpenNode& node, const SahSplit& best, OpenNode& above)
{
    Status status = StatusOk;
    auto* children = reinterpret_cast<BuildNode*>(kept_.take(kPairWords, &status));
    if (children == nullptr) return status;
    node.node->kind = best.axis;
    node.node->split = best.position;
    node.node->children = children;
    ++splitCount_;

    std::memcpy(partitionCopy_, node.list, size_t(node.count) * 4);
    stack_.rewind(node.listStart);
    int32_t* listAbove = stack_.take(best.countAbove, &status);
    const WordPool::Mark endAbove = stack_.mark();
    int32_t* listBelow = listAbove != nullptr ? stack_.take(best.countBelow, &status) : nullptr;
    if (listBelow == nullptr) return status;

    const int axis = best.axis;
    const float lo = node.cell.lo[axis], hi = node.cell.hi[axis], plane = best.position;
    const float* lower = extents_.lower[axis];
    const float* upper = extents_.upper[axis];
    int32_t below = 0, aboveCount = 0;
    for (int32_t i = 0; i < node.count; ++i) {
        const int32_t t = partitionCopy_[i];
        const float start = std::max(lower[t], lo);
        const float end = std::min(upper[t], hi);
        const bool flat = start == end;
        const bool goesBelow = start < plane || (flat && start == plane && best.flatBelow);
        const bool goesAbove = flat ? !goesBelow : end > plane;
        if (goesBelow) {
            if (below == best.countBelow) return StatusBuildMismatch;
            listBelow[below++] = t;
        }
        if (goesAbove) {
            if (aboveCount == best.countAbove) return StatusBuildMismatch;
            listAbove[aboveCount++] = t;
        }
    }
    if (below != best.countBelow || aboveCount != best.countAbove) return StatusBuildMismatch;

    above = OpenNode{children + 1,         node.cell,      listAbove, aboveCount,
                     node.splitsAbove + 1, node.listStart, endAbove};
    above.cell.lo[axis] = plane;
    node = OpenNode{children, node.cell,    listBelow, below, node.splitsAbove + 1,
                    endAbove, stack_.mark()};
    node.cell.hi[axis] = plane;
    return StatusOk;
}

Status SahBuilder::makeLeaf(const OpenNode& node)
{
    node.node->kind = kBuildLeaf;
    node.node->count = node.count;
    node.node->list = nullptr;
    if (node.count == 0) return StatusOk;
    Status status = StatusOk;
    int32_t* list = kept_.take(node.count, &status);
    if (list == nullptr) return status;
    std::memcpy(list, node.list, size_t(node.count) * 4);
    node.node->list = list;
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

    // The control words and the planes: the requirement check has made room for both.
    BuildBudget budget(options.budgetBytes);
    const int64_t planeWords = int64_t(kPlaneCount) * mesh.triangleCount;
    if (planeWords > INT32_MAX) return StatusNoMemory;
    if (!budget.charge(kSahControlBytes + uint64_t(planeWords) * 4)) return StatusMemoryLimit;
    frame::ScratchArray<uint32_t> planes{int(planeWords)};
    if (!planes) return StatusNoMemory;

    // The leaf lists live in the builder's pools: emit before they are released.
    SahBuilder builder(options, budget);
    const Status status = builder.build(mesh, clipBox, planes.get(), root);
    if (status != StatusOk) return status;
    return emitKdTree(root, ppTree, pTreeSize);
}

}  // namespace vekr::accel
