// How the volume functions share a box of slices over the library's threads.
#pragma once

#include <cstdint>

#include "frame/parallel_region.h"
#include "vekcore.h"

namespace vekr::volume {

// A box thinner than this on some axis, or with fewer voxels than kMinVoxelsPerMember times
// two, runs on the calling thread: a team's fork and join (several microseconds, and on a
// machine whose cores are all busy up to a scheduler time slice) would cost more than the
// share it saves. Larger boxes get one member per kMinVoxelsPerMember voxels at most. A linear
// resize of a 16^3 destination takes about 8 us on one thread and 16 us on two; a member's
// 32768 voxels take 30 us or more in every function.
constexpr int32_t kMinParallelExtent = 16;
constexpr int64_t kMinVoxelsPerMember = 32768;

inline int slicesTeamSize(int32_t width, int32_t height, int32_t depth)
{
    const int threads = ownGetNumThreads();
    if (threads <= 1 || width < kMinParallelExtent || height < kMinParallelExtent ||
        depth < kMinParallelExtent)
        return 1;
    const int64_t worth = int64_t(width) * height * depth / kMinVoxelsPerMember;
    return worth < threads ? int(worth < 1 ? 1 : worth) : threads;
}

// slices(member, begin, end) over 0 .. depth - 1: once on the calling thread as member 0, or
// with n members member t takes q = depth / n slices from t * q on and the last member also the
// depth % n left. Every slice is computed the same whichever member runs it.
template <class SliceRange>
void splitSlices(int32_t width, int32_t height, int32_t depth, SliceRange&& slices)
{
    const int members = slicesTeamSize(width, height, depth);
    if (members <= 1) {
        slices(0, 0, depth);
        return;
    }
    frame::runParallelRegion(
        [&](int member, int teamSize) {
            const int32_t share = depth / teamSize;
            const int32_t begin = member * share;
            slices(member, begin, member == teamSize - 1 ? depth : begin + share);
        },
        members);
}

}  // namespace vekr::volume
