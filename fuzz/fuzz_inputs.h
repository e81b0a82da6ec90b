// Decoding fuzz input into arguments a caller could pass, right or wrong, and the checks that
// turn a broken promise of the library into a finding.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <type_traits>

#include "exact_buffers.h"
#include "vekcore.h"
#include "vekr.h"

namespace vekr::fuzz {

// A property that must hold for every input; aborting makes libFuzzer keep the input.
inline void require(bool holds, const char* what)
{
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", what);
    std::abort();
}

inline void requireStatus(Status got, Status expected, const char* call)
{
    if (got == expected) return;
    std::fprintf(stderr, "broken: %s returned %d, the documented status is %d\n", call, int(got),
                 int(expected));
    std::abort();
}

// Whatever an input does, the calls it makes hand back every block they take from the
// library's allocator.
class LibraryBlocksReturned {
public:
    LibraryBlocksReturned() : before_(vekGetLiveAllocationCount()) {}
    ~LibraryBlocksReturned()
    {
        require(vekGetLiveAllocationCount() == before_, "a call kept a block of library memory");
    }

private:
    long long before_;
};

// Most choices decode an exhausted input (zeros) as the ordinary case, so that short inputs
// still reach the kernels rather than the first argument check.
inline bool rarely(FuzzedDataProvider& in)
{
    return in.ConsumeIntegralInRange<int>(0, 15) == 15;
}

template <class T>
T* maybeNull(FuzzedDataProvider& in, T* p)
{
    return rarely(in) ? nullptr : p;
}

// Values that break careless arithmetic: signed zeros, NaN, infinities, the extremes and
// subnormals.
template <class F>
F specialValue(FuzzedDataProvider& in)
{
    using L = std::numeric_limits<F>;
    const F values[] = {F(0),     -F(0),       L::quiet_NaN(), L::infinity(),   -L::infinity(),
                        L::max(), L::lowest(), L::min(),       L::denorm_min(), F(1),
                        F(-1),    F(0.5),      L::epsilon(),   F(1e30),         F(-1e30)};
    return values[in.ConsumeIntegralInRange<std::size_t>(0, std::size(values) - 1)];
}

// A float or double: mostly uniform in [lo, hi], sometimes special or any bit pattern.
template <class F>
F pickReal(FuzzedDataProvider& in, F lo, F hi)
{
    using Bits = std::conditional_t<sizeof(F) == 4, uint32_t, uint64_t>;
    switch (in.ConsumeIntegralInRange<int>(0, 9)) {
        case 8:
            return specialValue<F>(in);
        case 9:
            return std::bit_cast<F>(in.ConsumeIntegral<Bits>());
        default:
            return in.ConsumeFloatingPointInRange<F>(lo, hi);
    }
}

// A count or extent: mostly in [0, most], sometimes negative or any int.
inline int pickCount(FuzzedDataProvider& in, int most)
{
    switch (in.ConsumeIntegralInRange<int>(0, 15)) {
        case 14:
            return in.ConsumeIntegralInRange<int>(-3, 0);
        case 15:
            return in.ConsumeIntegral<int>();
        default:
            return in.ConsumeIntegralInRange<int>(0, most);
    }
}

// Puts up to eight fuzz-chosen values (special floats, any integers) at fuzz-chosen places.
template <class T>
void sprinkleSpecials(FuzzedDataProvider& in, T* p, std::size_t n)
{
    if (n == 0) return;
    const int extra = in.ConsumeIntegralInRange<int>(0, 8);
    for (int k = 0; k < extra; ++k) {
        const std::size_t at = in.ConsumeIntegralInRange<std::size_t>(0, n - 1);
        if constexpr (std::is_floating_point_v<T>)
            p[at] = specialValue<T>(in);
        else
            p[at] = in.ConsumeIntegral<T>();
    }
}

// Fills n values from a seeded generator, then puts a few fuzz-chosen values at fuzz-chosen
// places: bulk data costs little input, and the special values still reach the kernels.
template <class T, class Pick>
void fillValues(FuzzedDataProvider& in, T* p, std::size_t n, Pick&& pick)
{
    uint64_t state = in.ConsumeIntegral<uint64_t>() | 1;
    for (std::size_t i = 0; i < n; ++i) {
        state ^= state << 13;  // xorshift64 (Marsaglia 2003)
        state ^= state >> 7;
        state ^= state << 17;
        p[i] = pick(state);
    }
    sprinkleSpecials(in, p, n);
}

// Mostly AddressSanitizer's redzones around each buffer, often a guard page against one end.
inline Fence pickFence(FuzzedDataProvider& in)
{
    switch (in.ConsumeIntegralInRange<int>(0, 7)) {
        case 5:
        case 6:
            return Fence::GuardPageBack;
        case 7:
            return Fence::GuardPageFront;
        default:
            return Fence::Redzone;
    }
}

// Runs every target with one or two library threads, so the team paths are fuzzed too.
inline void pickThreadCount(FuzzedDataProvider& in)
{
    vekSetNumThreads(in.ConsumeBool() ? 2 : 1);
}

}  // namespace vekr::fuzz
