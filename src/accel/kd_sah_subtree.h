// The depth-first build of one subtree of the surface-area-heuristic tree, on one thread: the
// whole tree of the method bounded in splits, and each small subtree of the full-depth method.
#pragma once

#include <cstdint>

#include "kd_build_budget.h"
#include "kd_format.h"
#include "kd_sah_partition.h"
#include "vekr.h"

namespace vekr::accel {

// What maxDepth bounds: the splits of the whole tree (one counter that never goes back when
// the build returns to a pending node), or the inner nodes on each root-to-leaf path.
enum class SahDepthRule { SplitsInTree, SplitsOnPath };

struct SahTreeRules {
    SahDepthRule depthRule;
    uint32_t maxDepth;  // 0 to 50
    float gainFactor;   // sahGainFactor of the build's ratio
    // Nodes of this many triangles or more search their split in a parallel region.
    int32_t parallelMinTriangles;
    // When given, each triangle's extent by triangle number (findBestSplitBounded): the nodes
    // searched on one thread sweep only the axes that can win.
    const float* triangleBounds = nullptr;
};

// A pair of build nodes takes 8 words of a pool, its size with 8-byte pointers, on every target: the
// build then charges its budget alike on 32-bit x86 and x86-64, and a scene that runs out of
// budget on one runs out on the other.
constexpr int64_t kBuildPairWords = 8;
static_assert(2 * sizeof(BuildNode) <= 4 * kBuildPairWords);

// Turns node into a leaf holding its triangles, in kept.
Status makeSahLeaf(const SahNode& node, WordPool& kept, BuildNode& out);

// Whether the rules let a node with splitsAbove inner nodes above it, after splitsInTree splits
// of the whole tree so far, be split at all.
bool sahMaySplit(const SahNode& node, const SahTreeRules& rules, uint32_t splitsAbove,
                 uint32_t splitsInTree);

// best, or axis -1 (a leaf) when it has no axis or does not pay against the leaf.
SahSplit keepSplitIfPays(const SahNode& node, const SahTreeRules& rules, SahSplit best);

// Builds depth first, the lower child first, with the higher children waiting on an explicit
// stack. A lower child's lists are filtered in place over its parent's; a higher child's go
// to the stack pool, which is rewound when its subtree is done. Build nodes and leaf lists go
// to the kept pool.
//
// With a shared budget (subtrees built side by side, on pools of their own that charge no
// budget), the builder charges it for the kept words as they grow and, at the end, for the
// most words the subtree held on the stack pool.
class SahSubtreeBuilder {
public:
    // sides: one byte per triangle of the mesh, for the partitions (kd_sah_partition.h).
    SahSubtreeBuilder(const SahTreeRules& rules, WordPool& stack, WordPool& kept, uint8_t* sides,
                      SharedBudget* shared = nullptr)
        : rules_(rules),
          stack_(stack),
          kept_(kept),
          sides_(sides),
          shared_(shared),
          keptCharged_(kept.liveWords())
    {
    }

    // Builds the subtree of root (whose lists it overwrites) into out; splitsAbove inner nodes
    // lie above root. Leaves the stack pool rewound to where it was, on success and on
    // failure.
    Status build(const SahNode& root, uint32_t splitsAbove, BuildNode& out);

private:
    struct OpenNode {
        BuildNode* out;
        SahNode lists;
        uint32_t splitsAbove;
        WordPool::Mark listsEnd;  // the stack pool's mark after the node's lists
    };
    Status buildFrom(OpenNode node);
    Status split(OpenNode& node, const SahSplit& split, OpenNode& above);
    Status chargeKept(int64_t leastWords);

    const SahTreeRules& rules_;
    WordPool& stack_;
    WordPool& kept_;
    uint8_t* const sides_;
    SharedBudget* const shared_;
    int64_t keptCharged_;      // the kept pool's live words when shared_ was last charged
    uint32_t splitCount_ = 0;  // splits of this subtree
};

}  // namespace vekr::accel
