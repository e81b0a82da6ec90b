// The KD-tree walk that every intersection function shares, one ray at a time or as a 4 x 4
// tile of rays. What happens in a leaf, and when a ray is done, is the variant's rule: the
// nearest hit keeps searching until no nearer hit can follow, the occlusion test stops at its
// first occluder.
#pragma once

#include <immintrin.h>

#include <cassert>
#include <cstdint>
#include <initializer_list>

#include "accel/kd_format.h"
#include "ray_hit.h"

namespace vekr::ray {

// --- One ray at a time -------------------------------------------------------------------

struct PendingNode {
    const accel::KdNode* node;
    float tExit;  // where the ray leaves the node
};

// Walks the tree below root for one ray over [frame.tNear, frame.tFar]. The rule supplies
//   kDescentTolerance                   a child is skipped only when the interval clears its
//                                       side of the split by more than this;
//   bool visitLeaf(const KdNode* leaf)  tests the leaf's triangles; true ends the ray at once;
//   float reach() const                 once a leaf ends at or beyond this, nothing behind it
//                                       can change the answer.
// The pending far children live in a fixed 50-entry stack: the builders never put more than
// 50 inner nodes on a path.
template <class Rule>
inline void walkSingle(const accel::KdNode* root, const float origin[3], const RayFrame& frame,
                       Rule& rule)
{
    using accel::KdNode;
    PendingNode stack[accel::kMaxInnerNodesOnPath];
    int depth = 0;
    const KdNode* node = root;
    float tNear = frame.tNear;
    float tFar = frame.tFar;
    for (;;) {
        while (!accel::isLeaf(*node)) {
            const int k = accel::innerAxis(*node);
            const float tSplit = (accel::innerSplit(*node) - origin[k]) * frame.inverse[k];
            const KdNode* children = accel::innerChildren(node);
            const KdNode* nearChild = children + frame.negative[k];
            const KdNode* farChild = children + (1 - frame.negative[k]);
            if (tNear - tSplit > Rule::kDescentTolerance) {
                node = farChild;
            } else if (tSplit - tFar > Rule::kDescentTolerance) {
                node = nearChild;
            } else {
                assert(depth < accel::kMaxInnerNodesOnPath);
                stack[depth++] = {farChild, tFar};
                tFar = maxLikeVector(minLikeVector(tSplit, tFar), tNear);
                node = nearChild;
            }
        }
        if (rule.visitLeaf(node)) return;
        if (depth == 0 || tFar >= rule.reach()) return;
        --depth;
        tNear = tFar;
        tFar = stack[depth].tExit;
        node = stack[depth].node;
    }
}

// --- 4 x 4 tiles ---------------------------------------------------------------------------

// The 16 rays of a tile as two 8-lane halves: half 0 holds rows 0-1, half 1 rows 2-3, four
// rays per row. Lane sets travel as 16-bit masks, bit 8 * half + lane.
constexpr int kTileSide = 4;
constexpr int kAllLanes = 0xFFFF;

inline int laneBits(__m256 mask0, __m256 mask1)
{
    return _mm256_movemask_ps(mask0) | _mm256_movemask_ps(mask1) << 8;
}

// The lanes of b where mask is set and of a elsewhere, for masks whose lanes are all ones or
// all zeros (compare results and their combinations), bit for bit what blendv gives them.
// Spelt out in bit operations: without AVX2, GCC rewrites blendv on a mask it cannot trace to
// a compare (one loaded from a tile record, say) into eight scalar shifts and reinserts.
inline __m256 selectLanes(__m256 a, __m256 b, __m256 mask)
{
    return _mm256_or_ps(_mm256_andnot_ps(mask, a), _mm256_and_ps(mask, b));
}

// The lane mask of 8 bits of a lane set.
inline __m256 laneMask(int bits8)
{
    alignas(16) static const int32_t kNibbleMasks[16][4] = {
        {0, 0, 0, 0},   {-1, 0, 0, 0},   {0, -1, 0, 0},   {-1, -1, 0, 0},
        {0, 0, -1, 0},  {-1, 0, -1, 0},  {0, -1, -1, 0},  {-1, -1, -1, 0},
        {0, 0, 0, -1},  {-1, 0, 0, -1},  {0, -1, 0, -1},  {-1, -1, 0, -1},
        {0, 0, -1, -1}, {-1, 0, -1, -1}, {0, -1, -1, -1}, {-1, -1, -1, -1}};
    const __m128 low = _mm_load_ps(reinterpret_cast<const float*>(kNibbleMasks[bits8 & 15]));
    const __m128 high = _mm_load_ps(reinterpret_cast<const float*>(kNibbleMasks[bits8 >> 4 & 15]));
    return _mm256_insertf128_ps(_mm256_castps128_ps256(low), high, 1);
}

// A tile's rays against the tree: the shared origin broadcast, directions, inverses and signs.
struct TileRays {
    __m256 origin[3][2];
    __m256 dir[3][2];
    __m256 inverse[3][2];
    __m256 negative[3][2];  // lanes whose sign flag is set: the upper child is near
    int negativeBits[3];
};

struct alignas(32) PendingTileNode {
    __m256 tNear[2], tFar[2];
    const accel::KdNode* node;
    int lanes;
};

// Two rows of four rays as one half: rows row and row + 1, columns col to col + 3.
inline __m256 loadTwoRows(const float* plane, int64_t rowStart, int64_t width)
{
    const __m128 first = _mm_load_ps(plane + rowStart);
    const __m128 second = _mm_load_ps(plane + rowStart + width);
    return _mm256_insertf128_ps(_mm256_castps128_ps256(first), second, 1);
}

// Stores two rows of four lanes under a lane mask (masked lanes keep their memory).
inline void storeTwoRows(float* plane, int64_t rowStart, int64_t width, __m256 value, __m256 mask)
{
    const __m128i lowMask = _mm_castps_si128(_mm256_castps256_ps128(mask));
    const __m128i highMask = _mm_castps_si128(_mm256_extractf128_ps(mask, 1));
    _mm_maskstore_ps(plane + rowStart, lowMask, _mm256_castps256_ps128(value));
    _mm_maskstore_ps(plane + rowStart + width, highMask, _mm256_extractf128_ps(value, 1));
}

inline float laneOf(__m256 v, int lane)
{
    alignas(32) float values[8];
    _mm256_store_ps(values, v);
    return values[lane];
}
inline __m256 withLane(__m256 v, int lane, float value)
{
    alignas(32) float values[8];
    _mm256_store_ps(values, v);
    values[lane] = value;
    return _mm256_load_ps(values);
}
inline int32_t intLaneOf(__m256 v, int lane)
{
    alignas(32) int32_t values[8];
    _mm256_store_ps(reinterpret_cast<float*>(values), v);
    return values[lane];
}
inline __m256 withIntLane(__m256 v, int lane, int32_t value)
{
    alignas(32) int32_t values[8];
    _mm256_store_ps(reinterpret_cast<float*>(values), v);
    values[lane] = value;
    return _mm256_load_ps(reinterpret_cast<const float*>(values));
}

// Ray `index` (0 to 15) of a tile as a single ray: origin, direction and frame.
inline void extractLane(const TileRays& rays, int index, const __m256 tNear[2],
                        const __m256 tFar[2], float origin[3], float dir[3], RayFrame& frame)
{
    const int h = index >> 3, lane = index & 7;
    for (int k = 0; k < 3; ++k) {
        origin[k] = laneOf(rays.origin[k][h], lane);
        dir[k] = laneOf(rays.dir[k][h], lane);
        frame.inverse[k] = laneOf(rays.inverse[k][h], lane);
        frame.negative[k] = rays.negativeBits[k] >> index & 1;
    }
    frame.tNear = laneOf(tNear[h], lane);
    frame.tFar = laneOf(tFar[h], lane);
}

// The triangle test of every lane of one half, in the per-ray order of operations, up to the
// distance. Each lane is the scalar test on its own ray, so a lane and a single ray through the
// same triangle give the same bits.
struct TileCrossing {
    __m256 inside;  // lanes of the set whose ray crosses the triangle's plane inside it
    __m256 num, den, beta, gamma;  // the distance is num / den
};
inline TileCrossing crossTriangleTile(const TriangleAccel& rec, const TileRays& rays, int h,
                                      __m256 lanes)
{
    const RecordAxes a = recordAxes(rec.axes);
    const __m256 nu = _mm256_set1_ps(rec.nu);
    const __m256 nv = _mm256_set1_ps(rec.nv);
    const __m256 zero = _mm256_setzero_ps();
    const __m256 du = rays.dir[a.u][h];
    const __m256 dv = rays.dir[a.v][h];
    const __m256 eu = _mm256_sub_ps(_mm256_set1_ps(rec.pu), rays.origin[a.u][h]);
    const __m256 ev = _mm256_sub_ps(_mm256_set1_ps(rec.pv), rays.origin[a.v][h]);
    TileCrossing c;
    c.num =
        _mm256_sub_ps(_mm256_add_ps(_mm256_add_ps(_mm256_set1_ps(rec.pk), _mm256_mul_ps(nu, eu)),
                                    _mm256_mul_ps(nv, ev)),
                      rays.origin[a.k][h]);
    c.den = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(nu, du), _mm256_mul_ps(nv, dv)),
                          rays.dir[a.k][h]);
    const __m256 qu = _mm256_sub_ps(_mm256_mul_ps(c.num, du), _mm256_mul_ps(c.den, eu));
    const __m256 qv = _mm256_sub_ps(_mm256_mul_ps(c.num, dv), _mm256_mul_ps(c.den, ev));
    c.beta = _mm256_sub_ps(_mm256_mul_ps(qu, _mm256_set1_ps(rec.e2v)),
                           _mm256_mul_ps(qv, _mm256_set1_ps(rec.e2u)));
    c.gamma = _mm256_sub_ps(_mm256_mul_ps(qv, _mm256_set1_ps(rec.e1u)),
                            _mm256_mul_ps(qu, _mm256_set1_ps(rec.e1v)));
    const __m256 alpha = _mm256_sub_ps(_mm256_sub_ps(c.den, c.beta), c.gamma);
    c.inside = _mm256_and_ps(
        _mm256_and_ps(_mm256_cmp_ps(_mm256_mul_ps(alpha, c.beta), zero, _CMP_GE_OQ),
                      _mm256_cmp_ps(_mm256_mul_ps(c.beta, c.gamma), zero, _CMP_GE_OQ)),
        _mm256_and_ps(_mm256_cmp_ps(_mm256_mul_ps(alpha, c.gamma), zero, _CMP_GE_OQ), lanes));
    return c;
}

// Walks the tree below root with the rays of laneSet together. Each lane takes the per-ray
// decisions at every inner node; the tile visits a child when any lane of its set needs it,
// first the child that is near for most of them. The rule supplies
//   kDescentTolerance                               as for a single ray
//   void visitLeaf(const KdNode* leaf, int laneSet) tests the leaf's triangles on the lanes
//   int lanesDone(const __m256 tNear[2]) const      lanes for which a pending node starting at
//                                                   tNear cannot change the answer any more
//   void walkOneLane(const KdNode* node, int index, const __m256 tNear[2], const __m256 tFar[2])
//                                                   finishes the subtree at node for the one
//                                                   remaining ray by the per-ray walk.
template <class Rule>
inline void walkTile(const accel::KdNode* root, const TileRays& rays, int laneSet,
                     const __m256 tNearStart[2], const __m256 tFarStart[2], Rule& rule)
{
    using accel::KdNode;
    // The intervals stay in registers: only the copies handed to walkOneLane have an address.
    __m256 tNear[2] = {tNearStart[0], tNearStart[1]};
    __m256 tFar[2] = {tFarStart[0], tFarStart[1]};
    PendingTileNode stack[accel::kMaxInnerNodesOnPath];
    int depth = 0;
    const KdNode* node = root;
    const __m256 tolerance = _mm256_set1_ps(Rule::kDescentTolerance);
    const __m256 allLanes = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    for (;;) {
        while (!accel::isLeaf(*node)) {
            assert(laneSet != 0);
            if ((laneSet & (laneSet - 1)) == 0) {
                // One ray left: it finishes this subtree on its own, by the same decisions.
                const __m256 laneNear[2] = {tNear[0], tNear[1]};
                const __m256 laneFar[2] = {tFar[0], tFar[1]};
                rule.walkOneLane(node, __builtin_ctz(unsigned(laneSet)), laneNear, laneFar);
                break;
            }
            const int k = accel::innerAxis(*node);
            const __m256 split = _mm256_set1_ps(accel::innerSplit(*node));
            __m256 tSplit[2], farOnly[2], nearOnly[2];
            for (int h = 0; h < 2; ++h) {
                tSplit[h] =
                    _mm256_mul_ps(_mm256_sub_ps(split, rays.origin[k][h]), rays.inverse[k][h]);
                farOnly[h] =
                    _mm256_cmp_ps(_mm256_sub_ps(tNear[h], tSplit[h]), tolerance, _CMP_GT_OQ);
                nearOnly[h] = _mm256_andnot_ps(
                    farOnly[h],
                    _mm256_cmp_ps(_mm256_sub_ps(tSplit[h], tFar[h]), tolerance, _CMP_GT_OQ));
            }
            const int farOnlySet = laneBits(farOnly[0], farOnly[1]) & laneSet;
            const int nearOnlySet = laneBits(nearOnly[0], nearOnly[1]) & laneSet;
            const int negativeSet = rays.negativeBits[k] & laneSet;
            // Without a negative sign the lower child is near and the upper one far.
            const int needsNear = laneSet & ~farOnlySet;
            const int needsFar = laneSet & ~nearOnlySet;
            const int lowerSet = (needsNear & ~negativeSet) | (needsFar & negativeSet);
            const int upperSet = (needsFar & ~negativeSet) | (needsNear & negativeSet);
            // Rays that need both children split their interval at the plane into a near part
            // [tNear, nearEnd] and a far part [farStart, tFar]; the others keep theirs whichever
            // child they go to.
            __m256 nearEnd[2], farStart[2];
            const bool splitsIntervals = (needsNear & needsFar) != 0;
            for (int h = 0; h < 2; ++h) {
                if (!splitsIntervals) {
                    nearEnd[h] = tFar[h];
                    farStart[h] = tNear[h];
                    continue;
                }
                const __m256 both =
                    _mm256_andnot_ps(_mm256_or_ps(farOnly[h], nearOnly[h]), allLanes);
                const __m256 mid = _mm256_max_ps(_mm256_min_ps(tSplit[h], tFar[h]), tNear[h]);
                nearEnd[h] = selectLanes(tFar[h], mid, both);
                farStart[h] = selectLanes(tNear[h], mid, both);
            }
            const KdNode* children = accel::innerChildren(node);
            const KdNode *first, *second;
            int firstSet, secondSet;
            __m256 firstNear[2], firstFar[2], secondNear[2], secondFar[2];
            if (negativeSet == 0 || negativeSet == laneSet) {
                // One sign for the whole set, as almost always: the near child first for every
                // ray. Lanes outside the set get values that nothing reads.
                const int upperNear = negativeSet != 0 ? 1 : 0;
                first = children + upperNear;
                second = children + (1 - upperNear);
                firstSet = needsNear;
                secondSet = needsFar;
                for (int h = 0; h < 2; ++h) {
                    firstNear[h] = tNear[h];
                    firstFar[h] = nearEnd[h];
                    secondNear[h] = farStart[h];
                    secondFar[h] = tFar[h];
                }
            } else {
                // Mixed signs: first the child that is near for most of the rays.
                const bool lowerFirst =
                    2 * __builtin_popcount(negativeSet) <= __builtin_popcount(laneSet);
                first = children + (lowerFirst ? 0 : 1);
                second = children + (lowerFirst ? 1 : 0);
                firstSet = lowerFirst ? lowerSet : upperSet;
                secondSet = lowerFirst ? upperSet : lowerSet;
                for (int h = 0; h < 2; ++h) {
                    const __m256 negative = rays.negative[k][h];
                    const __m256 lowerNear = selectLanes(tNear[h], farStart[h], negative);
                    const __m256 lowerFar = selectLanes(nearEnd[h], tFar[h], negative);
                    const __m256 upperNear = selectLanes(farStart[h], tNear[h], negative);
                    const __m256 upperFar = selectLanes(tFar[h], nearEnd[h], negative);
                    firstNear[h] = lowerFirst ? lowerNear : upperNear;
                    firstFar[h] = lowerFirst ? lowerFar : upperFar;
                    secondNear[h] = lowerFirst ? upperNear : lowerNear;
                    secondFar[h] = lowerFirst ? upperFar : lowerFar;
                }
            }
            if (firstSet == 0) {
                node = second;
                laneSet = secondSet;
                for (int h = 0; h < 2; ++h) {
                    tNear[h] = secondNear[h];
                    tFar[h] = secondFar[h];
                }
                continue;
            }
            if (secondSet != 0) {
                assert(depth < accel::kMaxInnerNodesOnPath);
                PendingTileNode& pending = stack[depth++];
                pending.node = second;
                pending.lanes = secondSet;
                for (int h = 0; h < 2; ++h) {
                    pending.tNear[h] = secondNear[h];
                    pending.tFar[h] = secondFar[h];
                }
            }
            node = first;
            laneSet = firstSet;
            for (int h = 0; h < 2; ++h) {
                tNear[h] = firstNear[h];
                tFar[h] = firstFar[h];
            }
        }
        if (accel::isLeaf(*node)) rule.visitLeaf(node, laneSet);
        for (;;) {
            if (depth == 0) return;
            const PendingTileNode& pending = stack[--depth];
            // The test is per node, not per ray: a ray visiting its children far side first
            // still has its near side pending further down.
            const int lanes = pending.lanes & ~rule.lanesDone(pending.tNear);
            if (lanes == 0) continue;
            node = pending.node;
            laneSet = lanes;
            for (int h = 0; h < 2; ++h) {
                tNear[h] = pending.tNear[h];
                tFar[h] = pending.tFar[h];
            }
            break;
        }
    }
}

inline bool alignedTo16(const void* p)
{
    return (reinterpret_cast<uintptr_t>(p) & 15) == 0;
}

// The tile paths need sides that are multiples of 4 and every plane they touch on a 16-byte
// boundary.
inline bool fitsTiles(int width, int height, std::initializer_list<const void*> planes)
{
    if (width % kTileSide != 0 || height % kTileSide != 0) return false;
    for (const void* plane : planes)
        if (!alignedTo16(plane)) return false;
    return true;
}

// The two row starts of a tile's halves: rows row and row + 1, then row + 2 and row + 3.
inline void tileRowStarts(int row, int col, int64_t width, int64_t rowStart[2])
{
    for (int h = 0; h < 2; ++h)
        rowStart[h] = (int64_t(row) + 2 * h) * width + col;
}

}  // namespace vekr::ray
