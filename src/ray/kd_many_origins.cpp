#include "kd_many_origins.h"

#include <immintrin.h>

#include <cmath>
#include <cstring>

#include "kd_nearest_hit.h"
#include "kd_walk.h"

namespace vekr::ray {

// --- One ray at a time -------------------------------------------------------------------

namespace {

// A triangle nearly edge-on to the ray is passed over, and a crossing must lie more than
// kCloserBy before the nearest hit so far: of two triangles at nearly the same distance the
// first found stays.
struct OwnOriginAcceptance {
    static constexpr float kDescentTolerance = ray::kDescentTolerance;
    static bool passesOver(int32_t) { return false; }
    static bool keepsDen(float den) { return !(std::fabs(den) < kEdgeOnLimit); }
    static bool accepts(float t, float dist, int32_t) { return t > 0.0f && t < dist - kCloserBy; }
};

}  // namespace

bool clipOwnOriginRayToBox(const float* box, const float origin[3], const float dir[3],
                           float maxDist, RayFrame& frame)
{
    frame.tNear = 0.0f;
    frame.tFar = maxDist;
    for (int k = 0; k < 3; ++k) {
        if (std::fabs(dir[k]) <= kParallelLimit) {
            // Parallel to the slab: inside it strictly, or never in the box.
            if (!(box[k] < origin[k] && origin[k] < box[k + 3])) return false;
            frame.inverse[k] = kOwnOriginParallelInverse;
            frame.negative[k] = 0;
            continue;
        }
        const float inverse = 1.0f / dir[k];
        const float t1 = (box[k] - origin[k]) * inverse;
        const float t2 = (box[k + 3] - origin[k]) * inverse;
        frame.tNear = maxLikeVector(minLikeVector(t1, t2), frame.tNear);
        frame.tFar = minLikeVector(maxLikeVector(t1, t2), frame.tFar);
        frame.inverse[k] = inverse;
        frame.negative[k] = dir[k] < 0.0f ? 1 : 0;
        if (frame.tNear > frame.tFar) return false;
    }
    frame.tFar = frame.tFar + kFarWidening;
    return true;
}

void intersectManyOriginsSingle(const SceneView& scene, const ManyOriginRayBlock& block)
{
    const int64_t rayCount = int64_t(block.width) * block.height;
    for (int64_t i = 0; i < rayCount; ++i) {
        block.triIndex[i] = -1;
        const float origin[3] = {block.origin[0][i], block.origin[1][i], block.origin[2][i]};
        const float dir[3] = {block.dir[0][i], block.dir[1][i], block.dir[2][i]};
        RayFrame frame;
        if (!clipOwnOriginRayToBox(scene.box, origin, dir, block.dist[i], frame)) continue;
        RayHit hit{block.dist[i], 0.0f, 0.0f, -1};
        NearestHitRule<OwnOriginAcceptance> rule{scene.triangles, origin, dir, hit, {}};
        walkSingle(scene.root, origin, frame, rule);
        if (hit.triangle < 0) continue;
        block.dist[i] = hit.dist;
        block.hitU[i] = hit.u;
        block.hitV[i] = hit.v;
        block.triIndex[i] = hit.triangle;
    }
}

// --- 4 x 4 tiles ---------------------------------------------------------------------------

namespace {

struct OwnOriginTileAcceptance {
    static constexpr float kDescentTolerance = ray::kDescentTolerance;
    static __m256 passesOver(int32_t, int) { return _mm256_setzero_ps(); }
    static __m256 keepsDen(__m256 den)
    {
        const __m256 magnitude = _mm256_andnot_ps(_mm256_set1_ps(-0.0f), den);
        return _mm256_cmp_ps(magnitude, _mm256_set1_ps(kEdgeOnLimit), _CMP_NLT_UQ);
    }
    static __m256 accepts(__m256 t, __m256 dist, int32_t, int)
    {
        const __m256 limit = _mm256_sub_ps(dist, _mm256_set1_ps(kCloserBy));
        return _mm256_and_ps(_mm256_cmp_ps(t, _mm256_setzero_ps(), _CMP_GT_OQ),
                             _mm256_cmp_ps(t, limit, _CMP_LT_OQ));
    }
    static OwnOriginAcceptance laneAcceptance(int) { return {}; }
};

// The strict box test of 16 rays with their own origins; returns the set that enters the box.
// Tiles take kParallelInverse for the parallel components, where single rays take
// kOwnOriginParallelInverse.
int clipTileOwnOriginsToBox(const float* box, TileRays& rays, __m256 tNear[2], __m256 tFar[2])
{
    const __m256 absMask = _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF));
    const __m256 parallelLimit = _mm256_set1_ps(kParallelLimit);
    const __m256 parallelInverse = _mm256_set1_ps(kParallelInverse);
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 zero = _mm256_setzero_ps();
    int outsideSlab = 0;
    for (int k = 0; k < 3; ++k) {
        const __m256 low = _mm256_set1_ps(box[k]);
        const __m256 high = _mm256_set1_ps(box[k + 3]);
        __m256 outside[2];
        for (int h = 0; h < 2; ++h) {
            const __m256 o = rays.origin[k][h];
            const __m256 d = rays.dir[k][h];
            const __m256 parallel =
                _mm256_cmp_ps(_mm256_and_ps(d, absMask), parallelLimit, _CMP_LE_OQ);
            const __m256 strictlyInside = _mm256_and_ps(_mm256_cmp_ps(low, o, _CMP_LT_OQ),
                                                        _mm256_cmp_ps(o, high, _CMP_LT_OQ));
            outside[h] = _mm256_andnot_ps(strictlyInside, parallel);
            const __m256 inverse = _mm256_div_ps(one, d);
            const __m256 t1 = _mm256_mul_ps(_mm256_sub_ps(low, o), inverse);
            const __m256 t2 = _mm256_mul_ps(_mm256_sub_ps(high, o), inverse);
            const __m256 near = _mm256_max_ps(_mm256_min_ps(t1, t2), tNear[h]);
            const __m256 far = _mm256_min_ps(_mm256_max_ps(t1, t2), tFar[h]);
            tNear[h] = selectLanes(near, tNear[h], parallel);
            tFar[h] = selectLanes(far, tFar[h], parallel);
            rays.inverse[k][h] = selectLanes(inverse, parallelInverse, parallel);
            rays.negative[k][h] = _mm256_andnot_ps(parallel, _mm256_cmp_ps(d, zero, _CMP_LT_OQ));
        }
        outsideSlab |= laneBits(outside[0], outside[1]);
        rays.negativeBits[k] = laneBits(rays.negative[k][0], rays.negative[k][1]);
    }
    // An empty interval stays empty on later axes: one test at the end, before the widening.
    const int entering = ~(outsideSlab | laneBits(_mm256_cmp_ps(tNear[0], tFar[0], _CMP_GT_OQ),
                                                  _mm256_cmp_ps(tNear[1], tFar[1], _CMP_GT_OQ))) &
                         kAllLanes;
    const __m256 widening = _mm256_set1_ps(kFarWidening);
    for (int h = 0; h < 2; ++h)
        tFar[h] = _mm256_add_ps(tFar[h], widening);
    return entering;
}

}  // namespace

void intersectManyOriginsPacket4x4(const SceneView& scene, const ManyOriginRayBlock& block)
{
    const float* const* origin = block.origin;
    const int64_t width = block.width;
    intersectNearestTiles<OwnOriginTileAcceptance>(
        scene,
        {block.dir, block.dist, block.hitU, block.hitV, block.triIndex, block.width, block.height},
        [origin, width](int k, int64_t rowStart) {
            return loadTwoRows(origin[k], rowStart, width);
        },
        clipTileOwnOriginsToBox);
}

bool takesManyOriginsPacketPath(const ManyOriginRayBlock& block)
{
    return fitsTiles(block.width, block.height,
                     {block.origin[0], block.origin[1], block.origin[2], block.dir[0], block.dir[1],
                      block.dir[2], block.dist, block.hitU, block.hitV, block.triIndex});
}

void intersectManyOrigins(const SceneView& scene, const ManyOriginRayBlock& block)
{
    if (block.width < 1 || block.height < 1) return;
    if (takesManyOriginsPacketPath(block))
        intersectManyOriginsPacket4x4(scene, block);
    else
        intersectManyOriginsSingle(scene, block);
}

}  // namespace vekr::ray
