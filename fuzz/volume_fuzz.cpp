// Fuzzes the volume entry points: the resize box and the three buffer-size queries over the
// whole int and double range, and resize (block and planar), remap, affine warp and the 3-D
// filter on volumes up to about 32 voxels a side. Every source, destination, map and work buffer
// is exactly as large as the geometry or the size query says; the destination's voxels outside
// the documented region must keep their contents, and a refused call must write nothing.
#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <type_traits>
#include <vector>

#include "exact_buffers.h"
#include "fuzz_inputs.h"

using namespace vekr::fuzz;

namespace {

constexpr int kMaxExtent = 24;  // source volumes, maps and filter regions per axis
constexpr int kMaxBox = 28;     // destination boxes per axis

// --- Arguments -------------------------------------------------------------------------------

// Regions of 16 voxels or more on every axis are split over the library's threads: a quarter
// of the inputs ask for them.
int pickLeastExtent(FuzzedDataProvider& in)
{
    return in.ConsumeIntegralInRange<int>(0, 3) == 3 ? 16 : 1;
}

int pickInterpolation(FuzzedDataProvider& in)
{
    constexpr int kKnown[] = {InterpolationLinear,          InterpolationNearest,
                              InterpolationCubicLagrange,   InterpolationCubicBSpline,
                              InterpolationCubicCatmullRom, InterpolationCubicB05C03};
    constexpr int kUnknown[] = {0, 3, 8, -1, INT_MIN, INT_MAX};
    if (rarely(in))
        return kUnknown[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kUnknown) - 1)];
    return kKnown[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kKnown) - 1)];
}

// Mostly a valid box near the origin; sometimes invalid, sometimes anywhere in the int range or
// just below its end, where a first voxel plus an index overflows.
Cuboid pickCuboid(FuzzedDataProvider& in, int maxOrigin, int maxExtent, int leastExtent = 1)
{
    Cuboid c{};
    int32_t* fields[6] = {&c.x, &c.y, &c.z, &c.width, &c.height, &c.depth};
    for (int i = 0; i < 6; ++i) {
        const bool origin = i < 3;
        switch (in.ConsumeIntegralInRange<int>(0, 31)) {
            case 29:
                *fields[i] = INT32_MAX - in.ConsumeIntegralInRange<int>(0, 40);
                break;
            case 30:
                *fields[i] = in.ConsumeIntegralInRange<int>(-2, 0);
                break;
            case 31:
                *fields[i] = in.ConsumeIntegral<int32_t>();
                break;
            default:
                *fields[i] = origin ? in.ConsumeIntegralInRange<int>(0, maxOrigin)
                                    : in.ConsumeIntegralInRange<int>(leastExtent, maxExtent);
        }
    }
    return c;
}

VolumeSize pickVolumeSize(FuzzedDataProvider& in, int most, int least = 1)
{
    auto axis = [&] {
        return rarely(in) ? in.ConsumeIntegralInRange<int>(-1, 0)
                          : in.ConsumeIntegralInRange<int>(least, most);
    };
    const int w = axis(), h = axis(), d = axis();
    return {w, h, d};
}

double pickFactor(FuzzedDataProvider& in)
{
    constexpr double kRatios[] = {1.0, 2.0, 0.5, 1.5, 1.0 / 3.0, 0.75, 3.0, 0.1};
    if (rarely(in)) return pickReal(in, -2.0, 1e6);
    if (in.ConsumeBool())
        return kRatios[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kRatios) - 1)];
    return in.ConsumeFloatingPointInRange(0.05, 4.0);
}

double pickShift(FuzzedDataProvider& in)
{
    if (rarely(in)) return pickReal(in, -1e9, 1e9);
    return in.ConsumeBool() ? double(in.ConsumeIntegralInRange<int>(-8, 8))
                            : in.ConsumeFloatingPointInRange(-8.0, 8.0);
}

bool cuboidValid(const Cuboid& c)
{
    return c.x >= 0 && c.width >= 1 && c.y >= 0 && c.height >= 1 && c.z >= 0 && c.depth >= 1;
}

bool sizeValid(const VolumeSize& v)
{
    return v.width > 0 && v.height > 0 && v.depth > 0;
}

bool knownInterpolation(int code)
{
    return code == 1 || code == 2 || (code >= 4 && code <= 7);
}

bool originOutside(const Cuboid& voi, const VolumeSize& v)
{
    return voi.x >= v.width || voi.y >= v.height || voi.z >= v.depth;
}

// --- Volumes in exact blocks -------------------------------------------------------------------

template <class T>
T pickVoxel(uint64_t r)
{
    if constexpr (std::is_same_v<T, float>)
        return float(int64_t(r % 20001) - 10000) * 0.01f;
    else
        return T(r);
}

// How rows (and, in one block, planes) follow each other: the next one after the padding
// (mostly), the one before it (a volume stored upside down: negative steps), or the same memory
// (steps of 0).
enum class Steps { Padded, Flipped, Aliased };

Steps pickSteps(FuzzedDataProvider& in)
{
    switch (in.ConsumeIntegralInRange<int>(0, 15)) {
        case 14:
            return Steps::Flipped;
        case 15:
            return Steps::Aliased;
        default:
            return Steps::Padded;
    }
}

// A W x H x D volume held as one block or as one block per plane, listed in an exact array of
// plane pointers. Each block runs exactly from the lowest to the highest voxel the steps reach.
// Extents below 1 give empty blocks, which a refused call must not touch.
template <class T>
struct Volume {
    VolumeSize extent{};
    int rowStepBytes = 0;
    int planeStepBytes = 0;  // block layout only
    T* block = nullptr;      // block layout: voxel (0, 0, 0)
    T** planes = nullptr;    // planar layout
    struct Run {
        T* first;                 // the run's lowest voxel
        std::size_t count;        // voxels
        std::ptrdiff_t originAt;  // index of voxel (0, 0) of the plane (or (0, 0, 0)) in the run
    };
    std::vector<Run> runs;  // the block, or one per plane

    std::vector<std::vector<T>> copy() const
    {
        std::vector<std::vector<T>> stored;
        for (const Run& r : runs)
            stored.emplace_back(r.first, r.first + r.count);
        return stored;
    }
};

template <class T>
Volume<T> makeVolume(FuzzedDataProvider& in, ExactBlocks& blocks, VolumeSize extent, bool asBlock,
                     int rowPadding = -1, Steps steps = Steps::Padded)
{
    Volume<T> v;
    v.extent = extent;
    const int w = std::max(extent.width, 0), h = std::max(extent.height, 0),
              d = std::max(extent.depth, 0);
    // Aliased volumes may be INT32_MAX rows high (or planes deep): their memory is one row.
    const int sign = steps == Steps::Flipped ? -1 : steps == Steps::Aliased ? 0 : 1;
    const int padding = rowPadding >= 0 ? rowPadding : in.ConsumeIntegralInRange<int>(0, 3);
    const int paddingRows = in.ConsumeIntegralInRange<int>(0, 2);
    const int rowStep = sign * (w + padding);
    const int planeStep = sign == 0 ? 0 : sign * (w + padding) * (h + paddingRows);
    v.rowStepBytes = rowStep * int(sizeof(T));
    v.planeStepBytes = asBlock ? planeStep * int(sizeof(T)) : 0;
    // The lowest and highest offsets of a plane's rows, and of the block's planes.
    const std::ptrdiff_t rows = std::ptrdiff_t(h - 1) * rowStep;
    const std::ptrdiff_t planes = asBlock ? std::ptrdiff_t(d - 1) * planeStep : 0;
    const std::ptrdiff_t rowsLow = std::min<std::ptrdiff_t>(0, rows),
                         rowsHigh = std::max<std::ptrdiff_t>(0, rows);
    const std::ptrdiff_t planesLow = std::min<std::ptrdiff_t>(0, planes),
                         planesHigh = std::max<std::ptrdiff_t>(0, planes);
    const bool empty = w == 0 || h == 0 || d == 0;
    auto run = [&](std::ptrdiff_t low, std::ptrdiff_t high) {
        const std::size_t count = empty ? 0 : std::size_t(high - low + w);
        T* first = blocks.take<T>(count);
        fillValues(in, first, count, pickVoxel<T>);
        v.runs.push_back({first, count, -low});
        return first - low;
    };
    if (asBlock) {
        v.block = run(planesLow + rowsLow, planesHigh + rowsHigh);
        return v;
    }
    v.planes = blocks.take<T*>(std::size_t(d));
    for (int z = 0; z < d; ++z)
        v.planes[z] = run(rowsLow, rowsHigh);
    return v;
}

// True when no stored voxel differs from a copy made before, except those of voxels inside box
// (which, with aliased rows, may share their memory with voxels outside it).
template <class T>
bool unchangedOutside(const Volume<T>& v, const std::vector<std::vector<T>>& before, Cuboid box)
{
    const std::ptrdiff_t rowStep = v.rowStepBytes / int(sizeof(T));
    const std::ptrdiff_t planeStep = v.planeStepBytes / int(sizeof(T));
    const int64_t x0 = std::max(box.x, 0),
                  x1 = std::min<int64_t>(int64_t(box.x) + box.width, v.extent.width);
    const int64_t y0 = std::max(box.y, 0),
                  y1 = std::min<int64_t>(int64_t(box.y) + box.height, v.extent.height);
    const int64_t z0 = std::max(box.z, 0),
                  z1 = std::min<int64_t>(int64_t(box.z) + box.depth, v.extent.depth);
    // Rows (or planes) of step 0 are all the same memory: one stands for every other.
    const int64_t yEnd = rowStep == 0 ? std::min(y1, y0 + 1) : y1;
    const int64_t zEnd = v.block && planeStep == 0 ? std::min(z1, z0 + 1) : z1;
    for (std::size_t r = 0; r < v.runs.size(); ++r) {
        const auto& run = v.runs[r];
        std::vector<bool> mayChange(run.count, false);
        for (int64_t z = v.block ? z0 : int64_t(r); z < (v.block ? zEnd : int64_t(r) + 1); ++z) {
            if (z < z0 || z >= z1) continue;
            for (int64_t y = y0; y < yEnd; ++y)
                for (int64_t x = x0; x < x1; ++x)
                    mayChange[std::size_t(run.originAt + (v.block ? z * planeStep : 0) +
                                          y * rowStep + x)] = true;
        }
        for (std::size_t i = 0; i < run.count; ++i)
            if (!mayChange[i] && std::memcmp(&run.first[i], &before[r][i], sizeof(T)) != 0)
                return false;
    }
    return true;
}

// The extent a destination needs to hold box: up to its far corner, and any extent along an
// axis of step 0, whose rows (or a block's planes) are all the same memory, so that boxes far
// out reach the library there. Nothing for an invalid box or one too far out to hold.
VolumeSize extentHolding(const Cuboid& box, Steps steps = Steps::Padded, bool asBlock = false)
{
    const bool rowsAliased = steps == Steps::Aliased, planesAliased = rowsAliased && asBlock;
    const int64_t limit = 2 * kMaxBox;
    if (!cuboidValid(box) || box.width > kMaxBox || box.height > kMaxBox || box.depth > kMaxBox ||
        int64_t(box.x) + box.width > limit ||
        (!rowsAliased && int64_t(box.y) + box.height > limit) ||
        (!planesAliased && int64_t(box.z) + box.depth > limit))
        return {0, 0, 0};
    return {box.x + box.width, rowsAliased ? INT32_MAX : box.y + box.height,
            planesAliased ? INT32_MAX : box.z + box.depth};
}

// Half the boxes over rows of step 0 (or a block's planes of step 0) move to the end of the
// int range along those axes, where a first row plus an index overflows.
Cuboid farAlongAliasedAxes(FuzzedDataProvider& in, Cuboid box, Steps steps, bool asBlock)
{
    if (steps != Steps::Aliased || !in.ConsumeBool()) return box;
    box.y = INT32_MAX - in.ConsumeIntegralInRange<int>(0, 40);
    if (asBlock) box.z = INT32_MAX - in.ConsumeIntegralInRange<int>(0, 40);
    return box;
}

// --- Queries over the whole argument range ---------------------------------------------------

void fuzzQueries(FuzzedDataProvider& in)
{
    const Cuboid src = pickCuboid(in, 64, 64), dst = pickCuboid(in, 64, 64);
    const int interpolation = pickInterpolation(in);
    const int channels = rarely(in) ? in.ConsumeIntegral<int>() : 1;
    const double factor[3] = {pickFactor(in), pickFactor(in), pickFactor(in)};
    const double shift[3] = {pickShift(in), pickShift(in), pickShift(in)};

    const Cuboid sentinel{-7, -7, -7, -7, -7, -7};
    Cuboid covered = sentinel;
    Cuboid* coveredOut = maybeNull(in, &covered);
    const Status cuboidStatus =
        vekrGetResizeCuboid(src, coveredOut, factor[0], factor[1], factor[2], shift[0], shift[1],
                            shift[2], interpolation);
    Status expected = !coveredOut                                          ? StatusNullPointer
                      : !cuboidValid(src)                                  ? StatusBadSize
                      : !(factor[0] > 0 && factor[1] > 0 && factor[2] > 0) ? StatusBadScale
                      : !knownInterpolation(interpolation)                 ? StatusBadInterpolation
                                                                           : StatusOk;
    if (expected == StatusOk && cuboidStatus == StatusWarnNoOperation) expected = cuboidStatus;
    requireStatus(cuboidStatus, expected, "vekrGetResizeCuboid");
    if (cuboidStatus == StatusOk)
        require(cuboidValid(covered), "vekrGetResizeCuboid wrote an invalid box");
    else
        require(std::memcmp(&covered, &sentinel, sizeof covered) == 0, "a refused box query wrote");

    int bytes = -7;
    int* bytesOut = maybeNull(in, &bytes);
    expected = !bytesOut                                ? StatusNullPointer
               : !cuboidValid(src) || !cuboidValid(dst) ? StatusBadSize
               : channels != 1                          ? StatusBadChannels
               : !knownInterpolation(interpolation)     ? StatusBadInterpolation
                                                        : StatusOk;
    requireStatus(vekrResizeGetBufSize(src, dst, channels, interpolation, bytesOut), expected,
                  "vekrResizeGetBufSize");
    require(expected == StatusOk || bytes == -7, "a refused resize buffer query wrote");
    bytes = -7;
    requireStatus(vekrWarpAffineGetBufSize(src, dst, channels, interpolation, bytesOut), expected,
                  "vekrWarpAffineGetBufSize");
    require(expected == StatusOk ? bytes == 0 : bytes == -7, "the warp buffer query wrote not 0");

    const VolumeSize roi{dst.width, dst.height, dst.depth},
        kernel{src.width, src.height, src.depth};
    bytes = -7;
    expected = !bytesOut                               ? StatusNullPointer
               : !sizeValid(roi) || !sizeValid(kernel) ? StatusBadSize
               : channels != 1                         ? StatusBadChannels
                                                       : StatusOk;
    requireStatus(vekrFilterGetBufSize(roi, kernel, channels, bytesOut), expected,
                  "vekrFilterGetBufSize");
    require(expected == StatusOk || bytes == -7, "a refused filter buffer query wrote");
}

// --- Resize ---------------------------------------------------------------------------------

template <class T>
Status callResize(bool asBlock, const Volume<T>& src, const T* srcBlock, const T* const* srcPlanes,
                  Cuboid srcVOI, Volume<T>& dst, T* dstBlock, T* const* dstPlanes, Cuboid dstVOI,
                  const double f[3], const double s[3], int interpolation, uint8_t* buffer)
{
    if constexpr (std::is_same_v<T, uint8_t>) {
        return asBlock ? vekrResize_8u_C1V(srcBlock, src.extent, src.rowStepBytes,
                                           src.planeStepBytes, srcVOI, dstBlock, dst.rowStepBytes,
                                           dst.planeStepBytes, dstVOI, f[0], f[1], f[2], s[0], s[1],
                                           s[2], interpolation, buffer)
                       : vekrResize_8u_C1PV(srcPlanes, src.extent, src.rowStepBytes, srcVOI,
                                            dstPlanes, dst.rowStepBytes, dstVOI, f[0], f[1], f[2],
                                            s[0], s[1], s[2], interpolation, buffer);
    } else if constexpr (std::is_same_v<T, uint16_t>) {
        return asBlock ? vekrResize_16u_C1V(srcBlock, src.extent, src.rowStepBytes,
                                            src.planeStepBytes, srcVOI, dstBlock, dst.rowStepBytes,
                                            dst.planeStepBytes, dstVOI, f[0], f[1], f[2], s[0],
                                            s[1], s[2], interpolation, buffer)
                       : vekrResize_16u_C1PV(srcPlanes, src.extent, src.rowStepBytes, srcVOI,
                                             dstPlanes, dst.rowStepBytes, dstVOI, f[0], f[1], f[2],
                                             s[0], s[1], s[2], interpolation, buffer);
    } else {
        return asBlock ? vekrResize_32f_C1V(srcBlock, src.extent, src.rowStepBytes,
                                            src.planeStepBytes, srcVOI, dstBlock, dst.rowStepBytes,
                                            dst.planeStepBytes, dstVOI, f[0], f[1], f[2], s[0],
                                            s[1], s[2], interpolation, buffer)
                       : vekrResize_32f_C1PV(srcPlanes, src.extent, src.rowStepBytes, srcVOI,
                                             dstPlanes, dst.rowStepBytes, dstVOI, f[0], f[1], f[2],
                                             s[0], s[1], s[2], interpolation, buffer);
    }
}

template <class T>
void fuzzResize(FuzzedDataProvider& in)
{
    ExactBlocks blocks(pickFence(in));
    const bool asBlock = in.ConsumeBool();
    const int least = pickLeastExtent(in);
    const VolumeSize srcExtent = pickVolumeSize(in, kMaxExtent, least);
    const Cuboid srcVOI = pickCuboid(in, least > 1 ? 0 : kMaxExtent, kMaxExtent + 4, least);
    Cuboid dstVOI = pickCuboid(in, 6, kMaxBox - 6, least);
    const double factor[3] = {pickFactor(in), pickFactor(in), pickFactor(in)};
    const double shift[3] = {pickShift(in), pickShift(in), pickShift(in)};
    const int interpolation = pickInterpolation(in);

    Volume<T> src = makeVolume<T>(in, blocks, srcExtent, asBlock, -1, pickSteps(in));
    const Steps dstSteps = pickSteps(in);
    dstVOI = farAlongAliasedAxes(in, dstVOI, dstSteps, asBlock);
    const VolumeSize dstExtent = extentHolding(dstVOI, dstSteps, asBlock);
    Volume<T> dst = makeVolume<T>(in, blocks, dstExtent, asBlock, -1, dstSteps);
    int bytes = 0;
    // Boxes too large to hold give sizes that wrap; those calls are refused before the buffer.
    const bool sized = vekrResizeGetBufSize(srcVOI, dstVOI, 1, interpolation, &bytes) == StatusOk &&
                       dstExtent.width > 0;
    uint8_t* buffer = blocks.take<uint8_t>(sized ? std::size_t(bytes) : 0,
                                           in.ConsumeIntegralInRange<std::size_t>(0, 63));

    const T* srcBlock = maybeNull(in, static_cast<const T*>(src.block));
    const T* const* srcPlanes = maybeNull(in, static_cast<const T* const*>(src.planes));
    T* dstBlock = maybeNull(in, dst.block);
    T* const* dstPlanes = maybeNull(in, static_cast<T* const*>(dst.planes));
    buffer = maybeNull(in, buffer);
    const bool present = (asBlock ? srcBlock && dstBlock : srcPlanes && dstPlanes) && buffer;
    Status expected = !present ? StatusNullPointer
                      : !sizeValid(srcExtent) || !cuboidValid(srcVOI) || !cuboidValid(dstVOI)
                          ? StatusBadSize
                      : !(factor[0] > 0 && factor[1] > 0 && factor[2] > 0) ? StatusBadScale
                      : !knownInterpolation(interpolation)                 ? StatusBadInterpolation
                      : originOutside(srcVOI, srcExtent) ? StatusWarnVoiOutsideSource
                                                         : StatusOk;
    // Destination boxes too far out to hold are only passed where nothing is written.
    if (expected == StatusOk && dstExtent.width == 0) return;
    const auto before = blocks.snapshot();
    const auto dstBefore = dst.copy();
    const Status status = callResize<T>(asBlock, src, srcBlock, srcPlanes, srcVOI, dst, dstBlock,
                                        dstPlanes, dstVOI, factor, shift, interpolation, buffer);
    if (expected == StatusOk && status == StatusWarnNoOperation) expected = status;
    requireStatus(status, expected, "vekrResize");
    if (status != StatusOk)
        require(blocks.unchangedSince(before), "a resize that wrote nothing changed memory");
    else
        require(unchangedOutside(dst, dstBefore, dstVOI), "a resize wrote outside dstVOI");
}

// --- Remap and warp -------------------------------------------------------------------------

// Positions around the source: mostly inside or just outside it, with special values.
void fillPositions(FuzzedDataProvider& in, float* p, std::size_t n, int extent)
{
    const float span = float(std::max(extent, 1)) + 4.0f;
    fillValues(in, p, n, [&](uint64_t r) { return float(r % 4096) / 4096.0f * span - 2.0f; });
}

template <class T>
Status callRemap(const T* const* src, VolumeSize srcExtent, int srcStep, Cuboid srcVOI,
                 const float* const* maps[3], int mapStep, T* const* dst, int dstStep,
                 VolumeSize roi, int interpolation)
{
    if constexpr (std::is_same_v<T, uint8_t>)
        return vekrRemap_8u_C1PV(src, srcExtent, srcStep, srcVOI, maps[0], maps[1], maps[2],
                                 mapStep, dst, dstStep, roi, interpolation);
    else if constexpr (std::is_same_v<T, uint16_t>)
        return vekrRemap_16u_C1PV(src, srcExtent, srcStep, srcVOI, maps[0], maps[1], maps[2],
                                  mapStep, dst, dstStep, roi, interpolation);
    else
        return vekrRemap_32f_C1PV(src, srcExtent, srcStep, srcVOI, maps[0], maps[1], maps[2],
                                  mapStep, dst, dstStep, roi, interpolation);
}

template <class T>
void fuzzRemap(FuzzedDataProvider& in)
{
    ExactBlocks blocks(pickFence(in));
    const VolumeSize srcExtent = pickVolumeSize(in, kMaxExtent);
    const Cuboid srcVOI = pickCuboid(in, kMaxExtent, kMaxExtent + 4);
    const VolumeSize roi = pickVolumeSize(in, 20, pickLeastExtent(in));
    const int interpolation = pickInterpolation(in);
    Volume<T> src = makeVolume<T>(in, blocks, srcExtent, false, -1, pickSteps(in));
    Volume<T> dst = makeVolume<T>(in, blocks, roi, false, -1, pickSteps(in));
    std::array<Volume<float>, 3> maps;
    const int mapPadding = in.ConsumeIntegralInRange<int>(0, 3);
    const Steps mapSteps = pickSteps(in);
    const int srcAxes[3] = {srcExtent.width, srcExtent.height, srcExtent.depth};
    for (int a = 0; a < 3; ++a) {
        maps[a] = makeVolume<float>(in, blocks, roi, false, mapPadding, mapSteps);  // one step
        for (const auto& run : maps[a].runs)
            fillPositions(in, run.first, run.count, srcAxes[a]);
    }
    const T* const* srcPlanes = maybeNull(in, static_cast<const T* const*>(src.planes));
    T* const* dstPlanes = maybeNull(in, static_cast<T* const*>(dst.planes));
    const float* const* mapPlanes[3];
    for (int a = 0; a < 3; ++a)
        mapPlanes[a] = maybeNull(in, static_cast<const float* const*>(maps[a].planes));
    const Status expected =
        !srcPlanes || !dstPlanes || !mapPlanes[0] || !mapPlanes[1] || !mapPlanes[2]
            ? StatusNullPointer
        : !sizeValid(srcExtent) || !cuboidValid(srcVOI) || !sizeValid(roi) ? StatusBadSize
        : !knownInterpolation(interpolation)                               ? StatusBadInterpolation
        : originOutside(srcVOI, srcExtent) ? StatusWarnVoiOutsideSource
                                           : StatusOk;
    const auto before = blocks.snapshot();
    const auto dstBefore = dst.copy();
    const Status status =
        callRemap<T>(srcPlanes, srcExtent, src.rowStepBytes, srcVOI, mapPlanes,
                     maps[0].rowStepBytes, dstPlanes, dst.rowStepBytes, roi, interpolation);
    requireStatus(status, expected, "vekrRemap");
    if (status != StatusOk)
        require(blocks.unchangedSince(before), "a refused remap wrote");
    else
        require(unchangedOutside(dst, dstBefore, {0, 0, 0, roi.width, roi.height, roi.depth}),
                "a remap wrote outside its region");
}

// The documented singularity test: cofactors and determinant in this order, in double.
bool singular(const double a[12])
{
    const double c00 = a[5] * a[10] - a[9] * a[6];
    const double c01 = a[10] * a[4] - a[6] * a[8];
    const double c02 = a[9] * a[4] - a[5] * a[8];
    const double det = a[0] * c00 - a[1] * c01 + a[2] * c02;
    return det > -1e-10 && det < 1e-10;
}

template <class T>
Status callWarp(const T* const* src, VolumeSize srcExtent, int srcStep, Cuboid srcVOI,
                T* const* dst, int dstStep, Cuboid dstVOI, const double* coeffs, int interpolation,
                uint8_t* buffer)
{
    if constexpr (std::is_same_v<T, uint8_t>)
        return vekrWarpAffine_8u_C1PV(src, srcExtent, srcStep, srcVOI, dst, dstStep, dstVOI, coeffs,
                                      interpolation, buffer);
    else if constexpr (std::is_same_v<T, uint16_t>)
        return vekrWarpAffine_16u_C1PV(src, srcExtent, srcStep, srcVOI, dst, dstStep, dstVOI,
                                       coeffs, interpolation, buffer);
    else
        return vekrWarpAffine_32f_C1PV(src, srcExtent, srcStep, srcVOI, dst, dstStep, dstVOI,
                                       coeffs, interpolation, buffer);
}

template <class T>
void fuzzWarp(FuzzedDataProvider& in)
{
    ExactBlocks blocks(pickFence(in));
    const VolumeSize srcExtent = pickVolumeSize(in, kMaxExtent);
    const Cuboid srcVOI = pickCuboid(in, kMaxExtent, kMaxExtent + 4);
    Cuboid dstVOI = pickCuboid(in, 6, kMaxBox - 6, pickLeastExtent(in));
    const int interpolation = pickInterpolation(in);
    // Near the identity (small turns, scales and shifts), or any matrix at all.
    double* coeffs = blocks.take<double>(12);
    const bool nearIdentity = !in.ConsumeBool();
    for (int i = 0; i < 12; ++i) {
        const bool diagonal = i == 0 || i == 5 || i == 10;
        coeffs[i] = nearIdentity
                        ? (diagonal ? 1.0 : 0.0) +
                              in.ConsumeFloatingPointInRange(-0.3, 0.3) * (i % 4 == 3 ? 20.0 : 1.0)
                        : pickReal(in, -3.0, 3.0);
    }
    Volume<T> src = makeVolume<T>(in, blocks, srcExtent, false, -1, pickSteps(in));
    const Steps dstSteps = pickSteps(in);
    dstVOI = farAlongAliasedAxes(in, dstVOI, dstSteps, false);
    const VolumeSize dstExtent = extentHolding(dstVOI, dstSteps);
    Volume<T> dst = makeVolume<T>(in, blocks, dstExtent, false, -1, dstSteps);
    const T* const* srcPlanes = maybeNull(in, static_cast<const T* const*>(src.planes));
    T* const* dstPlanes = maybeNull(in, static_cast<T* const*>(dst.planes));
    const double* coeffsIn = maybeNull(in, static_cast<const double*>(coeffs));
    uint8_t* buffer = in.ConsumeBool() ? nullptr : blocks.take<uint8_t>(0);
    const Status expected = !srcPlanes || !dstPlanes || !coeffsIn ? StatusNullPointer
                            : !sizeValid(srcExtent) || !cuboidValid(srcVOI) || !cuboidValid(dstVOI)
                                ? StatusBadSize
                            : !knownInterpolation(interpolation) ? StatusBadInterpolation
                            : singular(coeffs)                   ? StatusBadCoefficients
                            : originOutside(srcVOI, srcExtent)   ? StatusWarnVoiOutsideSource
                                                                 : StatusOk;
    if (expected == StatusOk && dstExtent.width == 0) return;
    const auto before = blocks.snapshot();
    const auto dstBefore = dst.copy();
    const Status status = callWarp<T>(srcPlanes, srcExtent, src.rowStepBytes, srcVOI, dstPlanes,
                                      dst.rowStepBytes, dstVOI, coeffsIn, interpolation, buffer);
    requireStatus(status, expected, "vekrWarpAffine");
    if (status != StatusOk)
        require(blocks.unchangedSince(before), "a refused warp wrote");
    else
        require(unchangedOutside(dst, dstBefore, dstVOI), "a warp wrote outside dstVOI");
}

// --- Filter ---------------------------------------------------------------------------------

void fuzzFilter(FuzzedDataProvider& in)
{
    ExactBlocks blocks(pickFence(in));
    const VolumeSize roi = pickVolumeSize(in, 20, pickLeastExtent(in));
    const VolumeSize kernel = pickVolumeSize(in, 5);
    const int anchor[3] = {in.ConsumeIntegralInRange<int>(-2, 7),
                           in.ConsumeIntegralInRange<int>(-2, 7),
                           in.ConsumeIntegralInRange<int>(-2, 7)};
    constexpr int kDivisors[] = {0, -1, INT_MIN, INT_MAX, 3, -7};
    const int divisor =
        rarely(in) ? kDivisors[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kDivisors) - 1)]
                   : in.ConsumeIntegralInRange<int>(1, 200);

    const bool sizesValid = sizeValid(roi) && sizeValid(kernel);
    // The source the filter reads: x from anchorX - (kw - 1) to W - 1 + anchorX, and so on.
    const int roiAxes[3] = {roi.width, roi.height, roi.depth};
    const int kernelAxes[3] = {kernel.width, kernel.height, kernel.depth};
    int lo[3] = {0, 0, 0}, hi[3] = {-1, -1, -1};
    if (sizesValid)
        for (int a = 0; a < 3; ++a) {
            lo[a] = anchor[a] - (kernelAxes[a] - 1);
            hi[a] = roiAxes[a] - 1 + anchor[a];
        }
    const int rowVoxels = hi[0] - lo[0] + 1, rows = hi[1] - lo[1] + 1, planes = hi[2] - lo[2] + 1;
    const int srcRowStep = rowVoxels + in.ConsumeIntegralInRange<int>(0, 3);
    const std::size_t planeVoxels =
        rows > 0 ? std::size_t(rows - 1) * std::size_t(srcRowStep) + std::size_t(rowVoxels) : 0;
    const int16_t** srcArray = blocks.take<const int16_t*>(std::size_t(std::max(planes, 0)) + 1);
    for (int p = 0; p < planes; ++p) {
        int16_t* plane = blocks.take<int16_t>(planeVoxels);
        fillValues(in, plane, planeVoxels, [](uint64_t r) { return int16_t(r); });
        // Plane lo[2] + p, pointed at its voxel (0, 0), which may lie outside the block.
        srcArray[p] = plane - (std::ptrdiff_t(lo[1]) * srcRowStep + lo[0]);
    }
    const int16_t* const* srcPlanes = srcArray - lo[2];

    Volume<int16_t> dst = makeVolume<int16_t>(in, blocks, roi, false, -1, pickSteps(in));
    const std::size_t taps = sizesValid ? std::size_t(kernel.width) * std::size_t(kernel.height) *
                                              std::size_t(kernel.depth)
                                        : 0;
    int32_t* weights = blocks.take<int32_t>(taps);
    fillValues(in, weights, taps, [](uint64_t r) { return int32_t(r % 17) - 8; });
    int bytes = 0;
    const bool sized = vekrFilterGetBufSize(roi, kernel, 1, &bytes) == StatusOk;
    uint8_t* buffer = blocks.take<uint8_t>(sized ? std::size_t(bytes) : 0,
                                           in.ConsumeIntegralInRange<std::size_t>(0, 63));

    const int16_t* const* srcIn = maybeNull(in, srcPlanes);
    int16_t* const* dstIn = maybeNull(in, static_cast<int16_t* const*>(dst.planes));
    const int32_t* kernelIn = maybeNull(in, static_cast<const int32_t*>(weights));
    uint8_t* bufferIn = maybeNull(in, buffer);
    const Status expected = !srcIn || !dstIn || !kernelIn || !bufferIn ? StatusNullPointer
                            : !sizesValid || divisor == 0              ? StatusBadSize
                                                                       : StatusOk;
    const auto before = blocks.snapshot();
    const auto dstBefore = dst.copy();
    const Status status =
        vekrFilter_16s_C1PV(srcIn, srcRowStep * 2, dstIn, dst.rowStepBytes, roi, kernelIn, kernel,
                            anchor[0], anchor[1], anchor[2], divisor, bufferIn);
    requireStatus(status, expected, "vekrFilter_16s_C1PV");
    if (status != StatusOk)
        require(blocks.unchangedSince(before), "a refused filter call wrote");
    else
        require(unchangedOutside(dst, dstBefore, {0, 0, 0, roi.width, roi.height, roi.depth}),
                "the filter wrote outside its region");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const LibraryBlocksReturned noLeak;
    pickThreadCount(in);
    const int type = in.ConsumeIntegralInRange<int>(0, 2);
    switch (in.ConsumeIntegralInRange<int>(0, 4)) {
        case 0:
            fuzzQueries(in);
            break;
        case 1:
            type == 0   ? fuzzResize<uint8_t>(in)
            : type == 1 ? fuzzResize<uint16_t>(in)
                        : fuzzResize<float>(in);
            break;
        case 2:
            type == 0   ? fuzzRemap<uint8_t>(in)
            : type == 1 ? fuzzRemap<uint16_t>(in)
                        : fuzzRemap<float>(in);
            break;
        case 3:
            type == 0   ? fuzzWarp<uint8_t>(in)
            : type == 1 ? fuzzWarp<uint16_t>(in)
                        : fuzzWarp<float>(in);
            break;
        default:
            fuzzFilter(in);
            break;
    }
    return 0;
}
