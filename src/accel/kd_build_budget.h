// The memory budget of a surface-area-heuristic build and the pools of scratch charged to it.
#pragma once

#include <cstdint>
#include <mutex>

#include "vekr.h"

namespace vekr::accel {

// What a build needs before it starts: 12 bytes per vertex, 84 per triangle and 33554676
// fixed (two pool blocks of 0x1000014 bytes and 51 control words). A smaller budget is
// refused with StatusNoMemory before anything is allocated.
constexpr uint64_t kSahBytesPerVertex = 12;
constexpr uint64_t kSahBytesPerTriangle = 84;
constexpr uint64_t kSahFixedBytes = 33554676;
constexpr uint64_t kSahControlBytes = 51 * 4;

// A pool grows by blocks of 0x400000 32-bit entries (16 MiB), each charged with a 5-word
// header: 0x1000014 bytes.
constexpr int32_t kPoolBlockWords = 0x400000;
constexpr uint64_t kPoolBlockHeaderBytes = 5 * 4;

uint64_t sahRequiredBytes(int vertexCount, int triangleCount);

// Bytes of the budget still free. Every scratch allocation of the build is charged here
// before it is made.
class BuildBudget {
public:
    explicit BuildBudget(uint64_t budgetBytes) : free_(budgetBytes) {}
    bool charge(uint64_t bytes)
    {
        if (bytes > free_) return false;
        free_ -= bytes;
        return true;
    }
    void refund(uint64_t bytes) { free_ += bytes; }
    uint64_t freeBytes() const { return free_; }

private:
    uint64_t free_;
};

// A bump allocator of 32-bit words over a chain of blocks. Blocks are charged to the budget
// (StatusMemoryLimit when it has too little left) and taken from vekMalloc (StatusNoMemory
// when that fails); all are freed with the pool. rewind() returns everything taken after a
// mark, keeping the blocks for reuse, so the pool also serves as a stack. The pool counts the
// words it holds out (liveWords) and the most it has held since resetPeak (peakWords).
class WordPool {
public:
    struct Mark {
        void* block;
        int64_t usedWords;
        int64_t liveWords;
    };

    // blockWords: the least size of a block, in words.
    explicit WordPool(BuildBudget& budget, int64_t blockWords = kPoolBlockWords)
        : budget_(budget), blockWords_(blockWords)
    {
    }
    ~WordPool();
    WordPool(const WordPool&) = delete;
    WordPool& operator=(const WordPool&) = delete;

    // words (>= 0) contiguous words on an 8-byte boundary, or null with *status set.
    int32_t* take(int64_t words, Status* status);
    Mark mark() const { return {current_, used_, live_}; }
    void rewind(const Mark& m);

    int64_t liveWords() const { return live_; }
    int64_t peakWords() const { return peak_; }
    void resetPeak() { peak_ = live_; }

private:
    struct Block;
    bool advance(int64_t words, Status* status);

    BuildBudget& budget_;
    const int64_t blockWords_;
    Block* first_ = nullptr;
    Block* current_ = nullptr;
    int64_t used_ = 0;  // words taken from current_
    int64_t live_ = 0, peak_ = 0;
};

// Charges made by the members of a team to one budget, under a lock. Nothing is refunded while
// the team works, so whether the budget suffices depends only on the sum of the charges, not
// on their order: the outcome is the same for every thread count and schedule.
class SharedBudget {
public:
    // Kinds of scratch that is reused from one piece of work to the next, and paid once, at
    // its largest.
    enum Peak { kSubtreeStack, kLevelLists, kPeakKinds };

    explicit SharedBudget(BuildBudget& budget) : budget_(budget) {}
    bool charge(uint64_t bytes);
    // Charges the part of peakBytes above the highest peak of that kind raised so far.
    bool raisePeak(Peak kind, uint64_t peakBytes);

private:
    BuildBudget& budget_;
    std::mutex mutex_;
    uint64_t peaks_[kPeakKinds] = {};
};

}  // namespace vekr::accel
