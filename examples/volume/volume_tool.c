/* The volume tool: loads a volume from a NRRD or MetaImage file, or makes the built-in
 * phantom, resizes, rotates, swirls or smooths it with the vekr volume functions, and writes
 * the mid-slices before and after as one PNG (and the result as NRRD on request).
 *
 * Files are read in volume_file.c, nrrd_file.c and metaimage_file.c (their shared header and
 * payload code in file_payload.c), the phantom is made in phantom.c, the operations run in
 * operations.c, the picture is drawn in montage_png.c and the command line parsed in
 * options.c. */
#include <stdio.h>

#include "montage_png.h"
#include "operations.h"
#include "options.h"
#include "phantom.h"
#include "vekcore.h"
#include "volume_data.h"
#include "volume_file.h"

static void printVolume(const char* label, const Volume* v)
{
    double lowest, highest;
    volumeRange(v, &lowest, &highest);
    printf("%s: %d x %d x %d %s (%zu voxels), range [%g, %g], mean %.6g\n", label, v->width,
           v->height, v->depth, sampleTypeName(v->type), volumeVoxelCount(v), lowest, highest,
           volumeMean(v));
}

int main(int argc, char** argv)
{
    Options o;
    const int parsed = parseOptions(argc, argv, &o);
    if (parsed != 0) return parsed > 0 ? 0 : 2;
    if (o.threadCount > 0) vekSetNumThreads(o.threadCount);

    Volume source = {0}, result = {0};
    int status = 1;
    char error[512];
    if (o.inputPath != NULL) {
        if (loadVolumeFile(o.inputPath, &source, error, sizeof error) != 0) {
            fprintf(stderr, "%s: %s\n", o.inputPath, error);
            goto done;
        }
    } else if (makePhantom(&source, o.phantomType, o.phantomSize[0], o.phantomSize[1],
                           o.phantomSize[2]) != 0) {
        fprintf(stderr, "out of memory for a %d x %d x %d phantom\n", o.phantomSize[0],
                o.phantomSize[1], o.phantomSize[2]);
        goto done;
    }
    printVolume(o.inputPath != NULL ? o.inputPath : "phantom", &source);

    char description[160];
    describeOperation(&o.operation, o.interpolationName, description, sizeof description);
    printf("operation: %s\n", description);
    OperationTiming timing;
    if (applyOperation(&o.operation, &source, &result, &timing) != 0) goto done;
    printVolume("result", &result);
    if (o.operation.kind != OperationNone)
        printf("time: %.3f ms in the library, %.1f Mvoxels/s (%d threads)\n", 1e3 * timing.seconds,
               timing.seconds > 0 ? 1e-6 * (double)timing.voxels / timing.seconds : 0.0,
               vekGetNumThreads());

    /* One window for both rows, from the source's range, so that the rows compare. */
    double lowest, highest;
    volumeRange(&source, &lowest, &highest);
    const int zoom = montageZoom(&source, &result);
    if (writeMontagePng(o.outputPath, &source, &result, lowest, highest, zoom) != 0) goto done;
    printf("montage: %s (window [%g, %g], %d pixel%s per voxel)\n", o.outputPath, lowest, highest,
           zoom, zoom == 1 ? "" : "s");
    if (o.savePath != NULL) {
        if (saveVolumeNrrd(o.savePath, &result, error, sizeof error) != 0) {
            fprintf(stderr, "%s: %s\n", o.savePath, error);
            goto done;
        }
        printf("saved: %s\n", o.savePath);
    }
    status = 0;
done:
    volumeRelease(&result);
    volumeRelease(&source);
    return status;
}
