// Eight voxels of a remap or warp row at once: the positions of the row resolved to taps and
// fractions in lanes, the taps read lane by lane (plain AVX has no gathers), the blends in
// lanes in the order of the per-voxel samplers of point_sampling.h, and stores only for the
// lanes whose position lies inside the bounds. Remap positions arrive as float, warp positions
// as double; the bounds test, bases and fractions are taken in that type, as the per-voxel
// samplers do, and everything after the fractions is shared.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "point_sampling.h"

namespace vekr::volume {

// Below this every bound, and the bound minus one, is exact as a float, so the float bounds
// test and trunc/rint of a position inside never need the clamps of the per-voxel samplers.
constexpr int32_t kMaxLaneBound = 1 << 24;

// Whether the lane kernels may take a window. The linear taps x and x + 1 are read as one
// pair, so the box must be at least two voxels wide; on y and z a box one voxel thick is
// handled by a tap step of 0.
template <class T>
inline bool lanesFit(const SourceWindow<T>& s)
{
    if (s.hi[0] <= s.lo[0]) return false;
    for (int a = 0; a < 3; ++a)
        if (s.hi[a] >= kMaxLaneBound) return false;
    return true;
}

// Eight positions resolved: the first tap on each axis (outside lanes point at the box's first
// voxel so that every read is valid), the fractions, and which lanes lie inside.
struct LanePoints {
    alignas(32) int32_t tap[3][8];
    __m256 fraction[3];
    __m256 inside;  // all ones in lanes inside the bounds
    int laneMask;   // the same, one bit per lane
};

// The window's bounds as lanes of float (remap) or double (warp), hoisted out of the row loop.
struct FloatLaneBounds {
    __m256 lo[3], hi[3], hiLessOne[3];
};
struct DoubleLaneBounds {
    __m256d lo[3], hi[3], hiLessOne[3];
};

inline FloatLaneBounds floatLaneBounds(const int32_t lo[3], const int32_t hi[3])
{
    FloatLaneBounds b;
    for (int a = 0; a < 3; ++a) {
        b.lo[a] = _mm256_set1_ps(float(lo[a]));
        b.hi[a] = _mm256_set1_ps(float(hi[a]));
        b.hiLessOne[a] = _mm256_set1_ps(float(hi[a] - 1));
    }
    return b;
}

inline DoubleLaneBounds doubleLaneBounds(const int32_t lo[3], const int32_t hi[3])
{
    DoubleLaneBounds b;
    for (int a = 0; a < 3; ++a) {
        b.lo[a] = _mm256_set1_pd(double(lo[a]));
        b.hi[a] = _mm256_set1_pd(double(hi[a]));
        b.hiLessOne[a] = _mm256_set1_pd(double(hi[a] - 1));
    }
    return b;
}

// --- Positions to taps ---------------------------------------------------------------------

// Lanes of p with p >= lo and p <= hi; NaN lanes fail both, as in SourceWindow::contains.
inline __m256 insideLanes(__m256 p, __m256 lo, __m256 hi)
{
    return _mm256_and_ps(_mm256_cmp_ps(p, lo, _CMP_GE_OQ), _mm256_cmp_ps(p, hi, _CMP_LE_OQ));
}

inline __m256d insideLanes(__m256d p, __m256d lo, __m256d hi)
{
    return _mm256_and_pd(_mm256_cmp_pd(p, lo, _CMP_GE_OQ), _mm256_cmp_pd(p, hi, _CMP_LE_OQ));
}

// Four double-lane masks as four float-lane masks (the low word of each).
inline __m128 narrowMask(__m256d m)
{
    const __m256 words = _mm256_castpd_ps(m);
    return _mm_shuffle_ps(_mm256_castps256_ps128(words), _mm256_extractf128_ps(words, 1),
                          _MM_SHUFFLE(2, 0, 2, 0));
}

// Float positions (remap). Linear: base trunc(p), the maximum brought down by one, fraction
// p - base in float; nearest: rint(p). The first tap is the base raised to the box's first
// voxel (only a box one voxel thick has base below it).
template <bool kLinear>
inline void resolveLanes(const FloatLaneBounds& b, const float* px, const float* py,
                         const float* pz, LanePoints& out)
{
    const __m256 pos[3] = {_mm256_loadu_ps(px), _mm256_loadu_ps(py), _mm256_loadu_ps(pz)};
    out.inside = _mm256_and_ps(
        _mm256_and_ps(insideLanes(pos[0], b.lo[0], b.hi[0]), insideLanes(pos[1], b.lo[1], b.hi[1])),
        insideLanes(pos[2], b.lo[2], b.hi[2]));
    out.laneMask = _mm256_movemask_ps(out.inside);
    if (out.laneMask == 0) return;
    for (int a = 0; a < 3; ++a) {
        __m256 tap;
        if constexpr (kLinear) {
            __m256 base = _mm256_round_ps(pos[a], _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
            base = _mm256_blendv_ps(base, b.hiLessOne[a], _mm256_cmp_ps(base, b.hi[a], _CMP_GE_OQ));
            out.fraction[a] = _mm256_sub_ps(pos[a], base);
            tap = _mm256_max_ps(base, b.lo[a]);
        } else {
            tap = _mm256_round_ps(pos[a], _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
        }
        tap = _mm256_blendv_ps(b.lo[a], tap, out.inside);
        _mm256_store_si256(reinterpret_cast<__m256i*>(out.tap[a]), _mm256_cvttps_epi32(tap));
    }
}

// Double positions (warp): the same steps in double, the fraction rounded to float once.
template <bool kLinear>
inline void resolveLanes(const DoubleLaneBounds& b, const double* px, const double* py,
                         const double* pz, LanePoints& out)
{
    const double* p[3] = {px, py, pz};
    __m256d inside[2];
    for (int h = 0; h < 2; ++h) {
        inside[h] = _mm256_castsi256_pd(_mm256_set1_epi32(-1));
        for (int a = 0; a < 3; ++a)
            inside[h] = _mm256_and_pd(
                inside[h], insideLanes(_mm256_loadu_pd(p[a] + 4 * h), b.lo[a], b.hi[a]));
    }
    out.laneMask = _mm256_movemask_pd(inside[0]) | _mm256_movemask_pd(inside[1]) << 4;
    if (out.laneMask == 0) return;
    out.inside = _mm256_set_m128(narrowMask(inside[1]), narrowMask(inside[0]));
    for (int a = 0; a < 3; ++a) {
        __m128 fraction[2];
        for (int h = 0; h < 2; ++h) {
            const __m256d pos = _mm256_loadu_pd(p[a] + 4 * h);
            __m256d tap;
            if constexpr (kLinear) {
                __m256d base = _mm256_round_pd(pos, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
                base = _mm256_blendv_pd(base, b.hiLessOne[a],
                                        _mm256_cmp_pd(base, b.hi[a], _CMP_GE_OQ));
                fraction[h] = _mm256_cvtpd_ps(_mm256_sub_pd(pos, base));
                tap = _mm256_max_pd(base, b.lo[a]);
            } else {
                tap = _mm256_round_pd(pos, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
            }
            tap = _mm256_blendv_pd(b.lo[a], tap, inside[h]);
            _mm_store_si128(reinterpret_cast<__m128i*>(out.tap[a] + 4 * h),
                            _mm256_cvttpd_epi32(tap));
        }
        if constexpr (kLinear) out.fraction[a] = _mm256_set_m128(fraction[1], fraction[0]);
    }
}

// --- Taps to voxels ------------------------------------------------------------------------

// The voxel pairs (p[l][0], p[l][1]) of eight lanes as two float vectors.
inline void loadPairs(const float* const p[8], __m256& first, __m256& second)
{
    __m128 q[4];
    for (int k = 0; k < 4; ++k)
        q[k] = _mm_castsi128_ps(
            _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p[2 * k])),
                               _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p[2 * k + 1]))));
    // q[k] holds lanes 2k, 2k + 1 as (first, second, first, second).
    const __m256 even = _mm256_set_m128(q[2], q[0]);  // lanes 0 1 | 4 5
    const __m256 odd = _mm256_set_m128(q[3], q[1]);   // lanes 2 3 | 6 7
    first = _mm256_shuffle_ps(even, odd, _MM_SHUFFLE(2, 0, 2, 0));
    second = _mm256_shuffle_ps(even, odd, _MM_SHUFFLE(3, 1, 3, 1));
}

template <class T>
inline void loadPairs(const T* const p[8], __m256& first, __m256& second)
{
    using Pair = std::conditional_t<sizeof(T) == 1, uint16_t, uint32_t>;
    constexpr int kBits = 8 * int(sizeof(T));
    alignas(16) int32_t word[8];
    for (int l = 0; l < 8; ++l) {
        Pair w;
        std::memcpy(&w, p[l], sizeof w);
        word[l] = int32_t(w);
    }
    const __m128i low = _mm_set1_epi32((1 << kBits) - 1);
    __m128 f[2], s[2];
    for (int h = 0; h < 2; ++h) {
        const __m128i w = _mm_load_si128(reinterpret_cast<const __m128i*>(word + 4 * h));
        f[h] = _mm_cvtepi32_ps(_mm_and_si128(w, low));
        s[h] = _mm_cvtepi32_ps(_mm_srli_epi32(w, kBits));
    }
    first = _mm256_set_m128(f[1], f[0]);
    second = _mm256_set_m128(s[1], s[0]);
}

inline __m256 linearBlendLanes(__m256 a, __m256 b, __m256 f)
{
    const __m256 one = _mm256_set1_ps(1.0f);
    return _mm256_add_ps(_mm256_mul_ps(_mm256_sub_ps(one, f), a), _mm256_mul_ps(f, b));
}

// Trilinear blend of eight lanes, as sampleLinear: along x, then y, then z. The lanes' second
// taps on y and z lie yStep voxels and zStep planes past the first (0 for a box one voxel
// thick, where both taps are the same voxel).
template <class T>
inline __m256 blendLinearLanes(const SourceWindow<T>& s, std::ptrdiff_t yStep, int zStep,
                               const LanePoints& pt)
{
    const T* row[4][8];  // row r = dy + 2 dz
    for (int l = 0; l < 8; ++l) {
        const std::ptrdiff_t at = pt.tap[1][l] * s.rowStep + pt.tap[0][l];
        const T* near = s.planes[pt.tap[2][l]] + at;
        const T* far = s.planes[pt.tap[2][l] + zStep] + at;
        row[0][l] = near;
        row[1][l] = near + yStep;
        row[2][l] = far;
        row[3][l] = far + yStep;
    }
    __m256 alongX[4];
    for (int r = 0; r < 4; ++r) {
        __m256 first, second;
        loadPairs(row[r], first, second);
        alongX[r] = linearBlendLanes(first, second, pt.fraction[0]);
    }
    const __m256 alongY0 = linearBlendLanes(alongX[0], alongX[1], pt.fraction[1]);
    const __m256 alongY1 = linearBlendLanes(alongX[2], alongX[3], pt.fraction[1]);
    return linearBlendLanes(alongY0, alongY1, pt.fraction[2]);
}

// roundToVoxel in lanes: max(v, 0) gives 0 for NaN as v > 0 ? v : 0 does, then the
// minimum, then rint in the default rounding mode. The lanes of the inside mask are stored.
template <class T>
inline void storeLanes(__m256 v, const LanePoints& pt, T* out)
{
    if constexpr (std::is_same_v<T, float>) {
        if (pt.laneMask == 0xff)
            _mm256_storeu_ps(out, v);
        else
            _mm256_maskstore_ps(out, _mm256_castps_si256(pt.inside), v);
    } else {
        const __m256 kMax = _mm256_set1_ps(float(std::numeric_limits<T>::max()));
        const __m256i c =
            _mm256_cvtps_epi32(_mm256_min_ps(_mm256_max_ps(v, _mm256_setzero_ps()), kMax));
        __m128i packed = _mm_packus_epi32(_mm256_castsi256_si128(c), _mm256_extractf128_si256(c, 1));
        if constexpr (sizeof(T) == 1) packed = _mm_packus_epi16(packed, packed);
        if (pt.laneMask == 0xff) {
            if constexpr (sizeof(T) == 1)
                _mm_storel_epi64(reinterpret_cast<__m128i*>(out), packed);
            else
                _mm_storeu_si128(reinterpret_cast<__m128i*>(out), packed);
            return;
        }
        alignas(16) T lane[16 / sizeof(T)];
        _mm_store_si128(reinterpret_cast<__m128i*>(lane), packed);
        for (int l = 0; l < 8; ++l)
            if (pt.laneMask >> l & 1) out[l] = lane[l];
    }
}

// Nearest: the voxel of each inside lane copied as it is.
template <class T>
inline void copyNearestLanes(const SourceWindow<T>& s, const LanePoints& pt, T* out)
{
    for (int l = 0; l < 8; ++l)
        if (pt.laneMask >> l & 1) out[l] = s.at(pt.tap[0][l], pt.tap[1][l], pt.tap[2][l]);
}

}  // namespace vekr::volume
