// The sorted candidate events of the surface-area-heuristic build: made and sorted once per
// axis at the root, then handed down to the children of every split by stable filtering, so
// each node has its events in key order without sorting again.
#pragma once

#include <cstdint>

#include "float_keys.h"
#include "kd_sah_extents.h"

namespace vekr::accel {

// An event: the float key of its position in the upper 32 bits, below them the triangle's
// number (shifted left by 2) and its kind in bits 0-1. A triangle flat on the axis (its
// extent a single value) has one flat event, any other a start and an end.
enum SahEventKind : uint32_t { kEventEnd = 0, kEventFlat = 1, kEventStart = 2 };

inline uint64_t makeSahEvent(uint32_t key, uint32_t triangle, uint32_t kind)
{
    return uint64_t(key) << 32 | triangle << 2 | kind;
}
inline uint32_t eventKey(uint64_t event)
{
    return uint32_t(event >> 32);
}
inline uint32_t eventTriangle(uint64_t event)
{
    return uint32_t(event) >> 2;
}
inline uint32_t eventKind(uint64_t event)
{
    return uint32_t(event) & 3;
}

// The key of a cell bound or a split plane, as the events' keys are made: -0 (which a cell's
// bound may be, and a split placed at it) and +0 are one position.
inline uint32_t sahBoundKey(float bound)
{
    return floatKey(bound + 0.0f);
}

// List entries: the triangle number, with bit kListFlatShift + k set when the triangle is flat
// on axis k. Flatness is decided once at the root: a triangle's extent in a child is trimmed
// to the child's cell only on the split axis, and only when it reaches past the plane, so
// it keeps a positive length there.
constexpr int kListFlatShift = 29;
constexpr int32_t kListTriangleMask = (int32_t(1) << kListFlatShift) - 1;
// Triangle numbers must leave the flat bits free; the budget check bounds them far lower.
constexpr int32_t kMaxListedTriangles = int32_t(1) << 26;

// The triangles of one node and their events. On every axis the events are sorted by key;
// they are the extents of the triangles at the root, not yet trimmed to the node's cell: the
// search and the partition clamp each key into [cell.lo, cell.hi], which keeps the order.
struct SahNode {
    int32_t* list;  // list entries in ascending triangle order
    int32_t count;
    uint64_t* events[3];
    int32_t eventCount[3];
    Cell cell;
};

// 32-bit words of a node's lists: the list and at least one spare entry, padded to an even
// count so the events stay 8-byte aligned, then each axis's events and one spare event. The
// partition may write one entry past the end of a list it fills (kd_sah_partition.h).
int64_t sahNodeWords(int32_t count, const int32_t eventCount[3]);

// Points node's lists into words (sahNodeWords of them, 8-byte aligned), by its counts.
void placeSahNode(int32_t* words, SahNode& node);

// Writes the events of the root's count triangles on axis, from their extents (in list order),
// and sets root.eventCount[axis]; the list holds the triangle numbers. Unsorted: see
// sortRootEvents.
void makeRootEvents(const TriangleExtents& extents, int axis, SahNode& root);

// Sorts the root's events on axis by key; buffer holds 2 * root.count items, counts
// kSortCountWords entries.
void sortRootEvents(SahNode& root, int axis, uint64_t* buffer, uint32_t* counts);

// Sets the flat bits of the root's list entries (which hold the listed triangle numbers).
void markFlatTriangles(const TriangleExtents& extents, SahNode& root);

}  // namespace vekr::accel
