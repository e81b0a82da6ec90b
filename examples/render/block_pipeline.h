/* The per-block pipeline: eye rays, nearest hits, normals, point lights with shadow rays,
 * reflection rays off mirrors, and the pixels of one block. */
#ifndef VEKR_RENDER_BLOCK_PIPELINE_H
#define VEKR_RENDER_BLOCK_PIPELINE_H

#include <stdint.h>

#include "camera.h"
#include "lights.h"
#include "materials.h"
#include "prepared_scene.h"

/* Per-thread planes of one block, each blockSide^2 elements, carved from one allocation and
 * 64-byte aligned so that full blocks with sides a multiple of 4 take the library's 4x4 packet
 * paths. A generation of rays is the eye rays or the reflection rays of one bounce; the two
 * sets of ray planes take turns from one bounce to the next. */
typedef struct BlockPlanes {
    void* memory; /* the allocation holding every plane */
    /* Eye rays, then every other bounce, and their surfaces; the other bounces use rayDir[1]
     * and point[1], the points of the previous generation being their origins. */
    float* rayDir[2][3];
    float* point[2][3]; /* hit points a hair in front of the surface, towards the ray's origin */
    float* dist;
    float* hitUV[2];
    int32_t* triIndex; /* triangle hit, -1 for a miss */
    /* The surfaces seen by one generation. */
    int32_t* active;     /* 0 for the rays of this generation, -1 for the others */
    int32_t* mask;       /* 0 for an active ray that hit, -1 elsewhere */
    int32_t* mirrorMask; /* 0 for a hit on a mirror that reflects a further ray, -1 elsewhere */
    float* normal[3];    /* smooth normals, turned towards the ray */
    float* eyeDot;       /* normal . ray direction: negative, or 0 for a miss */
    float* albedo[3];    /* surface colour, linear RGB */
    float* colour[3];    /* light leaving the surface along the ray, or the sky; linear RGB */
    /* Blending the generations into the pixel. */
    float* pixel[3];     /* the block's pixels so far, linear RGB */
    float* weight;       /* share of the pixel that the ray's colour makes up */
    float* blend;        /* weight times ownShare: what this generation adds */
    float* ownShare;     /* 1 - reflectivity for a mirror that reflects on, else 1 */
    float* reflectivity; /* kMirrorReflectivity in every element, written once */
    /* The ambient term. */
    float* ambientLevel; /* the constant ambient level in every element, written once */
    float* rayLength;    /* length of each ray direction */
    float* fill;         /* squared cosine between normal and ray */
    /* One light at a time. */
    int32_t* shadowMask; /* 0 where the light reaches the point, -1 elsewhere */
    int32_t* occluder;   /* first occluding triangle found, -1 for none */
    float* shadowDir[3]; /* from the light to the hit point */
    float* shadowDot;    /* |shadowDir . normal|, then the light's factor at the point */
    float* lightDistance;
    /* The x-ray view only (null otherwise): layerCount blocks of blockSide^2 elements each. */
    void* layerMemory;
    int layerCount;
    float* layerDist;
    float* layerUV[2];
    int32_t* layerTri;
} BlockPlanes;

/* What traceBlock counts. */
typedef struct BlockCounts {
    int hits;           /* eye rays that hit */
    int shadowRays;     /* shadow rays traced, over all lights and bounces */
    int reflectionRays; /* reflection rays traced, over all bounces */
    int reflectionHits; /* reflection rays that hit */
    int crossings;      /* x-ray view: surfaces found over all eye rays and layers */
    int mostCrossings;  /* x-ray view: the most surfaces found along one eye ray */
} BlockCounts;

/* Allocates the planes for blocks of up to blockSide x blockSide pixels, with the planes of
 * layerCount layers for the x-ray view (0: none); returns 0, or -1 with nothing held. */
int allocatePlanes(BlockPlanes* p, int blockSide, int layerCount);

/* Frees the planes and empties the record; an empty record is left as it is. */
void freePlanes(BlockPlanes* p);

/* Traces and shades block (blockX, blockY) of the image and writes its pixels to image (8-bit
 * RGB, imageWidth x imageHeight). Returns 0 with *counts set, or -1 after reporting a failed
 * call. */
int traceBlock(const PreparedScene* scene, const Camera* camera, const Lighting* lighting,
               const Mirrors* mirrors, BlockPlanes* p, int blockSide, int blockX, int blockY,
               int imageWidth, int imageHeight, unsigned char* image, BlockCounts* counts);

/* The block's place in the image: its first column and row, its size, and its rays. */
typedef struct BlockRect {
    int left, top, width, height, rayCount;
} BlockRect;

/* Places block (blockX, blockY) and writes its eye-ray directions to p->rayDir[0]. Returns 0
 * with *rect set, or -1 after reporting a failed call. */
int castEyeRays(const Camera* camera, BlockPlanes* p, int blockSide, int blockX, int blockY,
                int imageWidth, int imageHeight, BlockRect* rect);

/* Writes the sky seen along a direction: pale at the horizon, deeper blue overhead. */
void skyColour(const Camera* camera, float dx, float dy, float dz, float rgb[3]);

/* Writes p->pixel of the block into image, gamma-encoded. */
void writePixels(const BlockPlanes* p, const BlockRect* rect, int imageWidth, unsigned char* image);

#endif /* VEKR_RENDER_BLOCK_PIPELINE_H */
