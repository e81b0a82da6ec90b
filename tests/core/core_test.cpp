#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "vekcore.h"

TEST(CoreAlloc, BlocksAre64ByteAlignedAndCounted)
{
    const long long liveBefore = vekGetLiveAllocationCount();
    std::vector<void*> blocks;
    for (size_t size : {1u, 3u, 8u, 63u, 64u, 65u, 4095u, 1u << 20}) {
        void* p = vekMalloc(size);
        ASSERT_NE(p, nullptr) << "size " << size;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 64, 0u) << "size " << size;
        static_cast<unsigned char*>(p)[size - 1] = 1;  // the whole block is usable
        blocks.push_back(p);
    }
    EXPECT_EQ(vekGetLiveAllocationCount(), liveBefore + static_cast<long long>(blocks.size()));
    for (void* p : blocks)
        vekFree(p);
    vekFree(nullptr);
    EXPECT_EQ(vekGetLiveAllocationCount(), liveBefore);
    EXPECT_EQ(vekMalloc(0), nullptr);
}

TEST(CoreAlloc, FailsExactlyTheNthCallThenRecovers)
{
    vekFailNthAllocation(3);
    void* blocks[4];
    for (int i = 0; i < 4; ++i) {
        blocks[i] = vekMalloc(16);
        EXPECT_EQ(blocks[i] == nullptr, i == 2) << "call " << i + 1;
    }
    for (void* p : blocks)
        vekFree(p);

    vekFailNthAllocation(1);
    vekFailNthAllocation(0);  // disarmed before it fired
    void* p = vekMalloc(16);
    EXPECT_NE(p, nullptr);
    vekFree(p);
}

TEST(CoreThreads, DefaultsToRuntimeMaximumAndRejectsBelowOne)
{
    const int initial = vekGetNumThreads();
    EXPECT_EQ(initial, omp_get_max_threads());
    EXPECT_EQ(ownGetNumThreads(), initial);
    EXPECT_EQ(vekSetNumThreads(3), 0);
    EXPECT_EQ(vekGetNumThreads(), 3);
    EXPECT_EQ(ownGetNumThreads(), 3);
    EXPECT_EQ(vekSetNumThreads(0), -6);
    EXPECT_EQ(vekSetNumThreads(-2), -6);
    EXPECT_EQ(vekGetNumThreads(), 3);
    EXPECT_EQ(vekSetNumThreads(initial), 0);
}

TEST(CoreCpu, FeatureBitsAgreeWithTheCompilerRuntime)
{
    const unsigned long long bits = vekGetEnabledCpuFeatures();
    __builtin_cpu_init();
    // The compiler runtime reports AVX only when the OS saves the YMM state too.
    const bool avxUsable = (bits & VekCpuAvx) && (bits & VekCpuAvxOsState);
    EXPECT_EQ(avxUsable, bool(__builtin_cpu_supports("avx")));
    EXPECT_EQ(bool(bits & VekCpuAvx2), bool(__builtin_cpu_supports("avx2")));
    EXPECT_EQ(bool(bits & VekCpuSse42), bool(__builtin_cpu_supports("sse4.2")));
    EXPECT_EQ(bool(bits & VekCpuSse2), bool(__builtin_cpu_supports("sse2")));
    EXPECT_EQ(bool(bits & VekCpuFma), bool(__builtin_cpu_supports("fma")));
}

// The kernel fills sysfs from the same processor leaves, so the two must agree to the byte
// (sysfs gives KiB). Instruction caches do not count.
TEST(CoreCpu, LargestCacheMatchesTheOperatingSystem)
{
    const int largest = vekGetMaxCacheSizeB();
    EXPECT_GE(largest, 0);
    long long sysfsLargest = 0;
    for (int index = 0;; ++index) {
        const std::string dir =
            "/sys/devices/system/cpu/cpu0/cache/index" + std::to_string(index) + "/";
        std::ifstream typeFile(dir + "type"), sizeFile(dir + "size");
        std::string type;
        long long kib = 0;
        if (!(typeFile >> type) || !(sizeFile >> kib)) break;
        if (type != "Instruction") sysfsLargest = std::max(sysfsLargest, kib * 1024);
    }
    if (sysfsLargest == 0) GTEST_SKIP() << "no cache sizes in sysfs";
    EXPECT_EQ(largest, std::min(sysfsLargest, 0x7FFFFFFFll));
}
