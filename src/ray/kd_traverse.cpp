#include "kd_traverse.h"

#include <immintrin.h>

#include <cassert>
#include <cstring>

namespace vekr::ray {

using accel::decodeLeaf;
using accel::innerAxis;
using accel::innerChildren;
using accel::innerSplit;
using accel::isLeaf;
using accel::KdNode;
using accel::kMaxInnerNodesOnPath;
using accel::LeafTriangles;

// --- One ray at a time -------------------------------------------------------------------

namespace {

struct PendingNode {
    const KdNode* node;
    float tExit;  // where the ray leaves the node
};

void testLeaf(const SceneView& scene, const KdNode* leafNode, const float origin[3],
              const float dir[3], RayHit& hit)
{
    const LeafTriangles leaf = decodeLeaf(leafNode);
    for (int i = 0; i < leaf.count; ++i) {
        const int32_t index = leaf[i];
        testTriangle(scene.triangles[index], index, origin, dir, hit);
    }
}

}  // namespace

void traverseSingle(const SceneView& scene, const float origin[3], const float dir[3],
                    RayFrame frame, RayHit& hit)
{
    PendingNode stack[kMaxInnerNodesOnPath];
    int depth = 0;
    const KdNode* node = scene.root;
    float tNear = frame.tNear;
    float tFar = frame.tFar;
    for (;;) {
        while (!isLeaf(*node)) {
            const int k = innerAxis(*node);
            const float tSplit = (innerSplit(*node) - origin[k]) * frame.inverse[k];
            const KdNode* children = innerChildren(node);
            const KdNode* nearChild = children + frame.negative[k];
            const KdNode* farChild = children + (1 - frame.negative[k]);
            if (tNear - tSplit > kDescentTolerance) {
                node = farChild;
            } else if (tSplit - tFar > kDescentTolerance) {
                node = nearChild;
            } else {
                assert(depth < kMaxInnerNodesOnPath);
                stack[depth++] = {farChild, tFar};
                tFar = maxLikeVector(minLikeVector(tSplit, tFar), tNear);
                node = nearChild;
            }
        }
        testLeaf(scene, node, origin, dir, hit);
        // A hit no farther than this leaf's end cannot be beaten by anything behind it.
        if (depth == 0 || tFar >= hit.dist) return;
        --depth;
        tNear = tFar;
        tFar = stack[depth].tExit;
        node = stack[depth].node;
    }
}

void intersectEyeRaysSingle(const SceneView& scene, const EyeRayBlock& block)
{
    const int64_t rayCount = int64_t(block.width) * block.height;
    for (int64_t i = 0; i < rayCount; ++i) {
        block.triIndex[i] = -1;
        const float dir[3] = {block.dir[0][i], block.dir[1][i], block.dir[2][i]};
        RayFrame frame;
        if (!clipRayToBox(scene.box, block.origin, dir, block.dist[i], frame)) continue;
        RayHit hit{block.dist[i], 0.0f, 0.0f, -1};
        traverseSingle(scene, block.origin, dir, frame, hit);
        if (hit.triangle < 0) continue;
        block.dist[i] = hit.dist;
        block.hitU[i] = hit.u;
        block.hitV[i] = hit.v;
        block.triIndex[i] = hit.triangle;
    }
}

// --- 4 x 4 tiles ---------------------------------------------------------------------------

namespace {

// The 16 rays of a tile as two 8-lane halves: half 0 holds rows 0-1, half 1 rows 2-3, four
// rays per row. Lane sets travel as 16-bit masks, bit 8 * half + lane.
constexpr int kTileSide = 4;
constexpr int kAllLanes = 0xFFFF;

inline int laneBits(__m256 mask0, __m256 mask1)
{
    return _mm256_movemask_ps(mask0) | _mm256_movemask_ps(mask1) << 8;
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

struct TileRays {
    __m256 dir[3][2];
    __m256 inverse[3][2];
    __m256 negative[3][2];  // lanes whose direction is negative on the axis
    int negativeBits[3];
};

struct TileHits {
    __m256 dist[2];
    __m256 u[2], v[2];
    __m256 triangle[2];  // index bits
    __m256 hit[2];       // lanes that found a triangle
};

struct alignas(32) PendingTileNode {
    __m256 tNear[2], tFar[2];
    const KdNode* node;
    int lanes;
};

// Two rows of four rays as one half: rows row and row + 1, columns col to col + 3.
inline __m256 loadTwoRows(const float* plane, int64_t rowStart, int64_t width)
{
    const __m128 first = _mm_load_ps(plane + rowStart);
    const __m128 second = _mm_load_ps(plane + rowStart + width);
    return _mm256_insertf128_ps(_mm256_castps128_ps256(first), second, 1);
}

// The scalar ray-triangle test on every lane of the set; same operations, same order.
inline void testTriangleTile(const TriangleAccel& rec, int32_t index, const float origin[3],
                             const TileRays& rays, const __m256 lanes[2], int laneSet,
                             TileHits& hits)
{
    if (rec.axes == 0) return;  // degenerate triangle
    const RecordAxes a = recordAxes(rec.axes);
    // With one origin for all rays these are the same on every lane.
    const float euScalar = rec.pu - origin[a.u];
    const float evScalar = rec.pv - origin[a.v];
    const float numScalar = (rec.pk + rec.nu * euScalar) + rec.nv * evScalar - origin[a.k];
    const __m256 eu = _mm256_set1_ps(euScalar);
    const __m256 ev = _mm256_set1_ps(evScalar);
    const __m256 num = _mm256_set1_ps(numScalar);
    const __m256 nu = _mm256_set1_ps(rec.nu);
    const __m256 nv = _mm256_set1_ps(rec.nv);
    const __m256 zero = _mm256_setzero_ps();
    for (int h = 0; h < 2; ++h) {
        if ((laneSet >> 8 * h & 0xFF) == 0) continue;
        const __m256 du = rays.dir[a.u][h];
        const __m256 dv = rays.dir[a.v][h];
        const __m256 den = _mm256_add_ps(
            _mm256_add_ps(_mm256_mul_ps(nu, du), _mm256_mul_ps(nv, dv)), rays.dir[a.k][h]);
        const __m256 qu = _mm256_sub_ps(_mm256_mul_ps(num, du), _mm256_mul_ps(den, eu));
        const __m256 qv = _mm256_sub_ps(_mm256_mul_ps(num, dv), _mm256_mul_ps(den, ev));
        const __m256 beta = _mm256_sub_ps(_mm256_mul_ps(qu, _mm256_set1_ps(rec.e2v)),
                                          _mm256_mul_ps(qv, _mm256_set1_ps(rec.e2u)));
        const __m256 gamma = _mm256_sub_ps(_mm256_mul_ps(qv, _mm256_set1_ps(rec.e1u)),
                                           _mm256_mul_ps(qu, _mm256_set1_ps(rec.e1v)));
        const __m256 alpha = _mm256_sub_ps(_mm256_sub_ps(den, beta), gamma);
        const __m256 inside = _mm256_and_ps(
            _mm256_and_ps(_mm256_cmp_ps(_mm256_mul_ps(alpha, beta), zero, _CMP_GE_OQ),
                          _mm256_cmp_ps(_mm256_mul_ps(beta, gamma), zero, _CMP_GE_OQ)),
            _mm256_and_ps(_mm256_cmp_ps(_mm256_mul_ps(alpha, gamma), zero, _CMP_GE_OQ), lanes[h]));
        if (_mm256_movemask_ps(inside) == 0) continue;
        const __m256 t = _mm256_div_ps(num, den);
        const __m256 take =
            _mm256_and_ps(inside, _mm256_and_ps(_mm256_cmp_ps(hits.dist[h], t, _CMP_GT_OQ),
                                                _mm256_cmp_ps(t, zero, _CMP_GT_OQ)));
        if (_mm256_movemask_ps(take) == 0) continue;
        hits.dist[h] = _mm256_blendv_ps(hits.dist[h], t, take);
        hits.u[h] = _mm256_blendv_ps(hits.u[h], _mm256_div_ps(beta, den), take);
        hits.v[h] = _mm256_blendv_ps(hits.v[h], _mm256_div_ps(gamma, den), take);
        hits.triangle[h] =
            _mm256_blendv_ps(hits.triangle[h], _mm256_castsi256_ps(_mm256_set1_epi32(index)), take);
        hits.hit[h] = _mm256_or_ps(hits.hit[h], take);
    }
}

void testLeafTile(const SceneView& scene, const KdNode* leafNode, const float origin[3],
                  const TileRays& rays, int laneSet, TileHits& hits)
{
    const LeafTriangles leaf = decodeLeaf(leafNode);
    if (leaf.count == 0) return;
    const __m256 lanes[2] = {laneMask(laneSet & 0xFF), laneMask(laneSet >> 8)};
    for (int i = 0; i < leaf.count; ++i) {
        const int32_t index = leaf[i];
        testTriangleTile(scene.triangles[index], index, origin, rays, lanes, laneSet, hits);
    }
}

// Lane `lane` of a tile, one float.
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

// The subtree at node for the single ray of laneSet, by the per-ray traversal: the same
// decisions, the same order of leaves and the same triangle arithmetic as the tile would take
// with that one lane.
void traverseOneLane(const SceneView& scene, const float origin[3], const TileRays& rays,
                     const KdNode* node, int laneSet, const __m256 tNear[2], const __m256 tFar[2],
                     TileHits& hits)
{
    const int index = __builtin_ctz(unsigned(laneSet));
    const int h = index >> 3, lane = index & 7;
    const float dir[3] = {laneOf(rays.dir[0][h], lane), laneOf(rays.dir[1][h], lane),
                          laneOf(rays.dir[2][h], lane)};
    RayFrame frame;
    for (int k = 0; k < 3; ++k) {
        frame.inverse[k] = laneOf(rays.inverse[k][h], lane);
        frame.negative[k] = rays.negativeBits[k] >> index & 1;
    }
    frame.tNear = laneOf(tNear[h], lane);
    frame.tFar = laneOf(tFar[h], lane);
    alignas(32) int32_t triangles[8];
    _mm256_store_ps(reinterpret_cast<float*>(triangles), hits.triangle[h]);
    RayHit hit{laneOf(hits.dist[h], lane), laneOf(hits.u[h], lane), laneOf(hits.v[h], lane),
               triangles[lane]};
    const SceneView subtree{scene.box, scene.triangles, node};
    traverseSingle(subtree, origin, dir, frame, hit);
    if (hit.triangle == triangles[lane]) return;  // nothing nearer found
    hits.dist[h] = withLane(hits.dist[h], lane, hit.dist);
    hits.u[h] = withLane(hits.u[h], lane, hit.u);
    hits.v[h] = withLane(hits.v[h], lane, hit.v);
    triangles[lane] = hit.triangle;
    hits.triangle[h] = _mm256_load_ps(reinterpret_cast<const float*>(triangles));
    float hitBits;
    const int32_t allOnes = -1;
    std::memcpy(&hitBits, &allOnes, sizeof hitBits);
    hits.hit[h] = withLane(hits.hit[h], lane, hitBits);
}

// Each lane takes the per-ray decisions at every inner node; the tile visits a child when any
// lane of its set needs it, first the child that is near for most of them. A pending node is
// skipped by the lanes whose nearest hit lies before their part of it.
void traverseTile(const SceneView& scene, const float origin[3], const TileRays& rays, int laneSet,
                  __m256 tNear[2], __m256 tFar[2], TileHits& hits)
{
    PendingTileNode stack[kMaxInnerNodesOnPath];
    int depth = 0;
    const KdNode* node = scene.root;
    const __m256 tolerance = _mm256_set1_ps(kDescentTolerance);
    const __m256 allLanes = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    for (;;) {
        while (!isLeaf(*node)) {
            assert(laneSet != 0);
            if ((laneSet & (laneSet - 1)) == 0) {
                // One ray left: it finishes this subtree on its own, by the same decisions.
                traverseOneLane(scene, origin, rays, node, laneSet, tNear, tFar, hits);
                break;
            }
            const int k = innerAxis(*node);
            const __m256 splitFromOrigin = _mm256_set1_ps(innerSplit(*node) - origin[k]);
            __m256 tSplit[2], farOnly[2], nearOnly[2];
            for (int h = 0; h < 2; ++h) {
                tSplit[h] = _mm256_mul_ps(splitFromOrigin, rays.inverse[k][h]);
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
            // Rays that need both children split their interval at the plane; the others keep
            // theirs whichever child they go to.
            __m256 lowerNear[2], lowerFar[2], upperNear[2], upperFar[2];
            const bool splitsIntervals = (needsNear & needsFar) != 0;
            for (int h = 0; h < 2; ++h) {
                if (!splitsIntervals) {
                    lowerNear[h] = upperNear[h] = tNear[h];
                    lowerFar[h] = upperFar[h] = tFar[h];
                    continue;
                }
                const __m256 both =
                    _mm256_andnot_ps(_mm256_or_ps(farOnly[h], nearOnly[h]), allLanes);
                const __m256 mid = _mm256_max_ps(_mm256_min_ps(tSplit[h], tFar[h]), tNear[h]);
                const __m256 nearEnd = _mm256_blendv_ps(tFar[h], mid, both);
                const __m256 farStart = _mm256_blendv_ps(tNear[h], mid, both);
                const __m256 negative = rays.negative[k][h];
                lowerNear[h] = _mm256_blendv_ps(tNear[h], farStart, negative);
                lowerFar[h] = _mm256_blendv_ps(nearEnd, tFar[h], negative);
                upperNear[h] = _mm256_blendv_ps(farStart, tNear[h], negative);
                upperFar[h] = _mm256_blendv_ps(tFar[h], nearEnd, negative);
            }
            const KdNode* children = innerChildren(node);
            const bool lowerFirst =
                2 * __builtin_popcount(negativeSet) <= __builtin_popcount(laneSet);
            const KdNode* first = children + (lowerFirst ? 0 : 1);
            const KdNode* second = children + (lowerFirst ? 1 : 0);
            const int firstSet = lowerFirst ? lowerSet : upperSet;
            const int secondSet = lowerFirst ? upperSet : lowerSet;
            __m256* firstNear = lowerFirst ? lowerNear : upperNear;
            __m256* firstFar = lowerFirst ? lowerFar : upperFar;
            __m256* secondNear = lowerFirst ? upperNear : lowerNear;
            __m256* secondFar = lowerFirst ? upperFar : lowerFar;
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
                assert(depth < kMaxInnerNodesOnPath);
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
        if (isLeaf(*node)) testLeafTile(scene, node, origin, rays, laneSet, hits);
        for (;;) {
            if (depth == 0) return;
            const PendingTileNode& pending = stack[--depth];
            // Rays whose hit lies before this node's part of the ray are done with it. The
            // test is per node, not per ray: a ray visiting its children far side first still
            // has its near side pending further down.
            const int beyondHit =
                laneBits(_mm256_cmp_ps(pending.tNear[0], hits.dist[0], _CMP_GE_OQ),
                         _mm256_cmp_ps(pending.tNear[1], hits.dist[1], _CMP_GE_OQ));
            const int lanes = pending.lanes & ~beyondHit;
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

// The box clip of all 16 rays; returns the set of rays that enter the box.
int clipTileToBox(const float* box, const float origin[3], TileRays& rays, __m256 tNear[2],
                  __m256 tFar[2])
{
    const __m256 absMask = _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF));
    const __m256 parallelLimit = _mm256_set1_ps(kParallelLimit);
    const __m256 parallelInverse = _mm256_set1_ps(kParallelInverse);
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 zero = _mm256_setzero_ps();
    for (int k = 0; k < 3; ++k) {
        const __m256 lowFromOrigin = _mm256_set1_ps(box[k] - origin[k]);
        const __m256 highFromOrigin = _mm256_set1_ps(box[k + 3] - origin[k]);
        for (int h = 0; h < 2; ++h) {
            const __m256 d = rays.dir[k][h];
            const __m256 parallel =
                _mm256_cmp_ps(_mm256_and_ps(d, absMask), parallelLimit, _CMP_LE_OQ);
            const __m256 t1 = _mm256_div_ps(lowFromOrigin, d);
            const __m256 t2 = _mm256_div_ps(highFromOrigin, d);
            const __m256 near = _mm256_max_ps(_mm256_min_ps(t1, t2), tNear[h]);
            const __m256 far = _mm256_min_ps(_mm256_max_ps(t1, t2), tFar[h]);
            tNear[h] = _mm256_blendv_ps(near, tNear[h], parallel);
            tFar[h] = _mm256_blendv_ps(far, tFar[h], parallel);
            rays.inverse[k][h] = _mm256_blendv_ps(_mm256_div_ps(one, d), parallelInverse, parallel);
            rays.negative[k][h] = _mm256_andnot_ps(parallel, _mm256_cmp_ps(d, zero, _CMP_LT_OQ));
        }
        rays.negativeBits[k] = laneBits(rays.negative[k][0], rays.negative[k][1]);
    }
    // Once the interval is empty it stays so on later axes: one test at the end suffices. It
    // comes before the widening, as for a single ray.
    const int entering = ~laneBits(_mm256_cmp_ps(tNear[0], tFar[0], _CMP_GT_OQ),
                                   _mm256_cmp_ps(tNear[1], tFar[1], _CMP_GT_OQ)) &
                         kAllLanes;
    const __m256 widening = _mm256_set1_ps(kFarWidening);
    for (int h = 0; h < 2; ++h)
        tFar[h] = _mm256_add_ps(tFar[h], widening);
    return entering;
}

// Stores two rows of four lanes under a lane mask (masked lanes keep their memory).
inline void storeTwoRows(float* plane, int64_t rowStart, int64_t width, __m256 value, __m256 mask)
{
    const __m128i lowMask = _mm_castps_si128(_mm256_castps256_ps128(mask));
    const __m128i highMask = _mm_castps_si128(_mm256_extractf128_ps(mask, 1));
    _mm_maskstore_ps(plane + rowStart, lowMask, _mm256_castps256_ps128(value));
    _mm_maskstore_ps(plane + rowStart + width, highMask, _mm256_extractf128_ps(value, 1));
}

void intersectTile(const SceneView& scene, const EyeRayBlock& block, int row, int col)
{
    const int64_t width = block.width;
    int64_t rowStart[2];
    for (int h = 0; h < 2; ++h)
        rowStart[h] = (int64_t(row) + 2 * h) * width + col;
    TileRays rays;
    TileHits hits;
    __m256 tNear[2], tFar[2];
    for (int h = 0; h < 2; ++h) {
        for (int k = 0; k < 3; ++k)
            rays.dir[k][h] = loadTwoRows(block.dir[k], rowStart[h], width);
        hits.dist[h] = loadTwoRows(block.dist, rowStart[h], width);
        hits.u[h] = hits.v[h] = hits.hit[h] = _mm256_setzero_ps();
        hits.triangle[h] = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
        tNear[h] = _mm256_setzero_ps();
        tFar[h] = hits.dist[h];
    }
    const int entering = clipTileToBox(scene.box, block.origin, rays, tNear, tFar);
    if (entering == 0) return;
    traverseTile(scene, block.origin, rays, entering, tNear, tFar, hits);
    for (int h = 0; h < 2; ++h) {
        if (_mm256_movemask_ps(hits.hit[h]) == 0) continue;
        storeTwoRows(block.dist, rowStart[h], width, hits.dist[h], hits.hit[h]);
        storeTwoRows(block.hitU, rowStart[h], width, hits.u[h], hits.hit[h]);
        storeTwoRows(block.hitV, rowStart[h], width, hits.v[h], hits.hit[h]);
        storeTwoRows(reinterpret_cast<float*>(block.triIndex), rowStart[h], width, hits.triangle[h],
                     hits.hit[h]);
    }
}

bool alignedTo16(const void* p)
{
    return (reinterpret_cast<uintptr_t>(p) & 15) == 0;
}

}  // namespace

void intersectEyeRaysPacket4x4(const SceneView& scene, const EyeRayBlock& block)
{
    std::memset(block.triIndex, 0xFF, size_t(block.width) * size_t(block.height) * 4);
    for (int row = 0; row < block.height; row += kTileSide)
        for (int col = 0; col < block.width; col += kTileSide)
            intersectTile(scene, block, row, col);
}

bool takesPacketPath(const EyeRayBlock& block)
{
    return block.width % kTileSide == 0 && block.height % kTileSide == 0 &&
           alignedTo16(block.dir[0]) && alignedTo16(block.dir[1]) && alignedTo16(block.dir[2]) &&
           alignedTo16(block.dist) && alignedTo16(block.hitU) && alignedTo16(block.hitV) &&
           alignedTo16(block.triIndex);
}

void intersectEyeRays(const SceneView& scene, const EyeRayBlock& block)
{
    if (block.width < 1 || block.height < 1) return;
    if (takesPacketPath(block))
        intersectEyeRaysPacket4x4(scene, block);
    else
        intersectEyeRaysSingle(scene, block);
}

}  // namespace vekr::ray
