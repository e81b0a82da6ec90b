// The memory budget of a surface-area-heuristic build and the pools of scratch charged to it.
#pragma once

#include <cstdint>

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
// mark, keeping the blocks for reuse, so the pool also serves as a stack.
class WordPool {
public:
    struct Mark {
        void* block;
        int64_t usedWords;
    };

    explicit WordPool(BuildBudget& budget) : budget_(budget) {}
    ~WordPool();
    WordPool(const WordPool&) = delete;
    WordPool& operator=(const WordPool&) = delete;

    // words (>= 0) contiguous words on an 8-byte boundary, or null with *status set.
    int32_t* take(int64_t words, Status* status);
    Mark mark() const { return {current_, used_}; }
    void rewind(const Mark& m);

private:
    struct Block;
    bool advance(int64_t words, Status* status);

    BuildBudget& budget_;
    Block* first_ = nullptr;
    Block* current_ = nullptr;
    int64_t used_ = 0;  // words taken from current_
};

}  // namespace vekr::accel
