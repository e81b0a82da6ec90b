#include "sh_transform.h"

#include <immintrin.h>

#include <cstddef>

namespace vekr::sh {

namespace {

// The basis at one direction by the state's method; no allocation.
void evalBasisAt(const SHState& state, uint32_t order, const Directions& dirs, int i, float* out)
{
    const Directions one{dirs.x + i, dirs.y + i, dirs.z + i, 1};
    if (state.method == SHMethodDirect)
        evalBasisDirectScalar(one, order, out);
    else
        evalBasisRecurrenceScalar(one, order, recurrenceTables(state), out);
}

// out[k] = in[k] * s, then acc[k] += out[k]: element by element, so lanes change no bits.
void scaleInto(const float* in, float s, float* out, int n)
{
    const __m256 scale = _mm256_set1_ps(s);
    int k = 0;
    for (; k + 8 <= n; k += 8)
        _mm256_storeu_ps(out + k, _mm256_mul_ps(_mm256_loadu_ps(in + k), scale));
    for (; k < n; ++k)
        out[k] = in[k] * s;
}
void addInto(float* acc, const float* in, int n)
{
    int k = 0;
    for (; k + 8 <= n; k += 8)
        _mm256_storeu_ps(acc + k, _mm256_add_ps(_mm256_loadu_ps(acc + k), _mm256_loadu_ps(in + k)));
    for (; k < n; ++k)
        acc[k] = acc[k] + in[k];
}

float sumPartials(const float s[8])
{
    return ((s[0] + s[4]) + (s[2] + s[6])) + ((s[1] + s[5]) + (s[3] + s[7]));
}

}  // namespace

float dotProductScalar(const float* a, const float* b, int n)
{
    float sums[8] = {};
    for (int k = 0; k < n; ++k)
        sums[k % 8] = sums[k % 8] + a[k] * b[k];
    return sumPartials(sums);
}

float dotProductAvx(const float* a, const float* b, int n)
{
    __m256 acc = _mm256_setzero_ps();
    int k = 0;
    for (; k + 8 <= n; k += 8)
        acc = _mm256_add_ps(acc, _mm256_mul_ps(_mm256_loadu_ps(a + k), _mm256_loadu_ps(b + k)));
    alignas(32) float sums[8];
    _mm256_store_ps(sums, acc);
    for (int j = 0; k < n; ++k, ++j)
        sums[j] = sums[j] + a[k] * b[k];
    return sumPartials(sums);
}

void accumulateForward(const SHState& state, uint32_t order, const Directions& dirs,
                       const SampleChannels& samples, float* const coeffs[3])
{
    const int count = int((order + 1) * (order + 1));
    // Both buffers hold a whole order-15 basis.
    alignas(32) float basis[kMaxBasisCount];
    alignas(32) float scaled[kMaxBasisCount];
    for (int i = 0; i < dirs.count; ++i) {
        evalBasisAt(state, order, dirs, i, basis);
        const ptrdiff_t offset = ptrdiff_t(i) * samples.step;
        if (samples.channels == 1) {
            scaleInto(basis, samples.planes[0][offset], basis, count);
            addInto(coeffs[0], basis, count);
            continue;
        }
        for (int j = 0; j < 3; ++j) {
            scaleInto(basis, samples.planes[j][offset], scaled, count);
            addInto(coeffs[j], scaled, count);
        }
    }
}

void evaluateInverse(const SHState& state, uint32_t order, const Directions& dirs,
                     const float* const coeffs[3], const OutputChannels& out)
{
    const int count = int((order + 1) * (order + 1));
    alignas(32) float basis[kMaxBasisCount];
    for (int i = 0; i < dirs.count; ++i) {
        evalBasisAt(state, order, dirs, i, basis);
        const ptrdiff_t offset = ptrdiff_t(i) * out.step;
        for (int j = 0; j < out.channels; ++j)
            out.planes[j][offset] = dotProductAvx(basis, coeffs[j], count);
    }
}

}  // namespace vekr::sh
