// The store-bandwidth reference the output-bound kernels are compared with: unaligned 8-float
// stores of a constant, as fast as one core writes memory.
#pragma once

#include <immintrin.h>

#include <cstddef>

namespace vekr::bench {

inline void storeConstant(float* p, size_t n)
{
    const __m256 value = _mm256_set1_ps(1.0f);
    size_t i = 0;
    for (; i + 8 <= n; i += 8)
        _mm256_storeu_ps(p + i, value);
    for (; i < n; ++i)
        p[i] = 1.0f;
}

}  // namespace vekr::bench
