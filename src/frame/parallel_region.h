// The one pattern by which the library splits work over threads.
#pragma once

#include <omp.h>

#include "vekcore.h"

namespace vekr::frame {

// Runs body(memberIndex, teamSize) on every member of a team of ownGetNumThreads() threads,
// and returns when all have finished. Where the OpenMP runtime allows no further active level
// (inside another parallel region without nesting), the body runs once on the caller as a team
// of one. The body must derive its share of the work from its two arguments alone, so results
// never depend on the team size.
// A call whose work only pays for a few threads passes maxMembers: the team has at most that
// many members.
template <class Body>
void runParallelRegion(Body&& body, int maxMembers = 0x7fffffff)
{
    const int threadCount = ownGetNumThreads() < maxMembers ? ownGetNumThreads() : maxMembers;
    const bool mayFork = omp_get_active_level() < omp_get_max_active_levels();
#pragma omp parallel num_threads(threadCount) if (mayFork && threadCount > 1)
    body(omp_get_thread_num(), omp_get_num_threads());
}

}  // namespace vekr::frame
