// Level by level, with a barrier after each step: member 0 alone makes the decisions and the
// allocations (short steps), the whole team the searches, the subtrees and the partitions.
// Work items are handed out through one counter; what an item writes depends only on the
// item, never on the member that takes it.
#include "kd_sah_levels.h"

#include <algorithm>
#include <atomic>
#include <new>

#include "frame/parallel_region.h"
#include "kd_sah_partition.h"
#include "vekcore.h"

namespace vekr::accel {

namespace {

// The members' pools grow by blocks of this many words (1 MiB): subtrees are small.
constexpr int64_t kMemberBlockWords = int64_t(1) << 18;

// A node that the team splits at this level.
struct OpenNode {
    BuildNode* out;
    SahNode lists;
    SahSplit axes[3];
    SahSplit split;  // axis -1: a leaf
    BuildNode* children;
    SahNode below, above;
};

// A node whose whole subtree one member builds.
struct SubtreeJob {
    BuildNode* out;
    SahNode lists;
};

int64_t roundUp8(int64_t bytes)
{
    return (bytes + 7) & ~int64_t(7);
}

}  // namespace

struct SahLevelBuilder::Member {
    BuildBudget unlimited{UINT64_MAX};  // the shared budget is charged instead
    WordPool stack{unlimited, kMemberBlockWords};
    WordPool kept{unlimited, kMemberBlockWords};
    uint8_t* sides = nullptr;
    bool ownsSides = false;

    ~Member()
    {
        if (ownsSides) vekFree(sides);
    }
};

// The nodes of one level and the lists of the nodes (but the root's), in one block charged to
// the budget while it lives.
struct SahLevelBuilder::Level {
    OpenNode* open = nullptr;
    int32_t openCount = 0;
    SubtreeJob* jobs = nullptr;
    int32_t jobCount = 0;
    int32_t* listWords = nullptr;
    void* block = nullptr;
    uint64_t chargedBytes = 0;

    Status allocate(BuildBudget& budget, int32_t opens, int32_t subtrees, int64_t lists)
    {
        const int64_t openBytes = roundUp8(int64_t(sizeof(OpenNode)) * opens);
        const int64_t jobBytes = roundUp8(int64_t(sizeof(SubtreeJob)) * subtrees);
        const uint64_t bytes = uint64_t(openBytes + jobBytes + 4 * lists);
        if (!budget.charge(bytes)) return StatusMemoryLimit;
        block = bytes <= SIZE_MAX ? vekMalloc(size_t(bytes)) : nullptr;
        if (block == nullptr) {
            budget.refund(bytes);
            return StatusNoMemory;
        }
        chargedBytes = bytes;
        char* at = static_cast<char*>(block);
        open = reinterpret_cast<OpenNode*>(at);
        for (int32_t i = 0; i < opens; ++i)
            new (open + i) OpenNode{};
        jobs = reinterpret_cast<SubtreeJob*>(at + openBytes);
        listWords = reinterpret_cast<int32_t*>(at + openBytes + jobBytes);
        openCount = opens;
        jobCount = subtrees;
        return StatusOk;
    }

    void release(BuildBudget& budget)
    {
        if (block == nullptr) return;
        vekFree(block);
        budget.refund(chargedBytes);
        *this = Level{};
    }
};

// The state the members share during one build.
class SahLevelBuilder::Team {
public:
    Team(SahLevelBuilder& builder, const Level& first) : b_(builder), current_(first)
    {
        subtreeRules_.parallelMinTriangles = INT32_MAX;  // already on a team: never fork
    }
    ~Team()
    {
        current_.release(b_.budget_);
        next_.release(b_.budget_);
    }

    void run(int member);
    Status status() const { return Status(failure_.load()); }

private:
    template <class Fn>
    void forEachItem(int64_t count, Fn fn)
    {
        for (int64_t i; (i = nextItem_.fetch_add(1, std::memory_order_relaxed)) < count;)
            if (failure_.load(std::memory_order_relaxed) == StatusOk) fn(i);
    }
    void record(Status status)
    {
        int expected = StatusOk;
        if (status != StatusOk) failure_.compare_exchange_strong(expected, status);
    }
    void buildSubtree(int member, const SubtreeJob& job);
    void decideSplits();
    void layOutNextLevel();
    void advance();

    SahLevelBuilder& b_;
    SahTreeRules subtreeRules_ = b_.rules_;
    Level current_, next_;
    uint32_t depth_ = 0;
    std::atomic<int64_t> nextItem_{0};
    std::atomic<int> failure_{StatusOk};
    bool stop_ = false;  // written by member 0 only, between two barriers
};

// A member beyond those the pools were made for (the thread count changed in between) takes
// no work and only keeps to the barriers.
void SahLevelBuilder::Team::run(int member)
{
    const bool works = member < b_.memberCount_;
    for (;;) {
        // The open nodes' searches, one item per axis, then the subtrees, largest first.
        const int64_t searches = 3 * int64_t(current_.openCount);
        if (works) forEachItem(searches + current_.jobCount, [&](int64_t i) {
            if (i >= searches) return buildSubtree(member, current_.jobs[i - searches]);
            OpenNode& node = current_.open[i / 3];
            if (sahMaySplit(node.lists, b_.rules_, depth_, 0))
                node.axes[i % 3] = searchSplitAxis(node.lists, int(i % 3));
        });
#pragma omp barrier
        if (member == 0) decideSplits();
#pragma omp barrier
        if (stop_) break;
        // The partitions, one item per node: a member notes the sides of a node's triangles
        // in its own bytes, once to size the children and again to write their lists.
        uint8_t* sides = works ? b_.members_[member].sides : nullptr;
        if (works) forEachItem(current_.openCount, [&](int64_t i) {
            OpenNode& node = current_.open[i];
            if (node.split.axis < 0) return;
            classifySahSplit(node.lists, node.split, sides);
            record(sizeSahChildren(node.lists, node.split, sides, node.below, node.above));
        });
#pragma omp barrier
        if (member == 0) layOutNextLevel();
#pragma omp barrier
        if (stop_) break;
        if (works) forEachItem(current_.openCount, [&](int64_t i) {
            const OpenNode& node = current_.open[i];
            if (node.split.axis < 0) return;
            classifySahSplit(node.lists, node.split, sides);
            writeSahChildren(node.lists, sides, node.below, node.above);
        });
#pragma omp barrier
        if (member == 0) advance();
#pragma omp barrier
        if (stop_) break;
    }
}

void SahLevelBuilder::Team::buildSubtree(int member, const SubtreeJob& job)
{
    Member& pools = b_.members_[member];
    SahSubtreeBuilder builder(subtreeRules_, pools.stack, pools.kept, pools.sides, &b_.shared_);
    record(builder.build(job.lists, depth_, *job.out));
}

// Leaves get their lists and split nodes their pair of children, in member 0's kept pool.
void SahLevelBuilder::Team::decideSplits()
{
    WordPool& kept = b_.members_[0].kept;
    const int64_t keptBefore = kept.liveWords();
    for (int32_t i = 0; i < current_.openCount && failure_.load() == StatusOk; ++i) {
        OpenNode& node = current_.open[i];
        if (sahMaySplit(node.lists, b_.rules_, depth_, 0))
            node.split = keepSplitIfPays(node.lists, b_.rules_, chooseSplitAxis(node.axes));
        if (node.split.axis < 0) {
            record(makeSahLeaf(node.lists, kept, *node.out));
            continue;
        }
        Status status = StatusOk;
        auto* children = reinterpret_cast<BuildNode*>(kept.take(kBuildPairWords, &status));
        record(status);
        if (children == nullptr) break;
        node.out->kind = node.split.axis;
        node.out->split = node.split.position;
        node.out->children = children;
        node.children = children;
    }
    if (!b_.shared_.charge(uint64_t(kept.liveWords() - keptBefore) * 4)) record(StatusMemoryLimit);
    nextItem_.store(0);
    stop_ = failure_.load() != StatusOk;
}

// The children of the split nodes, in node order and the lower child first, become the next
// level: open nodes when they are large, subtrees otherwise.
void SahLevelBuilder::Team::layOutNextLevel()
{
    int32_t opens = 0, subtrees = 0;
    int64_t listWords = 0;
    const int32_t levelMin = b_.levelMinTriangles_;
    for (int32_t i = 0; i < current_.openCount; ++i) {
        const OpenNode& node = current_.open[i];
        if (node.split.axis < 0) continue;
        for (const SahNode* child : {&node.below, &node.above}) {
            listWords += sahNodeWords(child->count, child->eventCount);
            if (child->count >= levelMin)
                ++opens;
            else
                ++subtrees;
        }
    }
    if (opens + subtrees > 0 && failure_.load() == StatusOk)
        record(next_.allocate(b_.budget_, opens, subtrees, listWords));
    if (failure_.load() == StatusOk) {
        int32_t* lists = next_.listWords;
        int32_t openAt = 0, jobAt = 0;
        for (int32_t i = 0; i < current_.openCount; ++i) {
            OpenNode& node = current_.open[i];
            if (node.split.axis < 0) continue;
            SahNode* sides[2] = {&node.below, &node.above};
            for (int s = 0; s < 2; ++s) {
                SahNode& child = *sides[s];
                placeSahNode(lists, child);
                lists += sahNodeWords(child.count, child.eventCount);
                if (child.count >= levelMin) {
                    OpenNode& open = next_.open[openAt++];
                    open.out = node.children + s;
                    open.lists = child;
                } else {
                    next_.jobs[jobAt++] = SubtreeJob{node.children + s, child};
                }
            }
        }
    }
    nextItem_.store(0);
    stop_ = failure_.load() != StatusOk;
}

void SahLevelBuilder::Team::advance()
{
    current_.release(b_.budget_);
    current_ = next_;
    next_ = Level{};
    ++depth_;
    // Largest first, so that no member is left with a large subtree at the end.
    std::sort(current_.jobs, current_.jobs + current_.jobCount,
              [](const SubtreeJob& a, const SubtreeJob& c) { return a.lists.count > c.lists.count; });
    nextItem_.store(0);
    stop_ = failure_.load() != StatusOk || current_.openCount + current_.jobCount == 0;
}

SahLevelBuilder::SahLevelBuilder(const SahTreeRules& rules, int32_t levelMinTriangles,
                                 BuildBudget& budget, int32_t triangleCount, uint8_t* sides)
    : rules_(rules), levelMinTriangles_(levelMinTriangles), budget_(budget),
      triangleCount_(triangleCount), sides_(sides), shared_(budget)
{
}

SahLevelBuilder::~SahLevelBuilder()
{
    for (int i = 0; i < memberCount_; ++i)
        members_[i].~Member();
    vekFree(members_);
}

Status SahLevelBuilder::build(const SahNode& root, BuildNode& out)
{
    const int memberCount = std::max(1, ownGetNumThreads());
    members_ = static_cast<Member*>(vekMalloc(sizeof(Member) * size_t(memberCount)));
    if (members_ == nullptr) return StatusNoMemory;
    for (; memberCount_ < memberCount; ++memberCount_) {
        Member& member = *new (members_ + memberCount_) Member{};
        if (memberCount_ == 0) {
            member.sides = sides_;
            continue;
        }
        member.sides = static_cast<uint8_t*>(vekMalloc(size_t(triangleCount_)));
        if (member.sides == nullptr) return StatusNoMemory;
        member.ownsSides = true;
        std::fill(member.sides, member.sides + triangleCount_, uint8_t(0));
    }

    // The first level is the root, whose lists stay where they are.
    Level first;
    const bool open = root.count >= levelMinTriangles_;
    const Status status = first.allocate(budget_, open ? 1 : 0, open ? 0 : 1, 0);
    if (status != StatusOk) return status;
    if (open) {
        first.open[0].out = &out;
        first.open[0].lists = root;
    } else {
        first.jobs[0] = SubtreeJob{&out, root};
    }
    Team team(*this, first);
    frame::runParallelRegion([&](int member, int) { team.run(member); });
    return team.status();
}

}  // namespace vekr::accel
