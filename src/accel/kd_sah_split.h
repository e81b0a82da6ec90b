// The split search of the surface-area-heuristic build: a sweep over each axis's sorted
// events, and the cost model that chooses between split and leaf.
#pragma once

#include <cstdint>

#include "kd_sah_events.h"

namespace vekr::accel {

// Nodes of this many triangles or more search their three axes in a parallel region.
constexpr int32_t kSahParallelMinTriangles = 76;

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

// The best split of the node on one axis (axis -1 when the axis is too thin or nothing on it
// has a cost that is a number), its cost already comparable across axes.
SahSplit searchSplitAxis(const SahNode& node, int axis);

// The cheapest of the three axes' best splits; ties go to the higher axis.
SahSplit chooseSplitAxis(const SahSplit (&axes)[3]);

// The cheapest split over the three axes. Nodes of at least parallelMinTriangles search their
// axes in a parallel region, with the same result.
SahSplit findBestSplit(const SahNode& node, int32_t parallelMinTriangles);

// The same split, or axis -1 when none can pay against the leaf (sahSplitPays with
// gainFactor), on one thread, sweeping fewer axes: triangleBounds holds each triangle's
// extent on the axes (lower x, y, z, upper x, y, z) by triangle number, as the root's events
// were made, and bounds the cost each axis can reach.
SahSplit findBestSplitBounded(const SahNode& node, const float* triangleBounds, float gainFactor);

}  // namespace vekr::accel
