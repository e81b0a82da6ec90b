/* The per-block pipeline. Per block of pixels: eye-ray directions, nearest hits, hit points and
 * smooth normals turned towards the eye; an ambient term; then per point light a shadow ray to
 * every hit, traced for occlusion, and Lambert's cosine over the squared distance added to the
 * colour; a sky gradient behind. Hits on a mirror send a reflection ray from their hit point,
 * whose hits are shaded the same way, and so on for the bounces asked for; each generation of
 * rays adds its colour to the pixel with the weight the mirrors before it leave. The arithmetic
 * on the planes is the library's masked shading calls; the loops here only gather colours,
 * build the masks and write pixels. Every vekr call is reentrant, and each thread owns its
 * block planes. */
#include "block_pipeline.h"

#include <float.h>
#include <math.h>
#include <stddef.h>
#include <string.h>

#include "call_status.h"
#include "vekcore.h"
#include "vekr.h"

/* Ambient light, as fractions of the albedo: a constant level, and a fill that grows with the
 * squared cosine between normal and ray, so that shadowed objects keep their shape. */
static const float kAmbientLevel = 0.06f;
static const float kFillColour[3] = {0.10f, 0.11f, 0.13f}; /* a little bluish, as from the sky */
static const float kWhite[3] = {1.0f, 1.0f, 1.0f};

/* Hit points lie at this fraction of the ray's distance, in front of the surface by a
 * thousandth of the distance: enough that a shadow or reflection ray starting or ending there
 * does not meet the surface itself (no speckles of self-shadowing), too little to see. */
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

enum { kPlaneCount = 46, kLayerPlaneCount = 4 }; /* the planes of BlockPlanes, per layer */

void freePlanes(BlockPlanes* p)
{
    vekFree(p->memory);
    vekFree(p->layerMemory);
    memset(p, 0, sizeof *p);
}

int allocatePlanes(BlockPlanes* p, int blockSide, int layerCount)
{
    const size_t bytes = planeBytes(blockSide);
    memset(p, 0, sizeof *p);
    p->memory = vekMalloc(bytes * kPlaneCount);
    if (layerCount > 0) p->layerMemory = vekMalloc(bytes * kLayerPlaneCount * layerCount);
    if (p->memory == NULL || (layerCount > 0 && p->layerMemory == NULL)) {
        freePlanes(p);
        return -1;
    }
    unsigned char* next = p->memory;
    for (int k = 0; k < 3; ++k) {
        for (int set = 0; set < 2; ++set) {
            p->rayDir[set][k] = takePlane(&next, bytes);
            p->point[set][k] = takePlane(&next, bytes);
        }
        p->normal[k] = takePlane(&next, bytes);
        p->albedo[k] = takePlane(&next, bytes);
        p->colour[k] = takePlane(&next, bytes);
        p->pixel[k] = takePlane(&next, bytes);
        p->shadowDir[k] = takePlane(&next, bytes);
    }
    p->dist = takePlane(&next, bytes);
    p->hitUV[0] = takePlane(&next, bytes);
    p->hitUV[1] = takePlane(&next, bytes);
    p->triIndex = takePlane(&next, bytes);
    p->active = takePlane(&next, bytes);
    p->mask = takePlane(&next, bytes);
    p->mirrorMask = takePlane(&next, bytes);
    p->eyeDot = takePlane(&next, bytes);
    p->weight = takePlane(&next, bytes);
    p->blend = takePlane(&next, bytes);
    p->ownShare = takePlane(&next, bytes);
    p->reflectivity = takePlane(&next, bytes);
    p->ambientLevel = takePlane(&next, bytes);
    p->rayLength = takePlane(&next, bytes);
    p->fill = takePlane(&next, bytes);
    p->shadowMask = takePlane(&next, bytes);
    p->occluder = takePlane(&next, bytes);
    p->shadowDot = takePlane(&next, bytes);
    p->lightDistance = takePlane(&next, bytes);
    for (int i = 0; i < blockSide * blockSide; ++i) {
        p->ambientLevel[i] = kAmbientLevel;
        p->reflectivity[i] = kMirrorReflectivity;
    }
    if (layerCount > 0) {
        const size_t layerBytes = bytes * layerCount;
        next = p->layerMemory;
        p->layerCount = layerCount;
        p->layerDist = takePlane(&next, layerBytes);
        p->layerUV[0] = takePlane(&next, layerBytes);
        p->layerUV[1] = takePlane(&next, layerBytes);
        p->layerTri = takePlane(&next, layerBytes);
    }
    return 0;
}

static unsigned char encodeGamma(float linear)
{
    const float clamped = linear < 0.0f ? 0.0f : linear > 1.0f ? 1.0f : linear;
    return (unsigned char)(255.0f * powf(clamped, 1.0f / 2.2f) + 0.5f);
}

void skyColour(const Camera* camera, float dx, float dy, float dz, float rgb[3])
{
    const float height01 = (dx * camera->up[0] + dy * camera->up[1] + dz * camera->up[2]) /
                           sqrtf(dx * dx + dy * dy + dz * dz);
    const float t = height01 < 0.0f ? 0.0f : height01;
    rgb[0] = 0.75f - 0.55f * t;
    rgb[1] = 0.82f - 0.45f * t;
    rgb[2] = 0.92f - 0.22f * t;
}

/* Writes the masks of one generation and the albedo of every hit: mask 0 for an active ray
 * that hit, mirrorMask 0 for such a hit on a mirror when reflect is nonzero, -1 elsewhere (the
 * bitwise-masked calls take no other values); ownShare 1 - reflectivity for those mirror hits
 * and 1 for every other ray. Returns the number of hits; *mirrorHits gets those on mirrors. */
static int gatherSurfaces(const PreparedScene* scene, MaterialSet mirrors, int reflect,
                          BlockPlanes* p, int rayCount, int* mirrorHits)
{
    int hitCount = 0, mirrorCount = 0;
    for (int i = 0; i < rayCount; ++i) {
        const int32_t triangle = p->triIndex[i];
        static const float kNoSurface[3] = {0, 0, 0};
        const float* albedo = kNoSurface;
        int hit = 0, mirror = 0;
        if (p->active[i] == 0 && triangle >= 0) {
            const unsigned material =
                (unsigned)scene->mesh.triangles[(size_t)triangle * 4 + 3] % SceneMaterialCount;
            albedo = kMaterialColour[material];
            hit = 1;
            mirror = reflect && (mirrors >> material & 1u);
        }
        hitCount += hit;
        mirrorCount += mirror;
        p->mask[i] = hit ? 0 : -1;
        p->mirrorMask[i] = mirror ? 0 : -1;
        p->ownShare[i] = mirror ? 1.0f - kMirrorReflectivity : 1.0f;
        for (int k = 0; k < 3; ++k)
            p->albedo[k][i] = albedo[k];
    }
    *mirrorHits = mirrorCount;
    return hitCount;
}

/* Sets colour = albedo * (level + fill colour * cos^2), with cos the cosine between the normal
 * and the ray; misses get 0. */
static int shadeAmbient(BlockPlanes* p, const float* const direction[3], int rayCount)
{
    const size_t bytes = (size_t)rayCount * sizeof(float);
    const float* const albedo[3] = {p->albedo[0], p->albedo[1], p->albedo[2]};
    const float zero[3] = {0, 0, 0};
    for (int k = 0; k < 3; ++k)
        memcpy(p->colour[k], p->albedo[k], bytes);
    memcpy(p->fill, p->eyeDot, bytes);
    /* The normals have unit length, so cos^2 = eyeDot^2 / |direction|^2, with |direction| the
     * distance of the point `direction` from the origin. Eye-ray directions are at least 1 long
     * (the image plane lies at distance 1 from the eye, so the clamp at 1 changes nothing), a
     * reflection keeps the length of its incident ray, and a miss gets 1.0: the divisions
     * never meet a zero. */
    if (checkStatus(vekrMul_32f_C1P3IM(p->ambientLevel, p->mask, p->colour, rayCount),
                    "vekrMul_32f_C1P3IM") ||
        checkStatus(vekrDistAttenuationSO_32f_M(zero, direction, p->mask, p->rayLength, rayCount),
                    "vekrDistAttenuationSO_32f_M") ||
        checkStatus(vekrMul_32f_C1IM(p->eyeDot, p->mask, p->fill, rayCount), "vekrMul_32f_C1IM") ||
        checkStatus(vekrDiv_32f_C1IM(p->rayLength, p->mask, p->fill, rayCount),
                    "vekrDiv_32f_C1IM") ||
        checkStatus(vekrDiv_32f_C1IM(p->rayLength, p->mask, p->fill, rayCount), "vekrDiv_32f_C1IM"))
        return -1;
    return checkStatus(
        vekrAddMulMul_32f_AC1P3IM(kFillColour, p->fill, albedo, p->mask, p->colour, rayCount),
        "vekrAddMulMul_32f_AC1P3IM");
}

/* Adds one point light's contribution, intensity * albedo * cos / d^2, to the colour of every
 * hit point it reaches; counts the shadow rays traced into *shadowRays. */
static int shadeLight(const PreparedScene* scene, const PointLight* light, int shadows,
                      BlockPlanes* p, const float* const hitPoint[3], int width, int height,
                      int* shadowRays)
{
    const int rayCount = width * height;
    const float* const normal[3] = {p->normal[0], p->normal[1], p->normal[2]};
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

/* Shades generation g of the block's rays (0: the eye rays; then the reflection rays of bounce
 * g), whose nearest hits are in dist, hitUV and triIndex, and adds its share to the pixels:
 * weight * ownShare times the lit colour of a hit or the sky of a miss. Returns the number of
 * hits on mirrors that reflect a further ray, or -1 after reporting a failed call. */
static int shadeGeneration(const PreparedScene* scene, const Camera* camera,
                           const Lighting* lighting, const Mirrors* mirrors, BlockPlanes* p,
                           const BlockRect* rect, int generation, BlockCounts* counts)
{
    const int rayCount = rect->rayCount;
    float* const* dir = p->rayDir[generation % 2];
    float* const* point = p->point[generation % 2];
    const float* const direction[3] = {dir[0], dir[1], dir[2]};
    const float* const hitPoint[3] = {point[0], point[1], point[2]};
    const float* const hitUV[2] = {p->hitUV[0], p->hitUV[1]};
    const float* const colour[3] = {p->colour[0], p->colour[1], p->colour[2]};
    int mirrorHits = 0;
    const int hits = gatherSurfaces(scene, mirrors->materials, generation < mirrors->bounces, p,
                                    rayCount, &mirrorHits);
    if (generation == 0)
        counts->hits = hits;
    else
        counts->reflectionHits += hits;
    Status status;
    if (generation == 0) {
        status = vekrHitPoint3DEpsS0_32f_M(camera->eye, direction, p->dist, p->mask, point,
                                           rayCount, kHitPointEps);
    } else {
        /* A reflection ray starts at the hit point of the ray it continues. */
        float* const* from = p->point[(generation + 1) % 2];
        const float* const origin[3] = {from[0], from[1], from[2]};
        status = vekrHitPoint3DEpsM0_32f_M(origin, direction, p->dist, p->mask, point, rayCount,
                                           kHitPointEps);
    }
    if (checkStatus(status, generation == 0 ? "vekrHitPoint3DEpsS0_32f_M"
                                            : "vekrHitPoint3DEpsM0_32f_M") != 0 ||
        checkStatus(vekrSurfSmoothNormal_32f(scene->cornerNormals, scene->normalIndices,
                                             p->triIndex, hitUV, p->normal, rayCount, 4),
                    "vekrSurfSmoothNormal_32f") != 0 ||
        checkStatus(vekrDotChangeNorm_32f_IM(direction, p->mask, p->normal, p->eyeDot, rayCount),
                    "vekrDotChangeNorm_32f_IM") != 0 ||
        shadeAmbient(p, direction, rayCount) != 0)
        return -1;
    for (int l = 0; l < lighting->lightCount; ++l)
        if (shadeLight(scene, &lighting->lights[l], lighting->shadows, p, hitPoint, rect->width,
                       rect->height, &counts->shadowRays) != 0)
            return -1;
    for (int i = 0; i < rayCount; ++i)
        if (p->active[i] == 0 && p->mask[i] != 0) {
            float sky[3];
            skyColour(camera, dir[0][i], dir[1][i], dir[2][i], sky);
            for (int k = 0; k < 3; ++k)
                p->colour[k][i] = sky[k];
        }
    memcpy(p->blend, p->weight, (size_t)rayCount * sizeof(float));
    if (checkStatus(vekrMul_32f_C1IM(p->ownShare, p->active, p->blend, rayCount),
                    "vekrMul_32f_C1IM") != 0 ||
        checkStatus(
            vekrAddMulMul_32f_AC1P3IM(kWhite, p->blend, colour, p->active, p->pixel, rayCount),
            "vekrAddMulMul_32f_AC1P3IM") != 0)
        return -1;
    return mirrorHits;
}

/* Sends a reflection ray from every mirror hit of generation g, with the normal turned towards
 * the incoming ray, and traces them: they become the active rays of generation g + 1, with
 * reflectivity times the weight of the ray they continue. Returns 0, or -1 after reporting a
 * failed call. */
static int castReflections(const PreparedScene* scene, BlockPlanes* p, const BlockRect* rect,
                           int generation)
{
    const int rayCount = rect->rayCount;
    float* const* in = p->rayDir[generation % 2];
    float* const* out = p->rayDir[(generation + 1) % 2];
    float* const* from = p->point[generation % 2];
    const float* const incident[3] = {in[0], in[1], in[2]};
    const float* const reflected[3] = {out[0], out[1], out[2]};
    const float* const origin[3] = {from[0], from[1], from[2]};
    const float* const normal[3] = {p->normal[0], p->normal[1], p->normal[2]};
    if (checkStatus(vekrMul_32f_C1IM(p->reflectivity, p->mirrorMask, p->weight, rayCount),
                    "vekrMul_32f_C1IM") != 0 ||
        checkStatus(vekrCastReflectionRay_32f(incident, p->mirrorMask, normal, out, rayCount),
                    "vekrCastReflectionRay_32f") != 0)
        return -1;
    /* Misses keep their dist, so every ray starts from the largest float. The rays of other
     * pixels get 0 instead: no hit can lie nearer than that, so they end at once. */
    for (int i = 0; i < rayCount; ++i) {
        p->active[i] = p->mirrorMask[i];
        p->dist[i] = p->mirrorMask[i] == 0 ? FLT_MAX : 0.0f;
    }
    return checkStatus(vekrIntersectMO_32f(origin, reflected, p->dist, p->hitUV, p->triIndex,
                                           &scene->context, rect->width, rect->height),
                       "vekrIntersectMO_32f");
}

void writePixels(const BlockPlanes* p, const BlockRect* rect, int imageWidth, unsigned char* image)
{
    for (int row = 0; row < rect->height; ++row) {
        unsigned char* out = image + ((size_t)(rect->top + row) * imageWidth + rect->left) * 3;
        for (int column = 0; column < rect->width; ++column, out += 3) {
            const int i = row * rect->width + column;
            for (int k = 0; k < 3; ++k)
                out[k] = encodeGamma(p->pixel[k][i]);
        }
    }
}

int castEyeRays(const Camera* camera, BlockPlanes* p, int blockSide, int blockX, int blockY,
                int imageWidth, int imageHeight, BlockRect* rect)
{
    rect->left = blockX * blockSide;
    rect->top = blockY * blockSide;
    rect->width = imageWidth - rect->left < blockSide ? imageWidth - rect->left : blockSide;
    rect->height = imageHeight - rect->top < blockSide ? imageHeight - rect->top : blockSide;
    rect->rayCount = rect->width * rect->height;
    const Size2D cell = {blockSide, blockSide}, size = {rect->width, rect->height};
    /* The library planes are packed at the block's own width, so an edge block's planes
     * are simply shorter. */
    return checkStatus(vekrCastEye_32f(camera->planeOrigin, camera->stepX, camera->stepY, blockX,
                                       blockY, cell, p->rayDir[0], size),
                       "vekrCastEye_32f");
}

int traceBlock(const PreparedScene* scene, const Camera* camera, const Lighting* lighting,
               const Mirrors* mirrors, BlockPlanes* p, int blockSide, int blockX, int blockY,
               int imageWidth, int imageHeight, unsigned char* image, BlockCounts* counts)
{
    BlockRect rect;
    memset(counts, 0, sizeof *counts);
    if (castEyeRays(camera, p, blockSide, blockX, blockY, imageWidth, imageHeight, &rect) != 0)
        return -1;
    const int rayCount = rect.rayCount;
    for (int i = 0; i < rayCount; ++i) {
        p->dist[i] = FLT_MAX;
        p->active[i] = 0;
        p->weight[i] = 1.0f;
        for (int k = 0; k < 3; ++k)
            p->pixel[k][i] = 0.0f;
    }
    const float* const direction[3] = {p->rayDir[0][0], p->rayDir[0][1], p->rayDir[0][2]};
    if (checkStatus(vekrIntersectEyeSO_32f(camera->eye, direction, p->dist, p->hitUV, p->triIndex,
                                           &scene->context, rect.width, rect.height),
                    "vekrIntersectEyeSO_32f") != 0)
        return -1;
    for (int generation = 0;; ++generation) {
        const int mirrorHits =
            shadeGeneration(scene, camera, lighting, mirrors, p, &rect, generation, counts);
        if (mirrorHits < 0) return -1;
        if (mirrorHits == 0) break; /* always so once the bounces are used up */
        if (castReflections(scene, p, &rect, generation) != 0) return -1;
        counts->reflectionRays += mirrorHits;
    }
    writePixels(p, &rect, imageWidth, image);
    return 0;
}
