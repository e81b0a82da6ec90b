#include "volume_geometry.h"

#include <algorithm>
#include <cmath>

namespace vekr::volume {

namespace {

// A start exactly on a half voxel rounds down, an end exactly on a half voxel rounds up.
constexpr double kStartRounding = 0.4999999999;
constexpr double kEndRounding = 0.5000000001;

int32_t first(const Cuboid& c, int a)
{
    return a == 0 ? c.x : a == 1 ? c.y : c.z;
}
int32_t extent(const Cuboid& c, int a)
{
    return a == 0 ? c.width : a == 1 ? c.height : c.depth;
}
int32_t extent(const VolumeSize& v, int a)
{
    return a == 0 ? v.width : a == 1 ? v.height : v.depth;
}

uint32_t up16(uint32_t n)
{
    return (n + 15) & ~15u;
}
uint32_t up64(uint32_t n)
{
    return (n + 63) & ~63u;
}
uint32_t down64(uint32_t n)
{
    return n & ~63u;
}

// Conversion toward zero, saturated to the int32 range (NaN gives 0): box ends far outside any
// volume stay well defined.
int32_t truncToInt(double v)
{
    if (!(v == v)) return 0;
    if (v >= 2147483647.0) return INT32_MAX;
    if (v <= -2147483648.0) return INT32_MIN;
    return int32_t(v);
}

}  // namespace

bool cuboidValid(const Cuboid& c)
{
    return c.x >= 0 && c.width >= 1 && c.y >= 0 && c.height >= 1 && c.z >= 0 && c.depth >= 1;
}

bool isKnownInterpolation(int interpolation)
{
    return interpolation == InterpolationNearest || interpolation == InterpolationLinear ||
           isCubicInterpolation(interpolation);
}

bool isCubicInterpolation(int interpolation)
{
    return interpolation >= InterpolationCubicLagrange && interpolation <= InterpolationCubicB05C03;
}

bool coveredCuboid(Cuboid srcVOI, const double factor[kAxes], const double shift[kAxes],
                   Cuboid& out)
{
    int32_t start[kAxes], end[kAxes];
    for (int a = 0; a < kAxes; ++a) {
        const double f = factor[a], s = shift[a];
        start[a] = std::max(truncToInt(kStartRounding + (first(srcVOI, a) * f + s)), 0);
        end[a] = std::max(
            truncToInt(kEndRounding + ((double(first(srcVOI, a)) + extent(srcVOI, a)) * f + s)), 0);
    }
    for (int a = 0; a < kAxes; ++a)
        if (start[a] >= end[a]) return false;
    out = Cuboid{start[0],          start[1],          start[2],
                 end[0] - start[0], end[1] - start[1], end[2] - start[2]};
    return true;
}

Status resolveResizeRegion(bool pointersPresent, VolumeSize srcVolume, Cuboid srcVOI, Cuboid dstVOI,
                           const double factor[kAxes], const double shift[kAxes],
                           const InterpolationKernel* kernel, ResizeRegion& region)
{
    if (!pointersPresent) return StatusNullPointer;
    if (srcVolume.width <= 0 || srcVolume.height <= 0 || srcVolume.depth <= 0) return StatusBadSize;
    if (!cuboidValid(srcVOI) || !cuboidValid(dstVOI)) return StatusBadSize;
    for (int a = 0; a < kAxes; ++a)
        if (!(factor[a] > 0.0)) return StatusBadScale;
    if (kernel == nullptr) return StatusBadInterpolation;
    for (int a = 0; a < kAxes; ++a)
        if (first(srcVOI, a) >= extent(srcVolume, a)) return StatusWarnVoiOutsideSource;
    ResizeRegion r;
    for (int a = 0; a < kAxes; ++a) {
        const double f = factor[a], s = shift[a];
        const int32_t srcFirst = first(srcVOI, a);
        const int32_t srcEnd =
            srcFirst + std::min(extent(srcVolume, a) - srcFirst, extent(srcVOI, a));
        const double dstFirst = first(dstVOI, a);
        const double dstLast = dstFirst + extent(dstVOI, a);
        AxisMapping& m = r.axis[a];
        // Written so that a NaN end point (an infinite factor times 0) takes the destination
        // box's bound: the written box never leaves dstVOI.
        const double low = srcFirst * f + s, high = srcEnd * f + s;
        m.dstStart = truncToInt(kStartRounding + (low > dstFirst ? low : dstFirst));
        m.dstEnd = truncToInt(kEndRounding + (high < dstLast ? high : dstLast));
        m.inverseFactor = 1.0 / f;
        m.offset = -s / f;
    }
    for (int a = 0; a < kAxes; ++a)
        if (r.axis[a].dstStart >= r.axis[a].dstEnd) return StatusWarnNoOperation;
    region = r;
    return StatusOk;
}

uint32_t resizeBufferBytesPerThread(int32_t width, int32_t height, int32_t depth, int interpolation)
{
    const uint32_t w = uint32_t(width), h = uint32_t(height), d = uint32_t(depth);
    const uint32_t base = 4 * (up16(w) + up16(h) + up16(d));
    uint32_t bytes = base;
    if (interpolation == InterpolationLinear)
        bytes = base + 4 * (up64(w) + up64(h) + up64(d)) + 8 * h * up64(w) +
                4 * (down64(2 * w + 127) + down64(8 * (w + h) + 127));
    else if (isCubicInterpolation(interpolation))
        bytes = base + 4 * (up64(w) + up64(h) + up64(d)) + 16 * h * up64(w) +
                4 * (128 * (w + h) + 192 + 2 * down64(4 * w + 255) + down64(4 * h + 255) +
                     down64(4 * d + 255));
    return bytes + 64;
}

uint32_t filterBufferBytesPerThread(int32_t width, VolumeSize kernel)
{
    // Unsigned 32-bit arithmetic: huge extents wrap instead of overflowing.
    const uint32_t halfWidth = (uint32_t(kernel.width) + 1) / 2;
    return 32 * halfWidth * uint32_t(kernel.height) * uint32_t(kernel.depth) +
           64 * ((uint32_t(width) + 15) / 16) + 64;
}

}  // namespace vekr::volume
