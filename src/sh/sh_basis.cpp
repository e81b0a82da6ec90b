#include "sh_basis.h"

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "frame/streaming_stores.h"

namespace vekr::sh {

#include "sh_direct_bands.inc"

namespace {

// Eight floats, one direction per lane.
struct Float8 {
    __m256 v;
    Float8() = default;
    explicit Float8(__m256 value) : v(value) {}
};
inline Float8 operator+(const Float8& a, const Float8& b)
{
    return Float8(_mm256_add_ps(a.v, b.v));
}
inline Float8 operator-(const Float8& a, const Float8& b)
{
    return Float8(_mm256_sub_ps(a.v, b.v));
}
inline Float8 operator*(const Float8& a, const Float8& b)
{
    return Float8(_mm256_mul_ps(a.v, b.v));
}

// Eight functions of eight directions (one direction per lane) into the eight directions'
// runs: row d of the transposed block goes to out + d * stride.
void storeTransposed8x8(const Float8* v, float* out, size_t stride)
{
    const __m256 t0 = _mm256_unpacklo_ps(v[0].v, v[1].v), t1 = _mm256_unpackhi_ps(v[0].v, v[1].v);
    const __m256 t2 = _mm256_unpacklo_ps(v[2].v, v[3].v), t3 = _mm256_unpackhi_ps(v[2].v, v[3].v);
    const __m256 t4 = _mm256_unpacklo_ps(v[4].v, v[5].v), t5 = _mm256_unpackhi_ps(v[4].v, v[5].v);
    const __m256 t6 = _mm256_unpacklo_ps(v[6].v, v[7].v), t7 = _mm256_unpackhi_ps(v[6].v, v[7].v);
    const __m256 s0 = _mm256_shuffle_ps(t0, t2, 0x44), s1 = _mm256_shuffle_ps(t0, t2, 0xEE);
    const __m256 s2 = _mm256_shuffle_ps(t1, t3, 0x44), s3 = _mm256_shuffle_ps(t1, t3, 0xEE);
    const __m256 s4 = _mm256_shuffle_ps(t4, t6, 0x44), s5 = _mm256_shuffle_ps(t4, t6, 0xEE);
    const __m256 s6 = _mm256_shuffle_ps(t5, t7, 0x44), s7 = _mm256_shuffle_ps(t5, t7, 0xEE);
    _mm256_storeu_ps(out + 0 * stride, _mm256_permute2f128_ps(s0, s4, 0x20));
    _mm256_storeu_ps(out + 1 * stride, _mm256_permute2f128_ps(s1, s5, 0x20));
    _mm256_storeu_ps(out + 2 * stride, _mm256_permute2f128_ps(s2, s6, 0x20));
    _mm256_storeu_ps(out + 3 * stride, _mm256_permute2f128_ps(s3, s7, 0x20));
    _mm256_storeu_ps(out + 4 * stride, _mm256_permute2f128_ps(s0, s4, 0x31));
    _mm256_storeu_ps(out + 5 * stride, _mm256_permute2f128_ps(s1, s5, 0x31));
    _mm256_storeu_ps(out + 6 * stride, _mm256_permute2f128_ps(s2, s6, 0x31));
    _mm256_storeu_ps(out + 7 * stride, _mm256_permute2f128_ps(s3, s7, 0x31));
}

// Destinations larger than this are streamed even where the largest cache could hold them:
// the eight-row transposed stores slow down once the destination leaves a core's share of the
// last-level cache (measured: at 100 MB of output streaming took half the time, at 10 MB 6%
// more).
constexpr size_t kStreamedBasisBytes = size_t(16) << 20;

// Where the eight directions' runs of a group go (they are one contiguous block of 8 x
// perDirection floats). Into a destination the caches can hold: straight through the
// transpose. Past the caches: transposed into scratch that stays in L1, then streamed out in
// order, so that the destination is written once, front to back, without its lines being read.
class DirectionBlocks {
public:
    DirectionBlocks(uint32_t perDirection, int count, Stores stores)
        : perDirection_(perDirection),
          streaming_(perDirection <= kMaxBasisCount &&
                     (stores == Stores::Streaming || streamsPastCaches(count, perDirection)))
    {
    }
    ~DirectionBlocks()
    {
        if (streaming_) _mm_sfence();
    }
    DirectionBlocks(const DirectionBlocks&) = delete;
    DirectionBlocks& operator=(const DirectionBlocks&) = delete;

    // Eight directions' values (function k in value(k), one direction per lane) to their runs
    // at out, eight functions at a time through a transpose.
    template <class Value>
    void store(Value value, float* out)
    {
        if (!streaming_ || reinterpret_cast<uintptr_t>(out) % sizeof(float) != 0) {
            storeDirectionMajor(value, out);
            return;
        }
        storeDirectionMajor(value, scratch_);
        streamOut(out);
    }

private:
    static constexpr int kLanes = 8;

    static bool streamsPastCaches(int count, uint32_t perDirection)
    {
        const size_t bytes = size_t(count) * perDirection * sizeof(float);
        return bytes > kStreamedBasisBytes || frame::streamsPastCaches(bytes);
    }

    template <class Value>
    void storeDirectionMajor(Value value, float* out) const
    {
        alignas(32) Float8 eight[kLanes];
        uint32_t k = 0;
        for (; k + kLanes <= perDirection_; k += kLanes) {
            for (int j = 0; j < kLanes; ++j)
                eight[j] = value(k + j);
            storeTransposed8x8(eight, out + k, perDirection_);
        }
        for (; k < perDirection_; ++k) {
            alignas(32) float lanes[kLanes];
            _mm256_store_ps(lanes, value(k).v);
            for (int lane = 0; lane < kLanes; ++lane)
                out[lane * perDirection_ + k] = lanes[lane];
        }
    }

    // The block from scratch to out: ordinary stores up to the first 32-byte boundary and after
    // the last, streaming stores between.
    void streamOut(float* out) const
    {
        const size_t n = size_t(kLanes) * perDirection_;
        size_t i = (32 - reinterpret_cast<uintptr_t>(out) % 32) % 32 / sizeof(float);
        if (i > n) i = n;
        for (size_t j = 0; j < i; ++j)
            out[j] = scratch_[j];
        for (; i + kLanes <= n; i += kLanes)
            _mm256_stream_ps(out + i, _mm256_loadu_ps(scratch_ + i));
        for (; i < n; ++i)
            out[i] = scratch_[i];
    }

    uint32_t perDirection_;
    bool streaming_;
    alignas(32) float scratch_[kLanes * kMaxBasisCount];
};

// --- Closed-form bands ---------------------------------------------------------------------

// Four directions in the lanes of a double vector; the band routines see only +, - and *.
struct Double4 {
    __m256d v;
    Double4() = default;
    explicit Double4(double c) : v(_mm256_set1_pd(c)) {}
    explicit Double4(__m256d value) : v(value) {}
};
inline Double4 operator+(const Double4& a, const Double4& b)
{
    return Double4(_mm256_add_pd(a.v, b.v));
}
inline Double4 operator-(const Double4& a, const Double4& b)
{
    return Double4(_mm256_sub_pd(a.v, b.v));
}
inline Double4 operator*(const Double4& a, const Double4& b)
{
    return Double4(_mm256_mul_pd(a.v, b.v));
}

// Eight directions as two halves of four: twice the independent work per step.
struct Double8 {
    Double4 low, high;
    Double8() = default;
    explicit Double8(double c) : low(c), high(c) {}
    Double8(Double4 l, Double4 h) : low(l), high(h) {}
};
inline Double8 operator+(const Double8& a, const Double8& b)
{
    return {a.low + b.low, a.high + b.high};
}
inline Double8 operator-(const Double8& a, const Double8& b)
{
    return {a.low - b.low, a.high - b.high};
}
inline Double8 operator*(const Double8& a, const Double8& b)
{
    return {a.low * b.low, a.high * b.high};
}
inline Double8 widen(const float* p)
{
    return {Double4(_mm256_cvtps_pd(_mm_loadu_ps(p))),
            Double4(_mm256_cvtps_pd(_mm_loadu_ps(p + 4)))};
}
// Rounds the eight lanes to float, as float(double) does.
inline Float8 narrow(const Double8& d)
{
    return Float8(_mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps(d.low.v)),
                                       _mm256_cvtpd_ps(d.high.v), 1));
}

// Bands 0 to order, one after another, into out[l^2 ..]. Called directly, so the compiler
// forms the powers (x + iy)^m that the bands share only once.
template <class T>
void evalDirectBands(const T& x, const T& y, const T& z, const T& zz, uint32_t order, T* out)
{
    evalDirectBand0(x, y, z, zz, out + 0);
    if (order < 1) return;
    evalDirectBand1(x, y, z, zz, out + 1);
    if (order < 2) return;
    evalDirectBand2(x, y, z, zz, out + 4);
    if (order < 3) return;
    evalDirectBand3(x, y, z, zz, out + 9);
    if (order < 4) return;
    evalDirectBand4(x, y, z, zz, out + 16);
    if (order < 5) return;
    evalDirectBand5(x, y, z, zz, out + 25);
    if (order < 6) return;
    evalDirectBand6(x, y, z, zz, out + 36);
    if (order < 7) return;
    evalDirectBand7(x, y, z, zz, out + 49);
    if (order < 8) return;
    evalDirectBand8(x, y, z, zz, out + 64);
    if (order < 9) return;
    evalDirectBand9(x, y, z, zz, out + 81);
    if (order < 10) return;
    evalDirectBand10(x, y, z, zz, out + 100);
    if (order < 11) return;
    evalDirectBand11(x, y, z, zz, out + 121);
    if (order < 12) return;
    evalDirectBand12(x, y, z, zz, out + 144);
    if (order < 13) return;
    evalDirectBand13(x, y, z, zz, out + 169);
    if (order < 14) return;
    evalDirectBand14(x, y, z, zz, out + 196);
    if (order < 15) return;
    evalDirectBand15(x, y, z, zz, out + 225);
}

// The sixteen band routines, selected by band number once per call.
template <class T>
using DirectBandFn = void (*)(const T&, const T&, const T&, const T&, T*);
template <class T>
constexpr DirectBandFn<T> kDirectBands[kMaxOrder + 1] = {
    evalDirectBand0<T>,  evalDirectBand1<T>,  evalDirectBand2<T>,  evalDirectBand3<T>,
    evalDirectBand4<T>,  evalDirectBand5<T>,  evalDirectBand6<T>,  evalDirectBand7<T>,
    evalDirectBand8<T>,  evalDirectBand9<T>,  evalDirectBand10<T>, evalDirectBand11<T>,
    evalDirectBand12<T>, evalDirectBand13<T>, evalDirectBand14<T>, evalDirectBand15<T>};

// z^2 as the single-precision product of the float z with itself, widened.
inline Double8 floatSquareWidened(const float* z)
{
    const __m256 z8 = _mm256_loadu_ps(z);
    const __m256 zz = _mm256_mul_ps(z8, z8);
    return {Double4(_mm256_cvtps_pd(_mm256_castps256_ps128(zz))),
            Double4(_mm256_cvtps_pd(_mm256_extractf128_ps(zz, 1)))};
}

}  // namespace

void evalBasisDirectScalar(const Directions& dirs, uint32_t order, float* dst)
{
    const uint32_t perDirection = (order + 1) * (order + 1);
    double values[kMaxBasisCount];
    for (int i = 0; i < dirs.count; ++i) {
        const double x = dirs.x[i], y = dirs.y[i], z = dirs.z[i];
        evalDirectBands(x, y, z, z * z, order, values);
        float* out = dst + size_t(i) * perDirection;
        for (uint32_t k = 0; k < perDirection; ++k)
            out[k] = float(values[k]);
    }
}

void evalBasisDirectAvx(const Directions& dirs, uint32_t order, float* dst, Stores stores)
{
    constexpr int kLanes = 8;
    const uint32_t perDirection = (order + 1) * (order + 1);
    alignas(32) Double8 values[kMaxBasisCount];
    DirectionBlocks blocks(perDirection, dirs.count, stores);
    int i = 0;
    for (; i + kLanes <= dirs.count; i += kLanes) {
        const Double8 x = widen(dirs.x + i), y = widen(dirs.y + i), z = widen(dirs.z + i);
        evalDirectBands(x, y, z, z * z, order, values);
        blocks.store([&](uint32_t k) { return narrow(values[k]); }, dst + size_t(i) * perDirection);
    }
    evalBasisDirectScalar({dirs.x + i, dirs.y + i, dirs.z + i, dirs.count - i}, order,
                          dst + size_t(i) * perDirection);
}

void evalBandDirectScalar(const Directions& dirs, uint32_t band, float* dst)
{
    const DirectBandFn<double> routine = kDirectBands<double>[band];
    const uint32_t perDirection = 2 * band + 1;
    double values[2 * kMaxOrder + 1];
    for (int i = 0; i < dirs.count; ++i) {
        const float zf = dirs.z[i];
        routine(dirs.x[i], dirs.y[i], zf, double(zf * zf), values);
        float* out = dst + size_t(i) * perDirection;
        for (uint32_t k = 0; k < perDirection; ++k)
            out[k] = float(values[k]);
    }
}

void evalBandDirectAvx(const Directions& dirs, uint32_t band, float* dst, Stores stores)
{
    constexpr int kLanes = 8;
    const DirectBandFn<Double8> routine = kDirectBands<Double8>[band];
    const uint32_t perDirection = 2 * band + 1;
    alignas(32) Double8 values[2 * kMaxOrder + 1];
    DirectionBlocks blocks(perDirection, dirs.count, stores);
    int i = 0;
    for (; i + kLanes <= dirs.count; i += kLanes) {
        routine(widen(dirs.x + i), widen(dirs.y + i), widen(dirs.z + i),
                floatSquareWidened(dirs.z + i), values);
        blocks.store([&](uint32_t k) { return narrow(values[k]); }, dst + size_t(i) * perDirection);
    }
    evalBandDirectScalar({dirs.x + i, dirs.y + i, dirs.z + i, dirs.count - i}, band,
                         dst + size_t(i) * perDirection);
}

// --- Band recurrence ---------------------------------------------------------------------

namespace {

// The recurrence over the lanes of T (float or 8 floats): bands written into out[l^2 ..],
// each read back as the previous bands of the next.
template <class T, class Broadcast>
void evalRecurrence(const T& x, const T& y, const T& z, uint32_t order,
                    const RecurrenceTables& tables, T* out, Broadcast coefficient)
{
    out[0] = coefficient(tables.a[0]);
    if (order < 1) return;
    const T band1 = coefficient(tables.a[2]);
    out[1] = y * band1;
    out[2] = z * coefficient(tables.a[1]);
    out[3] = x * band1;
    for (uint32_t l = 2; l <= order; ++l) {
        const float* a = tables.a + l * (l + 1) / 2;
        const float* b = tables.b + l * (l + 1) / 2;
        T* band = out + l * l + l;                     // m = 0 of band l
        const T* p = out + (l - 1) * (l - 1) + l - 1;  // m = 0 of band l - 1
        const T* q = out + (l - 2) * (l - 2) + l - 2;  // m = 0 of band l - 2
        const int top = int(l);
        const T sectoral = coefficient(a[l]);
        band[top] = (x * p[top - 1] - y * p[-(top - 1)]) * sectoral;
        band[-top] = (y * p[top - 1] + x * p[-(top - 1)]) * sectoral;
        const T za = z * coefficient(a[l - 1]);
        band[top - 1] = za * p[top - 1];
        band[-(top - 1)] = za * p[-(top - 1)];
        for (int m = 0; m <= top - 2; ++m) {
            const T zam = z * coefficient(a[m]);
            const T bm = coefficient(b[m]);
            band[m] = zam * p[m] + bm * q[m];
            if (m > 0) band[-m] = zam * p[-m] + bm * q[-m];
        }
    }
}

}  // namespace

void evalBasisRecurrenceScalar(const Directions& dirs, uint32_t order,
                               const RecurrenceTables& tables, float* dst)
{
    const uint32_t perDirection = (order + 1) * (order + 1);
    for (int i = 0; i < dirs.count; ++i)
        evalRecurrence(dirs.x[i], dirs.y[i], dirs.z[i], order, tables,
                       dst + size_t(i) * perDirection, [](float c) { return c; });
}

void evalBasisRecurrenceAvx(const Directions& dirs, uint32_t order, const RecurrenceTables& tables,
                            float* dst, Stores stores)
{
    constexpr int kLanes = 8;
    const uint32_t perDirection = (order + 1) * (order + 1);
    alignas(32) Float8 values[kMaxBasisCount];
    DirectionBlocks blocks(perDirection, dirs.count, stores);
    int i = 0;
    for (; i + kLanes <= dirs.count; i += kLanes) {
        evalRecurrence(Float8(_mm256_loadu_ps(dirs.x + i)), Float8(_mm256_loadu_ps(dirs.y + i)),
                       Float8(_mm256_loadu_ps(dirs.z + i)), order, tables, values,
                       [](float c) { return Float8(_mm256_set1_ps(c)); });
        blocks.store([&](uint32_t k) { return values[k]; }, dst + size_t(i) * perDirection);
    }
    evalBasisRecurrenceScalar({dirs.x + i, dirs.y + i, dirs.z + i, dirs.count - i}, order, tables,
                              dst + size_t(i) * perDirection);
}

}  // namespace vekr::sh
