#include "clear_block.h"

#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "streaming_stores.h"

namespace vekr::frame {

namespace {

constexpr size_t kLineBytes = 64;

}  // namespace

void clearBlock(void* p, size_t bytes)
{
    if (!streamsPastCaches(bytes)) {
        std::memset(p, 0, bytes);
        return;
    }
    char* begin = static_cast<char*>(p);
    char* end = begin + bytes;
    char* alignedBegin = reinterpret_cast<char*>(
        (reinterpret_cast<uintptr_t>(begin) + kLineBytes - 1) & ~uintptr_t(kLineBytes - 1));
    char* alignedEnd =
        reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(end) & ~uintptr_t(kLineBytes - 1));
    std::memset(begin, 0, size_t(alignedBegin - begin));
    const __m256i zero = _mm256_setzero_si256();
    for (char* line = alignedBegin; line < alignedEnd; line += kLineBytes) {
        _mm256_stream_si256(reinterpret_cast<__m256i*>(line), zero);
        _mm256_stream_si256(reinterpret_cast<__m256i*>(line + 32), zero);
    }
    _mm_sfence();
    std::memset(alignedEnd, 0, size_t(end - alignedEnd));
}

}  // namespace vekr::frame
