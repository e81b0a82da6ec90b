/* The per-block pipeline: eye rays, nearest hits, normals and shading of one block of pixels. */
#ifndef VEKR_RENDER_BLOCK_PIPELINE_H
#define VEKR_RENDER_BLOCK_PIPELINE_H

#include <stdint.h>

#include "camera.h"
#include "prepared_scene.h"

/* Per-thread planes of one block, each blockSide^2 elements, 64-byte aligned so that full
 * blocks with sides a multiple of 4 take the library's 4x4 packet paths. */
typedef struct BlockPlanes {
    float* direction[3];
    float* dist;
    float* hitUV[2];
    int32_t* triIndex;
    float* normal[3];
} BlockPlanes;

/* Allocates the planes for blocks of up to blockSide x blockSide pixels; returns 0, or -1
 * with every plane freed. */
int allocatePlanes(BlockPlanes* p, int blockSide);

/* Frees the planes and empties the record; an empty record is left as it is. */
void freePlanes(BlockPlanes* p);

/* Traces block (blockX, blockY) of the image and writes its pixels. Returns the number of rays
 * that hit, or -1 after reporting a failed call. */
int traceBlock(const PreparedScene* scene, const Camera* camera, BlockPlanes* p, int blockSide,
               int blockX, int blockY, int imageWidth, int imageHeight, unsigned char* image);

#endif /* VEKR_RENDER_BLOCK_PIPELINE_H */
