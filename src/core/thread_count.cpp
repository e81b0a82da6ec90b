// The number of threads the libraries' parallel regions may use.
#include "vekcore.h"

#include <omp.h>

#include <atomic>

namespace {

std::atomic<int> gThreadCount{0};  // 0: not set, follow the OpenMP runtime

}  // namespace

extern "C" {

int vekSetNumThreads(int threadCount)
{
    if (threadCount < 1) return -6;
    gThreadCount.store(threadCount, std::memory_order_relaxed);
    return 0;
}

int vekGetNumThreads(void)
{
    const int chosen = gThreadCount.load(std::memory_order_relaxed);
    return chosen > 0 ? chosen : omp_get_max_threads();
}

int ownGetNumThreads(void)
{
    return vekGetNumThreads();
}

}  // extern "C"
