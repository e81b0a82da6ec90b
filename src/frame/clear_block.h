// Zeroing of caller buffers.
#pragma once

#include <cstddef>

namespace vekr::frame {

// Clears bytes bytes at p. A block larger than 2 MiB that also exceeds the largest cache is
// cleared with streaming stores (64-byte aligned, past the caches) so it does not evict the
// caller's working set; smaller blocks with ordinary stores.
void clearBlock(void* p, size_t bytes);

}  // namespace vekr::frame
