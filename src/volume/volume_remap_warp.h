// Remap through coordinate volumes and affine warp: both fill a destination box voxel by voxel
// from source positions, one taken from three float maps, the other stepped in double along
// each row from the inverse transform. They share the slice routine, the team split and the
// per-voxel samplers; voxels whose position falls outside the source box keep their contents.
#pragma once

#include <cstddef>

#include "remap_rows.h"
#include "volume_resize.h"
#include "warp_rows.h"

namespace vekr::volume {

// The three coordinate volumes of a remap: one plane pointer per slice of the destination
// region, a row step in floats shared by all three.
struct RemapMaps {
    const float* const* x = nullptr;
    const float* const* y = nullptr;
    const float* const* z = nullptr;
    std::ptrdiff_t rowStep = 0;
};

// The source box clipped to the volume, as inclusive bounds. The box's origin must lie inside
// the volume (the entries check it).
template <class T>
SourceWindow<T> clippedWindow(const VolumeView<const T>& src, VolumeSize srcVolume, Cuboid srcVOI);

// The kind remap actually uses: cubic becomes linear when the whole source volume is below 4
// on any axis, and anything becomes nearest when it is below 2 on any axis.
const InterpolationKernel& remapKernelFor(const InterpolationKernel& kernel, VolumeSize srcVolume);

// Remap of the region (0, 0, 0) .. roi - 1 of dst, on the calling thread or split over the
// library's threads (every slice computed the same wherever it runs).
template <class T>
void remapVolume(const VolumeView<const T>& src, VolumeSize srcVolume, Cuboid srcVOI,
                 const RemapMaps& maps, const VolumeView<T>& dst, VolumeSize roi,
                 const InterpolationKernel& kernel);

// Source position = B (x, y, z, 1): the inverse of a forward 3 x 4 transform.
struct AffineInverse {
    double b[3][4];
};

// Determinants strictly between -1e-10 and 1e-10 are refused.
constexpr double kMinAffineDeterminant = 1e-10;

// Inverts the forward transform (12 doubles, rows of four) through its adjugate; false, with
// inverse untouched, for a determinant d with -1e-10 < d < 1e-10. A NaN determinant passes and
// gives NaN positions, which fall outside every box.
bool invertAffine(const double coeffs[12], AffineInverse& inverse);

// Warp of dstVOI of dst, on the calling thread or split over the library's threads.
template <class T>
void warpAffineVolume(const VolumeView<const T>& src, VolumeSize srcVolume, Cuboid srcVOI,
                      const VolumeView<T>& dst, Cuboid dstVOI, const AffineInverse& inverse,
                      const InterpolationKernel& kernel);

}  // namespace vekr::volume
