// The remap and warp row kernels: each Avx twin against its Scalar twin, bit for bit, for rows
// of 0 .. 40 voxels and one long row, with maps and output flush against guard pages.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "support/guard_buffer.h"
#include "vekr.h"
#include "volume/remap_rows.h"
#include "volume/resample_kernels.h"
#include "volume/warp_rows.h"
#include "volume_exports.h"

namespace {

using namespace vekr;
using test::FlushEnd;
using test::GuardedArray;

constexpr int kLongRow = 1000;

enum class Thin { None, Z, YZ };
constexpr Thin kThin[] = {Thin::None, Thin::Z, Thin::YZ};

// A 9 x 7 x 6 source in one guarded block, its last voxel against the guard page, with a
// window whose x maximum is the last voxel of every row: a pair read past it faults.
template <class T>
struct Source {
    static constexpr int kWidth = 9, kHeight = 7, kDepth = 6;
    GuardedArray<T> voxels{size_t(kWidth) * kHeight * kDepth};
    std::vector<const T*> planes;

    explicit Source(std::mt19937& rng)
    {
        std::uniform_real_distribution<float> value(0.0f, 255.0f);
        for (size_t i = 0; i < voxels.size(); ++i)
            voxels.data()[i] = T(value(rng));
        for (int z = 0; z < kDepth; ++z)
            planes.push_back(voxels.data() + size_t(z) * kWidth * kHeight);
    }
    // lo and hi inclusive; one voxel thick on z when thin, also on y when Thin::YZ.
    volume::SourceWindow<T> window(Thin thin) const
    {
        volume::SourceWindow<T> w;
        w.planes = planes.data();
        w.rowStep = kWidth;
        const bool y = thin == Thin::YZ, z = thin != Thin::None;
        const int32_t lo[3] = {1, y ? 3 : 0, z ? 5 : 2};
        const int32_t hi[3] = {kWidth - 1, y ? 3 : kHeight - 1, z ? 5 : kDepth - 1};
        for (int a = 0; a < 3; ++a)
            w.lo[a] = lo[a], w.hi[a] = hi[a];
        return w;
    }
};

// Positions around the window on one axis: mostly inside, some a little outside, exactly on
// either bound, the next float above the maximum, NaN, and half voxels (nearest rounds those
// ties to even).
float randomCoordinate(std::mt19937& rng, int32_t lo, int32_t hi)
{
    switch (std::uniform_int_distribution<int>(0, 9)(rng)) {
        case 0:
            return float(lo);
        case 1:
            return float(hi);
        case 2:
            return std::nextafter(float(hi), 1e9f);
        case 3:
            return std::numeric_limits<float>::quiet_NaN();
        case 4:
            return float(std::uniform_int_distribution<int32_t>(lo, std::max(lo, hi - 1))(rng)) +
                   0.5f;
        default:
            return std::uniform_real_distribution<float>(lo - 1.0f, hi + 1.0f)(rng);
    }
}

// For each window thickness, guard end and row length (0 .. 40, then one long row),
// rows(window, thin, end, n, count, scalar, avx) writes a row through each twin, both rows
// starting as 7 everywhere; the Avx row must hold the Scalar row's bytes.
template <class T, class Rows>
void expectTwinsAgree(const Source<T>& src, const char* what, Rows rows)
{
    for (Thin thin : kThin)
        for (FlushEnd end : {FlushEnd::Back, FlushEnd::Front})
            for (int n = 0; n <= 41; ++n) {
                const int count = n == 41 ? kLongRow : n;
                GuardedArray<T> scalar(count, end), avx(count, end);
                std::fill_n(scalar.data(), count, T(7));
                std::fill_n(avx.data(), count, T(7));
                rows(src.window(thin), thin, end, n, count, scalar.data(), avx.data());
                for (int i = 0; i < count; ++i)
                    ASSERT_EQ(std::memcmp(scalar.data() + i, avx.data() + i, sizeof(T)), 0)
                        << what << ", n " << count << ", voxel " << i;
            }
}

template <class T>
void checkRemapTwins(const volume::InterpolationKernel& kernel)
{
    std::mt19937 rng(7);
    expectTwinsAgree(Source<T>(rng), "remap",
                     [&](const volume::SourceWindow<T>& window, Thin, FlushEnd end, int n,
                         int count, T* scalar, T* avx) {
                         GuardedArray<float> x(count, end), y(count, end), z(count, end);
                         GuardedArray<float>* map[3] = {&x, &y, &z};
                         // Odd rows keep x where the four cubic taps lie inside the window.
                         std::uniform_real_distribution<float> interiorX(window.lo[0] + 1.0f,
                                                                         window.hi[0] - 2.0f);
                         for (int a = 0; a < 3; ++a)
                             for (int i = 0; i < count; ++i)
                                 map[a]->data()[i] =
                                     a == 0 && n % 2
                                         ? interiorX(rng)
                                         : randomCoordinate(rng, window.lo[a], window.hi[a]);
                         for (auto [path, out] : {std::pair{volume::RowPath::Scalar, scalar},
                                                  std::pair{volume::RowPath::Avx, avx}})
                             volume::remapRowKernel<T>(kernel, path)(
                                 window, kernel, x.data(), y.data(), z.data(), out, count);
                     });
}

// Rows that start outside the window and cross it on a slant, so each row has voxels outside,
// inside and on the way out; the long row takes a smaller step to stay near the box.
template <class T>
void checkWarpTwins(const volume::InterpolationKernel& kernel)
{
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> jitter(-0.5, 0.5);
    expectTwinsAgree(
        Source<T>(rng), "warp",
        [&](const volume::SourceWindow<T>& window, Thin thin, FlushEnd, int, int count, T* scalar,
            T* avx) {
            const double scale = count > 40 ? 0.01 : 0.3;
            double start[3], step[3];
            for (int a = 0; a < 3; ++a) {
                start[a] = window.lo[a] - 1.0 + jitter(rng);
                step[a] = scale * (window.hi[a] - window.lo[a] + 1.5 + jitter(rng)) / 3;
            }
            if (thin != Thin::None) step[2] = 0.0, start[2] = window.hi[2];  // one plane
            if (thin == Thin::YZ) step[1] = 0.0, start[1] = window.lo[1];    // one row
            for (auto [path, out] :
                 {std::pair{volume::RowPath::Scalar, scalar}, std::pair{volume::RowPath::Avx, avx}})
                volume::warpRowKernel<T>(kernel, path)(window, kernel, start, step, out, count);
        });
}

template <class T>
class RemapWarpRowKernels : public testing::Test {};
using VoxelTypes = testing::Types<uint8_t, uint16_t, float>;
TYPED_TEST_SUITE(RemapWarpRowKernels, VoxelTypes);

TYPED_TEST(RemapWarpRowKernels, AvxMatchesScalarBitForBit)
{
    for (int code : test::kKinds) {
        const volume::InterpolationKernel& kernel = *volume::findInterpolationKernel(code);
        SCOPED_TRACE(code);
        checkRemapTwins<TypeParam>(kernel);
        checkWarpTwins<TypeParam>(kernel);
    }
}

}  // namespace
