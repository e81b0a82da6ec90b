// Shading helpers: triangle normals (triangles per second, one thread and two, and each twin on
// its own), per-ray flat and smooth normals (rays per second, on the aligned four-ray path
// and, with planes shifted one float off alignment, on the scalar path), and the masked
// arithmetic (rays per second and GB/s beside a plain stream over the same planes).
#include <benchmark/benchmark.h>

#include <immintrin.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <memory>
#include <random>
#include <vector>

#include "shade/masked_arithmetic.h"
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

// --- Masked arithmetic -----------------------------------------------------------------

// Planes of one masked call, each in its own aligned block; `shift` moves every view one float
// off alignment, which sends the colour, normal and distance members down their general path.
// Plane 0 holds ones where a member scales or divides srcDst in place, so repeated calls never
// drift into infinities or denormals; the other planes hold values in [0.5, 2] (normals and
// directions in [-1, 1]). One ray in ten is disabled, in runs of 64 as a ray block gives them.
struct MaskedRays {
    int rayCount, shift;
    std::vector<AlignedBlock<float>> planeBlocks;
    AlignedBlock<int32_t> maskBlock;

    MaskedRays(int rays, int planeCount, bool unitFirstPlane, bool signedValues, bool aligned)
        : rayCount(rays), shift(aligned ? 0 : 1), maskBlock(size_t(rays))
    {
        uint32_t state = 1;
        auto next = [&] { return (state = state * 1664525u + 1013904223u) >> 8; };
        for (int j = 0; j < planeCount; ++j) {
            planeBlocks.emplace_back(size_t(rays));
            for (int i = 0; i < rays; ++i) {
                const float unit = float(next()) * (1.0f / 16777216.0f);
                planes(j)[i] = j == 0 && unitFirstPlane ? 1.0f
                               : signedValues          ? 2.0f * unit - 1.0f
                                                       : 0.5f + 1.5f * unit;
            }
        }
        for (int i = 0; i < rays; ++i)
            mask()[i] = (i / 64) % 10 == 9 ? -1 : 0;
    }
    float* planes(int j) const { return planeBlocks[size_t(j)].data() + shift; }
    int32_t* mask() const { return maskBlock.data() + shift; }
};

enum class MaskedPath { Exported, Scalar };

// Per member: how many planes it reads (the mask included), updates in place and writes, and
// how it is called on those planes in that order.
struct MaskedMember {
    const char* name;
    int read, inPlace, written;
    bool unitFirstPlane, signedValues;
    void (*run)(const MaskedRays&, int, MaskedPath);
};

const MaskedMember kMaskedMembers[] = {
    {"Mul_C1IM", 2, 1, 0, true, false,
     [](const MaskedRays& r, int n, MaskedPath path) {
         if (path == MaskedPath::Exported)
             vekrMul_32f_C1IM(r.planes(0), r.mask(), r.planes(1), n);
         else
             vekr::shade::scaleBySignMaskScalar(r.planes(0), r.mask(), r.planes(1), n);
     }},
    {"Mul_C1P3IM", 2, 3, 0, true, false,
     [](const MaskedRays& r, int n, MaskedPath path) {
         float* const dst[3] = {r.planes(1), r.planes(2), r.planes(3)};
         if (path == MaskedPath::Exported)
             vekrMul_32f_C1P3IM(r.planes(0), r.mask(), dst, n);
         else
             vekr::shade::scalePlanesMaskedScalar(r.planes(0), r.mask(), dst, n);
     }},
    {"Div_C1IM", 2, 1, 0, true, false,
     [](const MaskedRays& r, int n, MaskedPath path) {
         if (path == MaskedPath::Exported)
             vekrDiv_32f_C1IM(r.planes(0), r.mask(), r.planes(1), n);
         else
             vekr::shade::divideMaskedScalar(r.planes(0), r.mask(), r.planes(1), n);
     }},
    {"AddMulMul_AC1P3IM", 5, 3, 0, false, false,
     [](const MaskedRays& r, int n, MaskedPath path) {
         static const float colour[3] = {0.25f, 0.5f, 0.75f};
         const float* const src[3] = {r.planes(1), r.planes(2), r.planes(3)};
         float* const dst[3] = {r.planes(4), r.planes(5), r.planes(6)};
         if (path == MaskedPath::Exported)
             vekrAddMulMul_32f_AC1P3IM(colour, r.planes(0), src, r.mask(), dst, n);
         else
             vekr::shade::accumulateColourScalar(colour, r.planes(0), src, r.mask(), dst, n);
     }},
    {"Dot_P3C1M", 7, 0, 1, false, true,
     [](const MaskedRays& r, int n, MaskedPath path) {
         const float* const a[3] = {r.planes(0), r.planes(1), r.planes(2)};
         const float* const b[3] = {r.planes(3), r.planes(4), r.planes(5)};
         if (path == MaskedPath::Exported)
             vekrDot_32f_P3C1M(a, b, r.mask(), r.planes(6), n);
         else
             vekr::shade::dotPlanesMaskedScalar(a, b, r.mask(), r.planes(6), n);
     }},
    {"DotChangeNorm_IM", 4, 3, 1, false, true,
     [](const MaskedRays& r, int n, MaskedPath path) {
         const float* const dir[3] = {r.planes(0), r.planes(1), r.planes(2)};
         float* const normal[3] = {r.planes(3), r.planes(4), r.planes(5)};
         if (path == MaskedPath::Exported)
             vekrDotChangeNorm_32f_IM(dir, r.mask(), normal, r.planes(6), n);
         else
             vekr::shade::faceNormalsScalar(dir, r.mask(), normal, r.planes(6), n);
     }},
    {"DistAttenuationSO_M", 4, 0, 1, false, true,
     [](const MaskedRays& r, int n, MaskedPath path) {
         static const float point[3] = {0.1f, 0.2f, 0.3f};
         const float* const hit[3] = {r.planes(0), r.planes(1), r.planes(2)};
         if (path == MaskedPath::Exported)
             vekrDistAttenuationSO_32f_M(point, hit, r.mask(), r.planes(3), n);
         else
             vekr::shade::attenuationDistanceScalar(point, hit, r.mask(), r.planes(3), n);
     }},
};

// Bytes moved per ray: every read plane once, every in-place plane read and written, every
// written plane once (the write-allocate read it causes is not counted).
int bytesPerRay(int read, int inPlace, int written)
{
    return 4 * (read + 2 * inPlace + written);
}

void setMaskedRates(benchmark::State& state, int rays, int bytesPerRay)
{
    const double calls = double(state.iterations());
    state.counters["rays/s"] = benchmark::Counter(calls * rays, benchmark::Counter::kIsRate);
    state.counters["GB/s"] = benchmark::Counter(calls * rays * bytesPerRay * 1e-9,
                                                benchmark::Counter::kIsRate);
}

void BM_Masked(benchmark::State& state, const MaskedMember& member, MaskedPath path, bool aligned)
{
    const int n = int(state.range(0));
    const MaskedRays rays(n, member.read - 1 + member.inPlace + member.written,
                          member.unitFirstPlane, member.signedValues, aligned);
    for (auto _ : state) {
        member.run(rays, n, path);
        benchmark::ClobberMemory();
    }
    setMaskedRates(state, n, bytesPerRay(member.read, member.inPlace, member.written));
}

// The memory-bandwidth reference for a member: the same planes and bytes with no arithmetic
// beyond a sum, 8 floats per step with plain loads and stores. Read planes are summed, in-place
// planes get the sum added, written planes get the sum.
template <int Read, int InPlace, int Written>
void streamPlanes(const MaskedRays& r, int n)
{
    for (int i = 0; i + 8 <= n; i += 8) {
        __m256 sum = _mm256_load_ps(r.planes(0) + i);
        for (int j = 1; j < Read; ++j)
            sum = _mm256_add_ps(sum, _mm256_load_ps(r.planes(j) + i));
        for (int j = Read; j < Read + InPlace; ++j)
            _mm256_store_ps(r.planes(j) + i, _mm256_add_ps(_mm256_load_ps(r.planes(j) + i), sum));
        for (int j = Read + InPlace; j < Read + InPlace + Written; ++j)
            _mm256_store_ps(r.planes(j) + i, sum);
    }
}

template <int Read, int InPlace, int Written>
void BM_Stream(benchmark::State& state)
{
    const int n = int(state.range(0));
    const MaskedRays rays(n, Read + InPlace + Written, false, false, true);
    for (auto _ : state) {
        streamPlanes<Read, InPlace, Written>(rays, n);
        benchmark::ClobberMemory();
    }
    setMaskedRates(state, n, bytesPerRay(Read, InPlace, Written));
}

const bool kMaskedRegistered = [] {
    for (const MaskedMember& member : kMaskedMembers) {
        const std::string base = std::string("Masked/") + member.name;
        const struct {
            const char* suffix;
            MaskedPath path;
            bool aligned;
        } variants[] = {{"/Exported", MaskedPath::Exported, true},
                        {"/ExportedShifted", MaskedPath::Exported, false},
                        {"/Scalar", MaskedPath::Scalar, true}};
        for (const auto& v : variants)
            benchmark::RegisterBenchmark((base + v.suffix).c_str(), BM_Masked, member, v.path,
                                         v.aligned)
                ->Arg(1'000)
                ->Arg(10'000'000);
    }
    // Planes read (the mask included), updated in place and written, as the members above.
    const struct {
        const char* name;
        void (*fn)(benchmark::State&);
    } streams[] = {{"Stream/2r1u/Mul_C1IM,Div_C1IM", BM_Stream<2, 1, 0>},
                   {"Stream/2r3u/Mul_C1P3IM", BM_Stream<2, 3, 0>},
                   {"Stream/5r3u/AddMulMul_AC1P3IM", BM_Stream<5, 3, 0>},
                   {"Stream/7r1w/Dot_P3C1M", BM_Stream<7, 0, 1>},
                   {"Stream/4r3u1w/DotChangeNorm_IM", BM_Stream<4, 3, 1>},
                   {"Stream/4r1w/DistAttenuationSO_M", BM_Stream<4, 0, 1>}};
    for (const auto& stream : streams)
        benchmark::RegisterBenchmark(stream.name, stream.fn)->Arg(1'000)->Arg(10'000'000);
    return true;
}();

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
