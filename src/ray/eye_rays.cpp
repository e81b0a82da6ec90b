#include "eye_rays.h"

#include <immintrin.h>

namespace vekr::ray {

namespace {

constexpr int kGroup = 8;
constexpr int kExactColumnLimit = 1 << 24;
constexpr int kPlaneRunMinWidth = 256;

// First-row start per component: (stepY * offY + corner) + stepX * offX, in this order. The
// block offsets are 32-bit integer products that wrap before the conversion to float.
void firstRowStart(const ImagePlane& plane, const EyeRayBlockOut& block, float rowStart[3])
{
    const float offX = float(int32_t(uint32_t(block.blockX) * uint32_t(block.cellWidth)));
    const float offY = float(int32_t(uint32_t(block.blockY) * uint32_t(block.cellHeight)));
    for (int k = 0; k < 3; ++k)
        rowStart[k] = (plane.stepY[k] * offY + plane.corner[k]) + plane.stepX[k] * offX;
}

}  // namespace

void castEyeRaysScalar(const ImagePlane& plane, const EyeRayBlockOut& block)
{
    float rowStart[3];
    firstRowStart(plane, block, rowStart);
    const int width = block.width;
    for (int r = 0; r < block.height; ++r) {
        const int64_t rowOffset = int64_t(r) * width;
        // Each lane's column number grows by 8.0 per group, as the vector lanes do; above 2^24
        // this differs from converting the integer column.
        float lane[kGroup];
        for (int j = 0; j < kGroup; ++j)
            lane[j] = float(j);
        for (int c = 0; c < width; c += kGroup) {
            const int n = width - c < kGroup ? width - c : kGroup;
            for (int j = 0; j < n; ++j)
                for (int k = 0; k < 3; ++k)
                    block.dir[k][rowOffset + c + j] = rowStart[k] + plane.stepX[k] * lane[j];
            for (int j = 0; j < kGroup; ++j)
                lane[j] += float(kGroup);
        }
        for (int k = 0; k < 3; ++k)
            rowStart[k] += plane.stepY[k];
    }
}

namespace {

// Carries the column lanes from group to group by adding 8, exactly as documented: three
// stores per group. The fastest order for short rows, and the only one for rows wider than
// kExactColumnLimit.
void storeRowCarried(float* const out[3], const __m256 start[3], const __m256 stepX[3],
                     int fullWidth, __m256& column)
{
    const __m256 groupStep = _mm256_set1_ps(float(kGroup));
    for (int c = 0; c < fullWidth; c += kGroup) {
        for (int k = 0; k < 3; ++k)
            _mm256_storeu_ps(out[k] + c, _mm256_add_ps(start[k], _mm256_mul_ps(stepX[k], column)));
        column = _mm256_add_ps(column, groupStep);
    }
}

// Up to 2^24 every column number is an exact float, so any exact way of forming the lanes
// gives the bits of the carried ones. One plane at a time along the row (long runs of stores
// per stream stay efficient when the block does not fit the caches), four independent lane
// vectors per step.
void storeRowPlaneRuns(float* const out[3], const __m256 start[3], const __m256 stepX[3],
                       int fullWidth, __m256& column)
{
    constexpr int kUnroll = 4;
    const __m256 firstColumns = _mm256_setr_ps(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256 unrollStep = _mm256_set1_ps(float(kUnroll * kGroup));
    for (int k = 0; k < 3; ++k) {
        __m256 columns[kUnroll];
        for (int u = 0; u < kUnroll; ++u)
            columns[u] = _mm256_add_ps(firstColumns, _mm256_set1_ps(float(u * kGroup)));
        float* const row = out[k];
        int c = 0;
        for (; c + kUnroll * kGroup <= fullWidth; c += kUnroll * kGroup)
            for (int u = 0; u < kUnroll; ++u) {
                _mm256_storeu_ps(row + c + u * kGroup,
                                 _mm256_add_ps(start[k], _mm256_mul_ps(stepX[k], columns[u])));
                columns[u] = _mm256_add_ps(columns[u], unrollStep);
            }
        for (int u = 0; c < fullWidth; c += kGroup, ++u)
            _mm256_storeu_ps(row + c, _mm256_add_ps(start[k], _mm256_mul_ps(stepX[k], columns[u])));
    }
    column = _mm256_add_ps(firstColumns, _mm256_set1_ps(float(fullWidth)));
}

}  // namespace

void castEyeRaysAvx(const ImagePlane& plane, const EyeRayBlockOut& block)
{
    float rowStart[3];
    firstRowStart(plane, block, rowStart);
    const int width = block.width;
    const int fullWidth = width & ~(kGroup - 1);
    const int tail = width & (kGroup - 1);
    // The tail's lanes in order: the first `tail` lanes are stored, nothing past the row.
    const __m256i tailMask = _mm256_setr_epi32(
        0 < tail ? -1 : 0, 1 < tail ? -1 : 0, 2 < tail ? -1 : 0, 3 < tail ? -1 : 0,
        4 < tail ? -1 : 0, 5 < tail ? -1 : 0, 6 < tail ? -1 : 0, 0);
    const __m256 stepX[3] = {_mm256_set1_ps(plane.stepX[0]), _mm256_set1_ps(plane.stepX[1]),
                             _mm256_set1_ps(plane.stepX[2])};
    // Short rows go group by group through all three planes; wide ones plane by plane.
    const bool planeRuns = width >= kPlaneRunMinWidth && width <= kExactColumnLimit;
    for (int r = 0; r < block.height; ++r) {
        const int64_t rowOffset = int64_t(r) * width;
        float* const out[3] = {block.dir[0] + rowOffset, block.dir[1] + rowOffset,
                               block.dir[2] + rowOffset};
        const __m256 start[3] = {_mm256_set1_ps(rowStart[0]), _mm256_set1_ps(rowStart[1]),
                                 _mm256_set1_ps(rowStart[2])};
        __m256 column = _mm256_setr_ps(0, 1, 2, 3, 4, 5, 6, 7);
        if (planeRuns)
            storeRowPlaneRuns(out, start, stepX, fullWidth, column);
        else
            storeRowCarried(out, start, stepX, fullWidth, column);
        if (tail != 0)
            for (int k = 0; k < 3; ++k)
                _mm256_maskstore_ps(out[k] + fullWidth, tailMask,
                                    _mm256_add_ps(start[k], _mm256_mul_ps(stepX[k], column)));
        for (int k = 0; k < 3; ++k)
            rowStart[k] += plane.stepY[k];
    }
}

}  // namespace vekr::ray
