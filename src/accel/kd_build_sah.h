// The surface-area-heuristic KD-tree build.
#pragma once

#include <cstdint>

#include "kd_sah_extents.h"
#include "kd_sah_subtree.h"
#include "vekr.h"

namespace vekr::accel {

// Full depth: nodes of this many triangles or more are split one level at a time by the
// whole team; smaller ones become subtrees that one member builds alone.
constexpr int32_t kSahLevelMinTriangles = 2048;

struct SahBuildOptions {
    float ratio;           // 0 to 1; sets the gain factor K
    uint32_t maxDepth;     // 0 to 50
    uint64_t budgetBytes;  // every byte of scratch is charged to it
    SahDepthRule depthRule;
    // Splits in tree: nodes of this many triangles or more search their split in a parallel
    // region.
    int32_t parallelMinTriangles = kSahParallelMinTriangles;
    // Splits on each path: see kSahLevelMinTriangles.
    int32_t levelMinTriangles = kSahLevelMinTriangles;
};

// Builds the tree over mesh (extents clipped to clipBox when it is not null) and writes the
// block and its size. StatusNoMemory when the budget is below sahRequiredBytes (before any
// allocation) or an allocation fails; StatusMemoryLimit when the budget runs out during the
// build; StatusBuildMismatch when a partition disagrees with its split's counts. On failure
// nothing is written and all scratch is released. The block is the same for every thread
// count.
Status buildKdTreeSah(const MeshView& mesh, const float* clipBox, const SahBuildOptions& options,
                      void** ppTree, int* pTreeSize);

}  // namespace vekr::accel
