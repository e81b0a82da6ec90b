#include "volume_filter.h"

#include <immintrin.h>

#include "frame/parallel_region.h"
#include "vekcore.h"
#include "volume_geometry.h"

namespace vekr::volume {
namespace {

constexpr int32_t kMinParallelExtent = 16;
constexpr int kTapLanes = 4;
constexpr int kAvxBlock = 8;  // voxels per block of the AVX row kernel

}  // namespace

int16_t roundDivideSaturate(int64_t sum, int32_t divisor)
{
    const bool negative = (sum < 0) != (divisor < 0);
    // Magnitudes in 64-bit unsigned: |sum| <= 2^63 and |divisor| / 2 <= 2^30 cannot overflow.
    const uint64_t magnitude = sum < 0 ? 0 - uint64_t(sum) : uint64_t(sum);
    const uint64_t d = divisor < 0 ? 0 - uint64_t(int64_t(divisor)) : uint64_t(divisor);
    const uint64_t limit = negative ? 32768 : 32767;
    const uint64_t n = magnitude + d / 2;  // floor(n / d) is |sum / divisor| rounded half up
    if (n >= (limit + 1) * d) return int16_t(negative ? -32768 : 32767);
    // Here n < 2^47 and the quotient is below 2^16, so a double quotient is never rounded up to
    // the next integer (it stays at least 1/d = 2^-31 below it, far more than half an ulp) and
    // truncation gives floor(n / d) exactly, much faster than a 64-bit integer division.
    const int64_t q = int64_t(double(n) / double(d));
    return int16_t(negative ? -q : q);
}

void filterRowScalar(const FilterRowSource& src, int16_t* dst, int32_t width)
{
    const int32_t kw = src.kernelExtent.width, kh = src.kernelExtent.height,
                  kd = src.kernelExtent.depth;
    for (int32_t x = 0; x < width; ++x) {
        uint64_t sum = 0;  // wraps like the AVX lanes; exact while |sum| < 2^63
        const int32_t* tap = src.taps;
        for (int32_t c = 0; c < kd; ++c) {
            const int16_t* plane = src.planes[c] + src.firstOffset + x;
            for (int32_t b = 0; b < kh; ++b) {
                const int16_t* row = plane + b * src.rowStep;
                for (int32_t a = 0; a < kw; ++a, tap += kTapLanes)
                    sum += uint64_t(int64_t(*tap) * row[a]);
            }
        }
        dst[x] = roundDivideSaturate(int64_t(sum), src.divisor);
    }
}

// Eight voxels per block, each sum in a 64-bit lane: _mm_mul_epi32 multiplies the even 32-bit
// lanes, so voxels 0, 2 | 1, 3 | 4, 6 | 5, 7 keep one accumulator each.
void filterRowAvx(const FilterRowSource& src, int16_t* dst, int32_t width)
{
    const int32_t kw = src.kernelExtent.width, kh = src.kernelExtent.height,
                  kd = src.kernelExtent.depth;
    int32_t x = 0;
    for (; x + kAvxBlock <= width; x += kAvxBlock) {
        __m128i even03 = _mm_setzero_si128(), odd03 = _mm_setzero_si128();
        __m128i even47 = _mm_setzero_si128(), odd47 = _mm_setzero_si128();
        const int32_t* tap = src.taps;
        for (int32_t c = 0; c < kd; ++c) {
            const int16_t* plane = src.planes[c] + src.firstOffset + x;
            for (int32_t b = 0; b < kh; ++b) {
                const int16_t* row = plane + b * src.rowStep;
                for (int32_t a = 0; a < kw; ++a, tap += kTapLanes) {
                    const __m128i k = _mm_load_si128(reinterpret_cast<const __m128i*>(tap));
                    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + a));
                    const __m128i v03 = _mm_cvtepi16_epi32(v);
                    const __m128i v47 = _mm_cvtepi16_epi32(_mm_srli_si128(v, 8));
                    even03 = _mm_add_epi64(even03, _mm_mul_epi32(v03, k));
                    odd03 = _mm_add_epi64(odd03, _mm_mul_epi32(_mm_srli_epi64(v03, 32), k));
                    even47 = _mm_add_epi64(even47, _mm_mul_epi32(v47, k));
                    odd47 = _mm_add_epi64(odd47, _mm_mul_epi32(_mm_srli_epi64(v47, 32), k));
                }
            }
        }
        alignas(16) int64_t sums[kAvxBlock];
        _mm_store_si128(reinterpret_cast<__m128i*>(sums + 0), _mm_unpacklo_epi64(even03, odd03));
        _mm_store_si128(reinterpret_cast<__m128i*>(sums + 2), _mm_unpackhi_epi64(even03, odd03));
        _mm_store_si128(reinterpret_cast<__m128i*>(sums + 4), _mm_unpacklo_epi64(even47, odd47));
        _mm_store_si128(reinterpret_cast<__m128i*>(sums + 6), _mm_unpackhi_epi64(even47, odd47));
        for (int i = 0; i < kAvxBlock; ++i)
            dst[x + i] = roundDivideSaturate(sums[i], src.divisor);
    }
    // The tail reads nothing past the last voxel the row needs.
    FilterRowSource tail = src;
    tail.firstOffset += x;
    filterRowScalar(tail, dst + x, width - x);
}

const int32_t* layOutFilterTaps(const int32_t* kernel, VolumeSize kernelExtent, uint8_t* share)
{
    auto* taps =
        reinterpret_cast<int32_t*>((reinterpret_cast<uintptr_t>(share) + 63) & ~uintptr_t(63));
    const int64_t count = int64_t(kernelExtent.width) * kernelExtent.height * kernelExtent.depth;
    for (int64_t t = 0; t < count; ++t)
        for (int lane = 0; lane < kTapLanes; ++lane)
            taps[t * kTapLanes + lane] = kernel[count - 1 - t];
    return taps;
}

void filterSlices(const FilterJob& job, uint8_t* share, int32_t sliceBegin, int32_t sliceEnd,
                  FilterRowKernel rowKernel)
{
    const VolumeSize k = job.kernelExtent;
    FilterRowSource row{
        layOutFilterTaps(job.kernel, k, share), k, nullptr, 0, job.srcRowStep, job.divisor};
    // The lowest plane, row and voxel that destination (0, 0, 0) reads.
    const std::ptrdiff_t firstX = std::ptrdiff_t(job.anchor[0]) - (k.width - 1);
    const std::ptrdiff_t firstY = std::ptrdiff_t(job.anchor[1]) - (k.height - 1);
    const std::ptrdiff_t firstZ = std::ptrdiff_t(job.anchor[2]) - (k.depth - 1);
    for (int32_t z = sliceBegin; z < sliceEnd; ++z) {
        row.planes = job.srcPlanes + (z + firstZ);
        for (int32_t y = 0; y < job.roi.height; ++y) {
            row.firstOffset = (y + firstY) * job.srcRowStep + firstX;
            rowKernel(row, job.dstPlanes[z] + y * job.dstRowStep, job.roi.width);
        }
    }
}

void filterVolume(const FilterJob& job, uint8_t* buffer, FilterRowKernel rowKernel)
{
    const VolumeSize roi = job.roi;
    if (roi.width < kMinParallelExtent || roi.height < kMinParallelExtent ||
        roi.depth < kMinParallelExtent || ownGetNumThreads() <= 1) {
        filterSlices(job, buffer, 0, roi.depth, rowKernel);
        return;
    }
    const std::size_t shareBytes = filterBufferBytesPerThread(roi.width, job.kernelExtent);
    frame::runParallelRegion([&](int member, int teamSize) {
        const int32_t share = roi.depth / teamSize;
        const int32_t begin = member * share;
        const int32_t end = member == teamSize - 1 ? roi.depth : begin + share;
        filterSlices(job, buffer + std::size_t(member) * shareBytes, begin, end, rowKernel);
    });
}

}  // namespace vekr::volume
