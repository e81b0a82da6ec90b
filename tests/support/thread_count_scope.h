// The library's thread count for one scope, restored on the way out even when an assertion
// returns early, so that one test's count never leaks into the next.
#pragma once

#include "vekcore.h"

namespace vekr::test {

class ThreadCountScope {
public:
    explicit ThreadCountScope(int threads) : saved_(vekGetNumThreads()) { set(threads); }
    ~ThreadCountScope() { vekSetNumThreads(saved_); }
    ThreadCountScope(const ThreadCountScope&) = delete;
    ThreadCountScope& operator=(const ThreadCountScope&) = delete;
    void set(int threads) { vekSetNumThreads(threads); }

private:
    int saved_;
};

}  // namespace vekr::test
