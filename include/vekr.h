/* vekr: low-level CPU rendering primitives with a C interface.
 * Records, status codes and the exported functions. Compiles as C11 and as C++. */
#ifndef VEKR_H
#define VEKR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Result of every exported function but vekrGetLibVersion: 0 success, negative errors
 * (nothing written), positive warnings (the outputs are valid). */
typedef enum Status {
    StatusOk = 0,                    /* success */
    StatusWarnNoOperation = 1,       /* completed; nothing to do, or a division by zero met */
    StatusWarnVoiOutsideSource = 40, /* the source box origin lies outside the source volume */
    StatusBuildMismatch = -2,        /* a KD-tree build failed its partition consistency test */
    StatusNoMemory = -4,          /* memory unavailable, or the build budget too small to start */
    StatusBadArgument = -5,       /* an argument outside the set the function knows */
    StatusBadSize = -6,           /* a count or size is negative, or zero where one is needed */
    StatusOutOfRange = -7,        /* a spherical-harmonic order or band out of range */
    StatusNullPointer = -8,       /* a required pointer is null */
    StatusMemoryLimit = -9,       /* the KD-tree build ran out of its memory budget */
    StatusBadParameter = -11,     /* a field of a parameter record is out of range */
    StatusBadInterpolation = -22, /* an unknown interpolation kind */
    StatusBadScale = -23,         /* a scale factor that is zero or negative */
    StatusBadChannels = -53,      /* an unsupported channel count */
    StatusBadCoefficients = -56   /* an affine matrix with |determinant| below 1e-10 */
} Status;

/* Version of the library build (static; never freed by the caller). */
typedef struct LibVersion {
    int32_t majorVersion;    /* major version number */
    int32_t minorVersion;    /* minor version number */
    int32_t updateNumber;    /* update within the minor version */
    int32_t revision;        /* revision of the sources the library was built from */
    char cpuTag[4];          /* processor variant, text padded with zero bytes ("AVX") */
    const char* name;        /* library name with the processor variant in parentheses */
    const char* versionText; /* "major.minor.update (revision)" */
    const char* buildDate;   /* build date: month abbreviation, day, year ("Nov 21 2026") */
} LibVersion;

/* Projected form of one triangle, read by the ray-triangle tests (40 bytes). p0, p1, p2 are
 * the triangle's vertices, e1 = p0 - p2, e2 = p1 - p2, n = e1 x e2, k the dominant axis of n,
 * u < v the other two, d = 1 / n[k], s = -1 for k = 1 and +1 otherwise. */
typedef struct TriangleAccel {
    uint32_t axes; /* k << 4 | u << 2 | v; bit 31 when n lies along axis k; 0 if degenerate */
    float nu;      /* n[u] * d (0 when bit 31 is set) */
    float pk;      /* p2[k] */
    float nv;      /* n[v] * d (0 when bit 31 is set) */
    float pu;      /* p2[u] */
    float pv;      /* p2[v] */
    float e2u;     /* s * d * e2[u] */
    float e2v;     /* s * d * e2[v] */
    float e1u;     /* s * d * e1[u] */
    float e1v;     /* s * d * e1[v] */
} TriangleAccel;

/* Axis-aligned scene box as six consecutive floats (the layout vekrSetBoundBox_32f writes). */
typedef struct BoundBox {
    float minX; /* smallest x of the vertices minus the margin */
    float minY; /* smallest y minus the margin */
    float minZ; /* smallest z minus the margin */
    float maxX; /* largest x plus the margin */
    float maxY; /* largest y plus the margin */
    float maxZ; /* largest z plus the margin */
} BoundBox;

/* KD-tree build methods, the values of KDTreeBuildParams.method. */
enum {
    KDTreeBuildSimple = 0x499D3DC2,      /* one leaf listing every triangle */
    KDTreeBuildSah = 0x2D07705B,         /* surface-area heuristic, at most maxDepth splits in all */
    KDTreeBuildSahFullDepth = 0x5AF0D3E7 /* surface-area heuristic, maxDepth splits on each path */
};

/* Parameters of vekrKDTreeBuildAlloc. The simple method reads only method and maxDepth. */
typedef struct KDTreeBuildParams {
    uint32_t method;        /* KDTreeBuildSimple, KDTreeBuildSah or KDTreeBuildSahFullDepth */
    uint32_t maxDepth;      /* split limit of the tree, 0 to 50 */
    float ratio;            /* 0 to 1: from cheap builds (0) to deep trees (1) */
    uint32_t memoryLimitMB; /* memory budget of the build in megabytes */
    const float* pBoundBox; /* optional scene box (six floats as in BoundBox), or null */
} KDTreeBuildParams;

/* What the intersection functions need of one object: its box, its records and its tree. */
typedef struct IntersectContext {
    const float* boundBox;              /* six floats: min x, y, z, max x, y, z (BoundBox) */
    const TriangleAccel* triangleAccel; /* one record per triangle, by triangle number */
    const void* rootNode;               /* the tree block of vekrKDTreeBuildAlloc (its root) */
} IntersectContext;

/* Width and height of a block of pixels or rays, in elements. */
typedef struct Size2D {
    int32_t width;  /* elements per row */
    int32_t height; /* rows */
} Size2D;

/* State of the spherical-harmonic evaluation, at the start of a caller-owned buffer of the size
 * vekrSHGetSize_32f reports. For the recurrence method the coefficient tables follow in the
 * same buffer at the byte offsets coeffA and coeffB from its start, so the buffer may be copied
 * or moved after vekrSHInit_32f. */
typedef struct SHState {
    uint32_t order;  /* largest order L the state serves */
    int32_t method;  /* SHMethodDirect or SHMethodRecurrence */
    uint32_t coeffA; /* recurrence: byte offset of table A from the start of the state */
    uint32_t coeffB; /* recurrence: byte offset of table B from the start of the state */
} SHState;

/* Spherical-harmonic evaluation methods, the values of SHState.method. */
enum {
    SHMethodDirect = 0,    /* closed-form polynomials in x, y, z, evaluated in double */
    SHMethodRecurrence = 1 /* single-precision recurrence over bands with tables in the state */
};

/* Extent of a volume in voxels. */
typedef struct VolumeSize {
    int32_t width;  /* voxels along x */
    int32_t height; /* voxels along y */
    int32_t depth;  /* voxels along z */
} VolumeSize;

/* A box of voxels: its first voxel and its extent (valid when x, y, z >= 0 and the extents >= 1). */
typedef struct Cuboid {
    int32_t x;      /* first voxel along x */
    int32_t y;      /* first voxel along y */
    int32_t z;      /* first voxel along z */
    int32_t width;  /* voxels along x */
    int32_t height; /* voxels along y */
    int32_t depth;  /* voxels along z */
} Cuboid;

/* Interpolation kinds of the volume functions (3 is not a kind). */
enum {
    InterpolationNearest = 1,         /* the voxel the position falls in */
    InterpolationLinear = 2,          /* trilinear */
    InterpolationCubicLagrange = 4,   /* four-point Lagrange cubic */
    InterpolationCubicBSpline = 5,    /* cubic B-spline (B = 1, C = 0) */
    InterpolationCubicCatmullRom = 6, /* Catmull-Rom (B = 0, C = 1/2) */
    InterpolationCubicB05C03 = 7      /* Mitchell-Netravali cubic with B = 1/2, C = 3/10 */
};

/* The version record of this build; the same pointer on every call, never null. */
const LibVersion* vekrGetLibVersion(void);

/* Writes the size in bytes of one TriangleAccel record (40) to *pSize. */
Status vekrTriangleAccelGetSize(int* pSize);

/* Fills pAccel[0 .. triangleCount-1], one record per triangle of the mesh; checks nothing. */
Status vekrTriangleAccelInit(TriangleAccel* pAccel, const float* pVertexCoord,
                             const int* pTriangleIndex, int triangleCount);

/* Writes the box of the vertices, widened by 1e-4 of its largest coordinate magnitude. */
Status vekrSetBoundBox_32f(const float* vertices, int vertexCount, float* box);

/* Builds a KD-tree block over the mesh; writes its address to *ppTree, its size to *pTreeSize. */
Status vekrKDTreeBuildAlloc(void** ppTree, const float* pVertexCoord, const int* pTriangleIndex,
                            int vertexCount, int triangleCount, int* pTreeSize,
                            const KDTreeBuildParams* pParams);

/* Releases a tree made by vekrKDTreeBuildAlloc; a null pointer is ignored. */
Status vekrKDTreeFree(void* pTree);

/* --- Rays and intersection ------------------------------------------------------------ */

/* Writes the eye-ray directions of block (blockX, blockY) of an image plane into three planes
 * of blockSize.width * blockSize.height floats (which must not overlap):
 * planeOrigin + stepX * column + stepY * row. A side below 1 writes nothing. */
Status vekrCastEye_32f(const float planeOrigin[3], const float stepX[3], const float stepY[3],
                       int blockX, int blockY, Size2D cellSize, float* const direction[3],
                       Size2D blockSize);

/* Nearest hit of every ray of a width x height block sharing one origin: writes dist, the
 * weights of the first two vertices and the triangle index (-1 for a miss); checks nothing. */
Status vekrIntersectEyeSO_32f(const float origin[3], const float* const direction[3],
                              float* dist, float* const hitUV[2], int32_t* triIndex,
                              const IntersectContext* context, int width, int height);

/* Writes origin + direction * dist * eps for count rays sharing one origin; rays whose mask
 * word is -1 get (0, 0, 0) (a full group of eight masked rays gets its points). */
Status vekrHitPoint3DEpsS0_32f_M(const float origin[3], const float* const direction[3],
                                 const float* dist, const int32_t* mask,
                                 float* const hitPoint[3], int count, float eps);

/* As vekrHitPoint3DEpsS0_32f_M for rays with one origin each (three origin planes). */
Status vekrHitPoint3DEpsM0_32f_M(const float* const origin[3], const float* const direction[3],
                                 const float* dist, const int32_t* mask,
                                 float* const hitPoint[3], int count, float eps);

/* Nearest hit of every ray of a width x height block of rays with one origin each (three origin
 * planes): writes dist, the weights and the triangle index (-1 for a miss) as
 * vekrIntersectEyeSO_32f does, with a stricter box and triangle test; checks nothing. */
Status vekrIntersectMO_32f(const float* const origin[3], const float* const direction[3],
                           float* dist, float* const hitUV[2], int32_t* triIndex,
                           const IntersectContext* context, int width, int height);

/* Successive hits along every ray of a block sharing one origin, up to `layers` surfaces per
 * ray: dist, hitUV and triIndex hold `layers` blocks of width x height elements one after
 * another (layer 0 of dist: the maximum distance in). Layer k gets the distance from the origin
 * to the ray's k-th hit, its weights and triangle; layers past a ray's last hit get -1 in
 * triIndex. Note the context comes last. Checks nothing; a side or a layer count below 1
 * writes nothing. */
Status vekrIntersectMultipleSO_32f(const float origin[3], const float* const direction[3],
                                   float* dist, float* const hitUV[2], int32_t* triIndex,
                                   int width, int height, int layers,
                                   const IntersectContext* context);

/* Occlusion of the segments origin + t * direction, 0 < t < 1, of a width x height block of
 * rays sharing one origin (typically a light). Rays whose mask word is negative are not tested.
 * Writes the first occluding triangle found (or -1) to triIndex and -1 to the mask word of
 * every occluded ray; checks nothing. The context's box is not read. */
Status vekrIntersectAnySO_32f(const float origin[3], const float* const direction[3],
                              int32_t* triIndex, int32_t* mask, int width, int height,
                              const IntersectContext* context);

/* Shadow rays from a point light: writes shadowDir = hitPoint - lightPos and
 * shadowDot = |shadowDir . normal| for the points the light can reach on their seen side;
 * other points get zeros and the mask word -1. */
Status vekrCastShadowSO_32f(const float lightPos[3], const float* eyeDot,
                            const float* const normal[3], const float* const hitPoint[3],
                            int32_t* mask, float* shadowDot, float* const shadowDir[3],
                            int count);

/* Writes the mirror direction D - 2 (D . N) N of every incident direction D about its normal N
 * (not renormalised); (0, 0, 0) for rays whose mask word is negative. */
Status vekrCastReflectionRay_32f(const float* const incident[3], const int32_t* mask,
                                 const float* const normal[3], float* const reflected[3],
                                 int count);

/* --- Shading ------------------------------------------------------------------------------ */

/* Writes the unit normal of every triangle (three floats each; zero for degenerate ones). */
Status vekrTriangleNormal_32f(const float* vertices, const int* triangleIndices,
                              float* triangleNormals, int triangleCount);

/* Writes the normal of each ray's hit triangle into three planes; (0, 0, 0) for a miss. */
Status vekrSurfFlatNormal_32f(const float* triangleNormals, const int* hitTriangles,
                              float* const normals[3], int rayCount);

/* Writes the vertex normals interpolated at each ray's hit, renormalised; (0, 0, 0) for a
 * miss or a normal that cancels. */
Status vekrSurfSmoothNormal_32f(const float* vertexNormals, const int* normalIndices,
                                const int* hitTriangles, const float* const hitUV[2],
                                float* const normals[3], int rayCount, int indexStep);

/* Masked arithmetic on length rays. Mask words: 0 enables a ray, -1 disables it. The sign-tested
 * functions treat any negative word as disabled; the bitwise ones AND their result with the
 * complement of the word. A length of 0 or below touches no memory. */

/* srcDst[i] *= src[i]; a disabled ray (negative mask) gets the product times 0.0. Checks nothing. */
Status vekrMul_32f_C1IM(const float* src, const int32_t* mask, float* srcDst, int length);

/* srcDst[k][i] *= src[i] for the three planes; a disabled ray (mask -1) gets +0.0. */
Status vekrMul_32f_C1P3IM(const float* src, const int32_t* mask, float* const srcDst[3],
                          int length);

/* srcDst[i] /= src[i] by a refined reciprocal; a disabled ray (mask -1) gets +0.0. Returns
 * StatusWarnNoOperation when some divisor is +0.0 (the result is then +-infinity, or the NaN
 * 0x7FBFFFFF for a zero or NaN dividend); a divisor of -0.0 leaves the dividend. */
Status vekrDiv_32f_C1IM(const float* src, const int32_t* mask, float* srcDst, int length);

/* srcDst[k][i] += (colour[k] * src[k][i]) * factor[i] for enabled rays (mask not negative). */
Status vekrAddMulMul_32f_AC1P3IM(const float colour[3], const float* factor,
                                 const float* const src[3], const int32_t* mask,
                                 float* const srcDst[3], int length);

/* dst[i] = src0[i] . src1[i] (three planes each); a disabled ray (mask -1) gets +0.0. */
Status vekrDot_32f_P3C1M(const float* const src0[3], const float* const src1[3],
                         const int32_t* mask, float* dst, int length);

/* Turns each enabled normal to face against its direction and writes their dot product
 * (-|normal . direction|) to dot; a disabled ray (negative mask) gets dot 0, normal unchanged. */
Status vekrDotChangeNorm_32f_IM(const float* const direction[3], const int32_t* mask,
                                float* const normal[3], float* dot, int length);

/* Writes the distance from point to each hit point, clamped below at 1.0; 1.0 for a disabled
 * ray (negative mask). */
Status vekrDistAttenuationSO_32f_M(const float point[3], const float* const hitPoint[3],
                                   const int32_t* mask, float* distance, int length);

/* --- Spherical harmonics ------------------------------------------------------------------ */

/* Writes the bytes an SHState buffer needs for the given order and method to *size (direct:
 * orders up to 15; recurrence: up to 23168, the last whose size an int holds). */
Status vekrSHGetSize_32f(unsigned int order, int method, int* size);

/* Clears the buffer and sets it up as an SHState for the given order and method. */
Status vekrSHInit_32f(void* state, unsigned int order, int method);

/* Writes the (order + 1)^2 basis values of each of length directions, direction after
 * direction, in the order (l, m) = (0, 0), (1, -1), (1, 0), (1, 1), (2, -2), ... */
Status vekrSH_32f(const float* x, const float* y, const float* z, int length, float* dst,
                  unsigned int order, const SHState* state);

/* Writes the 2 band + 1 basis values of one band (m = -band .. band) of each direction. */
Status vekrSHBand_32f(const float* x, const float* y, const float* z, int length, float* dst,
                      unsigned int band);

/* Adds samples[i] times the basis at direction i to coeffs, sample after sample. */
Status vekrSHTFwd_32f_C1I(const float* x, const float* y, const float* z, const float* samples,
                          int length, float* coeffs, unsigned int order, const SHState* state);

/* As vekrSHTFwd_32f_C1I for three sample planes into three coefficient vectors. */
Status vekrSHTFwd_32f_P3I(const float* x, const float* y, const float* z,
                          const float* const samples[3], int length, float* const coeffs[3],
                          unsigned int order, const SHState* state);

/* As vekrSHTFwd_32f_P3I for samples of three interleaved channels. */
Status vekrSHTFwd_32f_C3P3I(const float* x, const float* y, const float* z, const float* samples,
                            int length, float* const coeffs[3], unsigned int order,
                            const SHState* state);

/* Writes the expansion with coefficients coeffs at each direction to dst. */
Status vekrSHTInv_32f_C1(const float* coeffs, unsigned int order, const float* x, const float* y,
                         const float* z, float* dst, int length, const SHState* state);

/* As vekrSHTInv_32f_C1 for three coefficient vectors into three planes. */
Status vekrSHTInv_32f_P3(const float* const coeffs[3], unsigned int order, const float* x,
                         const float* y, const float* z, float* const dst[3], int length,
                         const SHState* state);

/* As vekrSHTInv_32f_P3 writing the three channels interleaved. */
Status vekrSHTInv_32f_P3C3(const float* const coeffs[3], unsigned int order, const float* x,
                           const float* y, const float* z, float* dst, int length,
                           const SHState* state);

/* --- Volumes ------------------------------------------------------------------------------ */

/* Writes the box of the destination that resizing srcVOI by the factors and shifts covers. */
Status vekrGetResizeCuboid(Cuboid srcVOI, Cuboid* pDstVOI, double xFactor, double yFactor,
                           double zFactor, double xShift, double yShift, double zShift,
                           int interpolation);

/* Writes the work-buffer bytes a resize into dstVOI needs (all threads' shares) to *pSize. */
Status vekrResizeGetBufSize(Cuboid srcVOI, Cuboid dstVOI, int nChannel, int interpolation,
                            int* pSize);

/* Writes the work-buffer bytes an affine warp needs (none) to *pSize. */
Status vekrWarpAffineGetBufSize(Cuboid srcVOI, Cuboid dstVOI, int nChannel, int interpolation,
                                int* pSize);

/* Writes the work-buffer bytes the 3-D filter needs (all threads' shares) to *pSize. */
Status vekrFilterGetBufSize(VolumeSize dstRoiSize, VolumeSize kernelVolume, int nChannel,
                            int* pSize);

/* Resizes srcVOI of a volume in one block into dstVOI: d = s * factor + shift per axis. */
Status vekrResize_8u_C1V(const uint8_t* pSrc, VolumeSize srcVolume, int srcStep,
                         int srcPlaneStep, Cuboid srcVOI, uint8_t* pDst, int dstStep,
                         int dstPlaneStep, Cuboid dstVOI, double xFactor, double yFactor,
                         double zFactor, double xShift, double yShift, double zShift,
                         int interpolation, uint8_t* pBuffer);
Status vekrResize_16u_C1V(const uint16_t* pSrc, VolumeSize srcVolume, int srcStep,
                          int srcPlaneStep, Cuboid srcVOI, uint16_t* pDst, int dstStep,
                          int dstPlaneStep, Cuboid dstVOI, double xFactor, double yFactor,
                          double zFactor, double xShift, double yShift, double zShift,
                          int interpolation, uint8_t* pBuffer);
Status vekrResize_32f_C1V(const float* pSrc, VolumeSize srcVolume, int srcStep, int srcPlaneStep,
                          Cuboid srcVOI, float* pDst, int dstStep, int dstPlaneStep,
                          Cuboid dstVOI, double xFactor, double yFactor, double zFactor,
                          double xShift, double yShift, double zShift, int interpolation,
                          uint8_t* pBuffer);

/* As the V forms for volumes given as one pointer per plane with a shared row step. */
Status vekrResize_8u_C1PV(const uint8_t* const pSrc[], VolumeSize srcVolume, int srcStep,
                          Cuboid srcVOI, uint8_t* const pDst[], int dstStep, Cuboid dstVOI,
                          double xFactor, double yFactor, double zFactor, double xShift,
                          double yShift, double zShift, int interpolation, uint8_t* pBuffer);
Status vekrResize_16u_C1PV(const uint16_t* const pSrc[], VolumeSize srcVolume, int srcStep,
                           Cuboid srcVOI, uint16_t* const pDst[], int dstStep, Cuboid dstVOI,
                           double xFactor, double yFactor, double zFactor, double xShift,
                           double yShift, double zShift, int interpolation, uint8_t* pBuffer);
Status vekrResize_32f_C1PV(const float* const pSrc[], VolumeSize srcVolume, int srcStep,
                           Cuboid srcVOI, float* const pDst[], int dstStep, Cuboid dstVOI,
                           double xFactor, double yFactor, double zFactor, double xShift,
                           double yShift, double zShift, int interpolation, uint8_t* pBuffer);

/* Samples srcVOI of a planar volume at the positions of three coordinate volumes (x, y, z maps,
 * the extent of dstRoiSize, source voxel centres at integers) into voxel (0, 0, 0) onwards of
 * the destination; voxels whose position lies outside srcVOI keep their contents. */
Status vekrRemap_8u_C1PV(const uint8_t* const pSrc[], VolumeSize srcVolume, int srcStep,
                         Cuboid srcVOI, const float* const pxMap[], const float* const pyMap[],
                         const float* const pzMap[], int mapStep, uint8_t* const pDst[],
                         int dstStep, VolumeSize dstRoiSize, int interpolation);
Status vekrRemap_16u_C1PV(const uint16_t* const pSrc[], VolumeSize srcVolume, int srcStep,
                          Cuboid srcVOI, const float* const pxMap[], const float* const pyMap[],
                          const float* const pzMap[], int mapStep, uint16_t* const pDst[],
                          int dstStep, VolumeSize dstRoiSize, int interpolation);
Status vekrRemap_32f_C1PV(const float* const pSrc[], VolumeSize srcVolume, int srcStep,
                          Cuboid srcVOI, const float* const pxMap[], const float* const pyMap[],
                          const float* const pzMap[], int mapStep, float* const pDst[],
                          int dstStep, VolumeSize dstRoiSize, int interpolation);

/* Fills dstVOI of a planar volume with srcVOI transformed by the forward affine map coeffs
 * (12 doubles, three rows of four: x' = c0 x + c1 y + c2 z + c3, ...); voxels whose inverse
 * image lies outside srcVOI keep their contents. StatusBadCoefficients for a singular map.
 * pBuffer may be null (the warp needs no work buffer). */
Status vekrWarpAffine_8u_C1PV(const uint8_t* const pSrc[], VolumeSize srcVolume, int srcStep,
                              Cuboid srcVOI, uint8_t* const pDst[], int dstStep, Cuboid dstVOI,
                              const double* coeffs, int interpolation, uint8_t* pBuffer);
Status vekrWarpAffine_16u_C1PV(const uint16_t* const pSrc[], VolumeSize srcVolume, int srcStep,
                               Cuboid srcVOI, uint16_t* const pDst[], int dstStep, Cuboid dstVOI,
                               const double* coeffs, int interpolation, uint8_t* pBuffer);
Status vekrWarpAffine_32f_C1PV(const float* const pSrc[], VolumeSize srcVolume, int srcStep,
                               Cuboid srcVOI, float* const pDst[], int dstStep, Cuboid dstVOI,
                               const double* coeffs, int interpolation, uint8_t* pBuffer);

/* Convolves a signed 16-bit planar volume with a kw x kh x kd kernel of 32-bit integers K (x
 * fastest, then y, then z) into voxels (0, 0, 0) .. (W-1, H-1, D-1) of pDst:
 * dst(x,y,z) = round(sum K(i,j,k) * src(x+anchorX-i, y+anchorY-j, z+anchorZ-k) / divisor), the
 * sum exact in 64 bits, halves rounded away from zero, saturated to -32768..32767, where
 * src(x,y,z) = pSrc[z][y * srcStep / 2 + x]. It reads x from anchorX-kw+1 to W-1+anchorX, and so
 * on y and z (plane indices below 0 included): pass pointers into a padded volume. pBuffer has
 * the size vekrFilterGetBufSize reports. See the README, "Filtering a volume". */
Status vekrFilter_16s_C1PV(const int16_t* const pSrc[], int srcStep, int16_t* const pDst[],
                           int dstStep, VolumeSize dstRoiSize, const int32_t* pKernel,
                           VolumeSize kernelVolume, int anchorX, int anchorY, int anchorZ,
                           int divisor, uint8_t* pBuffer);

#ifdef __cplusplus
}
#endif

#endif /* VEKR_H */
