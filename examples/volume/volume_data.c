/* Volumes in memory: allocation, addressing and value statistics. */
#include "volume_data.h"

#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "vekcore.h"

size_t sampleBytes(SampleType type)
{
    switch (type) {
        case SampleUint8:
            return 1;
        case SampleUint16:
        case SampleInt16:
            return 2;
        case SampleFloat:
            return 4;
    }
    return 0;
}

const char* sampleTypeName(SampleType type)
{
    switch (type) {
        case SampleUint8:
            return "uint8";
        case SampleUint16:
            return "uint16";
        case SampleInt16:
            return "int16";
        case SampleFloat:
            return "float";
    }
    return "?";
}

int volumeAllocate(Volume* v, SampleType type, int width, int height, int depth)
{
    memset(v, 0, sizeof *v);
    if (width < 1 || height < 1 || depth < 1) return -1;
    /* The library takes row steps as 32-bit byte counts and the tool indexes with size_t. */
    const size_t rowBytes = (size_t)width * sampleBytes(type);
    if (rowBytes > INT32_MAX || (size_t)height * depth > SIZE_MAX / rowBytes) return -1;
    const size_t bytes = rowBytes * height * depth;
    v->voxels = vekMalloc(bytes);
    if (v->voxels == NULL) return -1;
    memset(v->voxels, 0, bytes);
    v->type = type;
    v->width = width;
    v->height = height;
    v->depth = depth;
    return 0;
}

void volumeRelease(Volume* v)
{
    vekFree(v->voxels);
    memset(v, 0, sizeof *v);
}

size_t volumeVoxelCount(const Volume* v)
{
    return (size_t)v->width * v->height * v->depth;
}

size_t volumeRowBytes(const Volume* v)
{
    return (size_t)v->width * sampleBytes(v->type);
}

size_t volumeBytes(const Volume* v)
{
    return volumeVoxelCount(v) * sampleBytes(v->type);
}

void* volumePlane(const Volume* v, int z)
{
    return (unsigned char*)v->voxels + (size_t)z * v->height * volumeRowBytes(v);
}

void** volumePlanePointers(const Volume* v)
{
    void** planes = malloc((size_t)v->depth * sizeof *planes);
    if (planes == NULL) return NULL;
    for (int z = 0; z < v->depth; ++z)
        planes[z] = volumePlane(v, z);
    return planes;
}

double volumeSample(const Volume* v, size_t i)
{
    switch (v->type) {
        case SampleUint8:
            return ((const uint8_t*)v->voxels)[i];
        case SampleUint16:
            return ((const uint16_t*)v->voxels)[i];
        case SampleInt16:
            return ((const int16_t*)v->voxels)[i];
        case SampleFloat:
            return ((const float*)v->voxels)[i];
    }
    return 0;
}

void volumeRange(const Volume* v, double* lowest, double* highest)
{
    double lo = INFINITY, hi = -INFINITY;
    const size_t n = volumeVoxelCount(v);
    for (size_t i = 0; i < n; ++i) {
        const double s = volumeSample(v, i);
        if (s < lo) lo = s; /* false for NaN */
        if (s > hi) hi = s;
    }
    *lowest = lo <= hi ? lo : 0;
    *highest = lo <= hi ? hi : 0;
}

double volumeMean(const Volume* v)
{
    double sum = 0;
    size_t counted = 0;
    const size_t n = volumeVoxelCount(v);
    for (size_t i = 0; i < n; ++i) {
        const double s = volumeSample(v, i);
        if (isnan(s)) continue;
        sum += s;
        ++counted;
    }
    return counted > 0 ? sum / (double)counted : 0;
}
