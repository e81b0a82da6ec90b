// The full-depth surface-area-heuristic build by a team of threads: large nodes are split one
// level at a time, the team sharing each level's searches and partitions; small nodes become
// subtrees that one member builds alone (kd_sah_subtree.h). Each node's split depends only on
// its own lists and depth, and the block is written from the build nodes' links, so the tree
// is the same whatever the team size and the order in which the work is done. The members wait
// for each other nowhere but at the end: whoever finds no search or partition of the current
// level left builds a subtree instead.
#pragma once

#include <cstdint>

#include "kd_build_budget.h"
#include "kd_sah_subtree.h"
#include "vekr.h"

namespace vekr::accel {

class SahLevelBuilder {
public:
    // levelMinTriangles: nodes of at least this many triangles are split level by level.
    // sides: member 0's byte per triangle of the mesh (kd_sah_partition.h); the other members
    // take theirs from vekMalloc, uncharged, as their pools.
    SahLevelBuilder(const SahTreeRules& rules, int32_t levelMinTriangles, BuildBudget& budget,
                    int32_t triangleCount, uint8_t* sides);
    ~SahLevelBuilder();
    SahLevelBuilder(const SahLevelBuilder&) = delete;
    SahLevelBuilder& operator=(const SahLevelBuilder&) = delete;

    // Builds the tree below root (whose lists it overwrites) into out. The build nodes and leaf
    // lists live in the builder's pools: emit the tree before the builder goes. The pools
    // charge no budget; what is charged instead (SharedBudget) does not depend on the team size
    // or the schedule, so neither does the status: the words of build nodes and leaf lists, the
    // largest stack any subtree needed, and the largest lists of two successive levels.
    Status build(const SahNode& root, BuildNode& out);

private:
    struct Member;
    class Team;

    const SahTreeRules rules_;
    const int32_t levelMinTriangles_;
    BuildBudget& budget_;
    const int32_t triangleCount_;
    uint8_t* const sides_;
    SharedBudget shared_;
    Member* members_ = nullptr;  // one set of pools per possible team member
    int memberCount_ = 0;
};

}  // namespace vekr::accel
