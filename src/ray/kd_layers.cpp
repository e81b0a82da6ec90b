#include "kd_layers.h"

#include <immintrin.h>

#include <cfloat>
#include <cstring>

#include "kd_nearest_hit.h"
#include "kd_walk.h"

namespace vekr::ray {

namespace {

// What a continued ray passes over: the previous layer's triangle, before its test, and the
// first ringCount entries of the ring of earlier hits, once a crossing would be taken. The
// ring's count wraps every kExclusionRingSize layers, so in layers 1, 9, 17, ... only the
// previous triangle is excluded and an earlier one can be found again.
struct LayerExclusion {
    int32_t previous;
    int ringCount;
    int32_t ring[kExclusionRingSize];

    bool passesOver(int32_t index) const { return index == previous; }
    static bool keepsDen(float) { return true; }
    bool accepts(float t, float dist, int32_t index) const
    {
        if (!(dist > t && t > 0.0f)) return false;
        for (int j = 0; j < kExclusionRingSize; ++j)
            if (j < ringCount && ring[j] == index) return false;
        return true;
    }
};
struct LayerAcceptance : LayerExclusion {
    static constexpr float kDescentTolerance = kLayerDescentTolerance;
};
struct TileLaneLayerAcceptance : LayerExclusion {
    static constexpr float kDescentTolerance = kLayerTileDescentTolerance;
};

// Where a continued ray leaves the box, from its new origin inside it: the nearest of the
// three slab exits, never above the largest float, then widened. Parallel axes use the
// stand-in inverse of the first layer's frame.
inline float boxExit(const float* box, const float origin[3], const float inverse[3])
{
    float tFar = FLT_MAX;
    for (int k = 0; k < 3; ++k) {
        const float t1 = (box[k] - origin[k]) * inverse[k];
        const float t2 = (box[k + 3] - origin[k]) * inverse[k];
        tFar = minLikeVector(maxLikeVector(t1, t2), tFar);
    }
    return tFar + kFarWidening;
}

// Every layer of every ray starts with no triangle.
void fillNoTriangle(const LayeredRayBlock& block)
{
    const size_t elements = size_t(block.width) * size_t(block.height) * size_t(block.layers);
    std::memset(block.triIndex, 0xFF, elements * sizeof(int32_t));
}

}  // namespace

void intersectLayersSingle(const SceneView& scene, const LayeredRayBlock& block)
{
    fillNoTriangle(block);
    const int64_t rayCount = int64_t(block.width) * block.height;
    for (int64_t i = 0; i < rayCount; ++i) {
        const float dir[3] = {block.dir[0][i], block.dir[1][i], block.dir[2][i]};
        RayFrame frame;
        if (!clipRayToBox(scene.box, block.origin, dir, block.dist[i], frame)) continue;
        float origin[3] = {block.origin[0], block.origin[1], block.origin[2]};
        LayerAcceptance acceptance{{-1, 0, {-1, -1, -1, -1, -1, -1, -1, -1}}};
        float maxDist = block.dist[i];
        float previousDist = 0.0f;
        for (int layer = 0;; ++layer) {
            const int64_t at = layer * rayCount + i;
            RayHit hit{maxDist, 0.0f, 0.0f, -1};
            NearestHitRule<LayerAcceptance> rule{scene.triangles, origin, dir, hit, acceptance};
            walkSingle(scene.root, origin, frame, rule);
            if (hit.triangle < 0) break;
            const float t = hit.dist;  // from this layer's origin
            const float dist = layer == 0 ? t : t + previousDist;
            block.dist[at] = dist;
            block.hitU[at] = hit.u;
            block.hitV[at] = hit.v;
            block.triIndex[at] = hit.triangle;
            if (layer + 1 == block.layers) break;
            for (int k = 0; k < 3; ++k)
                origin[k] = origin[k] + t * dir[k];
            acceptance.ring[layer % kExclusionRingSize] = hit.triangle;
            acceptance.previous = hit.triangle;
            acceptance.ringCount = (layer + 1) % kExclusionRingSize;
            previousDist = dist;
            // The caller's limit holds for the first layer only.
            maxDist = FLT_MAX;
            block.dist[at + rayCount] = FLT_MAX;
            frame.tNear = 0.0f;
            frame.tFar = boxExit(scene.box, origin, frame.inverse);
        }
    }
}

// --- 4 x 4 tiles ---------------------------------------------------------------------------

namespace {

// All bits set in the lanes of v (index bits) equal to index; integer compares in 128-bit
// halves, since plain AVX has none on 256 bits (and float compares would mistake the index
// bits for denormals).
inline __m256 equalLanes(__m256 v, int32_t index)
{
    const __m128i value = _mm_set1_epi32(index);
    const __m128i low = _mm_cmpeq_epi32(_mm_castps_si128(_mm256_castps256_ps128(v)), value);
    const __m128i high = _mm_cmpeq_epi32(_mm_castps_si128(_mm256_extractf128_ps(v, 1)), value);
    return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_castsi128_ps(low)),
                                _mm_castsi128_ps(high), 1);
}

struct LayerTileAcceptance {
    static constexpr float kDescentTolerance = kLayerTileDescentTolerance;
    __m256 previous[2];                  // index bits per lane
    __m256 ring[kExclusionRingSize][2];  // index bits per lane
    int ringCount;

    __m256 passesOver(int32_t index, int h) const { return equalLanes(previous[h], index); }
    static __m256 keepsDen(__m256) { return _mm256_castsi256_ps(_mm256_set1_epi32(-1)); }
    __m256 accepts(__m256 t, __m256 dist, int32_t index, int h) const
    {
        __m256 take = _mm256_and_ps(_mm256_cmp_ps(dist, t, _CMP_GT_OQ),
                                    _mm256_cmp_ps(t, _mm256_setzero_ps(), _CMP_GT_OQ));
        for (int j = 0; j < ringCount; ++j)
            take = _mm256_andnot_ps(equalLanes(ring[j][h], index), take);
        return take;
    }
    TileLaneLayerAcceptance laneAcceptance(int lane) const
    {
        TileLaneLayerAcceptance one{{intLaneOf(previous[lane >> 3], lane & 7), ringCount, {}}};
        for (int j = 0; j < kExclusionRingSize; ++j)
            one.ring[j] = intLaneOf(ring[j][lane >> 3], lane & 7);
        return one;
    }
};

void intersectLayeredTile(const SceneView& scene, const LayeredRayBlock& block, int row, int col)
{
    const int64_t width = block.width;
    const int64_t rayCount = width * block.height;
    int64_t rowStart[2];
    tileRowStarts(row, col, width, rowStart);
    TileRays rays;
    TileHits hits;
    __m256 tNear[2], tFar[2];
    const float* origin = block.origin;
    loadNearestHitTile(
        block.dir, block.dist, rowStart, width,
        [origin](int k, int64_t) { return _mm256_set1_ps(origin[k]); }, rays, hits, tNear, tFar);
    int active = clipTileToBox(scene.box, rays, tNear, tFar);
    const __m256 noTriangle = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    LayerTileAcceptance acceptance;
    acceptance.ringCount = 0;
    __m256 previousDist[2];
    for (int h = 0; h < 2; ++h) {
        acceptance.previous[h] = noTriangle;
        for (auto& entry : acceptance.ring)
            entry[h] = noTriangle;
        previousDist[h] = _mm256_setzero_ps();
    }
    const __m256 largest = _mm256_set1_ps(FLT_MAX);
    for (int layer = 0; active != 0; ++layer) {
        NearestHitTileRule<LayerTileAcceptance> rule{scene.triangles, rays, hits, acceptance};
        walkTile(scene.root, rays, active, tNear, tFar, rule);
        active &= laneBits(hits.hit[0], hits.hit[1]);
        if (active == 0) break;
        const int64_t base = layer * rayCount;
        for (int h = 0; h < 2; ++h) {
            const __m256 hit = hits.hit[h];
            if (_mm256_movemask_ps(hit) == 0) continue;
            const __m256 t = hits.dist[h];  // from this layer's origin
            const __m256 dist = layer == 0 ? t : _mm256_add_ps(t, previousDist[h]);
            storeTwoRows(block.dist + base, rowStart[h], width, dist, hit);
            storeTwoRows(block.hitU + base, rowStart[h], width, hits.u[h], hit);
            storeTwoRows(block.hitV + base, rowStart[h], width, hits.v[h], hit);
            storeTwoRows(reinterpret_cast<float*>(block.triIndex + base), rowStart[h], width,
                         hits.triangle[h], hit);
            previousDist[h] = dist;
            for (int k = 0; k < 3; ++k) {
                const __m256 moved =
                    _mm256_add_ps(rays.origin[k][h], _mm256_mul_ps(t, rays.dir[k][h]));
                rays.origin[k][h] = selectLanes(rays.origin[k][h], moved, hit);
            }
            __m256& entry = acceptance.ring[layer % kExclusionRingSize][h];
            entry = selectLanes(entry, hits.triangle[h], hit);
            acceptance.previous[h] =
                selectLanes(acceptance.previous[h], hits.triangle[h], hit);
        }
        if (layer + 1 == block.layers) break;
        // The next layer of the rays that go on: no limit but the box exit.
        acceptance.ringCount = (layer + 1) % kExclusionRingSize;
        const __m256 widening = _mm256_set1_ps(kFarWidening);
        for (int h = 0; h < 2; ++h) {
            const __m256 goesOn = laneMask(active >> 8 * h & 0xFF);
            storeTwoRows(block.dist + base + rayCount, rowStart[h], width, largest, goesOn);
            __m256 exit = largest;
            for (int k = 0; k < 3; ++k) {
                const __m256 o = rays.origin[k][h];
                const __m256 inverse = rays.inverse[k][h];
                const __m256 t1 =
                    _mm256_mul_ps(_mm256_sub_ps(_mm256_set1_ps(scene.box[k]), o), inverse);
                const __m256 t2 =
                    _mm256_mul_ps(_mm256_sub_ps(_mm256_set1_ps(scene.box[k + 3]), o), inverse);
                exit = _mm256_min_ps(_mm256_max_ps(t1, t2), exit);
            }
            tNear[h] = _mm256_setzero_ps();
            tFar[h] = _mm256_add_ps(exit, widening);
            hits.dist[h] = largest;
            hits.u[h] = hits.v[h] = hits.hit[h] = _mm256_setzero_ps();
            hits.triangle[h] = noTriangle;
        }
    }
}

}  // namespace

void intersectLayersPacket4x4(const SceneView& scene, const LayeredRayBlock& block)
{
    fillNoTriangle(block);
    for (int row = 0; row < block.height; row += kTileSide)
        for (int col = 0; col < block.width; col += kTileSide)
            intersectLayeredTile(scene, block, row, col);
}

bool takesLayersPacketPath(const LayeredRayBlock& block)
{
    return fitsTiles(block.width, block.height,
                     {block.dir[0], block.dir[1], block.dir[2], block.dist, block.hitU, block.hitV,
                      block.triIndex});
}

void intersectLayers(const SceneView& scene, const LayeredRayBlock& block)
{
    if (block.width < 1 || block.height < 1 || block.layers < 1) return;
    if (takesLayersPacketPath(block))
        intersectLayersPacket4x4(scene, block);
    else
        intersectLayersSingle(scene, block);
}

}  // namespace vekr::ray
