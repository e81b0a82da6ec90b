#include "volume_filter.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>

#include "slice_split.h"
#include "vekcore.h"
#include "volume_geometry.h"

namespace vekr::volume {
namespace {

constexpr int kTapLanes = 4;
constexpr int kAvxBlock = 8;  // voxels per block of the AVX row kernel
// Kernels of more elements keep 64-bit sums: the paired row kernel holds a pointer per tap.
constexpr int64_t kMaxPairedTaps = 512;

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

namespace {

// The tap of kernel row (b, c) at column a, in either layout.
int32_t tapAt(const FilterRowSource& src, int32_t a, int32_t b, int32_t c)
{
    const int32_t kw = src.kernelExtent.width, kh = src.kernelExtent.height;
    const std::ptrdiff_t t = (std::ptrdiff_t(c) * kh + b) * kw + a;
    if (!src.pairedTaps) return src.taps[t * kTapLanes];
    const int32_t pair = src.taps[t / 2 * kTapLanes];
    return t % 2 == 0 ? int16_t(pair & 0xffff) : int16_t(uint32_t(pair) >> 16);
}

// Eight voxels at x of the pointer's row, as 16-bit lanes.
inline __m128i voxelsAt(const int16_t* p)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// round(sum / divisor) half away from zero, saturated, for eight 32-bit sums at a time, as
// roundDivideSaturate: n = |sum| + floor(|divisor| / 2) and q = floor(n / |divisor|), held at
// 32768 and given the sign; the signed pack saturates 32768 to 32767. n < 2^32 and every product
// below is exact in double: q comes from the reciprocal, then is corrected by the remainder
// n - q |divisor| (the estimate is off by at most one either way).
class LaneDivider {
public:
    explicit LaneDivider(int32_t divisor)
        : unit_(divisor == 1),
          negate_(_mm256_set1_pd(divisor < 0 ? -0.0 : 0.0)),
          d_(_mm256_set1_pd(std::fabs(double(divisor)))),
          reciprocal_(_mm256_set1_pd(1.0 / std::fabs(double(divisor)))),
          half_(_mm256_set1_pd(std::floor(std::fabs(double(divisor)) / 2)))
    {
    }

    __m128i divide(__m128i sums03, __m128i sums47) const
    {
        if (unit_) return _mm_packs_epi32(sums03, sums47);
        return _mm_packs_epi32(quarter(sums03), quarter(sums47));
    }

private:
    __m128i quarter(__m128i sums) const
    {
        const __m256d signBit = _mm256_set1_pd(-0.0), one = _mm256_set1_pd(1.0);
        const __m256d sum = _mm256_cvtepi32_pd(sums);
        const __m256d sign = _mm256_xor_pd(_mm256_and_pd(sum, signBit), negate_);
        const __m256d n = _mm256_add_pd(_mm256_andnot_pd(signBit, sum), half_);
        __m256d q =
            _mm256_round_pd(_mm256_mul_pd(n, reciprocal_), _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
        const __m256d r = _mm256_sub_pd(n, _mm256_mul_pd(q, d_));
        q = _mm256_sub_pd(q, _mm256_and_pd(_mm256_cmp_pd(r, _mm256_setzero_pd(), _CMP_LT_OQ), one));
        q = _mm256_add_pd(q, _mm256_and_pd(_mm256_cmp_pd(r, d_, _CMP_GE_OQ), one));
        q = _mm256_or_pd(_mm256_min_pd(q, _mm256_set1_pd(32768.0)), sign);
        return _mm256_cvttpd_epi32(q);
    }

    bool unit_;
    __m256d negate_, d_, reciprocal_, half_;
};

// Eight voxels per block from paired taps: the taps in reading order are paired (a row's last
// tap may pair with the next row's first), _mm_madd_epi16 multiplies the interleaved voxels of
// a pair's two taps by the pair and adds the two products, four 32-bit sums per half block.
// An odd last tap pairs with 0 and reads its own voxels twice.
void filterRowPairedAvx(const FilterRowSource& src, int16_t* dst, int32_t width)
{
    const int32_t kw = src.kernelExtent.width, kh = src.kernelExtent.height,
                  kd = src.kernelExtent.depth;
    const int32_t count = kw * kh * kd;
    const int16_t* tapRow[kMaxPairedTaps + 1];
    int32_t t = 0;
    for (int32_t c = 0; c < kd; ++c)
        for (int32_t b = 0; b < kh; ++b)
            for (int32_t a = 0; a < kw; ++a)
                tapRow[t++] = src.planes[c] + src.firstOffset + b * src.rowStep + a;
    tapRow[count] = tapRow[count - 1];
    const int32_t pairs = (count + 1) / 2;
    const auto* pairTaps = reinterpret_cast<const __m128i*>(src.taps);
    const LaneDivider divider(src.divisor);
    int32_t x = 0;
    for (; x + kAvxBlock <= width; x += kAvxBlock) {
        __m128i sum03 = _mm_setzero_si128(), sum47 = _mm_setzero_si128();
        for (int32_t p = 0; p < pairs; ++p) {
            const __m128i k = _mm_load_si128(pairTaps + p);
            const __m128i first = voxelsAt(tapRow[2 * p] + x);
            const __m128i second = voxelsAt(tapRow[2 * p + 1] + x);
            sum03 = _mm_add_epi32(sum03, _mm_madd_epi16(_mm_unpacklo_epi16(first, second), k));
            sum47 = _mm_add_epi32(sum47, _mm_madd_epi16(_mm_unpackhi_epi16(first, second), k));
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + x), divider.divide(sum03, sum47));
    }
    FilterRowSource tail = src;
    tail.firstOffset += x;
    filterRowScalar(tail, dst + x, width - x);
}

}  // namespace

bool fitsPairedTaps(const int32_t* kernel, VolumeSize kernelExtent)
{
    const int64_t count = int64_t(kernelExtent.width) * kernelExtent.height * kernelExtent.depth;
    int64_t magnitudes = 0;
    for (int64_t t = 0; t < count; ++t) {
        const int64_t k = kernel[t];
        if (k < -32768 || k > 32767) return false;
        magnitudes += k < 0 ? -k : k;
        if (magnitudes > 65535) return false;
    }
    return count <= kMaxPairedTaps;
}

void filterRowScalar(const FilterRowSource& src, int16_t* dst, int32_t width)
{
    const int32_t kw = src.kernelExtent.width, kh = src.kernelExtent.height,
                  kd = src.kernelExtent.depth;
    for (int32_t x = 0; x < width; ++x) {
        uint64_t sum = 0;  // wraps like the AVX lanes; exact while |sum| < 2^63
        for (int32_t c = 0; c < kd; ++c) {
            const int16_t* plane = src.planes[c] + src.firstOffset + x;
            for (int32_t b = 0; b < kh; ++b) {
                const int16_t* row = plane + b * src.rowStep;
                for (int32_t a = 0; a < kw; ++a)
                    sum += uint64_t(int64_t(tapAt(src, a, b, c)) * row[a]);
            }
        }
        dst[x] = roundDivideSaturate(int64_t(sum), src.divisor);
    }
}

// Eight voxels per block, each sum in a 64-bit lane: _mm_mul_epi32 multiplies the even 32-bit
// lanes, so voxels 0, 2 | 1, 3 | 4, 6 | 5, 7 keep one accumulator each. Paired taps go to
// filterRowPairedAvx.
void filterRowAvx(const FilterRowSource& src, int16_t* dst, int32_t width)
{
    if (src.pairedTaps) {
        filterRowPairedAvx(src, dst, width);
        return;
    }
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

const int32_t* layOutFilterTaps(const int32_t* kernel, VolumeSize kernelExtent, bool paired,
                                uint8_t* share)
{
    auto* taps =
        reinterpret_cast<int32_t*>((reinterpret_cast<uintptr_t>(share) + 63) & ~uintptr_t(63));
    const int64_t count = int64_t(kernelExtent.width) * kernelExtent.height * kernelExtent.depth;
    int32_t* out = taps;
    if (!paired) {
        for (int64_t t = 0; t < count; ++t, out += kTapLanes)
            std::fill_n(out, kTapLanes, kernel[count - 1 - t]);
        return taps;
    }
    // Tap t of reading order is kernel[count - 1 - t]; taps 2p and 2p + 1 make pair p.
    for (int64_t t = 0; t < count; t += 2, out += kTapLanes) {
        const int32_t first = kernel[count - 1 - t];
        const int32_t second = t + 1 < count ? kernel[count - 2 - t] : 0;
        std::fill_n(out, kTapLanes, int32_t(uint32_t(uint16_t(first)) | uint32_t(second) << 16));
    }
    return taps;
}

void filterSlices(const FilterJob& job, uint8_t* share, int32_t sliceBegin, int32_t sliceEnd,
                  FilterRowKernel rowKernel)
{
    const VolumeSize k = job.kernelExtent;
    const bool paired = fitsPairedTaps(job.kernel, k);
    FilterRowSource row{layOutFilterTaps(job.kernel, k, paired, share),
                        paired,
                        k,
                        nullptr,
                        0,
                        job.srcRowStep,
                        job.divisor};
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
    const std::size_t shareBytes = filterBufferBytesPerThread(roi.width, job.kernelExtent);
    splitSlices(roi.width, roi.height, roi.depth, [&](int member, int32_t begin, int32_t end) {
        filterSlices(job, buffer + std::size_t(member) * shareBytes, begin, end, rowKernel);
    });
}

}  // namespace vekr::volume
