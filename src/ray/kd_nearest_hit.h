// The nearest-hit leaf rule of the KD-tree walk, one ray at a time and per 4 x 4 tile. Which
// triangles a ray passes over and which crossings it accepts is the variant's acceptance
// policy: rays sharing one origin, rays with their own origins, rays continued layer by layer.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "accel/kd_format.h"
#include "kd_walk.h"
#include "leaf_crossings.h"
#include "ray_hit.h"

namespace vekr::ray {

// --- One ray at a time -------------------------------------------------------------------

// An acceptance policy supplies
//   kDescentTolerance                          the walk's split tolerance;
//   bool passesOver(int32_t index)             skip this triangle without testing it;
//   bool keepsDen(float den)                   test on after den (false: the ray runs too
//                                              close to the triangle's plane);
//   bool accepts(float t, float dist, int32_t index)  take a crossing at t, the nearest hit
//                                              so far at dist.

// The plain rule of rays sharing one origin: 0 < t < dist, so an equally near later triangle
// does not replace an earlier one.
struct SharedOriginAcceptance {
    static constexpr float kDescentTolerance = ray::kDescentTolerance;
    static bool passesOver(int32_t) { return false; }
    static bool keepsDen(float) { return true; }
    static bool accepts(float t, float dist, int32_t) { return dist > t && t > 0.0f; }
};

// Every listed triangle is tested; the search goes on until a leaf ends beyond the nearest hit.
template <class Acceptance>
struct NearestHitRule {
    static constexpr float kDescentTolerance = Acceptance::kDescentTolerance;
    const TriangleAccel* triangles;
    const float* origin;
    const float* dir;
    RayHit& hit;
    Acceptance acceptance;

    LeafRay leafRay = prepareLeafRay(origin, dir);

    bool visitLeaf(const accel::KdNode* leafNode)
    {
        forEachLeafCrossing(triangles, accel::decodeLeaf(leafNode), leafRay,
                            [this](int32_t index, const Crossing& c) {
                                if (acceptance.passesOver(index) || !acceptance.keepsDen(c.den))
                                    return false;
                                const float t = c.num / c.den;
                                if (!acceptance.accepts(t, hit.dist, index)) return false;
                                hit.dist = t;
                                hit.u = c.beta / c.den;
                                hit.v = c.gamma / c.den;
                                hit.triangle = index;
                                return false;
                            });
        return false;
    }
    float reach() const { return hit.dist; }
};

// --- 4 x 4 tiles ---------------------------------------------------------------------------

struct TileHits {
    __m256 dist[2];
    __m256 u[2], v[2];
    __m256 triangle[2];  // index bits
    __m256 hit[2];       // lanes that found a triangle
};

// Starts a tile's hits from the maximum distances of its rays (two rows of four per half):
// no triangle yet.
inline void startTileHits(const float* dist, const int64_t rowStart[2], int64_t width,
                          TileHits& hits)
{
    for (int h = 0; h < 2; ++h) {
        hits.dist[h] = loadTwoRows(dist, rowStart[h], width);
        hits.u[h] = hits.v[h] = hits.hit[h] = _mm256_setzero_ps();
        hits.triangle[h] = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    }
}

// Stores distance, weights and triangle of the lanes that found one; the others keep their
// memory.
inline void storeTileHits(float* dist, float* hitU, float* hitV, int32_t* triIndex,
                          const int64_t rowStart[2], int64_t width, const TileHits& hits)
{
    for (int h = 0; h < 2; ++h) {
        if (_mm256_movemask_ps(hits.hit[h]) == 0) continue;
        storeTwoRows(dist, rowStart[h], width, hits.dist[h], hits.hit[h]);
        storeTwoRows(hitU, rowStart[h], width, hits.u[h], hits.hit[h]);
        storeTwoRows(hitV, rowStart[h], width, hits.v[h], hits.hit[h]);
        storeTwoRows(reinterpret_cast<float*>(triIndex), rowStart[h], width, hits.triangle[h],
                     hits.hit[h]);
    }
}

// A tile acceptance policy supplies the lane-wise forms, on half h of the tile:
//   kDescentTolerance
//   __m256 passesOver(int32_t index, int h)          lanes that skip the triangle
//   __m256 keepsDen(__m256 den)                      lanes that test on
//   __m256 accepts(__m256 t, __m256 dist, int32_t index, int h)   lanes that take the crossing
//   laneAcceptance(int lane)                         the per-ray policy of one of the 16 rays.

struct SharedOriginTileAcceptance {
    static constexpr float kDescentTolerance = ray::kDescentTolerance;
    static __m256 passesOver(int32_t, int) { return _mm256_setzero_ps(); }
    static __m256 keepsDen(__m256) { return _mm256_castsi256_ps(_mm256_set1_epi32(-1)); }
    static __m256 accepts(__m256 t, __m256 dist, int32_t, int)
    {
        return _mm256_and_ps(_mm256_cmp_ps(dist, t, _CMP_GT_OQ),
                             _mm256_cmp_ps(t, _mm256_setzero_ps(), _CMP_GT_OQ));
    }
    static SharedOriginAcceptance laneAcceptance(int) { return {}; }
};

template <class TileAcceptance>
struct NearestHitTileRule {
    static constexpr float kDescentTolerance = TileAcceptance::kDescentTolerance;
    const TriangleAccel* triangles;
    const TileRays& rays;
    TileHits& hits;
    TileAcceptance acceptance;

    void visitLeaf(const accel::KdNode* leafNode, int laneSet)
    {
        const accel::LeafTriangles leaf = accel::decodeLeaf(leafNode);
        if (leaf.count == 0) return;
        const __m256 lanes[2] = {laneMask(laneSet & 0xFF), laneMask(laneSet >> 8)};
        for (int i = 0; i < leaf.count; ++i) {
            const int32_t index = leaf[i];
            const TriangleAccel& rec = triangles[index];
            if (rec.axes == 0) continue;  // degenerate triangle
            for (int h = 0; h < 2; ++h) {
                if ((laneSet >> 8 * h & 0xFF) == 0) continue;
                const __m256 tested = _mm256_andnot_ps(acceptance.passesOver(index, h), lanes[h]);
                const TileCrossing c = crossTriangleTile(rec, rays, h, tested);
                const __m256 inside = _mm256_and_ps(c.inside, acceptance.keepsDen(c.den));
                if (_mm256_movemask_ps(inside) == 0) continue;
                const __m256 t = _mm256_div_ps(c.num, c.den);
                const __m256 take =
                    _mm256_and_ps(inside, acceptance.accepts(t, hits.dist[h], index, h));
                if (_mm256_movemask_ps(take) == 0) continue;
                hits.dist[h] = selectLanes(hits.dist[h], t, take);
                hits.u[h] = selectLanes(hits.u[h], _mm256_div_ps(c.beta, c.den), take);
                hits.v[h] = selectLanes(hits.v[h], _mm256_div_ps(c.gamma, c.den), take);
                hits.triangle[h] = selectLanes(
                    hits.triangle[h], _mm256_castsi256_ps(_mm256_set1_epi32(index)), take);
                hits.hit[h] = _mm256_or_ps(hits.hit[h], take);
            }
        }
    }

    // Rays whose hit lies before a pending node's part of the ray are done with it.
    int lanesDone(const __m256 tNear[2]) const
    {
        return laneBits(_mm256_cmp_ps(tNear[0], hits.dist[0], _CMP_GE_OQ),
                        _mm256_cmp_ps(tNear[1], hits.dist[1], _CMP_GE_OQ));
    }

    void walkOneLane(const accel::KdNode* node, int index, const __m256 tNear[2],
                     const __m256 tFar[2])
    {
        const int h = index >> 3, lane = index & 7;
        float origin[3], dir[3];
        RayFrame frame;
        extractLane(rays, index, tNear, tFar, origin, dir, frame);
        const int32_t before = intLaneOf(hits.triangle[h], lane);
        RayHit hit{laneOf(hits.dist[h], lane), laneOf(hits.u[h], lane), laneOf(hits.v[h], lane),
                   before};
        using LaneRule = NearestHitRule<decltype(acceptance.laneAcceptance(index))>;
        static_assert(LaneRule::kDescentTolerance == kDescentTolerance,
                      "the lane walks on with the tile's tolerance, as it would inside the tile");
        LaneRule rule{triangles, origin, dir, hit, acceptance.laneAcceptance(index)};
        walkSingle(node, origin, frame, rule);
        if (hit.triangle == before) return;  // nothing nearer found
        hits.dist[h] = withLane(hits.dist[h], lane, hit.dist);
        hits.u[h] = withLane(hits.u[h], lane, hit.u);
        hits.v[h] = withLane(hits.v[h], lane, hit.v);
        hits.triangle[h] = withIntLane(hits.triangle[h], lane, hit.triangle);
        hits.hit[h] = withIntLane(hits.hit[h], lane, -1);
    }
};

// The box clip of a tile's rays, from their origins; returns the set of rays that enter the
// box. A component of magnitude up to the float epsilon does not narrow the interval and
// takes kParallelInverse and no sign.
int clipTileToBox(const float* box, TileRays& rays, __m256 tNear[2], __m256 tFar[2]);

// The planes of a block of nearest-hit rays, rows packed (row stride = width).
struct NearestHitPlanes {
    const float* const* dir;  // x, y, z planes
    float* dist;              // maximum distance in, nearest hit out (unchanged on a miss)
    float* hitU;
    float* hitV;
    int32_t* triIndex;
    int width, height;
};

// Loads a tile's rays (tileOrigin(k, rowStart) gives the origins of half of a tile on axis
// k) and starts its hits from the maximum distances: the interval is [0, dist] before the clip.
template <class TileOrigin>
inline void loadNearestHitTile(const float* const* dir, const float* dist,
                               const int64_t rowStart[2], int64_t width, TileOrigin tileOrigin,
                               TileRays& rays, TileHits& hits, __m256 tNear[2], __m256 tFar[2])
{
    startTileHits(dist, rowStart, width, hits);
    for (int h = 0; h < 2; ++h) {
        for (int k = 0; k < 3; ++k) {
            rays.origin[k][h] = tileOrigin(k, rowStart[h]);
            rays.dir[k][h] = loadTwoRows(dir[k], rowStart[h], width);
        }
        tNear[h] = _mm256_setzero_ps();
        tFar[h] = hits.dist[h];
    }
}

// The tile path of a nearest-hit block: triIndex is filled with -1, then each tile loads its
// rays, clips them to the box with clip, walks the tree and stores its hits.
template <class TileAcceptance, class TileOrigin, class Clip>
void intersectNearestTiles(const SceneView& scene, const NearestHitPlanes& planes,
                           TileOrigin tileOrigin, Clip clip)
{
    const int64_t width = planes.width;
    std::memset(planes.triIndex, 0xFF, size_t(planes.width) * size_t(planes.height) * 4);
    for (int row = 0; row < planes.height; row += kTileSide) {
        for (int col = 0; col < planes.width; col += kTileSide) {
            int64_t rowStart[2];
            tileRowStarts(row, col, width, rowStart);
            TileRays rays;
            TileHits hits;
            __m256 tNear[2], tFar[2];
            loadNearestHitTile(planes.dir, planes.dist, rowStart, width, tileOrigin, rays, hits,
                               tNear, tFar);
            const int entering = clip(scene.box, rays, tNear, tFar);
            if (entering == 0) continue;
            NearestHitTileRule<TileAcceptance> rule{scene.triangles, rays, hits, {}};
            walkTile(scene.root, rays, entering, tNear, tFar, rule);
            storeTileHits(planes.dist, planes.hitU, planes.hitV, planes.triIndex, rowStart, width,
                          hits);
        }
    }
}

}  // namespace vekr::ray
