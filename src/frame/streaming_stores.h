// When a destination is written with streaming stores.
#pragma once

#include <cstddef>

#include "vekcore.h"

namespace vekr::frame {

// Destinations of at most this many bytes always stay in the caches.
constexpr std::size_t kStreamingMinBytes = 0x200000;

// Whether a destination of this many bytes is better written past the caches: more than 2 MiB
// and more than the largest cache holds (or the cache size is unknown). A destination a cache
// could hold is left there for the caller; a larger one would only evict the caller's working
// set, and streaming stores also skip reading its lines before writing them.
inline bool streamsPastCaches(std::size_t bytes)
{
    const int cacheBytes = vekGetMaxCacheSizeB();
    return bytes > kStreamingMinBytes && (cacheBytes <= 0 || bytes > std::size_t(cacheBytes));
}

}  // namespace vekr::frame
