// The 3-D filter against the documented formula evaluated directly, with every array flush
// against guard pages; rounding and saturation; the checks; thread counts; both row kernels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "support/guard_buffer.h"
#include "vekr.h"
#include "volume/volume_filter.h"
#include "volume_exports.h"

using namespace vekr::test;
namespace volume = vekr::volume;

namespace {

constexpr int16_t kSentinel = 0x5a5a;
constexpr int32_t kInt32Max = std::numeric_limits<int32_t>::max();
constexpr int32_t kInt32Min = std::numeric_limits<int32_t>::min();

struct FilterCase {
    const char* name;
    VolumeSize roi, kernel;
    int anchor[3];
    int divisor;
    int32_t kernelMax;  // kernel elements in -kernelMax .. kernelMax
    int sourceMax;      // source voxels in -sourceMax .. sourceMax, clamped to the 16-bit range
};

// round(sum / divisor) half away from zero, saturated. The sums here stay below 2^51 (at most
// 30 taps, each |kernel| * |voxel| <= 2^31 * 2^15), so 64-bit integers, which every target
// has, hold them exactly; an overflow would stop the sanitizer build.
int16_t roundedQuotient(int64_t sum, int divisor)
{
    int64_t d = divisor;
    if (d < 0) sum = -sum, d = -d;
    const int64_t q = sum >= 0 ? (2 * sum + d) / (2 * d) : -((-2 * sum + d) / (2 * d));
    return int16_t(std::clamp<int64_t>(q, -32768, 32767));
}

// A filter call whose source holds exactly the voxels the kernel and anchor reach around the
// region and nothing more: every source plane, destination plane, plane array, the kernel and
// the work buffer (of exactly the reported size) sit flush against guard pages at `end`.
// Rows of both volumes are padded, the destination's padding holds a sentinel.
class FilterSetup {
public:
    FilterSetup(const FilterCase& c, FlushEnd end, uint32_t seed = 1) : c_(c), pool_{end, {}}
    {
        std::mt19937 rng(seed);
        const VolumeSize r = c.roi, k = c.kernel;
        const int boxW = r.width + k.width - 1, boxH = r.height + k.height - 1;
        const int boxD = r.depth + k.depth - 1;
        srcRowStep = boxW + 3;
        dstRowStep = r.width + 2;
        const int sourceMax = std::min(c.sourceMax, 32768);
        std::uniform_int_distribution<int> voxel(-sourceMax, std::min(sourceMax, 32767));
        // Box voxel (0, 0, 0) is src(ax - (kw - 1), ay - (kh - 1), az - (kd - 1)).
        const std::ptrdiff_t originOffset =
            std::ptrdiff_t(k.height - 1 - c.anchor[1]) * srcRowStep + (k.width - 1 - c.anchor[0]);
        std::vector<const int16_t*> srcPlanes;
        for (int p = 0; p < boxD; ++p) {
            std::vector<int16_t> plane(size_t(boxH - 1) * srcRowStep + boxW);
            for (int16_t& v : plane)
                v = int16_t(voxel(rng));
            srcPlanes.push_back(pool_.copy(plane) + originOffset);
        }
        src = pool_.copy(srcPlanes) + (k.depth - 1 - c.anchor[2]);
        std::vector<int16_t*> dstPlanes;
        for (int z = 0; z < r.depth; ++z)
            dstPlanes.push_back(pool_.copy(std::vector<int16_t>(dstPlaneElements())));
        dst = pool_.copy(dstPlanes);
        std::uniform_int_distribution<int32_t> element(-c.kernelMax, c.kernelMax);
        std::vector<int32_t> elements(size_t(k.width) * k.height * k.depth);
        for (int32_t& e : elements)
            e = element(rng);
        kernel = pool_.copy(elements);
        int bytes = 0;
        EXPECT_EQ(vekrFilterGetBufSize(r, k, 1, &bytes), StatusOk);
        buffer = std::make_unique<GuardedArray<uint8_t>>(size_t(bytes), end);
    }

    Status runExport()
    {
        clearDestination();
        return vekrFilter_16s_C1PV(src, srcRowStep * 2, dst, dstRowStep * 2, c_.roi, kernel,
                                   c_.kernel, c_.anchor[0], c_.anchor[1], c_.anchor[2], c_.divisor,
                                   buffer->data());
    }
    void runRowKernel(volume::FilterRowKernel rowKernel)
    {
        clearDestination();
        const volume::FilterJob job{.srcPlanes = src,
                                    .srcRowStep = srcRowStep,
                                    .dstPlanes = dst,
                                    .dstRowStep = dstRowStep,
                                    .roi = c_.roi,
                                    .kernel = kernel,
                                    .kernelExtent = c_.kernel,
                                    .anchor = {c_.anchor[0], c_.anchor[1], c_.anchor[2]},
                                    .divisor = c_.divisor};
        volume::filterVolume(job, buffer->data(), rowKernel);
    }

    // The region row by row.
    std::vector<int16_t> written() const
    {
        std::vector<int16_t> out;
        forEachRegionVoxel([&](int x, int y, int z) { out.push_back(dst[z][y * dstRowStep + x]); });
        return out;
    }
    // The documented formula, term by term, through the caller's pointers.
    std::vector<int16_t> reference() const
    {
        const VolumeSize k = c_.kernel;
        std::vector<int16_t> out;
        forEachRegionVoxel([&](int x, int y, int z) {
            int64_t sum = 0;
            for (int kz = 0; kz < k.depth; ++kz)
                for (int ky = 0; ky < k.height; ++ky)
                    for (int kx = 0; kx < k.width; ++kx)
                        sum += int64_t(kernel[(kz * k.height + ky) * k.width + kx]) *
                               srcAt(x + c_.anchor[0] - kx, y + c_.anchor[1] - ky,
                                     z + c_.anchor[2] - kz);
            out.push_back(roundedQuotient(sum, c_.divisor));
        });
        return out;
    }
    // Whether every destination voxel outside the region (the row padding) kept its sentinel.
    bool paddingKept() const
    {
        for (int z = 0; z < c_.roi.depth; ++z)
            for (int y = 0; y + 1 < c_.roi.height; ++y)
                for (int x = c_.roi.width; x < dstRowStep; ++x)
                    if (dst[z][y * dstRowStep + x] != kSentinel) return false;
        return true;
    }

    const int16_t* const* src;
    int16_t* const* dst;
    const int32_t* kernel;
    int srcRowStep, dstRowStep;
    std::unique_ptr<GuardedArray<uint8_t>> buffer;

private:
    size_t dstPlaneElements() const
    {
        return size_t(c_.roi.height - 1) * dstRowStep + c_.roi.width;
    }
    void clearDestination()
    {
        for (int z = 0; z < c_.roi.depth; ++z)
            std::fill_n(dst[z], dstPlaneElements(), kSentinel);
    }
    int16_t srcAt(std::ptrdiff_t x, std::ptrdiff_t y, std::ptrdiff_t z) const
    {
        return src[z][y * srcRowStep + x];
    }
    template <class F>
    void forEachRegionVoxel(F f) const
    {
        for (int z = 0; z < c_.roi.depth; ++z)
            for (int y = 0; y < c_.roi.height; ++y)
                for (int x = 0; x < c_.roi.width; ++x)
                    f(x, y, z);
    }

    FilterCase c_;
    GuardPool pool_;
};

// Asymmetric kernels of random elements; anchors at the centre, at the first and last corners,
// mixed, outside the kernel; rows of 8 voxels and more with tails of 0 .. 7.
const FilterCase kCases[] = {
    {"Centred3x3x3", {13, 5, 4}, {3, 3, 3}, {1, 1, 1}, 1, 9, 500},
    {"FirstCorner", {9, 4, 3}, {3, 2, 4}, {0, 0, 0}, 3, 50, 2000},
    {"LastCorner", {17, 3, 5}, {5, 3, 2}, {4, 2, 1}, -7, 100, 32768},
    {"MixedCorners", {8, 6, 2}, {2, 5, 3}, {1, 0, 2}, 3, 1000, 300},
    {"AnchorOutsideKernel", {7, 2, 3}, {3, 1, 2}, {-2, 3, 1}, -3, 20, 1000},
    {"SingleTapNegated", {21, 2, 2}, {1, 1, 1}, {0, 0, 0}, -1, 1, 32768},
    {"WideSums", {11, 3, 2}, {4, 2, 3}, {2, 1, 1}, kInt32Min, kInt32Max, 32768},
    {"Saturating", {10, 3, 3}, {3, 3, 2}, {1, 2, 0}, 3, 30000, 32768},
    // Small kernels sum in 32-bit lanes: ties of an even divisor, and sums near 2^31.
    {"EvenDivisorTies", {19, 3, 2}, {3, 3, 3}, {1, 1, 1}, -4, 3, 100},
    {"PairedSumsNear2To31", {24, 2, 2}, {1, 2, 1}, {0, 1, 0}, 6, 32767, 32768},
};

TEST(VolumeFilter, MatchesTheFormulaOnBothRowKernelsReadingOnlyItsVoxels)
{
    bool sawMax = false, sawMin = false;
    for (const FilterCase& c : kCases)
        for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front}) {
            SCOPED_TRACE(c.name);
            FilterSetup setup(c, end);
            const std::vector<int16_t> expected = setup.reference();
            ASSERT_EQ(setup.runExport(), StatusOk);
            EXPECT_EQ(setup.written(), expected);
            EXPECT_TRUE(setup.paddingKept());
            setup.runRowKernel(volume::filterRowScalar);
            EXPECT_EQ(setup.written(), expected);
            setup.runRowKernel(volume::filterRowAvx);
            EXPECT_EQ(setup.written(), expected);
            sawMax |= std::count(expected.begin(), expected.end(), 32767) > 0;
            sawMin |= std::count(expected.begin(), expected.end(), -32768) > 0;
        }
    EXPECT_TRUE(sawMax && sawMin);
}

// One row of `width` voxels through a single tap, with a buffer of the reported size.
Status filterRow(const int16_t* srcPlane, int16_t* dstPlane, int width, int32_t tap, int divisor)
{
    int bytes = 0;
    EXPECT_EQ(vekrFilterGetBufSize({width, 1, 1}, {1, 1, 1}, 1, &bytes), StatusOk);
    std::vector<uint8_t> buffer(static_cast<size_t>(bytes));
    return vekrFilter_16s_C1PV(&srcPlane, width * 2, &dstPlane, width * 2, {width, 1, 1}, &tap,
                               {1, 1, 1}, 0, 0, 0, divisor, buffer.data());
}

// One voxel, one tap: src * tap / divisor rounded half away from zero, then saturated.
TEST(VolumeFilter, RoundsHalfAwayFromZeroAndSaturates)
{
    struct Row {
        int16_t voxel;
        int32_t tap;
        int divisor;
        int16_t expected;
    };
    // clang-format off
    const Row rows[] = {
        {3, 1, 2, 2}, {-3, 1, 2, -2}, {3, 1, -2, -2}, {-3, 1, -2, 2}, {5, 1, 2, 3}, {1, 1, 3, 0},
        {2, 1, 3, 1}, {-2, 1, 3, -1}, {7, 1, -1, -7}, {0, 9, -5, 0}, {-32768, 1, -1, 32767},
        {32767, 2, 2, 32767}, {-32768, 3, 2, -32768}, {32767, 65538, 2, 32767},
        {-32768, kInt32Max, 1, -32768},
        {16384, 65536, kInt32Min, -1},  // -0.5 exactly: away from zero
        {16383, 65536, kInt32Min, 0},
        {-32768, kInt32Min, kInt32Min, -32768},
        {32767, kInt32Max, 65536, 32767},
    };
    // clang-format on
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << r.voxel << " * " << r.tap << " / " << r.divisor);
        int16_t out = kSentinel;
        ASSERT_EQ(filterRow(&r.voxel, &out, 1, r.tap, r.divisor), StatusOk);
        EXPECT_EQ(out, r.expected);
        EXPECT_EQ(out, roundedQuotient(int64_t(r.voxel) * r.tap, r.divisor));
    }
    // Every 16-bit value in one row through the eight-voxel divide: exact multiples and ties.
    std::vector<int16_t> all(65536), out(65536);
    for (int v = 0; v < 65536; ++v)
        all[size_t(v)] = int16_t(v - 32768);
    for (int divisor : {1, 2, 3, 7, 10, 27, 255, 1000, -2, -3}) {
        ASSERT_EQ(filterRow(all.data(), out.data(), 65536, 1, divisor), StatusOk);
        for (int v = 0; v < 65536; ++v)
            if (out[size_t(v)] != roundedQuotient(all[size_t(v)], divisor))
                FAIL() << all[size_t(v)] << " / " << divisor << " gave " << out[size_t(v)];
    }
}

// A destination large enough for a team of three; 47 slices split unevenly.
std::vector<uint8_t> filterForTeams(int, FlushEnd end)
{
    const FilterCase c{"", {48, 47, 47}, {3, 3, 3}, {2, 0, 1}, 5, 200, 32768};
    expectTeamOfThree(48, 47, 47);
    FilterSetup setup(c, end);
    EXPECT_EQ(setup.runExport(), StatusOk);
    EXPECT_EQ(setup.written(), setup.reference());
    EXPECT_TRUE(setup.paddingKept());
    return bytesOf(setup.written());
}

INSTANTIATE_TEST_SUITE_P(Filter, VolumeThreads,
                         testing::Values(ThreadedCall{"Filter16s", 1, filterForTeams}),
                         threadedCallName);

}  // namespace
