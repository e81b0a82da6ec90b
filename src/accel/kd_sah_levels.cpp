// The levels are worked through without barriers. Each level passes three stages:
//   ready        its slots are final: the searches of its open nodes (one item per axis) and
//                its subtrees (one item each) may start;
//   searched     every search is done: the decisions and partitions (one item per open node)
//                may start; a split node's children get lists in the next level's chunks
//                and two slots of the next level, at places fixed by the node's rank;
//   partitioned  the next level is ready.
// A member takes the current level's searches or partitions when there are any, and subtrees
// of any ready level otherwise, so that nobody waits at the end of a level while the
// subtrees are still to be built. The member that completes the last item of a stage opens
// the next; the one that completes the last item of a level (its partitions and subtrees)
// hands its chunks on to later levels. A team of one builds the subtrees of the levels above
// the current one first: their lists are then spent before the next level's are written,
// which take over their chunks instead of fresh memory. What an item writes depends only on
// the item, never on the member that takes it. A failure stops all further work but not the
// counting, so the levels still run out.
#include "kd_sah_levels.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>
#include <thread>

#include "frame/parallel_region.h"
#include "kd_sah_partition.h"
#include "vekcore.h"

namespace vekr::accel {

namespace {

// The members' pools grow by blocks of this many words (1 MiB): subtrees are small.
constexpr int64_t kMemberBlockWords = int64_t(1) << 18;
// Nodes below this many triangles search their three axes as one item of their level.
constexpr int32_t kSahWholeSearchMaxTriangles = 16384;
// A level's lists are carved from chunks of at least this many bytes.
constexpr uint64_t kListChunkBytes = uint64_t(1) << 20;
// Levels of one build: the root's and one per split on a path.
constexpr int kMaxLevels = kMaxInnerNodesOnPath + 1;

enum class SlotKind : uint8_t { Empty, Open, Subtree };

// A node of a level.
struct Slot {
    SlotKind kind;
    BuildNode* out;
    SahNode lists;
    SahSplit axes[3];  // open nodes: each axis's best split
};

// The header of a chunk of lists; the lists follow it, 8-byte aligned (on 32-bit x86 too,
// where a uint64_t member alone would align the header to 4 bytes).
struct alignas(8) ListChunk {
    ListChunk* next;
    uint64_t capacityBytes;
    uint64_t usedBytes;
};
static_assert(sizeof(ListChunk) % 8 == 0);

enum LevelStage : int { kWaiting, kReady, kSearched, kPartitioned };

struct Level {
    Slot* slots = nullptr;
    int32_t count = 0;
    int32_t* openRanks = nullptr;  // per slot: its rank among the open slots
    int32_t openCount = 0;
    ListChunk* chunks = nullptr;  // the lists of the level's slots; the first is being filled
    std::atomic<uint64_t> listBytes{0};  // the slots and lists of the level
    std::atomic<int> stage{kWaiting};
    // Item cursors and the items done, per kind.
    std::atomic<int64_t> nextSearch{0}, searchesDone{0};
    std::atomic<int64_t> nextPartition{0}, partitionsDone{0};
    std::atomic<int64_t> nextSubtree{0};
    std::atomic<int64_t> unfinished{0};  // partition and subtree items still to complete
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
        while (spareChunks_ != nullptr) {
            ListChunk* next = spareChunks_->next;
            vekFree(spareChunks_);
            spareChunks_ = next;
        }
    }

    Status start(const SahNode& root, BuildNode& out);
    void run(int member);
    Status status() const { return Status(failure_.load()); }

private:
    void record(Status status)
    {
        int expected = StatusOk;
        if (status != StatusOk) failure_.compare_exchange_strong(expected, status);
    }
    bool failed() const { return failure_.load(std::memory_order_relaxed) != StatusOk; }
    void open(uint32_t depth);
    bool takeLevelItem(int member, uint32_t depth);
    bool takeSubtree(int member, bool aboveCurrentOnly);
    void completeSearch(uint32_t depth);
    void completeLevelItem(uint32_t depth);
    Status prepareNextLevel(uint32_t depth);
    // Whether a node's three axes are searched by one item: always on a team of one, where
    // there is nobody to share them with; otherwise for nodes small enough that each level
    // has more of them than the team has members.
    bool searchedWhole(const SahNode& node) const
    {
        return b_.rules_.triangleBounds != nullptr &&
               (b_.memberCount_ == 1 || node.count < kSahWholeSearchMaxTriangles);
    }
    void search(uint32_t depth, int64_t item);
    void buildSubtree(int member, uint32_t depth, Slot& slot);
    void decideAndPartition(int member, uint32_t depth, int32_t slot);
    Status partition(Member& pools, uint32_t depth, Slot& slot, const SahSplit& split,
                     Slot* children);
    Status chargeLevelLists(uint32_t depth, uint64_t bytes);
    void* takeLevelLists(uint32_t depth, uint64_t bytes);
    void release(Level& level);

    SahLevelBuilder& b_;
    SahTreeRules subtreeRules_ = b_.rules_;
    Level levels_[kMaxLevels + 1];
    std::atomic<uint32_t> current_{0};         // the deepest level opened
    std::atomic<uint32_t> oldestSubtrees_{0};  // no subtrees are left above this level
    std::atomic<int> unreleasedLevels_{0};
    std::atomic<int> failure_{StatusOk};
    std::mutex chunkMutex_;
    ListChunk* spareChunks_ = nullptr;  // chunks of released levels
};

Status SahLevelBuilder::Team::start(const SahNode& root, BuildNode& out)
{
    Level& first = levels_[0];
    first.slots = static_cast<Slot*>(vekMalloc(sizeof(Slot)));
    if (first.slots == nullptr) return StatusNoMemory;
    first.count = 1;
    const SlotKind kind = root.count >= b_.levelMinTriangles_ ? SlotKind::Open : SlotKind::Subtree;
    new (first.slots) Slot{kind, &out, root, {}};
    unreleasedLevels_.store(1);
    open(0);
    return StatusOk;
}

// Makes a level's items available: its slots are final.
void SahLevelBuilder::Team::open(uint32_t depth)
{
    Level& level = levels_[depth];
    level.unfinished.store(2 * int64_t(level.count));
    record(prepareNextLevel(depth));
    current_.store(depth);
    level.stage.store(kReady, std::memory_order_release);
}

void SahLevelBuilder::Team::run(int member)
{
    // A member beyond those the pools were made for (the thread count changed in between)
    // takes no work.
    if (member >= b_.memberCount_) return;
    const bool alone = b_.memberCount_ == 1;
    int idle = 0;
    while (unreleasedLevels_.load(std::memory_order_acquire) > 0) {
        if ((alone && takeSubtree(member, true)) ||
            takeLevelItem(member, current_.load(std::memory_order_acquire)) ||
            takeSubtree(member, false)) {
            idle = 0;
            continue;
        }
        // Nothing to take until another member completes a stage.
        if (++idle > 64) std::this_thread::yield();
    }
}

// A search or a partition of the level, when its stage has them and some are left.
bool SahLevelBuilder::Team::takeLevelItem(int member, uint32_t depth)
{
    Level& level = levels_[depth];
    const int stage = level.stage.load(std::memory_order_acquire);
    if (stage == kReady) {
        const int64_t searches = 3 * int64_t(level.count);
        const int64_t i = level.nextSearch.fetch_add(1, std::memory_order_relaxed);
        if (i >= searches) return false;
        if (!failed()) search(depth, i);
        completeSearch(depth);
        return true;
    }
    if (stage == kSearched) {
        const int64_t i = level.nextPartition.fetch_add(1, std::memory_order_relaxed);
        if (i >= level.count) return false;
        if (!failed()) decideAndPartition(member, depth, int32_t(i));
        if (level.partitionsDone.fetch_add(1, std::memory_order_acq_rel) + 1 == level.count) {
            // The next level's slots are all written: open it, or end the levels.
            level.stage.store(kPartitioned, std::memory_order_release);
            if (levels_[depth + 1].count > 0) {
                unreleasedLevels_.fetch_add(1);
                open(depth + 1);
            }
        }
        completeLevelItem(depth);
        return true;
    }
    return false;
}

void SahLevelBuilder::Team::completeSearch(uint32_t depth)
{
    Level& level = levels_[depth];
    if (level.searchesDone.fetch_add(1, std::memory_order_acq_rel) + 1 == 3 * int64_t(level.count))
        level.stage.store(kSearched, std::memory_order_release);
}

// The last partition or subtree of a level frees its lists.
void SahLevelBuilder::Team::completeLevelItem(uint32_t depth)
{
    Level& level = levels_[depth];
    if (level.unfinished.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    release(level);
    unreleasedLevels_.fetch_sub(1, std::memory_order_acq_rel);
}

// A subtree of the oldest level that has any left (above the current level only, when asked).
bool SahLevelBuilder::Team::takeSubtree(int member, bool aboveCurrentOnly)
{
    const uint32_t current = current_.load(std::memory_order_acquire);
    if (aboveCurrentOnly && current == 0) return false;
    const uint32_t deepest = aboveCurrentOnly ? current - 1 : current;
    for (uint32_t depth = oldestSubtrees_.load(std::memory_order_relaxed); depth <= deepest;
         ++depth) {
        Level& level = levels_[depth];
        if (level.stage.load(std::memory_order_acquire) < kReady) break;
        int64_t i;
        while ((i = level.nextSubtree.fetch_add(1, std::memory_order_relaxed)) < level.count) {
            Slot& slot = level.slots[i];
            const bool isSubtree = slot.kind == SlotKind::Subtree;
            if (isSubtree && !failed()) buildSubtree(member, depth, slot);
            completeLevelItem(depth);
            if (isSubtree) return true;
        }
        // Only ever raised: a member that reads an old value merely looks at a spent level.
        uint32_t oldest = depth;
        oldestSubtrees_.compare_exchange_strong(oldest, depth + 1);
    }
    return false;
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
        new (next.slots + i) Slot{SlotKind::Empty, nullptr, {}, {}};
    next.count = 2 * level.openCount;
    return StatusOk;
}

// A node searched whole takes its first axis's item: the bounds of the axes' costs let it pass
// over the axes that cannot win, and its split (or none, when none can pay) goes to axes[0].
void SahLevelBuilder::Team::search(uint32_t depth, int64_t item)
{
    Slot& slot = levels_[depth].slots[item / 3];
    if (slot.kind != SlotKind::Open || !sahMaySplit(slot.lists, b_.rules_, depth, 0)) return;
    const int axis = int(item % 3);
    if (!searchedWhole(slot.lists)) {
        slot.axes[axis] = searchSplitAxis(slot.lists, axis);
    } else if (axis == 0) {
        slot.axes[0] =
            findBestSplitBounded(slot.lists, b_.rules_.triangleBounds, b_.rules_.gainFactor);
    }
}

void SahLevelBuilder::Team::buildSubtree(int member, uint32_t depth, Slot& slot)
{
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

// Makes slot an inner node and fills its children's slots, their lists in the next level's
// chunks.
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
    if (b_.rules_.triangleBounds != nullptr) {
        status = classifyAndSizeSahSplit(slot.lists, split, b_.rules_.triangleBounds, pools.sides,
                                         below, above);
    } else {
        classifySahSplit(slot.lists, split, pools.sides);
        status = sizeSahChildren(slot.lists, split, pools.sides, below, above);
    }
    if (status != StatusOk) return status;
    const int64_t belowWords = sahNodeWords(below.count, below.eventCount);
    const uint64_t bytes = uint64_t(belowWords + sahNodeWords(above.count, above.eventCount)) * 4;
    status = chargeLevelLists(depth + 1, bytes);
    if (status != StatusOk) return status;
    auto* words = static_cast<int32_t*>(takeLevelLists(depth + 1, bytes));
    if (words == nullptr) return StatusNoMemory;
    placeSahNode(words, below);
    placeSahNode(words + belowWords, above);
    writeSahChildren(slot.lists, pools.sides, below, above);

    const SahNode* lists[2] = {&below, &above};
    for (int s = 0; s < 2; ++s) {
        const SlotKind kind =
            lists[s]->count >= b_.levelMinTriangles_ ? SlotKind::Open : SlotKind::Subtree;
        children[s] = Slot{kind, pair + s, *lists[s], {}};
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

// bytes (a multiple of 8) of the level's lists: from its current chunk when it has room, else
// from a spare chunk that has, else from a new chunk. Null when that cannot be allocated.
void* SahLevelBuilder::Team::takeLevelLists(uint32_t depth, uint64_t bytes)
{
    const std::lock_guard<std::mutex> lock(chunkMutex_);
    Level& level = levels_[depth];
    ListChunk* chunk = level.chunks;
    if (chunk == nullptr || chunk->capacityBytes - chunk->usedBytes < bytes) {
        ListChunk** spare = &spareChunks_;
        while (*spare != nullptr && (*spare)->capacityBytes < bytes)
            spare = &(*spare)->next;
        chunk = *spare;
        if (chunk != nullptr) {
            *spare = chunk->next;
        } else {
            const uint64_t capacity = std::max(bytes, kListChunkBytes);
            if (capacity > SIZE_MAX - sizeof(ListChunk)) return nullptr;
            chunk = static_cast<ListChunk*>(vekMalloc(size_t(sizeof(ListChunk) + capacity)));
            if (chunk == nullptr) return nullptr;
            chunk->capacityBytes = capacity;
        }
        chunk->usedBytes = 0;
        chunk->next = level.chunks;
        level.chunks = chunk;
    }
    void* lists = reinterpret_cast<uint8_t*>(chunk + 1) + chunk->usedBytes;
    chunk->usedBytes += bytes;
    return lists;
}

// Once: the destructor releases what a failed or finished build left.
void SahLevelBuilder::Team::release(Level& level)
{
    {
        const std::lock_guard<std::mutex> lock(chunkMutex_);
        while (level.chunks != nullptr) {
            ListChunk* next = level.chunks->next;
            level.chunks->next = spareChunks_;
            spareChunks_ = level.chunks;
            level.chunks = next;
        }
    }
    if (level.slots == nullptr) return;
    vekFree(level.slots);
    vekFree(level.openRanks);
    level.slots = nullptr;
    level.openRanks = nullptr;
}

SahLevelBuilder::SahLevelBuilder(const SahTreeRules& rules, int32_t levelMinTriangles,
                                 BuildBudget& budget, int32_t triangleCount, uint8_t* sides)
    : rules_(rules),
      levelMinTriangles_(levelMinTriangles),
      budget_(budget),
      triangleCount_(triangleCount),
      sides_(sides),
      shared_(budget)
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
