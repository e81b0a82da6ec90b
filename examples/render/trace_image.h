/* Tracing a whole image: its blocks spread over threads, with a progress bar. */
#ifndef VEKR_RENDER_TRACE_IMAGE_H
#define VEKR_RENDER_TRACE_IMAGE_H

#include "camera.h"
#include "options.h"
#include "prepared_scene.h"

/* What traceImage counts over the whole image. */
typedef struct ImageCounts {
    long long hits;           /* eye rays that hit */
    long long shadowRays;     /* shadow rays traced */
    long long reflectionRays; /* reflection rays traced */
    long long reflectionHits; /* reflection rays that hit */
    long long crossings;      /* x-ray view: surfaces found, over all eye rays */
    int mostCrossings;        /* x-ray view: the most surfaces found along one eye ray */
} ImageCounts;

/* Traces and shades the whole image block by block on o->threadCount threads into image (8-bit
 * RGB, o->width x o->height): lit under o->lighting, which must be complete, with the mirrors
 * of o->mirrors, or as the x-ray view when o->layers is above 0. Sets *seconds to the
 * wall-clock time taken and *total to the counts. Returns 0, or -1 after a failed call or
 * allocation. */
int traceImage(const PreparedScene* scene, const Camera* camera, const Options* o,
               unsigned char* image, double* seconds, ImageCounts* total);

#endif /* VEKR_RENDER_TRACE_IMAGE_H */
