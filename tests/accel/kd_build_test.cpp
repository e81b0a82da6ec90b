#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
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

struct CheckCase {
    const char* what;
    std::function<void(BuildCall&)> spoil;
    Status expected;
};

const float kNaN = std::numeric_limits<float>::quiet_NaN();

// In check order: each case also spoils everything that is checked later, so only the right
// order gives the expected status.
const std::vector<CheckCase>& checkCases()
{
    static const std::vector<CheckCase> cases = {
        {"null ppTree",
         [](BuildCall& c) {
             c.ppTree = nullptr;
             c.pVertexCoord = nullptr;
             c.vertexCount = -1;
             c.pParams = nullptr;
         },
         StatusNullPointer},
        {"null vertices",
         [](BuildCall& c) {
             c.pVertexCoord = nullptr;
             c.pTriangleIndex = nullptr;
             c.vertexCount = -1;
         },
         StatusNullPointer},
        {"null triangles",
         [](BuildCall& c) {
             c.pTriangleIndex = nullptr;
             c.pTreeSize = nullptr;
             c.triangleCount = -1;
         },
         StatusNullPointer},
        {"null tree size",
         [](BuildCall& c) {
             c.pTreeSize = nullptr;
             c.vertexCount = -5;
             c.params.method = 0;
         },
         StatusNullPointer},
        {"negative vertex count",
         [](BuildCall& c) {
             c.vertexCount = -1;
             c.triangleCount = -1;
             c.pParams = nullptr;
         },
         StatusBadSize},
        {"negative triangle count",
         [](BuildCall& c) {
             c.triangleCount = INT_MIN;
             c.pParams = nullptr;
         },
         StatusBadSize},
        {"null params", [](BuildCall& c) { c.pParams = nullptr; }, StatusNullPointer},
        {"simple, depth 51",
         [](BuildCall& c) {
             c.params.maxDepth = 51;
             c.params.ratio = 7;
             c.params.memoryLimitMB = 0;
         },
         StatusBadParameter},
        {"simple, depth -1", [](BuildCall& c) { c.params.maxDepth = uint32_t(-1); },
         StatusBadParameter},
        {"sah, depth 51",
         [](BuildCall& c) {
             c.params.method = KDTreeBuildSah;
             c.params.maxDepth = 51;
             c.params.ratio = -1;
             c.params.memoryLimitMB = 0;
         },
         StatusBadParameter},
        {"sah, depth -1",
         [](BuildCall& c) {
             c.params.method = KDTreeBuildSah;
             c.params.maxDepth = uint32_t(-1);
         },
         StatusBadParameter},
        {"sah, ratio below 0",
         [](BuildCall& c) {
             c.params.method = KDTreeBuildSah;
             c.params.ratio = -0.0001f;
             c.params.memoryLimitMB = 0;
         },
         StatusBadParameter},
        {"sah, ratio above 1",
         [](BuildCall& c) {
             c.params.method = KDTreeBuildSah;
             c.params.ratio = 1.0001f;
             c.params.memoryLimitMB = 0;
         },
         StatusBadParameter},
        {"sah, 31 MB",
         [](BuildCall& c) {
             c.params.method = KDTreeBuildSah;
             c.params.memoryLimitMB = 31;
         },
         StatusNoMemory},
        {"sah, 0 MB",
         [](BuildCall& c) {
             c.params.method = KDTreeBuildSah;
             c.params.memoryLimitMB = 0;
         },
         StatusNoMemory},
        {"sah, 8192 MB wraps to 0",
         [](BuildCall& c) {
             c.params.method = KDTreeBuildSah;
             c.params.memoryLimitMB = 8192;
         },
         StatusNoMemory},
        {"unknown method 0",
         [](BuildCall& c) {
             c.params.method = 0;
             c.params.maxDepth = 99;
         },
         StatusBadArgument},
        {"unknown method", [](BuildCall& c) { c.params.method = KDTreeBuildSimple + 1; },
         StatusBadArgument},
        // The surface-area-heuristic builder is not in the library yet: a call that passes
        // every check for it is answered as an unknown method.
        {"sah passing every check",
         [](BuildCall& c) {
             c.params.method = KDTreeBuildSah;
             c.params.memoryLimitMB = 64;
             c.params.ratio = 1.0f;
         },
         StatusBadArgument},
        {"sah, ratio 0 and 8191 MB",
         [](BuildCall& c) {
             c.params.method = KDTreeBuildSah;
             c.params.ratio = 0.0f;
             c.params.memoryLimitMB = 8191;
         },
         StatusBadArgument},
        {"sah, NaN ratio passes",
         [](BuildCall& c) {
             c.params.method = KDTreeBuildSah;
             c.params.ratio = kNaN;
         },
         StatusBadArgument},
    };
    return cases;
}

const int32_t* words(const void* tree)
{
    return static_cast<const int32_t*>(tree);
}

}  // namespace

TEST(KdBuildChecks, EachFailingCheckInOrderWritesAndAllocatesNothing)
{
    for (const CheckCase& c : checkCases()) {
        BuildCall call;
        c.spoil(call);
        const long long live = vekGetLiveAllocationCount();
        EXPECT_EQ(call.run(), c.expected) << c.what;
        EXPECT_TRUE(call.outputsUntouched()) << c.what;
        EXPECT_EQ(vekGetLiveAllocationCount(), live) << c.what;
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
