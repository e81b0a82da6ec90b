#include <gtest/gtest.h>
#include <omp.h>

#include <atomic>
#include <vector>

#include "frame/parallel_region.h"
#include "frame/scratch.h"
#include "support/thread_count_scope.h"
#include "vekcore.h"

using namespace vekr::frame;
using vekr::test::ThreadCountScope;

TEST(Scratch, CountBelowOneNeverReachesTheAllocator)
{
    vekFailNthAllocation(1);
    EXPECT_EQ(allocElements<double>(0), nullptr);
    EXPECT_EQ(allocElements<float>(-3), nullptr);
    EXPECT_EQ(allocElements<char>(1), nullptr) << "the armed failure was still pending";
    vekFailNthAllocation(0);
}

TEST(Scratch, OwnerFreesUnlessReleased)
{
    const long long before = vekGetLiveAllocationCount();
    {
        ScratchArray<int> held(10);
        ASSERT_TRUE(held);
        EXPECT_EQ(vekGetLiveAllocationCount(), before + 1);
    }
    EXPECT_EQ(vekGetLiveAllocationCount(), before);
    ScratchArray<double> kept(4);
    double* block = kept.release();
    EXPECT_FALSE(kept);
    EXPECT_EQ(vekGetLiveAllocationCount(), before + 1);
    vekFree(block);
    EXPECT_EQ(vekGetLiveAllocationCount(), before);
}

namespace {

// Runs a region and returns the team size each member reported, indexed by member.
std::vector<int> teamSeenByMembers()
{
    std::vector<std::atomic<int>> seen(16);
    std::atomic<int> members{0};
    runParallelRegion([&](int member, int teamSize) {
        seen[member].store(teamSize);
        members.fetch_add(1);
    });
    std::vector<int> out;
    for (int i = 0; i < members.load(); ++i)
        out.push_back(seen[i].load());
    return out;
}

}  // namespace

TEST(ParallelRegion, TeamHasTheCoreThreadCount)
{
    for (int threads : {1, 2, 3}) {
        const ThreadCountScope scope(threads);
        EXPECT_EQ(teamSeenByMembers(), std::vector<int>(threads, threads)) << threads;
    }
}

TEST(ParallelRegion, RunsSerialisedWhereTheRuntimeAllowsNoNewLevel)
{
    const ThreadCountScope scope(2);
    const int initialLevels = omp_get_max_active_levels();
    omp_set_max_active_levels(1);
    std::vector<int> inner[2];
#pragma omp parallel num_threads(2)
    inner[omp_get_thread_num()] = teamSeenByMembers();
    EXPECT_EQ(inner[0], std::vector<int>{1});
    if (!inner[1].empty()) {
        EXPECT_EQ(inner[1], std::vector<int>{1});
    }
    omp_set_max_active_levels(initialLevels);
}
