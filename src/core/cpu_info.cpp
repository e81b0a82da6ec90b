// Processor features from CPUID and XGETBV, and the size of the largest cache.
#include "vekcore.h"

#include <cpuid.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

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

// Bytes of the cache one deterministic-cache-parameters subleaf describes (CPUID leaf 4 on
// Intel, 0x8000001D on AMD; both share the layout): ways * partitions * line size * sets, each
// field stored minus one. Instruction caches (type 2) count as 0.
unsigned long long dataCacheBytes(const CpuidRegs& r)
{
    const unsigned type = r.eax & 0x1F;
    if (type != 1 && type != 3) return 0;
    const unsigned long long ways = (r.ebx >> 22) + 1;
    const unsigned long long partitions = ((r.ebx >> 12) & 0x3FF) + 1;
    const unsigned long long lineBytes = (r.ebx & 0xFFF) + 1;
    const unsigned long long sets = r.ecx + 1ull;
    return ways * partitions * lineBytes * sets;
}

// The subleaves list the caches until one of type 0. A processor has a handful; the bound only
// stops a hypervisor that never reports the end. An absent leaf reads as zeros, so as no cache.
unsigned long long largestDeterministicCache(unsigned leaf)
{
    constexpr unsigned kMaxCacheSubleaves = 16;
    unsigned long long largest = 0;
    for (unsigned subleaf = 0; subleaf < kMaxCacheSubleaves; ++subleaf) {
        const CpuidRegs r = readCpuid(leaf, subleaf);
        if ((r.eax & 0x1F) == 0) break;
        largest = std::max(largest, dataCacheBytes(r));
    }
    return largest;
}

bool isAmdCompatible()
{
    const CpuidRegs l0 = readCpuid(0, 0);
    char vendor[12];
    std::memcpy(vendor, &l0.ebx, 4);
    std::memcpy(vendor + 4, &l0.edx, 4);
    std::memcpy(vendor + 8, &l0.ecx, 4);
    return std::memcmp(vendor, "AuthenticAMD", 12) == 0 ||
           std::memcmp(vendor, "HygonGenuine", 12) == 0;
}

// Read from the processor itself, so that the figure does not depend on the C library (some
// report no cache sizes at all). AMD lists its caches in leaf 0x8000001D when it has the
// topology extensions (CPUID 0x80000001:ECX bit 22); its leaf 4 is reserved.
unsigned long long detectLargestCacheBytes()
{
    unsigned long long largest = 0;
    if (!isAmdCompatible())
        largest = largestDeterministicCache(4);
    else if (readCpuid(0x80000001, 0).ecx & (1u << 22))
        largest = largestDeterministicCache(0x8000001D);
    if (largest == 0) {
        // Without those leaves (older processors, or a hypervisor hiding them), leaf 0x80000006
        // gives the second level in KiB (ECX bits 31:16) and, on AMD, the third in 512 KiB
        // units (EDX bits 31:18); both read as 0 where they are reserved.
        const CpuidRegs l = readCpuid(0x80000006, 0);
        largest = std::max((l.ecx >> 16) * 1024ull, (l.edx >> 18) * 512ull * 1024ull);
    }
    return largest;
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
    static const int largestBytes = int(std::min(detectLargestCacheBytes(), 0x7FFFFFFFull));
    return largestBytes;
}

}  // extern "C"
