#include "sh_transform.h"

#include <immintrin.h>

#include <cstddef>

namespace vekr::sh {

namespace {

// Samples whose basis is evaluated together, through the vector kernels: the values equal
// those of one direction at a time, and the samples are still accumulated one by one in order.
constexpr int kBatch = 8;

// The basis at directions first .. first + n - 1 (n <= kBatch), direction after direction, by
// the state's method; no allocation.
void evalBasisBatch(const SHState& state, uint32_t order, const Directions& dirs, int first, int n,
                    float* out)
{
    const Directions some{dirs.x + first, dirs.y + first, dirs.z + first, n};
    if (state.method == SHMethodDirect)
        evalBasisDirectAvx(some, order, out);
    else
        evalBasisRecurrenceAvx(some, order, recurrenceTables(state), out);
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
    // The buffers hold whole order-15 bases: eight of them, and one scaled.
    alignas(32) float bases[kBatch * kMaxBasisCount];
    alignas(32) float scaled[kMaxBasisCount];
    for (int first = 0; first < dirs.count; first += kBatch) {
        const int n = dirs.count - first < kBatch ? dirs.count - first : kBatch;
        evalBasisBatch(state, order, dirs, first, n, bases);
        for (int s = 0; s < n; ++s) {
            float* basis = bases + s * count;
            const ptrdiff_t offset = ptrdiff_t(first + s) * samples.step;
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
}

void evaluateInverse(const SHState& state, uint32_t order, const Directions& dirs,
                     const float* const coeffs[3], const OutputChannels& out)
{
    const int count = int((order + 1) * (order + 1));
    alignas(32) float bases[kBatch * kMaxBasisCount];
    for (int first = 0; first < dirs.count; first += kBatch) {
        const int n = dirs.count - first < kBatch ? dirs.count - first : kBatch;
        evalBasisBatch(state, order, dirs, first, n, bases);
        for (int s = 0; s < n; ++s) {
            const ptrdiff_t offset = ptrdiff_t(first + s) * out.step;
            for (int j = 0; j < out.channels; ++j)
                out.planes[j][offset] = dotProductAvx(bases + s * count, coeffs[j], count);
        }
    }
}

}  // namespace vekr::sh
