// Entry functions of the volume resampling: argument checks in order, then one kernel.
#include <cstddef>

#include "frame/entry_points.h"
#include "vekcore.h"
#include "volume_geometry.h"

using namespace vekr;

static_assert(sizeof(VolumeSize) == 12 && offsetof(VolumeSize, depth) == 8);
static_assert(sizeof(Cuboid) == 24 && offsetof(Cuboid, width) == 12 &&
              offsetof(Cuboid, depth) == 20);

namespace {

bool cuboidValid(const Cuboid& c)
{
    return c.x >= 0 && c.width >= 1 && c.y >= 0 && c.height >= 1 && c.z >= 0 && c.depth >= 1;
}

// The checks both resize-related buffer queries share, in their order.
Status checkBufferQuery(Cuboid srcVOI, Cuboid dstVOI, int nChannel, int interpolation,
                        const int* pSize)
{
    if (pSize == nullptr) return StatusNullPointer;
    if (!cuboidValid(srcVOI) || !cuboidValid(dstVOI)) return StatusBadSize;
    if (nChannel != 1) return StatusBadChannels;
    if (!volume::isKnownInterpolation(interpolation)) return StatusBadInterpolation;
    return StatusOk;
}

}  // namespace

Status entry::vekrGetResizeCuboid(Cuboid srcVOI, Cuboid* pDstVOI, double xFactor, double yFactor,
                                  double zFactor, double xShift, double yShift, double zShift,
                                  int interpolation)
{
    if (pDstVOI == nullptr) return StatusNullPointer;
    if (!cuboidValid(srcVOI)) return StatusBadSize;
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

// The resize kernels are not in yet: every resize runs its checks and writes nothing.
#define VEKR_RESIZE_STUB_V(name, T)                                                                \
    Status entry::name(const T* pSrc, VolumeSize srcVolume, int, int, Cuboid srcVOI, T* pDst, int, \
                       int, Cuboid dstVOI, double xFactor, double yFactor, double zFactor,         \
                       double xShift, double yShift, double zShift, int interpolation,             \
                       uint8_t* pBuffer)                                                           \
    {                                                                                              \
        const double factor[3] = {xFactor, yFactor, zFactor};                                      \
        const double shift[3] = {xShift, yShift, zShift};                                          \
        volume::ResizeRegion region;                                                               \
        return volume::resolveResizeRegion(pSrc && pDst && pBuffer, srcVolume, srcVOI, dstVOI,     \
                                           factor, shift, interpolation, region);                  \
    }
#define VEKR_RESIZE_STUB_PV(name, T)                                                           \
    Status entry::name(const T* const pSrc[], VolumeSize srcVolume, int, Cuboid srcVOI,        \
                       T* const pDst[], int, Cuboid dstVOI, double xFactor, double yFactor,    \
                       double zFactor, double xShift, double yShift, double zShift,            \
                       int interpolation, uint8_t* pBuffer)                                    \
    {                                                                                          \
        const double factor[3] = {xFactor, yFactor, zFactor};                                  \
        const double shift[3] = {xShift, yShift, zShift};                                      \
        volume::ResizeRegion region;                                                           \
        return volume::resolveResizeRegion(pSrc && pDst && pBuffer, srcVolume, srcVOI, dstVOI, \
                                           factor, shift, interpolation, region);              \
    }
VEKR_RESIZE_STUB_V(vekrResize_8u_C1V, uint8_t)
VEKR_RESIZE_STUB_V(vekrResize_16u_C1V, uint16_t)
VEKR_RESIZE_STUB_V(vekrResize_32f_C1V, float)
VEKR_RESIZE_STUB_PV(vekrResize_8u_C1PV, uint8_t)
VEKR_RESIZE_STUB_PV(vekrResize_16u_C1PV, uint16_t)
VEKR_RESIZE_STUB_PV(vekrResize_32f_C1PV, float)
