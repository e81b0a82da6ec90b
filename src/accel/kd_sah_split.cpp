// Split search by the surface-area heuristic with sorted candidate sweeps, after Wald and
// Havran (2006). The cost of a plane on an axis is the heuristic divided by 2(a + b), with
// a and b the cell's two other extents, so that each axis's best is multiplied by (a + b)
// before the axes are compared.
#include "kd_sah_split.h"

#include <algorithm>
#include <cmath>

#include "float_keys.h"
#include "frame/parallel_region.h"

namespace vekr::accel {

namespace {

// The float nearest 0.7: the factor of cuts that cut off empty space or flat triangles in the
// cell's boundary plane.
constexpr double kBonusFactor = double(0.7f);  // 0.699999988079071
// The float nearest 1e-5: axes of a smaller extent are not split; the least gain of a split.
constexpr double kMinExtent = double(1e-5f);  // 9.999999747378752e-06
// Empty space is cut off when it is more than this share of the cell's extent.
constexpr double kEmptyShare = double(0.1f);
// a * b below this counts as a cell without area across the axis.
constexpr double kMinCrossArea = 1e-9;
// 0.5057569742202759 scales (10 - 9 ratio) into the gain factor K.
constexpr double kGainScale = 0.5057569742202759;

struct AxisCost {
    double across;  // A = a b / (a + b), or 0 for a b < 1e-9
    double lo, hi;

    double at(double x, int64_t below, int64_t above) const
    {
        return double(below) * (across + (x - lo)) + double(above) * (across + (hi - x));
    }
};

// The running best of one axis: a candidate replaces it only when strictly cheaper.
struct AxisBest {
    bool found = false;
    double cost = INFINITY;
    float position = 0.0f;
    bool flatBelow = false;
    int32_t below = 0, above = 0;

    void offer(double c, float x, bool flat, int64_t nBelow, int64_t nAbove)
    {
        if (!(c < cost)) return;
        found = true;
        cost = c;
        position = x;
        flatBelow = flat;
        below = int32_t(nBelow);
        above = int32_t(nAbove);
    }
};

// An event's key trimmed to the cell: starts below it move up to lo, ends above it down to hi.
// The events of a node all reach its cell, so no start lies above hi and no end below lo.
struct KeyClamp {
    uint32_t lo, hi;
    uint32_t operator()(uint64_t event) const { return std::min(std::max(eventKey(event), lo), hi); }
};

// The flat events among the run of events whose trimmed key is key, from events[i] on in the
// direction step (+1 or -1).
int32_t countFlatsInRun(const uint64_t* events, int32_t n, int32_t i, int step, KeyClamp clamp,
                        uint32_t key)
{
    int32_t flats = 0;
    for (; i >= 0 && i < n && clamp(events[i]) == key; i += step)
        flats += eventKind(events[i]) == kEventFlat;
    return flats;
}

}  // namespace

double sahLeafCost(const Cell& cell, int32_t count)
{
    const double dx = double(cell.hi[0]) - double(cell.lo[0]);
    const double dy = double(cell.hi[1]) - double(cell.lo[1]);
    const double dz = double(cell.hi[2]) - double(cell.lo[2]);
    return (dz * (dx + dy) + dx * dy) * double(count);
}

float sahGainFactor(float ratio)
{
    return float((10.0 - 9.0 * double(ratio)) * kGainScale);
}

// A NaN gain factor (from a NaN ratio) leaves the floor of 1e-5 alone.
bool sahSplitPays(double leafCost, double splitCost, int32_t count, float gainFactor)
{
    const double scaledGain = double(gainFactor) * leafCost;
    const double least = scaledGain > kMinExtent ? scaledGain : kMinExtent;
    return double(count) * (leafCost - splitCost) > least;
}

SahSplit searchSplitAxis(const SahNode& node, int axis)
{
    AxisBest best;
    const Cell& cell = node.cell;
    const float lo = cell.lo[axis], hi = cell.hi[axis];
    const double extent = double(hi) - double(lo);
    const int32_t n = node.count, m = node.eventCount[axis];
    if (!(extent > kMinExtent) || n == 0) return {};
    const int u = (axis + 1) % 3, v = (axis + 2) % 3;
    const double a = double(cell.hi[u]) - double(cell.lo[u]);
    const double b = double(cell.hi[v]) - double(cell.lo[v]);
    const AxisCost model{a * b < kMinCrossArea ? 0.0 : a * b / (a + b), lo, hi};
    const uint64_t* events = node.events[axis];
    const KeyClamp clamp{floatKey(lo), floatKey(hi)};

    // The first event is the lowest start (or flat position), the last the highest end.
    const float firstStart = keyFloat(clamp(events[0]));
    const float lastEnd = keyFloat(clamp(events[m - 1]));

    // Empty space below the first start or above the last end: the cut alone decides.
    if (double(firstStart) - lo > kEmptyShare * extent)
        best.offer(double(n) * (model.across + (hi - double(firstStart))), firstStart, false, 0, n);
    if (hi - double(lastEnd) > kEmptyShare * extent)
        best.offer(double(n) * (model.across + (double(lastEnd) - lo)), lastEnd, true, n, 0);
    if (best.found) {
        best.cost *= kBonusFactor * (a + b);
        return {axis, best.position, best.flatBelow, best.below, best.above, best.cost};
    }

    // Flat triangles in the cell's lower or upper plane, cut off with the bonus. They lie in
    // the first or the last run of equal trimmed keys.
    const int32_t flatsAtLo = countFlatsInRun(events, m, 0, 1, clamp, clamp.lo);
    if (flatsAtLo > 0)
        best.offer(model.at(lo, flatsAtLo, n - flatsAtLo) * kBonusFactor, lo, true, flatsAtLo,
                   n - flatsAtLo);
    const int32_t flatsAtHi = countFlatsInRun(events, m, m - 1, -1, clamp, clamp.hi);
    if (flatsAtHi > 0)
        best.offer(model.at(hi, n - flatsAtHi, flatsAtHi) * kBonusFactor, hi, false,
                   n - flatsAtHi, flatsAtHi);

    // The sweep: at each position x, the triangles below are those starting before x (and
    // flat ones before x), those above end after x (and flat ones after x). Triangles lying
    // flat at x are costed above first, then below.
    int64_t below = 0, above = n;
    for (int32_t i = 0; i < m;) {
        const uint32_t key = clamp(events[i]);
        int32_t ofKind[3] = {0, 0, 0};
        do {
            ++ofKind[eventKind(events[i])];
        } while (++i < m && clamp(events[i]) == key);
        const int32_t lying = ofKind[kEventFlat];
        const float x = keyFloat(key);
        above -= ofKind[kEventEnd];
        best.offer(model.at(x, below, above), x, false, below, above);
        if (lying > 0)
            best.offer(model.at(x, below + lying, above - lying), x, true, below + lying,
                       above - lying);
        above -= lying;
        below += lying + ofKind[kEventStart];
    }
    if (!best.found) return {};
    return {axis, best.position, best.flatBelow, best.below, best.above, best.cost * (a + b)};
}

SahSplit chooseSplitAxis(const SahSplit (&axes)[3])
{
    SahSplit split;
    for (const SahSplit& c : axes) {
        if (c.axis < 0 || (split.axis >= 0 && !(c.cost <= split.cost))) continue;
        split = c;
    }
    return split;
}

// Each axis is searched on its own, so the team members share nothing but the node, and the
// merge in axis order gives the split of the sequential search.
SahSplit findBestSplit(const SahNode& node, int32_t parallelMinTriangles)
{
    SahSplit axes[3];
    auto searchShare = [&](int member, int teamSize) {
        for (int axis = member; axis < 3; axis += teamSize)
            axes[axis] = searchSplitAxis(node, axis);
    };
    if (node.count >= parallelMinTriangles)
        frame::runParallelRegion(searchShare);
    else
        searchShare(0, 1);
    return chooseSplitAxis(axes);
}

}  // namespace vekr::accel
