// Masked per-ray arithmetic. Each Scalar twin is the readable definition; its Avx and Aligned4
// partners do the same operations in the same order per lane, and select between computed and
// kept values by the sign of the mask word or clear bits with it (andnot), so the twins agree
// bit for bit.
//
// The 8-lane kernels select with full-lane masks and and/andnot/or rather than blendv: GCC
// rewrites a 256-bit blendv as a sign comparison of 32-bit integers, which plain AVX lacks, and
// then splits it into one branch per lane. The vector kernels copy the pointers of a plane
// triple into locals: a float store might alias the caller's pointer array, which would force
// a reload every step.
#include "masked_arithmetic.h"

#include <immintrin.h>

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>

namespace vekr::shade {
namespace {

using Index = std::ptrdiff_t;

constexpr int kLanes = 8;

// A zero or NaN dividend over a divisor of +0.0 gives this NaN (sign clear, quiet bit clear,
// every payload bit set), stored by its bits and never produced by arithmetic.
constexpr uint32_t kZeroDivisorNaNBits = 0x7FBFFFFF;

// Stores bits with those of maskWord cleared. The bits travel as an integer, never as a float
// returned from a call: on 32-bit x86 such a float passes through the x87 stack, which quiets
// a signalling NaN (kZeroDivisorNaNBits is one), where the Avx twins keep it.
inline void storeBitsClearedByMask(float* dst, uint32_t bits, int32_t maskWord)
{
    bits &= ~uint32_t(maskWord);
    std::memcpy(dst, &bits, sizeof bits);
}
inline void storeClearedByMask(float* dst, float value, int32_t maskWord)
{
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    storeBitsClearedByMask(dst, bits, maskWord);
}

inline bool isAligned(const void* p, uintptr_t bytes)
{
    return (reinterpret_cast<uintptr_t>(p) & (bytes - 1)) == 0;
}

inline __m256 loadMask8(const int32_t* mask)
{
    return _mm256_castsi256_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(mask)));
}

// All bits set in the lanes whose mask word is negative. The shift runs in 128-bit halves:
// plain AVX has no 256-bit integer shift.
inline __m256 negativeLanes(__m256 mask)
{
    const __m256i m = _mm256_castps_si256(mask);
    const __m128i low = _mm_srai_epi32(_mm256_castsi256_si128(m), 31);
    const __m128i high = _mm_srai_epi32(_mm256_extractf128_si256(m, 1), 31);
    return _mm256_castsi256_ps(_mm256_insertf128_si256(_mm256_castsi128_si256(low), high, 1));
}

// All bits set in the lanes that are +0.0 (every bit clear), in 128-bit halves as above.
inline __m256 plusZeroLanes(__m256 x)
{
    const __m256i v = _mm256_castps_si256(x);
    const __m128i zero = _mm_setzero_si128();
    const __m128i low = _mm_cmpeq_epi32(_mm256_castsi256_si128(v), zero);
    const __m128i high = _mm_cmpeq_epi32(_mm256_extractf128_si256(v, 1), zero);
    return _mm256_castsi256_ps(_mm256_insertf128_si256(_mm256_castsi128_si256(low), high, 1));
}

// ifSet in the lanes where `lanes` has all bits set, otherwise elsewhere.
inline __m256 select(__m256 lanes, __m256 ifSet, __m256 otherwise)
{
    return _mm256_or_ps(_mm256_and_ps(lanes, ifSet), _mm256_andnot_ps(lanes, otherwise));
}

inline __m128 loadMask4(const int32_t* mask)
{
    return _mm_castsi128_ps(_mm_load_si128(reinterpret_cast<const __m128i*>(mask)));
}

// The first n of eight lanes set, for masked loads and stores that touch nothing at or past n.
inline __m256i leadingLanes(Index n)
{
    const __m256 index = _mm256_setr_ps(0, 1, 2, 3, 4, 5, 6, 7);
    return _mm256_castps_si256(_mm256_cmp_ps(index, _mm256_set1_ps(float(n)), _CMP_LT_OQ));
}

// The general path: when length >= 16 and the chosen plane is 4-byte aligned, a scalar
// prologue of (32 - address mod 32) / 4 rays (a full 8 when the plane is already on a 32-byte
// boundary) puts it on a line boundary, sixteen rays per step follow while sixteen remain, and
// the rest runs scalar. A plane off 4-byte alignment, or fewer than 16 rays beyond the
// prologue, runs the whole call scalar.
template <class ScalarRange, class Step16>
void runGeneralPath(const void* chosenPlane, int length, ScalarRange scalarRange, Step16 step16)
{
    const uintptr_t address = reinterpret_cast<uintptr_t>(chosenPlane);
    Index i = 0;
    if (length >= 16 && (address & 3) == 0) {
        const Index prologue = Index(32 - (address & 31)) / 4;
        if (length - prologue >= 16) {
            scalarRange(0, prologue);
            for (i = prologue; i + 16 <= length; i += 16)
                step16(i);
        }
    }
    scalarRange(i, length);
}

// True when a full group of eight starting at ray `group` (below length rounded down to 8) has
// only negative mask words: the 8-lane kernels store zeros for it without computing.
inline bool isDisabledGroup(const int32_t* mask, Index group, Index fullCount)
{
    if (group >= fullCount) return false;
    for (Index j = 0; j < kLanes; ++j)
        if (mask[group + j] >= 0) return false;
    return true;
}

// --- Scale by the sign mask -------------------------------------------------------------

void scaleBySignMaskRange(const float* src, const int32_t* mask, float* srcDst, Index begin,
                          Index end)
{
    for (Index i = begin; i < end; ++i)
        srcDst[i] = (srcDst[i] * src[i]) * (mask[i] < 0 ? 0.0f : 1.0f);
}

// --- Divide -----------------------------------------------------------------------------

struct Divided8 {
    __m256 quotient;   // already ANDed with the complement of the mask
    __m256 plusZero;   // all bits set in the lanes whose divisor is +0.0
};

inline Divided8 divide8(__m256 s, __m256 d, __m256 mask)
{
    const __m256 zero = _mm256_setzero_ps(), one = _mm256_set1_ps(1.0f);
    const __m256 isZero = _mm256_cmp_ps(s, zero, _CMP_EQ_OQ);  // +0.0 and -0.0
    const __m256 plusZero = plusZeroLanes(s);
    const __m256 divisor = select(isZero, one, s);
    const __m256 r = _mm256_rcp_ps(divisor);
    const __m256 e = _mm256_sub_ps(one, _mm256_mul_ps(divisor, r));
    const __m256 t = _mm256_mul_ps(d, r);
    const __m256 q = _mm256_add_ps(t, _mm256_mul_ps(_mm256_add_ps(_mm256_mul_ps(t, e), t), e));
    // Infinity with d's sign, or the fixed NaN when d is a zero or NaN (unordered-or-equal).
    const __m256 signOfD = _mm256_and_ps(d, _mm256_set1_ps(-0.0f));
    const __m256 infinity = _mm256_or_ps(signOfD, _mm256_set1_ps(std::numeric_limits<float>::infinity()));
    const __m256 nan = _mm256_castsi256_ps(_mm256_set1_epi32(int32_t(kZeroDivisorNaNBits)));
    const __m256 special = select(_mm256_cmp_ps(d, zero, _CMP_EQ_UQ), nan, infinity);
    return {_mm256_andnot_ps(mask, select(plusZero, special, q)), plusZero};
}

// --- Accumulate colour ------------------------------------------------------------------

void accumulateColourRange(const float* colour, const float* factor, const float* const src[3],
                           const int32_t* mask, float* const srcDst[3], Index begin, Index end)
{
    for (Index i = begin; i < end; ++i) {
        if (mask[i] < 0) continue;
        for (int k = 0; k < 3; ++k)
            srcDst[k][i] = (colour[k] * src[k][i]) * factor[i] + srcDst[k][i];
    }
}

inline void accumulateColour8(const __m256 colour[3], const float* factor,
                              const float* const src[3], const int32_t* mask,
                              float* const srcDst[3], Index i)
{
    const __m256 f = _mm256_loadu_ps(factor + i);
    const __m256 disabled = negativeLanes(loadMask8(mask + i));
    for (int k = 0; k < 3; ++k) {
        const __m256 old = _mm256_loadu_ps(srcDst[k] + i);
        const __m256 scaled = _mm256_mul_ps(_mm256_mul_ps(colour[k], _mm256_loadu_ps(src[k] + i)), f);
        _mm256_storeu_ps(srcDst[k] + i, select(disabled, old, _mm256_add_ps(scaled, old)));
    }
}

// --- Face normals -----------------------------------------------------------------------

void faceNormalsRange(const float* const direction[3], const int32_t* mask,
                      float* const normal[3], float* dot, Index begin, Index end)
{
    for (Index i = begin; i < end; ++i) {
        if (mask[i] < 0) {
            dot[i] = 0.0f;
            continue;
        }
        const float d = (normal[0][i] * direction[0][i] + normal[1][i] * direction[1][i]) +
                        normal[2][i] * direction[2][i];
        // A d of 0 or NaN keeps the normal: the turn multiplies by +1.
        const float s = d > 0.0f ? -1.0f : 1.0f;
        for (int k = 0; k < 3; ++k)
            normal[k][i] = s * normal[k][i];
        dot[i] = s * d;
    }
}

inline void faceNormals8(const float* const direction[3], const int32_t* mask,
                         float* const normal[3], float* dot, Index i)
{
    const __m256 disabled = negativeLanes(loadMask8(mask + i));
    __m256 n[3];
    for (int k = 0; k < 3; ++k)
        n[k] = _mm256_loadu_ps(normal[k] + i);
    const __m256 d = _mm256_add_ps(
        _mm256_add_ps(_mm256_mul_ps(n[0], _mm256_loadu_ps(direction[0] + i)),
                      _mm256_mul_ps(n[1], _mm256_loadu_ps(direction[1] + i))),
        _mm256_mul_ps(n[2], _mm256_loadu_ps(direction[2] + i)));
    // s = -1.0 where d > 0 (ordered: not for NaN), +1.0 elsewhere: the sign bit of -0.0 on 1.0.
    const __m256 facing = _mm256_cmp_ps(d, _mm256_setzero_ps(), _CMP_GT_OQ);
    const __m256 s = _mm256_or_ps(_mm256_set1_ps(1.0f), _mm256_and_ps(facing, _mm256_set1_ps(-0.0f)));
    for (int k = 0; k < 3; ++k)
        _mm256_storeu_ps(normal[k] + i, select(disabled, n[k], _mm256_mul_ps(s, n[k])));
    _mm256_storeu_ps(dot + i, _mm256_andnot_ps(disabled, _mm256_mul_ps(s, d)));
}

// --- Attenuation distance ---------------------------------------------------------------

void attenuationDistanceRange(const float* point, const float* const hitPoint[3],
                              const int32_t* mask, float* distance, Index begin, Index end)
{
    for (Index i = begin; i < end; ++i) {
        if (mask[i] < 0) {
            distance[i] = 1.0f;
            continue;
        }
        const float dx = hitPoint[0][i] - point[0];
        const float dy = hitPoint[1][i] - point[1];
        const float dz = hitPoint[2][i] - point[2];
        const float q = (dx * dx + dy * dy) + dz * dz;
        // Compared before the root; a NaN q fails the test and stays NaN.
        distance[i] = q < 1.0f ? 1.0f : std::sqrt(q);
    }
}

inline void attenuationDistance8(const __m256 point[3], const float* const hitPoint[3],
                                 const int32_t* mask, float* distance, Index i)
{
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 dx = _mm256_sub_ps(_mm256_loadu_ps(hitPoint[0] + i), point[0]);
    const __m256 dy = _mm256_sub_ps(_mm256_loadu_ps(hitPoint[1] + i), point[1]);
    const __m256 dz = _mm256_sub_ps(_mm256_loadu_ps(hitPoint[2] + i), point[2]);
    const __m256 q = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(dx, dx), _mm256_mul_ps(dy, dy)),
                                   _mm256_mul_ps(dz, dz));
    const __m256 near = _mm256_or_ps(_mm256_cmp_ps(q, one, _CMP_LT_OQ),
                                     negativeLanes(loadMask8(mask + i)));
    _mm256_storeu_ps(distance + i, select(near, one, _mm256_sqrt_ps(q)));
}

}  // namespace

// --- Scale by the sign mask -------------------------------------------------------------

void scaleBySignMaskScalar(const float* src, const int32_t* mask, float* srcDst, int length)
{
    scaleBySignMaskRange(src, mask, srcDst, 0, length);
}

void scaleBySignMaskAvx(const float* src, const int32_t* mask, float* srcDst, int length)
{
    const __m256 one = _mm256_set1_ps(1.0f);
    runGeneralPath(
        srcDst, length,
        [=](Index begin, Index end) { scaleBySignMaskRange(src, mask, srcDst, begin, end); },
        [=](Index i) {
            for (Index j = i; j < i + 16; j += kLanes) {
                const __m256 f = _mm256_andnot_ps(negativeLanes(loadMask8(mask + j)), one);
                const __m256 product =
                    _mm256_mul_ps(_mm256_loadu_ps(srcDst + j), _mm256_loadu_ps(src + j));
                _mm256_store_ps(srcDst + j, _mm256_mul_ps(product, f));
            }
        });
}

// --- Scale three planes under the bitwise mask ------------------------------------------

void scalePlanesMaskedScalar(const float* src, const int32_t* mask, float* const srcDst[3],
                             int length)
{
    const Index fullCount = length & ~(kLanes - 1);
    for (Index group = 0; group < length; group += kLanes) {
        const bool disabled = isDisabledGroup(mask, group, fullCount);
        const Index end = group + kLanes < length ? group + kLanes : length;
        for (Index i = group; i < end; ++i)
            for (int k = 0; k < 3; ++k)
                if (disabled)
                    srcDst[k][i] = 0.0f;
                else
                    storeClearedByMask(srcDst[k] + i, srcDst[k][i] * src[i], mask[i]);
    }
}

void scalePlanesMaskedAvx(const float* src, const int32_t* mask, float* const srcDst[3],
                          int length)
{
    float* const dst[3] = {srcDst[0], srcDst[1], srcDst[2]};
    const Index fullCount = length & ~(kLanes - 1);
    Index i = 0;
    for (; i < fullCount; i += kLanes) {
        const __m256 m = loadMask8(mask + i);
        if (_mm256_movemask_ps(m) == 0xFF) {
            for (int k = 0; k < 3; ++k)
                _mm256_storeu_ps(dst[k] + i, _mm256_setzero_ps());
            continue;
        }
        const __m256 s = _mm256_loadu_ps(src + i);
        for (int k = 0; k < 3; ++k) {
            const __m256 product = _mm256_mul_ps(_mm256_loadu_ps(dst[k] + i), s);
            _mm256_storeu_ps(dst[k] + i, _mm256_andnot_ps(m, product));
        }
    }
    if (i >= length) return;
    // The lanes past length load a mask word of 0, so the tail never takes the zero shortcut.
    const __m256i lanes = leadingLanes(length - i);
    const __m256 m = _mm256_maskload_ps(reinterpret_cast<const float*>(mask + i), lanes);
    const __m256 s = _mm256_maskload_ps(src + i, lanes);
    for (int k = 0; k < 3; ++k) {
        const __m256 product = _mm256_mul_ps(_mm256_maskload_ps(dst[k] + i, lanes), s);
        _mm256_maskstore_ps(dst[k] + i, lanes, _mm256_andnot_ps(m, product));
    }
}

// --- Divide -----------------------------------------------------------------------------

// The quotient is the reciprocal estimate refined once, q = t + ((t e) + t) e with t = d r and
// e = 1 - s r; it may differ from d / s in the last bit. _mm_rcp_ss gives the same estimate as
// each lane of _mm256_rcp_ps.
Status divideMaskedScalar(const float* src, const int32_t* mask, float* srcDst, int length)
{
    bool metPlusZero = false;
    for (Index i = 0; i < length; ++i) {
        float s = src[i];
        const float d = srcDst[i];
        // -0.0 is a zero for the replacement but not for the warning: it passes d through.
        const bool plusZero = std::bit_cast<uint32_t>(s) == 0;
        if (s == 0.0f) s = 1.0f;
        const float r = _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(s)));
        const float e = 1.0f - s * r;
        const float t = d * r;
        float q = t + (t * e + t) * e;
        // The mask comes last: a disabled +0.0 divisor still raises the warning.
        if (plusZero) {
            metPlusZero = true;
            if (std::isnan(d) || d == 0.0f) {
                storeBitsClearedByMask(srcDst + i, kZeroDivisorNaNBits, mask[i]);
                continue;
            }
            q = std::copysign(std::numeric_limits<float>::infinity(), d);
        }
        storeClearedByMask(srcDst + i, q, mask[i]);
    }
    return metPlusZero ? StatusWarnNoOperation : StatusOk;
}

Status divideMaskedAvx(const float* src, const int32_t* mask, float* srcDst, int length)
{
    __m256 plusZeroSeen = _mm256_setzero_ps();
    Index i = 0;
    for (; i + 2 * kLanes <= length; i += 2 * kLanes)
        for (Index j = i; j < i + 2 * kLanes; j += kLanes) {
            const Divided8 r =
                divide8(_mm256_loadu_ps(src + j), _mm256_loadu_ps(srcDst + j), loadMask8(mask + j));
            _mm256_storeu_ps(srcDst + j, r.quotient);
            plusZeroSeen = _mm256_or_ps(plusZeroSeen, r.plusZero);
        }
    if (length - i >= kLanes) {
        const Divided8 r =
            divide8(_mm256_loadu_ps(src + i), _mm256_loadu_ps(srcDst + i), loadMask8(mask + i));
        _mm256_storeu_ps(srcDst + i, r.quotient);
        plusZeroSeen = _mm256_or_ps(plusZeroSeen, r.plusZero);
        i += kLanes;
    }
    if (i < length) {
        const __m256i lanes = leadingLanes(length - i);
        const Divided8 r =
            divide8(_mm256_maskload_ps(src + i, lanes), _mm256_maskload_ps(srcDst + i, lanes),
                    _mm256_maskload_ps(reinterpret_cast<const float*>(mask + i), lanes));
        _mm256_maskstore_ps(srcDst + i, lanes, r.quotient);
        // The unloaded lanes hold a divisor of +0.0 that is not the caller's: drop them.
        plusZeroSeen =
            _mm256_or_ps(plusZeroSeen, _mm256_and_ps(r.plusZero, _mm256_castsi256_ps(lanes)));
    }
    return _mm256_movemask_ps(plusZeroSeen) != 0 ? StatusWarnNoOperation : StatusOk;
}

// --- Accumulate colour ------------------------------------------------------------------

void accumulateColourScalar(const float* colour, const float* factor, const float* const src[3],
                            const int32_t* mask, float* const srcDst[3], int length)
{
    accumulateColourRange(colour, factor, src, mask, srcDst, 0, length);
}

void accumulateColourAligned4(const float* colour, const float* factor, const float* const src[3],
                              const int32_t* mask, float* const srcDst[3], int length)
{
    const float* const s[3] = {src[0], src[1], src[2]};
    float* const dst[3] = {srcDst[0], srcDst[1], srcDst[2]};
    const __m128 c[3] = {_mm_set1_ps(colour[0]), _mm_set1_ps(colour[1]), _mm_set1_ps(colour[2])};
    for (Index i = 0; i < length; i += 4) {
        const __m128 f = _mm_load_ps(factor + i);
        const __m128 m = loadMask4(mask + i);
        for (int k = 0; k < 3; ++k) {
            const __m128 old = _mm_load_ps(dst[k] + i);
            const __m128 scaled = _mm_mul_ps(_mm_mul_ps(c[k], _mm_loadu_ps(s[k] + i)), f);
            _mm_store_ps(dst[k] + i, _mm_blendv_ps(_mm_add_ps(scaled, old), old, m));
        }
    }
}

void accumulateColourAvx(const float* colour, const float* factor, const float* const src[3],
                         const int32_t* mask, float* const srcDst[3], int length)
{
    const float* const s[3] = {src[0], src[1], src[2]};
    float* const dst[3] = {srcDst[0], srcDst[1], srcDst[2]};
    const __m256 c[3] = {_mm256_set1_ps(colour[0]), _mm256_set1_ps(colour[1]),
                         _mm256_set1_ps(colour[2])};
    runGeneralPath(
        factor, length,
        [=](Index begin, Index end) {
            accumulateColourRange(colour, factor, s, mask, dst, begin, end);
        },
        [&](Index i) {
            accumulateColour8(c, factor, s, mask, dst, i);
            accumulateColour8(c, factor, s, mask, dst, i + kLanes);
        });
}

void accumulateColour(const float* colour, const float* factor, const float* const src[3],
                      const int32_t* mask, float* const srcDst[3], int length)
{
    // The src planes are read unaligned and stay out of the test.
    if (length % 4 == 0 && isAligned(factor, 16) && isAligned(mask, 16) &&
        isAligned(srcDst[0], 16) && isAligned(srcDst[1], 16) && isAligned(srcDst[2], 16))
        accumulateColourAligned4(colour, factor, src, mask, srcDst, length);
    else
        accumulateColourAvx(colour, factor, src, mask, srcDst, length);
}

// --- Dot product of plane triples under the bitwise mask --------------------------------

void dotPlanesMaskedScalar(const float* const src0[3], const float* const src1[3],
                           const int32_t* mask, float* dst, int length)
{
    const Index fullCount = length & ~(kLanes - 1);
    for (Index group = 0; group < length; group += kLanes) {
        const bool disabled = isDisabledGroup(mask, group, fullCount);
        const Index end = group + kLanes < length ? group + kLanes : length;
        for (Index i = group; i < end; ++i) {
            const float d =
                (src0[0][i] * src1[0][i] + src0[1][i] * src1[1][i]) + src0[2][i] * src1[2][i];
            if (disabled)
                dst[i] = 0.0f;
            else
                storeClearedByMask(dst + i, d, mask[i]);
        }
    }
}

void dotPlanesMaskedAvx(const float* const src0[3], const float* const src1[3],
                        const int32_t* mask, float* dst, int length)
{
    const float* const a[3] = {src0[0], src0[1], src0[2]};
    const float* const b[3] = {src1[0], src1[1], src1[2]};
    const Index fullCount = length & ~(kLanes - 1);
    Index i = 0;
    for (; i < fullCount; i += kLanes) {
        const __m256 m = loadMask8(mask + i);
        if (_mm256_movemask_ps(m) == 0xFF) {
            _mm256_storeu_ps(dst + i, _mm256_setzero_ps());
            continue;
        }
        const __m256 d = _mm256_add_ps(
            _mm256_add_ps(_mm256_mul_ps(_mm256_loadu_ps(a[0] + i), _mm256_loadu_ps(b[0] + i)),
                          _mm256_mul_ps(_mm256_loadu_ps(a[1] + i), _mm256_loadu_ps(b[1] + i))),
            _mm256_mul_ps(_mm256_loadu_ps(a[2] + i), _mm256_loadu_ps(b[2] + i)));
        _mm256_storeu_ps(dst + i, _mm256_andnot_ps(m, d));
    }
    if (i >= length) return;
    const __m256i lanes = leadingLanes(length - i);
    __m256 p[3];
    for (int k = 0; k < 3; ++k)
        p[k] = _mm256_mul_ps(_mm256_maskload_ps(a[k] + i, lanes),
                             _mm256_maskload_ps(b[k] + i, lanes));
    const __m256 d = _mm256_add_ps(_mm256_add_ps(p[0], p[1]), p[2]);
    const __m256 m = _mm256_maskload_ps(reinterpret_cast<const float*>(mask + i), lanes);
    _mm256_maskstore_ps(dst + i, lanes, _mm256_andnot_ps(m, d));
}

// --- Face normals -----------------------------------------------------------------------

void faceNormalsScalar(const float* const direction[3], const int32_t* mask,
                       float* const normal[3], float* dot, int length)
{
    faceNormalsRange(direction, mask, normal, dot, 0, length);
}

void faceNormalsAligned4(const float* const direction[3], const int32_t* mask,
                         float* const normal[3], float* dot, int length)
{
    const float* const dir[3] = {direction[0], direction[1], direction[2]};
    float* const planes[3] = {normal[0], normal[1], normal[2]};
    const __m128 one = _mm_set1_ps(1.0f), minusOne = _mm_set1_ps(-1.0f), zero = _mm_setzero_ps();
    for (Index i = 0; i < length; i += 4) {
        const __m128 m = loadMask4(mask + i);
        __m128 n[3];
        for (int k = 0; k < 3; ++k)
            n[k] = _mm_load_ps(planes[k] + i);
        const __m128 d =
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(n[0], _mm_load_ps(dir[0] + i)),
                                  _mm_mul_ps(n[1], _mm_load_ps(dir[1] + i))),
                       _mm_mul_ps(n[2], _mm_load_ps(dir[2] + i)));
        const __m128 s = _mm_blendv_ps(one, minusOne, _mm_cmp_ps(d, zero, _CMP_GT_OQ));
        for (int k = 0; k < 3; ++k)
            _mm_store_ps(planes[k] + i, _mm_blendv_ps(_mm_mul_ps(s, n[k]), n[k], m));
        _mm_store_ps(dot + i, _mm_blendv_ps(_mm_mul_ps(s, d), zero, m));
    }
}

void faceNormalsAvx(const float* const direction[3], const int32_t* mask,
                    float* const normal[3], float* dot, int length)
{
    const float* const dir[3] = {direction[0], direction[1], direction[2]};
    float* const planes[3] = {normal[0], normal[1], normal[2]};
    runGeneralPath(
        planes[2], length,
        [=](Index begin, Index end) { faceNormalsRange(dir, mask, planes, dot, begin, end); },
        [=](Index i) {
            faceNormals8(dir, mask, planes, dot, i);
            faceNormals8(dir, mask, planes, dot, i + kLanes);
        });
}

void faceNormals(const float* const direction[3], const int32_t* mask, float* const normal[3],
                 float* dot, int length)
{
    bool aligned = length % 4 == 0 && isAligned(mask, 16) && isAligned(dot, 16);
    for (int k = 0; k < 3; ++k)
        aligned = aligned && isAligned(direction[k], 16) && isAligned(normal[k], 16);
    if (aligned)
        faceNormalsAligned4(direction, mask, normal, dot, length);
    else
        faceNormalsAvx(direction, mask, normal, dot, length);
}

// --- Attenuation distance ---------------------------------------------------------------

void attenuationDistanceScalar(const float* point, const float* const hitPoint[3],
                               const int32_t* mask, float* distance, int length)
{
    attenuationDistanceRange(point, hitPoint, mask, distance, 0, length);
}

void attenuationDistanceAligned4(const float* point, const float* const hitPoint[3],
                                 const int32_t* mask, float* distance, int length)
{
    const float* const h[3] = {hitPoint[0], hitPoint[1], hitPoint[2]};
    const __m128 one = _mm_set1_ps(1.0f);
    const __m128 p[3] = {_mm_set1_ps(point[0]), _mm_set1_ps(point[1]), _mm_set1_ps(point[2])};
    for (Index i = 0; i < length; i += 4) {
        const __m128 dx = _mm_sub_ps(_mm_load_ps(h[0] + i), p[0]);
        const __m128 dy = _mm_sub_ps(_mm_load_ps(h[1] + i), p[1]);
        const __m128 dz = _mm_sub_ps(_mm_load_ps(h[2] + i), p[2]);
        const __m128 q =
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)), _mm_mul_ps(dz, dz));
        const __m128 clamped = _mm_blendv_ps(_mm_sqrt_ps(q), one, _mm_cmp_ps(q, one, _CMP_LT_OQ));
        _mm_store_ps(distance + i, _mm_blendv_ps(clamped, one, loadMask4(mask + i)));
    }
}

void attenuationDistanceAvx(const float* point, const float* const hitPoint[3],
                            const int32_t* mask, float* distance, int length)
{
    const float* const h[3] = {hitPoint[0], hitPoint[1], hitPoint[2]};
    const __m256 p[3] = {_mm256_set1_ps(point[0]), _mm256_set1_ps(point[1]),
                         _mm256_set1_ps(point[2])};
    runGeneralPath(
        distance, length,
        [=](Index begin, Index end) {
            attenuationDistanceRange(point, h, mask, distance, begin, end);
        },
        [&](Index i) {
            attenuationDistance8(p, h, mask, distance, i);
            attenuationDistance8(p, h, mask, distance, i + kLanes);
        });
}

void attenuationDistance(const float* point, const float* const hitPoint[3], const int32_t* mask,
                         float* distance, int length)
{
    const bool aligned = length % 4 == 0 && isAligned(mask, 16) && isAligned(distance, 16) &&
                         isAligned(hitPoint[0], 16) && isAligned(hitPoint[1], 16) &&
                         isAligned(hitPoint[2], 16);
    if (aligned)
        attenuationDistanceAligned4(point, hitPoint, mask, distance, length);
    else
        attenuationDistanceAvx(point, hitPoint, mask, distance, length);
}

}  // namespace vekr::shade
