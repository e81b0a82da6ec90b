/* Spreads the blocks of an image over threads, one block at a time, and shows the progress. */
#define _POSIX_C_SOURCE 200809L /* isatty */

#include "trace_image.h"

#include <omp.h>
#include <stdio.h>
#include <unistd.h>

#include "block_pipeline.h"
#include "xray_view.h"

/* Redraws the bar on stderr when it has grown; called by any thread as blocks finish. */
static void showProgress(int done, int total, int* drawn)
{
    enum { kBarWidth = 40 };
    const int filled = (int)((long long)done * kBarWidth / total);
#pragma omp critical(progress)
    {
        if (filled > *drawn || done == total) {
            *drawn = filled;
            char bar[kBarWidth + 1];
            for (int k = 0; k < kBarWidth; ++k)
                bar[k] = k < filled ? '#' : '.';
            bar[kBarWidth] = '\0';
            fprintf(stderr, "\r[%s] %3d%%%s", bar, (int)((long long)done * 100 / total),
                    done == total ? "\n" : "");
            fflush(stderr);
        }
    }
}

int traceImage(const PreparedScene* scene, const Camera* camera, const Options* o,
               unsigned char* image, double* seconds, ImageCounts* total)
{
    const int blocksX = (o->width + o->blockSide - 1) / o->blockSide;
    const int blocksY = (o->height + o->blockSide - 1) / o->blockSide;
    const int blockCount = blocksX * blocksY;
    int done = 0, drawn = -1, failed = 0;
    long long hits = 0, shadowRays = 0, reflectionRays = 0, reflectionHits = 0, crossings = 0;
    int mostCrossings = 0;
    const int showBar = isatty(STDERR_FILENO); /* no bar in logs */
    const double start = omp_get_wtime();
#pragma omp parallel num_threads(o->threadCount)
    {
        BlockPlanes planes;
        if (allocatePlanes(&planes, o->blockSide, o->layers) != 0) {
            fprintf(stderr, "out of memory for the block planes\n");
#pragma omp atomic write
            failed = 1;
        }
        /* Blocks differ a lot in cost (sky against dense geometry): hand them out one by one. */
#pragma omp for schedule(dynamic, 1)
        for (int b = 0; b < blockCount; ++b) {
            int stop;
#pragma omp atomic read
            stop = failed;
            if (stop) continue;
            BlockCounts counts;
            const int traced =
                o->layers > 0
                    ? traceXrayBlock(scene, camera, &planes, o->blockSide, b % blocksX, b / blocksX,
                                     o->width, o->height, image, &counts)
                    : traceBlock(scene, camera, &o->lighting, &o->mirrors, &planes, o->blockSide,
                                 b % blocksX, b / blocksX, o->width, o->height, image, &counts);
            if (traced != 0) {
#pragma omp atomic write
                failed = 1;
                continue;
            }
#pragma omp atomic
            hits += counts.hits;
#pragma omp atomic
            shadowRays += counts.shadowRays;
#pragma omp atomic
            reflectionRays += counts.reflectionRays;
#pragma omp atomic
            reflectionHits += counts.reflectionHits;
#pragma omp atomic
            crossings += counts.crossings;
#pragma omp critical(mostCrossings)
            if (counts.mostCrossings > mostCrossings) mostCrossings = counts.mostCrossings;
            int finished;
#pragma omp atomic capture
            finished = ++done;
            if (showBar) showProgress(finished, blockCount, &drawn);
        }
        freePlanes(&planes);
    }
    *seconds = omp_get_wtime() - start;
    total->hits = hits;
    total->shadowRays = shadowRays;
    total->reflectionRays = reflectionRays;
    total->reflectionHits = reflectionHits;
    total->crossings = crossings;
    total->mostCrossings = mostCrossings;
    if (failed) fprintf(stderr, "\ntracing stopped\n");
    return failed ? -1 : 0;
}
