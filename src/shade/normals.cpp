// Triangle normals in double precision, and per-ray flat and smooth normals in single precision
// with an aligned four-ray path.
#include "normals.h"

#include <immintrin.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "frame/parallel_region.h"

namespace vekr::shade {
namespace {

// A triangle normal whose unnormalised squared length is below DBL_EPSILON (2^-52) is zero.
// The test is on the square and against the double epsilon: a triangle with edges of 2^-13
// still gets its normal.
constexpr double kMinTriangleSquaredLength = 2.220446049250313e-16;

// An interpolated normal whose squared length is below FLT_EPSILON (2^-23) has cancelled: zero.
constexpr float kMinSmoothSquaredLength = 1.1920929e-07f;

// One triangle, exactly as the four lanes of the Avx twin: widen, edges from corner 2, cross
// product, then each component divided by the length and rounded to float. A NaN or infinite
// coordinate fails the comparison or gives NaN, the same way on both paths.
void triangleNormalScalar(const float* vertices, const int* triangle, float* normal)
{
    const float* p0 = vertices + std::ptrdiff_t(triangle[0]) * 3;
    const float* p1 = vertices + std::ptrdiff_t(triangle[1]) * 3;
    const float* p2 = vertices + std::ptrdiff_t(triangle[2]) * 3;
    double e1[3], e2[3];
    for (int a = 0; a < 3; ++a) {
        const double v2 = p2[a];
        e1[a] = double(p0[a]) - v2;
        e2[a] = double(p1[a]) - v2;
    }
    const double nx = e1[1] * e2[2] - e1[2] * e2[1];
    const double ny = e1[2] * e2[0] - e2[2] * e1[0];
    const double nz = e2[1] * e1[0] - e1[1] * e2[0];
    const double s = nx * nx + ny * ny + nz * nz;
    if (s >= kMinTriangleSquaredLength) {
        const double length = std::sqrt(s);
        normal[0] = float(nx / length);
        normal[1] = float(ny / length);
        normal[2] = float(nz / length);
    } else {
        normal[0] = normal[1] = normal[2] = 0.0f;
    }
}

// The three floats at p, and a zero lane that is never read from memory, so the last vertex
// or normal of an array can be loaded without touching the bytes after it.
inline __m128 loadXyz(const float* p)
{
    return _mm_maskload_ps(p, _mm_setr_epi32(-1, -1, -1, 0));
}

// Lane j of x, y, z is the triple of row j.
struct Xyz4 {
    __m128 x, y, z;
};

inline Xyz4 gatherXyz(const float* const rows[4])
{
    __m128 a = loadXyz(rows[0]), b = loadXyz(rows[1]), c = loadXyz(rows[2]), d = loadXyz(rows[3]);
    _MM_TRANSPOSE4_PS(a, b, c, d);
    return {a, b, c};
}

inline Xyz4 broadcastXyz(const float* p)
{
    return {_mm_set1_ps(p[0]), _mm_set1_ps(p[1]), _mm_set1_ps(p[2])};
}

struct Xyz4d {
    __m256d x, y, z;
};

// Corner `corner` of the four triangles starting at `triangles`, widened to double.
inline Xyz4d loadCornersWide(const float* vertices, const int* triangles, int corner)
{
    const float* rows[4];
    for (int j = 0; j < 4; ++j)
        rows[j] = vertices + std::ptrdiff_t(triangles[4 * j + corner]) * 3;
    const Xyz4 c = gatherXyz(rows);
    return {_mm256_cvtps_pd(c.x), _mm256_cvtps_pd(c.y), _mm256_cvtps_pd(c.z)};
}

// Writes the twelve floats x0 y0 z0 x1 | y1 z1 x2 y2 | z2 x3 y3 z3 of four triangles.
inline void storeInterleaved(float* out, __m128 x, __m128 y, __m128 z)
{
    const __m128 xy01 = _mm_unpacklo_ps(x, y);  // x0 y0 x1 y1
    const __m128 xy23 = _mm_unpackhi_ps(x, y);  // x2 y2 x3 y3
    const __m128 zx01 = _mm_unpacklo_ps(z, x);  // z0 x0 z1 x1
    const __m128 zx23 = _mm_unpackhi_ps(z, x);  // z2 x2 z3 x3
    const __m128 yz01 = _mm_unpacklo_ps(y, z);  // y0 z0 y1 z1
    const __m128 yz23 = _mm_unpackhi_ps(y, z);  // y2 z2 y3 z3
    _mm_storeu_ps(out, _mm_shuffle_ps(xy01, zx01, _MM_SHUFFLE(3, 0, 1, 0)));
    _mm_storeu_ps(out + 4, _mm_shuffle_ps(yz01, xy23, _MM_SHUFFLE(1, 0, 3, 2)));
    _mm_storeu_ps(out + 8, _mm_shuffle_ps(zx23, yz23, _MM_SHUFFLE(3, 2, 3, 0)));
}

inline bool isAligned16(const void* p)
{
    return (reinterpret_cast<uintptr_t>(p) & 15) == 0;
}

// Sign bits of the four hit indices: bit j set when ray j missed.
inline int missedLanes(__m128i hit)
{
    return _mm_movemask_ps(_mm_castsi128_ps(hit));
}

inline bool allLanesEqual(__m128i v)
{
    const __m128i first = _mm_shuffle_epi32(v, 0);
    return _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(v, first))) == 0xF;
}

// The hit indices of four rays, with each missed ray's index replaced by that of the first ray
// that hit: every gather then stays inside the caller's arrays, and the missed lanes are cleared
// afterwards. At least one ray of the four must have hit.
inline void fillMissedLanes(const int* hit, int missBits, int lanes[4])
{
    const int fill = hit[std::countr_zero(unsigned(~missBits & 0xF))];
    for (int j = 0; j < 4; ++j)
        lanes[j] = hit[j] < 0 ? fill : hit[j];
}

inline void storeZeros(float* const planes[3], std::ptrdiff_t i)
{
    const __m128 zero = _mm_setzero_ps();
    _mm_store_ps(planes[0] + i, zero);
    _mm_store_ps(planes[1] + i, zero);
    _mm_store_ps(planes[2] + i, zero);
}

}  // namespace

void computeTriangleNormalsScalar(const float* vertices, const int* triangles, float* normals,
                                  int triangleCount)
{
    for (std::ptrdiff_t t = 0; t < triangleCount; ++t)
        triangleNormalScalar(vertices, triangles + t * 4, normals + t * 3);
}

// Four triangles per step in four-lane doubles, each lane the scalar operations in their order;
// a degenerate lane may divide 0 by 0, and the mask then replaces the NaN by +0 as the scalar
// branch writes it.
void computeTriangleNormalsAvx(const float* vertices, const int* triangles, float* normals,
                               int triangleCount)
{
    const std::ptrdiff_t vectorCount = triangleCount >= 4 ? (triangleCount & ~3) : 0;
    const __m256d minSquaredLength = _mm256_set1_pd(kMinTriangleSquaredLength);
    for (std::ptrdiff_t t = 0; t < vectorCount; t += 4) {
        const int* quad = triangles + t * 4;
        const Xyz4d p0 = loadCornersWide(vertices, quad, 0);
        const Xyz4d p1 = loadCornersWide(vertices, quad, 1);
        const Xyz4d p2 = loadCornersWide(vertices, quad, 2);
        const __m256d e1x = _mm256_sub_pd(p0.x, p2.x), e1y = _mm256_sub_pd(p0.y, p2.y),
                      e1z = _mm256_sub_pd(p0.z, p2.z);
        const __m256d e2x = _mm256_sub_pd(p1.x, p2.x), e2y = _mm256_sub_pd(p1.y, p2.y),
                      e2z = _mm256_sub_pd(p1.z, p2.z);
        const __m256d nx = _mm256_sub_pd(_mm256_mul_pd(e1y, e2z), _mm256_mul_pd(e1z, e2y));
        const __m256d ny = _mm256_sub_pd(_mm256_mul_pd(e1z, e2x), _mm256_mul_pd(e2z, e1x));
        const __m256d nz = _mm256_sub_pd(_mm256_mul_pd(e2y, e1x), _mm256_mul_pd(e1y, e2x));
        const __m256d s = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(nx, nx), _mm256_mul_pd(ny, ny)),
                                        _mm256_mul_pd(nz, nz));
        // Ordered: a NaN squared length keeps no lane, as the scalar comparison.
        const __m256d keep = _mm256_cmp_pd(s, minSquaredLength, _CMP_GE_OQ);
        const __m256d length = _mm256_sqrt_pd(s);
        const __m128 x = _mm256_cvtpd_ps(_mm256_and_pd(keep, _mm256_div_pd(nx, length)));
        const __m128 y = _mm256_cvtpd_ps(_mm256_and_pd(keep, _mm256_div_pd(ny, length)));
        const __m128 z = _mm256_cvtpd_ps(_mm256_and_pd(keep, _mm256_div_pd(nz, length)));
        storeInterleaved(normals + t * 3, x, y, z);
    }
    computeTriangleNormalsScalar(vertices, triangles + vectorCount * 4, normals + vectorCount * 3,
                                 int(triangleCount - vectorCount));
}

// Each member takes a contiguous share fixed by (member, teamSize) alone; since the twins agree
// bit for bit, where a share's scalar tail falls changes nothing in the output.
void computeTriangleNormals(const float* vertices, const int* triangles, float* normals,
                            int triangleCount)
{
    frame::runParallelRegion([=](int member, int teamSize) {
        const std::ptrdiff_t begin = std::ptrdiff_t(int64_t(triangleCount) * member / teamSize);
        const std::ptrdiff_t end = std::ptrdiff_t(int64_t(triangleCount) * (member + 1) / teamSize);
        computeTriangleNormalsAvx(vertices, triangles + begin * 4, normals + begin * 3,
                                  int(end - begin));
    });
}

void copyFlatNormalsScalar(const float* triangleNormals, const int* hitTriangles,
                           float* const planes[3], int rayCount)
{
    for (std::ptrdiff_t i = 0; i < rayCount; ++i) {
        const int t = hitTriangles[i];
        if (t >= 0) {
            const float* n = triangleNormals + std::ptrdiff_t(t) * 3;
            planes[0][i] = n[0];
            planes[1][i] = n[1];
            planes[2][i] = n[2];
        } else {
            planes[0][i] = planes[1][i] = planes[2][i] = 0.0f;
        }
    }
}

// Copies and clears only, so the bits equal the scalar twin's, NaN payloads included.
void copyFlatNormalsAvx(const float* triangleNormals, const int* hitTriangles,
                        float* const planes[3], int rayCount)
{
    for (std::ptrdiff_t i = 0; i < rayCount; i += 4) {
        const int* hit = hitTriangles + i;
        const __m128i hit4 = _mm_load_si128(reinterpret_cast<const __m128i*>(hit));
        const int missBits = missedLanes(hit4);
        if (missBits == 0xF) {
            storeZeros(planes, i);
            continue;
        }
        Xyz4 n;
        if (missBits == 0 && allLanesEqual(hit4)) {
            n = broadcastXyz(triangleNormals + std::ptrdiff_t(hit[0]) * 3);
        } else {
            int lanes[4];
            fillMissedLanes(hit, missBits, lanes);
            const float* rows[4];
            for (int j = 0; j < 4; ++j)
                rows[j] = triangleNormals + std::ptrdiff_t(lanes[j]) * 3;
            const __m128 missed = _mm_castsi128_ps(_mm_srai_epi32(hit4, 31));
            n = gatherXyz(rows);
            n = {_mm_andnot_ps(missed, n.x), _mm_andnot_ps(missed, n.y),
                 _mm_andnot_ps(missed, n.z)};
        }
        _mm_store_ps(planes[0] + i, n.x);
        _mm_store_ps(planes[1] + i, n.y);
        _mm_store_ps(planes[2] + i, n.z);
    }
}

void copyFlatNormals(const float* triangleNormals, const int* hitTriangles, float* const planes[3],
                     int rayCount)
{
    const bool vectorPath = rayCount % 4 == 0 && isAligned16(triangleNormals) &&
                            isAligned16(hitTriangles) && isAligned16(planes[0]) &&
                            isAligned16(planes[1]) && isAligned16(planes[2]);
    if (vectorPath)
        copyFlatNormalsAvx(triangleNormals, hitTriangles, planes, rayCount);
    else
        copyFlatNormalsScalar(triangleNormals, hitTriangles, planes, rayCount);
}

// The miss test comes first, so a missed ray's u and v are never read. A NaN squared length
// passes the cancellation test and gives NaN, where the Avx twin gives zeros.
void interpolateSmoothNormalsScalar(const float* vertexNormals, const int* normalIndices,
                                    const int* hitTriangles, const float* const uv[2],
                                    float* const planes[3], int rayCount, int indexStep)
{
    for (std::ptrdiff_t i = 0; i < rayCount; ++i) {
        const int t = hitTriangles[i];
        if (t < 0) {
            planes[0][i] = planes[1][i] = planes[2][i] = 0.0f;
            continue;
        }
        // u weighs corner 0 and v corner 1, as the intersection reports them.
        const float u = uv[0][i], v = uv[1][i];
        const float w = (1.0f - u) - v;
        const int* k = normalIndices + std::ptrdiff_t(t) * indexStep;
        const float* n0 = vertexNormals + std::ptrdiff_t(k[0]) * 3;
        const float* n1 = vertexNormals + std::ptrdiff_t(k[1]) * 3;
        const float* n2 = vertexNormals + std::ptrdiff_t(k[2]) * 3;
        float n[3];
        for (int a = 0; a < 3; ++a)
            n[a] = w * n2[a] + (v * n1[a] + u * n0[a]);
        const float s = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
        if (s < kMinSmoothSquaredLength) {
            planes[0][i] = planes[1][i] = planes[2][i] = 0.0f;
            continue;
        }
        const float length = std::sqrt(s);
        planes[0][i] = n[0] / length;
        planes[1][i] = n[1] / length;
        planes[2][i] = n[2] / length;
    }
}

// The interpolation follows the scalar order; the normalisation multiplies by the estimate
// r = rsqrt(s) after one Newton step, r' = (-0.5 r)(s r r - 3), whose relative error is a few
// float ulps. A lane is kept only where FLT_EPSILON < s: this zeroes s = 0 (where r is infinite
// and r' NaN), NaN, and s exactly FLT_EPSILON.
void interpolateSmoothNormalsAvx(const float* vertexNormals, const int* normalIndices,
                                 const int* hitTriangles, const float* const uv[2],
                                 float* const planes[3], int rayCount, int indexStep)
{
    const __m128 one = _mm_set1_ps(1.0f), three = _mm_set1_ps(3.0f);
    const __m128 minusHalf = _mm_set1_ps(-0.5f);
    const __m128 minSquaredLength = _mm_set1_ps(kMinSmoothSquaredLength);
    for (std::ptrdiff_t i = 0; i < rayCount; i += 4) {
        const int* hit = hitTriangles + i;
        const __m128i hit4 = _mm_load_si128(reinterpret_cast<const __m128i*>(hit));
        const int missBits = missedLanes(hit4);
        if (missBits == 0xF) {
            storeZeros(planes, i);
            continue;
        }
        Xyz4 c0, c1, c2;
        if (missBits == 0 && allLanesEqual(hit4)) {
            const int* k = normalIndices + std::ptrdiff_t(hit[0]) * indexStep;
            c0 = broadcastXyz(vertexNormals + std::ptrdiff_t(k[0]) * 3);
            c1 = broadcastXyz(vertexNormals + std::ptrdiff_t(k[1]) * 3);
            c2 = broadcastXyz(vertexNormals + std::ptrdiff_t(k[2]) * 3);
        } else {
            int lanes[4];
            fillMissedLanes(hit, missBits, lanes);
            const float* rows[3][4];
            for (int j = 0; j < 4; ++j) {
                const int* k = normalIndices + std::ptrdiff_t(lanes[j]) * indexStep;
                for (int corner = 0; corner < 3; ++corner)
                    rows[corner][j] = vertexNormals + std::ptrdiff_t(k[corner]) * 3;
            }
            c0 = gatherXyz(rows[0]);
            c1 = gatherXyz(rows[1]);
            c2 = gatherXyz(rows[2]);
        }
        const __m128 u = _mm_load_ps(uv[0] + i), v = _mm_load_ps(uv[1] + i);
        const __m128 w = _mm_sub_ps(_mm_sub_ps(one, u), v);
        const auto blend = [&](__m128 n0, __m128 n1, __m128 n2) {
            return _mm_add_ps(_mm_mul_ps(w, n2), _mm_add_ps(_mm_mul_ps(v, n1), _mm_mul_ps(u, n0)));
        };
        const __m128 nx = blend(c0.x, c1.x, c2.x);
        const __m128 ny = blend(c0.y, c1.y, c2.y);
        const __m128 nz = blend(c0.z, c1.z, c2.z);
        const __m128 s =
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(nx, nx), _mm_mul_ps(ny, ny)), _mm_mul_ps(nz, nz));
        const __m128 r = _mm_rsqrt_ps(s);
        const __m128 refined = _mm_mul_ps(_mm_mul_ps(minusHalf, r),
                                          _mm_sub_ps(_mm_mul_ps(_mm_mul_ps(s, r), r), three));
        // Missed lanes may carry any u and v; they are cleared with the cancelled ones.
        const __m128 missed = _mm_castsi128_ps(_mm_srai_epi32(hit4, 31));
        const __m128 keep = _mm_andnot_ps(missed, _mm_cmplt_ps(minSquaredLength, s));
        _mm_store_ps(planes[0] + i, _mm_and_ps(keep, _mm_mul_ps(nx, refined)));
        _mm_store_ps(planes[1] + i, _mm_and_ps(keep, _mm_mul_ps(ny, refined)));
        _mm_store_ps(planes[2] + i, _mm_and_ps(keep, _mm_mul_ps(nz, refined)));
    }
}

void interpolateSmoothNormals(const float* vertexNormals, const int* normalIndices,
                              const int* hitTriangles, const float* const uv[2],
                              float* const planes[3], int rayCount, int indexStep)
{
    const bool vectorPath = rayCount % 4 == 0 && isAligned16(vertexNormals) &&
                            isAligned16(normalIndices) && isAligned16(hitTriangles) &&
                            isAligned16(uv[0]) && isAligned16(uv[1]) && isAligned16(planes[0]) &&
                            isAligned16(planes[1]) && isAligned16(planes[2]);
    if (vectorPath)
        interpolateSmoothNormalsAvx(vertexNormals, normalIndices, hitTriangles, uv, planes,
                                    rayCount, indexStep);
    else
        interpolateSmoothNormalsScalar(vertexNormals, normalIndices, hitTriangles, uv, planes,
                                       rayCount, indexStep);
}

}  // namespace vekr::shade
