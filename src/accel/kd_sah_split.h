// The split search of the surface-area-heuristic build: candidates per axis on integer keys,
// the sweep, and the cost model that chooses between split and leaf.
#pragma once

#include <cstdint>

#include "kd_sah_extents.h"

namespace vekr::accel {

// Nodes of this many triangles or more search their three axes in a parallel region.
constexpr int32_t kSahParallelMinTriangles = 76;

// The triangles of one node and its cell. A triangle's extent in the node is its extent
// trimmed to the cell; on an axis where the trimmed extent is a single value the triangle
// is flat, otherwise it starts at the lower and ends at the upper value.
struct SahNode {
    const int32_t* list;
    int32_t count;
    Cell cell;
};

// The per-axis key arrays of the search, each of the build's triangle count (a node lists a
// triangle at most once): starts with the flat positions after them, ends, and a sort buffer.
struct SahSearchScratch {
    uint32_t* starts[3];
    uint32_t* ends[3];
    uint32_t* sortBuffer[3];
};

// The best split found: the plane, the side that takes the triangles lying flat in it, the
// triangle counts of the two sides, and its cost in the units of the leaf cost.
struct SahSplit {
    int axis = -1;  // -1: no axis had a candidate
    float position = 0.0f;
    bool flatBelow = false;
    int32_t countBelow = 0, countAbove = 0;
    double cost = 0.0;
};

// Half the cell's surface area times the triangle count.
double sahLeafCost(const Cell& cell, int32_t count);

// K = (10 - 9 * ratio) * 0.5057569742202759 in double, kept as a float: the share of the
// leaf cost a split must gain.
float sahGainFactor(float ratio);

// True when a split of cost splitCost pays against the leaf: N (L - S) > max(1e-5, K L).
bool sahSplitPays(double leafCost, double splitCost, int32_t count, float gainFactor);

// The cheapest split over the three axes; ties go to the higher axis. Nodes of at least
// parallelMinTriangles search their axes in a parallel region, with the same result.
SahSplit findBestSplit(const SahNode& node, const TriangleExtents& extents,
                       const SahSearchScratch& scratch, int32_t parallelMinTriangles);

}  // namespace vekr::accel
