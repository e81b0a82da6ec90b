#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "accel/kd_format.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

// A complete, valid set of arguments that a test case then spoils in one place.
struct BuildCall {
    std::vector<float> vertices = std::vector<float>(30, 1.0f);
    std::vector<int> triangles = std::vector<int>(40, 0);
    void* tree = reinterpret_cast<void*>(uintptr_t(0xDEADBEE0));  // sentinels
    int treeSize = -12345;
    void** ppTree = &tree;
    const float* pVertexCoord = vertices.data();
    const int* pTriangleIndex = triangles.data();
    int vertexCount = 10;
    int triangleCount = 10;
    int* pTreeSize = &treeSize;
    KDTreeBuildParams params{KDTreeBuildSimple, 50, 0.5f, 64, nullptr};
    const KDTreeBuildParams* pParams = &params;

    Status run()
    {
        return vekrKDTreeBuildAlloc(ppTree, pVertexCoord, pTriangleIndex, vertexCount,
                                    triangleCount, pTreeSize, pParams);
    }
    bool outputsUntouched() const
    {
        return tree == reinterpret_cast<void*>(uintptr_t(0xDEADBEE0)) && treeSize == -12345;
    }
};

using Spoil = void (*)(BuildCall&);

struct Check {
    const char* what;
    Spoil spoil;
    Status expected;
};

const float kNaN = std::numeric_limits<float>::quiet_NaN();

void useSah(BuildCall& c)
{
    c.params.method = KDTreeBuildSah;
}

// The checks both methods share, in their order.
const Check kSharedChecks[] = {
    {"null ppTree", [](BuildCall& c) { c.ppTree = nullptr; }, StatusNullPointer},
    {"null vertices", [](BuildCall& c) { c.pVertexCoord = nullptr; }, StatusNullPointer},
    {"null triangles", [](BuildCall& c) { c.pTriangleIndex = nullptr; }, StatusNullPointer},
    {"null tree size", [](BuildCall& c) { c.pTreeSize = nullptr; }, StatusNullPointer},
    {"negative vertex count", [](BuildCall& c) { c.vertexCount = -1; }, StatusBadSize},
    {"negative triangle count", [](BuildCall& c) { c.triangleCount = INT_MIN; }, StatusBadSize},
    {"null params", [](BuildCall& c) { c.pParams = nullptr; }, StatusNullPointer},
};

// The surface-area-heuristic method's own checks, in their order.
const Check kSahChecks[] = {
    {"depth 51", [](BuildCall& c) { c.params.maxDepth = 51; }, StatusBadParameter},
    {"ratio above 1", [](BuildCall& c) { c.params.ratio = 1.0001f; }, StatusBadParameter},
    {"31 MB", [](BuildCall& c) { c.params.memoryLimitMB = 31; }, StatusNoMemory},
};

// Single spoils, each on an otherwise valid call of the simple method.
const Check kSingleCases[] = {
    {"simple, depth 51", [](BuildCall& c) { c.params.maxDepth = 51; }, StatusBadParameter},
    {"simple, depth -1", [](BuildCall& c) { c.params.maxDepth = uint32_t(-1); },
     StatusBadParameter},
    {"simple, bad ratio and budget unread",
     [](BuildCall& c) { c.params.ratio = -7, c.params.memoryLimitMB = 0; }, StatusOk},
    {"sah, depth -1", [](BuildCall& c) { useSah(c), c.params.maxDepth = uint32_t(-1); },
     StatusBadParameter},
    {"sah, ratio below 0", [](BuildCall& c) { useSah(c), c.params.ratio = -0.0001f; },
     StatusBadParameter},
    {"sah, 0 MB", [](BuildCall& c) { useSah(c), c.params.memoryLimitMB = 0; }, StatusNoMemory},
    {"sah, 8192 MB wraps to 0", [](BuildCall& c) { useSah(c), c.params.memoryLimitMB = 8192; },
     StatusNoMemory},
    {"unknown method 0", [](BuildCall& c) { c.params.method = 0, c.params.maxDepth = 99; },
     StatusBadArgument},
    {"unknown method", [](BuildCall& c) { c.params.method = KDTreeBuildSimple + 1; },
     StatusBadArgument},
    {"unknown method near the full-depth one",
     [](BuildCall& c) { c.params.method = KDTreeBuildSahFullDepth - 1; }, StatusBadArgument},
    {"full depth passing every check",
     [](BuildCall& c) { c.params.method = KDTreeBuildSahFullDepth, c.params.ratio = kNaN; },
     StatusOk},
    {"full depth, 32 MB",
     [](BuildCall& c) { c.params.method = KDTreeBuildSahFullDepth, c.params.memoryLimitMB = 32; },
     StatusNoMemory},
    {"sah passing every check", [](BuildCall& c) { useSah(c), c.params.ratio = 1.0f; }, StatusOk},
    {"sah, ratio 0, depth 50, 33 MB",
     [](BuildCall& c) { useSah(c), c.params.ratio = 0, c.params.memoryLimitMB = 33; }, StatusOk},
    {"sah, 32 MB passes the check but not the build's requirement",
     [](BuildCall& c) { useSah(c), c.params.memoryLimitMB = 32; }, StatusNoMemory},
    {"sah, NaN ratio passes", [](BuildCall& c) { useSah(c), c.params.ratio = kNaN; }, StatusOk},
};

// Runs the call and checks the status; a failed call must write and allocate nothing.
void expectOutcome(BuildCall& call, Status expected, const std::string& what)
{
    const long long live = vekGetLiveAllocationCount();
    EXPECT_EQ(call.run(), expected) << what;
    if (expected == StatusOk) {
        vekrKDTreeFree(call.tree);
        return;
    }
    EXPECT_TRUE(call.outputsUntouched()) << what;
    EXPECT_EQ(vekGetLiveAllocationCount(), live) << what;
}

const int32_t* words(const void* tree)
{
    return static_cast<const int32_t*>(tree);
}

}  // namespace

// Check k is spoiled together with every check after it (and all of the method's checks), so
// only the documented order gives check k's status.
TEST(KdBuildChecks, FirstFailingCheckInOrderWinsAndNothingIsWritten)
{
    const int shared = int(std::size(kSharedChecks)), sah = int(std::size(kSahChecks));
    for (uint32_t method : {KDTreeBuildSah, KDTreeBuildSahFullDepth})
        for (int k = 0; k < shared + sah; ++k) {
            BuildCall call;
            call.params.method = method;
            for (int j = std::max(k, shared); j < shared + sah; ++j)
                kSahChecks[j - shared].spoil(call);
            for (int j = k; j < shared; ++j)
                kSharedChecks[j].spoil(call);
            const Check& first = k < shared ? kSharedChecks[k] : kSahChecks[k - shared];
            expectOutcome(call, first.expected, first.what);
        }
    for (const Check& c : kSingleCases) {
        BuildCall call;
        c.spoil(call);
        expectOutcome(call, c.expected, c.what);
    }
}

TEST(KdBuildSimple, BlockIsARootListLeafOfAllTriangles)
{
    for (int n : {0, 1, 2, 3, 4, 5, 1000, 65537}) {
        BuildCall call;
        call.triangleCount = n;
        call.pVertexCoord = reinterpret_cast<const float*>(uintptr_t(8));   // never read
        call.pTriangleIndex = reinterpret_cast<const int*>(uintptr_t(16));  // never read
        call.params = KDTreeBuildParams{KDTreeBuildSimple, 0, kNaN, 0, nullptr};
        ASSERT_EQ(call.run(), StatusOk) << n;
        ASSERT_NE(call.tree, nullptr);
        // Allocated in 8-byte units, (size >> 3) + 1 of them: 1 to 8 spare bytes at the end.
        EXPECT_EQ(vekGetLastAllocationSize(), size_t(((4 * n + 16) >> 3) + 1) * 8) << n;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(call.tree) % 8, 0u);
        EXPECT_EQ(call.treeSize, 4 * n + 16) << n;

        std::vector<int32_t> expected = {-16, n, 0, 0};
        for (int i = 0; i < n; ++i)
            expected.push_back(i);
        EXPECT_EQ(std::memcmp(call.tree, expected.data(), expected.size() * 4), 0) << n;

        // Read back through the format decoder: never a compact form, even for 1 to 3.
        const auto* root = static_cast<const vekr::accel::KdNode*>(call.tree);
        EXPECT_TRUE(vekr::accel::isLeaf(*root));
        EXPECT_FALSE(vekr::accel::isCompactLeaf(*root));
        const auto leaf = vekr::accel::decodeLeaf(root);
        EXPECT_EQ(leaf.count, n);
        if (n > 0) {
            EXPECT_EQ(leaf.list, words(call.tree) + 4);
        }
        EXPECT_EQ(vekrKDTreeFree(call.tree), StatusOk);
    }
}

TEST(KdBuildSimple, AllocationFailureReturnsNoMemoryAndWritesNothing)
{
    BuildCall call;
    const long long live = vekGetLiveAllocationCount();
    vekFailNthAllocation(1);
    EXPECT_EQ(call.run(), StatusNoMemory);
    vekFailNthAllocation(0);
    EXPECT_TRUE(call.outputsUntouched());
    EXPECT_EQ(vekGetLiveAllocationCount(), live);
}

TEST(KdBuildSimple, SizeTheIntOutputCannotHoldIsNoMemory)
{
    for (int n : {INT_MAX, (INT_MAX - 16) / 4 + 1}) {
        BuildCall call;
        call.triangleCount = n;
        EXPECT_EQ(call.run(), StatusNoMemory) << n;
        EXPECT_TRUE(call.outputsUntouched());
    }
}

TEST(KdTreeFree, ReleasesTheBlockAndAcceptsNull)
{
    BuildCall call;
    const long long live = vekGetLiveAllocationCount();
    ASSERT_EQ(call.run(), StatusOk);
    EXPECT_EQ(vekGetLiveAllocationCount(), live + 1);
    EXPECT_EQ(vekrKDTreeFree(call.tree), StatusOk);
    EXPECT_EQ(vekGetLiveAllocationCount(), live);
    EXPECT_EQ(vekrKDTreeFree(nullptr), StatusOk);
}
