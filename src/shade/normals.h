// Normals for shading: unit geometric normals of triangles, and per-ray flat and smooth normals
// written as x, y, z planes.
#pragma once

namespace vekr::shade {

// Triangle t reads vertices i0, i1, i2 from the first three ints of triangles[4 t .. 4 t + 3]
// (never the fourth) and writes three floats at normals[3 t]: (e1 x e2) / |e1 x e2| with
// e1 = V0 - V2 and e2 = V1 - V2, all in double, or zeros when the squared length is below
// DBL_EPSILON. Both twins give the same bits; the Avx twin runs the last triangleCount % 4
// through the scalar steps.
void computeTriangleNormalsScalar(const float* vertices, const int* triangles, float* normals,
                                  int triangleCount);
void computeTriangleNormalsAvx(const float* vertices, const int* triangles, float* normals,
                               int triangleCount);

// Splits the triangles over the library's threads in contiguous shares; every thread count
// gives the same bytes.
void computeTriangleNormals(const float* vertices, const int* triangles, float* normals,
                            int triangleCount);

// Ray i gets triangle normal hitTriangles[i] copied to planes[0..2][i], or zeros when the index
// is negative. The Avx twin needs triangleNormals, hitTriangles and the three planes 16-byte
// aligned and rayCount a multiple of 4; the two give the same bits.
void copyFlatNormalsScalar(const float* triangleNormals, const int* hitTriangles,
                           float* const planes[3], int rayCount);
void copyFlatNormalsAvx(const float* triangleNormals, const int* hitTriangles,
                        float* const planes[3], int rayCount);

// Takes the Avx twin when its alignment and count hold, the scalar one otherwise.
void copyFlatNormals(const float* triangleNormals, const int* hitTriangles, float* const planes[3],
                     int rayCount);

// Ray i that hit triangle t >= 0 gets w N[k2] + (v N[k1] + u N[k0]), w = (1 - u) - v, with
// k0..k2 at normalIndices[t indexStep + 0..2], divided by its length; zeros for a miss or a
// squared length below FLT_EPSILON. The Avx twin needs vertexNormals, normalIndices,
// hitTriangles, both uv planes and the three output planes 16-byte aligned and rayCount a
// multiple of 4. It normalises with a refined reciprocal square root, so the twins differ in the
// last bits, and it zeroes a squared length of exactly FLT_EPSILON, which the scalar twin keeps.
void interpolateSmoothNormalsScalar(const float* vertexNormals, const int* normalIndices,
                                    const int* hitTriangles, const float* const uv[2],
                                    float* const planes[3], int rayCount, int indexStep);
void interpolateSmoothNormalsAvx(const float* vertexNormals, const int* normalIndices,
                                 const int* hitTriangles, const float* const uv[2],
                                 float* const planes[3], int rayCount, int indexStep);

// Takes the Avx twin when its alignment and count hold, the scalar one otherwise.
void interpolateSmoothNormals(const float* vertexNormals, const int* normalIndices,
                              const int* hitTriangles, const float* const uv[2],
                              float* const planes[3], int rayCount, int indexStep);

}  // namespace vekr::shade
