#include "kd_sah_partition.h"

#include <algorithm>

#include "float_keys.h"

namespace vekr::accel {

namespace {

constexpr uint32_t kGoesBelow = 1, kGoesAbove = 2;

// List entries are tallied this many at a time, so that each 16-bit field holds its sum.
constexpr int32_t kTallyRun = 0xFFFF;

// By an entry's sides (bits 0-1) and flat bits (bits 2-4): what it adds to each side's tally,
// 1 in bits 0-15 and 1 in bits 16k + 16 for each axis k it lies flat on.
struct SideTally {
    uint64_t add[2][32];
    constexpr SideTally() : add()
    {
        for (uint32_t kinds = 0; kinds < 32; ++kinds)
            for (int s = 0; s < 2; ++s) {
                if ((kinds >> s & 1u) == 0) continue;
                add[s][kinds] = 1;
                for (int k = 0; k < 3; ++k)
                    add[s][kinds] |= uint64_t(kinds >> (2 + k) & 1u) << (16 * (k + 1));
            }
    }
};
constexpr SideTally kSideTallyTable;
constexpr const uint64_t (&kSideTally)[2][32] = kSideTallyTable.add;

// Branch-free filter: every entry is written to both children and kept where it belongs.
template <class Entry, class SidesOf>
void filterList(const Entry* from, int32_t n, Entry* toBelow, Entry* toAbove, SidesOf sidesOf)
{
    int32_t nBelow = 0, nAbove = 0;
    for (int32_t i = 0; i < n; ++i) {
        const Entry entry = from[i];
        const uint32_t sides = sidesOf(entry);
        toBelow[nBelow] = entry;
        nBelow += int32_t(sides & kGoesBelow);
        toAbove[nAbove] = entry;
        nAbove += int32_t(sides >> 1);
    }
}

}  // namespace

// A triangle's start comes before its end on the axis, so the end adds to what the start set.
// Keys are trimmed to the cell as the search saw them.
void classifySahSplit(const SahNode& node, const SahSplit& split, uint8_t* sides)
{
    const int axis = split.axis;
    const uint32_t loKey = sahBoundKey(node.cell.lo[axis]);
    const uint32_t hiKey = sahBoundKey(node.cell.hi[axis]);
    const uint32_t planeKey = sahBoundKey(split.position);
    const uint32_t flatAtPlane = split.flatBelow ? kGoesBelow : kGoesAbove;
    const uint64_t* events = node.events[axis];
    for (int32_t i = 0; i < node.eventCount[axis]; ++i) {
        const uint64_t event = events[i];
        const uint32_t key = std::min(std::max(eventKey(event), loKey), hiKey);
        const uint32_t triangle = eventTriangle(event);
        const uint32_t kind = eventKind(event);
        const uint32_t below = key < planeKey ? kGoesBelow : 0;
        const uint32_t above = key > planeKey ? kGoesAbove : 0;
        // Start: below or nothing yet. End: adds above. Flat: one side, at the plane the
        // chosen one. Chosen by masks, not branches: the kinds come in no predictable order.
        const uint32_t placed = below | above;
        const uint32_t flat = placed | (flatAtPlane & (0u - uint32_t(placed == 0)));
        const uint32_t isEnd = 0u - uint32_t(kind == kEventEnd);
        const uint32_t set = (below & (0u - uint32_t(kind == kEventStart))) |
                             (flat & (0u - uint32_t(kind == kEventFlat))) | (above & isEnd);
        sides[triangle] = uint8_t((sides[triangle] & isEnd) | set);
    }
}

namespace {

// The children's counts, event counts and cells, from each list entry's sides as sidesOf
// tells them. StatusBuildMismatch when a side's count is not the one the search costed.
template <class SidesOf>
Status tallySahChildren(const SahNode& node, const SahSplit& split, SidesOf sidesOf, SahNode& below,
                        SahNode& above)
{
    // Per side, the count and the flat ones on each axis in four 16-bit fields of one word,
    // summed up to 0xFFFF entries at a time.
    int32_t counts[2] = {0, 0};
    int32_t flats[2][3] = {};
    for (int32_t first = 0; first < node.count; first += kTallyRun) {
        const int32_t end = std::min(first + kTallyRun, node.count);
        uint64_t tally[2] = {0, 0};
        for (int32_t i = first; i < end; ++i) {
            const uint32_t entry = uint32_t(node.list[i]);
            const uint32_t kinds = sidesOf(entry) | (entry >> kListFlatShift) << 2;
            tally[0] += kSideTally[0][kinds];
            tally[1] += kSideTally[1][kinds];
        }
        for (int s = 0; s < 2; ++s) {
            counts[s] += int32_t(tally[s] & 0xFFFF);
            for (int k = 0; k < 3; ++k)
                flats[s][k] += int32_t(tally[s] >> (16 * (k + 1)) & 0xFFFF);
        }
    }
    if (counts[0] != split.countBelow || counts[1] != split.countAbove) return StatusBuildMismatch;

    SahNode* children[2] = {&below, &above};
    for (int s = 0; s < 2; ++s) {
        SahNode& child = *children[s];
        child.count = counts[s];
        for (int k = 0; k < 3; ++k)
            child.eventCount[k] = 2 * child.count - flats[s][k];
        child.cell = node.cell;
    }
    below.cell.hi[split.axis] = split.position;
    above.cell.lo[split.axis] = split.position;
    return StatusOk;
}

}  // namespace

Status sizeSahChildren(const SahNode& node, const SahSplit& split, const uint8_t* sides,
                       SahNode& below, SahNode& above)
{
    return tallySahChildren(
        node, split, [sides](uint32_t entry) { return uint32_t(sides[entry & kListTriangleMask]); },
        below, above);
}

// The sides from each triangle's extent on the axis, as its events would set them: the start
// (the lower bound) places it below, the end (the upper bound) above, a flat one (both equal)
// by its position or, in the plane, on the chosen side. Keys are compared as the search saw
// them, trimmed to the cell [lo, hi], which holds the plane p: a trimmed key lies below p
// exactly when the key does and lo < p, above p exactly when the key does and p < hi.
Status classifyAndSizeSahSplit(const SahNode& node, const SahSplit& split,
                               const float* triangleBounds, uint8_t* sides, SahNode& below,
                               SahNode& above)
{
    const int axis = split.axis;
    const uint32_t loKey = sahBoundKey(node.cell.lo[axis]);
    const uint32_t hiKey = sahBoundKey(node.cell.hi[axis]);
    const uint32_t planeKey = sahBoundKey(split.position);
    const uint32_t belowLimit = loKey < planeKey ? planeKey : 0;
    const uint32_t aboveLimit = planeKey < hiKey ? planeKey : UINT32_MAX;
    const uint32_t flatAtPlane = split.flatBelow ? kGoesBelow : kGoesAbove;
    const float* axisBounds = triangleBounds + axis;
    auto sidesOf = [&](uint32_t entry) {
        const uint32_t triangle = entry & kListTriangleMask;
        const float* bounds = axisBounds + 6 * int64_t(triangle);
        const uint32_t start = floatKey(bounds[0]), end = floatKey(bounds[3]);
        const uint32_t placed =
            (start < belowLimit ? kGoesBelow : 0) | (end > aboveLimit ? kGoesAbove : 0);
        const bool inPlane = placed == 0 && (entry >> (kListFlatShift + axis) & 1u) != 0;
        const uint32_t set = placed | (flatAtPlane & (0u - uint32_t(inPlane)));
        sides[triangle] = uint8_t(set);
        return set;
    };
    return tallySahChildren(node, split, sidesOf, below, above);
}

void writeSahChildPart(const SahNode& node, const uint8_t* sides, int part, const SahNode& below,
                       const SahNode& above)
{
    if (part == 3) {
        filterList(node.list, node.count, below.list, above.list,
                   [sides](int32_t entry) { return uint32_t(sides[entry & kListTriangleMask]); });
        return;
    }
    filterList(node.events[part], node.eventCount[part], below.events[part], above.events[part],
               [sides](uint64_t event) { return uint32_t(sides[eventTriangle(event)]); });
}

void writeSahChildren(const SahNode& node, const uint8_t* sides, const SahNode& below,
                      const SahNode& above)
{
    for (int part = 0; part < kSahListParts; ++part)
        writeSahChildPart(node, sides, part, below, above);
}

}  // namespace vekr::accel
