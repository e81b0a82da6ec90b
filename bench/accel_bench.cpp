// Acceleration structures: the scene box (bytes of vertices read per second, beside a plain
// streaming read of the same bytes), triangle records and KD-tree builds (triangles per
// second); the surface-area-heuristic builds on the example renderer's dense meshes.
#include <benchmark/benchmark.h>
#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "accel/bound_box.h"
#include "vekcore.h"
#include "vekr.h"
#if defined(VEKR_BENCH_RENDER_SCENES)
#include "scene.h"
#endif

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

#if defined(VEKR_BENCH_RENDER_SCENES)
// A dense displaced sphere of the example renderer and its box, made once per size.
struct DenseMesh {
    SceneMesh mesh{};
    BoundBox box{};
    explicit DenseMesh(int triangles)
    {
        sceneMakeDense(&mesh, triangles);
        vekrSetBoundBox_32f(mesh.vertices, mesh.vertexCount, &box.minX);
    }
    ~DenseMesh() { sceneFree(&mesh); }
};

const DenseMesh& denseMesh(int triangles)
{
    static std::map<int, std::unique_ptr<DenseMesh>> meshes;
    auto& m = meshes[triangles];
    if (!m) m = std::make_unique<DenseMesh>(triangles);
    return *m;
}

// The build's requirement rounded up, plus room for the pools to grow (at most 4095 MB, the
// largest budget that does not wrap).
uint32_t roomyBudgetMB(const SceneMesh& mesh)
{
    const double needed =
        (12.0 * mesh.vertexCount + 84.0 * mesh.triangleCount + 33554676.0) / 1048576.0;
    return uint32_t(std::min(4095.0, std::ceil(needed) + 1024.0));
}

// Arguments: dense-mesh triangles, threads, method (0 full depth, 1 at most 50 splits), ratio
// in percent (0 is what the example renderer asks for: fewer, larger leaves). The
// CPU column is the whole process's, worker threads included: on a machine shared with other
// work it is the steadier figure for one thread.
void BM_KDTreeBuildSah(benchmark::State& state)
{
    const DenseMesh& dense = denseMesh(int(state.range(0)));
    const SceneMesh& mesh = dense.mesh;
    const int previousThreads = vekGetNumThreads();
    vekSetNumThreads(int(state.range(1)));
    const uint32_t method = state.range(2) == 0 ? KDTreeBuildSahFullDepth : KDTreeBuildSah;
    const float ratio = float(state.range(3)) / 100.0f;
    const KDTreeBuildParams params{method, 50, ratio, roomyBudgetMB(mesh), &dense.box.minX};
    int treeSize = 0;
    for (auto _ : state) {
        void* tree = nullptr;
        if (vekrKDTreeBuildAlloc(&tree, mesh.vertices, mesh.triangles, mesh.vertexCount,
                                 mesh.triangleCount, &treeSize, &params) != StatusOk) {
            state.SkipWithError("build failed");
            break;
        }
        benchmark::DoNotOptimize(tree);
        vekrKDTreeFree(tree);
    }
    vekSetNumThreads(previousThreads);
    state.counters["triangles/s"] = benchmark::Counter(
        double(state.iterations()) * mesh.triangleCount, benchmark::Counter::kIsRate);
    state.counters["treeMB"] = double(treeSize) / 1048576.0;
}
#endif

}  // namespace

#if defined(VEKR_BENCH_RENDER_SCENES)
BENCHMARK(BM_KDTreeBuildSah)
    ->ArgNames({"triangles", "threads", "method", "ratio"})
    ->ArgsProduct({{10'000, 75'000, 100'000, 1'000'000}, {1, 2}, {0, 1}, {100}})
    ->Args({75'000, 1, 0, 0})
    ->Args({75'000, 2, 0, 0})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
#endif
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
