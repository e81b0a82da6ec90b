#include "secondary_rays.h"

#include <immintrin.h>

#include <cmath>
#include <cstdint>

namespace vekr::ray {

namespace {

constexpr int kShadowGroup = 8;
constexpr int kReflectGroup = 4;

// What the vector path's cvtdq2ps / cvtps2dq pair does to a word: exact up to 2^24, the
// nearest float above. Words from 2^31 - 64 up round to 2^31, which the conversion back
// reports as INT32_MIN, its out-of-range result (C++ leaves that cast undefined).
int32_t roundTripThroughFloat(int32_t word)
{
    const float f = float(word);
    return f >= 0x1p31f ? INT32_MIN : int32_t(f);
}

// The scalar tail, the same for both twins.
void castShadowTail(const ShadowRayRun& rays, int first)
{
    for (int i = first; i < rays.count; ++i) {
        float v[3];
        for (int k = 0; k < 3; ++k)
            v[k] = rays.hitPoint[k][i] - rays.lightPos[k];
        float dot =
            ((v[0] * rays.normal[0][i]) + (v[1] * rays.normal[1][i])) + (v[2] * rays.normal[2][i]);
        if (std::fabs(dot) < kGrazingDot) dot = 0.0f;
        // Not "<= 0": a NaN product must also make the ray invalid.
        const bool lit = rays.eyeDot[i] * dot > 0.0f;
        if (rays.mask[i] >= 0 && lit) {
            rays.shadowDot[i] = std::fabs(dot);
            for (int k = 0; k < 3; ++k)
                rays.shadowDir[k][i] = v[k];
        } else {
            if (rays.mask[i] >= 0) rays.mask[i] = -1;
            rays.shadowDot[i] = 0.0f;
            for (int k = 0; k < 3; ++k)
                rays.shadowDir[k][i] = 0.0f;
        }
    }
}

}  // namespace

void castShadowRaysScalar(const ShadowRayRun& rays)
{
    if (rays.count < 1) return;
    const int fullCount = rays.count & ~(kShadowGroup - 1);
    for (int i = 0; i < fullCount; ++i) {
        float v[3];
        for (int k = 0; k < 3; ++k)
            v[k] = rays.hitPoint[k][i] - rays.lightPos[k];
        const float dot =
            ((v[0] * rays.normal[0][i]) + (v[1] * rays.normal[1][i])) + (v[2] * rays.normal[2][i]);
        const bool valid =
            rays.mask[i] >= 0 && rays.eyeDot[i] * dot > 0.0f && std::fabs(dot) >= kGrazingDot;
        rays.mask[i] = valid ? roundTripThroughFloat(rays.mask[i]) : -1;
        rays.shadowDot[i] = valid ? std::fabs(dot) : 0.0f;
        for (int k = 0; k < 3; ++k)
            rays.shadowDir[k][i] = valid ? v[k] : 0.0f;
    }
    castShadowTail(rays, fullCount);
}

void castShadowRaysAvx(const ShadowRayRun& rays)
{
    if (rays.count < 1) return;
    // Plane pointers in locals: the vector stores may alias anything, the run record included.
    const float* const hit[3] = {rays.hitPoint[0], rays.hitPoint[1], rays.hitPoint[2]};
    const float* const normal[3] = {rays.normal[0], rays.normal[1], rays.normal[2]};
    float* const dir[3] = {rays.shadowDir[0], rays.shadowDir[1], rays.shadowDir[2]};
    const float* const eyeDot = rays.eyeDot;
    float* const shadowDot = rays.shadowDot;
    int32_t* const mask = rays.mask;
    const __m256 light[3] = {_mm256_set1_ps(rays.lightPos[0]), _mm256_set1_ps(rays.lightPos[1]),
                             _mm256_set1_ps(rays.lightPos[2])};
    const __m256 zero = _mm256_setzero_ps();
    const __m256 allOnes = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    const __m256 signBit = _mm256_set1_ps(-0.0f);
    const __m256 grazing = _mm256_set1_ps(kGrazingDot);
    const int fullCount = rays.count & ~(kShadowGroup - 1);
    for (int i = 0; i < fullCount; i += kShadowGroup) {
        __m256i* const maskOut = reinterpret_cast<__m256i*>(mask + i);
        const __m256 words = _mm256_cvtepi32_ps(_mm256_loadu_si256(maskOut));
        if (_mm256_movemask_ps(words) == 0xFF) {
            // Eight inactive rays: the result is known without reading their points.
            _mm256_storeu_ps(reinterpret_cast<float*>(maskOut), allOnes);
            _mm256_storeu_ps(shadowDot + i, zero);
            for (int k = 0; k < 3; ++k)
                _mm256_storeu_ps(dir[k] + i, zero);
            continue;
        }
        __m256 v[3];
        for (int k = 0; k < 3; ++k)
            v[k] = _mm256_sub_ps(_mm256_loadu_ps(hit[k] + i), light[k]);
        const __m256 dot =
            _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(v[0], _mm256_loadu_ps(normal[0] + i)),
                                        _mm256_mul_ps(v[1], _mm256_loadu_ps(normal[1] + i))),
                          _mm256_mul_ps(v[2], _mm256_loadu_ps(normal[2] + i)));
        const __m256 absDot = _mm256_andnot_ps(signBit, dot);
        // Ordered compares: NaN anywhere leaves the lane invalid, as in the scalar twin.
        const __m256 lit =
            _mm256_cmp_ps(_mm256_mul_ps(_mm256_loadu_ps(eyeDot + i), dot), zero, _CMP_GT_OQ);
        const __m256 valid =
            _mm256_and_ps(_mm256_and_ps(_mm256_cmp_ps(words, zero, _CMP_GE_OQ), lit),
                          _mm256_cmp_ps(absDot, grazing, _CMP_GE_OQ));
        // -1 is all ones, so OR-ing the complement of valid makes every invalid word -1. (A
        // blend here compiles to a branch per lane with GCC 12.)
        const __m256 roundTrip = _mm256_castsi256_ps(_mm256_cvtps_epi32(words));
        _mm256_storeu_ps(reinterpret_cast<float*>(maskOut),
                         _mm256_or_ps(roundTrip, _mm256_andnot_ps(valid, allOnes)));
        _mm256_storeu_ps(shadowDot + i, _mm256_and_ps(valid, absDot));
        for (int k = 0; k < 3; ++k)
            _mm256_storeu_ps(dir[k] + i, _mm256_and_ps(valid, v[k]));
    }
    castShadowTail(rays, fullCount);
}

void reflectQuadsScalar(const ReflectionRayRun& rays)
{
    // A group of four negative words gives zeros whether or not it is computed.
    for (int i = 0; i < rays.count; ++i) {
        const float dx = rays.incident[0][i], dy = rays.incident[1][i], dz = rays.incident[2][i];
        const float nx = rays.normal[0][i], ny = rays.normal[1][i], nz = rays.normal[2][i];
        const float dot = ((dx * nx) + (dy * ny)) + (dz * nz);
        const float twice = dot + dot;
        const bool active = rays.mask[i] >= 0;
        rays.reflected[0][i] = active ? dx - twice * nx : 0.0f;
        rays.reflected[1][i] = active ? dy - twice * ny : 0.0f;
        rays.reflected[2][i] = active ? dz - twice * nz : 0.0f;
    }
}

namespace {

template <bool kAligned>
__m128 load4(const float* p)
{
    return kAligned ? _mm_load_ps(p) : _mm_loadu_ps(p);
}

template <bool kAligned>
void store4(float* p, __m128 value)
{
    if (kAligned)
        _mm_store_ps(p, value);
    else
        _mm_storeu_ps(p, value);
}

template <bool kAligned>
void reflectQuads(const ReflectionRayRun& rays)
{
    // Plane pointers in locals: the vector stores may alias anything, the run record included.
    const float* const incident[3] = {rays.incident[0], rays.incident[1], rays.incident[2]};
    const float* const normal[3] = {rays.normal[0], rays.normal[1], rays.normal[2]};
    float* const reflected[3] = {rays.reflected[0], rays.reflected[1], rays.reflected[2]};
    const float* const mask = reinterpret_cast<const float*>(rays.mask);
    const __m128 zero = _mm_setzero_ps();
    for (int i = 0; i < rays.count; i += kReflectGroup) {
        const __m128 words = load4<kAligned>(mask + i);
        if (_mm_movemask_ps(words) == 0xF) {
            for (int k = 0; k < 3; ++k)
                store4<kAligned>(reflected[k] + i, zero);
            continue;
        }
        __m128 d[3], n[3];
        for (int k = 0; k < 3; ++k) {
            d[k] = load4<kAligned>(incident[k] + i);
            n[k] = load4<kAligned>(normal[k] + i);
        }
        const __m128 dot = _mm_add_ps(_mm_add_ps(_mm_mul_ps(d[0], n[0]), _mm_mul_ps(d[1], n[1])),
                                      _mm_mul_ps(d[2], n[2]));
        const __m128 twice = _mm_add_ps(dot, dot);
        // All ones in the lanes whose mask word is negative.
        const __m128 inactive = _mm_castsi128_ps(_mm_srai_epi32(_mm_castps_si128(words), 31));
        for (int k = 0; k < 3; ++k)
            store4<kAligned>(reflected[k] + i,
                             _mm_andnot_ps(inactive, _mm_sub_ps(d[k], _mm_mul_ps(twice, n[k]))));
    }
}

bool aligned16(const void* p)
{
    return (reinterpret_cast<uintptr_t>(p) & 15) == 0;
}

}  // namespace

void reflectQuadsAvx(const ReflectionRayRun& rays)
{
    reflectQuads<false>(rays);
}

void reflectQuadsAlignedAvx(const ReflectionRayRun& rays)
{
    reflectQuads<true>(rays);
}

void reflectOneByOne(const ReflectionRayRun& rays)
{
    for (int i = 0; i < rays.count; ++i) {
        const float dx = rays.incident[0][i], dy = rays.incident[1][i], dz = rays.incident[2][i];
        const float nx = rays.normal[0][i], ny = rays.normal[1][i], nz = rays.normal[2][i];
        const float dot = ((dy * ny) + (dz * nz)) + (dx * nx);
        const float twice = dot + dot;
        const bool active = rays.mask[i] >= 0;
        rays.reflected[0][i] = active ? dx - twice * nx : 0.0f;
        rays.reflected[1][i] = active ? dy - twice * ny : 0.0f;
        rays.reflected[2][i] = active ? dz - twice * nz : 0.0f;
    }
}

void castReflectionRays(const ReflectionRayRun& rays)
{
    if (rays.count < 1) return;
    if (rays.count % kReflectGroup != 0) {
        reflectOneByOne(rays);
        return;
    }
    bool aligned = aligned16(rays.mask);
    for (int k = 0; k < 3; ++k)
        aligned = aligned && aligned16(rays.incident[k]) && aligned16(rays.normal[k]) &&
                  aligned16(rays.reflected[k]);
    if (aligned)
        reflectQuadsAlignedAvx(rays);
    else
        reflectQuadsAvx(rays);
}

}  // namespace vekr::ray
