#include "volume_resize.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "frame/streaming_stores.h"
#include "resize_tables.h"
#include "slice_split.h"
#include "vekcore.h"

namespace vekr::volume {
namespace {

int32_t regionExtent(const ResizeRegion& region, int a)
{
    return region.axis[a].dstEnd - region.axis[a].dstStart;
}

// Nearest. A destination row or slice whose source row or plane is that of the one before it
// (all but one of every F, when upscaling by F) is a copy of that one, which is still cached.
// Only slices of this call's own range are copied from: in a team the slice before sliceBegin
// belongs to another member.
template <class T>
void copyNearestSlices(const VolumeView<const T>& src, const VolumeView<T>& dst,
                       const ResizeRegion& region, const ResizeWorkspace& ws, int sliceBegin,
                       int sliceEnd)
{
    const AxisTable &x = ws.axis[0], &y = ws.axis[1], &z = ws.axis[2];
    const std::size_t rowBytes = std::size_t(x.count) * sizeof(T);
    // A factor of 1 on x reads each row as one run: copy it as a block.
    bool runOnX = true;
    for (int i = 1; i < x.count && runOnX; ++i)
        runOnX = x.base[i] == x.base[0] + i;
    const std::ptrdiff_t firstRow = std::ptrdiff_t(region.axis[1].dstStart) * dst.rowStep;
    for (int k = sliceBegin; k < sliceEnd; ++k) {
        T* dstPlane = dst.plane(region.axis[2].dstStart + k) + region.axis[0].dstStart + firstRow;
        if (k > sliceBegin && z.base[k] == z.base[k - 1]) {
            const T* before =
                dst.plane(region.axis[2].dstStart + k - 1) + region.axis[0].dstStart + firstRow;
            for (int j = 0; j < y.count; ++j)
                std::memcpy(dstPlane + j * dst.rowStep, before + j * dst.rowStep, rowBytes);
            continue;
        }
        const T* srcPlane = src.plane(z.base[k]);
        for (int j = 0; j < y.count; ++j) {
            T* dstRow = dstPlane + j * dst.rowStep;
            const T* srcRow = srcPlane + y.base[j] * src.rowStep;
            if (j > 0 && y.base[j] == y.base[j - 1])
                std::memcpy(dstRow, dstRow - dst.rowStep, rowBytes);
            else if (runOnX)
                std::memcpy(dstRow, srcRow + x.base[0], rowBytes);
            else
                for (int i = 0; i < x.count; ++i)
                    dstRow[i] = srcRow[x.base[i]];
        }
    }
}

// Linear and cubic. Source rows resampled along x and intermediate planes live in slots
// indexed by source row or plane number modulo the tap count: the taps of one entry are
// consecutive numbers (or repeats, where clamped), so they never evict each other, and a slot
// whose number matches is reused: consecutive rows and slices share their common taps.
template <class T>
class SliceResampler {
public:
    SliceResampler(const VolumeView<const T>& src, ResizeWorkspace& ws,
                   const ResizeRowKernels<T>& kernels)
        : src_(src), ws_(ws), kernels_(kernels)
    {
        std::fill(planeTag_, planeTag_ + 4, -1);
    }

    // Source plane sz resized in x and y: a float plane of the box's height, rowStride apart.
    const float* plane(int32_t sz)
    {
        const int slot = sz & (ws_.taps - 1);
        float* out = ws_.planeSlots + slot * ws_.planeStride;
        if (planeTag_[slot] == sz) return out;
        planeTag_[slot] = sz;
        std::fill(rowTag_, rowTag_ + 4, -1);
        const T* srcPlane = src_.plane(sz);
        const AxisTable& y = ws_.axis[1];
        const int width = ws_.axis[0].count;
        for (int j = 0; j < y.count; ++j) {
            int32_t t[4];
            tapIndices(y, j, ws_.taps, t);
            float* outRow = out + j * ws_.rowStride;
            if (ws_.taps == 2) {
                const float* r0 = row(srcPlane, t[0]);
                kernels_.blendLinear(r0, row(srcPlane, t[1]), y.fraction[j], outRow, width);
            } else {
                const float* rows[4];
                for (int k = 0; k < 4; ++k)
                    rows[k] = row(srcPlane, t[k]);
                kernels_.blendCubic(rows, y.weights + 4 * j, outRow, width);
            }
        }
        return out;
    }

private:
    // Source row sy of the plane resampled along x: border runs, then the interior.
    const float* row(const T* srcPlane, int32_t sy)
    {
        const int slot = sy & (ws_.taps - 1);
        float* out = ws_.rowSlots + slot * ws_.rowStride;
        if (rowTag_[slot] == sy) return out;
        rowTag_[slot] = sy;
        const T* srcRow = srcPlane + sy * src_.rowStep;
        const AxisTable& x = ws_.axis[0];
        const int interiorEnd = x.count - x.trail;
        resampleRowBorder(srcRow, x, ws_.taps, 0, x.lead, out);
        (ws_.taps == 2 ? kernels_.resampleLinear : kernels_.resampleCubic)(srcRow, x, x.lead,
                                                                           interiorEnd, out);
        resampleRowBorder(srcRow, x, ws_.taps, interiorEnd, x.count, out);
        return out;
    }

    const VolumeView<const T>& src_;
    ResizeWorkspace& ws_;
    const ResizeRowKernels<T>& kernels_;
    int32_t planeTag_[4];
    int32_t rowTag_[4];
};

template <class T>
void resampleSlices(const VolumeView<const T>& src, const VolumeView<T>& dst,
                    const ResizeRegion& region, ResizeWorkspace& ws, int sliceBegin, int sliceEnd,
                    const ResizeRowKernels<T>& kernels)
{
    SliceResampler<T> resampler(src, ws, kernels);
    const AxisTable &x = ws.axis[0], &y = ws.axis[1], &z = ws.axis[2];
    for (int k = sliceBegin; k < sliceEnd; ++k) {
        int32_t t[4];
        tapIndices(z, k, ws.taps, t);
        const float* planes[4];
        for (int m = 0; m < ws.taps; ++m)
            planes[m] = resampler.plane(t[m]);
        T* dstPlane = dst.plane(region.axis[2].dstStart + k);
        for (int j = 0; j < y.count; ++j) {
            T* dstRow =
                dstPlane + (region.axis[1].dstStart + j) * dst.rowStep + region.axis[0].dstStart;
            const std::ptrdiff_t at = j * ws.rowStride;
            if (ws.taps == 2) {
                kernels.storeLinear(planes[0] + at, planes[1] + at, z.fraction[k], dstRow, x.count);
            } else {
                const float* rows[4] = {planes[0] + at, planes[1] + at, planes[2] + at,
                                        planes[3] + at};
                kernels.storeCubic(rows, z.weights + 4 * k, dstRow, x.count);
            }
        }
    }
}

// With ordinary stores a destination that no cache holds evicts the intermediate planes it is
// blended from; streaming stores keep them cached.
bool preferStreamingStores(const ResizeRegion& region, std::size_t voxelBytes)
{
    return frame::streamsPastCaches(std::size_t(regionExtent(region, 0)) *
                                    std::size_t(regionExtent(region, 1)) *
                                    std::size_t(regionExtent(region, 2)) * voxelBytes);
}

}  // namespace

template <class T>
void resizeSlices(const VolumeView<const T>& src, VolumeSize srcVolume, const VolumeView<T>& dst,
                  const ResizeRegion& region, const InterpolationKernel& kernel, uint8_t* share,
                  int sliceBegin, int sliceEnd, const ResizeRowKernels<T>& kernels)
{
    if (sliceBegin >= sliceEnd) return;
    ResizeWorkspace ws =
        carveResizeWorkspace(share, regionExtent(region, 0), regionExtent(region, 1),
                             regionExtent(region, 2), kernel, std::is_same_v<T, uint8_t>);
    fillResizeTables(ws, region, srcVolume, kernel);
    if (ws.taps == 1)
        copyNearestSlices(src, dst, region, ws, sliceBegin, sliceEnd);
    else
        resampleSlices(src, dst, region, ws, sliceBegin, sliceEnd, kernels);
    fenceStreamingStores();
}

template <class T>
void resizeVolume(const VolumeView<const T>& src, VolumeSize srcVolume, const VolumeView<T>& dst,
                  const ResizeRegion& region, const InterpolationKernel& kernel, uint8_t* buffer)
{
    resizeSlices(src, srcVolume, dst, region, kernel, buffer, 0, regionExtent(region, 2),
                 avxRowKernels<T>(preferStreamingStores(region, sizeof(T))));
}

void resizeVolumeInTeam(const VolumeView<const float>& src, VolumeSize srcVolume,
                        const VolumeView<float>& dst, const ResizeRegion& region,
                        const InterpolationKernel& kernel, uint8_t* buffer)
{
    const int32_t width = regionExtent(region, 0), height = regionExtent(region, 1);
    const int32_t depth = regionExtent(region, 2);
    const std::size_t shareBytes = resizeBufferBytesPerThread(width, height, depth, kernel.code);
    const ResizeRowKernels<float> kernels =
        avxRowKernels<float>(preferStreamingStores(region, sizeof(float)));
    splitSlices(width, height, depth, [&](int member, int begin, int end) {
        resizeSlices(src, srcVolume, dst, region, kernel, buffer + std::size_t(member) * shareBytes,
                     begin, end, kernels);
    });
}

template void resizeVolume<uint8_t>(const VolumeView<const uint8_t>&, VolumeSize,
                                    const VolumeView<uint8_t>&, const ResizeRegion&,
                                    const InterpolationKernel&, uint8_t*);
template void resizeVolume<uint16_t>(const VolumeView<const uint16_t>&, VolumeSize,
                                     const VolumeView<uint16_t>&, const ResizeRegion&,
                                     const InterpolationKernel&, uint8_t*);
template void resizeVolume<float>(const VolumeView<const float>&, VolumeSize,
                                  const VolumeView<float>&, const ResizeRegion&,
                                  const InterpolationKernel&, uint8_t*);
template void resizeSlices<uint8_t>(const VolumeView<const uint8_t>&, VolumeSize,
                                    const VolumeView<uint8_t>&, const ResizeRegion&,
                                    const InterpolationKernel&, uint8_t*, int, int,
                                    const ResizeRowKernels<uint8_t>&);
template void resizeSlices<uint16_t>(const VolumeView<const uint16_t>&, VolumeSize,
                                     const VolumeView<uint16_t>&, const ResizeRegion&,
                                     const InterpolationKernel&, uint8_t*, int, int,
                                     const ResizeRowKernels<uint16_t>&);
template void resizeSlices<float>(const VolumeView<const float>&, VolumeSize,
                                  const VolumeView<float>&, const ResizeRegion&,
                                  const InterpolationKernel&, uint8_t*, int, int,
                                  const ResizeRowKernels<float>&);

}  // namespace vekr::volume
