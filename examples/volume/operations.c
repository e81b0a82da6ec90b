/* Resize, rotate, swirl and smooth through the vekr volume functions. Each runs over the
 * destination in slabs of slices (at least 16 deep where the volume allows, so that the
 * library's threads still get their share), reports progress once a run passes a second, and
 * times the library calls alone. int16 volumes are resampled as uint16 with an offset of
 * 32768, which is exact; the filter works on int16, so other types are converted for it. */
#include "operations.h"

#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "call_status.h"
#include "vekcore.h"
#include "vekr.h"

enum { kMaxKernelSide = 31 };
static const double kPi = 3.14159265358979323846;

static double secondsNow(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + 1e-9 * (double)t.tv_nsec;
}

/* --- Progress ------------------------------------------------------------------------- */

typedef struct Progress {
    const char* name;
    int total;
    double start, lastReport;
    int reported;
} Progress;

static void progressStart(Progress* p, const char* name, int total)
{
    p->name = name;
    p->total = total;
    p->start = secondsNow();
    p->lastReport = 0;
    p->reported = 0;
}

/* Quiet for the first second; then a line every half second, rewritten in place on a
 * terminal. */
static void progressUpdate(Progress* p, int done)
{
    const double elapsed = secondsNow() - p->start;
    if (elapsed < 1.0 || (elapsed - p->lastReport < 0.5 && done < p->total)) return;
    const int terminal = isatty(fileno(stderr));
    fprintf(stderr, "%s%s: %d of %d slices (%.0f%%), %.1f s%s", terminal ? "\r" : "", p->name, done,
            p->total, 100.0 * done / p->total, elapsed, terminal ? "" : "\n");
    fflush(stderr);
    p->lastReport = elapsed;
    p->reported = 1;
}

static void progressEnd(const Progress* p)
{
    if (p->reported && isatty(fileno(stderr))) fputc('\n', stderr);
}

static int slabDepth(int depth)
{
    return depth < 32 ? depth : (depth / 16 > 16 ? depth / 16 : 16);
}

/* --- Slabs ---------------------------------------------------------------------------- */

/* Everything one slab's library call needs; each operation fills the fields it uses. */
typedef struct SlabJob {
    const Operation* op;
    const Volume* src;
    void* const* srcPlanes; /* resampling: the source's plane pointers */
    Cuboid srcVOI;
    const Volume* dst;
    void* const* dstPlanes;
    uint8_t* buffer;
    double coeffs[12];                  /* rotate: the forward map */
    float* const* maps[3];              /* swirl: the x, y, z maps of one slab */
    const int16_t* const* filterPlanes; /* smooth: padded source planes, from slice 0's */
    int filterRowBytes;
    const int32_t* kernel;
    int divisor;
} SlabJob;

static Status runSlab(const SlabJob* job, int z, int n);
static void swirlMaps(const Volume* v, double strengthDegrees, int z0, int n, float* xMap,
                      float* yMap, float* zMap);

/* Runs the job's library call over the destination's slices in slabs, reporting progress and
 * adding the time spent in the library to timing. The swirl's maps for a slab are made
 * outside that time. Returns 0, or -1 after a failing call's status was reported. */
static int runInSlabs(const SlabJob* job, OperationTiming* timing)
{
    static const char* const kNames[] = {"copy", "resize", "rotate", "swirl", "smooth"};
    static const char* const kCalls[] = {"", "resize", "affine warp", "remap",
                                         "vekrFilter_16s_C1PV"};
    const int depth = job->dst->depth, slab = slabDepth(depth);
    Progress progress;
    progressStart(&progress, kNames[job->op->kind], depth);
    int result = 0;
    for (int z = 0; z < depth && result == 0; z += slab) {
        const int n = depth - z < slab ? depth - z : slab;
        if (job->op->kind == OperationSwirl)
            swirlMaps(job->src, job->op->strength, z, n, job->maps[0][0], job->maps[1][0],
                      job->maps[2][0]);
        const double start = secondsNow();
        const Status call = runSlab(job, z, n);
        timing->seconds += secondsNow() - start;
        result = checkStatus(call, kCalls[job->op->kind]) != 0 ? -1 : 0;
        if (result == 0) progressUpdate(&progress, z + n);
    }
    progressEnd(&progress);
    if (result == 0) timing->voxels = volumeVoxelCount(job->dst);
    return result;
}

/* --- Voxel conversion ----------------------------------------------------------------- */

static void storeSample(Volume* v, size_t i, double value)
{
    if (v->type == SampleFloat) {
        ((float*)v->voxels)[i] = (float)value;
        return;
    }
    const double lowest = v->type == SampleInt16 ? -32768 : 0;
    const double highest = v->type == SampleUint8 ? 255 : v->type == SampleInt16 ? 32767 : 65535;
    value = isnan(value)      ? 0
            : value < lowest  ? lowest
            : value > highest ? highest
                              : nearbyint(value);
    if (v->type == SampleUint8)
        ((uint8_t*)v->voxels)[i] = (uint8_t)value;
    else if (v->type == SampleUint16)
        ((uint16_t*)v->voxels)[i] = (uint16_t)value;
    else
        ((int16_t*)v->voxels)[i] = (int16_t)value;
}

/* dst = a * src + b voxel by voxel, rounded and saturated to dst's type; same extents. */
static void convertVoxels(const Volume* src, Volume* dst, double a, double b)
{
    const size_t n = volumeVoxelCount(src);
    for (size_t i = 0; i < n; ++i)
        storeSample(dst, i, a * volumeSample(src, i) + b);
}

static void fillVolume(Volume* v, double value)
{
    const size_t n = volumeVoxelCount(v);
    for (size_t i = 0; i < n; ++i)
        storeSample(v, i, value);
}

static int allocateLike(Volume* v, SampleType type, int width, int height, int depth)
{
    if (volumeAllocate(v, type, width, height, depth) == 0) return 0;
    fprintf(stderr, "out of memory for a %d x %d x %d volume of %s\n", width, height, depth,
            sampleTypeName(type));
    return -1;
}

/* --- Resize --------------------------------------------------------------------------- */

static Status callResize(const Volume* src, void* const* srcPlanes, Cuboid srcVOI,
                         const Volume* dst, void* const* dstPlanes, Cuboid dstVOI, const double* f,
                         int interpolation, uint8_t* buffer)
{
    const VolumeSize size = {src->width, src->height, src->depth};
    const int srcStep = (int)volumeRowBytes(src), dstStep = (int)volumeRowBytes(dst);
    switch (src->type) {
        case SampleUint8:
            return vekrResize_8u_C1PV((const uint8_t* const*)srcPlanes, size, srcStep, srcVOI,
                                      (uint8_t* const*)dstPlanes, dstStep, dstVOI, f[0], f[1], f[2],
                                      0, 0, 0, interpolation, buffer);
        case SampleUint16:
            return vekrResize_16u_C1PV((const uint16_t* const*)srcPlanes, size, srcStep, srcVOI,
                                       (uint16_t* const*)dstPlanes, dstStep, dstVOI, f[0], f[1],
                                       f[2], 0, 0, 0, interpolation, buffer);
        default:
            return vekrResize_32f_C1PV((const float* const*)srcPlanes, size, srcStep, srcVOI,
                                       (float* const*)dstPlanes, dstStep, dstVOI, f[0], f[1], f[2],
                                       0, 0, 0, interpolation, buffer);
    }
}

static int resizeVolume(const Operation* op, const Volume* src, void* const* srcPlanes, Volume* dst,
                        OperationTiming* timing)
{
    const Cuboid srcVOI = {0, 0, 0, src->width, src->height, src->depth};
    Cuboid box;
    const Status s = vekrGetResizeCuboid(srcVOI, &box, op->factors[0], op->factors[1],
                                         op->factors[2], 0, 0, 0, op->interpolation);
    if (checkStatus(s, "vekrGetResizeCuboid") != 0) return -1;
    if (s == StatusWarnNoOperation) {
        fprintf(stderr, "resize: the factors leave no voxel of the volume\n");
        return -1;
    }
    if (allocateLike(dst, src->type, box.x + box.width, box.y + box.height, box.z + box.depth))
        return -1;
    void** dstPlanes = volumePlanePointers(dst);
    const int slab = slabDepth(dst->depth);
    int bytes = 0;
    const Cuboid first = {0, 0, 0, dst->width, dst->height, slab};
    uint8_t* buffer = NULL;
    int result = -1;
    if (dstPlanes == NULL ||
        checkStatus(vekrResizeGetBufSize(srcVOI, first, 1, op->interpolation, &bytes),
                    "vekrResizeGetBufSize") != 0)
        goto done;
    if ((buffer = vekMalloc(bytes > 0 ? (size_t)bytes : 1)) == NULL) {
        fprintf(stderr, "out of memory for a %d-byte resize buffer\n", bytes);
        goto done;
    }
    const SlabJob job = {.op = op,
                         .src = src,
                         .srcPlanes = srcPlanes,
                         .srcVOI = srcVOI,
                         .dst = dst,
                         .dstPlanes = dstPlanes,
                         .buffer = buffer};
    result = runInSlabs(&job, timing);
done:
    vekFree(buffer);
    free(dstPlanes);
    return result;
}

/* --- Rotation ------------------------------------------------------------------------- */

/* The forward map x' = R (x - c) + c with R = Rz Ry Rx and c the centre of the volume (voxel
 * centres at integers), as three rows of four. */
static void rotationCoefficients(const double degrees[3], const Volume* v, double coeffs[12])
{
    double r[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    for (int axis = 0; axis < 3; ++axis) {
        const double a = degrees[axis] * kPi / 180, c = cos(a), s = sin(a);
        const int i = (axis + 1) % 3, j = (axis + 2) % 3; /* the plane turned about axis */
        double turn[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
        turn[i][i] = c;
        turn[i][j] = -s;
        turn[j][i] = s;
        turn[j][j] = c;
        double product[3][3];
        for (int row = 0; row < 3; ++row)
            for (int col = 0; col < 3; ++col)
                product[row][col] =
                    turn[row][0] * r[0][col] + turn[row][1] * r[1][col] + turn[row][2] * r[2][col];
        memcpy(r, product, sizeof r);
    }
    const double centre[3] = {0.5 * (v->width - 1), 0.5 * (v->height - 1), 0.5 * (v->depth - 1)};
    for (int row = 0; row < 3; ++row) {
        double moved = centre[row];
        for (int col = 0; col < 3; ++col) {
            coeffs[row * 4 + col] = r[row][col];
            moved -= r[row][col] * centre[col];
        }
        coeffs[row * 4 + 3] = moved;
    }
}

static Status callWarp(const Volume* src, void* const* srcPlanes, Cuboid srcVOI,
                       void* const* dstPlanes, Cuboid dstVOI, const double* coeffs,
                       int interpolation, uint8_t* buffer)
{
    const VolumeSize size = {src->width, src->height, src->depth};
    const int step = (int)volumeRowBytes(src);
    switch (src->type) {
        case SampleUint8:
            return vekrWarpAffine_8u_C1PV((const uint8_t* const*)srcPlanes, size, step, srcVOI,
                                          (uint8_t* const*)dstPlanes, step, dstVOI, coeffs,
                                          interpolation, buffer);
        case SampleUint16:
            return vekrWarpAffine_16u_C1PV((const uint16_t* const*)srcPlanes, size, step, srcVOI,
                                           (uint16_t* const*)dstPlanes, step, dstVOI, coeffs,
                                           interpolation, buffer);
        default:
            return vekrWarpAffine_32f_C1PV((const float* const*)srcPlanes, size, step, srcVOI,
                                           (float* const*)dstPlanes, step, dstVOI, coeffs,
                                           interpolation, buffer);
    }
}

static int rotateVolume(const Operation* op, const Volume* src, void* const* srcPlanes, Volume* dst,
                        OperationTiming* timing)
{
    if (allocateLike(dst, src->type, src->width, src->height, src->depth) != 0) return -1;
    double lowest, highest;
    volumeRange(src, &lowest, &highest);
    fillVolume(dst, lowest);
    double coeffs[12];
    rotationCoefficients(op->angles, src, coeffs);
    const Cuboid srcVOI = {0, 0, 0, src->width, src->height, src->depth};
    void** dstPlanes = volumePlanePointers(dst);
    const int slab = slabDepth(dst->depth);
    const Cuboid first = {0, 0, 0, dst->width, dst->height, slab};
    int bytes = 0;
    uint8_t* buffer = NULL;
    int result = -1;
    if (dstPlanes == NULL ||
        checkStatus(vekrWarpAffineGetBufSize(srcVOI, first, 1, op->interpolation, &bytes),
                    "vekrWarpAffineGetBufSize") != 0)
        goto done;
    if (bytes > 0 && (buffer = vekMalloc((size_t)bytes)) == NULL) {
        fprintf(stderr, "out of memory for a %d-byte warp buffer\n", bytes);
        goto done;
    }
    SlabJob job = {.op = op,
                   .src = src,
                   .srcPlanes = srcPlanes,
                   .srcVOI = srcVOI,
                   .dst = dst,
                   .dstPlanes = dstPlanes,
                   .buffer = buffer};
    memcpy(job.coeffs, coeffs, sizeof coeffs);
    result = runInSlabs(&job, timing);
done:
    vekFree(buffer);
    free(dstPlanes);
    return result;
}

/* --- Swirl ---------------------------------------------------------------------------- */

/* Source positions of slices z0 .. z0 + n - 1: each slice turns about the z axis through the
 * centre by an angle that grows from 0 at the first and last slices to the full strength in
 * the middle (a sine over the depth) and falls off with the distance from the axis, to 0 at
 * half the smaller in-plane extent, so that the slices wind into a spiral. */
static void swirlMaps(const Volume* v, double strengthDegrees, int z0, int n, float* xMap,
                      float* yMap, float* zMap)
{
    const double cx = 0.5 * (v->width - 1), cy = 0.5 * (v->height - 1);
    const double radius = 0.5 * (v->width < v->height ? v->width : v->height);
    size_t i = 0;
    for (int k = 0; k < n; ++k) {
        const double zWeight = sin(kPi * (z0 + k + 0.5) / v->depth);
        for (int y = 0; y < v->height; ++y)
            for (int x = 0; x < v->width; ++x, ++i) {
                const double dx = x - cx, dy = y - cy;
                const double falloff = fmax(0.0, 1.0 - sqrt(dx * dx + dy * dy) / radius);
                const double angle = strengthDegrees * kPi / 180 * zWeight * falloff * falloff;
                const double c = cos(angle), s = sin(angle);
                xMap[i] = (float)(cx + c * dx - s * dy);
                yMap[i] = (float)(cy + s * dx + c * dy);
                zMap[i] = (float)(z0 + k);
            }
    }
}

static Status callRemap(const Volume* src, void* const* srcPlanes, Cuboid srcVOI,
                        float* const* maps[3], int mapStep, void* const* dstPlanes, VolumeSize roi,
                        int interpolation)
{
    const VolumeSize size = {src->width, src->height, src->depth};
    const int step = (int)volumeRowBytes(src);
    const float* const* x = (const float* const*)maps[0];
    const float* const* y = (const float* const*)maps[1];
    const float* const* z = (const float* const*)maps[2];
    switch (src->type) {
        case SampleUint8:
            return vekrRemap_8u_C1PV((const uint8_t* const*)srcPlanes, size, step, srcVOI, x, y, z,
                                     mapStep, (uint8_t* const*)dstPlanes, step, roi, interpolation);
        case SampleUint16:
            return vekrRemap_16u_C1PV((const uint16_t* const*)srcPlanes, size, step, srcVOI, x, y,
                                      z, mapStep, (uint16_t* const*)dstPlanes, step, roi,
                                      interpolation);
        default:
            return vekrRemap_32f_C1PV((const float* const*)srcPlanes, size, step, srcVOI, x, y, z,
                                      mapStep, (float* const*)dstPlanes, step, roi, interpolation);
    }
}

static int swirlVolume(const Operation* op, const Volume* src, void* const* srcPlanes, Volume* dst,
                       OperationTiming* timing)
{
    if (allocateLike(dst, src->type, src->width, src->height, src->depth) != 0) return -1;
    double lowest, highest;
    volumeRange(src, &lowest, &highest);
    fillVolume(dst, lowest);
    const Cuboid srcVOI = {0, 0, 0, src->width, src->height, src->depth};
    const int slab = slabDepth(dst->depth);
    const size_t planeVoxels = (size_t)dst->width * dst->height;
    void** dstPlanes = volumePlanePointers(dst);
    float* mapVoxels = malloc(3 * planeVoxels * slab * sizeof(float));
    float** mapPlanes = malloc(3 * (size_t)slab * sizeof(float*));
    int result = -1;
    if (dstPlanes == NULL || mapVoxels == NULL || mapPlanes == NULL) {
        fprintf(stderr, "out of memory for the coordinate maps of %d slices\n", slab);
        goto done;
    }
    for (int k = 0; k < 3 * slab; ++k)
        mapPlanes[k] = mapVoxels + (size_t)k * planeVoxels;
    float* const* maps[3] = {mapPlanes, mapPlanes + slab, mapPlanes + 2 * slab};
    const SlabJob job = {.op = op,
                         .src = src,
                         .srcPlanes = srcPlanes,
                         .srcVOI = srcVOI,
                         .dst = dst,
                         .dstPlanes = dstPlanes,
                         .maps = {maps[0], maps[1], maps[2]}};
    result = runInSlabs(&job, timing);
done:
    free(mapPlanes);
    free(mapVoxels);
    free(dstPlanes);
    return result;
}

/* --- Smoothing ------------------------------------------------------------------------ */

/* side^3 integer weights and their sum as the divisor. Box: all 1. Binomial: the products of
 * the rows of Pascal's triangle (2^(3 (side - 1)) in all), scaled to a sum near 2^16 when the
 * exact sum is larger, so that the divisor fits an int for every side. */
static int32_t* makeKernel(int side, int binomial, int* divisor)
{
    int32_t* kernel = malloc((size_t)side * side * side * sizeof *kernel);
    if (kernel == NULL) return NULL;
    double row[kMaxKernelSide];
    double rowSum = 0;
    for (int k = 0; k < side; ++k) {
        double c = 1; /* binomial coefficient (side - 1 choose k) */
        for (int j = 0; j < k; ++j)
            c = c * (side - 1 - j) / (j + 1);
        row[k] = binomial ? c : 1;
        rowSum += row[k];
    }
    const double total = rowSum * rowSum * rowSum;
    const double scale = total > 65536 ? 65536 / total : 1;
    int64_t sum = 0;
    size_t i = 0;
    for (int z = 0; z < side; ++z)
        for (int y = 0; y < side; ++y)
            for (int x = 0; x < side; ++x, ++i) {
                const double w = nearbyint(row[x] * row[y] * row[z] * scale);
                kernel[i] = (int32_t)(w > 0 ? w : 0);
                sum += kernel[i];
            }
    *divisor = (int)sum;
    return kernel;
}

/* The int16 volume with margin voxels on every side repeating its edge voxels. */
static int padEdges(const Volume* v, int margin, Volume* padded)
{
    if (allocateLike(padded, SampleInt16, v->width + 2 * margin, v->height + 2 * margin,
                     v->depth + 2 * margin) != 0)
        return -1;
    const int16_t* in = v->voxels;
    int16_t* out = padded->voxels;
    for (int z = 0; z < padded->depth; ++z) {
        const int sz = z - margin < 0 ? 0 : z - margin >= v->depth ? v->depth - 1 : z - margin;
        for (int y = 0; y < padded->height; ++y) {
            const int sy = y - margin < 0            ? 0
                           : y - margin >= v->height ? v->height - 1
                                                     : y - margin;
            const int16_t* row = in + ((size_t)sz * v->height + sy) * v->width;
            for (int x = 0; x < padded->width; ++x) {
                const int sx = x - margin < 0           ? 0
                               : x - margin >= v->width ? v->width - 1
                                                        : x - margin;
                *out++ = row[sx];
            }
        }
    }
    return 0;
}

/* Filters an int16 volume into dst (allocated here). The source handed to the library is the
 * padded copy, addressed from its first inner voxel: a margin of side - 1 on every side keeps
 * every tap of a kernel of that side inside the copy wherever its anchor lies. */
static int filterInt16(const Operation* op, const Volume* src, Volume* dst, OperationTiming* timing)
{
    const int side = op->kernelSide, margin = side - 1;
    Volume padded = {0};
    int divisor = 0;
    int32_t* kernel = makeKernel(side, op->binomial, &divisor);
    const int16_t** srcPlanes = NULL;
    int16_t** dstPlanes = NULL;
    uint8_t* buffer = NULL;
    int result = -1;
    if (kernel == NULL || padEdges(src, margin, &padded) != 0 ||
        allocateLike(dst, SampleInt16, src->width, src->height, src->depth) != 0)
        goto done;
    srcPlanes = malloc((size_t)padded.depth * sizeof *srcPlanes);
    dstPlanes = (int16_t**)volumePlanePointers(dst);
    if (srcPlanes == NULL || dstPlanes == NULL) {
        fprintf(stderr, "out of memory for plane pointers\n");
        goto done;
    }
    const size_t rowBytes = volumeRowBytes(&padded);
    for (int z = 0; z < padded.depth; ++z)
        srcPlanes[z] = (const int16_t*)((const unsigned char*)volumePlane(&padded, z) +
                                        margin * rowBytes + margin * sizeof(int16_t));
    const int slab = slabDepth(dst->depth);
    const VolumeSize kernelSize = {side, side, side};
    const VolumeSize first = {dst->width, dst->height, slab};
    int bytes = 0;
    if (checkStatus(vekrFilterGetBufSize(first, kernelSize, 1, &bytes), "vekrFilterGetBufSize"))
        goto done;
    if ((buffer = vekMalloc(bytes > 0 ? (size_t)bytes : 1)) == NULL) {
        fprintf(stderr, "out of memory for a %d-byte filter buffer\n", bytes);
        goto done;
    }
    const SlabJob job = {.op = op,
                         .dst = dst,
                         .dstPlanes = (void* const*)dstPlanes,
                         .buffer = buffer,
                         .filterPlanes = srcPlanes + margin,
                         .filterRowBytes = (int)rowBytes,
                         .kernel = kernel,
                         .divisor = divisor};
    result = runInSlabs(&job, timing);
done:
    if (result != 0) volumeRelease(dst);
    vekFree(buffer);
    free(dstPlanes);
    free(srcPlanes);
    volumeRelease(&padded);
    free(kernel);
    return result;
}

/* The filter reads int16: uint8 converts exactly, uint16 with an offset of -32768 (exact, and
 * the kernel's weights sum to the divisor, so the offset comes back out), float scaled from its
 * range onto -32000 .. 32000. */
static int smoothVolume(const Operation* op, const Volume* src, Volume* dst,
                        OperationTiming* timing)
{
    if (op->kernelSide < 1 || op->kernelSide > kMaxKernelSide) {
        fprintf(stderr, "smooth: kernel side %d outside 1 to %d\n", op->kernelSide, kMaxKernelSide);
        return -1;
    }
    if (src->type == SampleInt16) return filterInt16(op, src, dst, timing);
    double a = 1, b = 0;
    if (src->type == SampleUint16) b = -32768;
    if (src->type == SampleFloat) {
        double lowest, highest;
        volumeRange(src, &lowest, &highest);
        a = highest > lowest ? 64000 / (highest - lowest) : 1;
        b = -32000 - a * lowest;
        printf("smooth: float voxels scaled from [%g, %g] to 16 bits for the filter\n", lowest,
               highest);
    }
    Volume work = {0}, filtered = {0};
    int result = -1;
    if (allocateLike(&work, SampleInt16, src->width, src->height, src->depth) != 0) goto done;
    convertVoxels(src, &work, a, b);
    if (filterInt16(op, &work, &filtered, timing) != 0) goto done;
    if (allocateLike(dst, src->type, src->width, src->height, src->depth) != 0) goto done;
    convertVoxels(&filtered, dst, 1 / a, -b / a);
    result = 0;
done:
    volumeRelease(&filtered);
    volumeRelease(&work);
    return result;
}

/* --- One slab --------------------------------------------------------------------- */

static Status runSlab(const SlabJob* job, int z, int n)
{
    const Volume* dst = job->dst;
    const Operation* op = job->op;
    const Cuboid dstVOI = {0, 0, z, dst->width, dst->height, n};
    const VolumeSize roi = {dst->width, dst->height, n};
    switch (op->kind) {
        case OperationResize:
            return callResize(job->src, job->srcPlanes, job->srcVOI, dst, job->dstPlanes, dstVOI,
                              op->factors, op->interpolation, job->buffer);
        case OperationRotate:
            return callWarp(job->src, job->srcPlanes, job->srcVOI, job->dstPlanes, dstVOI,
                            job->coeffs, op->interpolation, job->buffer);
        case OperationSwirl: {
            float* const* maps[3] = {job->maps[0], job->maps[1], job->maps[2]};
            return callRemap(job->src, job->srcPlanes, job->srcVOI, maps,
                             dst->width * (int)sizeof(float), job->dstPlanes + z, roi,
                             op->interpolation);
        }
        default: {
            const int side = op->kernelSide, anchor = side / 2;
            const VolumeSize kernelSize = {side, side, side};
            return vekrFilter_16s_C1PV(job->filterPlanes + z, job->filterRowBytes,
                                       (int16_t* const*)job->dstPlanes + z,
                                       (int)volumeRowBytes(dst), roi, job->kernel, kernelSize,
                                       anchor, anchor, anchor, job->divisor, job->buffer);
        }
    }
}

/* --- Dispatch ------------------------------------------------------------------------- */

void describeOperation(const Operation* op, const char* interpolationName, char* text,
                       size_t textSize)
{
    switch (op->kind) {
        case OperationNone:
            snprintf(text, textSize, "none (copy)");
            break;
        case OperationResize:
            snprintf(text, textSize, "resize by %g, %g, %g (%s)", op->factors[0], op->factors[1],
                     op->factors[2], interpolationName);
            break;
        case OperationRotate:
            snprintf(text, textSize, "rotate by %g, %g, %g degrees about x, y, z (%s)",
                     op->angles[0], op->angles[1], op->angles[2], interpolationName);
            break;
        case OperationSwirl:
            snprintf(text, textSize, "swirl by %g degrees (%s)", op->strength, interpolationName);
            break;
        case OperationSmooth:
            snprintf(text, textSize, "smooth with a %d x %d x %d %s kernel", op->kernelSide,
                     op->kernelSide, op->kernelSide, op->binomial ? "binomial" : "box");
            break;
    }
}

int applyOperation(const Operation* op, const Volume* src, Volume* dst, OperationTiming* timing)
{
    timing->seconds = 0;
    timing->voxels = 0;
    if (op->kind == OperationNone) {
        if (allocateLike(dst, src->type, src->width, src->height, src->depth) != 0) return -1;
        memcpy(dst->voxels, src->voxels, volumeBytes(src));
        return 0;
    }
    if (op->kind == OperationSmooth) return smoothVolume(op, src, dst, timing);

    /* Resampling: int16 goes through uint16 with an offset of 32768. */
    Volume shifted = {0}, shiftedResult = {0};
    const Volume* in = src;
    Volume* out = dst;
    int result = -1;
    void** srcPlanes = NULL;
    if (src->type == SampleInt16) {
        if (allocateLike(&shifted, SampleUint16, src->width, src->height, src->depth) != 0)
            return -1;
        convertVoxels(src, &shifted, 1, 32768);
        in = &shifted;
        out = &shiftedResult;
    }
    if ((srcPlanes = volumePlanePointers(in)) == NULL) {
        fprintf(stderr, "out of memory for plane pointers\n");
        goto done;
    }
    const int ran = op->kind == OperationResize   ? resizeVolume(op, in, srcPlanes, out, timing)
                    : op->kind == OperationRotate ? rotateVolume(op, in, srcPlanes, out, timing)
                                                  : swirlVolume(op, in, srcPlanes, out, timing);
    if (ran != 0) {
        volumeRelease(out);
        goto done;
    }
    if (out != dst) {
        if (allocateLike(dst, SampleInt16, out->width, out->height, out->depth) != 0) goto done;
        convertVoxels(out, dst, 1, -32768);
    }
    result = 0;
done:
    free(srcPlanes);
    volumeRelease(&shiftedResult);
    volumeRelease(&shifted);
    return result;
}
