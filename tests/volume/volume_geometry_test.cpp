// The four volume queries and the argument checks of the resize, remap and warp exports.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "resize_exports.h"
#include "vekcore.h"
#include "vekr.h"

using vekr::test::ResizeExports;
using vekr::test::ThreadCountScope;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

bool sameCuboid(const Cuboid& a, const Cuboid& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// --- Documented values ------------------------------------------------------------------

struct CuboidExample {
    const char* what;
    Cuboid src;
    double factor[3], shift[3];
    Status status;
    Cuboid expected;  // the sentinel where nothing is written
};

const Cuboid kCuboidSentinel = {-7, -7, -7, -7, -7, -7};

const CuboidExample kCuboidExamples[] = {
    {"halving a 10-cube",
     {0, 0, 0, 10, 10, 10},
     {0.5, 0.5, 0.5},
     {0, 0, 0},
     StatusOk,
     {0, 0, 0, 5, 5, 5}},
    {"a quarter of width 2 ends at 1",
     {0, 0, 0, 2, 10, 10},
     {0.25, 0.5, 0.5},
     {0, 0, 0},
     StatusOk,
     {0, 0, 0, 1, 5, 5}},
    {"start on a half voxel rounds down, end rounds up",
     {1, 0, 0, 2, 4, 4},
     {0.5, 1, 1},
     {0, 0, 0},
     StatusOk,
     {0, 0, 0, 2, 4, 4}},
    {"shifts after scaling",
     {3, 2, 1, 4, 4, 4},
     {2, 1, 1},
     {0.3, -0.7, 0.25},
     StatusOk,
     {6, 1, 1, 8, 4, 4}},
    {"a start below 0 clamps to 0",
     {0, 0, 0, 4, 4, 4},
     {1, 1, 1},
     {-1.7, 0, 0},
     StatusOk,
     {0, 0, 0, 2, 4, 4}},
    // Each rounding constant decides: 0.5 at either end would give width 4 on x, 5 - 1 on y.
    {"the rounding constants 0.4999999999 and 0.5000000001",
     {0, 0, 0, 4, 4, 4},
     {1, 1, 1},
     {0.49999999995, 0.50000000005, 0},
     StatusOk,
     {0, 0, 0, 5, 5, 4}},
    {"a box shifted below 0 is empty",
     {0, 0, 0, 4, 4, 4},
     {1, 1, 1},
     {0, 0, -5},
     StatusWarnNoOperation,
     kCuboidSentinel},
};

TEST(VolumeQueries, ResizeCuboidMatchesTheDocumentedExamples)
{
    for (const CuboidExample& e : kCuboidExamples) {
        Cuboid out = kCuboidSentinel;
        EXPECT_EQ(vekrGetResizeCuboid(e.src, &out, e.factor[0], e.factor[1], e.factor[2],
                                      e.shift[0], e.shift[1], e.shift[2], InterpolationLinear),
                  e.status)
            << e.what;
        EXPECT_TRUE(sameCuboid(out, e.expected)) << e.what;
    }
}

// Per-thread sizes worked out by hand from the documented formula; the query multiplies them by
// the thread count.
TEST(VolumeQueries, BufferSizesMatchTheDocumentedFormulaForOneAndTwoThreads)
{
    struct {
        Cuboid dst;
        int interpolation;
        int perThread;
    } const cases[] = {
        {{0, 0, 0, 1, 1, 1}, InterpolationNearest, 256},
        {{5, 6, 7, 33, 17, 5}, InterpolationNearest, 448},
        {{0, 0, 0, 1, 1, 1}, InterpolationLinear, 2560},
        {{0, 0, 0, 100, 50, 7}, InterpolationLinear, 59456},
        {{0, 0, 0, 1, 1, 1}, InterpolationCubicLagrange, 7936},
        {{0, 0, 0, 100, 50, 7}, InterpolationCubicB05C03, 189760},
        {{9, 9, 9, 100, 50, 7}, InterpolationCubicBSpline, 189760},
    };
    const Cuboid src = {3, 4, 5, 2, 2, 2};  // plays no part
    for (int threads : {1, 2}) {
        const ThreadCountScope scope(threads);
        for (const auto& c : cases) {
            int size = -1;
            EXPECT_EQ(vekrResizeGetBufSize(src, c.dst, 1, c.interpolation, &size), StatusOk);
            EXPECT_EQ(size, c.perThread * threads)
                << "kind " << c.interpolation << ", width " << c.dst.width;
        }
        for (int kind : {1, 2, 4, 5, 6, 7}) {
            int size = -1;
            EXPECT_EQ(vekrWarpAffineGetBufSize(src, cases[3].dst, 1, kind, &size), StatusOk);
            EXPECT_EQ(size, 0) << "kind " << kind;
        }
        // 32 * ((3 + 1) / 2) * 3 * 3 + 64 * ((20 + 15) / 16) + 64 = 768 per thread.
        int size = -1;
        EXPECT_EQ(vekrFilterGetBufSize({20, 1, 1}, {3, 3, 3}, 1, &size), StatusOk);
        EXPECT_EQ(size, 768 * threads);
    }
}

// --- Argument checks --------------------------------------------------------------------

// A valid call of any volume function, which checks then spoil; outputs hold sentinels.
struct VolumeCall {
    static constexpr VolumeSize kSrc = {6, 5, 4};
    static constexpr VolumeSize kDst = {14, 12, 10};
    static constexpr size_t kSrcVoxels = 6 * 5 * 4, kDstVoxels = 14 * 12 * 10;
    static constexpr uint8_t kByteSentinel = 0xA5;

    VolumeSize srcVolume = kSrc;
    Cuboid srcVOI = {1, 1, 0, 5, 4, 4};
    Cuboid dstVOI = {0, 0, 0, 14, 12, 10};
    double factor[3] = {2.0, 1.5, 2.0};
    double shift[3] = {0.5, -0.25, 0.0};
    int interpolation = InterpolationCubicCatmullRom;
    int nChannel = 1;
    VolumeSize roi = {20, 4, 4}, kernel = {3, 3, 3};
    bool nullSrc = false, nullDst = false, nullBuffer = false, nullOut = false;
    // Remap: maps over the whole destination at 0.4 times the voxel index, so part of the
    // region falls inside srcVOI. Warp: the identity.
    VolumeSize remapRoi = kDst;
    bool nullMap[3] = {false, false, false};
    std::vector<float> maps[3] = {coordinateMap(0), coordinateMap(1), coordinateMap(2)};
    double coeffs[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    bool nullCoeffs = false;

    std::vector<uint8_t> dst8 = std::vector<uint8_t>(kDstVoxels, kByteSentinel);
    std::vector<uint16_t> dst16 = std::vector<uint16_t>(kDstVoxels, 0xA5A5);
    std::vector<float> dst32 = std::vector<float>(kDstVoxels, -7.0f);
    std::vector<uint8_t> buffer = std::vector<uint8_t>(1 << 16, kByteSentinel);
    Cuboid cuboid = kCuboidSentinel;
    int size = -7;

    static std::vector<float> coordinateMap(int axis)
    {
        std::vector<float> m(kDstVoxels);
        for (size_t i = 0; i < kDstVoxels; ++i) {
            const size_t along[3] = {i % kDst.width, i / kDst.width % kDst.height,
                                     i / (kDst.width * kDst.height)};
            m[i] = 0.4f * float(along[axis]);
        }
        return m;
    }

    bool outputsUntouched() const
    {
        for (size_t i = 0; i < kDstVoxels; ++i)
            if (dst8[i] != kByteSentinel || dst16[i] != 0xA5A5 || dst32[i] != -7.0f) return false;
        for (uint8_t b : buffer)
            if (b != kByteSentinel) return false;
        return sameCuboid(cuboid, kCuboidSentinel) && size == -7;
    }
};

template <class T>
T* dstOf(VolumeCall& c)
{
    if constexpr (sizeof(T) == 1)
        return c.dst8.data();
    else if constexpr (sizeof(T) == 2)
        return c.dst16.data();
    else
        return c.dst32.data();
}

template <class T, bool kPlanar>
Status runResize(VolumeCall& c)
{
    const VolumeSize s = VolumeCall::kSrc, d = VolumeCall::kDst;
    const std::vector<T> source(VolumeCall::kSrcVoxels, T(1));
    T* dst = dstOf<T>(c);
    const int srcRow = s.width * int(sizeof(T)), dstRow = d.width * int(sizeof(T));
    uint8_t* buffer = c.nullBuffer ? nullptr : c.buffer.data();
    if constexpr (kPlanar) {
        std::vector<const T*> srcPlanes;
        std::vector<T*> dstPlanes;
        for (int z = 0; z < s.depth; ++z)
            srcPlanes.push_back(source.data() + z * s.width * s.height);
        for (int z = 0; z < d.depth; ++z)
            dstPlanes.push_back(dst + z * d.width * d.height);
        return ResizeExports<T>::kPV(c.nullSrc ? nullptr : srcPlanes.data(), c.srcVolume, srcRow,
                                     c.srcVOI, c.nullDst ? nullptr : dstPlanes.data(), dstRow,
                                     c.dstVOI, c.factor[0], c.factor[1], c.factor[2], c.shift[0],
                                     c.shift[1], c.shift[2], c.interpolation, buffer);
    } else {
        return ResizeExports<T>::kV(
            c.nullSrc ? nullptr : source.data(), c.srcVolume, srcRow, srcRow * s.height, c.srcVOI,
            c.nullDst ? nullptr : dst, dstRow, dstRow * d.height, c.dstVOI, c.factor[0],
            c.factor[1], c.factor[2], c.shift[0], c.shift[1], c.shift[2], c.interpolation, buffer);
    }
}

template <class T>
Status runRemap(VolumeCall& c)
{
    const VolumeSize s = VolumeCall::kSrc, d = VolumeCall::kDst;
    const std::vector<T> source(VolumeCall::kSrcVoxels, T(1));
    std::vector<const T*> srcPlanes;
    std::vector<T*> dstPlanes;
    std::vector<const float*> mapPlanes[3];
    for (int z = 0; z < s.depth; ++z)
        srcPlanes.push_back(source.data() + z * s.width * s.height);
    for (int z = 0; z < d.depth; ++z) {
        dstPlanes.push_back(dstOf<T>(c) + z * d.width * d.height);
        for (int a = 0; a < 3; ++a)
            mapPlanes[a].push_back(c.maps[a].data() + z * d.width * d.height);
    }
    const float* const* map[3];
    for (int a = 0; a < 3; ++a)
        map[a] = c.nullMap[a] ? nullptr : mapPlanes[a].data();
    const int srcRow = s.width * int(sizeof(T)), dstRow = d.width * int(sizeof(T));
    const T* const* src = c.nullSrc ? nullptr : srcPlanes.data();
    T* const* dst = c.nullDst ? nullptr : dstPlanes.data();
    const int mapRow = d.width * int(sizeof(float));
    if constexpr (sizeof(T) == 1)
        return vekrRemap_8u_C1PV(src, c.srcVolume, srcRow, c.srcVOI, map[0], map[1], map[2], mapRow,
                                 dst, dstRow, c.remapRoi, c.interpolation);
    else if constexpr (sizeof(T) == 2)
        return vekrRemap_16u_C1PV(src, c.srcVolume, srcRow, c.srcVOI, map[0], map[1], map[2],
                                  mapRow, dst, dstRow, c.remapRoi, c.interpolation);
    else
        return vekrRemap_32f_C1PV(src, c.srcVolume, srcRow, c.srcVOI, map[0], map[1], map[2],
                                  mapRow, dst, dstRow, c.remapRoi, c.interpolation);
}

// The warp ignores its buffer: a null one is accepted.
template <class T>
Status runWarp(VolumeCall& c)
{
    const VolumeSize s = VolumeCall::kSrc, d = VolumeCall::kDst;
    const std::vector<T> source(VolumeCall::kSrcVoxels, T(1));
    std::vector<const T*> srcPlanes;
    std::vector<T*> dstPlanes;
    for (int z = 0; z < s.depth; ++z)
        srcPlanes.push_back(source.data() + z * s.width * s.height);
    for (int z = 0; z < d.depth; ++z)
        dstPlanes.push_back(dstOf<T>(c) + z * d.width * d.height);
    const int srcRow = s.width * int(sizeof(T)), dstRow = d.width * int(sizeof(T));
    const T* const* src = c.nullSrc ? nullptr : srcPlanes.data();
    T* const* dst = c.nullDst ? nullptr : dstPlanes.data();
    const double* coeffs = c.nullCoeffs ? nullptr : c.coeffs;
    uint8_t* buffer = c.nullBuffer ? nullptr : c.buffer.data();
    if constexpr (sizeof(T) == 1)
        return vekrWarpAffine_8u_C1PV(src, c.srcVolume, srcRow, c.srcVOI, dst, dstRow, c.dstVOI,
                                      coeffs, c.interpolation, buffer);
    else if constexpr (sizeof(T) == 2)
        return vekrWarpAffine_16u_C1PV(src, c.srcVolume, srcRow, c.srcVOI, dst, dstRow, c.dstVOI,
                                       coeffs, c.interpolation, buffer);
    else
        return vekrWarpAffine_32f_C1PV(src, c.srcVolume, srcRow, c.srcVOI, dst, dstRow, c.dstVOI,
                                       coeffs, c.interpolation, buffer);
}

struct Check {
    const char* what;
    void (*spoil)(VolumeCall&);
    Status expected;
};
using Checks = std::vector<Check>;

Checks operator+(Checks a, const Checks& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const Checks kNullOut = {
    {"null output", [](VolumeCall& c) { c.nullOut = true; }, StatusNullPointer}};
const Checks kSrcBox = {
    {"srcVOI.x -1", [](VolumeCall& c) { c.srcVOI.x = -1; }, StatusBadSize},
    {"srcVOI.width 0", [](VolumeCall& c) { c.srcVOI.width = 0; }, StatusBadSize},
    {"srcVOI.y -3", [](VolumeCall& c) { c.srcVOI.y = -3; }, StatusBadSize},
    {"srcVOI.height -1", [](VolumeCall& c) { c.srcVOI.height = -1; }, StatusBadSize},
    {"srcVOI.z -1", [](VolumeCall& c) { c.srcVOI.z = -1; }, StatusBadSize},
    {"srcVOI.depth 0", [](VolumeCall& c) { c.srcVOI.depth = 0; }, StatusBadSize}};
const Checks kDstBox = {
    {"dstVOI.x -2", [](VolumeCall& c) { c.dstVOI.x = -2; }, StatusBadSize},
    {"dstVOI.width 0", [](VolumeCall& c) { c.dstVOI.width = 0; }, StatusBadSize},
    {"dstVOI.y -1", [](VolumeCall& c) { c.dstVOI.y = -1; }, StatusBadSize},
    {"dstVOI.height 0", [](VolumeCall& c) { c.dstVOI.height = 0; }, StatusBadSize},
    {"dstVOI.z -1", [](VolumeCall& c) { c.dstVOI.z = -1; }, StatusBadSize},
    {"dstVOI.depth -4", [](VolumeCall& c) { c.dstVOI.depth = -4; }, StatusBadSize}};
const Checks kFactors = {
    {"xFactor 0", [](VolumeCall& c) { c.factor[0] = 0.0; }, StatusBadScale},
    {"yFactor -1", [](VolumeCall& c) { c.factor[1] = -1.0; }, StatusBadScale},
    {"zFactor NaN", [](VolumeCall& c) { c.factor[2] = kNaN; }, StatusBadScale}};
const Checks kInterpolation = {
    {"interpolation 3", [](VolumeCall& c) { c.interpolation = 3; }, StatusBadInterpolation}};
const Checks kChannels = {{"nChannel 3", [](VolumeCall& c) { c.nChannel = 3; }, StatusBadChannels}};
const Checks kShiftedAway = {
    {"box shifted below 0", [](VolumeCall& c) { c.shift[0] = -100.0; }, StatusWarnNoOperation}};

const Checks kResizeChecks =
    Checks{{"null source", [](VolumeCall& c) { c.nullSrc = true; }, StatusNullPointer},
           {"null destination", [](VolumeCall& c) { c.nullDst = true; }, StatusNullPointer},
           {"null buffer", [](VolumeCall& c) { c.nullBuffer = true; }, StatusNullPointer},
           {"source width 0", [](VolumeCall& c) { c.srcVolume.width = 0; }, StatusBadSize},
           {"source height -2", [](VolumeCall& c) { c.srcVolume.height = -2; }, StatusBadSize},
           {"source depth 0", [](VolumeCall& c) { c.srcVolume.depth = 0; }, StatusBadSize}} +
    kSrcBox + kDstBox + kFactors + kInterpolation +
    Checks{{"srcVOI.x at the source width", [](VolumeCall& c) { c.srcVOI.x = 6; },
            StatusWarnVoiOutsideSource},
           {"srcVOI.y at the source height", [](VolumeCall& c) { c.srcVOI.y = 5; },
            StatusWarnVoiOutsideSource},
           {"srcVOI.z at the source depth", [](VolumeCall& c) { c.srcVOI.z = 4; },
            StatusWarnVoiOutsideSource}} +
    kShiftedAway;

const Checks kSourceSize = {
    {"source width 0", [](VolumeCall& c) { c.srcVolume.width = 0; }, StatusBadSize},
    {"source height -2", [](VolumeCall& c) { c.srcVolume.height = -2; }, StatusBadSize},
    {"source depth 0", [](VolumeCall& c) { c.srcVolume.depth = 0; }, StatusBadSize}};
const Checks kVoiOutsideSource = {
    {"srcVOI.x at the source width", [](VolumeCall& c) { c.srcVOI.x = 6; },
     StatusWarnVoiOutsideSource},
    {"srcVOI.y at the source height", [](VolumeCall& c) { c.srcVOI.y = 5; },
     StatusWarnVoiOutsideSource},
    {"srcVOI.z at the source depth", [](VolumeCall& c) { c.srcVOI.z = 4; },
     StatusWarnVoiOutsideSource}};

const Checks kRemapChecks =
    Checks{{"null source", [](VolumeCall& c) { c.nullSrc = true; }, StatusNullPointer},
           {"null destination", [](VolumeCall& c) { c.nullDst = true; }, StatusNullPointer},
           {"null x map", [](VolumeCall& c) { c.nullMap[0] = true; }, StatusNullPointer},
           {"null y map", [](VolumeCall& c) { c.nullMap[1] = true; }, StatusNullPointer},
           {"null z map", [](VolumeCall& c) { c.nullMap[2] = true; }, StatusNullPointer}} +
    kSourceSize + kSrcBox +
    Checks{{"ROI width 0", [](VolumeCall& c) { c.remapRoi.width = 0; }, StatusBadSize},
           {"ROI height -1", [](VolumeCall& c) { c.remapRoi.height = -1; }, StatusBadSize},
           {"ROI depth 0", [](VolumeCall& c) { c.remapRoi.depth = 0; }, StatusBadSize}} +
    kInterpolation + kVoiOutsideSource;

const Checks kWarpChecks =
    Checks{{"null source", [](VolumeCall& c) { c.nullSrc = true; }, StatusNullPointer},
           {"null destination", [](VolumeCall& c) { c.nullDst = true; }, StatusNullPointer},
           {"null coefficients", [](VolumeCall& c) { c.nullCoeffs = true; }, StatusNullPointer}} +
    kSourceSize + kSrcBox + kDstBox + kInterpolation +
    Checks{{"zero third row", [](VolumeCall& c) { c.coeffs[8] = c.coeffs[9] = c.coeffs[10] = 0; },
            StatusBadCoefficients}} +
    kVoiOutsideSource;

const Checks kFilterChecks =
    kNullOut +
    Checks{{"ROI width 0", [](VolumeCall& c) { c.roi.width = 0; }, StatusBadSize},
           {"ROI height -1", [](VolumeCall& c) { c.roi.height = -1; }, StatusBadSize},
           {"ROI depth 0", [](VolumeCall& c) { c.roi.depth = 0; }, StatusBadSize},
           {"kernel width 0", [](VolumeCall& c) { c.kernel.width = 0; }, StatusBadSize},
           {"kernel height 0", [](VolumeCall& c) { c.kernel.height = 0; }, StatusBadSize},
           {"kernel depth -2", [](VolumeCall& c) { c.kernel.depth = -2; }, StatusBadSize},
           {"nChannel 0", [](VolumeCall& c) { c.nChannel = 0; }, StatusBadChannels}};

// Alone on a valid call, for every function that takes an interpolation code.
const Checks kInterpolationAlone = {
    {"interpolation 0", [](VolumeCall& c) { c.interpolation = 0; }, StatusBadInterpolation},
    {"interpolation 8", [](VolumeCall& c) { c.interpolation = 8; }, StatusBadInterpolation},
    {"interpolation 1", [](VolumeCall& c) { c.interpolation = 1; }, StatusOk},
    {"interpolation 7", [](VolumeCall& c) { c.interpolation = 7; }, StatusOk}};

// The warp takes no work buffer: a null one is accepted.
const Checks kWarpAlone =
    kInterpolationAlone +
    Checks{{"null buffer", [](VolumeCall& c) { c.nullBuffer = true; }, StatusOk}};

struct Contract {
    const char* name;
    Status (*run)(VolumeCall&);
    Checks checks;  // in the documented order
    Checks alone;
};

void PrintTo(const Contract& c, std::ostream* os)
{
    *os << c.name;
}

std::vector<Contract> contracts()
{
    return {
        {"ResizeCuboid",
         [](VolumeCall& c) {
             return vekrGetResizeCuboid(c.srcVOI, c.nullOut ? nullptr : &c.cuboid, c.factor[0],
                                        c.factor[1], c.factor[2], c.shift[0], c.shift[1],
                                        c.shift[2], c.interpolation);
         },
         kNullOut + kSrcBox + kFactors + kInterpolation + kShiftedAway, kInterpolationAlone},
        {"ResizeBufSize",
         [](VolumeCall& c) {
             return vekrResizeGetBufSize(c.srcVOI, c.dstVOI, c.nChannel, c.interpolation,
                                         c.nullOut ? nullptr : &c.size);
         },
         kNullOut + kSrcBox + kDstBox + kChannels + kInterpolation, kInterpolationAlone},
        {"WarpAffineBufSize",
         [](VolumeCall& c) {
             return vekrWarpAffineGetBufSize(c.srcVOI, c.dstVOI, c.nChannel, c.interpolation,
                                             c.nullOut ? nullptr : &c.size);
         },
         kNullOut + kSrcBox + kDstBox + kChannels + kInterpolation, kInterpolationAlone},
        {"FilterBufSize",
         [](VolumeCall& c) {
             return vekrFilterGetBufSize(c.roi, c.kernel, c.nChannel,
                                         c.nullOut ? nullptr : &c.size);
         },
         kFilterChecks,
         {}},
        {"Resize8uV", runResize<uint8_t, false>, kResizeChecks, kInterpolationAlone},
        {"Resize16uV", runResize<uint16_t, false>, kResizeChecks, kInterpolationAlone},
        {"Resize32fV", runResize<float, false>, kResizeChecks, kInterpolationAlone},
        {"Resize8uPV", runResize<uint8_t, true>, kResizeChecks, kInterpolationAlone},
        {"Resize16uPV", runResize<uint16_t, true>, kResizeChecks, kInterpolationAlone},
        {"Resize32fPV", runResize<float, true>, kResizeChecks, kInterpolationAlone},
        {"Remap8u", runRemap<uint8_t>, kRemapChecks, kInterpolationAlone},
        {"Remap16u", runRemap<uint16_t>, kRemapChecks, kInterpolationAlone},
        {"Remap32f", runRemap<float>, kRemapChecks, kInterpolationAlone},
        {"WarpAffine8u", runWarp<uint8_t>, kWarpChecks, kWarpAlone},
        {"WarpAffine16u", runWarp<uint16_t>, kWarpChecks, kWarpAlone},
        {"WarpAffine32f", runWarp<float>, kWarpChecks, kWarpAlone},
    };
}

class VolumeChecks : public testing::TestWithParam<Contract> {};

}  // namespace

// Check k spoiled together with every later one (the later ones first, so that check k's spoil
// wins where two touch the same argument) gives check k's status only in the documented order;
// then each check alone, so that one check cannot hide behind another with the same status.
// Every failing status, warnings included, leaves every output as it was.
TEST_P(VolumeChecks, FirstFailingCheckInOrderWinsAndNothingIsWritten)
{
    const Contract& contract = GetParam();
    {
        VolumeCall valid;
        EXPECT_EQ(contract.run(valid), StatusOk);
        EXPECT_FALSE(valid.outputsUntouched()) << "a valid call writes its output";
    }
    for (bool alone : {false, true})
        for (size_t k = 0; k < contract.checks.size(); ++k) {
            VolumeCall call;
            for (size_t j = alone ? k + 1 : contract.checks.size(); j-- > k;)
                contract.checks[j].spoil(call);
            const Check& check = contract.checks[k];
            const char* how = alone ? " alone" : " and later";
            EXPECT_EQ(contract.run(call), check.expected) << check.what << how;
            EXPECT_TRUE(call.outputsUntouched()) << check.what << how;
        }
    for (const Check& check : contract.alone) {
        VolumeCall call;
        check.spoil(call);
        EXPECT_EQ(contract.run(call), check.expected) << check.what;
        if (check.expected != StatusOk) {
            EXPECT_TRUE(call.outputsUntouched()) << check.what;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Functions, VolumeChecks, testing::ValuesIn(contracts()),
                         [](const auto& info) { return std::string(info.param.name); });
