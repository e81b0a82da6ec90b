/* Tracing a whole image: its blocks spread over threads, with a progress bar. */
#ifndef VEKR_RENDER_TRACE_IMAGE_H
#define VEKR_RENDER_TRACE_IMAGE_H

#include "camera.h"
#include "options.h"
#include "prepared_scene.h"

/* Traces the whole image block by block on o->threadCount threads into image (8-bit RGB,
 * o->width x o->height); sets *seconds to the wall-clock time taken and *hitCount to the rays
 * that hit. Returns 0, or -1 after a failed call or allocation. */
int traceImage(const PreparedScene* scene, const Camera* camera, const Options* o,
               unsigned char* image, double* seconds, long long* hitCount);

#endif /* VEKR_RENDER_TRACE_IMAGE_H */
