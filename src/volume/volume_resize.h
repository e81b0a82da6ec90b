// Resize of a volume box, slice by slice through intermediate planes: each source plane that a
// destination slice needs is resampled along x row by row and blended along y into a float
// plane of the destination box's width and height, and the slice is the blend of those planes
// along z. Nearest reads each destination voxel straight from the source.
#pragma once

#include <cstddef>
#include <cstdint>

#include "resample_kernels.h"
#include "resize_rows.h"
#include "volume_geometry.h"

namespace vekr::volume {

// A volume as the resize reads or writes it: one block with a plane step (V) or one pointer
// per plane (PV), with a row step shared by all planes. Steps count voxels.
template <class T>
struct VolumeView {
    T* block = nullptr;          // V: voxel (0, 0, 0)
    T* const* planes = nullptr;  // PV: plane z starts at planes[z]; null for V
    std::ptrdiff_t planeStep = 0;
    std::ptrdiff_t rowStep = 0;

    T* plane(std::ptrdiff_t z) const { return planes ? planes[z] : block + z * planeStep; }
};

template <class T>
VolumeView<T> blockVolume(T* block, int rowStep, int planeStep)
{
    return {block, nullptr, planeStep, rowStep};
}
template <class T>
VolumeView<T> planarVolume(T* const* planes, int rowStep)
{
    return {nullptr, planes, 0, rowStep};
}

// Writes the region's destination box on the calling thread, with the work buffer of
// resizeBufferBytesPerThread for the region's extents (or any larger box).
template <class T>
void resizeVolume(const VolumeView<const T>& src, VolumeSize srcVolume, const VolumeView<T>& dst,
                  const ResizeRegion& region, const InterpolationKernel& kernel, uint8_t* buffer);

// The same, split over a team of the library's threads when the region is at least 16 voxels
// on each axis and there is more than one thread: with n members, member t writes the slices
// from t * q on, q = depth / n, q of them or, the last member, q + depth % n, and works in the
// share at buffer + t * resizeBufferBytesPerThread(region's extents). Every slice is computed
// the same way wherever it runs, so any team size gives the same bytes.
void resizeVolumeInTeam(const VolumeView<const float>& src, VolumeSize srcVolume,
                        const VolumeView<float>& dst, const ResizeRegion& region,
                        const InterpolationKernel& kernel, uint8_t* buffer);

// The slices sliceBegin .. sliceEnd - 1 (counted from the region's first) of the region, with
// one thread's share and a chosen set of row kernels.
template <class T>
void resizeSlices(const VolumeView<const T>& src, VolumeSize srcVolume, const VolumeView<T>& dst,
                  const ResizeRegion& region, const InterpolationKernel& kernel, uint8_t* share,
                  int sliceBegin, int sliceEnd, const ResizeRowKernels<T>& kernels);

// The same for a caller that holds a known public code (the benchmarks of the internal stages).
template <class T>
void resizeSlices(const VolumeView<const T>& src, VolumeSize srcVolume, const VolumeView<T>& dst,
                  const ResizeRegion& region, int interpolation, uint8_t* share, int sliceBegin,
                  int sliceEnd, const ResizeRowKernels<T>& kernels)
{
    resizeSlices(src, srcVolume, dst, region, *findInterpolationKernel(interpolation), share,
                 sliceBegin, sliceEnd, kernels);
}

}  // namespace vekr::volume
