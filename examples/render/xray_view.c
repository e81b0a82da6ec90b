/* The x-ray view. vekrIntersectMultipleSO_32f finds the successive surfaces along each eye ray;
 * layer by layer, front to back, each surface adds its material colour in the share of light
 * still coming through, and keeps back a part of what lies behind it. Surfaces seen edge-on
 * are more opaque and brighter than those seen face-on, so outlines stand out, and a pixel
 * grows brighter with every surface its ray crosses. */
#include "xray_view.h"

#include <float.h>
#include <string.h>

#include "call_status.h"
#include "materials.h"
#include "vekr.h"

/* Opacity of a surface: kFaceOnOpacity seen face-on, rising with (1 - cos)^2 towards
 * kFaceOnOpacity + kEdgeOnOpacity seen edge-on, with cos between the normal and the ray. */
static const float kFaceOnOpacity = 0.22f;
static const float kEdgeOnOpacity = 0.6f;
/* Glow of a surface, as a multiple of its albedo: a base, and more edge-on. */
static const float kGlowBase = 0.55f;
static const float kGlowEdgeOn = 1.1f;
static const float kBackground[3] = {0.012f, 0.016f, 0.03f}; /* nearly black, a little blue */
static const float kWhite[3] = {1.0f, 1.0f, 1.0f};

/* Writes mask and albedo for one layer's hits (mask 0 for a hit, -1 elsewhere); returns the
 * number of hits. */
static int gatherLayer(const PreparedScene* scene, const int32_t* triIndex, BlockPlanes* p,
                       int rayCount)
{
    int hitCount = 0;
    for (int i = 0; i < rayCount; ++i) {
        const int32_t triangle = triIndex[i];
        static const float kNoSurface[3] = {0, 0, 0};
        const float* albedo = kNoSurface;
        if (triangle >= 0) {
            const unsigned material =
                (unsigned)scene->mesh.triangles[(size_t)triangle * 4 + 3] % SceneMaterialCount;
            albedo = kMaterialColour[material];
            ++hitCount;
        }
        p->mask[i] = triangle >= 0 ? 0 : -1;
        for (int k = 0; k < 3; ++k)
            p->albedo[k][i] = albedo[k];
    }
    return hitCount;
}

int traceXrayBlock(const PreparedScene* scene, const Camera* camera, BlockPlanes* p, int blockSide,
                   int blockX, int blockY, int imageWidth, int imageHeight, unsigned char* image,
                   BlockCounts* counts)
{
    BlockRect rect;
    memset(counts, 0, sizeof *counts);
    if (castEyeRays(camera, p, blockSide, blockX, blockY, imageWidth, imageHeight, &rect) != 0)
        return -1;
    const int rayCount = rect.rayCount;
    const float* const direction[3] = {p->rayDir[0][0], p->rayDir[0][1], p->rayDir[0][2]};
    float* const hitUV[2] = {p->layerUV[0], p->layerUV[1]};
    /* The library stacks the layers at the block's own size: layer k of ray i is element
     * k * rayCount + i. Only layer 0 of dist is read, as the rays' maximum distance. */
    for (int i = 0; i < rayCount; ++i) {
        p->layerDist[i] = FLT_MAX;
        p->weight[i] = 1.0f; /* the share of light still coming through */
        for (int k = 0; k < 3; ++k)
            p->pixel[k][i] = 0.0f;
    }
    if (checkStatus(
            vekrIntersectMultipleSO_32f(camera->eye, direction, p->layerDist, hitUV, p->layerTri,
                                        rect.width, rect.height, p->layerCount, &scene->context),
            "vekrIntersectMultipleSO_32f") != 0)
        return -1;
    const float zero[3] = {0, 0, 0};
    const float* const albedo[3] = {p->albedo[0], p->albedo[1], p->albedo[2]};
    for (int layer = 0; layer < p->layerCount; ++layer) {
        const int32_t* triIndex = p->layerTri + (size_t)layer * rayCount;
        const float* const layerUV[2] = {p->layerUV[0] + (size_t)layer * rayCount,
                                         p->layerUV[1] + (size_t)layer * rayCount};
        const int hits = gatherLayer(scene, triIndex, p, rayCount);
        if (layer == 0) counts->hits = hits;
        counts->crossings += hits;
        if (hits == 0) break; /* a ray's layers end at its last surface */
        counts->mostCrossings = layer + 1;
        /* fill = eyeDot / |direction| = -cos for the unit normals turned towards the eye. */
        if (checkStatus(vekrSurfSmoothNormal_32f(scene->cornerNormals, scene->normalIndices,
                                                 triIndex, layerUV, p->normal, rayCount, 4),
                        "vekrSurfSmoothNormal_32f") != 0 ||
            checkStatus(
                vekrDotChangeNorm_32f_IM(direction, p->mask, p->normal, p->eyeDot, rayCount),
                "vekrDotChangeNorm_32f_IM") != 0 ||
            checkStatus(
                vekrDistAttenuationSO_32f_M(zero, direction, p->mask, p->rayLength, rayCount),
                "vekrDistAttenuationSO_32f_M") != 0)
            return -1;
        memcpy(p->fill, p->eyeDot, (size_t)rayCount * sizeof(float));
        if (checkStatus(vekrDiv_32f_C1IM(p->rayLength, p->mask, p->fill, rayCount),
                        "vekrDiv_32f_C1IM") != 0)
            return -1;
        for (int i = 0; i < rayCount; ++i) {
            if (p->mask[i] != 0) {
                p->blend[i] = 0.0f;
                continue;
            }
            const float edgeOn = 1.0f + p->fill[i]; /* 1 - cos, from 0 face-on to 1 edge-on */
            const float opacity = kFaceOnOpacity + kEdgeOnOpacity * edgeOn * edgeOn;
            p->blend[i] = p->weight[i] * opacity * (kGlowBase + kGlowEdgeOn * edgeOn);
            p->weight[i] *= 1.0f - opacity;
        }
        if (checkStatus(
                vekrAddMulMul_32f_AC1P3IM(kWhite, p->blend, albedo, p->mask, p->pixel, rayCount),
                "vekrAddMulMul_32f_AC1P3IM") != 0)
            return -1;
    }
    /* What comes through every surface is the background. */
    for (int i = 0; i < rayCount; ++i)
        for (int k = 0; k < 3; ++k)
            p->pixel[k][i] += p->weight[i] * kBackground[k];
    writePixels(p, &rect, imageWidth, image);
    return 0;
}
