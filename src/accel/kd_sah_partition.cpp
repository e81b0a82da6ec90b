#include "kd_sah_partition.h"

#include <algorithm>

#include "float_keys.h"

namespace vekr::accel {

namespace {

constexpr uint8_t kGoesBelow = 1, kGoesAbove = 2;
constexpr uint32_t kNotOnSide = 0x80000000u;

// 1 when the rank marks a position on that side, else 0.
inline uint32_t onSide(uint32_t rank)
{
    return (rank >> 31) ^ 1u;
}

}  // namespace

int64_t sahPartitionWords(int32_t count)
{
    return 2 * int64_t(count) + (int64_t(count) + 3) / 4;
}

SahPartitionScratch placePartitionScratch(int32_t* words, int32_t count)
{
    auto* ranks = reinterpret_cast<uint32_t*>(words);
    return {reinterpret_cast<uint8_t*>(ranks + 2 * int64_t(count)), ranks};
}

Status classifySahSplit(const SahNode& node, const SahSplit& split,
                        const SahPartitionScratch& scratch, SahNode& below, SahNode& above)
{
    // The side of each triangle from its events on the split axis, trimmed to the cell. A
    // triangle's start comes before its end, so the end adds to what the start set.
    const int axis = split.axis;
    const uint32_t loKey = floatKey(node.cell.lo[axis]), hiKey = floatKey(node.cell.hi[axis]);
    const uint32_t planeKey = floatKey(split.position);
    const uint64_t* events = node.events[axis];
    uint8_t* sides = scratch.sides;
    for (int32_t i = 0; i < node.eventCount[axis]; ++i) {
        const uint64_t event = events[i];
        const uint32_t key = std::min(std::max(eventKey(event), loKey), hiKey);
        const uint32_t position = eventPosition(event);
        switch (eventKind(event)) {
            case kEventStart:
                sides[position] = key < planeKey ? kGoesBelow : 0;
                break;
            case kEventEnd:
                sides[position] |= key > planeKey ? kGoesAbove : 0;
                break;
            default:
                sides[position] =
                    key < planeKey || (key == planeKey && split.flatBelow) ? kGoesBelow : kGoesAbove;
                break;
        }
    }

    // Positions on each side in list order, and the flat triangles each side gets per axis.
    uint32_t counts[2] = {0, 0};
    int32_t flats[2][3] = {};
    for (int32_t i = 0; i < node.count; ++i) {
        const uint32_t side = sides[i];
        const uint32_t flatBits = uint32_t(node.list[i]) >> kListFlatShift;
        for (int s = 0; s < 2; ++s) {
            const uint32_t on = side >> s & 1u;
            scratch.ranks[2 * i + s] = on != 0 ? counts[s] : kNotOnSide;
            counts[s] += on;
            for (int k = 0; k < 3; ++k)
                flats[s][k] += int32_t(on & flatBits >> k);
        }
    }
    if (int32_t(counts[0]) != split.countBelow || int32_t(counts[1]) != split.countAbove)
        return StatusBuildMismatch;

    SahNode* children[2] = {&below, &above};
    for (int s = 0; s < 2; ++s) {
        SahNode& child = *children[s];
        child.count = int32_t(counts[s]);
        for (int k = 0; k < 3; ++k)
            child.eventCount[k] = 2 * child.count - flats[s][k];
        child.cell = node.cell;
    }
    below.cell.hi[axis] = split.position;
    above.cell.lo[axis] = split.position;
    return StatusOk;
}

// Branch-free filters: every entry is written to both children and kept where it belongs,
// which is why a child's list may be written one entry past its end.
void writeSahChildList(const SahNode& node, const SahPartitionScratch& scratch, int part,
                       const SahNode& below, const SahNode& above)
{
    const uint32_t* ranks = scratch.ranks;
    if (part == 3) {
        int32_t* listBelow = below.list;
        int32_t* listAbove = above.list;
        uint32_t nBelow = 0, nAbove = 0;
        for (int32_t i = 0; i < node.count; ++i) {
            const int32_t entry = node.list[i];
            listBelow[nBelow] = entry;
            nBelow += onSide(ranks[2 * i]);
            listAbove[nAbove] = entry;
            nAbove += onSide(ranks[2 * i + 1]);
        }
        return;
    }
    // The key and the kind stay; the position becomes the one on the child's side.
    constexpr uint64_t kKeepBits = 0xFFFFFFFF00000003ull;
    const uint64_t* events = node.events[part];
    uint64_t* eventsBelow = below.events[part];
    uint64_t* eventsAbove = above.events[part];
    uint32_t nBelow = 0, nAbove = 0;
    for (int32_t i = 0; i < node.eventCount[part]; ++i) {
        const uint64_t event = events[i];
        const uint32_t position = eventPosition(event);
        const uint32_t rankBelow = ranks[2 * position], rankAbove = ranks[2 * position + 1];
        eventsBelow[nBelow] = (event & kKeepBits) | uint32_t(rankBelow << 2);
        nBelow += onSide(rankBelow);
        eventsAbove[nAbove] = (event & kKeepBits) | uint32_t(rankAbove << 2);
        nAbove += onSide(rankAbove);
    }
}

}  // namespace vekr::accel
