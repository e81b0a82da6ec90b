// Entry functions of the acceleration structures: argument checks, then one kernel.
#include <cstddef>
#include <cstdint>

#include "bound_box.h"
#include "frame/entry_points.h"
#include "kd_build_sah.h"
#include "kd_build_simple.h"
#include "kd_format.h"
#include "triangle_accel.h"
#include "vekcore.h"

using namespace vekr;

// Callers fill these records by position as often as by name.
static_assert(sizeof(BoundBox) == 24 && offsetof(BoundBox, minX) == 0 &&
              offsetof(BoundBox, maxX) == 12 && offsetof(BoundBox, maxZ) == 20);
static_assert(offsetof(KDTreeBuildParams, method) == 0 &&
              offsetof(KDTreeBuildParams, maxDepth) == 4 &&
              offsetof(KDTreeBuildParams, ratio) == 8 &&
              offsetof(KDTreeBuildParams, memoryLimitMB) == 12 &&
              offsetof(KDTreeBuildParams, pBoundBox) == 16);

namespace {

// The budget check compares half the byte count (MB * 2^19, wrapping in 32 bits) with 16 MiB.
constexpr uint32_t kMinHalfBudgetBytes = 0x1000000;

}  // namespace

Status entry::vekrTriangleAccelGetSize(int* pSize)
{
    if (pSize == nullptr) return StatusNullPointer;
    *pSize = accel::kTriangleAccelBytes;
    return StatusOk;
}

// Checks nothing by design: the records need no state and no data makes the call fail.
Status entry::vekrTriangleAccelInit(TriangleAccel* pAccel, const float* pVertexCoord,
                                    const int* pTriangleIndex, int triangleCount)
{
    if (triangleCount < 1) return StatusOk;
    accel::initTriangleAccels(pAccel, pVertexCoord, pTriangleIndex, triangleCount);
    return StatusOk;
}

// Only the vertex pointer is checked; box is written on every other path.
Status entry::vekrSetBoundBox_32f(const float* vertices, int vertexCount, float* box)
{
    if (vertices == nullptr) return StatusNullPointer;
    accel::computeBoundBox(vertices, vertexCount, box);
    return StatusOk;
}

Status entry::vekrKDTreeBuildAlloc(void** ppTree, const float* pVertexCoord,
                                   const int* pTriangleIndex, int vertexCount, int triangleCount,
                                   int* pTreeSize, const KDTreeBuildParams* pParams)
{
    if (ppTree == nullptr || pVertexCoord == nullptr || pTriangleIndex == nullptr ||
        pTreeSize == nullptr)
        return StatusNullPointer;
    if (vertexCount < 0 || triangleCount < 0) return StatusBadSize;
    if (pParams == nullptr) return StatusNullPointer;

    const uint32_t method = pParams->method;
    if (method != KDTreeBuildSimple && method != KDTreeBuildSah &&
        method != KDTreeBuildSahFullDepth)
        return StatusBadArgument;
    // Unsigned, so a negative depth is refused too. The simple method checks it as well.
    if (pParams->maxDepth > uint32_t(accel::kMaxInnerNodesOnPath)) return StatusBadParameter;
    if (method == KDTreeBuildSimple)
        return accel::buildKdTreeSimple(triangleCount, ppTree, pTreeSize);

    // Ordered comparisons: a NaN ratio passes both.
    if (pParams->ratio < 0.0f || pParams->ratio > 1.0f) return StatusBadParameter;
    if (uint32_t(pParams->memoryLimitMB << 19) < kMinHalfBudgetBytes) return StatusNoMemory;
    // The byte budget wraps in 32 bits like the check above: 4096 MB and more wrap.
    const accel::SahBuildOptions options{
        pParams->ratio, pParams->maxDepth, uint32_t(pParams->memoryLimitMB << 20),
        method == KDTreeBuildSah ? accel::SahDepthRule::SplitsInTree
                                 : accel::SahDepthRule::SplitsOnPath};
    return accel::buildKdTreeSah({pVertexCoord, pTriangleIndex, vertexCount, triangleCount},
                                 pParams->pBoundBox, options, ppTree, pTreeSize);
}

// Hands the block to the core allocator and nothing else; null is passed on as it is.
Status entry::vekrKDTreeFree(void* pTree)
{
    vekFree(pTree);
    return StatusOk;
}
