/* The x-ray view: every surface along each eye ray, up to a number of layers, composited front
 * to back as tinted glass over a dark background. */
#ifndef VEKR_RENDER_XRAY_VIEW_H
#define VEKR_RENDER_XRAY_VIEW_H

#include "block_pipeline.h"
#include "camera.h"
#include "prepared_scene.h"

/* Traces block (blockX, blockY) through up to p->layerCount surfaces per eye ray and writes
 * its pixels to image (8-bit RGB, imageWidth x imageHeight). Returns 0 with *counts set (hits,
 * crossings, mostCrossings), or -1 after reporting a failed call. */
int traceXrayBlock(const PreparedScene* scene, const Camera* camera, BlockPlanes* p, int blockSide,
                   int blockX, int blockY, int imageWidth, int imageHeight, unsigned char* image,
                   BlockCounts* counts);

#endif /* VEKR_RENDER_XRAY_VIEW_H */
