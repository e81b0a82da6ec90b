// One level after the other, each in two steps with a barrier after each:
//   1. the searches of the level's open nodes (one item per axis) and the subtrees of its small
//      nodes (one item each);
//   2. the open nodes' decisions and partitions (one item each): a split node's children get
//      a block of lists of their own and two slots of the next level, at places fixed by the
//      node's rank among the open nodes.
// Items are handed out through a counter; what an item writes depends only on the item, never
// on the member that takes it. A failure stops all further work but not the loop: its slots
// stay empty, so the levels run out the same way for every member.
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
// Levels of one build: the root's and one per split on a path.
constexpr int kMaxLevels = kMaxInnerNodesOnPath + 1;

enum class SlotKind : uint8_t { Empty, Open, Subtree };

// A node of a level.
struct Slot {
    SlotKind kind;
    BuildNode* out;
    SahNode lists;
    SahSplit axes[3];  // open nodes: each axis's best split
    void* block;       // the lists of this slot and the next, when this slot owns them
};

struct Level {
    Slot* slots = nullptr;
    int32_t count = 0;
    int32_t* openRanks = nullptr;  // per slot: its rank among the open slots
    int32_t openCount = 0;
    std::atomic<uint64_t> listBytes{0};  // the lists of the slots
};

}  // namespace

// Each member's pools on cache lines of their own (vekMalloc aligns to 64 bytes): the pools'
// counters change at every take.
struct alignas(64) SahLevelBuilder::Member {
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

// The state the members share during one build.
class SahLevelBuilder::Team {
public:
    explicit Team(SahLevelBuilder& builder) : b_(builder)
    {
        subtreeRules_.parallelMinTriangles = INT32_MAX;  // already on a team: never fork
    }
    ~Team()
    {
        for (Level& level : levels_)
            release(level);
    }

    Status start(const SahNode& root, BuildNode& out);
    void run(int member);
    Status status() const { return Status(failure_.load()); }

private:
    template <class Fn>
    void forEachItem(std::atomic<int64_t>& next, int64_t count, Fn fn)
    {
        for (int64_t i; (i = next.fetch_add(1, std::memory_order_relaxed)) < count;)
            if (failure_.load(std::memory_order_relaxed) == StatusOk) fn(i);
    }
    void record(Status status)
    {
        int expected = StatusOk;
        if (status != StatusOk) failure_.compare_exchange_strong(expected, status);
    }
    bool failed() const { return failure_.load(std::memory_order_relaxed) != StatusOk; }
    Status prepareNextLevel(uint32_t depth);
    void searchOrBuild(int member, uint32_t depth, int64_t item);
    void decideAndPartition(int member, uint32_t depth, int32_t slot);
    Status partition(Member& pools, uint32_t depth, Slot& slot, const SahSplit& split,
                     Slot* children);
    Status chargeLevelLists(uint32_t depth, uint64_t bytes);
    void release(Level& level);

    SahLevelBuilder& b_;
    SahTreeRules subtreeRules_ = b_.rules_;
    Level levels_[kMaxLevels + 1];
    std::atomic<int64_t> nextItem_[2] = {0, 0};  // by the step's parity
    std::atomic<int> failure_{StatusOk};
};

Status SahLevelBuilder::Team::start(const SahNode& root, BuildNode& out)
{
    Level& first = levels_[0];
    first.slots = static_cast<Slot*>(vekMalloc(sizeof(Slot)));
    if (first.slots == nullptr) return StatusNoMemory;
    first.count = 1;
    const SlotKind kind = root.count >= b_.levelMinTriangles_ ? SlotKind::Open : SlotKind::Subtree;
    new (first.slots) Slot{kind, &out, root, {}, nullptr};
    return StatusOk;
}

void SahLevelBuilder::Team::run(int member)
{
    // A member beyond those the pools were made for (the thread count changed in between)
    // takes no work and only keeps to the barriers.
    const bool works = member < b_.memberCount_;
    for (uint32_t depth = 0;; ++depth) {
        Level& level = levels_[depth];
        std::atomic<int64_t>& searchItems = nextItem_[0];
        std::atomic<int64_t>& partitionItems = nextItem_[1];
        if (member == 0) {
            // Nobody reads the last level any more, nor its lists.
            if (depth >= 1) release(levels_[depth - 1]);
            record(prepareNextLevel(depth));
            partitionItems.store(0);
        }
        // The searches of the open slots, one item per axis, then the subtrees.
        if (works)
            forEachItem(searchItems, 4 * int64_t(level.count),
                        [&](int64_t i) { searchOrBuild(member, depth, i); });
#pragma omp barrier
        if (member == 0) searchItems.store(0);
        if (works)
            forEachItem(partitionItems, level.count,
                        [&](int64_t i) { decideAndPartition(member, depth, int32_t(i)); });
#pragma omp barrier
        // Written before the barrier and not after: every member sees the same count.
        if (levels_[depth + 1].count == 0) break;
    }
}

// Ranks the open slots of the level and makes the next level's slots, two per open slot, all
// empty until the partitions fill them.
Status SahLevelBuilder::Team::prepareNextLevel(uint32_t depth)
{
    Level& level = levels_[depth];
    Level& next = levels_[depth + 1];
    if (level.count == 0 || failed()) return StatusOk;
    level.openRanks = static_cast<int32_t*>(vekMalloc(sizeof(int32_t) * size_t(level.count)));
    if (level.openRanks == nullptr) return StatusNoMemory;
    for (int32_t i = 0; i < level.count; ++i) {
        level.openRanks[i] = level.openCount;
        level.openCount += level.slots[i].kind == SlotKind::Open;
    }
    // A split on each path is one level deeper; the rules end every path by then.
    if (level.openCount == 0 || depth + 1 >= uint32_t(kMaxLevels)) return StatusOk;
    const uint64_t bytes = sizeof(Slot) * 2 * uint64_t(level.openCount);
    next.listBytes.store(bytes);
    if (!b_.shared_.raisePeak(SharedBudget::kLevelLists, level.listBytes.load() + bytes))
        return StatusMemoryLimit;
    next.slots = static_cast<Slot*>(vekMalloc(size_t(bytes)));
    if (next.slots == nullptr) return StatusNoMemory;
    for (int32_t i = 0; i < 2 * level.openCount; ++i)
        new (next.slots + i) Slot{SlotKind::Empty, nullptr, {}, {}, nullptr};
    next.count = 2 * level.openCount;
    return StatusOk;
}

void SahLevelBuilder::Team::searchOrBuild(int member, uint32_t depth, int64_t item)
{
    Level& level = levels_[depth];
    const int64_t searches = 3 * int64_t(level.count);
    if (item < searches) {
        Slot& slot = level.slots[item / 3];
        if (slot.kind == SlotKind::Open && sahMaySplit(slot.lists, b_.rules_, depth, 0))
            slot.axes[item % 3] = searchSplitAxis(slot.lists, int(item % 3));
        return;
    }
    Slot& slot = level.slots[item - searches];
    if (slot.kind != SlotKind::Subtree) return;
    Member& pools = b_.members_[member];
    SahSubtreeBuilder builder(subtreeRules_, pools.stack, pools.kept, pools.sides, &b_.shared_);
    record(builder.build(slot.lists, depth, *slot.out));
}

void SahLevelBuilder::Team::decideAndPartition(int member, uint32_t depth, int32_t index)
{
    Level& level = levels_[depth];
    Slot& slot = level.slots[index];
    if (slot.kind != SlotKind::Open) return;
    Member& pools = b_.members_[member];
    const int64_t keptBefore = pools.kept.liveWords();
    SahSplit split;
    if (sahMaySplit(slot.lists, b_.rules_, depth, 0))
        split = keepSplitIfPays(slot.lists, b_.rules_, chooseSplitAxis(slot.axes));
    Status status;
    if (split.axis < 0) {
        status = makeSahLeaf(slot.lists, pools.kept, *slot.out);
    } else {
        Slot* children = levels_[depth + 1].slots + 2 * int64_t(level.openRanks[index]);
        status = partition(pools, depth, slot, split, children);
    }
    if (status == StatusOk && !b_.shared_.charge(uint64_t(pools.kept.liveWords() - keptBefore) * 4))
        status = StatusMemoryLimit;
    record(status);
}

// Makes slot an inner node and fills its children's slots, their lists in a new block.
Status SahLevelBuilder::Team::partition(Member& pools, uint32_t depth, Slot& slot,
                                        const SahSplit& split, Slot* children)
{
    Status status = StatusOk;
    auto* pair = reinterpret_cast<BuildNode*>(pools.kept.take(kBuildPairWords, &status));
    if (pair == nullptr) return status;
    slot.out->kind = split.axis;
    slot.out->split = split.position;
    slot.out->children = pair;

    SahNode below{}, above{};
    classifySahSplit(slot.lists, split, pools.sides);
    status = sizeSahChildren(slot.lists, split, pools.sides, below, above);
    if (status != StatusOk) return status;
    const int64_t belowWords = sahNodeWords(below.count, below.eventCount);
    const uint64_t bytes = uint64_t(belowWords + sahNodeWords(above.count, above.eventCount)) * 4;
    status = chargeLevelLists(depth + 1, bytes);
    if (status != StatusOk) return status;
    auto* words = static_cast<int32_t*>(bytes <= SIZE_MAX ? vekMalloc(size_t(bytes)) : nullptr);
    if (words == nullptr) return StatusNoMemory;
    placeSahNode(words, below);
    placeSahNode(words + belowWords, above);
    writeSahChildren(slot.lists, pools.sides, below, above);

    const SahNode* lists[2] = {&below, &above};
    for (int s = 0; s < 2; ++s) {
        const SlotKind kind =
            lists[s]->count >= b_.levelMinTriangles_ ? SlotKind::Open : SlotKind::Subtree;
        children[s] = Slot{kind, pair + s, *lists[s], {}, s == 0 ? words : nullptr};
    }
    return StatusOk;
}

// The slots and lists of a level and of the next are alive together: their sum is charged at
// its largest over the levels, which does not depend on the order the partitions run in.
Status SahLevelBuilder::Team::chargeLevelLists(uint32_t depth, uint64_t bytes)
{
    const uint64_t levelBytes = levels_[depth].listBytes.fetch_add(bytes) + bytes;
    const uint64_t aboveBytes = levels_[depth - 1].listBytes.load();
    return b_.shared_.raisePeak(SharedBudget::kLevelLists, aboveBytes + levelBytes)
               ? StatusOk
               : StatusMemoryLimit;
}

void SahLevelBuilder::Team::release(Level& level)
{
    for (int32_t i = 0; i < level.count; ++i)
        vekFree(level.slots[i].block);
    vekFree(level.slots);
    vekFree(level.openRanks);
    level.slots = nullptr;
    level.openRanks = nullptr;
    level.count = 0;
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

    Team team(*this);
    const Status status = team.start(root, out);
    if (status != StatusOk) return status;
    frame::runParallelRegion([&](int member, int) { team.run(member); });
    return team.status();
}

}  // namespace vekr::accel
