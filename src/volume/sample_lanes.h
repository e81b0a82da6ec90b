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
// handled by a tap step of 0. A tap's offset in its plane, y * rowStep + x, must fit 32 bits.
template <class T>
inline bool lanesFit(const SourceWindow<T>& s)
{
    if (s.hi[0] <= s.lo[0] || s.rowStep <= 0) return false;
    for (int a = 0; a < 3; ++a)
        if (s.hi[a] >= kMaxLaneBound) return false;
    return (int64_t(s.hi[1]) + 1) * s.rowStep + s.hi[0] < int64_t(INT32_MAX);
}

// Eight positions resolved: each lane's first tap on each axis (outside lanes point at the
// box's first voxel so that every read is valid), for nearest and linear also as a plane and an
// offset y * rowStep + x in it, the fractions, and which lanes lie inside.
struct LanePoints {
    __m128i tap[3][2];  // the first tap on each axis, lanes 0 .. 3 and 4 .. 7
    alignas(32) int32_t offset[8];
    alignas(32) int32_t plane[8];
    bool onePlane;  // every lane's first tap lies in plane[0]
    __m256 fraction[3];
    __m256 inside;  // all ones in lanes inside the bounds
    int laneMask;   // the same, one bit per lane
};

// The window's bounds as lanes of float (remap) or double (warp), hoisted out of the row loop.
struct FloatLaneBounds {
    __m256 lo[3], hi[3], hiLessOne[3];
    __m128i rowStep;
};
struct DoubleLaneBounds {
    __m256d lo[3], hi[3], hiLessOne[3];
    __m128i rowStep;
};

inline FloatLaneBounds floatLaneBounds(const int32_t lo[3], const int32_t hi[3],
                                       std::ptrdiff_t rowStep)
{
    FloatLaneBounds b;
    b.rowStep = _mm_set1_epi32(int32_t(rowStep));
    for (int a = 0; a < 3; ++a) {
        b.lo[a] = _mm256_set1_ps(float(lo[a]));
        b.hi[a] = _mm256_set1_ps(float(hi[a]));
        b.hiLessOne[a] = _mm256_set1_ps(float(hi[a] - 1));
    }
    return b;
}

inline DoubleLaneBounds doubleLaneBounds(const int32_t lo[3], const int32_t hi[3],
                                         std::ptrdiff_t rowStep)
{
    DoubleLaneBounds b;
    b.rowStep = _mm_set1_epi32(int32_t(rowStep));
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

// What a position resolves to: the voxel it rounds to; the base trunc(p) reduced by one at the
// maximum, and the fraction past it; or the base trunc(p) of the four cubic taps around it.
enum class LaneKind { Nearest, Linear, Cubic };

// The first taps of eight lanes into offsets and planes.
inline void storeTaps(__m128i rowStep, LanePoints& out)
{
    const __m128i(&x)[2] = out.tap[0];
    const __m128i(&z)[2] = out.tap[2];
    for (int h = 0; h < 2; ++h) {
        _mm_store_si128(reinterpret_cast<__m128i*>(out.offset + 4 * h),
                        _mm_add_epi32(_mm_mullo_epi32(out.tap[1][h], rowStep), x[h]));
        _mm_store_si128(reinterpret_cast<__m128i*>(out.plane + 4 * h), z[h]);
    }
    const __m128i first = _mm_shuffle_epi32(z[0], 0);
    out.onePlane = _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi32(z[0], first),
                                                   _mm_cmpeq_epi32(z[1], first))) == 0xffff;
}

// Float positions (remap). Linear: base trunc(p), the maximum brought down by one, fraction
// p - base in float, the first tap the base raised to the box's first voxel (only a box one
// voxel thick has base below it); cubic: base trunc(p) and fraction p - base; nearest: rint(p).
template <LaneKind kKind>
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
        if constexpr (kKind == LaneKind::Linear) {
            __m256 base = _mm256_round_ps(pos[a], _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
            base = _mm256_blendv_ps(base, b.hiLessOne[a], _mm256_cmp_ps(base, b.hi[a], _CMP_GE_OQ));
            out.fraction[a] = _mm256_sub_ps(pos[a], base);
            tap = _mm256_max_ps(base, b.lo[a]);
        } else if constexpr (kKind == LaneKind::Cubic) {
            tap = _mm256_round_ps(pos[a], _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
            out.fraction[a] = _mm256_sub_ps(pos[a], tap);
        } else {
            tap = _mm256_round_ps(pos[a], _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
        }
        tap = _mm256_blendv_ps(b.lo[a], tap, out.inside);
        const __m256i t = _mm256_cvttps_epi32(tap);
        out.tap[a][0] = _mm256_castsi256_si128(t);
        out.tap[a][1] = _mm256_extractf128_si256(t, 1);
    }
    if constexpr (kKind != LaneKind::Cubic) storeTaps(b.rowStep, out);
}

// Double positions (warp): the same steps in double, the fraction rounded to float once.
template <LaneKind kKind>
inline void resolveLanes(const DoubleLaneBounds& b, const double* px, const double* py,
                         const double* pz, LanePoints& out)
{
    const double* p[3] = {px, py, pz};
    __m256d inside[2];
    for (int h = 0; h < 2; ++h) {
        inside[h] = _mm256_castsi256_pd(_mm256_set1_epi32(-1));
        for (int a = 0; a < 3; ++a)
            inside[h] = _mm256_and_pd(inside[h],
                                      insideLanes(_mm256_loadu_pd(p[a] + 4 * h), b.lo[a], b.hi[a]));
    }
    out.laneMask = _mm256_movemask_pd(inside[0]) | _mm256_movemask_pd(inside[1]) << 4;
    if (out.laneMask == 0) return;
    out.inside = _mm256_set_m128(narrowMask(inside[1]), narrowMask(inside[0]));
    for (int a = 0; a < 3; ++a) {
        __m128 fraction[2];
        for (int h = 0; h < 2; ++h) {
            const __m256d pos = _mm256_loadu_pd(p[a] + 4 * h);
            __m256d tap;
            if constexpr (kKind == LaneKind::Linear) {
                __m256d base = _mm256_round_pd(pos, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
                base = _mm256_blendv_pd(base, b.hiLessOne[a],
                                        _mm256_cmp_pd(base, b.hi[a], _CMP_GE_OQ));
                fraction[h] = _mm256_cvtpd_ps(_mm256_sub_pd(pos, base));
                tap = _mm256_max_pd(base, b.lo[a]);
            } else if constexpr (kKind == LaneKind::Cubic) {
                tap = _mm256_round_pd(pos, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
                fraction[h] = _mm256_cvtpd_ps(_mm256_sub_pd(pos, tap));
            } else {
                tap = _mm256_round_pd(pos, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
            }
            tap = _mm256_blendv_pd(b.lo[a], tap, inside[h]);
            out.tap[a][h] = _mm256_cvttpd_epi32(tap);
        }
        if constexpr (kKind != LaneKind::Nearest)
            out.fraction[a] = _mm256_set_m128(fraction[1], fraction[0]);
    }
    if constexpr (kKind != LaneKind::Cubic) storeTaps(b.rowStep, out);
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

// The x pairs of eight lanes from their own rows: row[l] + extra.
template <class T>
inline void loadPairsOfRows(const T* const row[8], std::ptrdiff_t extra, __m256& first,
                            __m256& second)
{
    const T* p[8];
    for (int l = 0; l < 8; ++l)
        p[l] = row[l] + extra;
    loadPairs(p, first, second);
}

// The x pairs of eight lanes in one plane row set: base + offset[l].
template <class T>
inline void loadPairsAt(const T* base, const int32_t offset[8], __m256& first, __m256& second)
{
    const T* p[8];
    for (int l = 0; l < 8; ++l)
        p[l] = base + offset[l];
    loadPairs(p, first, second);
}

// Trilinear blend of eight lanes, as sampleLinear: along x, then y, then z. The lanes' second
// taps on y and z lie yStep voxels and zStep planes past the first (0 for a box one voxel
// thick, where both taps are the same voxel). Lanes whose taps share a plane (a row of a warp
// about an axis near z, most rows of a remap) read through two plane pointers.
template <class T>
inline __m256 blendLinearLanes(const SourceWindow<T>& s, std::ptrdiff_t yStep, int zStep,
                               const LanePoints& pt)
{
    __m256 first[4], second[4];  // row r = dy + 2 dz
    if (pt.onePlane) {
        const T* near = s.planes[pt.plane[0]];
        const T* far = s.planes[pt.plane[0] + zStep];
        loadPairsAt(near, pt.offset, first[0], second[0]);
        loadPairsAt(near + yStep, pt.offset, first[1], second[1]);
        loadPairsAt(far, pt.offset, first[2], second[2]);
        loadPairsAt(far + yStep, pt.offset, first[3], second[3]);
    } else {
        const T* near[8];
        const T* far[8];
        for (int l = 0; l < 8; ++l) {
            near[l] = s.planes[pt.plane[l]] + pt.offset[l];
            far[l] = s.planes[pt.plane[l] + zStep] + pt.offset[l];
        }
        loadPairsOfRows(near, 0, first[0], second[0]);
        loadPairsOfRows(near, yStep, first[1], second[1]);
        loadPairsOfRows(far, 0, first[2], second[2]);
        loadPairsOfRows(far, yStep, first[3], second[3]);
    }
    __m256 alongX[4];
    for (int r = 0; r < 4; ++r)
        alongX[r] = linearBlendLanes(first[r], second[r], pt.fraction[0]);
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
        __m128i packed =
            _mm_packus_epi32(_mm256_castsi256_si128(c), _mm256_extractf128_si256(c, 1));
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

// --- Cubic -----------------------------------------------------------------------------------

// Whether the cubic lanes may take a window: as the others, and four voxels wide so that a lane
// outside it can read the first four.
template <class T>
inline bool cubicLanesFit(const SourceWindow<T>& s)
{
    return lanesFit(s) && s.hi[0] - s.lo[0] >= 3;
}

// Whether some inside lane has a cubic x tap base - 1 .. base + 2 outside the window: such a
// group reads its x taps one by one, clamped.
inline bool xTapsAtEdge(const LanePoints& pt, int32_t lo, int32_t hi)
{
    const __m128i firstBase = _mm_set1_epi32(lo + 1), lastBase = _mm_set1_epi32(hi - 2);
    int edge = 0;
    for (int h = 0; h < 2; ++h) {
        const __m128i b = pt.tap[0][h];
        const __m128i out =
            _mm_or_si128(_mm_cmpgt_epi32(firstBase, b), _mm_cmpgt_epi32(b, lastBase));
        edge |= _mm_movemask_ps(_mm_castsi128_ps(out)) << 4 * h;
    }
    return (edge & pt.laneMask) != 0;
}

// Four voxels from p on, as float.
template <class T>
inline __m128 loadQuad(const T* p)
{
    if constexpr (std::is_same_v<T, float>) {
        return _mm_loadu_ps(p);
    } else if constexpr (sizeof(T) == 2) {
        return _mm_cvtepi32_ps(
            _mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
    } else {
        int32_t word;
        std::memcpy(&word, p, sizeof word);
        return _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(word)));
    }
}

// The runs of four voxels at p[l] of eight lanes, transposed: s[k] holds tap k of every lane.
template <class T>
inline void loadQuads(const T* const p[8], __m256 s[4])
{
    __m256 r[4];
    for (int i = 0; i < 4; ++i)
        r[i] = _mm256_set_m128(loadQuad(p[i + 4]), loadQuad(p[i]));
    const __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]), t1 = _mm256_unpackhi_ps(r[0], r[1]);
    const __m256 t2 = _mm256_unpacklo_ps(r[2], r[3]), t3 = _mm256_unpackhi_ps(r[2], r[3]);
    s[0] = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(1, 0, 1, 0));
    s[1] = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(3, 2, 3, 2));
    s[2] = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(1, 0, 1, 0));
    s[3] = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(3, 2, 3, 2));
}

// The same with each lane's four taps read one by one at row[l] + x[k][l].
template <class T>
inline void loadQuads(const T* const row[8], const int32_t x[4][8], __m256 s[4])
{
    for (int k = 0; k < 4; ++k) {
        alignas(32) float v[8];
        for (int l = 0; l < 8; ++l)
            v[l] = float(row[l][x[k][l]]);
        s[k] = _mm256_load_ps(v);
    }
}

// cubicBlend in lanes, with the same pairing.
inline __m256 cubicBlendLanes(const __m256 s[4], const __m256 w[4])
{
    return _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(w[1], s[1]), _mm256_mul_ps(w[0], s[0])),
                         _mm256_add_ps(_mm256_mul_ps(w[3], s[3]), _mm256_mul_ps(w[2], s[2])));
}

// Tap base - 1 + k of four lanes, clamped to the bounds.
inline __m128i clampedTap(__m128i base, int k, __m128i lo, __m128i hi)
{
    return _mm_min_epi32(_mm_max_epi32(_mm_add_epi32(base, _mm_set1_epi32(k - 1)), lo), hi);
}

// The cubic weights of the last group on each axis, kept for the next group with the same
// fractions (along a row of a warp about an axis, or of a remap on a grid, one axis or two keep
// theirs).
struct CubicWeightLanes {
    const InterpolationKernel& kernel;
    __m256 fraction[3];
    __m256 weight[3][4];

    explicit CubicWeightLanes(const InterpolationKernel& k) : kernel(k)
    {
        for (int a = 0; a < 3; ++a)
            fraction[a] = _mm256_set1_ps(std::numeric_limits<float>::quiet_NaN());
    }
    void update(const __m256 f[3])
    {
        for (int a = 0; a < 3; ++a) {
            const __m256 same = _mm256_cmp_ps(f[a], fraction[a], _CMP_EQ_OQ);
            if (_mm256_movemask_ps(same) == 0xff) continue;
            fraction[a] = f[a];
            kernel.cubicWeightLanes(f[a], weight[a]);
        }
    }
};

// Tricubic blend of eight lanes, as sampleCubic: along x, then y, then z, with the taps
// clamped to the bounds. Unless kEdge, every inside lane's x taps lie inside the window and are
// read as one run (outside lanes, whose base is lo, read the first four voxels); with kEdge each
// is read on its own.
template <bool kEdge, class T>
inline __m256 blendCubicLanes(const SourceWindow<T>& s, CubicWeightLanes& weights,
                              const LanePoints& pt)
{
    weights.update(pt.fraction);
    const __m256(&w)[3][4] = weights.weight;
    alignas(16) int32_t rowOffset[4][8], plane[4][8], xTap[4][8];
    const __m128i rowStep = _mm_set1_epi32(int32_t(s.rowStep));
    __m128i lo[3], hi[3];
    for (int a = 0; a < 3; ++a)
        lo[a] = _mm_set1_epi32(s.lo[a]), hi[a] = _mm_set1_epi32(s.hi[a]);
    for (int h = 0; h < 2; ++h) {
        __m128i x = _mm_setzero_si128();
        if constexpr (kEdge) {
            for (int k = 0; k < 4; ++k)
                _mm_store_si128(reinterpret_cast<__m128i*>(xTap[k] + 4 * h),
                                clampedTap(pt.tap[0][h], k, lo[0], hi[0]));
        } else {
            x = _mm_max_epi32(_mm_sub_epi32(pt.tap[0][h], _mm_set1_epi32(1)), lo[0]);
        }
        for (int k = 0; k < 4; ++k) {
            const __m128i y = clampedTap(pt.tap[1][h], k, lo[1], hi[1]);
            _mm_store_si128(reinterpret_cast<__m128i*>(rowOffset[k] + 4 * h),
                            _mm_add_epi32(_mm_mullo_epi32(y, rowStep), x));
            _mm_store_si128(reinterpret_cast<__m128i*>(plane[k] + 4 * h),
                            clampedTap(pt.tap[2][h], k, lo[2], hi[2]));
        }
    }
    __m256 alongY[4];
    for (int k = 0; k < 4; ++k) {
        const T* planeOf[8];
        for (int l = 0; l < 8; ++l)
            planeOf[l] = s.planes[plane[k][l]];
        __m256 alongX[4];
        for (int j = 0; j < 4; ++j) {
            const T* p[8];
            for (int l = 0; l < 8; ++l)
                p[l] = planeOf[l] + rowOffset[j][l];
            __m256 taps[4];
            if constexpr (kEdge)
                loadQuads(p, xTap, taps);
            else
                loadQuads(p, taps);
            alongX[j] = cubicBlendLanes(taps, w[0]);
        }
        alongY[k] = cubicBlendLanes(alongX, w[1]);
    }
    return cubicBlendLanes(alongY, w[2]);
}

// A group of eight cubic lanes: the runs of x taps where every lane allows them.
template <class T>
inline __m256 blendCubicLanes(const SourceWindow<T>& s, CubicWeightLanes& weights,
                              const LanePoints& pt)
{
    return xTapsAtEdge(pt, s.lo[0], s.hi[0]) ? blendCubicLanes<true>(s, weights, pt)
                                             : blendCubicLanes<false>(s, weights, pt);
}

// Nearest: the voxel of each inside lane copied as it is.
template <class T>
inline void copyNearestLanes(const SourceWindow<T>& s, const LanePoints& pt, T* out)
{
    for (int l = 0; l < 8; ++l)
        if (pt.laneMask >> l & 1) out[l] = s.planes[pt.plane[l]][pt.offset[l]];
}

// One row's sampling in groups of eight of a kind, shared by remap and warp: which windows the
// lanes take, and what a resolved group writes (the linear taps' steps on y and z and the cubic
// weights are kept from group to group).
template <class T, LaneKind kKind>
class LaneSampler {
public:
    LaneSampler(const SourceWindow<T>& src, const InterpolationKernel& kernel)
        : src_(src),
          yStep_(src.hi[1] > src.lo[1] ? src.rowStep : 0),
          zStep_(src.hi[2] > src.lo[2] ? 1 : 0),
          weights_(kernel)
    {
    }

    static bool takes(const SourceWindow<T>& s)
    {
        return kKind == LaneKind::Cubic ? cubicLanesFit(s) : lanesFit(s);
    }

    void write(const LanePoints& pt, T* out)
    {
        if (pt.laneMask == 0) return;
        if constexpr (kKind == LaneKind::Linear)
            storeLanes(blendLinearLanes(src_, yStep_, zStep_, pt), pt, out);
        else if constexpr (kKind == LaneKind::Cubic)
            storeLanes(blendCubicLanes(src_, weights_, pt), pt, out);
        else
            copyNearestLanes(src_, pt, out);
    }

private:
    const SourceWindow<T>& src_;
    std::ptrdiff_t yStep_;
    int zStep_;
    CubicWeightLanes weights_;
};

}  // namespace vekr::volume
