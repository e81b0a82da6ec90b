// Shading helpers: triangle normals (triangles per second, one thread and two, and each twin on
// its own) and per-ray flat and smooth normals (rays per second, on the aligned four-ray path
// and, with planes shifted one float off alignment, on the scalar path).
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <random>
#include <vector>

#include "shade/normals.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

struct VekFreeDeleter {
    void operator()(void* p) const { vekFree(p); }
};

// count elements of T from vekMalloc (64-byte aligned) and one spare, so that data() + 1 is a
// misaligned view of count elements.
template <class T>
class AlignedBlock {
public:
    explicit AlignedBlock(size_t count) : data_(static_cast<T*>(vekMalloc((count + 1) * sizeof(T))))
    {
    }
    T* data() const { return data_.get(); }

private:
    std::unique_ptr<T, VekFreeDeleter> data_;
};

constexpr int kMeshTriangles = 100'000;

// A mesh with as many vertices as triangles, corners picked at random.
struct BenchMesh {
    std::vector<float> vertices;
    std::vector<int> triangles;
    explicit BenchMesh(int triangleCount)
    {
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> coord(-100.0f, 100.0f);
        vertices.resize(size_t(triangleCount) * 3);
        for (float& x : vertices)
            x = coord(rng);
        std::uniform_int_distribution<int> pick(0, triangleCount - 1);
        for (int t = 0; t < triangleCount; ++t)
            triangles.insert(triangles.end(), {pick(rng), pick(rng), pick(rng), 0});
    }
};

void setTriangleRate(benchmark::State& state, int triangles)
{
    state.counters["triangles/s"] =
        benchmark::Counter(double(state.iterations()) * triangles, benchmark::Counter::kIsRate);
}

// Arguments: thread count, triangle count. The rate is taken from the wall clock: with a team
// the calling thread's CPU time, which the timer reports, is not the elapsed time. (Real-time
// mode would rename the run and take it out of the smoke filter.)
void BM_TriangleNormal(benchmark::State& state)
{
    const int threads = int(state.range(0)), n = int(state.range(1));
    const BenchMesh mesh(n);
    std::vector<float> normals(size_t(n) * 3);
    const int saved = vekGetNumThreads();
    vekSetNumThreads(threads);
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        vekrTriangleNormal_32f(mesh.vertices.data(), mesh.triangles.data(), normals.data(), n);
        benchmark::ClobberMemory();
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    vekSetNumThreads(saved);
    state.counters["triangles/s"] = double(state.iterations()) * n / elapsed.count();
}

template <void (*Kernel)(const float*, const int*, float*, int)>
void BM_TriangleNormalKernel(benchmark::State& state)
{
    const int n = int(state.range(0));
    const BenchMesh mesh(n);
    std::vector<float> normals(size_t(n) * 3);
    for (auto _ : state) {
        Kernel(mesh.vertices.data(), mesh.triangles.data(), normals.data(), n);
        benchmark::ClobberMemory();
    }
    setTriangleRate(state, n);
}

// Coherent hits as a ray block gives them: runs of 1 to 16 rays on one triangle, one run in
// ten a miss. Every array sits in its own aligned block; `shift` moves the views one element
// off alignment, which sends the call down the scalar path.
struct RayBlock {
    int rayCount, shift;
    AlignedBlock<int> hitBlock, indexBlock;
    AlignedBlock<float> triangleNormalBlock, vertexNormalBlock, uBlock, vBlock, xBlock, yBlock,
        zBlock;

    RayBlock(int rays, bool aligned)
        : rayCount(rays),
          shift(aligned ? 0 : 1),
          hitBlock(size_t(rays)),
          indexBlock(size_t(kMeshTriangles) * 3),
          triangleNormalBlock(size_t(kMeshTriangles) * 3),
          vertexNormalBlock(size_t(kMeshTriangles) * 3),
          uBlock(size_t(rays)),
          vBlock(size_t(rays)),
          xBlock(size_t(rays)),
          yBlock(size_t(rays)),
          zBlock(size_t(rays))
    {
        std::mt19937 rng(2);
        std::uniform_real_distribution<float> unit(0.0f, 1.0f), signedUnit(-1.0f, 1.0f);
        std::uniform_int_distribution<int> pickTriangle(0, kMeshTriangles - 1), runLength(1, 16);
        for (int t = 0; t < kMeshTriangles * 3; ++t) {
            triangleNormals()[t] = signedUnit(rng);
            vertexNormals()[t] = signedUnit(rng);
            normalIndices()[t] = pickTriangle(rng);
        }
        for (int i = 0; i < rays;) {
            const int t = unit(rng) < 0.1f ? -1 : pickTriangle(rng);
            for (int run = runLength(rng); run > 0 && i < rays; --run, ++i) {
                float u = unit(rng), v = unit(rng);
                if (u + v > 1.0f) u = 1.0f - u, v = 1.0f - v;
                hits()[i] = t;
                uBlock.data()[shift + i] = u;
                vBlock.data()[shift + i] = v;
            }
        }
    }
    int* hits() const { return hitBlock.data() + shift; }
    int* normalIndices() const { return indexBlock.data() + shift; }
    float* triangleNormals() const { return triangleNormalBlock.data() + shift; }
    float* vertexNormals() const { return vertexNormalBlock.data() + shift; }
    const float* uv(int plane) const { return (plane == 0 ? uBlock : vBlock).data() + shift; }
    float* plane(int axis) const
    {
        return (axis == 0 ? xBlock : axis == 1 ? yBlock : zBlock).data() + shift;
    }
};

void setRayRate(benchmark::State& state, int rays)
{
    state.counters["rays/s"] =
        benchmark::Counter(double(state.iterations()) * rays, benchmark::Counter::kIsRate);
}

template <bool Aligned>
void BM_SurfFlatNormal(benchmark::State& state)
{
    const RayBlock block(int(state.range(0)), Aligned);
    float* const planes[3] = {block.plane(0), block.plane(1), block.plane(2)};
    for (auto _ : state) {
        vekrSurfFlatNormal_32f(block.triangleNormals(), block.hits(), planes, block.rayCount);
        benchmark::ClobberMemory();
    }
    setRayRate(state, block.rayCount);
}

template <bool Aligned>
void BM_SurfSmoothNormal(benchmark::State& state)
{
    const RayBlock block(int(state.range(0)), Aligned);
    float* const planes[3] = {block.plane(0), block.plane(1), block.plane(2)};
    const float* const uv[2] = {block.uv(0), block.uv(1)};
    for (auto _ : state) {
        vekrSurfSmoothNormal_32f(block.vertexNormals(), block.normalIndices(), block.hits(), uv,
                                 planes, block.rayCount, 3);
        benchmark::ClobberMemory();
    }
    setRayRate(state, block.rayCount);
}

}  // namespace

BENCHMARK(BM_TriangleNormal)->ArgsProduct({{1, 2}, {1'000, 10'000, 100'000, 1'000'000}});
BENCHMARK(BM_TriangleNormalKernel<vekr::shade::computeTriangleNormalsScalar>)
    ->RangeMultiplier(10)
    ->Range(1'000, 1'000'000);
BENCHMARK(BM_TriangleNormalKernel<vekr::shade::computeTriangleNormalsAvx>)
    ->RangeMultiplier(10)
    ->Range(1'000, 1'000'000);
BENCHMARK(BM_SurfFlatNormal<true>)->RangeMultiplier(10)->Range(1'000, 1'000'000);
BENCHMARK(BM_SurfFlatNormal<false>)->RangeMultiplier(10)->Range(1'000, 1'000'000);
BENCHMARK(BM_SurfSmoothNormal<true>)->RangeMultiplier(10)->Range(1'000, 1'000'000);
BENCHMARK(BM_SurfSmoothNormal<false>)->RangeMultiplier(10)->Range(1'000, 1'000'000);
