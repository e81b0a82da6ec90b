/* The before-and-after montage as 8-bit RGB, written by the renderer's PNG writer: grey slices
 * on a dark blue-grey ground. */
#include "montage_png.h"

#include <errno.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "png_output.h"

enum { kGap = 6, kMontageTarget = 256 };
static const unsigned char kGround[3] = {30, 34, 46};

/* Slice views: for column c, the in-plane extents and the voxel index of pixel (u, v). */
static void sliceExtent(const Volume* v, int column, int* width, int* height)
{
    *width = column == 2 ? v->height : v->width;
    *height = column == 0 ? v->height : v->depth;
}

static size_t sliceVoxel(const Volume* v, int column, int u, int row)
{
    const size_t w = (size_t)v->width, h = (size_t)v->height;
    switch (column) {
        case 0:
            return ((size_t)(v->depth / 2) * h + row) * w + u;
        case 1:
            return ((size_t)(v->depth - 1 - row) * h + v->height / 2) * w + u;
        default:
            return ((size_t)(v->depth - 1 - row) * h + u) * w + v->width / 2;
    }
}

int montageZoom(const Volume* before, const Volume* after)
{
    int largest = 1;
    const Volume* both[2] = {before, after};
    for (int k = 0; k < 2; ++k) {
        const int e[3] = {both[k]->width, both[k]->height, both[k]->depth};
        for (int a = 0; a < 3; ++a)
            largest = e[a] > largest ? e[a] : largest;
    }
    return kMontageTarget / largest > 1 ? kMontageTarget / largest : 1;
}

int writeMontagePng(const char* path, const Volume* before, const Volume* after, double lowest,
                    double highest, int zoom)
{
    const Volume* rows[2] = {before, after};
    int columnWidth[3] = {0, 0, 0}, rowHeight[2] = {0, 0};
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 3; ++c) {
            int w, h;
            sliceExtent(rows[r], c, &w, &h);
            columnWidth[c] = w > columnWidth[c] ? w : columnWidth[c];
            rowHeight[r] = h > rowHeight[r] ? h : rowHeight[r];
        }
    const long long imageWidth =
        (long long)zoom * (columnWidth[0] + columnWidth[1] + columnWidth[2]) + 4 * kGap;
    const long long imageHeight = (long long)zoom * (rowHeight[0] + rowHeight[1]) + 3 * kGap;
    if (imageWidth > 65535 || imageHeight > 65535) {
        fprintf(stderr, "%s: a montage of %lld x %lld pixels is too large\n", path, imageWidth,
                imageHeight);
        return -1;
    }
    const int width = (int)imageWidth, height = (int)imageHeight;
    unsigned char* rgb = malloc((size_t)width * height * 3);
    if (rgb == NULL) {
        fprintf(stderr, "%s: out of memory for the montage\n", path);
        return -1;
    }
    for (size_t i = 0; i < (size_t)width * height; ++i)
        memcpy(rgb + 3 * i, kGround, 3);
    const double scale = highest > lowest ? 255.0 / (highest - lowest) : 0;
    int top = kGap;
    for (int r = 0; r < 2; ++r) {
        int left = kGap;
        for (int c = 0; c < 3; ++c) {
            int w, h;
            sliceExtent(rows[r], c, &w, &h);
            for (int row = 0; row < h * zoom; ++row)
                for (int u = 0; u < w * zoom; ++u) {
                    const double s =
                        volumeSample(rows[r], sliceVoxel(rows[r], c, u / zoom, row / zoom));
                    double grey = (s - lowest) * scale;
                    grey = isnan(grey) || grey < 0 ? 0 : grey > 255 ? 255 : grey;
                    unsigned char* pixel = rgb + ((size_t)(top + row) * width + left + u) * 3;
                    pixel[0] = pixel[1] = pixel[2] = (unsigned char)lrint(grey);
                }
            left += columnWidth[c] * zoom + kGap;
        }
        top += rowHeight[r] * zoom + kGap;
    }
    FILE* file = fopen(path, "wb");
    int result = -1;
    if (file == NULL)
        fprintf(stderr, "%s: %s\n", path, strerror(errno));
    else
        result = writePng(file, path, width, height, rgb);
    free(rgb);
    return result;
}
