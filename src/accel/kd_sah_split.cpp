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

// The number of keys equal to x at the front of keys[i .. n), which it skips.
int32_t takeEqual(const uint32_t* keys, int32_t n, int32_t& i, uint32_t x)
{
    const int32_t from = i;
    while (i < n && keys[i] == x)
        ++i;
    return i - from;
}

// The best split of one axis, or found = false when the axis is too thin or nothing on it
// has a cost that is a number.
AxisBest searchAxis(const SahNode& node, const TriangleExtents& extents, int axis, uint32_t* starts,
                    uint32_t* ends, uint32_t* sortBuffer)
{
    AxisBest best;
    const Cell& cell = node.cell;
    const float lo = cell.lo[axis], hi = cell.hi[axis];
    const double extent = double(hi) - double(lo);
    if (!(extent > kMinExtent)) return best;
    const int u = (axis + 1) % 3, v = (axis + 2) % 3;
    const double a = double(cell.hi[u]) - double(cell.lo[u]);
    const double b = double(cell.hi[v]) - double(cell.lo[v]);
    const AxisCost model{a * b < kMinCrossArea ? 0.0 : a * b / (a + b), lo, hi};

    // Starts and ends of the extents trimmed to the cell.
    const int32_t n = node.count;
    const float* lower = extents.lower[axis];
    const float* upper = extents.upper[axis];
    int32_t spanning = 0, flat = n;  // flat positions fill starts[flat .. n)
    float firstStart = hi, lastEnd = lo;
    for (int32_t i = 0; i < n; ++i) {
        const int32_t t = node.list[i];
        const float start = std::max(lower[t], lo);
        const float end = std::min(upper[t], hi);
        firstStart = std::min(firstStart, start);
        lastEnd = std::max(lastEnd, end);
        if (start == end) {
            starts[--flat] = floatKey(start);
        } else {
            starts[spanning] = floatKey(start);
            ends[spanning++] = floatKey(end);
        }
    }

    // Empty space below the first start or above the last end: the cut alone decides.
    if (double(firstStart) - lo > kEmptyShare * extent)
        best.offer(double(n) * (model.across + (hi - double(firstStart))), firstStart, false, 0, n);
    if (hi - double(lastEnd) > kEmptyShare * extent)
        best.offer(double(n) * (model.across + (double(lastEnd) - lo)), lastEnd, true, n, 0);
    if (best.found) {
        best.cost *= kBonusFactor * (a + b);
        return best;
    }

    const int32_t flatCount = n - spanning;
    uint32_t* flats = starts + spanning;
    sortKeys(flats, sortBuffer, flatCount);
    // Flat triangles in the cell's lower or upper plane, cut off with the bonus.
    if (flatCount > 0) {
        const uint32_t first = flats[0], last = flats[flatCount - 1];
        if (keyFloat(first) == lo) {
            int32_t i = 0;
            const int32_t inPlane = takeEqual(flats, flatCount, i, first);
            best.offer(model.at(lo, inPlane, n - inPlane) * kBonusFactor, lo, true, inPlane,
                       n - inPlane);
        }
        if (keyFloat(last) == hi) {
            const int32_t inPlane =
                int32_t(flats + flatCount - std::lower_bound(flats, flats + flatCount, last));
            best.offer(model.at(hi, n - inPlane, inPlane) * kBonusFactor, hi, false, n - inPlane,
                       inPlane);
        }
    }
    sortKeys(starts, sortBuffer, spanning);
    sortKeys(ends, sortBuffer, spanning);
    const uint32_t* sortedStarts = starts;
    const uint32_t* sortedEnds = ends;
    const uint32_t* flatKeys = flats;

    // The sweep: at each position x, the triangles below are those starting before x (and
    // flat ones before x), those above end after x (and flat ones after x). Triangles lying
    // flat at x are costed above first, then below.
    int64_t below = 0, above = n;
    int32_t is = 0, ie = 0, jf = 0;
    while (is < spanning || ie < spanning || jf < flatCount) {
        uint32_t key = UINT32_MAX;
        if (is < spanning) key = std::min(key, sortedStarts[is]);
        if (ie < spanning) key = std::min(key, sortedEnds[ie]);
        if (jf < flatCount) key = std::min(key, flatKeys[jf]);
        const int32_t ending = takeEqual(sortedEnds, spanning, ie, key);
        const int32_t lying = takeEqual(flatKeys, flatCount, jf, key);
        const int32_t starting = takeEqual(sortedStarts, spanning, is, key);
        const float x = keyFloat(key);
        above -= ending;
        best.offer(model.at(x, below, above), x, false, below, above);
        if (lying > 0)
            best.offer(model.at(x, below + lying, above - lying), x, true, below + lying,
                       above - lying);
        above -= lying;
        below += lying + starting;
    }
    best.cost *= a + b;
    return best;
}

SahSplit chooseAxis(const AxisBest (&axes)[3])
{
    SahSplit split;
    for (int axis = 0; axis < 3; ++axis) {
        const AxisBest& c = axes[axis];
        if (!c.found || (split.axis >= 0 && !(c.cost <= split.cost))) continue;
        split = SahSplit{axis, c.position, c.flatBelow, c.below, c.above, c.cost};
    }
    return split;
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

// Each axis is searched on its own key arrays, so the team members share nothing but the
// node, and the merge in axis order gives the split of the sequential search.
SahSplit findBestSplit(const SahNode& node, const TriangleExtents& extents,
                       const SahSearchScratch& scratch, int32_t parallelMinTriangles)
{
    AxisBest axes[3];
    auto searchShare = [&](int member, int teamSize) {
        for (int axis = member; axis < 3; axis += teamSize)
            axes[axis] = searchAxis(node, extents, axis, scratch.starts[axis], scratch.ends[axis],
                                    scratch.sortBuffer[axis]);
    };
    if (node.count >= parallelMinTriangles)
        frame::runParallelRegion(searchShare);
    else
        searchShare(0, 1);
    return chooseAxis(axes);
}

}  // namespace vekr::accel
