// The simple KD-tree build: a root list leaf holding every triangle.
#pragma once

#include "vekr.h"

namespace vekr::accel {

// Allocates and fills the block; on failure returns StatusNoMemory and writes no output.
Status buildKdTreeSimple(int triangleCount, void** ppTree, int* pTreeSize);

}  // namespace vekr::accel
