#include "kd_traverse.h"

#include <immintrin.h>

#include <cstring>

#include "kd_nearest_hit.h"
#include "kd_walk.h"

namespace vekr::ray {

using accel::KdNode;

// --- One ray at a time -------------------------------------------------------------------

void traverseSingle(const SceneView& scene, const float origin[3], const float dir[3],
                    RayFrame frame, RayHit& hit)
{
    NearestHitRule<SharedOriginAcceptance> rule{scene.triangles, origin, dir, hit, {}};
    walkSingle(scene.root, origin, frame, rule);
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

int clipTileToBox(const float* box, TileRays& rays, __m256 tNear[2], __m256 tFar[2])
{
    const __m256 absMask = _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF));
    const __m256 parallelLimit = _mm256_set1_ps(kParallelLimit);
    const __m256 parallelInverse = _mm256_set1_ps(kParallelInverse);
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 zero = _mm256_setzero_ps();
    for (int k = 0; k < 3; ++k) {
        for (int h = 0; h < 2; ++h) {
            const __m256 lowFromOrigin = _mm256_sub_ps(_mm256_set1_ps(box[k]), rays.origin[k][h]);
            const __m256 highFromOrigin =
                _mm256_sub_ps(_mm256_set1_ps(box[k + 3]), rays.origin[k][h]);
            const __m256 d = rays.dir[k][h];
            const __m256 parallel =
                _mm256_cmp_ps(_mm256_and_ps(d, absMask), parallelLimit, _CMP_LE_OQ);
            const __m256 t1 = _mm256_div_ps(lowFromOrigin, d);
            const __m256 t2 = _mm256_div_ps(highFromOrigin, d);
            const __m256 near = _mm256_max_ps(_mm256_min_ps(t1, t2), tNear[h]);
            const __m256 far = _mm256_min_ps(_mm256_max_ps(t1, t2), tFar[h]);
            tNear[h] = selectLanes(near, tNear[h], parallel);
            tFar[h] = selectLanes(far, tFar[h], parallel);
            rays.inverse[k][h] = selectLanes(_mm256_div_ps(one, d), parallelInverse, parallel);
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

void intersectEyeRaysPacket4x4(const SceneView& scene, const EyeRayBlock& block)
{
    const float* origin = block.origin;
    intersectNearestTiles<SharedOriginTileAcceptance>(
        scene,
        {block.dir, block.dist, block.hitU, block.hitV, block.triIndex, block.width, block.height},
        [origin](int k, int64_t) { return _mm256_set1_ps(origin[k]); }, clipTileToBox);
}

bool takesPacketPath(const EyeRayBlock& block)
{
    return fitsTiles(block.width, block.height,
                     {block.dir[0], block.dir[1], block.dir[2], block.dist, block.hitU, block.hitV,
                      block.triIndex});
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
