// Split search by the surface-area heuristic with sorted candidate sweeps, after Wald and
// Havran (2006). The cost of a plane on an axis is the heuristic divided by 2(a + b), with
// a and b the cell's two other extents, so that each axis's best is multiplied by (a + b)
// before the axes are compared.
#include "kd_sah_split.h"

#include <immintrin.h>

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
// Below 1 by far more than the rounding of any cost: a bound times it is a true bound.
constexpr double kLeastCostMargin = 1.0 - 1e-6;
// 0.5057569742202759 scales (10 - 9 ratio) into the gain factor K.
constexpr double kGainScale = 0.5057569742202759;

struct AxisCost {
    double across;  // A = a b / (a + b), or 0 for a b < 1e-9
    double lo, hi;

    double at(double x, double below, double above) const
    {
        return below * (across + (x - lo)) + above * (across + (hi - x));
    }
};

// The running best of one axis: a candidate replaces it only when strictly cheaper.
struct AxisBest {
    bool found = false;
    double cost = INFINITY;
    float position = 0.0f;
    bool flatBelow = false;
    int32_t below = 0, above = 0;

    void offer(double c, float x, bool flat, double nBelow, double nAbove)
    {
        if (c < cost) take(c, x, flat, int32_t(nBelow), int32_t(nAbove));
    }
    void take(double c, float x, bool flat, int32_t nBelow, int32_t nAbove)
    {
        found = true;
        cost = c;
        position = x;
        flatBelow = flat;
        below = nBelow;
        above = nAbove;
    }
};

// An event's key trimmed to the cell: starts below it move up to lo, ends above it down to hi.
// The events of a node all reach its cell, so no start lies above hi and no end below lo.
struct KeyClamp {
    uint32_t lo, hi;
    uint32_t operator()(uint64_t event) const
    {
        return std::min(std::max(eventKey(event), lo), hi);
    }
};

// The root cell takes its bounds from vertices, so a bound may be -0, which no event is (see
// sahBoundKey): an event at +0 then lies at that bound, not beyond it.
KeyClamp clampTo(float lo, float hi)
{
    return {sahBoundKey(lo), sahBoundKey(hi)};
}

struct RunSweep {
    AxisBest best;
    uint32_t firstKey, lastKey;
    int32_t firstLying, lastLying;
};

// Runs are gathered this many events at a time, so the counts within a chunk fit a byte.
constexpr int32_t kRunChunk = 128;

// What an event of each kind adds to a chunk's packed counts: ends in bits 0-7, flat events
// in bits 8-15, starts in bits 16-23.
constexpr uint32_t kKindCounts[4] = {1, 1 << 8, 1 << 16, 0};

// The sweep: at each position x, the triangles below are those starting before x (and flat
// ones before x), those above end after x (and flat ones after x). Triangles lying flat at x
// are costed above first, then below; a candidate replaces the best only when strictly
// cheaper. Keys repeat (triangles share vertices), so the ends of the runs of equal keys are
// found first, without branches on the data, and then each run is costed, choosing the best
// by selection rather than by branches.
RunSweep sweepRuns(const uint64_t* events, int32_t m, int32_t n, KeyClamp clamp,
                   const AxisCost& model)
{
    RunSweep sweep{};
    // Per run end: its key (low half) and the chunk's counts through it (high half).
    uint64_t ends[kRunChunk];
    int32_t below = 0, flatsBefore = 0;                      // through the last costed run
    int32_t chunkEnds = 0, chunkFlats = 0, chunkStarts = 0;  // before the chunk
    int32_t lastLying = 0;
    bool firstRunDone = false;
    // Sorted by key: the events the clamp moves are a run of starts below the cell and one of
    // ends above it.
    int32_t clampedBelow = 0, clampedAbove = m;
    while (clampedBelow < m && eventKey(events[clampedBelow]) < clamp.lo)
        ++clampedBelow;
    while (clampedAbove > clampedBelow && eventKey(events[clampedAbove - 1]) > clamp.hi)
        --clampedAbove;
    uint64_t event = events[0];
    uint32_t key = clamp(event);
    sweep.firstKey = key;
    for (int32_t chunk = 0; chunk < m; chunk += kRunChunk) {
        const int32_t chunkEnd = std::min(chunk + kRunChunk, m);
        const int32_t lookAheadEnd = std::min(chunkEnd, m - 1);
        int32_t runCount = 0;
        uint32_t counts = 0;
        int32_t i = chunk;
        auto step = [&](auto keyOf) {
            counts += kKindCounts[eventKind(event)];
            ends[runCount] = key | uint64_t(counts) << 32;
            event = events[i + 1];
            const uint32_t next = keyOf(event);
            runCount += int32_t(next != key);
            key = next;
        };
        // Only the events before clampedBelow and from clampedAbove on need the clamp: the
        // next event's key is read unclamped in between.
        for (; i < std::min(lookAheadEnd, clampedBelow - 1); ++i)
            step(clamp);
        for (; i < std::min(lookAheadEnd, clampedAbove - 1); ++i)
            step(eventKey);
        for (; i < lookAheadEnd; ++i)
            step(clamp);
        if (i < chunkEnd) {  // the last event ends the last run
            counts += kKindCounts[eventKind(event)];
            ends[runCount++] = key | uint64_t(counts) << 32;
        }
        // The costs, keeping the first of the cheapest: its run and whether flat ones lie below.
        // The second cost of a run with nothing lying at it equals the first, so it never wins
        // and is skipped: most meshes have few flat triangles, and the branch is then cheap.
        double bestCost = sweep.best.cost;
        int32_t bestChoice = -1, bestBelow = 0, bestAbove = 0;
        for (int32_t r = 0; r < runCount; ++r) {
            const uint32_t through = uint32_t(ends[r] >> 32);
            const int32_t endsThrough = chunkEnds + int32_t(through & 0xFF);
            const int32_t flatsThrough = chunkFlats + int32_t(through >> 8 & 0xFF);
            const int32_t startsThrough = chunkStarts + int32_t(through >> 16);
            const int32_t lying = flatsThrough - flatsBefore;
            const int32_t above = n - endsThrough - flatsBefore;
            const double x = keyFloat(uint32_t(ends[r]));
            const double toLo = model.across + (x - model.lo);
            const double toHi = model.across + (model.hi - x);
            const double cost = double(below) * toLo + double(above) * toHi;
            const bool costWins = cost < bestCost;
            bestChoice = costWins ? 2 * r : bestChoice;
            bestBelow = costWins ? below : bestBelow;
            bestAbove = costWins ? above : bestAbove;
            bestCost = costWins ? cost : bestCost;
            if (lying != 0) {
                const double flatCost = double(below + lying) * toLo + double(above - lying) * toHi;
                const bool flatWins = flatCost < bestCost;
                bestChoice = flatWins ? 2 * r + 1 : bestChoice;
                bestBelow = flatWins ? below + lying : bestBelow;
                bestAbove = flatWins ? above - lying : bestAbove;
                bestCost = flatWins ? flatCost : bestCost;
            }
            lastLying = lying;
            below = startsThrough + flatsThrough;
            flatsBefore = flatsThrough;
        }
        if (runCount > 0) {
            // Nothing lies below the first run.
            if (!firstRunDone) sweep.firstLying = chunkFlats + int32_t(ends[0] >> 40 & 0xFF);
            firstRunDone = true;
            sweep.lastLying = lastLying;
        }
        if (bestChoice >= 0)
            sweep.best.take(bestCost, keyFloat(uint32_t(ends[bestChoice >> 1])),
                            (bestChoice & 1) != 0, bestBelow, bestAbove);
        if (runCount > 0) sweep.lastKey = uint32_t(ends[runCount - 1]);
        chunkEnds += int32_t(counts & 0xFF);
        chunkFlats += int32_t(counts >> 8 & 0xFF);
        chunkStarts += int32_t(counts >> 16);
    }
    return sweep;
}

// An axis as far as its search goes without the sweep: decided when it is too thin or cuts off
// empty space, otherwise its cost model for the sweep.
struct AxisStart {
    bool decided;
    AxisCost model;
    KeyClamp clamp;
    double scale;  // (a + b): makes the axis's costs comparable with the other axes'
};

// The result of a decided axis goes to split, field by field: split is read soon after, and a
// copy of a record just written in parts would wait for the parts to reach memory.
AxisStart beginAxis(const SahNode& node, int axis, const double (&extents)[3], SahSplit& split)
{
    AxisStart start{};
    start.decided = true;
    split.axis = -1;
    const float lo = node.cell.lo[axis], hi = node.cell.hi[axis];
    const double extent = extents[axis];
    const int32_t n = node.count, m = node.eventCount[axis];
    if (!(extent > kMinExtent) || n == 0) return start;
    const double a = extents[(axis + 1) % 3], b = extents[(axis + 2) % 3];
    start.model = AxisCost{a * b < kMinCrossArea ? 0.0 : a * b / (a + b), lo, hi};
    start.clamp = clampTo(lo, hi);
    start.scale = a + b;
    const AxisCost& model = start.model;
    const uint64_t* events = node.events[axis];

    // The first event is the lowest start (or flat position), the last the highest end. Where
    // they meet the cell's far bound, that bound is kept, sign and all: a bound of -0 is where
    // a cut at them lies.
    const float lowestStart = keyFloat(start.clamp(events[0]));
    const float highestEnd = keyFloat(start.clamp(events[m - 1]));
    const float firstStart = lowestStart < hi ? lowestStart : hi;
    const float lastEnd = lo < highestEnd ? highestEnd : lo;

    // Empty space below the first start or above the last end: the cut alone decides.
    AxisBest best;
    if (double(firstStart) - lo > kEmptyShare * extent)
        best.offer(double(n) * (model.across + (hi - double(firstStart))), firstStart, false, 0, n);
    if (hi - double(lastEnd) > kEmptyShare * extent)
        best.offer(double(n) * (model.across + (double(lastEnd) - lo)), lastEnd, true, n, 0);
    if (best.found) {
        split.axis = axis;
        split.position = best.position;
        split.flatBelow = best.flatBelow;
        split.countBelow = best.below;
        split.countAbove = best.above;
        split.cost = best.cost * (kBonusFactor * (a + b));
        return start;
    }
    start.decided = false;
    return start;
}

// The best split on an axis that beginAxis left undecided.
SahSplit sweepAxis(const SahNode& node, int axis, const AxisStart& start)
{
    const AxisCost& model = start.model;
    const KeyClamp clamp = start.clamp;
    const int32_t n = node.count;
    const float lo = node.cell.lo[axis], hi = node.cell.hi[axis];
    const RunSweep sweep = sweepRuns(node.events[axis], node.eventCount[axis], n, clamp, model);
    const int32_t flatsAtLo = sweep.firstKey == clamp.lo ? sweep.firstLying : 0;
    const int32_t flatsAtHi = sweep.lastKey == clamp.hi ? sweep.lastLying : 0;

    // Flat triangles in the cell's lower or upper plane, cut off with the bonus, come before
    // the sweep: a sweep candidate replaces them only when strictly cheaper.
    AxisBest best;
    if (flatsAtLo > 0)
        best.offer(model.at(lo, flatsAtLo, n - flatsAtLo) * kBonusFactor, lo, true, flatsAtLo,
                   n - flatsAtLo);
    if (flatsAtHi > 0)
        best.offer(model.at(hi, n - flatsAtHi, flatsAtHi) * kBonusFactor, hi, false, n - flatsAtHi,
                   flatsAtHi);
    if (sweep.best.found && sweep.best.cost < best.cost) best = sweep.best;
    if (!best.found) return {};
    return {axis, best.position, best.flatBelow, best.below, best.above, best.cost * start.scale};
}

SahSplit searchAxis(const SahNode& node, int axis, const double (&extents)[3])
{
    SahSplit split;
    const AxisStart start = beginAxis(node, axis, extents, split);
    if (!start.decided) split = sweepAxis(node, axis, start);
    return split;
}

// Lower bounds of the best costs of the undecided axes. Every triangle of a node reaches into
// the interior of its cell (the root's lie within its bounds, and a partition hands a child
// only those reaching past the plane), so at every candidate x each triangle lies on at
// least one side, and a triangle with trimmed extent [s, f] on the axis costs at least
// A + (x - lo) >= A + (f - lo) below, A + (hi - x) >= A + (hi - s) above, and 2A + (hi - lo)
// on both. Its least is A + min(f - lo, hi - s) whatever x is. Only the cuts of flat
// triangles in the cell's faces take the bonus, so the sum is scaled by it when the axis has
// flat triangles. The margin covers rounding, far larger than that of a sum of 2^26 terms.
void boundAxisCosts(const SahNode& node, const float* triangleBounds, const AxisStart (&starts)[3],
                    double (&least)[3])
{
    // Trimming to the cell is folded into the minimum: min(f, hi) - lo = min(f - lo, hi - lo).
    // The three axes go side by side in the lanes of a vector (the fourth lane is not used),
    // each lane the same operations as one axis's scalar sum; two partial sums let successive
    // triangles proceed without waiting for each other, and any order of the terms gives a sum
    // within the margin. _mm256_min_pd(b, a) is std::min(a, b), NaN included.
    const Cell& cell = node.cell;
    const __m256d lo = _mm256_setr_pd(cell.lo[0], cell.lo[1], cell.lo[2], 0.0);
    const __m256d hi = _mm256_setr_pd(cell.hi[0], cell.hi[1], cell.hi[2], 0.0);
    const __m256d extent = _mm256_sub_pd(hi, lo);
    auto term = [&](int32_t i) {
        const float* bounds = triangleBounds + 6 * int64_t(node.list[i] & kListTriangleMask);
        const __m128 lower = _mm_loadu_ps(bounds);       // lower x, y, z, then upper x
        const __m128 around = _mm_loadu_ps(bounds + 2);  // lower z, then upper x, y, z
        const __m128 upper = _mm_shuffle_ps(around, around, _MM_SHUFFLE(3, 3, 2, 1));
        const __m256d fromLo = _mm256_sub_pd(_mm256_cvtps_pd(upper), lo);
        const __m256d toHi = _mm256_sub_pd(hi, _mm256_cvtps_pd(lower));
        return _mm256_min_pd(extent, _mm256_min_pd(toHi, fromLo));
    };
    __m256d even = _mm256_setzero_pd(), odd = _mm256_setzero_pd();
    int32_t i = 0;
    for (; i + 2 <= node.count; i += 2) {
        even = _mm256_add_pd(even, term(i));
        odd = _mm256_add_pd(odd, term(i + 1));
    }
    if (i < node.count) even = _mm256_add_pd(even, term(i));
    alignas(32) double sum[4];
    _mm256_store_pd(sum, _mm256_add_pd(even, odd));
    for (int k = 0; k < 3; ++k) {
        const bool flatOnAxis = node.eventCount[k] != 2 * node.count;
        least[k] = (double(node.count) * starts[k].model.across + sum[k]) * starts[k].scale *
                   (flatOnAxis ? kBonusFactor : 1.0) * kLeastCostMargin;
    }
}

void cellExtents(const Cell& cell, double (&extents)[3])
{
    for (int k = 0; k < 3; ++k)
        extents[k] = double(cell.hi[k]) - double(cell.lo[k]);
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
    double extents[3];
    cellExtents(node.cell, extents);
    return searchAxis(node, axis, extents);
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
    if (node.count >= parallelMinTriangles) {
        frame::runParallelRegion([&](int member, int teamSize) {
            for (int axis = member; axis < 3; axis += teamSize)
                axes[axis] = searchSplitAxis(node, axis);
        });
    } else {
        double extents[3];
        cellExtents(node.cell, extents);
        for (int k = 0; k < 3; ++k)
            axes[k] = searchAxis(node, k, extents);
    }
    return chooseSplitAxis(axes);
}

// The axes are swept in the order of their bounds, and one whose bound exceeds the cost of an
// axis already known is passed over: it cannot be chosen, not even on a tie. When no axis can
// reach a cost that pays, none is swept.
SahSplit findBestSplitBounded(const SahNode& node, const float* triangleBounds, float gainFactor)
{
    double extents[3];
    cellExtents(node.cell, extents);
    AxisStart starts[3];
    SahSplit axes[3];
    double known = INFINITY;
    bool undecided = false;
    for (int k = 0; k < 3; ++k) {
        starts[k] = beginAxis(node, k, extents, axes[k]);
        if (starts[k].decided && axes[k].axis >= 0) known = std::min(known, axes[k].cost);
        undecided = undecided || !starts[k].decided;
    }
    if (!undecided) return chooseSplitAxis(axes);

    double least[3];
    boundAxisCosts(node, triangleBounds, starts, least);
    // A split pays when n (L - S) > max(1e-5, K L): no axis reaching below that S, no split.
    // NaN bounds prove nothing, and sort first.
    const double leafCost = sahLeafCost(node.cell, node.count);
    const double scaledGain = double(gainFactor) * leafCost;
    const double gainPerTriangle = (scaledGain > kMinExtent ? scaledGain : kMinExtent) / node.count;
    const double paying = leafCost - gainPerTriangle + (leafCost + gainPerTriangle) * 1e-6;
    double lowest = known;
    for (int k = 0; k < 3; ++k) {
        if (starts[k].decided) continue;
        if (std::isnan(least[k])) least[k] = -INFINITY;
        lowest = std::min(lowest, least[k]);
    }
    if (lowest >= paying) return {};

    int order[3] = {0, 1, 2};
    auto orderPair = [&](int i, int j) {
        if (least[order[j]] < least[order[i]]) std::swap(order[i], order[j]);
    };
    orderPair(0, 1);
    orderPair(1, 2);
    orderPair(0, 1);
    for (int k : order) {
        if (starts[k].decided || least[k] > known) continue;
        axes[k] = sweepAxis(node, k, starts[k]);
        if (axes[k].axis >= 0) known = std::min(known, axes[k].cost);
    }
    return chooseSplitAxis(axes);
}

}  // namespace vekr::accel
