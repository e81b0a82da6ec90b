// Volume resize against a direct double-precision convolution, identities, the work buffer's
// bounds, thread counts and the scalar and AVX row kernels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "support/resample_reference.h"
#include "vekr.h"
#include "volume/resize_tables.h"
#include "volume/volume_resize.h"
#include "volume_exports.h"

using namespace vekr::test;
namespace volume = vekr::volume;

namespace {

struct ResizeCase {
    const char* name;
    VolumeSize src;
    Cuboid srcVOI, dstVOI;
    double factor[3], shift[3];
};

void PrintTo(const ResizeCase& c, std::ostream* os)
{
    *os << c.name;
}

// A call through the export with a work buffer of exactly the size the query reports at the
// current thread count, flush against a guard page at either end.
template <class T>
Status resizeThroughExport(bool planar, const GuardedVolume<T>& src, GuardedVolume<T>& dst,
                           const ResizeCase& c, int kind, FlushEnd bufferEnd = FlushEnd::Back)
{
    int bytes = 0;
    EXPECT_EQ(vekrResizeGetBufSize(c.srcVOI, c.dstVOI, 1, kind, &bytes), StatusOk);
    GuardedArray<uint8_t> buffer(size_t(bytes), bufferEnd);
    if (planar)
        return VolumeExports<T>::kPV(src.constPlanes(), src.size(), src.rowBytes(), c.srcVOI,
                                     dst.planes(), dst.rowBytes(), c.dstVOI, c.factor[0],
                                     c.factor[1], c.factor[2], c.shift[0], c.shift[1], c.shift[2],
                                     kind, buffer.data());
    return VolumeExports<T>::kV(src.constPlanes()[0], src.size(), src.rowBytes(), src.planeBytes(),
                                c.srcVOI, dst.block(), dst.rowBytes(), dst.planeBytes(), c.dstVOI,
                                c.factor[0], c.factor[1], c.factor[2], c.shift[0], c.shift[1],
                                c.shift[2], kind, buffer.data());
}

// --- Reference -------------------------------------------------------------------------

// The destination box a resize writes.
Cuboid writtenBox(const ResizeCase& c)
{
    const int srcFirst[3] = {c.srcVOI.x, c.srcVOI.y, c.srcVOI.z};
    const int srcExtent[3] = {c.srcVOI.width, c.srcVOI.height, c.srcVOI.depth};
    const int volume[3] = {c.src.width, c.src.height, c.src.depth};
    const int dstFirst[3] = {c.dstVOI.x, c.dstVOI.y, c.dstVOI.z};
    const int dstExtent[3] = {c.dstVOI.width, c.dstVOI.height, c.dstVOI.depth};
    int start[3], end[3];
    for (int a = 0; a < 3; ++a) {
        const double srcEnd = srcFirst[a] + std::min(volume[a] - srcFirst[a], srcExtent[a]);
        start[a] = int(0.4999999999 +
                       std::max(srcFirst[a] * c.factor[a] + c.shift[a], double(dstFirst[a])));
        end[a] = int(0.5000000001 + std::min(srcEnd * c.factor[a] + c.shift[a],
                                             double(dstFirst[a] + dstExtent[a])));
    }
    return {start[0], start[1], start[2], end[0] - start[0], end[1] - start[1], end[2] - start[2]};
}

template <class T>
double referenceValue(const GuardedVolume<T>& src, const ResizeCase& c, int kind, int x, int y,
                      int z)
{
    const int at[3] = {x, y, z}, extent[3] = {c.src.width, c.src.height, c.src.depth};
    AxisTaps taps[3];
    for (int a = 0; a < 3; ++a)
        taps[a] = resizeAxisTaps(kind, at[a], c.factor[a], c.shift[a], extent[a]);
    return sumOverTaps([&](int i, int j, int k) { return src.at(i, j, k); }, taps);
}

// The shared tolerance, but for 8u within half a unit plus the 2^-14 steps of the fixed-point
// x weights (255 / 16384 < 1/64).
template <class T>
double resizeTolerance(int kind)
{
    if (std::is_same_v<T, uint8_t> && kind != InterpolationNearest) return 0.5 + 1.0 / 64;
    return tolerance<T>(kind);
}

// clang-format off
const ResizeCase kCases[] = {
    // name                      src           srcVOI                 dstVOI                  factor             shift
    {"Identity",               {9, 7, 5},   {0, 0, 0, 9, 7, 5},    {0, 0, 0, 9, 7, 5},    {1, 1, 1},         {0, 0, 0}},
    {"Double",                 {5, 4, 3},   {0, 0, 0, 5, 4, 3},    {0, 0, 0, 10, 8, 6},   {2, 2, 2},         {0, 0, 0}},
    {"Shrink",                 {19, 13, 9}, {0, 0, 0, 19, 13, 9},  {0, 0, 0, 10, 7, 7},   {0.5, 0.4, 0.75},  {0, 0, 0}},
    {"NonIntegerShifted",      {11, 9, 7},  {0, 0, 0, 11, 9, 7},   {1, 0, 2, 30, 20, 20}, {1.7, 0.63, 1.3},  {0.4, -1.3, 2.2}},
    {"InnerBoxReadsAroundIt",  {16, 12, 10},{3, 2, 2, 8, 6, 5},    {0, 0, 0, 20, 20, 20}, {1.5, 1.5, 1.5},   {-2.25, -1.5, -3.0}},
    {"ThinAxes",               {1, 2, 3},   {0, 0, 0, 1, 2, 3},    {0, 0, 0, 6, 8, 8},    {5, 3.5, 2.2},     {0.3, 0, -0.4}},
    {"ClippedDestination",     {10, 10, 6}, {0, 0, 0, 10, 10, 6},  {4, 3, 2, 11, 9, 7},   {2.3, 2.3, 2.3},   {0, 0, 0}},
    {"WideRows",               {41, 3, 2},  {0, 0, 0, 41, 3, 2},   {0, 0, 0, 60, 5, 3},   {1.13, 1.4, 1.2},  {0.2, 0, 0}},
    {"SourceBoxPastTheVolume", {10, 8, 6},  {4, 3, 2, 20, 20, 20}, {0, 0, 0, 24, 22, 16}, {1.6, 1.9, 2.1},   {-3.0, -2.5, -1.0}},
    {"LongBorderRuns",         {3, 4, 2},   {0, 0, 0, 3, 4, 2},    {0, 0, 0, 40, 9, 6},   {13, 2.2, 2.9},    {0, 0, 0}},
};
// clang-format on

class VolumeResize : public testing::TestWithParam<ResizeCase> {};

// Every kind through V and PV on one thread, with source, destination and work buffer flush
// against guard pages: values near the reference inside the written box, every other byte
// (padding included) unchanged, and V and PV byte for byte the same.
TEST_P(VolumeResize, MatchesDoublePrecisionReferenceWithinTheReportedBuffer)
{
    const ThreadCountScope oneThread(1);
    const ResizeCase& c = GetParam();
    forEachVoxelType([&]<class T>(T, unsigned seed) {
        std::mt19937 rng(seed);
        GuardedVolume<T> srcV(c.src, false), srcPV(c.src, true, FlushEnd::Front);
        srcV.fill([&](int, int, int) { return randomVoxel<T>(rng); });
        srcPV.fill([&](int x, int y, int z) { return srcV.at(x, y, z); });
        for (int kind : kKinds) {
            GuardedVolume<T> dstV(withMargin(c.dstVOI), false), dstPV(withMargin(c.dstVOI), true);
            const std::vector<T> before = dstV.storage();
            ASSERT_EQ(resizeThroughExport(false, srcV, dstV, c, kind), StatusOk) << "kind " << kind;
            ASSERT_EQ(resizeThroughExport(true, srcPV, dstPV, c, kind, FlushEnd::Front), StatusOk);
            EXPECT_TRUE(dstV.sameVoxels(dstPV)) << "kind " << kind;
            expectRegion(dstV, before, writtenBox(c), kind, resizeTolerance<T>(kind),
                         [&](int x, int y, int z) -> std::optional<double> {
                             return referenceValue(srcV, c, kind, x, y, z);
                         });
        }
    });
}

// A constant stays constant: exactly for the integer types and for nearest and linear (the
// linear blend a + f (b - a) and the 8u fixed-point weights reproduce equal taps), within
// float rounding of the weights' sum for 32f cubic.
TEST_P(VolumeResize, ConstantVolumeStaysConstant)
{
    const ThreadCountScope oneThread(1);
    const ResizeCase& c = GetParam();
    auto expectConstant = [&]<class T>(T value) {
        GuardedVolume<T> src(c.src, false);
        src.fill([&](int, int, int) { return value; });
        for (int kind : kKinds) {
            GuardedVolume<T> dst(withMargin(c.dstVOI), false);
            const std::vector<T> before = dst.storage();
            ASSERT_EQ(resizeThroughExport(false, src, dst, c, kind), StatusOk);
            const bool exact = !std::is_same_v<T, float> || kind <= InterpolationLinear;
            expectRegion(dst, before, writtenBox(c), kind, exact ? 0.0 : 0x1p-21 * double(value),
                         [&](int, int, int) -> std::optional<double> { return value; });
        }
    };
    expectConstant(uint8_t(201));
    expectConstant(uint8_t(255));
    expectConstant(uint16_t(54321));
    expectConstant(3.7f);
}

INSTANTIATE_TEST_SUITE_P(Cases, VolumeResize, testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

// Factor 1 and no shift put every sample on a voxel (fraction 0): nearest, linear and
// Catmull-Rom (weights 0, 1, 0, 0) copy the box bit for bit, also where the taps beside it lie
// outside the box or the volume; nothing else is written.
TEST(VolumeResizeIdentity, FactorOneCopiesTheBox)
{
    const ThreadCountScope oneThread(1);
    forEachVoxelType([]<class T>(T, unsigned) {
        std::mt19937 rng(7);
        GuardedVolume<T> src({9, 7, 5}, false);
        src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
        for (const Cuboid box : {Cuboid{2, 1, 1, 5, 4, 3}, Cuboid{0, 0, 0, 9, 7, 5}})
            for (int kind :
                 {InterpolationNearest, InterpolationLinear, InterpolationCubicCatmullRom}) {
                const ResizeCase c = {"", src.size(), box, box, {1, 1, 1}, {0, 0, 0}};
                GuardedVolume<T> dst(src.size(), false);
                const std::vector<T> before = dst.storage();
                ASSERT_EQ(resizeThroughExport(false, src, dst, c, kind), StatusOk);
                expectRegion(
                    dst, before, box, kind, 0.0,
                    [&](int x, int y, int z) -> std::optional<double> { return src.at(x, y, z); });
            }
    });
}

// An infinite factor makes the source box's first edge 0 * inf = NaN: the written box must
// still stay inside dstVOI and the work within the reported buffer.
TEST(VolumeResizeIdentity, InfiniteFactorStaysInsideTheDestinationBox)
{
    const ThreadCountScope oneThread(1);
    GuardedVolume<uint8_t> src({8, 8, 8}, false);
    src.fill([](int x, int y, int z) { return uint8_t(x + y + z); });
    const ResizeCase c = {
        "", src.size(), {0, 0, 0, 8, 8, 8}, {5, 0, 0, 6, 4, 4}, {INFINITY, 1, 1}, {0, 0, 0}};
    for (int kind : kKinds) {
        GuardedVolume<uint8_t> dst(withMargin(c.dstVOI), false);  // 0xA5 throughout
        resizeThroughExport(false, src, dst, c, kind);
        for (int z = 0; z < dst.size().depth; ++z)
            for (int y = 0; y < dst.size().height; ++y)
                for (int x = 0; x < c.dstVOI.x; ++x)
                    ASSERT_EQ(dst.at(x, y, z), 0xA5)
                        << "kind " << kind << " at " << x << "," << y << "," << z;
    }
}

// Next to a step from 0 to 255 the cubics with negative lobes overshoot both ways; 8u output
// saturates there instead of wrapping.
TEST(VolumeResizeIdentity, Cubic8uSaturatesAtSharpEdges)
{
    const ThreadCountScope oneThread(1);
    GuardedVolume<uint8_t> src({8, 2, 2}, false);
    src.fill([](int x, int, int) { return uint8_t(x < 4 ? 0 : 255); });
    const ResizeCase c = {"",        src.size(), {0, 0, 0, 8, 2, 2}, {0, 0, 0, 24, 2, 2},
                          {3, 1, 1}, {0, 0, 0}};
    for (int kind :
         {InterpolationCubicLagrange, InterpolationCubicCatmullRom, InterpolationCubicB05C03}) {
        GuardedVolume<uint8_t> dst(withMargin(c.dstVOI), false);
        ASSERT_EQ(resizeThroughExport(false, src, dst, c, kind), StatusOk);
        int over = 0, under = 0;
        for (int x = 0; x < 24; ++x) {
            const double ref = referenceValue(src, c, kind, x, 0, 0);
            const int expected = ref > 255.5 ? 255 : ref < -0.5 ? 0 : -1;
            if (expected < 0) continue;
            ++(expected == 255 ? over : under);
            EXPECT_EQ(dst.at(x, 0, 0), expected) << "kind " << kind << " x " << x;
        }
        EXPECT_GT(over, 0) << "kind " << kind;
        EXPECT_GT(under, 0) << "kind " << kind;
    }
}

// 32f V forks a team for large enough boxes, each member within its own share
// of a buffer of exactly the reported size; the destination box is the covered one, the
// largest a buffer of that size serves. Variant: the kind index.
std::vector<uint8_t> resizeForTeams(int variant, FlushEnd bufferEnd)
{
    std::mt19937 rng(11);
    GuardedVolume<float> src({30, 28, 26}, false);
    src.fill([&](int, int, int) { return randomVoxel<float>(rng); });
    ResizeCase c = {"", src.size(), {0, 0, 0, 30, 28, 26}, {}, {1.7, 1.6, 1.9}, {0.3, -0.2, 0.1}};
    EXPECT_EQ(vekrGetResizeCuboid(c.srcVOI, &c.dstVOI, c.factor[0], c.factor[1], c.factor[2],
                                  c.shift[0], c.shift[1], c.shift[2], InterpolationLinear),
              StatusOk);
    expectTeamOfThree(c.dstVOI.width, c.dstVOI.height, c.dstVOI.depth);
    GuardedVolume<float> dst(withMargin(c.dstVOI), false);
    EXPECT_EQ(resizeThroughExport(false, src, dst, c, kKinds[variant], bufferEnd), StatusOk);
    return bytesOf(dst.storage());
}

INSTANTIATE_TEST_SUITE_P(Resize, VolumeThreads,
                         testing::Values(ThreadedCall{"Resize32fV", 6, resizeForTeams}),
                         threadedCallName);

// --- White box: twins and buffer carving ------------------------------------------------

// The whole resize with the Scalar and with the Avx row kernels (with ordinary and with
// streaming stores), over destination widths across the 8-lane steps and their tails and
// rows at every alignment, with border runs on every axis.
template <class T>
void expectAvxMatchesScalar(int kind)
{
    std::mt19937 rng{unsigned(kind)};
    for (int srcWidth = 1; srcWidth <= 34; ++srcWidth) {
        const VolumeSize srcSize = {srcWidth, 5, 4};
        GuardedVolume<T> src(srcSize, false);
        src.fill([&](int, int, int) { return randomVoxel<T>(rng); });
        const Cuboid srcVOI = {0, 0, 0, srcWidth, 5, 4};
        const Cuboid dstVOI = {srcWidth % 8, 0, 0, 64, 8, 8};
        const double factor[3] = {1.37, 0.8, 1.5}, shift[3] = {0.21 + dstVOI.x, -0.3, 0.4};
        volume::ResizeRegion region;
        ASSERT_EQ(volume::resolveResizeRegion(true, srcSize, srcVOI, dstVOI, factor, shift,
                                              volume::findInterpolationKernel(kind), region),
                  StatusOk);
        std::vector<uint8_t> buffer(volume::resizeBufferBytesPerThread(64, 8, 8, kind));
        const int voxelBytes = int(sizeof(T));
        const auto srcView = volume::blockVolume(src.constPlanes()[0], src.rowBytes() / voxelBytes,
                                                 src.planeBytes() / voxelBytes);
        const int depth = region.axis[2].dstEnd - region.axis[2].dstStart;
        std::vector<std::unique_ptr<GuardedVolume<T>>> results;
        for (const auto& kernels : {volume::scalarRowKernels<T>(), volume::avxRowKernels<T>(false),
                                    volume::avxRowKernels<T>(true)}) {
            results.push_back(std::make_unique<GuardedVolume<T>>(VolumeSize{72, 8, 8}, false));
            GuardedVolume<T>& dst = *results.back();
            volume::resizeSlices(srcView, srcSize,
                                 volume::blockVolume(dst.block(), dst.rowBytes() / voxelBytes,
                                                     dst.planeBytes() / voxelBytes),
                                 region, *volume::findInterpolationKernel(kind), buffer.data(), 0,
                                 depth, kernels);
        }
        for (size_t r = 1; r < results.size(); ++r)
            ASSERT_TRUE(results[r]->sameVoxels(*results[0]))
                << "kind " << kind << ", source width " << srcWidth
                << (r == 2 ? ", streaming" : "");
    }
}

TEST(ResizeRowKernels, AvxTwinsMatchScalarBitForBit)
{
    for (int kind : kKinds)
        forEachVoxelType([&]<class T>(T, unsigned) { expectAvxMatchesScalar<T>(kind); });
}

// Every area of a carved share starts on a 64-byte boundary and the whole ends within the
// per-thread size the query reports, wherever the share starts.
TEST(ResizeWorkspace, CarvedAreasFitTheReportedShareAtAnyAlignment)
{
    for (int kind : kKinds)
        for (bool fixedPointX : {false, true})
            for (int width : {1, 2, 15, 16, 17, 31, 48, 63, 64, 65, 100, 257})
                for (int height : {1, 3, 16, 17})
                    for (int depth : {1, 2, 65}) {
                        const uint32_t budget =
                            volume::resizeBufferBytesPerThread(width, height, depth, kind);
                        std::vector<uint8_t> storage(budget + 128);
                        uint8_t* aligned = storage.data() +
                                           (64 - reinterpret_cast<uintptr_t>(storage.data()) % 64);
                        for (int misalign = 0; misalign < 64; ++misalign) {
                            const volume::ResizeWorkspace ws = volume::carveResizeWorkspace(
                                aligned + misalign, width, height, depth,
                                *volume::findInterpolationKernel(kind), fixedPointX);
                            ASSERT_LE(ws.bytesUsed, budget)
                                << "kind " << kind << ", box " << width << "x" << height << "x"
                                << depth << ", misaligned by " << misalign;
                            for (const void* area : {static_cast<const void*>(ws.axis[0].base),
                                                     static_cast<const void*>(ws.axis[2].base),
                                                     static_cast<const void*>(ws.rowSlots),
                                                     static_cast<const void*>(ws.planeSlots)})
                                ASSERT_EQ(reinterpret_cast<uintptr_t>(area) % 64, 0u);
                        }
                    }
}

// The 8u linear x weights in 14-bit fixed point, w1 = trunc(1e-7 + 16384 f) and w0 = 16384 - w1:
// the 1e-7 lifts a fraction a hair below a step (2^-14 - 2^-38) onto it, and no further.
TEST(ResizeWorkspace, FixedPointWeightsLiftOnlyAHairBelowAStep)
{
    const volume::InterpolationKernel& linear =
        *volume::findInterpolationKernel(InterpolationLinear);
    std::vector<uint8_t> storage(volume::resizeBufferBytesPerThread(1, 1, 1, InterpolationLinear));
    for (const auto& [fraction, w1] : std::vector<std::pair<double, int>>{
             {0.0, 0}, {0.5, 8192}, {0x1p-14 - 0x1p-38, 1}, {0x1p-14 - 0x1p-30, 0},
             {1.0 - 0x1p-24, 16383}}) {
        volume::ResizeWorkspace ws =
            volume::carveResizeWorkspace(storage.data(), 1, 1, 1, linear, true);
        volume::ResizeRegion region;
        for (volume::AxisMapping& axis : region.axis)
            axis = {1.0, fraction, 0, 1};  // p = fraction
        volume::fillResizeTables(ws, region, VolumeSize{4, 4, 4}, linear);
        EXPECT_EQ(ws.axis[0].fixedWeights[1], w1) << "fraction " << fraction;
        EXPECT_EQ(ws.axis[0].fixedWeights[0], 16384 - w1) << "fraction " << fraction;
    }
}

}  // namespace
