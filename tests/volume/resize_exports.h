// What the volume tests share: the resize exports by voxel type, and a scoped thread count.
#pragma once

#include <cstdint>

#include "vekcore.h"
#include "vekr.h"

namespace vekr::test {

template <class T>
struct ResizeExports;
template <>
struct ResizeExports<uint8_t> {
    static constexpr auto kV = vekrResize_8u_C1V;
    static constexpr auto kPV = vekrResize_8u_C1PV;
};
template <>
struct ResizeExports<uint16_t> {
    static constexpr auto kV = vekrResize_16u_C1V;
    static constexpr auto kPV = vekrResize_16u_C1PV;
};
template <>
struct ResizeExports<float> {
    static constexpr auto kV = vekrResize_32f_C1V;
    static constexpr auto kPV = vekrResize_32f_C1PV;
};

// The library's thread count for one scope.
class ThreadCountScope {
public:
    explicit ThreadCountScope(int threads) : saved_(vekGetNumThreads())
    {
        vekSetNumThreads(threads);
    }
    ~ThreadCountScope() { vekSetNumThreads(saved_); }

private:
    int saved_;
};

}  // namespace vekr::test
