/* The per-block pipeline: eye rays, nearest hits, normals, point lights with shadow rays and
 * the pixels of one block. */
#ifndef VEKR_RENDER_BLOCK_PIPELINE_H
#define VEKR_RENDER_BLOCK_PIPELINE_H

#include <stdint.h>

#include "camera.h"
#include "lights.h"
#include "prepared_scene.h"

/* Per-thread planes of one block, each blockSide^2 elements, carved from one allocation and
 * 64-byte aligned so that full blocks with sides a multiple of 4 take the library's 4x4 packet
 * paths. */
typedef struct BlockPlanes {
    void* memory; /* the allocation holding every plane */
    /* Eye rays and their nearest hits. */
    float* direction[3];
    float* dist;
    float* hitUV[2];
    int32_t* triIndex; /* triangle hit, -1 for a miss */
    /* The surfaces seen. */
    int32_t* mask;      /* 0 for a hit, -1 for a miss */
    float* hitPoint[3]; /* a hair in front of the surface, towards the eye */
    float* normal[3];   /* smooth normals, turned towards the eye */
    float* eyeDot;      /* normal . eye direction: negative, or 0 for a miss */
    float* albedo[3];   /* surface colour, linear RGB */
    float* colour[3];   /* light leaving the surface towards the eye, linear RGB */
    /* The ambient term. */
    float* ambientLevel; /* the constant ambient level in every element, written once */
    float* eyeLength;    /* length of each eye-ray direction */
    float* fill;         /* squared cosine between normal and eye ray */
    /* One light at a time. */
    int32_t* shadowMask; /* 0 where the light reaches the point, -1 elsewhere */
    int32_t* occluder;   /* first occluding triangle found, -1 for none */
    float* shadowDir[3]; /* from the light to the hit point */
    float* shadowDot;    /* |shadowDir . normal|, then the light's factor at the point */
    float* lightDistance;
} BlockPlanes;

/* What traceBlock counts. */
typedef struct BlockCounts {
    int hits;       /* eye rays that hit */
    int shadowRays; /* shadow rays traced, over all lights */
} BlockCounts;

/* Allocates the planes for blocks of up to blockSide x blockSide pixels; returns 0, or -1
 * with nothing held. */
int allocatePlanes(BlockPlanes* p, int blockSide);

/* Frees the planes and empties the record; an empty record is left as it is. */
void freePlanes(BlockPlanes* p);

/* Traces and shades block (blockX, blockY) of the image and writes its pixels to image (8-bit
 * RGB, imageWidth x imageHeight). Returns 0 with *counts set, or -1 after reporting a failed
 * call. */
int traceBlock(const PreparedScene* scene, const Camera* camera, const Lighting* lighting,
               BlockPlanes* p, int blockSide, int blockX, int blockY, int imageWidth,
               int imageHeight, unsigned char* image, BlockCounts* counts);

#endif /* VEKR_RENDER_BLOCK_PIPELINE_H */
