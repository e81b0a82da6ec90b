// Eye-ray directions for a block of pixels of an image plane.
#pragma once

#include <cstdint>

namespace vekr::ray {

// The image plane as seen from the eye: the direction to pixel (0, 0) of the whole image and
// the direction change per pixel column and per pixel row.
struct ImagePlane {
    const float* corner;  // 3 floats
    const float* stepX;   // 3 floats
    const float* stepY;   // 3 floats
};

// One block of the image tiling and the planes its directions go to (row stride = width).
struct EyeRayBlockOut {
    int32_t blockX, blockY;         // block column and row
    int32_t cellWidth, cellHeight;  // pixels per block of the tiling
    int32_t width, height;          // pixels to generate (the output size), width >= 0
    float* dir[3];                  // x, y, z planes
};

// direction(c, r) = rowStart + stepX * column, with rowStart advanced by stepY per row and the
// column carried as a float that grows by 8 per group of eight; both twins give the same bits.
void castEyeRaysScalar(const ImagePlane& plane, const EyeRayBlockOut& block);
void castEyeRaysAvx(const ImagePlane& plane, const EyeRayBlockOut& block);

}  // namespace vekr::ray
