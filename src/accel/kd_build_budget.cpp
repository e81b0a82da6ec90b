#include "kd_build_budget.h"

#include <algorithm>
#include <cstddef>

#include "vekcore.h"

namespace vekr::accel {

uint64_t sahRequiredBytes(int vertexCount, int triangleCount)
{
    return kSahBytesPerVertex * uint64_t(vertexCount) +
           kSahBytesPerTriangle * uint64_t(triangleCount) + kSahFixedBytes;
}

// The header sits in front of the words and keeps them on an 8-byte boundary.
struct alignas(8) WordPool::Block {
    Block* next;
    int64_t capacityWords;
    uint64_t chargedBytes;
    int32_t* words() { return reinterpret_cast<int32_t*>(this + 1); }
};

WordPool::~WordPool()
{
    for (Block* b = first_; b != nullptr;) {
        Block* next = b->next;
        vekFree(b);
        b = next;
    }
}

// Moves to the block after current_, reusing it when it is large enough; otherwise the rest
// of the chain is released and a new block of at least the standard size takes its place.
bool WordPool::advance(int64_t words, Status* status)
{
    Block* next = current_ != nullptr ? current_->next : first_;
    if (next != nullptr && next->capacityWords >= words) {
        current_ = next;
        used_ = 0;
        return true;
    }
    while (next != nullptr) {
        Block* after = next->next;
        budget_.refund(next->chargedBytes);
        vekFree(next);
        next = after;
    }
    (current_ != nullptr ? current_->next : first_) = nullptr;

    const int64_t capacity = std::max<int64_t>(words, blockWords_);
    const uint64_t charge = uint64_t(capacity) * 4 + kPoolBlockHeaderBytes;
    const uint64_t bytes = sizeof(Block) + uint64_t(capacity) * 4;
    if (!budget_.charge(charge)) {
        *status = StatusMemoryLimit;
        return false;
    }
    Block* block = bytes <= SIZE_MAX ? static_cast<Block*>(vekMalloc(size_t(bytes))) : nullptr;
    if (block == nullptr) {
        budget_.refund(charge);
        *status = StatusNoMemory;
        return false;
    }
    *block = Block{nullptr, capacity, charge};
    (current_ != nullptr ? current_->next : first_) = block;
    current_ = block;
    used_ = 0;
    return true;
}

int32_t* WordPool::take(int64_t words, Status* status)
{
    const int64_t rounded = (words + 1) & ~int64_t(1);  // keeps the next take 8-byte aligned
    if (current_ == nullptr || used_ + rounded > current_->capacityWords) {
        if (!advance(rounded, status)) return nullptr;
    }
    int32_t* taken = current_->words() + used_;
    used_ += rounded;
    live_ += rounded;
    peak_ = std::max(peak_, live_);
    return taken;
}

void WordPool::rewind(const Mark& m)
{
    current_ = static_cast<Block*>(m.block);
    used_ = m.usedWords;
    live_ = m.liveWords;
}

bool SharedBudget::charge(uint64_t bytes)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return budget_.charge(bytes);
}

bool SharedBudget::raisePeak(Peak kind, uint64_t peakBytes)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    uint64_t& peak = peaks_[kind];
    if (peakBytes <= peak) return true;
    if (!budget_.charge(peakBytes - peak)) return false;
    peak = peakBytes;
    return true;
}

}  // namespace vekr::accel
