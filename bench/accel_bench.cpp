// Acceleration structures: the scene box (bytes of vertices read per second, beside a plain
// streaming read of the same bytes) and triangle records (triangles per second).
#include <benchmark/benchmark.h>
#include <immintrin.h>

#include <random>
#include <vector>

#include "accel/bound_box.h"
#include "vekr.h"

namespace {

std::vector<float> randomCoordinates(size_t count, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> coord(-100.0f, 100.0f);
    std::vector<float> v(count);
    for (float& x : v)
        x = coord(rng);
    return v;
}

void setVertexThroughput(benchmark::State& state, int vertexCount)
{
    state.SetBytesProcessed(int64_t(state.iterations()) * vertexCount * 12);
    state.counters["vertices/s"] =
        benchmark::Counter(double(state.iterations()) * vertexCount, benchmark::Counter::kIsRate);
}

void BM_SetBoundBox(benchmark::State& state)
{
    const int n = int(state.range(0));
    const auto vertices = randomCoordinates(size_t(n) * 3, 1);
    float box[6];
    for (auto _ : state) {
        vekrSetBoundBox_32f(vertices.data(), n, box);
        benchmark::DoNotOptimize(box);
        benchmark::ClobberMemory();
    }
    setVertexThroughput(state, n);
}

template <void (*Scan)(const float*, int, vekr::accel::BoxExtremes&)>
void BM_ScanExtremes(benchmark::State& state)
{
    const int n = int(state.range(0));
    const auto vertices = randomCoordinates(size_t(n) * 3, 1);
    for (auto _ : state) {
        auto e = vekr::accel::initialExtremes();
        Scan(vertices.data(), n, e);
        benchmark::DoNotOptimize(e);
    }
    setVertexThroughput(state, n);
}

// The reference for the box's read speed: an AVX sum over the same number of bytes, as fast
// as one core streams memory. The argument counts vertices (12 bytes each).
void BM_StreamingRead(benchmark::State& state)
{
    const int n = int(state.range(0));
    const auto data = randomCoordinates(size_t(n) * 3, 2);
    const size_t floats = data.size() & ~size_t(31);
    for (auto _ : state) {
        __m256 s0 = _mm256_setzero_ps(), s1 = s0, s2 = s0, s3 = s0;
        for (size_t i = 0; i < floats; i += 32) {
            s0 = _mm256_add_ps(s0, _mm256_loadu_ps(&data[i]));
            s1 = _mm256_add_ps(s1, _mm256_loadu_ps(&data[i + 8]));
            s2 = _mm256_add_ps(s2, _mm256_loadu_ps(&data[i + 16]));
            s3 = _mm256_add_ps(s3, _mm256_loadu_ps(&data[i + 24]));
        }
        __m256 s = _mm256_add_ps(_mm256_add_ps(s0, s1), _mm256_add_ps(s2, s3));
        benchmark::DoNotOptimize(s);
    }
    setVertexThroughput(state, n);
}

void BM_TriangleAccelInit(benchmark::State& state)
{
    const int triangles = int(state.range(0));
    const int vertexCount = triangles / 2 + 3;
    const auto vertices = randomCoordinates(size_t(vertexCount) * 3, 3);
    std::vector<int> indices(size_t(triangles) * 4);
    std::mt19937 rng(4);
    std::uniform_int_distribution<int> pick(0, vertexCount - 1);
    for (size_t t = 0; t < size_t(triangles); ++t)
        for (int c = 0; c < 4; ++c)
            indices[t * 4 + c] = c < 3 ? pick(rng) : 0;
    std::vector<TriangleAccel> records(static_cast<size_t>(triangles));
    for (auto _ : state) {
        vekrTriangleAccelInit(records.data(), vertices.data(), indices.data(), triangles);
        benchmark::ClobberMemory();
    }
    state.counters["triangles/s"] =
        benchmark::Counter(double(state.iterations()) * triangles, benchmark::Counter::kIsRate);
}

// The simple build writes one list of every triangle: bytes of tree written per second.
void BM_KDTreeBuildSimple(benchmark::State& state)
{
    const int triangles = int(state.range(0));
    const float vertex[3] = {0, 0, 0};
    const int triangle[4] = {0, 0, 0, 0};
    const KDTreeBuildParams params{KDTreeBuildSimple, 0, 0.0f, 0, nullptr};
    for (auto _ : state) {
        void* tree = nullptr;
        int treeSize = 0;
        vekrKDTreeBuildAlloc(&tree, vertex, triangle, 1, triangles, &treeSize, &params);
        benchmark::DoNotOptimize(tree);
        vekrKDTreeFree(tree);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * (int64_t(triangles) * 4 + 16));
    state.counters["triangles/s"] =
        benchmark::Counter(double(state.iterations()) * triangles, benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_SetBoundBox)->RangeMultiplier(10)->Range(1'000, 1'000'000)->Arg(20'000'000);
BENCHMARK(BM_ScanExtremes<vekr::accel::scanExtremesScalar>)
    ->RangeMultiplier(10)
    ->Range(1'000, 1'000'000);
BENCHMARK(BM_ScanExtremes<vekr::accel::scanExtremesAvx>)
    ->RangeMultiplier(10)
    ->Range(1'000, 1'000'000);
BENCHMARK(BM_StreamingRead)->RangeMultiplier(10)->Range(1'000, 1'000'000)->Arg(20'000'000);
BENCHMARK(BM_TriangleAccelInit)->RangeMultiplier(10)->Range(1'000, 1'000'000);
BENCHMARK(BM_KDTreeBuildSimple)->RangeMultiplier(10)->Range(1'000, 1'000'000);
