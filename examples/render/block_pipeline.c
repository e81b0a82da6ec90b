/* The per-block pipeline. Per block of pixels: eye-ray directions, nearest hits, hit points and
 * smooth normals turned towards the eye; an ambient term; then per point light a shadow ray to
 * every hit, traced for occlusion, and Lambert's cosine over the squared distance added to the
 * colour; a sky gradient behind. The arithmetic on the planes is the library's masked shading
 * calls; the loops here only gather colours, build the mask and write pixels. Every vekr call
 * is reentrant, and each thread owns its block planes. */
#include "block_pipeline.h"

#include <float.h>
#include <math.h>
#include <stddef.h>
#include <string.h>

#include "call_status.h"
#include "vekcore.h"
#include "vekr.h"

/* Linear RGB of each SceneMaterial. */
static const float kMaterialColour[SceneMaterialCount][3] = {
    {0.70f, 0.62f, 0.52f}, /* loaded meshes: clay */
    {0.75f, 0.75f, 0.72f}, /* ground, light squares */
    {0.30f, 0.31f, 0.33f}, /* ground, dark squares */
    {0.80f, 0.12f, 0.10f}, /* sphere */
    {0.85f, 0.60f, 0.10f}, /* torus */
    {0.12f, 0.30f, 0.80f}, /* box */
    {0.15f, 0.60f, 0.20f}, /* cylinder */
    {0.55f, 0.20f, 0.70f}, /* cone */
    {0.10f, 0.65f, 0.65f}, /* bumpy sphere */
};

/* Ambient light, as fractions of the albedo: a constant level, and a fill that grows with the
 * squared cosine between normal and eye ray, so that shadowed objects keep their shape. */
static const float kAmbientLevel = 0.06f;
static const float kFillColour[3] = {0.10f, 0.11f, 0.13f}; /* a little bluish, as from the sky */

/* Hit points lie at this fraction of the eye-ray distance, in front of the surface by a
 * thousandth of the distance: enough that a shadow ray ending there does not meet the surface
 * itself (no speckles of self-shadowing), too little to see. */
static const float kHitPointEps = 0.999f;

/* One plane of blockSide^2 elements, rounded up to keep the next plane 64-byte aligned. */
static size_t planeBytes(int blockSide)
{
    return ((size_t)blockSide * blockSide * 4 + 63) / 64 * 64;
}

/* Hands out the next plane of the allocation. */
static void* takePlane(unsigned char** next, size_t bytes)
{
    void* plane = *next;
    *next += bytes;
    return plane;
}

enum { kPlaneCount = 31 }; /* the planes of BlockPlanes */

void freePlanes(BlockPlanes* p)
{
    vekFree(p->memory);
    memset(p, 0, sizeof *p);
}

int allocatePlanes(BlockPlanes* p, int blockSide)
{
    const size_t bytes = planeBytes(blockSide);
    memset(p, 0, sizeof *p);
    p->memory = vekMalloc(bytes * kPlaneCount);
    if (p->memory == NULL) return -1;
    unsigned char* next = p->memory;
    for (int k = 0; k < 3; ++k) {
        p->direction[k] = takePlane(&next, bytes);
        p->hitPoint[k] = takePlane(&next, bytes);
        p->normal[k] = takePlane(&next, bytes);
        p->albedo[k] = takePlane(&next, bytes);
        p->colour[k] = takePlane(&next, bytes);
        p->shadowDir[k] = takePlane(&next, bytes);
    }
    p->dist = takePlane(&next, bytes);
    p->hitUV[0] = takePlane(&next, bytes);
    p->hitUV[1] = takePlane(&next, bytes);
    p->triIndex = takePlane(&next, bytes);
    p->mask = takePlane(&next, bytes);
    p->eyeDot = takePlane(&next, bytes);
    p->ambientLevel = takePlane(&next, bytes);
    p->eyeLength = takePlane(&next, bytes);
    p->fill = takePlane(&next, bytes);
    p->shadowMask = takePlane(&next, bytes);
    p->occluder = takePlane(&next, bytes);
    p->shadowDot = takePlane(&next, bytes);
    p->lightDistance = takePlane(&next, bytes);
    for (int i = 0; i < blockSide * blockSide; ++i)
        p->ambientLevel[i] = kAmbientLevel;
    return 0;
}

static unsigned char encodeGamma(float linear)
{
    const float clamped = linear < 0.0f ? 0.0f : linear > 1.0f ? 1.0f : linear;
    return (unsigned char)(255.0f * powf(clamped, 1.0f / 2.2f) + 0.5f);
}

/* Writes the mask (0 for a hit, -1 for a miss: the bitwise-masked calls take no other values)
 * and the albedo of every hit; returns the number of hits. */
static int gatherSurfaces(const PreparedScene* scene, BlockPlanes* p, int rayCount)
{
    int hitCount = 0;
    for (int i = 0; i < rayCount; ++i) {
        const int32_t triangle = p->triIndex[i];
        static const float kNoSurface[3] = {0, 0, 0};
        const float* albedo = kNoSurface;
        if (triangle >= 0) {
            const int material = scene->mesh.triangles[(size_t)triangle * 4 + 3];
            albedo = kMaterialColour[(unsigned)material % SceneMaterialCount];
            ++hitCount;
        }
        p->mask[i] = triangle >= 0 ? 0 : -1;
        for (int k = 0; k < 3; ++k)
            p->albedo[k][i] = albedo[k];
    }
    return hitCount;
}

/* Sets colour = albedo * (level + fill colour * cos^2), with cos the cosine between the normal
 * and the eye ray; misses get 0. */
static int shadeAmbient(BlockPlanes* p, int rayCount)
{
    const size_t bytes = (size_t)rayCount * sizeof(float);
    const float* const direction[3] = {p->direction[0], p->direction[1], p->direction[2]};
    const float* const albedo[3] = {p->albedo[0], p->albedo[1], p->albedo[2]};
    const float zero[3] = {0, 0, 0};
    for (int k = 0; k < 3; ++k)
        memcpy(p->colour[k], p->albedo[k], bytes);
    memcpy(p->fill, p->eyeDot, bytes);
    /* The normals have unit length, so cos^2 = eyeDot^2 / |direction|^2, with |direction| the
     * distance of the point `direction` from the origin. Directions are at least 1 long (the
     * image plane lies at distance 1 from the eye, so the clamp at 1 changes nothing) and a miss
     * gets 1.0: the divisions never meet a zero. */
    if (checkStatus(vekrMul_32f_C1P3IM(p->ambientLevel, p->mask, p->colour, rayCount),
                    "vekrMul_32f_C1P3IM") ||
        checkStatus(vekrDistAttenuationSO_32f_M(zero, direction, p->mask, p->eyeLength, rayCount),
                    "vekrDistAttenuationSO_32f_M") ||
        checkStatus(vekrMul_32f_C1IM(p->eyeDot, p->mask, p->fill, rayCount), "vekrMul_32f_C1IM") ||
        checkStatus(vekrDiv_32f_C1IM(p->eyeLength, p->mask, p->fill, rayCount),
                    "vekrDiv_32f_C1IM") ||
        checkStatus(vekrDiv_32f_C1IM(p->eyeLength, p->mask, p->fill, rayCount), "vekrDiv_32f_C1IM"))
        return -1;
    return checkStatus(
        vekrAddMulMul_32f_AC1P3IM(kFillColour, p->fill, albedo, p->mask, p->colour, rayCount),
        "vekrAddMulMul_32f_AC1P3IM");
}

/* Adds one point light's contribution, intensity * albedo * cos / d^2, to the colour of every
 * point it reaches; counts the shadow rays traced into *shadowRays. */
static int shadeLight(const PreparedScene* scene, const PointLight* light, int shadows,
                      BlockPlanes* p, int width, int height, int* shadowRays)
{
    const int rayCount = width * height;
    const float* const normal[3] = {p->normal[0], p->normal[1], p->normal[2]};
    const float* const hitPoint[3] = {p->hitPoint[0], p->hitPoint[1], p->hitPoint[2]};
    const float* const shadowDir[3] = {p->shadowDir[0], p->shadowDir[1], p->shadowDir[2]};
    const float* const albedo[3] = {p->albedo[0], p->albedo[1], p->albedo[2]};
    const float colour[3] = {light->intensity, light->intensity, light->intensity};
    memcpy(p->shadowMask, p->mask, (size_t)rayCount * sizeof(int32_t));
    /* Points on the far side of their surface from the light leave the shadow mask here. */
    if (checkStatus(vekrCastShadowSO_32f(light->position, p->eyeDot, normal, hitPoint,
                                         p->shadowMask, p->shadowDot, p->shadowDir, rayCount),
                    "vekrCastShadowSO_32f") != 0)
        return -1;
    if (shadows) {
        for (int i = 0; i < rayCount; ++i)
            *shadowRays += p->shadowMask[i] == 0;
        /* The light is the common origin; each segment ends at its hit point. */
        if (checkStatus(vekrIntersectAnySO_32f(light->position, shadowDir, p->occluder,
                                               p->shadowMask, width, height, &scene->context),
                        "vekrIntersectAnySO_32f") != 0)
            return -1;
    }
    /* shadowDot = d cos for unit normals; divided by d three times it is cos / d^2, the
     * inverse-square falloff of a point light. The library clamps d below at 1, so a point
     * nearer to the light than 1 gets at most the light's intensity. */
    if (checkStatus(vekrDistAttenuationSO_32f_M(light->position, hitPoint, p->shadowMask,
                                                p->lightDistance, rayCount),
                    "vekrDistAttenuationSO_32f_M") != 0)
        return -1;
    for (int division = 0; division < 3; ++division)
        if (checkStatus(vekrDiv_32f_C1IM(p->lightDistance, p->shadowMask, p->shadowDot, rayCount),
                        "vekrDiv_32f_C1IM") != 0)
            return -1;
    return checkStatus(
        vekrAddMulMul_32f_AC1P3IM(colour, p->shadowDot, albedo, p->shadowMask, p->colour, rayCount),
        "vekrAddMulMul_32f_AC1P3IM");
}

/* Writes the block's pixels: the colour of every hit, the sky for every miss. */
static void writePixels(const Camera* camera, const BlockPlanes* p, int left, int top, int width,
                        int height, int imageWidth, unsigned char* image)
{
    for (int row = 0; row < height; ++row) {
        unsigned char* out = image + ((size_t)(top + row) * imageWidth + left) * 3;
        for (int column = 0; column < width; ++column, out += 3) {
            const int i = row * width + column;
            float rgb[3] = {p->colour[0][i], p->colour[1][i], p->colour[2][i]};
            if (p->triIndex[i] < 0) {
                /* Sky: pale at the horizon, deeper blue overhead. */
                const float dx = p->direction[0][i], dy = p->direction[1][i],
                            dz = p->direction[2][i];
                const float height01 =
                    (dx * camera->up[0] + dy * camera->up[1] + dz * camera->up[2]) /
                    sqrtf(dx * dx + dy * dy + dz * dz);
                const float t = height01 < 0.0f ? 0.0f : height01;
                rgb[0] = 0.75f - 0.55f * t;
                rgb[1] = 0.82f - 0.45f * t;
                rgb[2] = 0.92f - 0.22f * t;
            }
            for (int k = 0; k < 3; ++k)
                out[k] = encodeGamma(rgb[k]);
        }
    }
}

int traceBlock(const PreparedScene* scene, const Camera* camera, const Lighting* lighting,
               BlockPlanes* p, int blockSide, int blockX, int blockY, int imageWidth,
               int imageHeight, unsigned char* image, BlockCounts* counts)
{
    const int left = blockX * blockSide, top = blockY * blockSide;
    const int width = imageWidth - left < blockSide ? imageWidth - left : blockSide;
    const int height = imageHeight - top < blockSide ? imageHeight - top : blockSide;
    const int rayCount = width * height;
    const Size2D cell = {blockSide, blockSide}, size = {width, height};
    /* The library planes are packed at the block's own width, so an edge block's planes
     * are simply shorter. */
    if (checkStatus(vekrCastEye_32f(camera->planeOrigin, camera->stepX, camera->stepY, blockX,
                                    blockY, cell, p->direction, size),
                    "vekrCastEye_32f") != 0)
        return -1;
    for (int i = 0; i < rayCount; ++i)
        p->dist[i] = FLT_MAX;
    const float* const direction[3] = {p->direction[0], p->direction[1], p->direction[2]};
    if (checkStatus(vekrIntersectEyeSO_32f(camera->eye, direction, p->dist, p->hitUV, p->triIndex,
                                           &scene->context, width, height),
                    "vekrIntersectEyeSO_32f") != 0)
        return -1;
    counts->hits = gatherSurfaces(scene, p, rayCount);
    counts->shadowRays = 0;
    const float* const hitUV[2] = {p->hitUV[0], p->hitUV[1]};
    if (checkStatus(vekrHitPoint3DEpsS0_32f_M(camera->eye, direction, p->dist, p->mask, p->hitPoint,
                                              rayCount, kHitPointEps),
                    "vekrHitPoint3DEpsS0_32f_M") != 0 ||
        checkStatus(vekrSurfSmoothNormal_32f(scene->cornerNormals, scene->normalIndices,
                                             p->triIndex, hitUV, p->normal, rayCount, 4),
                    "vekrSurfSmoothNormal_32f") != 0 ||
        checkStatus(vekrDotChangeNorm_32f_IM(direction, p->mask, p->normal, p->eyeDot, rayCount),
                    "vekrDotChangeNorm_32f_IM") != 0 ||
        shadeAmbient(p, rayCount) != 0)
        return -1;
    for (int l = 0; l < lighting->lightCount; ++l)
        if (shadeLight(scene, &lighting->lights[l], lighting->shadows, p, width, height,
                       &counts->shadowRays) != 0)
            return -1;
    writePixels(camera, p, left, top, width, height, imageWidth, image);
    return 0;
}
