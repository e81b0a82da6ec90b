// 64-byte aligned allocation with a countdown that lets tests fail one chosen call.
#include "vekcore.h"

#include <atomic>
#include <cstdlib>

namespace {

constexpr size_t kAlignmentBytes = 64;

std::atomic<int> gAllocationsUntilFailure{0};  // 0: disarmed
std::atomic<long long> gLiveAllocations{0};
std::atomic<size_t> gLastAllocationSize{0};

// True when this call is the one the testing hook asked to fail.
bool consumeInjectedFailure()
{
    int remaining = gAllocationsUntilFailure.load(std::memory_order_relaxed);
    while (remaining > 0) {
        if (gAllocationsUntilFailure.compare_exchange_weak(remaining, remaining - 1,
                                                           std::memory_order_relaxed))
            return remaining == 1;
    }
    return false;
}

}  // namespace

extern "C" {

void* vekMalloc(size_t size)
{
    gLastAllocationSize.store(size, std::memory_order_relaxed);
    if (size == 0 || consumeInjectedFailure()) return nullptr;
    void* block = nullptr;
    if (posix_memalign(&block, kAlignmentBytes, size) != 0) return nullptr;
    gLiveAllocations.fetch_add(1, std::memory_order_relaxed);
    return block;
}

void vekFree(void* ptr)
{
    if (ptr == nullptr) return;
    gLiveAllocations.fetch_sub(1, std::memory_order_relaxed);
    std::free(ptr);
}

void vekFailNthAllocation(int n)
{
    gAllocationsUntilFailure.store(n > 0 ? n : 0, std::memory_order_relaxed);
}

long long vekGetLiveAllocationCount(void)
{
    return gLiveAllocations.load(std::memory_order_relaxed);
}

size_t vekGetLastAllocationSize(void)
{
    return gLastAllocationSize.load(std::memory_order_relaxed);
}

}  // extern "C"
