#include "kd_build_simple.h"

#include <cstdint>

#include "frame/scratch.h"
#include "kd_format.h"

namespace vekr::accel {

// The block is the root list leaf, 8 zero bytes and the list 0 .. n-1 from byte 16 on. It is
// allocated in 8-byte units, (size >> 3) + 1 of them, so 1 to 8 spare bytes follow the list.
// The simple method never uses the compact leaf forms and reads no geometry.
Status buildKdTreeSimple(int triangleCount, void** ppTree, int* pTreeSize)
{
    const int64_t size = int64_t(triangleCount) * 4 + kRootAreaBytes;
    // A size the int output cannot report is as unavailable as memory that cannot be had.
    if (size > INT32_MAX) return StatusNoMemory;
    frame::ScratchArray<uint64_t> block(int(size >> 3) + 1);
    if (!block) return StatusNoMemory;

    auto* nodes = reinterpret_cast<KdNode*>(block.get());
    nodes[0] = encodeListLeaf(kRootAreaBytes, triangleCount);
    nodes[1] = KdNode{0, 0};
    auto* list = reinterpret_cast<int32_t*>(nodes + 2);
    for (int32_t i = 0; i < triangleCount; ++i)
        list[i] = i;

    *ppTree = block.release();
    *pTreeSize = int(size);
    return StatusOk;
}

}  // namespace vekr::accel
