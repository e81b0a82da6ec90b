// Processor features from CPUID and XGETBV, and the size of the largest cache.
#include "vekcore.h"

#include <cpuid.h>
#include <unistd.h>

#include <cstdint>
#include <initializer_list>

namespace {

struct CpuidRegs {
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
};

CpuidRegs readCpuid(unsigned leaf, unsigned subleaf)
{
    CpuidRegs r;
    if (!__get_cpuid_count(leaf, subleaf, &r.eax, &r.ebx, &r.ecx, &r.edx)) return CpuidRegs{};
    return r;
}

// XCR0 tells which register states the operating system saves on a context switch.
uint64_t readXcr0()
{
    unsigned lo = 0, hi = 0;
    __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    return (uint64_t(hi) << 32) | lo;
}

unsigned long long detectCpuFeatures()
{
    const unsigned maxLeaf = __get_cpuid_max(0, nullptr);
    if (maxLeaf < 1) return 0;
    const CpuidRegs l1 = readCpuid(1, 0);
    unsigned long long bits = 0;
    if (l1.edx & (1u << 25)) bits |= VekCpuSse;
    if (l1.edx & (1u << 26)) bits |= VekCpuSse2;
    if (l1.ecx & (1u << 0)) bits |= VekCpuSse3;
    if (l1.ecx & (1u << 9)) bits |= VekCpuSsse3;
    if (l1.ecx & (1u << 19)) bits |= VekCpuSse41;
    if (l1.ecx & (1u << 20)) bits |= VekCpuSse42;
    if (l1.ecx & (1u << 23)) bits |= VekCpuPopcnt;

    const bool osxsave = (l1.ecx & (1u << 27)) != 0;
    const uint64_t xcr0 = osxsave ? readXcr0() : 0;
    const bool ymmSaved = (xcr0 & 0x6) == 0x6;    // XMM and YMM upper halves
    const bool zmmSaved = (xcr0 & 0xE6) == 0xE6;  // plus opmask and both ZMM ranges
    if (l1.ecx & (1u << 28)) bits |= VekCpuAvx;
    if (ymmSaved) bits |= VekCpuAvxOsState;
    if (ymmSaved && (l1.ecx & (1u << 12))) bits |= VekCpuFma;
    if (ymmSaved && (l1.ecx & (1u << 29))) bits |= VekCpuF16c;
    if (maxLeaf >= 7) {
        const CpuidRegs l7 = readCpuid(7, 0);
        if (ymmSaved && (l7.ebx & (1u << 5))) bits |= VekCpuAvx2;
        if (zmmSaved && (l7.ebx & (1u << 16))) bits |= VekCpuAvx512f;
    }
    return bits;
}

}  // namespace

extern "C" {

unsigned long long vekGetEnabledCpuFeatures(void)
{
    static const unsigned long long features = detectCpuFeatures();
    return features;
}

// Asked once: the queries execute CPUID, which a virtual machine may trap at great cost, and
// callers ask on every call of a kernel.
int vekGetMaxCacheSizeB(void)
{
    static const int largestBytes = [] {
        long largest = 0;
        for (int name : {_SC_LEVEL1_DCACHE_SIZE, _SC_LEVEL2_CACHE_SIZE, _SC_LEVEL3_CACHE_SIZE,
                         _SC_LEVEL4_CACHE_SIZE}) {
            const long bytes = sysconf(name);
            if (bytes > largest) largest = bytes;
        }
        return largest > 0x7FFFFFFF ? 0x7FFFFFFF : int(largest);
    }();
    return largestBytes;
}

}  // extern "C"
