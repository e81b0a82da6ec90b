#include "kd_occlusion.h"

#include <immintrin.h>

#include <cmath>
#include <cstring>

#include "kd_walk.h"
#include "leaf_crossings.h"

namespace vekr::ray {

using accel::decodeLeaf;
using accel::KdNode;
using accel::LeafTriangles;

namespace {

// A triangle occludes when the ray crosses it strictly inside the segment: a triangle through
// the origin (t = 0) or through the segment's end point (t = 1) does not. The search skips
// triangles equal to the ray's current triIndex, which is -1 throughout, so none are.
inline bool occludesAt(const Crossing& c)
{
    const float t = c.num / c.den;
    return kSegmentEnd > t && t > 0.0f;
}

// The first occluder in traversal order ends the ray; a leaf ending at or beyond the end of
// the segment ends it too.
struct AnyHitRule {
    static constexpr float kDescentTolerance = ray::kDescentTolerance;
    const TriangleAccel* triangles;
    const float* origin;
    const float* dir;
    int32_t occluder = -1;

    LeafRay leafRay = prepareLeafRay(origin, dir);

    bool visitLeaf(const KdNode* leafNode)
    {
        return forEachLeafCrossing(triangles, decodeLeaf(leafNode), leafRay,
                                   [this](int32_t index, const Crossing& c) {
                                       if (!occludesAt(c)) return false;
                                       occluder = index;
                                       return true;
                                   });
    }
    float reach() const { return kSegmentEnd; }
};

// No box clip: the walk starts at the root over [0, 1.0001]. Unlike the nearest-hit frame, a
// tiny negative component still sets its sign flag.
inline RayFrame segmentFrame(const float dir[3])
{
    RayFrame frame;
    for (int k = 0; k < 3; ++k) {
        frame.negative[k] = dir[k] < 0.0f ? 1 : 0;
        frame.inverse[k] =
            std::fabs(dir[k]) <= kParallelLimit ? kSegmentParallelInverse : 1.0f / dir[k];
    }
    frame.tNear = 0.0f;
    frame.tFar = kSegmentFarEnd;
    return frame;
}

}  // namespace

void findOccludersSingle(const SceneView& scene, const OcclusionBlock& block)
{
    const int64_t rayCount = int64_t(block.width) * block.height;
    for (int64_t i = 0; i < rayCount; ++i) {
        block.triIndex[i] = -1;
        if (block.mask[i] < 0) continue;
        const float dir[3] = {block.dir[0][i], block.dir[1][i], block.dir[2][i]};
        AnyHitRule rule{scene.triangles, block.origin, dir};
        walkSingle(scene.root, block.origin, segmentFrame(dir), rule);
        if (rule.occluder < 0) continue;
        block.mask[i] = -1;
        block.triIndex[i] = rule.occluder;
    }
}

// --- 4 x 4 tiles ---------------------------------------------------------------------------

namespace {

struct AnyHitTileRule {
    static constexpr float kDescentTolerance = ray::kDescentTolerance;
    const TriangleAccel* triangles;
    const TileRays& rays;
    __m256 occluder[2];  // index bits of the occluded lanes
    int occluded = 0;    // lanes found occluded

    void visitLeaf(const KdNode* leafNode, int laneSet)
    {
        laneSet &= ~occluded;
        const LeafTriangles leaf = decodeLeaf(leafNode);
        if (leaf.count == 0 || laneSet == 0) return;
        __m256 lanes[2] = {laneMask(laneSet & 0xFF), laneMask(laneSet >> 8)};
        const __m256 zero = _mm256_setzero_ps();
        const __m256 end = _mm256_set1_ps(kSegmentEnd);
        for (int i = 0; i < leaf.count; ++i) {
            const int32_t index = leaf[i];
            const TriangleAccel& rec = triangles[index];
            if (rec.axes == 0) continue;  // degenerate triangle
            for (int h = 0; h < 2; ++h) {
                if ((laneSet >> 8 * h & 0xFF) == 0) continue;  // this half is done
                const TileCrossing c = crossTriangleTile(rec, rays, h, lanes[h]);
                if (_mm256_movemask_ps(c.inside) == 0) continue;
                const __m256 t = _mm256_div_ps(c.num, c.den);
                const __m256 take =
                    _mm256_and_ps(c.inside, _mm256_and_ps(_mm256_cmp_ps(end, t, _CMP_GT_OQ),
                                                          _mm256_cmp_ps(t, zero, _CMP_GT_OQ)));
                const int takeBits = _mm256_movemask_ps(take) << 8 * h;
                if (takeBits == 0) continue;
                occluder[h] = selectLanes(occluder[h],
                                               _mm256_castsi256_ps(_mm256_set1_epi32(index)), take);
                lanes[h] = _mm256_andnot_ps(take, lanes[h]);
                occluded |= takeBits;
                laneSet &= ~takeBits;
            }
            if (laneSet == 0) return;
        }
    }

    // Occluded rays are done with everything; the others once the segment has ended.
    int lanesDone(const __m256 tNear[2]) const
    {
        const __m256 end = _mm256_set1_ps(kSegmentEnd);
        return occluded | laneBits(_mm256_cmp_ps(tNear[0], end, _CMP_GE_OQ),
                                   _mm256_cmp_ps(tNear[1], end, _CMP_GE_OQ));
    }

    void walkOneLane(const KdNode* node, int index, const __m256 tNear[2], const __m256 tFar[2])
    {
        if (occluded >> index & 1) return;
        float origin[3], dir[3];
        RayFrame frame;
        extractLane(rays, index, tNear, tFar, origin, dir, frame);
        AnyHitRule rule{triangles, origin, dir};
        walkSingle(node, origin, frame, rule);
        if (rule.occluder < 0) return;
        occluder[index >> 3] = withIntLane(occluder[index >> 3], index & 7, rule.occluder);
        occluded |= 1 << index;
    }
};

// Inverses and sign flags of the 16 segments; the sign flag is set for tiny negative
// components as for a single segment, only the stand-in inverse differs.
void frameTileSegments(TileRays& rays)
{
    const __m256 absMask = _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF));
    const __m256 parallelLimit = _mm256_set1_ps(kParallelLimit);
    const __m256 parallelInverse = _mm256_set1_ps(kSegmentTileParallelInverse);
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 zero = _mm256_setzero_ps();
    for (int k = 0; k < 3; ++k) {
        for (int h = 0; h < 2; ++h) {
            const __m256 d = rays.dir[k][h];
            const __m256 parallel =
                _mm256_cmp_ps(_mm256_and_ps(d, absMask), parallelLimit, _CMP_LE_OQ);
            rays.inverse[k][h] = selectLanes(_mm256_div_ps(one, d), parallelInverse, parallel);
            rays.negative[k][h] = _mm256_cmp_ps(d, zero, _CMP_LT_OQ);
        }
        rays.negativeBits[k] = laneBits(rays.negative[k][0], rays.negative[k][1]);
    }
}

void findOccludersTile(const SceneView& scene, const OcclusionBlock& block, int row, int col)
{
    const int64_t width = block.width;
    int64_t rowStart[2];
    tileRowStarts(row, col, width, rowStart);
    // Negative mask words have the sign bit set: those rays are not tested.
    float* const maskPlane = reinterpret_cast<float*>(block.mask);
    const int tested = ~laneBits(loadTwoRows(maskPlane, rowStart[0], width),
                                 loadTwoRows(maskPlane, rowStart[1], width)) &
                       kAllLanes;
    if (tested == 0) return;
    TileRays rays;
    __m256 tNear[2], tFar[2];
    for (int h = 0; h < 2; ++h) {
        for (int k = 0; k < 3; ++k) {
            rays.origin[k][h] = _mm256_set1_ps(block.origin[k]);
            rays.dir[k][h] = loadTwoRows(block.dir[k], rowStart[h], width);
        }
        tNear[h] = _mm256_setzero_ps();
        tFar[h] = _mm256_set1_ps(kSegmentFarEnd);
    }
    frameTileSegments(rays);
    AnyHitTileRule rule{scene.triangles, rays, {}};
    walkTile(scene.root, rays, tested, tNear, tFar, rule);
    if (rule.occluded == 0) return;
    const __m256 allOnes = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    for (int h = 0; h < 2; ++h) {
        const __m256 occluded = laneMask(rule.occluded >> 8 * h & 0xFF);
        storeTwoRows(reinterpret_cast<float*>(block.triIndex), rowStart[h], width, rule.occluder[h],
                     occluded);
        storeTwoRows(maskPlane, rowStart[h], width, allOnes, occluded);
    }
}

}  // namespace

void findOccludersPacket4x4(const SceneView& scene, const OcclusionBlock& block)
{
    std::memset(block.triIndex, 0xFF, size_t(block.width) * size_t(block.height) * 4);
    for (int row = 0; row < block.height; row += kTileSide)
        for (int col = 0; col < block.width; col += kTileSide)
            findOccludersTile(scene, block, row, col);
}

bool takesOcclusionPacketPath(const OcclusionBlock& block)
{
    return fitsTiles(block.width, block.height,
                     {block.triIndex, block.mask, block.dir[0], block.dir[1], block.dir[2]});
}

void findOccluders(const SceneView& scene, const OcclusionBlock& block)
{
    if (block.width < 1 || block.height < 1) return;
    if (takesOcclusionPacketPath(block))
        findOccludersPacket4x4(scene, block);
    else
        findOccludersSingle(scene, block);
}

}  // namespace vekr::ray
