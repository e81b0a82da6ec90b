#include "resize_tables.h"

#include <cmath>

#include "resample_kernels.h"

namespace vekr::volume {
namespace {

constexpr std::uintptr_t kAreaAlignment = 64;

// Bases are held within [-2, N] (N the source extent): every tap of an entry beyond those
// limits lies outside the volume and clamps to the same edge voxel either way, and base + 2
// cannot overflow.
double baseCeiling(int32_t srcExtent)
{
    return double(srcExtent < INT32_MAX - 2 ? srcExtent : INT32_MAX - 2);
}

// Hands out consecutive areas of a share, each starting on a 64-byte boundary.
class ShareCarver {
public:
    explicit ShareCarver(uint8_t* share) : start_(share), next_(alignUp(share)) {}

    template <class T>
    T* take(std::size_t count)
    {
        T* area = reinterpret_cast<T*>(next_);
        next_ = alignUp(next_ + count * sizeof(T));
        return area;
    }
    std::size_t bytesUsed() const { return std::size_t(next_ - start_); }

private:
    static uint8_t* alignUp(uint8_t* p)
    {
        const std::uintptr_t a = reinterpret_cast<std::uintptr_t>(p);
        return p + ((kAreaAlignment - a % kAreaAlignment) % kAreaAlignment);
    }
    uint8_t* start_;
    uint8_t* next_;
};

int32_t extentOf(VolumeSize v, int a)
{
    return a == 0 ? v.width : a == 1 ? v.height : v.depth;
}

// trunc((i + 0.5) / F - S / F - 1e-10), the 1e-10 pulling a position that lands exactly on a
// voxel boundary into the voxel before it; clamped to the volume (NaN gives voxel 0).
void fillNearestAxis(AxisTable& t, const AxisMapping& m)
{
    const int32_t last = t.srcExtent - 1;
    for (int j = 0; j < t.count; ++j) {
        const double s = (double(m.dstStart + j) + 0.5) * m.inverseFactor + m.offset - 1e-10;
        t.base[j] = !(s >= 0.0) ? 0 : s >= double(last) ? last : int32_t(s);
    }
}

// p = (i + 0.5) / F - S / F - 0.5, base floor(p), fraction p - floor(p). p never decreases
// with i (a positive factor, and IEEE rounding keeps that order), so the entries whose taps
// leave the source form a prefix and a suffix. Linear reads base, base+1: interior for
// 0 <= p < N-1. Cubic reads base-1 .. base+2: interior for 1 <= p < N-2; its border runs
// cover the four cases p < 0, 0 <= p < 1, N-2 <= p < N-1 and p >= N-1. A NaN position (from
// an infinite shift) counts as leading border, so no unclamped tap comes from it.
void fillInterpolatedAxis(AxisTable& t, const AxisMapping& m, int taps)
{
    const double interiorFirst = taps == 4 ? 1.0 : 0.0;
    const double interiorEnd = double(t.srcExtent) - (taps == 4 ? 2.0 : 1.0);
    const double ceiling = baseCeiling(t.srcExtent);
    t.lead = 0;
    int lastInterior = -1;
    for (int j = 0; j < t.count; ++j) {
        const double p = (double(m.dstStart + j) + 0.5) * m.inverseFactor + m.offset - 0.5;
        const double floorP = std::floor(p);
        const double clamped = floorP < -2.0 ? -2.0 : floorP;
        t.base[j] = p == p ? int32_t(clamped < ceiling ? clamped : ceiling) : 0;
        t.fraction[j] = float(p - floorP);
        if (!(p >= interiorFirst))
            t.lead = j + 1;
        else if (p < interiorEnd)
            lastInterior = j;
    }
    t.trail = lastInterior >= 0 ? t.count - 1 - lastInterior : t.count - t.lead;
}

}  // namespace

ResizeWorkspace carveResizeWorkspace(uint8_t* share, int32_t width, int32_t height, int32_t depth,
                                     const InterpolationKernel& kernel, bool fixedPointX)
{
    ResizeWorkspace ws;
    ws.taps = kernel.taps;
    const int32_t extents[kAxes] = {width, height, depth};
    ShareCarver carver(share);
    for (int a = 0; a < kAxes; ++a) {
        ws.axis[a].count = extents[a];
        ws.axis[a].base = carver.take<int32_t>(std::size_t(extents[a]));
    }
    if (ws.taps > 1)
        for (int a = 0; a < kAxes; ++a)
            ws.axis[a].fraction = carver.take<float>(std::size_t(extents[a]));
    if (ws.taps == 4)
        for (int a = 0; a < kAxes; ++a)
            ws.axis[a].weights = carver.take<float>(4 * std::size_t(extents[a]));
    if (ws.taps == 2 && fixedPointX)
        ws.axis[0].fixedWeights = carver.take<int16_t>(2 * std::size_t(width));
    if (ws.taps > 1) {
        ws.rowStride = (std::ptrdiff_t(width) + 15) & ~std::ptrdiff_t(15);
        ws.planeStride = ws.rowStride * height;
        ws.rowSlots = carver.take<float>(std::size_t(ws.taps * ws.rowStride));
        ws.planeSlots = carver.take<float>(std::size_t(ws.taps * ws.planeStride));
    }
    ws.bytesUsed = carver.bytesUsed();
    return ws;
}

void fillResizeTables(ResizeWorkspace& ws, const ResizeRegion& region, VolumeSize srcVolume,
                      const InterpolationKernel& kernel)
{
    for (int a = 0; a < kAxes; ++a) {
        AxisTable& t = ws.axis[a];
        t.srcExtent = extentOf(srcVolume, a);
        if (ws.taps == 1) {
            fillNearestAxis(t, region.axis[a]);
            continue;
        }
        fillInterpolatedAxis(t, region.axis[a], ws.taps);
        if (t.weights)
            for (int j = 0; j < t.count; ++j)
                computeCubicWeights(kernel, t.fraction[j], t.weights + 4 * j);
    }
    AxisTable& x = ws.axis[0];
    if (x.fixedWeights)
        for (int j = 0; j < x.count; ++j) {
            // w1 = trunc(1e-7 + 2^14 f): the 1e-7 lifts fractions that fall a hair short of a
            // step. f <= 1 keeps w1 <= 2^14, within 16 bits; a NaN fraction gives 0.
            const double scaled = 1e-7 + double(1 << kFixedWeightBits) * double(x.fraction[j]);
            const int16_t w1 = scaled >= 0.0 ? int16_t(scaled) : int16_t(0);
            x.fixedWeights[2 * j] = int16_t((1 << kFixedWeightBits) - w1);
            x.fixedWeights[2 * j + 1] = w1;
        }
}

}  // namespace vekr::volume
