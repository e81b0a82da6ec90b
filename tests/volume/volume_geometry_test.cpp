// The four volume queries and the argument checks of the resize, remap, warp and filter
// exports.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "vekcore.h"
#include "support/argument_checks.h"
#include "vekr.h"
#include "volume_exports.h"

using vekr::test::expectChecksInOrder;
using vekr::test::ThreadCountScope;
using vekr::test::VolumeExports;

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

// clang-format off
const CuboidExample kCuboidExamples[] = {
    {"halving a 10-cube", {0, 0, 0, 10, 10, 10}, {0.5, 0.5, 0.5}, {0, 0, 0}, StatusOk,
     {0, 0, 0, 5, 5, 5}},
    {"a quarter of width 2 ends at 1", {0, 0, 0, 2, 10, 10}, {0.25, 0.5, 0.5}, {0, 0, 0}, StatusOk,
     {0, 0, 0, 1, 5, 5}},
    {"start on a half voxel rounds down, end rounds up", {1, 0, 0, 2, 4, 4}, {0.5, 1, 1},
     {0, 0, 0}, StatusOk, {0, 0, 0, 2, 4, 4}},
    {"shifts after scaling", {3, 2, 1, 4, 4, 4}, {2, 1, 1}, {0.3, -0.7, 0.25}, StatusOk,
     {6, 1, 1, 8, 4, 4}},
    {"a start below 0 clamps to 0", {0, 0, 0, 4, 4, 4}, {1, 1, 1}, {-1.7, 0, 0}, StatusOk,
     {0, 0, 0, 2, 4, 4}},
    // Each rounding constant decides: 0.5 at either end would give width 4 on x, 5 - 1 on y.
    {"the rounding constants 0.4999999999 and 0.5000000001", {0, 0, 0, 4, 4, 4}, {1, 1, 1},
     {0.49999999995, 0.50000000005, 0}, StatusOk, {0, 0, 0, 5, 5, 4}},
    {"a box shifted below 0 is empty", {0, 0, 0, 4, 4, 4}, {1, 1, 1}, {0, 0, -5},
     StatusWarnNoOperation, kCuboidSentinel},
};
// clang-format on

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
    bool nullSrc = false, nullDst = false, nullBuffer = false, nullOut = false;
    // Remap: maps over the whole destination at 0.4 times the voxel index, so part of the
    // region falls inside srcVOI. Warp: the identity.
    VolumeSize remapRoi = kDst;
    bool nullMap[3] = {false, false, false};
    std::vector<float> maps[3] = {coordinateMap(0), coordinateMap(1), coordinateMap(2)};
    double coeffs[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    bool nullCoeffs = false;
    // Filter: a 20 x 4 x 4 region of dst16, anchor (1, 1, 1), a source of 22 x 6 x 6 around it.
    VolumeSize roi = {20, 4, 4}, kernel = {3, 3, 3};
    std::vector<int16_t> filterSrc = std::vector<int16_t>(22 * 6 * 6, 1);
    std::vector<int32_t> filterKernel = std::vector<int32_t>(27, 1);
    int divisor = 1;
    bool nullKernel = false;

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

// The planes of a call's source (all 1) and of its destination, both unpadded, or null where
// the call asks for it.
template <class T>
struct CallPlanes {
    static constexpr VolumeSize s = VolumeCall::kSrc, d = VolumeCall::kDst;
    static constexpr int srcRow = s.width * int(sizeof(T)), dstRow = d.width * int(sizeof(T));
    std::vector<T> source = std::vector<T>(VolumeCall::kSrcVoxels, T(1));
    std::vector<const T*> srcPlanes;
    std::vector<T*> dstPlanes;
    std::vector<const float*> mapPlanes[3];
    T* dst;
    const T* const* src;
    T* const* dstOrNull;
    const float* const* map[3];
    uint8_t* buffer;

    explicit CallPlanes(VolumeCall& c)
    {
        if constexpr (sizeof(T) == 1)
            dst = c.dst8.data();
        else if constexpr (sizeof(T) == 2)
            dst = c.dst16.data();
        else
            dst = c.dst32.data();
        for (int z = 0; z < s.depth; ++z)
            srcPlanes.push_back(source.data() + z * s.width * s.height);
        for (int z = 0; z < d.depth; ++z) {
            dstPlanes.push_back(dst + z * d.width * d.height);
            for (int a = 0; a < 3; ++a)
                mapPlanes[a].push_back(c.maps[a].data() + z * d.width * d.height);
        }
        src = c.nullSrc ? nullptr : srcPlanes.data();
        dstOrNull = c.nullDst ? nullptr : dstPlanes.data();
        for (int a = 0; a < 3; ++a)
            map[a] = c.nullMap[a] ? nullptr : mapPlanes[a].data();
        buffer = c.nullBuffer ? nullptr : c.buffer.data();
    }
};

template <class T, bool kPlanar>
Status runResize(VolumeCall& c)
{
    using P = CallPlanes<T>;
    P p(c);
    if constexpr (kPlanar)
        return VolumeExports<T>::kPV(p.src, c.srcVolume, P::srcRow, c.srcVOI, p.dstOrNull,
                                     P::dstRow, c.dstVOI, c.factor[0], c.factor[1], c.factor[2],
                                     c.shift[0], c.shift[1], c.shift[2], c.interpolation, p.buffer);
    return VolumeExports<T>::kV(c.nullSrc ? nullptr : p.source.data(), c.srcVolume, P::srcRow,
                                P::srcRow * P::s.height, c.srcVOI, c.nullDst ? nullptr : p.dst,
                                P::dstRow, P::dstRow * P::d.height, c.dstVOI, c.factor[0],
                                c.factor[1], c.factor[2], c.shift[0], c.shift[1], c.shift[2],
                                c.interpolation, p.buffer);
}

template <class T>
Status runRemap(VolumeCall& c)
{
    using P = CallPlanes<T>;
    P p(c);
    return VolumeExports<T>::kRemap(p.src, c.srcVolume, P::srcRow, c.srcVOI, p.map[0], p.map[1],
                                    p.map[2], P::d.width * int(sizeof(float)), p.dstOrNull,
                                    P::dstRow, c.remapRoi, c.interpolation);
}

// The warp ignores its buffer: a null one is accepted.
template <class T>
Status runWarp(VolumeCall& c)
{
    using P = CallPlanes<T>;
    P p(c);
    return VolumeExports<T>::kWarp(p.src, c.srcVolume, P::srcRow, c.srcVOI, p.dstOrNull, P::dstRow,
                                   c.dstVOI, c.nullCoeffs ? nullptr : c.coeffs, c.interpolation,
                                   p.buffer);
}

Status runFilter(VolumeCall& c)
{
    std::vector<const int16_t*> src;  // planes -1 .. 4, each from row -1, column -1
    std::vector<int16_t*> dst;
    for (int z = 0; z < 6; ++z)
        src.push_back(c.filterSrc.data() + z * 22 * 6 + 22 + 1);
    for (int z = 0; z < 4; ++z)
        dst.push_back(reinterpret_cast<int16_t*>(c.dst16.data()) + z * 20 * 4);
    return vekrFilter_16s_C1PV(c.nullSrc ? nullptr : src.data() + 1, 22 * 2,
                               c.nullDst ? nullptr : dst.data(), 20 * 2, c.roi,
                               c.nullKernel ? nullptr : c.filterKernel.data(), c.kernel, 1, 1, 1,
                               c.divisor, c.nullBuffer ? nullptr : c.buffer.data());
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
const Checks kNullSrcDst = {
    {"null source", [](VolumeCall& c) { c.nullSrc = true; }, StatusNullPointer},
    {"null destination", [](VolumeCall& c) { c.nullDst = true; }, StatusNullPointer}};
const Checks kNullBuffer = {
    {"null buffer", [](VolumeCall& c) { c.nullBuffer = true; }, StatusNullPointer}};
const Checks kSourceSize = {
    {"source width 0", [](VolumeCall& c) { c.srcVolume.width = 0; }, StatusBadSize},
    {"source height -2", [](VolumeCall& c) { c.srcVolume.height = -2; }, StatusBadSize},
    {"source depth 0", [](VolumeCall& c) { c.srcVolume.depth = 0; }, StatusBadSize}};
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
const Checks kVoiOutsideSource = {
    {"srcVOI.x at the source width", [](VolumeCall& c) { c.srcVOI.x = 6; },
     StatusWarnVoiOutsideSource},
    {"srcVOI.y at the source height", [](VolumeCall& c) { c.srcVOI.y = 5; },
     StatusWarnVoiOutsideSource},
    {"srcVOI.z at the source depth", [](VolumeCall& c) { c.srcVOI.z = 4; },
     StatusWarnVoiOutsideSource}};
const Checks kFilterSizes = {
    {"ROI width 0", [](VolumeCall& c) { c.roi.width = 0; }, StatusBadSize},
    {"ROI height -1", [](VolumeCall& c) { c.roi.height = -1; }, StatusBadSize},
    {"ROI depth 0", [](VolumeCall& c) { c.roi.depth = 0; }, StatusBadSize},
    {"kernel width 0", [](VolumeCall& c) { c.kernel.width = 0; }, StatusBadSize},
    {"kernel height 0", [](VolumeCall& c) { c.kernel.height = 0; }, StatusBadSize},
    {"kernel depth -2", [](VolumeCall& c) { c.kernel.depth = -2; }, StatusBadSize}};

const Checks kResizeChecks = kNullSrcDst + kNullBuffer + kSourceSize + kSrcBox + kDstBox +
                             kFactors + kInterpolation + kVoiOutsideSource + kShiftedAway;
const Checks kRemapChecks =
    kNullSrcDst +
    Checks{{"null x map", [](VolumeCall& c) { c.nullMap[0] = true; }, StatusNullPointer},
           {"null y map", [](VolumeCall& c) { c.nullMap[1] = true; }, StatusNullPointer},
           {"null z map", [](VolumeCall& c) { c.nullMap[2] = true; }, StatusNullPointer}} +
    kSourceSize + kSrcBox +
    Checks{{"ROI width 0", [](VolumeCall& c) { c.remapRoi.width = 0; }, StatusBadSize},
           {"ROI height -1", [](VolumeCall& c) { c.remapRoi.height = -1; }, StatusBadSize},
           {"ROI depth 0", [](VolumeCall& c) { c.remapRoi.depth = 0; }, StatusBadSize}} +
    kInterpolation + kVoiOutsideSource;
const Checks kWarpChecks =
    kNullSrcDst +
    Checks{{"null coefficients", [](VolumeCall& c) { c.nullCoeffs = true; }, StatusNullPointer}} +
    kSourceSize + kSrcBox + kDstBox + kInterpolation +
    Checks{{"zero third row", [](VolumeCall& c) { c.coeffs[8] = c.coeffs[9] = c.coeffs[10] = 0; },
            StatusBadCoefficients}} +
    kVoiOutsideSource;
const Checks kFilterChecks =
    kNullSrcDst +
    Checks{{"null kernel", [](VolumeCall& c) { c.nullKernel = true; }, StatusNullPointer}} +
    kNullBuffer + kFilterSizes +
    Checks{{"divisor 0", [](VolumeCall& c) { c.divisor = 0; }, StatusBadSize}};

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

// The filter's sizes at the other side of the limit.
const Checks kFilterAlone = {
    {"ROI height 0", [](VolumeCall& c) { c.roi.height = 0; }, StatusBadSize},
    {"ROI depth -1", [](VolumeCall& c) { c.roi.depth = -1; }, StatusBadSize},
    {"kernel height -2", [](VolumeCall& c) { c.kernel.height = -2; }, StatusBadSize},
    {"kernel depth 0", [](VolumeCall& c) { c.kernel.depth = 0; }, StatusBadSize}};

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
         kNullOut + kFilterSizes +
             Checks{{"nChannel 0", [](VolumeCall& c) { c.nChannel = 0; }, StatusBadChannels}},
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
        {"Filter16s", runFilter, kFilterChecks, kFilterAlone},
    };
}
class VolumeChecks : public testing::TestWithParam<Contract> {};

}  // namespace

// Every failing status, warnings included, leaves every output as it was; a valid call writes.
TEST_P(VolumeChecks, FirstFailingCheckInOrderWinsAndNothingIsWritten)
{
    const Contract& contract = GetParam();
    {
        VolumeCall valid;
        EXPECT_EQ(contract.run(valid), StatusOk);
        EXPECT_FALSE(valid.outputsUntouched()) << "a valid call writes its output";
    }
    const auto makeCall = [] { return VolumeCall(); };
    const auto mayWrite = [](const VolumeCall&, Status status) { return status == StatusOk; };
    expectChecksInOrder(contract.checks, makeCall, contract.run, mayWrite);
    for (const Check& check : contract.alone)
        expectChecksInOrder(Checks{check}, makeCall, contract.run, mayWrite);
}

INSTANTIATE_TEST_SUITE_P(Functions, VolumeChecks, testing::ValuesIn(contracts()),
                         [](const auto& info) { return std::string(info.param.name); });
