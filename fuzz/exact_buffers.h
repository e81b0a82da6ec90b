// Caller buffers of exactly the size an entry point is promised, so that the first byte read or
// written past an end is a finding, and snapshots that show whether a call wrote anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "support/guard_buffer.h"

namespace vekr::fuzz {

// What lies past a block. AddressSanitizer's redzones catch ordinary loads and stores on both
// sides, but not the AVX masked loads and stores (vmaskmovps) the kernels use for their tails;
// an inaccessible page flush against one end catches those too, on that end.
enum class Fence { Redzone, GuardPageBack, GuardPageFront };

class ExactBlocks {
public:
    explicit ExactBlocks(Fence fence = Fence::Redzone) : fence_(fence) {}
    ExactBlocks(const ExactBlocks&) = delete;
    ExactBlocks& operator=(const ExactBlocks&) = delete;
    ~ExactBlocks()
    {
        for (const Block& b : blocks_)
            if (!b.guarded) std::free(b.start);
    }

    // count elements of T preceded by lead spare elements. With redzones the block starts on a
    // 64-byte boundary, so lead chooses the elements' alignment; against a back guard page the
    // elements end flush with it; against a front one they start at it and lead is ignored.
    // Zero elements give a block that no access may touch.
    template <class T>
    T* take(std::size_t count, std::size_t lead = 0)
    {
        if (fence_ == Fence::GuardPageFront) lead = 0;
        const std::size_t bytes = (lead + count) * sizeof(T);
        uint8_t* start = nullptr;
        if (fence_ == Fence::Redzone) {
            void* p = nullptr;
            if (posix_memalign(&p, 64, bytes) != 0) std::abort();
            start = static_cast<uint8_t*>(p);
        } else {
            auto pages = std::make_shared<test::GuardedArray<uint8_t>>(
                bytes,
                fence_ == Fence::GuardPageBack ? test::FlushEnd::Back : test::FlushEnd::Front);
            start = pages->data();
            guards_.push_back(pages);
        }
        if (bytes > 0) std::memset(start, 0xA5, bytes);  // a recognisable unwritten output
        blocks_.push_back({start, bytes, fence_ != Fence::Redzone});
        return reinterpret_cast<T*>(start) + lead;
    }

    // The bytes of every block taken so far.
    std::vector<std::vector<uint8_t>> snapshot() const
    {
        std::vector<std::vector<uint8_t>> copy;
        for (const Block& b : blocks_)
            copy.emplace_back(b.start, b.start + b.bytes);
        return copy;
    }

    // True when the blocks a snapshot covers hold the same bytes as then.
    bool unchangedSince(const std::vector<std::vector<uint8_t>>& before) const
    {
        for (std::size_t i = 0; i < before.size(); ++i)
            if (!before[i].empty() &&
                std::memcmp(before[i].data(), blocks_[i].start, before[i].size()) != 0)
                return false;
        return true;
    }

private:
    struct Block {
        uint8_t* start;
        std::size_t bytes;
        bool guarded;
    };
    Fence fence_;
    std::vector<Block> blocks_;
    std::vector<std::shared_ptr<void>> guards_;
};

}  // namespace vekr::fuzz
