#include "hit_points.h"

#include <immintrin.h>

#include <cstring>

namespace vekr::ray {

namespace {

constexpr int kGroup = 8;

// Stores value with the bits of maskWord cleared. Clearing the quiet bit of a NaN makes it
// signalling, so the result is stored, never returned: on 32-bit x86 a float returned from a
// call passes through the x87 stack, which would quiet it again where the Avx path does not.
void storeClearedByMask(float* dst, float value, int32_t maskWord)
{
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    bits &= ~uint32_t(maskWord);
    std::memcpy(dst, &bits, sizeof bits);
}

float originOf(const HitPointRays& rays, int k, int i)
{
    return rays.origin ? rays.origin[k] : rays.originPlanes[k][i];
}

// The first n lanes set.
__m256i leadingLanes(int n)
{
    const __m256i index = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    // No 256-bit integer compare without AVX2: compare the two halves.
    const __m128i limit = _mm_set1_epi32(n);
    const __m128i low = _mm_cmpgt_epi32(limit, _mm256_castsi256_si128(index));
    const __m128i high = _mm_cmpgt_epi32(limit, _mm256_extractf128_si256(index, 1));
    return _mm256_insertf128_si256(_mm256_castsi128_si256(low), high, 1);
}

}  // namespace

void computeHitPointsScalar(const HitPointRays& rays, float* const hitPoint[3])
{
    const int fullCount = rays.count & ~(kGroup - 1);
    for (int group = 0; group < rays.count; group += kGroup) {
        const int n = rays.count - group < kGroup ? rays.count - group : kGroup;
        bool allNegative = group < fullCount;
        for (int j = 0; j < n; ++j)
            allNegative = allNegative && rays.mask[group + j] < 0;
        for (int j = 0; j < n; ++j) {
            const int i = group + j;
            for (int k = 0; k < 3; ++k) {
                const float p = (rays.dir[k][i] * rays.dist[i]) * rays.eps + originOf(rays, k, i);
                if (allNegative)
                    hitPoint[k][i] = p;
                else
                    storeClearedByMask(hitPoint[k] + i, p, rays.mask[i]);
            }
        }
    }
}

void computeHitPointsAvx(const HitPointRays& rays, float* const hitPoint[3])
{
    const __m256 eps = _mm256_set1_ps(rays.eps);
    __m256 sharedOrigin[3] = {};
    if (rays.origin)
        for (int k = 0; k < 3; ++k)
            sharedOrigin[k] = _mm256_set1_ps(rays.origin[k]);
    const int fullCount = rays.count & ~(kGroup - 1);
    int i = 0;
    for (; i < fullCount; i += kGroup) {
        const __m256 mask = _mm256_castsi256_ps(
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(rays.mask + i)));
        const bool allNegative = _mm256_movemask_ps(mask) == 0xFF;
        const __m256 dist = _mm256_loadu_ps(rays.dist + i);
        for (int k = 0; k < 3; ++k) {
            const __m256 origin =
                rays.origin ? sharedOrigin[k] : _mm256_loadu_ps(rays.originPlanes[k] + i);
            const __m256 scaled =
                _mm256_mul_ps(_mm256_mul_ps(_mm256_loadu_ps(rays.dir[k] + i), dist), eps);
            const __m256 p = _mm256_add_ps(scaled, origin);
            _mm256_storeu_ps(hitPoint[k] + i, allNegative ? p : _mm256_andnot_ps(mask, p));
        }
    }
    const int tail = rays.count - i;
    if (tail <= 0) return;
    // Masked loads and stores: nothing at or past count is touched.
    const __m256i lanes = leadingLanes(tail);
    const __m256 mask = _mm256_maskload_ps(reinterpret_cast<const float*>(rays.mask + i), lanes);
    const __m256 dist = _mm256_maskload_ps(rays.dist + i, lanes);
    for (int k = 0; k < 3; ++k) {
        const __m256 origin =
            rays.origin ? sharedOrigin[k] : _mm256_maskload_ps(rays.originPlanes[k] + i, lanes);
        const __m256 scaled =
            _mm256_mul_ps(_mm256_mul_ps(_mm256_maskload_ps(rays.dir[k] + i, lanes), dist), eps);
        _mm256_maskstore_ps(hitPoint[k] + i, lanes,
                            _mm256_andnot_ps(mask, _mm256_add_ps(scaled, origin)));
    }
}

}  // namespace vekr::ray
