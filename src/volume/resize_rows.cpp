#include "resize_rows.h"

#include <immintrin.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

#include "voxel_rounding.h"

namespace vekr::volume {
namespace {

constexpr float kFixedWeightScale = 1.0f / float(1 << kFixedWeightBits);  // 2^-14, exact

// 0.5000001 rather than 0.5: a cubic sum that lands a hair below a half still rounds up.
constexpr double kCubic8uRounding = 0.5000001;

// --- Scalar steps, shared by the Scalar twins and the border kernels ---------------------

inline float lerp(float a, float b, float f)
{
    return a + f * (b - a);
}

inline float cubicSum(float s0, float s1, float s2, float s3, const float* w)
{
    return (w[1] * s1 + w[0] * s0) + (w[3] * s3 + w[2] * s2);
}

inline float fixedLerp(uint8_t a, uint8_t b, const int16_t* w)
{
    return float(int32_t(w[0]) * a + int32_t(w[1]) * b) * kFixedWeightScale;
}

inline uint8_t cubicTo8u(float v)
{
    double d = double(v) + kCubic8uRounding;
    d = d > 0.0 ? d : 0.0;
    d = d < 255.0 ? d : 255.0;
    return uint8_t(int32_t(d));
}

template <class T>
inline T cubicToVoxel(float v)
{
    if constexpr (std::is_same_v<T, uint8_t>)
        return cubicTo8u(v);
    else
        return roundToVoxel<T>(v);
}

// --- Scalar twins ------------------------------------------------------------------------

template <class T>
void resampleLinearScalar(const T* src, const AxisTable& x, int from, int to, float* out)
{
    for (int j = from; j < to; ++j) {
        const T* s = src + x.base[j];
        if constexpr (std::is_same_v<T, uint8_t>)
            out[j] = fixedLerp(s[0], s[1], x.fixedWeights + 2 * j);
        else
            out[j] = lerp(float(s[0]), float(s[1]), x.fraction[j]);
    }
}

template <class T>
void resampleCubicScalar(const T* src, const AxisTable& x, int from, int to, float* out)
{
    for (int j = from; j < to; ++j) {
        const T* s = src + x.base[j] - 1;
        out[j] = cubicSum(float(s[0]), float(s[1]), float(s[2]), float(s[3]), x.weights + 4 * j);
    }
}

template <class T>
void blendLinearScalar(const float* r0, const float* r1, float f, T* out, int n)
{
    for (int i = 0; i < n; ++i)
        out[i] = roundToVoxel<T>(lerp(r0[i], r1[i], f));
}

template <class T>
void blendCubicScalar(const float* const rows[4], const float* w, T* out, int n)
{
    for (int i = 0; i < n; ++i)
        out[i] = cubicToVoxel<T>(cubicSum(rows[0][i], rows[1][i], rows[2][i], rows[3][i], w));
}

// --- Avx twins ---------------------------------------------------------------------------

inline __m128i loadBits32(const void* p)
{
    int32_t bits;
    std::memcpy(&bits, p, sizeof bits);
    return _mm_cvtsi32_si128(bits);
}

// Voxels p[0], p[1] as floats in lanes 0 and 1 (lanes 2 and 3 are not used); reads nothing
// past p[1].
template <class T>
inline __m128 loadPair(const T* p)
{
    if constexpr (std::is_same_v<T, float>)
        return _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    else
        return _mm_cvtepi32_ps(_mm_cvtepu16_epi32(loadBits32(p)));
}

// Voxels p[0] .. p[3] as floats; reads nothing past p[3].
template <class T>
inline __m128 loadQuad(const T* p)
{
    if constexpr (std::is_same_v<T, float>)
        return _mm_loadu_ps(p);
    else if constexpr (std::is_same_v<T, uint16_t>)
        return _mm_cvtepi32_ps(
            _mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
    else
        return _mm_cvtepi32_ps(_mm_cvtepu8_epi32(loadBits32(p)));
}

inline __m256 combine(__m128 low, __m128 high)
{
    return _mm256_insertf128_ps(_mm256_castps128_ps256(low), high, 1);
}

inline __m128i cubicTo8uQuad(__m128 v)
{
    const __m256d rounding = _mm256_set1_pd(kCubic8uRounding);
    __m256d d = _mm256_add_pd(_mm256_cvtps_pd(v), rounding);
    d = _mm256_min_pd(_mm256_max_pd(d, _mm256_setzero_pd()), _mm256_set1_pd(255.0));
    return _mm256_cvttpd_epi32(d);
}

// Eight results as voxels, the vector form of roundToVoxel (kCubic false) and cubicToVoxel:
// floats as they are; 16u in a 128-bit register; 8u in its low 64 bits.
template <class T, bool kCubic>
inline auto packVoxels(__m256 v)
{
    if constexpr (std::is_same_v<T, float>) {
        return v;
    } else if constexpr (kCubic && std::is_same_v<T, uint8_t>) {
        const __m128i words = _mm_packus_epi32(cubicTo8uQuad(_mm256_castps256_ps128(v)),
                                               cubicTo8uQuad(_mm256_extractf128_ps(v, 1)));
        return _mm_packus_epi16(words, words);
    } else {
        const __m256 kMax = _mm256_set1_ps(float(std::numeric_limits<T>::max()));
        const __m256 c = _mm256_min_ps(_mm256_max_ps(v, _mm256_setzero_ps()), kMax);
        const __m256i r = _mm256_cvtps_epi32(c);
        const __m128i words =
            _mm_packus_epi32(_mm256_castsi256_si128(r), _mm256_extractf128_si256(r, 1));
        if constexpr (std::is_same_v<T, uint16_t>)
            return words;
        else
            return _mm_packus_epi16(words, words);
    }
}

// Streaming stores write past the caches: they need out aligned to the eight voxels' bytes.
template <class T, bool kStream, class Packed>
inline void storeVoxels(T* out, Packed packed)
{
    if constexpr (std::is_same_v<T, float>) {
        if constexpr (kStream)
            _mm256_stream_ps(out, packed);
        else
            _mm256_storeu_ps(out, packed);
    } else if constexpr (std::is_same_v<T, uint16_t>) {
        if constexpr (kStream)
            _mm_stream_si128(reinterpret_cast<__m128i*>(out), packed);
        else
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out), packed);
    } else {
        if constexpr (kStream) {
            // Two 32-bit streaming stores: the 64-bit one exists only on x86-64.
            _mm_stream_si32(reinterpret_cast<int*>(out), _mm_cvtsi128_si32(packed));
            _mm_stream_si32(reinterpret_cast<int*>(out) + 1,
                            _mm_cvtsi128_si32(_mm_srli_si128(packed, 4)));
        } else {
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out), packed);
        }
    }
}

// Voxels before the first one at which eight can be streamed; -1 when none can (an address
// that is not a multiple of the voxel size never reaches the alignment).
template <class T>
inline int streamingHead(const T* out, int n)
{
    constexpr uintptr_t kBytes = 8 * sizeof(T);
    const uintptr_t address = reinterpret_cast<uintptr_t>(out);
    if (address % sizeof(T) != 0) return -1;
    const int head = int((kBytes - address % kBytes) % kBytes / sizeof(T));
    return head < n ? head : n;
}

// 8u along x: 16-bit tap pairs times 16-bit weight pairs, summed in 32 bits by
// _mm_madd_epi16 (taps <= 255 and weights <= 2^14 keep every product and sum exact).
void resampleLinear8uAvx(const uint8_t* src, const AxisTable& x, int from, int to, float* out)
{
    const __m256 scale = _mm256_set1_ps(kFixedWeightScale);
    int j = from;
    for (; j + 8 <= to; j += 8) {
        const int32_t* b = x.base + j;
        uint16_t pairs[8];
        for (int k = 0; k < 8; ++k)
            std::memcpy(&pairs[k], src + b[k], 2);
        const __m128i bytes =
            _mm_setr_epi16(short(pairs[0]), short(pairs[1]), short(pairs[2]), short(pairs[3]),
                           short(pairs[4]), short(pairs[5]), short(pairs[6]), short(pairs[7]));
        const __m128i* w = reinterpret_cast<const __m128i*>(x.fixedWeights + 2 * j);
        const __m128i low = _mm_madd_epi16(_mm_cvtepu8_epi16(bytes), _mm_loadu_si128(w));
        const __m128i high =
            _mm_madd_epi16(_mm_cvtepu8_epi16(_mm_srli_si128(bytes, 8)), _mm_loadu_si128(w + 1));
        const __m256 sums =
            _mm256_cvtepi32_ps(_mm256_insertf128_si256(_mm256_castsi128_si256(low), high, 1));
        _mm256_storeu_ps(out + j, _mm256_mul_ps(sums, scale));
    }
    resampleLinearScalar(src, x, j, to, out);
}

// Eight entries at a time: the tap pairs of entries (0, 1, 4, 5) and (2, 3, 6, 7) are
// interleaved, then split into the first and second taps of entries 0 .. 7.
template <class T>
void resampleLinearAvx(const T* src, const AxisTable& x, int from, int to, float* out)
{
    if constexpr (std::is_same_v<T, uint8_t>) {
        resampleLinear8uAvx(src, x, from, to, out);
    } else {
        int j = from;
        for (; j + 8 <= to; j += 8) {
            const int32_t* b = x.base + j;
            __m128 p[8];
            for (int k = 0; k < 8; ++k)
                p[k] = loadPair(src + b[k]);
            const __m256 e0145 = combine(_mm_movelh_ps(p[0], p[1]), _mm_movelh_ps(p[4], p[5]));
            const __m256 e2367 = combine(_mm_movelh_ps(p[2], p[3]), _mm_movelh_ps(p[6], p[7]));
            const __m256 a = _mm256_shuffle_ps(e0145, e2367, _MM_SHUFFLE(2, 0, 2, 0));
            const __m256 c = _mm256_shuffle_ps(e0145, e2367, _MM_SHUFFLE(3, 1, 3, 1));
            const __m256 f = _mm256_loadu_ps(x.fraction + j);
            _mm256_storeu_ps(out + j, _mm256_add_ps(a, _mm256_mul_ps(f, _mm256_sub_ps(c, a))));
        }
        resampleLinearScalar(src, x, j, to, out);
    }
}

// Eight entries at a time: each entry's four taps times its four weights in one half of a
// register (entries k and k + 4 share a register), then two rounds of pairwise horizontal sums,
// which give (w0 s0 + w1 s1) + (w2 s2 + w3 s3) for entries 0 .. 7 in order: the scalar sum,
// as IEEE addition commutes.
template <class T>
void resampleCubicAvx(const T* src, const AxisTable& x, int from, int to, float* out)
{
    int j = from;
    for (; j + 8 <= to; j += 8) {
        const int32_t* b = x.base + j;
        const float* w = x.weights + 4 * j;
        __m256 products[4];
        for (int k = 0; k < 4; ++k) {
            const __m256 taps = combine(loadQuad(src + b[k] - 1), loadQuad(src + b[k + 4] - 1));
            const __m256 weights = combine(_mm_loadu_ps(w + 4 * k), _mm_loadu_ps(w + 4 * (k + 4)));
            products[k] = _mm256_mul_ps(taps, weights);
        }
        const __m256 pairs01 = _mm256_hadd_ps(products[0], products[1]);
        const __m256 pairs23 = _mm256_hadd_ps(products[2], products[3]);
        _mm256_storeu_ps(out + j, _mm256_hadd_ps(pairs01, pairs23));
    }
    resampleCubicScalar(src, x, j, to, out);
}

template <class T, bool kStream>
void blendLinearAvx(const float* r0, const float* r1, float f, T* out, int n)
{
    int i = 0;
    if constexpr (kStream) {
        i = streamingHead(out, n);
        if (i < 0) return blendLinearAvx<T, false>(r0, r1, f, out, n);
        blendLinearScalar(r0, r1, f, out, i);
    }
    const __m256 vf = _mm256_set1_ps(f);
    for (; i + 8 <= n; i += 8) {
        const __m256 a = _mm256_loadu_ps(r0 + i);
        const __m256 b = _mm256_loadu_ps(r1 + i);
        const __m256 v = _mm256_add_ps(a, _mm256_mul_ps(vf, _mm256_sub_ps(b, a)));
        storeVoxels<T, kStream>(out + i, packVoxels<T, false>(v));
    }
    blendLinearScalar(r0 + i, r1 + i, f, out + i, n - i);
}

template <class T, bool kStream>
void blendCubicAvx(const float* const rows[4], const float* w, T* out, int n)
{
    int i = 0;
    if constexpr (kStream) {
        i = streamingHead(out, n);
        if (i < 0) return blendCubicAvx<T, false>(rows, w, out, n);
        blendCubicScalar(rows, w, out, i);
    }
    const __m256 w0 = _mm256_set1_ps(w[0]), w1 = _mm256_set1_ps(w[1]);
    const __m256 w2 = _mm256_set1_ps(w[2]), w3 = _mm256_set1_ps(w[3]);
    for (; i + 8 <= n; i += 8) {
        const __m256 near = _mm256_add_ps(_mm256_mul_ps(w1, _mm256_loadu_ps(rows[1] + i)),
                                          _mm256_mul_ps(w0, _mm256_loadu_ps(rows[0] + i)));
        const __m256 far = _mm256_add_ps(_mm256_mul_ps(w3, _mm256_loadu_ps(rows[3] + i)),
                                         _mm256_mul_ps(w2, _mm256_loadu_ps(rows[2] + i)));
        storeVoxels<T, kStream>(out + i, packVoxels<T, true>(_mm256_add_ps(near, far)));
    }
    const float* const rest[4] = {rows[0] + i, rows[1] + i, rows[2] + i, rows[3] + i};
    blendCubicScalar(rest, w, out + i, n - i);
}

}  // namespace

template <class T>
ResizeRowKernels<T> scalarRowKernels()
{
    return {resampleLinearScalar<T>, resampleCubicScalar<T>, blendLinearScalar<float>,
            blendCubicScalar<float>, blendLinearScalar<T>,   blendCubicScalar<T>};
}

template <class T>
ResizeRowKernels<T> avxRowKernels(bool streamingStores)
{
    ResizeRowKernels<T> k = {resampleLinearAvx<T>,         resampleCubicAvx<T>,
                             blendLinearAvx<float, false>, blendCubicAvx<float, false>,
                             blendLinearAvx<T, false>,     blendCubicAvx<T, false>};
    if (streamingStores) {
        k.storeLinear = blendLinearAvx<T, true>;
        k.storeCubic = blendCubicAvx<T, true>;
    }
    return k;
}

void fenceStreamingStores()
{
    _mm_sfence();
}

template <class T>
void resampleRowBorder(const T* srcRow, const AxisTable& x, int taps, int from, int to, float* out)
{
    for (int j = from; j < to; ++j) {
        int32_t t[4];
        tapIndices(x, j, taps, t);
        if (taps == 4)
            out[j] = cubicSum(float(srcRow[t[0]]), float(srcRow[t[1]]), float(srcRow[t[2]]),
                              float(srcRow[t[3]]), x.weights + 4 * j);
        else if constexpr (std::is_same_v<T, uint8_t>)
            out[j] = fixedLerp(srcRow[t[0]], srcRow[t[1]], x.fixedWeights + 2 * j);
        else
            out[j] = lerp(float(srcRow[t[0]]), float(srcRow[t[1]]), x.fraction[j]);
    }
}

template ResizeRowKernels<uint8_t> scalarRowKernels<uint8_t>();
template ResizeRowKernels<uint8_t> avxRowKernels<uint8_t>(bool);
template void resampleRowBorder<uint8_t>(const uint8_t*, const AxisTable&, int, int, int, float*);
template ResizeRowKernels<uint16_t> scalarRowKernels<uint16_t>();
template ResizeRowKernels<uint16_t> avxRowKernels<uint16_t>(bool);
template void resampleRowBorder<uint16_t>(const uint16_t*, const AxisTable&, int, int, int, float*);
template ResizeRowKernels<float> scalarRowKernels<float>();
template ResizeRowKernels<float> avxRowKernels<float>(bool);
template void resampleRowBorder<float>(const float*, const AxisTable&, int, int, int, float*);

}  // namespace vekr::volume
