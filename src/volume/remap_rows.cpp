#include "remap_rows.h"

#include <immintrin.h>

#include <cstdint>

namespace vekr::volume {
namespace {

template <class T, void (*kSample)(const SourceWindow<T>&, const InterpolationKernel&, float, float,
                                   float, T*)>
void remapRowScalar(const SourceWindow<T>& src, const InterpolationKernel& kernel, const float* mx,
                    const float* my, const float* mz, T* out, int n)
{
    for (int i = 0; i < n; ++i)
        kSample(src, kernel, mx[i], my[i], mz[i], out + i);
}

// Lanes of a with a >= lo and a <= hi; NaN lanes fail both, as in SourceWindow::contains.
inline __m256 insideLanes(__m256 a, __m256 lo, __m256 hi)
{
    return _mm256_and_ps(_mm256_cmp_ps(a, lo, _CMP_GE_OQ), _mm256_cmp_ps(a, hi, _CMP_LE_OQ));
}

// linearPoint's base and fraction in lanes: trunc, then the maximum brought down by one.
inline __m256 linearBase(__m256 a, __m256 hi, __m256 hiLessOne)
{
    const __m256 base = _mm256_round_ps(a, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
    return _mm256_blendv_ps(base, hiLessOne, _mm256_cmp_ps(base, hi, _CMP_GE_OQ));
}

inline __m256 linearBlendAvx(__m256 a, __m256 b, __m256 f, __m256 one)
{
    return _mm256_add_ps(_mm256_mul_ps(_mm256_sub_ps(one, f), a), _mm256_mul_ps(f, b));
}

}  // namespace

void remapLinearRow32fScalar(const SourceWindow<float>& src, const InterpolationKernel& kernel,
                             const float* mx, const float* my, const float* mz, float* out, int n)
{
    remapRowScalar<float, sampleLinear<float, float>>(src, kernel, mx, my, mz, out, n);
}

void remapLinearRow32fAvx(const SourceWindow<float>& src, const InterpolationKernel& kernel,
                          const float* mx, const float* my, const float* mz, float* out, int n)
{
    __m256 lo[3], hi[3], hiLessOne[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] = _mm256_set1_ps(float(src.lo[a]));
        hi[a] = _mm256_set1_ps(float(src.hi[a]));
        hiLessOne[a] = _mm256_set1_ps(float(src.hi[a] - 1));
    }
    const __m256 one = _mm256_set1_ps(1.0f);
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256 pos[3] = {_mm256_loadu_ps(mx + i), _mm256_loadu_ps(my + i),
                               _mm256_loadu_ps(mz + i)};
        const __m256 inside = _mm256_and_ps(
            _mm256_and_ps(insideLanes(pos[0], lo[0], hi[0]), insideLanes(pos[1], lo[1], hi[1])),
            insideLanes(pos[2], lo[2], hi[2]));
        const int laneMask = _mm256_movemask_ps(inside);
        if (laneMask == 0) continue;
        __m256 fraction[3];
        alignas(32) float base[3][8];
        for (int a = 0; a < 3; ++a) {
            const __m256 b = linearBase(pos[a], hi[a], hiLessOne[a]);
            fraction[a] = _mm256_sub_ps(pos[a], b);
            _mm256_store_ps(base[a], b);
        }
        // tap[corner][lane], corner = dx + 2 dy + 4 dz; lanes outside stay 0 and are not stored.
        alignas(32) float tap[8][8] = {};
        for (int l = 0; l < 8; ++l) {
            if (!(laneMask >> l & 1)) continue;
            int32_t t[3][2];
            for (int a = 0; a < 3; ++a) {
                const int32_t b = int32_t(base[a][l]);
                t[a][0] = clampTap(b, src.lo[a], src.hi[a]);
                t[a][1] = clampTap(b + 1, src.lo[a], src.hi[a]);
            }
            for (int c = 0; c < 8; ++c)
                tap[c][l] = src.at(t[0][c & 1], t[1][c >> 1 & 1], t[2][c >> 2]);
        }
        __m256 alongX[4];
        for (int r = 0; r < 4; ++r)
            alongX[r] = linearBlendAvx(_mm256_load_ps(tap[2 * r]), _mm256_load_ps(tap[2 * r + 1]),
                                       fraction[0], one);
        const __m256 alongY0 = linearBlendAvx(alongX[0], alongX[1], fraction[1], one);
        const __m256 alongY1 = linearBlendAvx(alongX[2], alongX[3], fraction[1], one);
        _mm256_maskstore_ps(out + i, _mm256_castps_si256(inside),
                            linearBlendAvx(alongY0, alongY1, fraction[2], one));
    }
    remapLinearRow32fScalar(src, kernel, mx + i, my + i, mz + i, out + i, n - i);
}

template <class T>
RemapRowKernel<T> remapRowKernel(const InterpolationKernel& kernel)
{
    if (kernel.taps == 1) return remapRowScalar<T, sampleNearest<T, float>>;
    if (kernel.taps == 2) {
        if constexpr (std::is_same_v<T, float>) return remapLinearRow32fAvx;
        return remapRowScalar<T, sampleLinear<T, float>>;
    }
    return remapRowScalar<T, sampleCubic<T, float>>;
}

template RemapRowKernel<uint8_t> remapRowKernel<uint8_t>(const InterpolationKernel&);
template RemapRowKernel<uint16_t> remapRowKernel<uint16_t>(const InterpolationKernel&);
template RemapRowKernel<float> remapRowKernel<float>(const InterpolationKernel&);

}  // namespace vekr::volume
