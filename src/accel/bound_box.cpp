#include "bound_box.h"

#include <immintrin.h>

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <initializer_list>

namespace vekr::accel {
namespace {

// 0.0001f is bits 0x38D1B717.
constexpr float kMarginFraction = 0.0001f;

// Reduces 8 lanes of three running vectors into one extreme per coordinate. Lane j of the
// vector starting at float 8*r holds coordinate (8*r + j) % 3 of the 24 floats of a step.
template <class Keep>
void reduceLanes(__m256 a, __m256 b, __m256 c, float out[3], Keep keep)
{
    alignas(32) float lanes[24];
    _mm256_store_ps(lanes, a);
    _mm256_store_ps(lanes + 8, b);
    _mm256_store_ps(lanes + 16, c);
    for (int i = 0; i < 24; ++i)
        out[i % 3] = keep(lanes[i], out[i % 3]);
}

inline float keepSmaller(float value, float running)
{
    return value < running ? value : running;
}
inline float keepLarger(float value, float running)
{
    return value > running ? value : running;
}

}  // namespace

BoxExtremes initialExtremes()
{
    return BoxExtremes{{FLT_MAX, FLT_MAX, FLT_MAX}, {-FLT_MAX, -FLT_MAX, -FLT_MAX}};
}

void scanExtremesScalar(const float* vertices, int vertexCount, BoxExtremes& e)
{
    for (std::ptrdiff_t i = 0; i < vertexCount; ++i) {
        const float* p = vertices + i * 3;
        for (int a = 0; a < 3; ++a) {
            e.min[a] = keepSmaller(p[a], e.min[a]);
            e.max[a] = keepLarger(p[a], e.max[a]);
        }
    }
}

// Eight vertices (three vectors) per step. _mm256_min_ps(v, run) is (v < run) ? v : run lane by
// lane, the scalar rule exactly, NaN included. The lanes are reduced with the same rule; only
// the sign of a zero extreme may then differ from a sequential scan, and the margin, which is
// never zero, makes -0 - m and +0 - m the same box float.
void scanExtremesAvx(const float* vertices, int vertexCount, BoxExtremes& e)
{
    const std::ptrdiff_t vectorCount = vertexCount >= 8 ? (vertexCount & ~7) : 0;
    if (vectorCount > 0) {
        __m256 minA = _mm256_set1_ps(FLT_MAX), minB = minA, minC = minA;
        __m256 maxA = _mm256_set1_ps(-FLT_MAX), maxB = maxA, maxC = maxA;
        const float* p = vertices;
        const float* end = vertices + vectorCount * 3;
        for (; p != end; p += 24) {
            const __m256 a = _mm256_loadu_ps(p);
            const __m256 b = _mm256_loadu_ps(p + 8);
            const __m256 c = _mm256_loadu_ps(p + 16);
            minA = _mm256_min_ps(a, minA);
            minB = _mm256_min_ps(b, minB);
            minC = _mm256_min_ps(c, minC);
            maxA = _mm256_max_ps(a, maxA);
            maxB = _mm256_max_ps(b, maxB);
            maxC = _mm256_max_ps(c, maxC);
        }
        reduceLanes(minA, minB, minC, e.min, keepSmaller);
        reduceLanes(maxA, maxB, maxC, e.max, keepLarger);
    }
    // The tail of fewer than 8 touches nothing past the last vertex.
    scanExtremesScalar(vertices + vectorCount * 3, int(vertexCount - vectorCount), e);
}

void writeWidenedBox(const BoxExtremes& e, float* box)
{
    // Start from FLT_MIN so that a box at the origin still gets a (tiny) non-zero margin.
    float largest = FLT_MIN;
    for (float x : {e.min[0], e.min[1], e.min[2], e.max[0], e.max[1], e.max[2]})
        largest = keepLarger(std::fabs(x), largest);
    const float margin = kMarginFraction * largest;
    for (int a = 0; a < 3; ++a) {
        box[a] = e.min[a] - margin;
        box[3 + a] = e.max[a] + margin;
    }
}

// A non-positive count reads nothing and yields the inverted initial box, widened.
void computeBoundBox(const float* vertices, int vertexCount, float* box)
{
    BoxExtremes extremes = initialExtremes();
    scanExtremesAvx(vertices, vertexCount, extremes);
    writeWidenedBox(extremes, box);
}

}  // namespace vekr::accel
