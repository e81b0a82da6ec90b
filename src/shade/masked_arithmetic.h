// Masked per-ray arithmetic on scalar planes and plane triples: scaling, division, colour
// accumulation, dot products, facing normals and point-light distances.
//
// Two mask tests are used, and each member keeps its own:
//  - sign: a negative mask word disables the ray, any other value enables it;
//  - bitwise: the result is ANDed with the complement of the mask word, so 0 keeps it, -1 gives
//    +0.0, and other words clear bits of the result.
//
// Every Avx kernel agrees with its Scalar twin bit for bit. scalePlanesMasked, divideMasked and
// dotPlanesMasked run 8 lanes with masked loads and stores on the tail; scaleBySignMask,
// accumulateColour, faceNormals and attenuationDistance run the general path: a scalar
// prologue that brings one chosen plane to a 32-byte boundary, 16 rays per step, a scalar
// epilogue. The Aligned4 kernels need every plane they list
// 16-byte aligned and length a multiple of 4. None allocates or touches anything past
// element length - 1; a length of 0 or below touches nothing.
#pragma once

#include <cstdint>

#include "vekr.h"

namespace vekr::shade {

// srcDst[i] = (srcDst[i] * src[i]) * f with f = 0.0 for a negative mask word and 1.0 otherwise:
// a disabled ray gets a zero of the product's sign, or NaN for an infinite or NaN product.
// General path, aligning srcDst.
void scaleBySignMaskScalar(const float* src, const int32_t* mask, float* srcDst, int length);
void scaleBySignMaskAvx(const float* src, const int32_t* mask, float* srcDst, int length);

// srcDst[k][i] = (srcDst[k][i] * src[i]) AND NOT mask[i]. A full group of eight rays
// (i < length rounded down to 8) whose mask words are all negative is stored as +0.0.
void scalePlanesMaskedScalar(const float* src, const int32_t* mask, float* const srcDst[3],
                             int length);
void scalePlanesMaskedAvx(const float* src, const int32_t* mask, float* const srcDst[3],
                          int length);

// srcDst[i] = (srcDst[i] / src[i] by a refined reciprocal estimate) AND NOT mask[i]. A divisor
// of +0.0 gives the infinity of the dividend's sign, or the NaN 0x7FBFFFFF for a zero or NaN
// dividend; a divisor of -0.0 leaves the dividend. Returns StatusWarnNoOperation when any
// divisor, enabled or not, is +0.0, StatusOk otherwise.
Status divideMaskedScalar(const float* src, const int32_t* mask, float* srcDst, int length);
Status divideMaskedAvx(const float* src, const int32_t* mask, float* srcDst, int length);

// srcDst[k][i] = (colour[k] * src[k][i]) * factor[i] + srcDst[k][i] for a mask word that is not
// negative; disabled rays keep srcDst. Aligned4 needs factor, mask and the srcDst planes
// aligned (not src); the general path aligns factor.
void accumulateColourScalar(const float* colour, const float* factor, const float* const src[3],
                            const int32_t* mask, float* const srcDst[3], int length);
void accumulateColourAligned4(const float* colour, const float* factor, const float* const src[3],
                              const int32_t* mask, float* const srcDst[3], int length);
void accumulateColourAvx(const float* colour, const float* factor, const float* const src[3],
                         const int32_t* mask, float* const srcDst[3], int length);
// Takes Aligned4 when its alignment and count hold, Avx otherwise.
void accumulateColour(const float* colour, const float* factor, const float* const src[3],
                      const int32_t* mask, float* const srcDst[3], int length);

// dst[i] = (src0 . src1)[i] AND NOT mask[i], summed x + y first, then z. A full group of eight
// rays whose mask words are all negative is stored as +0.0.
void dotPlanesMaskedScalar(const float* const src0[3], const float* const src1[3],
                           const int32_t* mask, float* dst, int length);
void dotPlanesMaskedAvx(const float* const src0[3], const float* const src1[3],
                        const int32_t* mask, float* dst, int length);

// For a mask word that is not negative: d = (n.x dir.x + n.y dir.y) + n.z dir.z, s = -1 when
// d > 0 and +1 otherwise (also for NaN), normal = s * normal, dot = s * d. A disabled ray gets
// dot +0.0 and keeps its normal. Aligned4 needs every plane and the mask aligned; the general
// path aligns normal[2].
void faceNormalsScalar(const float* const direction[3], const int32_t* mask,
                       float* const normal[3], float* dot, int length);
void faceNormalsAligned4(const float* const direction[3], const int32_t* mask,
                         float* const normal[3], float* dot, int length);
void faceNormalsAvx(const float* const direction[3], const int32_t* mask,
                    float* const normal[3], float* dot, int length);
// Takes Aligned4 when its alignment and count hold, Avx otherwise.
void faceNormals(const float* const direction[3], const int32_t* mask, float* const normal[3],
                 float* dot, int length);

// distance[i] = 1.0 when q < 1.0 and sqrt(q) otherwise, q = ((h.x - p.x)^2 + (h.y - p.y)^2) +
// (h.z - p.z)^2 (a NaN q gives NaN); 1.0 for a negative mask word. Aligned4 needs the hit-point
// planes, the mask and distance aligned; the general path aligns distance.
void attenuationDistanceScalar(const float* point, const float* const hitPoint[3],
                               const int32_t* mask, float* distance, int length);
void attenuationDistanceAligned4(const float* point, const float* const hitPoint[3],
                                 const int32_t* mask, float* distance, int length);
void attenuationDistanceAvx(const float* point, const float* const hitPoint[3],
                            const int32_t* mask, float* distance, int length);
// Takes Aligned4 when its alignment and count hold, Avx otherwise.
void attenuationDistance(const float* point, const float* const hitPoint[3], const int32_t* mask,
                         float* distance, int length);

}  // namespace vekr::shade
