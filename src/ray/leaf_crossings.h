// The crossings of one ray with the triangles of a leaf, in list order. The vector form tests
// eight records at once, one per lane, with the very operations of crossTriangle in the same
// order, so each lane's num, den and weights are bit for bit the scalar ones; the rule then
// takes the crossings one by one in list order, as the scalar loop would.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "accel/kd_format.h"
#include "ray_hit.h"

namespace vekr::ray {

// Calls onCrossing(index, crossing) for each listed triangle the ray crosses, in list order,
// until it returns true; degenerate records are skipped. Returns whether it stopped early.
template <class OnCrossing>
inline bool forEachLeafCrossingScalar(const TriangleAccel* triangles,
                                      const accel::LeafTriangles& leaf, const float origin[3],
                                      const float dir[3], OnCrossing&& onCrossing)
{
    for (int i = 0; i < leaf.count; ++i) {
        const int32_t index = leaf[i];
        const TriangleAccel& rec = triangles[index];
        if (rec.axes == 0) continue;  // degenerate triangle
        Crossing c;
        if (crossTriangle(rec, origin, dir, c) && onCrossing(index, c)) return true;
    }
    return false;
}

// Eight records' fields, one record per lane.
struct RecordLanes {
    __m256 axes;  // the axes word's bits
    __m256 nu, pk, nv, pu, pv, e2u, e2v, e1u, e1v;
};

// Loads the records of indices[0..7] into lanes: words 0-7 of each record as one row of an
// 8 x 8 transpose, words 8-9 as pairs. Every load stays inside its own 40-byte record.
inline void loadRecordLanes(const TriangleAccel* triangles, const int32_t indices[8],
                            RecordLanes& r)
{
    const float* p[8];
    __m256 row[8];
    for (int i = 0; i < 8; ++i) {
        p[i] = reinterpret_cast<const float*>(&triangles[indices[i]]);
        row[i] = _mm256_loadu_ps(p[i]);
    }
    __m256 s[8];
    for (int q = 0; q < 2; ++q) {  // records 0-3, then 4-7
        const __m256* in = row + 4 * q;
        const __m256 t0 = _mm256_unpacklo_ps(in[0], in[1]);
        const __m256 t1 = _mm256_unpackhi_ps(in[0], in[1]);
        const __m256 t2 = _mm256_unpacklo_ps(in[2], in[3]);
        const __m256 t3 = _mm256_unpackhi_ps(in[2], in[3]);
        s[4 * q + 0] = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(1, 0, 1, 0));  // words 0 | 4
        s[4 * q + 1] = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(3, 2, 3, 2));  // words 1 | 5
        s[4 * q + 2] = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(1, 0, 1, 0));  // words 2 | 6
        s[4 * q + 3] = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(3, 2, 3, 2));  // words 3 | 7
    }
    r.axes = _mm256_permute2f128_ps(s[0], s[4], 0x20);
    r.nu = _mm256_permute2f128_ps(s[1], s[5], 0x20);
    r.pk = _mm256_permute2f128_ps(s[2], s[6], 0x20);
    r.nv = _mm256_permute2f128_ps(s[3], s[7], 0x20);
    r.pu = _mm256_permute2f128_ps(s[0], s[4], 0x31);
    r.pv = _mm256_permute2f128_ps(s[1], s[5], 0x31);
    r.e2u = _mm256_permute2f128_ps(s[2], s[6], 0x31);
    r.e2v = _mm256_permute2f128_ps(s[3], s[7], 0x31);
    __m128 u[2], v[2];
    for (int q = 0; q < 2; ++q) {
        __m128 pair[4];
        for (int i = 0; i < 4; ++i) {
            double bits;
            std::memcpy(&bits, p[4 * q + i] + 8, sizeof bits);
            pair[i] = _mm_castpd_ps(_mm_set_sd(bits));  // e1u, e1v, 0, 0
        }
        const __m128 m01 = _mm_movelh_ps(pair[0], pair[1]);
        const __m128 m23 = _mm_movelh_ps(pair[2], pair[3]);
        u[q] = _mm_shuffle_ps(m01, m23, _MM_SHUFFLE(2, 0, 2, 0));
        v[q] = _mm_shuffle_ps(m01, m23, _MM_SHUFFLE(3, 1, 3, 1));
    }
    r.e1u = _mm256_insertf128_ps(_mm256_castps128_ps256(u[0]), u[1], 1);
    r.e1v = _mm256_insertf128_ps(_mm256_castps128_ps256(v[0]), v[1], 1);
}

// The lanes' choice of one of x, y, z: each lane takes the component its 2-bit field names.
inline __m256 pickAxis(__m256 xyz0, __m256i fields)
{
    return _mm256_permutevar_ps(xyz0, fields);
}

// The axes word shifted right by bits in every lane (integer shifts per 128-bit half).
inline __m256i shiftedAxes(__m256 axes, int bits)
{
    const __m128i low = _mm_castps_si128(_mm256_castps256_ps128(axes));
    const __m128i high = _mm_castps_si128(_mm256_extractf128_ps(axes, 1));
    return _mm256_insertf128_si256(_mm256_castsi128_si256(_mm_srli_epi32(low, bits)),
                                   _mm_srli_epi32(high, bits), 1);
}

// A ray prepared for the vector leaf test: its origin and direction as x, y, z, 0 in both
// halves (lane-wise selectable by an axis field).
struct LeafRay {
    __m256 origin, dir;
    const float* originScalar;
    const float* dirScalar;
};
inline LeafRay prepareLeafRay(const float origin[3], const float dir[3])
{
    const __m128 o = _mm_setr_ps(origin[0], origin[1], origin[2], 0.0f);
    const __m128 d = _mm_setr_ps(dir[0], dir[1], dir[2], 0.0f);
    return {_mm256_insertf128_ps(_mm256_castps128_ps256(o), o, 1),
            _mm256_insertf128_ps(_mm256_castps128_ps256(d), d, 1), origin, dir};
}

// Leaves shorter than this take the scalar loop: the transposes cost more than they save.
// Compact leaves (one to three triangles, indices in the node) always do.
constexpr int kVectorLeafMin = 4;

// The vector form of forEachLeafCrossingScalar, with the same calls in the same order.
template <class OnCrossing>
inline bool forEachLeafCrossing(const TriangleAccel* triangles, const accel::LeafTriangles& leaf,
                                const LeafRay& ray, OnCrossing&& onCrossing)
{
    if (leaf.count < kVectorLeafMin || leaf.list == nullptr)
        return forEachLeafCrossingScalar(triangles, leaf, ray.originScalar, ray.dirScalar,
                                         onCrossing);
    for (int first = 0; first < leaf.count; first += 8) {
        const int n = leaf.count - first < 8 ? leaf.count - first : 8;
        int32_t indices[8];
        int tested = 0;  // lanes holding a record that is not degenerate
        for (int i = 0; i < 8; ++i) {
            indices[i] = leaf.list[first + (i < n ? i : 0)];
            if (i < n && triangles[indices[i]].axes != 0) tested |= 1 << i;
        }
        if (tested == 0) continue;
        RecordLanes r;
        loadRecordLanes(triangles, indices, r);
        const __m256i vField = _mm256_castps_si256(r.axes);
        const __m256i uField = shiftedAxes(r.axes, 2);
        const __m256i kField = shiftedAxes(r.axes, 4);
        const __m256 du = pickAxis(ray.dir, uField);
        const __m256 dv = pickAxis(ray.dir, vField);
        const __m256 dk = pickAxis(ray.dir, kField);
        const __m256 den =
            _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(r.nu, du), _mm256_mul_ps(r.nv, dv)), dk);
        const __m256 eu = _mm256_sub_ps(r.pu, pickAxis(ray.origin, uField));
        const __m256 ev = _mm256_sub_ps(r.pv, pickAxis(ray.origin, vField));
        const __m256 num = _mm256_sub_ps(
            _mm256_add_ps(_mm256_add_ps(r.pk, _mm256_mul_ps(r.nu, eu)), _mm256_mul_ps(r.nv, ev)),
            pickAxis(ray.origin, kField));
        const __m256 qu = _mm256_sub_ps(_mm256_mul_ps(num, du), _mm256_mul_ps(den, eu));
        const __m256 qv = _mm256_sub_ps(_mm256_mul_ps(num, dv), _mm256_mul_ps(den, ev));
        const __m256 beta = _mm256_sub_ps(_mm256_mul_ps(qu, r.e2v), _mm256_mul_ps(qv, r.e2u));
        const __m256 gamma = _mm256_sub_ps(_mm256_mul_ps(qv, r.e1u), _mm256_mul_ps(qu, r.e1v));
        const __m256 alpha = _mm256_sub_ps(_mm256_sub_ps(den, beta), gamma);
        const __m256 zero = _mm256_setzero_ps();
        const __m256 inside = _mm256_and_ps(
            _mm256_and_ps(_mm256_cmp_ps(_mm256_mul_ps(alpha, beta), zero, _CMP_GE_OQ),
                          _mm256_cmp_ps(_mm256_mul_ps(beta, gamma), zero, _CMP_GE_OQ)),
            _mm256_cmp_ps(_mm256_mul_ps(alpha, gamma), zero, _CMP_GE_OQ));
        int crossed = _mm256_movemask_ps(inside) & tested;
        if (crossed == 0) continue;
        alignas(32) float lanes[4][8];
        _mm256_store_ps(lanes[0], num);
        _mm256_store_ps(lanes[1], den);
        _mm256_store_ps(lanes[2], beta);
        _mm256_store_ps(lanes[3], gamma);
        for (; crossed != 0; crossed &= crossed - 1) {
            const int i = __builtin_ctz(unsigned(crossed));
            const Crossing c{lanes[0][i], lanes[1][i], lanes[2][i], lanes[3][i]};
            if (onCrossing(indices[i], c)) return true;
        }
    }
    return false;
}

}  // namespace vekr::ray
