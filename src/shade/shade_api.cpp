// Entry functions of the shading helpers: argument checks, then one kernel.
#include "frame/entry_points.h"
#include "masked_arithmetic.h"
#include "normals.h"

using namespace vekr;

Status entry::vekrTriangleNormal_32f(const float* vertices, const int* triangleIndices,
                                     float* triangleNormals, int triangleCount)
{
    if (vertices == nullptr || triangleIndices == nullptr || triangleNormals == nullptr)
        return StatusNullPointer;
    if (triangleCount <= 0) return StatusOk;
    shade::computeTriangleNormals(vertices, triangleIndices, triangleNormals, triangleCount);
    return StatusOk;
}

// Neither the plane array nor its three pointers are checked: a null one is the caller's fault.
Status entry::vekrSurfFlatNormal_32f(const float* triangleNormals, const int* hitTriangles,
                                     float* const normals[3], int rayCount)
{
    if (triangleNormals == nullptr || hitTriangles == nullptr) return StatusNullPointer;
    if (rayCount <= 0) return StatusOk;
    shade::copyFlatNormals(triangleNormals, hitTriangles, normals, rayCount);
    return StatusOk;
}

// The plane pointers inside hitUV and normals, and indexStep, are not checked.
Status entry::vekrSurfSmoothNormal_32f(const float* vertexNormals, const int* normalIndices,
                                       const int* hitTriangles, const float* const hitUV[2],
                                       float* const normals[3], int rayCount, int indexStep)
{
    if (vertexNormals == nullptr || normalIndices == nullptr || hitTriangles == nullptr ||
        hitUV == nullptr || normals == nullptr)
        return StatusNullPointer;
    if (rayCount <= 0) return StatusOk;
    shade::interpolateSmoothNormals(vertexNormals, normalIndices, hitTriangles, hitUV, normals,
                                    rayCount, indexStep);
    return StatusOk;
}

// Masked arithmetic. Each entry checks the pointers in argument order and then the length; a
// length of 0 or below touches no memory. The plane pointers inside a triple are not checked.

// Checks nothing: every pointer is the caller's responsibility.
Status entry::vekrMul_32f_C1IM(const float* src, const int32_t* mask, float* srcDst, int length)
{
    if (length <= 0) return StatusOk;
    shade::scaleBySignMaskAvx(src, mask, srcDst, length);
    return StatusOk;
}

Status entry::vekrMul_32f_C1P3IM(const float* src, const int32_t* mask, float* const srcDst[3],
                                 int length)
{
    if (src == nullptr || mask == nullptr || srcDst == nullptr) return StatusNullPointer;
    if (length <= 0) return StatusOk;
    shade::scalePlanesMaskedAvx(src, mask, srcDst, length);
    return StatusOk;
}

// The mask is not checked. StatusWarnNoOperation when some divisor is +0.0.
Status entry::vekrDiv_32f_C1IM(const float* src, const int32_t* mask, float* srcDst, int length)
{
    if (src == nullptr || srcDst == nullptr) return StatusNullPointer;
    if (length <= 0) return StatusOk;
    return shade::divideMaskedAvx(src, mask, srcDst, length);
}

// colour is not checked.
Status entry::vekrAddMulMul_32f_AC1P3IM(const float* colour, const float* factor,
                                        const float* const src[3], const int32_t* mask,
                                        float* const srcDst[3], int length)
{
    if (factor == nullptr || src == nullptr || mask == nullptr || srcDst == nullptr)
        return StatusNullPointer;
    if (length <= 0) return StatusOk;
    shade::accumulateColour(colour, factor, src, mask, srcDst, length);
    return StatusOk;
}

Status entry::vekrDot_32f_P3C1M(const float* const src0[3], const float* const src1[3],
                                const int32_t* mask, float* dst, int length)
{
    if (src0 == nullptr || src1 == nullptr || mask == nullptr || dst == nullptr)
        return StatusNullPointer;
    if (length <= 0) return StatusOk;
    shade::dotPlanesMaskedAvx(src0, src1, mask, dst, length);
    return StatusOk;
}

Status entry::vekrDotChangeNorm_32f_IM(const float* const direction[3], const int32_t* mask,
                                       float* const normal[3], float* dot, int length)
{
    if (direction == nullptr || mask == nullptr || normal == nullptr || dot == nullptr)
        return StatusNullPointer;
    if (length <= 0) return StatusOk;
    shade::faceNormals(direction, mask, normal, dot, length);
    return StatusOk;
}

// point is not checked.
Status entry::vekrDistAttenuationSO_32f_M(const float* point, const float* const hitPoint[3],
                                          const int32_t* mask, float* distance, int length)
{
    if (hitPoint == nullptr || mask == nullptr || distance == nullptr) return StatusNullPointer;
    if (length <= 0) return StatusOk;
    shade::attenuationDistance(point, hitPoint, mask, distance, length);
    return StatusOk;
}
