/* Tracing a whole image: its blocks spread over threads, with a progress bar. */
#ifndef VEKR_RENDER_TRACE_IMAGE_H
#define VEKR_RENDER_TRACE_IMAGE_H

#include "camera.h"
#include "options.h"
#include "prepared_scene.h"

/* Traces and shades the whole image block by block on o->threadCount threads into image (8-bit
 * RGB, o->width x o->height) under the lights of o->lighting, which must be complete; sets
 * *seconds to the wall-clock time taken, *hitCount to the eye rays that hit and
 * *shadowRayCount to the shadow rays traced. Returns 0, or -1 after a failed call or
 * allocation. */
int traceImage(const PreparedScene* scene, const Camera* camera, const Options* o,
               unsigned char* image, double* seconds, long long* hitCount,
               long long* shadowRayCount);

#endif /* VEKR_RENDER_TRACE_IMAGE_H */
