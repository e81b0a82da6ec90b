#include "kd_sah_events.h"

#include "float_keys.h"

namespace vekr::accel {

int64_t sahNodeWords(int32_t count, const int32_t eventCount[3])
{
    int64_t words = (int64_t(count) + 2) & ~int64_t(1);
    for (int k = 0; k < 3; ++k)
        words += 2 * (int64_t(eventCount[k]) + 1);
    return words;
}

void placeSahNode(int32_t* words, SahNode& node)
{
    node.list = words;
    int32_t* at = words + ((int64_t(node.count) + 2) & ~int64_t(1));
    for (int k = 0; k < 3; ++k) {
        node.events[k] = reinterpret_cast<uint64_t*>(at);
        at += 2 * (int64_t(node.eventCount[k]) + 1);
    }
}

void makeRootEvents(const TriangleExtents& extents, int axis, SahNode& root)
{
    const float* lower = extents.lower[axis];
    const float* upper = extents.upper[axis];
    uint64_t* events = root.events[axis];
    int32_t n = 0;
    for (int32_t i = 0; i < root.count; ++i) {
        const uint32_t start = floatKey(lower[i]), end = floatKey(upper[i]);
        const uint32_t triangle = uint32_t(root.list[i] & kListTriangleMask);
        if (start == end) {
            events[n++] = makeSahEvent(start, triangle, kEventFlat);
        } else {
            events[n++] = makeSahEvent(start, triangle, kEventStart);
            events[n++] = makeSahEvent(end, triangle, kEventEnd);
        }
    }
    root.eventCount[axis] = n;
}

void sortRootEvents(SahNode& root, int axis, uint64_t* buffer, uint32_t* counts)
{
    sortByUpperKey(root.events[axis], buffer, counts, root.eventCount[axis]);
}

void markFlatTriangles(const TriangleExtents& extents, SahNode& root)
{
    for (int32_t i = 0; i < root.count; ++i) {
        int32_t flatBits = 0;
        for (int k = 0; k < 3; ++k)
            flatBits |= int32_t(extents.lower[k][i] == extents.upper[k][i]) << k;
        root.list[i] |= flatBits << kListFlatShift;
    }
}

}  // namespace vekr::accel
