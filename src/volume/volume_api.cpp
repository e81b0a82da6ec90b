// Entry functions of the volume resampling: argument checks in order, then one kernel.
#include <cstddef>
#include <type_traits>

#include "frame/entry_points.h"
#include "vekcore.h"
#include "volume_filter.h"
#include "volume_geometry.h"
#include "volume_resize.h"

using namespace vekr;

static_assert(sizeof(VolumeSize) == 12 && offsetof(VolumeSize, depth) == 8);
static_assert(sizeof(Cuboid) == 24 && offsetof(Cuboid, width) == 12 &&
              offsetof(Cuboid, depth) == 20);

namespace {

// The checks both resize-related buffer queries share, in their order.
Status checkBufferQuery(Cuboid srcVOI, Cuboid dstVOI, int nChannel, int interpolation,
                        const int* pSize)
{
    if (pSize == nullptr) return StatusNullPointer;
    if (!volume::cuboidValid(srcVOI) || !volume::cuboidValid(dstVOI)) return StatusBadSize;
    if (nChannel != 1) return StatusBadChannels;
    if (!volume::isKnownInterpolation(interpolation)) return StatusBadInterpolation;
    return StatusOk;
}

// The destination-region stage every resize starts with, then the resize of one pair of views
// on the calling thread, or split over the library's threads for the one parallel form.
// Building a view reads nothing, so the views may be made before the checks.
template <class T>
Status checkThenResize(bool pointersPresent, const volume::VolumeView<const T>& src,
                       VolumeSize srcVolume, Cuboid srcVOI, const volume::VolumeView<T>& dst,
                       Cuboid dstVOI, double xFactor, double yFactor, double zFactor, double xShift,
                       double yShift, double zShift, int interpolation, uint8_t* buffer,
                       bool inTeam = false)
{
    const double factor[3] = {xFactor, yFactor, zFactor};
    const double shift[3] = {xShift, yShift, zShift};
    volume::ResizeRegion region;
    const Status status = volume::resolveResizeRegion(pointersPresent, srcVolume, srcVOI, dstVOI,
                                                      factor, shift, interpolation, region);
    if (status != StatusOk) return status;
    if constexpr (std::is_same_v<T, float>)
        if (inTeam) {
            volume::resizeVolumeInTeam(src, srcVolume, dst, region, interpolation, buffer);
            return StatusOk;
        }
    volume::resizeVolume(src, srcVolume, dst, region, interpolation, buffer);
    return StatusOk;
}

}  // namespace

Status entry::vekrGetResizeCuboid(Cuboid srcVOI, Cuboid* pDstVOI, double xFactor, double yFactor,
                                  double zFactor, double xShift, double yShift, double zShift,
                                  int interpolation)
{
    if (pDstVOI == nullptr) return StatusNullPointer;
    if (!volume::cuboidValid(srcVOI)) return StatusBadSize;
    if (!(xFactor > 0.0) || !(yFactor > 0.0) || !(zFactor > 0.0)) return StatusBadScale;
    if (!volume::isKnownInterpolation(interpolation)) return StatusBadInterpolation;
    const double factor[3] = {xFactor, yFactor, zFactor};
    const double shift[3] = {xShift, yShift, zShift};
    Cuboid covered;
    if (!volume::coveredCuboid(srcVOI, factor, shift, covered)) return StatusWarnNoOperation;
    *pDstVOI = covered;
    return StatusOk;
}

Status entry::vekrResizeGetBufSize(Cuboid srcVOI, Cuboid dstVOI, int nChannel, int interpolation,
                                   int* pSize)
{
    const Status status = checkBufferQuery(srcVOI, dstVOI, nChannel, interpolation, pSize);
    if (status != StatusOk) return status;
    *pSize = int(volume::resizeBufferBytesPerThread(dstVOI.width, dstVOI.height, dstVOI.depth,
                                                    interpolation) *
                 uint32_t(ownGetNumThreads()));
    return StatusOk;
}

// The affine warp takes and releases its scratch itself: no work buffer for any kind.
Status entry::vekrWarpAffineGetBufSize(Cuboid srcVOI, Cuboid dstVOI, int nChannel,
                                       int interpolation, int* pSize)
{
    const Status status = checkBufferQuery(srcVOI, dstVOI, nChannel, interpolation, pSize);
    if (status != StatusOk) return status;
    *pSize = 0;
    return StatusOk;
}

Status entry::vekrFilterGetBufSize(VolumeSize dstRoiSize, VolumeSize kernelVolume, int nChannel,
                                   int* pSize)
{
    if (pSize == nullptr) return StatusNullPointer;
    if (dstRoiSize.width < 1 || dstRoiSize.height < 1 || dstRoiSize.depth < 1 ||
        kernelVolume.width < 1 || kernelVolume.height < 1 || kernelVolume.depth < 1)
        return StatusBadSize;
    if (nChannel != 1) return StatusBadChannels;
    *pSize = int(volume::filterBufferBytesPerThread(dstRoiSize.width, kernelVolume) *
                 uint32_t(ownGetNumThreads()));
    return StatusOk;
}

// Steps arrive in bytes; the 16u and 32f forms turn them into voxels by an arithmetic shift, so
// a step that is not a multiple of the voxel size is rounded down.

Status entry::vekrResize_8u_C1V(const uint8_t* pSrc, VolumeSize srcVolume, int srcStep,
                                int srcPlaneStep, Cuboid srcVOI, uint8_t* pDst, int dstStep,
                                int dstPlaneStep, Cuboid dstVOI, double xFactor, double yFactor,
                                double zFactor, double xShift, double yShift, double zShift,
                                int interpolation, uint8_t* pBuffer)
{
    return checkThenResize(pSrc && pDst && pBuffer,
                           volume::blockVolume(pSrc, srcStep, srcPlaneStep), srcVolume, srcVOI,
                           volume::blockVolume(pDst, dstStep, dstPlaneStep), dstVOI, xFactor,
                           yFactor, zFactor, xShift, yShift, zShift, interpolation, pBuffer);
}

Status entry::vekrResize_16u_C1V(const uint16_t* pSrc, VolumeSize srcVolume, int srcStep,
                                 int srcPlaneStep, Cuboid srcVOI, uint16_t* pDst, int dstStep,
                                 int dstPlaneStep, Cuboid dstVOI, double xFactor, double yFactor,
                                 double zFactor, double xShift, double yShift, double zShift,
                                 int interpolation, uint8_t* pBuffer)
{
    return checkThenResize(
        pSrc && pDst && pBuffer, volume::blockVolume(pSrc, srcStep >> 1, srcPlaneStep >> 1),
        srcVolume, srcVOI, volume::blockVolume(pDst, dstStep >> 1, dstPlaneStep >> 1), dstVOI,
        xFactor, yFactor, zFactor, xShift, yShift, zShift, interpolation, pBuffer);
}

Status entry::vekrResize_32f_C1V(const float* pSrc, VolumeSize srcVolume, int srcStep,
                                 int srcPlaneStep, Cuboid srcVOI, float* pDst, int dstStep,
                                 int dstPlaneStep, Cuboid dstVOI, double xFactor, double yFactor,
                                 double zFactor, double xShift, double yShift, double zShift,
                                 int interpolation, uint8_t* pBuffer)
{
    return checkThenResize(
        pSrc && pDst && pBuffer, volume::blockVolume(pSrc, srcStep >> 2, srcPlaneStep >> 2),
        srcVolume, srcVOI, volume::blockVolume(pDst, dstStep >> 2, dstPlaneStep >> 2), dstVOI,
        xFactor, yFactor, zFactor, xShift, yShift, zShift, interpolation, pBuffer, true);
}

Status entry::vekrResize_8u_C1PV(const uint8_t* const pSrc[], VolumeSize srcVolume, int srcStep,
                                 Cuboid srcVOI, uint8_t* const pDst[], int dstStep, Cuboid dstVOI,
                                 double xFactor, double yFactor, double zFactor, double xShift,
                                 double yShift, double zShift, int interpolation, uint8_t* pBuffer)
{
    return checkThenResize(pSrc && pDst && pBuffer, volume::planarVolume(pSrc, srcStep), srcVolume,
                           srcVOI, volume::planarVolume(pDst, dstStep), dstVOI, xFactor, yFactor,
                           zFactor, xShift, yShift, zShift, interpolation, pBuffer);
}

Status entry::vekrResize_16u_C1PV(const uint16_t* const pSrc[], VolumeSize srcVolume, int srcStep,
                                  Cuboid srcVOI, uint16_t* const pDst[], int dstStep, Cuboid dstVOI,
                                  double xFactor, double yFactor, double zFactor, double xShift,
                                  double yShift, double zShift, int interpolation, uint8_t* pBuffer)
{
    return checkThenResize(pSrc && pDst && pBuffer, volume::planarVolume(pSrc, srcStep >> 1),
                           srcVolume, srcVOI, volume::planarVolume(pDst, dstStep >> 1), dstVOI,
                           xFactor, yFactor, zFactor, xShift, yShift, zShift, interpolation,
                           pBuffer);
}

Status entry::vekrResize_32f_C1PV(const float* const pSrc[], VolumeSize srcVolume, int srcStep,
                                  Cuboid srcVOI, float* const pDst[], int dstStep, Cuboid dstVOI,
                                  double xFactor, double yFactor, double zFactor, double xShift,
                                  double yShift, double zShift, int interpolation, uint8_t* pBuffer)
{
    return checkThenResize(pSrc && pDst && pBuffer, volume::planarVolume(pSrc, srcStep >> 2),
                           srcVolume, srcVOI, volume::planarVolume(pDst, dstStep >> 2), dstVOI,
                           xFactor, yFactor, zFactor, xShift, yShift, zShift, interpolation,
                           pBuffer);
}

// Remap, affine warp and the 3-D filter: kernels to come.
Status entry::vekrRemap_8u_C1PV(const uint8_t* const[], VolumeSize, int, Cuboid,
                                const float* const[], const float* const[], const float* const[],
                                int, uint8_t* const[], int, VolumeSize, int)
{
    return StatusOk;
}
Status entry::vekrRemap_16u_C1PV(const uint16_t* const[], VolumeSize, int, Cuboid,
                                 const float* const[], const float* const[], const float* const[],
                                 int, uint16_t* const[], int, VolumeSize, int)
{
    return StatusOk;
}
Status entry::vekrRemap_32f_C1PV(const float* const[], VolumeSize, int, Cuboid,
                                 const float* const[], const float* const[], const float* const[],
                                 int, float* const[], int, VolumeSize, int)
{
    return StatusOk;
}
Status entry::vekrWarpAffine_8u_C1PV(const uint8_t* const[], VolumeSize, int, Cuboid,
                                     uint8_t* const[], int, Cuboid, const double*, int, uint8_t*)
{
    return StatusOk;
}
Status entry::vekrWarpAffine_16u_C1PV(const uint16_t* const[], VolumeSize, int, Cuboid,
                                      uint16_t* const[], int, Cuboid, const double*, int, uint8_t*)
{
    return StatusOk;
}
Status entry::vekrWarpAffine_32f_C1PV(const float* const[], VolumeSize, int, Cuboid,
                                      float* const[], int, Cuboid, const double*, int, uint8_t*)
{
    return StatusOk;
}
Status entry::vekrFilter_16s_C1PV(const int16_t* const pSrc[], int srcStep, int16_t* const pDst[],
                                  int dstStep, VolumeSize dstRoiSize, const int32_t* pKernel,
                                  VolumeSize kernelVolume, int anchorX, int anchorY, int anchorZ,
                                  int divisor, uint8_t* pBuffer)
{
    if (pSrc == nullptr || pDst == nullptr || pKernel == nullptr || pBuffer == nullptr)
        return StatusNullPointer;
    if (dstRoiSize.width < 1 || dstRoiSize.height < 1 || dstRoiSize.depth < 1 ||
        kernelVolume.width < 1 || kernelVolume.height < 1 || kernelVolume.depth < 1 || divisor == 0)
        return StatusBadSize;
    const volume::FilterJob job{.srcPlanes = pSrc,
                                .srcRowStep = srcStep >> 1,
                                .dstPlanes = pDst,
                                .dstRowStep = dstStep >> 1,
                                .roi = dstRoiSize,
                                .kernel = pKernel,
                                .kernelExtent = kernelVolume,
                                .anchor = {anchorX, anchorY, anchorZ},
                                .divisor = divisor};
    volume::filterVolume(job, pBuffer);
    return StatusOk;
}
