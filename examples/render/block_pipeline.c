/* The per-block pipeline. Per block of pixels: eye-ray directions, nearest hits, normals
 * interpolated at the hits, then a headlight (a light at the eye) and a sky gradient behind.
 * Every vekr call is reentrant, and each thread owns its block planes. */
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

void freePlanes(BlockPlanes* p)
{
    for (int k = 0; k < 3; ++k)
        vekFree(p->direction[k]);
    for (int k = 0; k < 3; ++k)
        vekFree(p->normal[k]);
    vekFree(p->hitUV[0]);
    vekFree(p->hitUV[1]);
    vekFree(p->dist);
    vekFree(p->triIndex);
    memset(p, 0, sizeof *p);
}

int allocatePlanes(BlockPlanes* p, int blockSide)
{
    const size_t bytes = (size_t)blockSide * blockSide * 4;
    memset(p, 0, sizeof *p);
    for (int k = 0; k < 3; ++k)
        p->direction[k] = vekMalloc(bytes);
    for (int k = 0; k < 3; ++k)
        p->normal[k] = vekMalloc(bytes);
    p->hitUV[0] = vekMalloc(bytes);
    p->hitUV[1] = vekMalloc(bytes);
    p->dist = vekMalloc(bytes);
    p->triIndex = vekMalloc(bytes);
    int ok = p->dist != NULL && p->triIndex != NULL && p->hitUV[0] != NULL && p->hitUV[1] != NULL;
    for (int k = 0; k < 3; ++k)
        ok = ok && p->direction[k] != NULL && p->normal[k] != NULL;
    if (!ok) freePlanes(p);
    return ok ? 0 : -1;
}

static unsigned char encodeGamma(float linear)
{
    const float clamped = linear < 0.0f ? 0.0f : linear > 1.0f ? 1.0f : linear;
    return (unsigned char)(255.0f * powf(clamped, 1.0f / 2.2f) + 0.5f);
}

/* Colours one block from its rays, hits and normals into the RGB image; returns the number of
 * rays that hit. */
static int shadeBlock(const PreparedScene* scene, const Camera* camera, const BlockPlanes* p,
                      int left, int top, int width, int height, int imageWidth,
                      unsigned char* image)
{
    const float ambient = 0.18f;
    int hitCount = 0;
    for (int row = 0; row < height; ++row) {
        unsigned char* out = image + ((size_t)(top + row) * imageWidth + left) * 3;
        for (int column = 0; column < width; ++column, out += 3) {
            const int i = row * width + column;
            const float dx = p->direction[0][i], dy = p->direction[1][i], dz = p->direction[2][i];
            const float invLength = 1.0f / sqrtf(dx * dx + dy * dy + dz * dz);
            float rgb[3];
            const int32_t triangle = p->triIndex[i];
            if (triangle < 0) {
                /* Sky: pale at the horizon, deeper blue overhead. */
                const float height01 =
                    (dx * camera->up[0] + dy * camera->up[1] + dz * camera->up[2]) * invLength;
                const float t = height01 < 0.0f ? 0.0f : height01;
                rgb[0] = 0.75f - 0.55f * t;
                rgb[1] = 0.82f - 0.45f * t;
                rgb[2] = 0.92f - 0.22f * t;
            } else {
                ++hitCount;
                const int material = scene->mesh.triangles[(size_t)triangle * 4 + 3];
                const float* base = kMaterialColour[(unsigned)material % SceneMaterialCount];
                /* The light sits at the eye, so the light and view directions coincide; the
                 * absolute value lights back faces of open meshes too. */
                const float facing =
                    fabsf(p->normal[0][i] * dx + p->normal[1][i] * dy + p->normal[2][i] * dz) *
                    invLength;
                const float diffuse = ambient + (1.0f - ambient) * facing;
                const float f2 = facing * facing, f4 = f2 * f2, f8 = f4 * f4, f16 = f8 * f8;
                const float highlight = 0.25f * f16 * f16; /* facing^32 */
                for (int k = 0; k < 3; ++k)
                    rgb[k] = base[k] * diffuse + highlight;
            }
            for (int k = 0; k < 3; ++k)
                out[k] = encodeGamma(rgb[k]);
        }
    }
    return hitCount;
}

int traceBlock(const PreparedScene* scene, const Camera* camera, BlockPlanes* p, int blockSide,
               int blockX, int blockY, int imageWidth, int imageHeight, unsigned char* image)
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
    const float* const hitUV[2] = {p->hitUV[0], p->hitUV[1]};
    if (checkStatus(vekrSurfSmoothNormal_32f(scene->cornerNormals, scene->normalIndices,
                                             p->triIndex, hitUV, p->normal, rayCount, 4),
                    "vekrSurfSmoothNormal_32f") != 0)
        return -1;
    return shadeBlock(scene, camera, p, left, top, width, height, imageWidth, image);
}
