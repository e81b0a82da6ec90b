// Entry functions of ray generation, intersection and hit points: checks, then one kernel.
#include <cstddef>

#include "eye_rays.h"
#include "frame/entry_points.h"
#include "hit_points.h"
#include "kd_layers.h"
#include "kd_many_origins.h"
#include "kd_occlusion.h"
#include "kd_traverse.h"
#include "secondary_rays.h"

using namespace vekr;

// Callers fill these records by position as often as by name.
static_assert(sizeof(Size2D) == 8 && offsetof(Size2D, height) == 4);
static_assert(offsetof(IntersectContext, triangleAccel) == sizeof(void*) &&
              offsetof(IntersectContext, rootNode) == 2 * sizeof(void*));

// Only the output array is checked; the vectors and the planes are used as given. A block with
// a side below 1 writes nothing: the kernel splits a row into groups of 8 and a tail by the
// width's low bits, which for a negative width would store up to seven floats before each plane.
Status entry::vekrCastEye_32f(const float* planeOrigin, const float* stepX, const float* stepY,
                              int blockX, int blockY, Size2D cellSize, float* const direction[3],
                              Size2D blockSize)
{
    if (direction == nullptr) return StatusNullPointer;
    if (blockSize.height < 1 || blockSize.width < 1) return StatusOk;
    const ray::ImagePlane plane{planeOrigin, stepX, stepY};
    const ray::EyeRayBlockOut block{blockX,
                                    blockY,
                                    cellSize.width,
                                    cellSize.height,
                                    blockSize.width,
                                    blockSize.height,
                                    {direction[0], direction[1], direction[2]}};
    ray::castEyeRaysAvx(plane, block);
    return StatusOk;
}

// Checks nothing by design: the caller's block is trusted, and every path reports success.
Status entry::vekrIntersectEyeSO_32f(const float* origin, const float* const direction[3],
                                     float* dist, float* const hitUV[2], int32_t* triIndex,
                                     const IntersectContext* context, int width, int height)
{
    if (width < 1 || height < 1) return StatusOk;
    const ray::SceneView scene{context->boundBox, context->triangleAccel,
                               static_cast<const accel::KdNode*>(context->rootNode)};
    const ray::EyeRayBlock block{origin,   direction, dist,  hitUV[0],
                                 hitUV[1], triIndex,  width, height};
    ray::intersectEyeRays(scene, block);
    return StatusOk;
}

// The single origin is deliberately not checked.
Status entry::vekrHitPoint3DEpsS0_32f_M(const float* origin, const float* const direction[3],
                                        const float* dist, const int32_t* mask,
                                        float* const hitPoint[3], int count, float eps)
{
    if (dist == nullptr || mask == nullptr || direction == nullptr || hitPoint == nullptr)
        return StatusNullPointer;
    ray::computeHitPointsAvx({origin, nullptr, direction, dist, mask, count, eps}, hitPoint);
    return StatusOk;
}

Status entry::vekrHitPoint3DEpsM0_32f_M(const float* const origin[3],
                                        const float* const direction[3], const float* dist,
                                        const int32_t* mask, float* const hitPoint[3], int count,
                                        float eps)
{
    if (dist == nullptr || mask == nullptr || direction == nullptr || hitPoint == nullptr ||
        origin == nullptr)
        return StatusNullPointer;
    ray::computeHitPointsAvx({nullptr, origin, direction, dist, mask, count, eps}, hitPoint);
    return StatusOk;
}

// Checks nothing by design, as the nearest-hit search; only the records and the tree are read.
Status entry::vekrIntersectAnySO_32f(const float* origin, const float* const direction[3],
                                     int32_t* triIndex, int32_t* mask, int width, int height,
                                     const IntersectContext* context)
{
    if (width < 1 || height < 1) return StatusOk;
    const ray::SceneView scene{nullptr, context->triangleAccel,
                               static_cast<const accel::KdNode*>(context->rootNode)};
    ray::findOccluders(scene, {origin, direction, triIndex, mask, width, height});
    return StatusOk;
}

// The light position, the plane pointers and count are used as given; shadowDir is checked
// before shadowDot.
Status entry::vekrCastShadowSO_32f(const float* lightPos, const float* eyeDot,
                                   const float* const normal[3], const float* const hitPoint[3],
                                   int32_t* mask, float* shadowDot, float* const shadowDir[3],
                                   int count)
{
    if (eyeDot == nullptr || normal == nullptr || hitPoint == nullptr || mask == nullptr ||
        shadowDir == nullptr || shadowDot == nullptr)
        return StatusNullPointer;
    if (count < 1) return StatusOk;
    ray::castShadowRaysAvx({lightPos, eyeDot, normal, hitPoint, mask, shadowDot, shadowDir, count});
    return StatusOk;
}

Status entry::vekrCastReflectionRay_32f(const float* const incident[3], const int32_t* mask,
                                        const float* const normal[3], float* const reflected[3],
                                        int count)
{
    if (incident == nullptr || mask == nullptr || normal == nullptr || reflected == nullptr)
        return StatusNullPointer;
    if (count < 1) return StatusOk;
    ray::castReflectionRays({incident, mask, normal, reflected, count});
    return StatusOk;
}

// Checks nothing by design, as the nearest hit of rays sharing one origin.
Status entry::vekrIntersectMO_32f(const float* const origin[3], const float* const direction[3],
                                  float* dist, float* const hitUV[2], int32_t* triIndex,
                                  const IntersectContext* context, int width, int height)
{
    if (width < 1 || height < 1) return StatusOk;
    const ray::SceneView scene{context->boundBox, context->triangleAccel,
                               static_cast<const accel::KdNode*>(context->rootNode)};
    ray::intersectManyOrigins(
        scene, {origin, direction, dist, hitUV[0], hitUV[1], triIndex, width, height});
    return StatusOk;
}

// Checks nothing by design. A layer count below 1 writes nothing, as a side below 1 does: the
// outputs hold no layer to write.
Status entry::vekrIntersectMultipleSO_32f(const float* origin, const float* const direction[3],
                                          float* dist, float* const hitUV[2], int32_t* triIndex,
                                          int width, int height, int layers,
                                          const IntersectContext* context)
{
    if (width < 1 || height < 1 || layers < 1) return StatusOk;
    const ray::SceneView scene{context->boundBox, context->triangleAccel,
                               static_cast<const accel::KdNode*>(context->rootNode)};
    ray::intersectLayers(
        scene, {origin, direction, dist, hitUV[0], hitUV[1], triIndex, width, height, layers});
    return StatusOk;
}
