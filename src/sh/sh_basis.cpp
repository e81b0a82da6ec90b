#include "sh_basis.h"

#include <immintrin.h>

#include <array>
#include <cstddef>
#include <utility>

namespace vekr::sh {

#include "sh_direct_bands.inc"

namespace {

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

// Bands 0 to order, one after another, into out[l^2 ..].
template <class T>
void evalDirectBands(const T& x, const T& y, const T& z, const T& zz, uint32_t order, T* out)
{
    using BandFn = void (*)(const T&, const T&, const T&, const T&, T*);
    static constexpr BandFn kBands[kMaxOrder + 1] = {
        evalDirectBand0<T>,  evalDirectBand1<T>,  evalDirectBand2<T>,  evalDirectBand3<T>,
        evalDirectBand4<T>,  evalDirectBand5<T>,  evalDirectBand6<T>,  evalDirectBand7<T>,
        evalDirectBand8<T>,  evalDirectBand9<T>,  evalDirectBand10<T>, evalDirectBand11<T>,
        evalDirectBand12<T>, evalDirectBand13<T>, evalDirectBand14<T>, evalDirectBand15<T>};
    for (uint32_t l = 0; l <= order; ++l)
        kBands[l](x, y, z, zz, out + l * l);
}

// One band's routine over doubles, rounded to float: the sixteen routines of evalBandDirect.
template <int kBand>
void evalOneBandScalar(double x, double y, double z, double zz, float* out)
{
    using BandFn = void (*)(const double&, const double&, const double&, const double&, double*);
    static constexpr BandFn kBands[kMaxOrder + 1] = {
        evalDirectBand0<double>,  evalDirectBand1<double>,  evalDirectBand2<double>,
        evalDirectBand3<double>,  evalDirectBand4<double>,  evalDirectBand5<double>,
        evalDirectBand6<double>,  evalDirectBand7<double>,  evalDirectBand8<double>,
        evalDirectBand9<double>,  evalDirectBand10<double>, evalDirectBand11<double>,
        evalDirectBand12<double>, evalDirectBand13<double>, evalDirectBand14<double>,
        evalDirectBand15<double>};
    double values[2 * kBand + 1];
    kBands[kBand](x, y, z, zz, values);
    for (int i = 0; i < 2 * kBand + 1; ++i)
        out[i] = float(values[i]);
}

using OneBandFn = void (*)(double, double, double, double, float*);
template <int... kBands>
constexpr auto makeBandTable(std::integer_sequence<int, kBands...>)
{
    return std::array<OneBandFn, sizeof...(kBands)>{evalOneBandScalar<kBands>...};
}
constexpr auto kOneBandRoutines = makeBandTable(std::make_integer_sequence<int, kMaxOrder + 1>{});

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

void evalBasisDirectAvx(const Directions& dirs, uint32_t order, float* dst)
{
    constexpr int kLanes = 4;
    const uint32_t perDirection = (order + 1) * (order + 1);
    alignas(32) Double4 values[kMaxBasisCount];
    int i = 0;
    for (; i + kLanes <= dirs.count; i += kLanes) {
        const Double4 x(_mm256_cvtps_pd(_mm_loadu_ps(dirs.x + i)));
        const Double4 y(_mm256_cvtps_pd(_mm_loadu_ps(dirs.y + i)));
        const Double4 z(_mm256_cvtps_pd(_mm_loadu_ps(dirs.z + i)));
        evalDirectBands(x, y, z, z * z, order, values);
        // Four values of one basis function, one per direction: rounded to float, then
        // transposed four functions at a time into the four directions' runs.
        float* out = dst + size_t(i) * perDirection;
        uint32_t k = 0;
        for (; k + 4 <= perDirection; k += 4) {
            __m128 f0 = _mm256_cvtpd_ps(values[k].v), f1 = _mm256_cvtpd_ps(values[k + 1].v);
            __m128 f2 = _mm256_cvtpd_ps(values[k + 2].v), f3 = _mm256_cvtpd_ps(values[k + 3].v);
            _MM_TRANSPOSE4_PS(f0, f1, f2, f3);
            _mm_storeu_ps(out + k, f0);
            _mm_storeu_ps(out + perDirection + k, f1);
            _mm_storeu_ps(out + 2 * perDirection + k, f2);
            _mm_storeu_ps(out + 3 * perDirection + k, f3);
        }
        for (; k < perDirection; ++k) {
            alignas(16) float lanes[kLanes];
            _mm_store_ps(lanes, _mm256_cvtpd_ps(values[k].v));
            for (int lane = 0; lane < kLanes; ++lane)
                out[lane * perDirection + k] = lanes[lane];
        }
    }
    evalBasisDirectScalar({dirs.x + i, dirs.y + i, dirs.z + i, dirs.count - i}, order,
                          dst + size_t(i) * perDirection);
}

void evalBandDirect(const Directions& dirs, uint32_t band, float* dst)
{
    const OneBandFn routine = kOneBandRoutines[band];
    const uint32_t perDirection = 2 * band + 1;
    for (int i = 0; i < dirs.count; ++i) {
        const float zf = dirs.z[i];
        routine(dirs.x[i], dirs.y[i], zf, double(zf * zf), dst + size_t(i) * perDirection);
    }
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
                            float* dst)
{
    constexpr int kLanes = 8;
    const uint32_t perDirection = (order + 1) * (order + 1);
    alignas(32) Float8 values[kMaxBasisCount];
    alignas(32) float lanes[kLanes];
    int i = 0;
    for (; i + kLanes <= dirs.count; i += kLanes) {
        evalRecurrence(Float8(_mm256_loadu_ps(dirs.x + i)), Float8(_mm256_loadu_ps(dirs.y + i)),
                       Float8(_mm256_loadu_ps(dirs.z + i)), order, tables, values,
                       [](float c) { return Float8(_mm256_set1_ps(c)); });
        float* out = dst + size_t(i) * perDirection;
        for (uint32_t k = 0; k < perDirection; ++k) {
            _mm256_store_ps(lanes, values[k].v);
            for (int lane = 0; lane < kLanes; ++lane)
                out[size_t(lane) * perDirection + k] = lanes[lane];
        }
    }
    evalBasisRecurrenceScalar({dirs.x + i, dirs.y + i, dirs.z + i, dirs.count - i}, order, tables,
                              dst + size_t(i) * perDirection);
}

}  // namespace vekr::sh
