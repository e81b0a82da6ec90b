#include "kd_sah_subtree.h"

#include "frame/parallel_region.h"
#include "kd_sah_partition.h"

namespace vekr::accel {

namespace {

// A subtree built on a shared budget charges its kept words in steps of this many.
constexpr int64_t kSharedChargeStepWords = 1 << 16;
// Nodes this many times larger than those that search in parallel also write their
// children's lists in parallel: a pass that only copies needs more work to pay for the team.
constexpr int32_t kParallelPartitionFactor = 64;

}  // namespace

Status makeSahLeaf(const SahNode& node, WordPool& kept, BuildNode& out)
{
    out.kind = kBuildLeaf;
    out.count = node.count;
    out.list = nullptr;
    if (node.count == 0) return StatusOk;
    Status status = StatusOk;
    int32_t* list = kept.take(node.count, &status);
    if (list == nullptr) return status;
    for (int32_t i = 0; i < node.count; ++i)
        list[i] = node.list[i] & kListTriangleMask;
    out.list = list;
    return StatusOk;
}

bool sahMaySplit(const SahNode& node, const SahTreeRules& rules, uint32_t splitsAbove,
                 uint32_t splitsInTree)
{
    const uint32_t splits =
        rules.depthRule == SahDepthRule::SplitsInTree ? splitsInTree : splitsAbove;
    return splits < rules.maxDepth && node.count > 0;
}

SahSplit keepSplitIfPays(const SahNode& node, const SahTreeRules& rules, SahSplit best)
{
    if (best.axis >= 0 &&
        !sahSplitPays(sahLeafCost(node.cell, node.count), best.cost, node.count, rules.gainFactor))
        best.axis = -1;
    return best;
}

Status SahSubtreeBuilder::build(const SahNode& root, uint32_t splitsAbove, BuildNode& out)
{
    const WordPool::Mark base = stack_.mark();
    stack_.resetPeak();
    Status status = buildFrom({&out, root, splitsAbove, base});
    if (status == StatusOk && shared_ != nullptr) {
        status = chargeKept(0);
        if (status == StatusOk &&
            !shared_->raisePeak(SharedBudget::kSubtreeStack,
                                uint64_t(stack_.peakWords() - base.liveWords) * 4))
            status = StatusMemoryLimit;
    }
    stack_.rewind(base);
    return status;
}

Status SahSubtreeBuilder::buildFrom(OpenNode node)
{
    // At most one waiting node per split on the current path, and at most 50 of those.
    OpenNode waiting[kMaxInnerNodesOnPath];
    int waitingCount = 0;
    for (;;) {
        SahSplit best;
        if (sahMaySplit(node.lists, rules_, node.splitsAbove, splitCount_)) {
            const bool bounded = rules_.triangleBounds != nullptr &&
                                 node.lists.count < rules_.parallelMinTriangles;
            best = keepSplitIfPays(
                node.lists, rules_,
                bounded ? findBestSplitBounded(node.lists, rules_.triangleBounds, rules_.gainFactor)
                        : findBestSplit(node.lists, rules_.parallelMinTriangles));
        }
        Status status;
        if (best.axis >= 0) {
            status = split(node, best, waiting[waitingCount++]);
            if (status != StatusOk) return status;
            continue;  // on with the lower child
        }
        status = makeSahLeaf(node.lists, kept_, *node.out);
        if (status == StatusOk) status = chargeKept(kSharedChargeStepWords);
        if (status != StatusOk) return status;
        if (waitingCount == 0) return StatusOk;
        node = waiting[--waitingCount];
        stack_.rewind(node.listsEnd);
    }
}

// Turns node into an inner node and itself into its lower child, whose lists overwrite its
// own; above receives the higher child, with its lists on top of the stack pool.
Status SahSubtreeBuilder::split(OpenNode& node, const SahSplit& best, OpenNode& above)
{
    Status status = StatusOk;
    auto* children = reinterpret_cast<BuildNode*>(kept_.take(kBuildPairWords, &status));
    if (children == nullptr) return status;
    node.out->kind = best.axis;
    node.out->split = best.position;
    node.out->children = children;
    ++splitCount_;

    SahNode below{}, higher{};
    if (rules_.triangleBounds != nullptr) {
        status =
            classifyAndSizeSahSplit(node.lists, best, rules_.triangleBounds, sides_, below, higher);
    } else {
        classifySahSplit(node.lists, best, sides_);
        status = sizeSahChildren(node.lists, best, sides_, below, higher);
    }
    if (status != StatusOk) return status;
    // A cut that leaves one side empty (empty space, flat triangles in the cell's face) hands
    // the other side the node's own lists, which are already what the partition would write.
    const bool oneSided = below.count == 0 || higher.count == 0;
    SahNode& whole = below.count == 0 ? higher : below;
    if (oneSided) {
        whole.list = node.lists.list;
        for (int k = 0; k < 3; ++k)
            whole.events[k] = node.lists.events[k];
    } else {
        int32_t* words = stack_.take(sahNodeWords(higher.count, higher.eventCount), &status);
        if (words == nullptr) return status;
        placeSahNode(words, higher);
        below.list = node.lists.list;
        for (int k = 0; k < 3; ++k)
            below.events[k] = node.lists.events[k];
        if (int64_t(node.lists.count) >=
            int64_t(rules_.parallelMinTriangles) * kParallelPartitionFactor) {
            frame::runParallelRegion([&](int member, int teamSize) {
                for (int part = member; part < kSahListParts; part += teamSize)
                    writeSahChildPart(node.lists, sides_, part, below, higher);
            });
        } else {
            writeSahChildren(node.lists, sides_, below, higher);
        }
    }

    above = OpenNode{children + 1, higher, node.splitsAbove + 1, stack_.mark()};
    node = OpenNode{children, below, node.splitsAbove + 1, {}};
    return StatusOk;
}

// Charges the shared budget for the kept words not yet charged, once there are leastWords.
Status SahSubtreeBuilder::chargeKept(int64_t leastWords)
{
    if (shared_ == nullptr) return StatusOk;
    const int64_t words = kept_.liveWords() - keptCharged_;
    if (words < leastWords || words == 0) return StatusOk;
    if (!shared_->charge(uint64_t(words) * 4)) return StatusMemoryLimit;
    keptCharged_ = kept_.liveWords();
    return StatusOk;
}

}  // namespace vekr::accel
