/* A volume in memory: one block of voxels of one sample type, rows of width voxels, planes of
 * height rows, and what the tool needs around it (type names, plane pointers, value range). */
#ifndef VEKR_VOLUME_DATA_H
#define VEKR_VOLUME_DATA_H

#include <stddef.h>
#include <stdint.h>

typedef enum SampleType {
    SampleUint8 = 0,
    SampleUint16 = 1,
    SampleInt16 = 2,
    SampleFloat = 3
} SampleType;

typedef struct Volume {
    SampleType type;
    int width, height, depth;
    void* voxels; /* vekMalloc block, voxel (x, y, z) at (z * height + y) * width + x */
} Volume;

/* Bytes per voxel of a sample type. */
size_t sampleBytes(SampleType type);

/* The type's name as the tool prints it and NRRD writes it: uint8, uint16, int16, float. */
const char* sampleTypeName(SampleType type);

/* Allocates the voxels of *v (zeroed) and sets its fields. Returns 0, or -1 when memory is
 * short or the extents are below 1 or too large to address (the fields are then cleared). */
int volumeAllocate(Volume* v, SampleType type, int width, int height, int depth);

void volumeRelease(Volume* v);

size_t volumeVoxelCount(const Volume* v);
size_t volumeRowBytes(const Volume* v);
size_t volumeBytes(const Volume* v);

/* Start of plane z. */
void* volumePlane(const Volume* v, int z);

/* A malloc'ed array of the depth plane pointers (free() it); null when memory is short. */
void** volumePlanePointers(const Volume* v);

/* The voxel at index i (z, y, x order) as a double. */
double volumeSample(const Volume* v, size_t i);

/* Smallest and largest voxel value; NaN voxels of a float volume are skipped (both are 0 when
 * every voxel is NaN). */
void volumeRange(const Volume* v, double* lowest, double* highest);

/* Sum of the voxel values over the voxel count, NaN skipped as in volumeRange. */
double volumeMean(const Volume* v);

#endif /* VEKR_VOLUME_DATA_H */
