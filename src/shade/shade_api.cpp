// Entry functions of the shading helpers: argument checks, then one kernel.
#include "frame/entry_points.h"
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

// Masked arithmetic: kernels to come.
Status entry::vekrMul_32f_C1IM(const float*, const int32_t*, float*, int) { return StatusOk; }
Status entry::vekrMul_32f_C1P3IM(const float*, const int32_t*, float* const[3], int) { return StatusOk; }
Status entry::vekrDiv_32f_C1IM(const float*, const int32_t*, float*, int) { return StatusOk; }
Status entry::vekrAddMulMul_32f_AC1P3IM(const float*, const float*, const float* const[3],
                                        const int32_t*, float* const[3], int) { return StatusOk; }
Status entry::vekrDot_32f_P3C1M(const float* const[3], const float* const[3], const int32_t*,
                                float*, int) { return StatusOk; }
Status entry::vekrDotChangeNorm_32f_IM(const float* const[3], const int32_t*, float* const[3],
                                       float*, int) { return StatusOk; }
Status entry::vekrDistAttenuationSO_32f_M(const float*, const float* const[3], const int32_t*,
                                          float*, int) { return StatusOk; }
