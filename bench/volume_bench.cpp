// Volume resize: output voxels/s and output bytes/s for each voxel type, layout and kind,
// upscaling 128^3 to 256^3 and downscaling 256^3 to 128^3, beside a plain store of the same
// 64 MiB; the 32f V form on 1 and 2 threads; the Scalar and Avx row kernels of 32f.
// Remap (128^3 sampled from 256^3 through a swirl), affine warp (a 30-degree rotation of 256^3
// about its centre) and the 3-D filter (3 x 3 x 3 on 256^3 and 128^3), on 1 and 2 threads.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <type_traits>
#include <vector>

#include "store_bandwidth.h"
#include "vekcore.h"
#include "vekr.h"
#include "volume/volume_filter.h"
#include "volume/volume_resize.h"

namespace {

// Output voxel counts, the last argument of every resize benchmark.
constexpr int64_t kTiny = 1000;                  // 10^3 from 10^3, shifted by a quarter voxel
constexpr int64_t kUpscale = 256 * 256 * 256;    // from 128^3
constexpr int64_t kDownscale = 128 * 128 * 128;  // from 256^3

struct Geometry {
    int srcExtent, dstExtent;
    double factor, shift;
};

Geometry geometryFor(int64_t outputVoxels)
{
    if (outputVoxels == kUpscale) return {128, 256, 2.0, 0.0};
    if (outputVoxels == kDownscale) return {256, 128, 0.5, 0.0};
    return {10, 10, 1.0, 0.25};
}

// Source and destination of a cubic resize, filled once (the destination too, so that no page
// is first touched while timed).
template <class T>
struct ResizeData {
    Geometry g;
    std::vector<T> src, dst;
    std::vector<const T*> srcPlanes;
    std::vector<T*> dstPlanes;
    std::vector<uint8_t> buffer;

    ResizeData(Geometry geometry, int kind) : g(geometry)
    {
        const size_t srcPlane = size_t(g.srcExtent) * g.srcExtent;
        const size_t dstPlane = size_t(g.dstExtent) * g.dstExtent;
        src.resize(srcPlane * g.srcExtent);
        dst.assign(dstPlane * g.dstExtent, T(0));
        std::mt19937 rng(1);
        std::uniform_int_distribution<int> value(0, 255);
        for (T& v : src)
            v = T(value(rng));
        for (int z = 0; z < g.srcExtent; ++z)
            srcPlanes.push_back(src.data() + z * srcPlane);
        for (int z = 0; z < g.dstExtent; ++z)
            dstPlanes.push_back(dst.data() + z * dstPlane);
        int bytes = 0;
        vekrResizeGetBufSize(srcBox(), dstBox(), 1, kind, &bytes);
        buffer.assign(size_t(bytes), 0);
    }
    VolumeSize srcVolume() const { return {g.srcExtent, g.srcExtent, g.srcExtent}; }
    Cuboid srcBox() const { return {0, 0, 0, g.srcExtent, g.srcExtent, g.srcExtent}; }
    Cuboid dstBox() const { return {0, 0, 0, g.dstExtent, g.dstExtent, g.dstExtent}; }
    int srcRowBytes() const { return g.srcExtent * int(sizeof(T)); }
    int dstRowBytes() const { return g.dstExtent * int(sizeof(T)); }
};

template <class T>
Status resizeV(ResizeData<T>& d, int kind)
{
    const auto f = d.g.factor, s = d.g.shift;
    const int srcPlane = d.srcRowBytes() * d.g.srcExtent,
              dstPlane = d.dstRowBytes() * d.g.dstExtent;
    if constexpr (std::is_same_v<T, uint8_t>)
        return vekrResize_8u_C1V(d.src.data(), d.srcVolume(), d.srcRowBytes(), srcPlane, d.srcBox(),
                                 d.dst.data(), d.dstRowBytes(), dstPlane, d.dstBox(), f, f, f, s, s,
                                 s, kind, d.buffer.data());
    else if constexpr (std::is_same_v<T, uint16_t>)
        return vekrResize_16u_C1V(d.src.data(), d.srcVolume(), d.srcRowBytes(), srcPlane,
                                  d.srcBox(), d.dst.data(), d.dstRowBytes(), dstPlane, d.dstBox(),
                                  f, f, f, s, s, s, kind, d.buffer.data());
    else
        return vekrResize_32f_C1V(d.src.data(), d.srcVolume(), d.srcRowBytes(), srcPlane,
                                  d.srcBox(), d.dst.data(), d.dstRowBytes(), dstPlane, d.dstBox(),
                                  f, f, f, s, s, s, kind, d.buffer.data());
}

template <class T>
Status resizePV(ResizeData<T>& d, int kind)
{
    const auto f = d.g.factor, s = d.g.shift;
    if constexpr (std::is_same_v<T, uint8_t>)
        return vekrResize_8u_C1PV(d.srcPlanes.data(), d.srcVolume(), d.srcRowBytes(), d.srcBox(),
                                  d.dstPlanes.data(), d.dstRowBytes(), d.dstBox(), f, f, f, s, s, s,
                                  kind, d.buffer.data());
    else if constexpr (std::is_same_v<T, uint16_t>)
        return vekrResize_16u_C1PV(d.srcPlanes.data(), d.srcVolume(), d.srcRowBytes(), d.srcBox(),
                                   d.dstPlanes.data(), d.dstRowBytes(), d.dstBox(), f, f, f, s, s,
                                   s, kind, d.buffer.data());
    else
        return vekrResize_32f_C1PV(d.srcPlanes.data(), d.srcVolume(), d.srcRowBytes(), d.srcBox(),
                                   d.dstPlanes.data(), d.dstRowBytes(), d.dstBox(), f, f, f, s, s,
                                   s, kind, d.buffer.data());
}

void setVoxelThroughput(benchmark::State& state, int64_t voxels, size_t voxelBytes)
{
    state.counters["voxels/s"] = benchmark::Counter(double(state.iterations()) * double(voxels),
                                                    benchmark::Counter::kIsRate);
    state.SetBytesProcessed(int64_t(state.iterations()) * voxels * int64_t(voxelBytes));
}

// Arguments: interpolation, threads, output voxels.
template <class T, bool kPlanar>
void BM_Resize(benchmark::State& state)
{
    const int kind = int(state.range(0));
    const int savedThreads = vekGetNumThreads();
    vekSetNumThreads(int(state.range(1)));
    ResizeData<T> data(geometryFor(state.range(2)), kind);
    for (auto _ : state) {
        benchmark::DoNotOptimize(kPlanar ? resizePV(data, kind) : resizeV(data, kind));
        benchmark::ClobberMemory();
    }
    vekSetNumThreads(savedThreads);
    setVoxelThroughput(state, state.range(2), sizeof(T));
}

// The same resize through the Scalar or Avx row kernels (argument 3: 0 or 1), one thread.
void BM_Resize32fKernels(benchmark::State& state)
{
    const int kind = int(state.range(0));
    ResizeData<float> data(geometryFor(state.range(2)), kind);
    const double factor[3] = {data.g.factor, data.g.factor, data.g.factor};
    const double shift[3] = {data.g.shift, data.g.shift, data.g.shift};
    vekr::volume::ResizeRegion region;
    vekr::volume::resolveResizeRegion(true, data.srcVolume(), data.srcBox(), data.dstBox(), factor,
                                      shift, kind, region);
    const auto kernels = state.range(1) ? vekr::volume::avxRowKernels<float>()
                                        : vekr::volume::scalarRowKernels<float>();
    const auto src =
        vekr::volume::blockVolume(static_cast<const float*>(data.src.data()), data.g.srcExtent,
                                  data.g.srcExtent * data.g.srcExtent);
    const auto dst = vekr::volume::blockVolume(data.dst.data(), data.g.dstExtent,
                                               data.g.dstExtent * data.g.dstExtent);
    for (auto _ : state) {
        vekr::volume::resizeSlices(src, data.srcVolume(), dst, region, kind, data.buffer.data(), 0,
                                   data.g.dstExtent, kernels);
        benchmark::ClobberMemory();
    }
    setVoxelThroughput(state, state.range(2), sizeof(float));
}

// A plain store of the upscaled output's 64 MiB. Argument: floats.
void BM_StoreBandwidth(benchmark::State& state)
{
    std::vector<float> dst(size_t(state.range(0)), 0.0f);
    for (auto _ : state) {
        vekr::bench::storeConstant(dst.data(), dst.size());
        benchmark::ClobberMemory();
    }
    setVoxelThroughput(state, state.range(0), sizeof(float));
}

constexpr int kKinds[] = {InterpolationNearest,         InterpolationLinear,
                          InterpolationCubicLagrange,   InterpolationCubicBSpline,
                          InterpolationCubicCatmullRom, InterpolationCubicB05C03};

// Arguments: interpolation, threads, output voxels. The large cases are timed by the wall
// clock, as their teams' work does not show in the calling thread's processor time; the tiny one
// keeps the name that the smoke run selects (ending in /1000).
template <int... kThreads>
void largeResizeArgs(benchmark::internal::Benchmark* b)
{
    b->Unit(benchmark::kMillisecond)->UseRealTime();
    for (int threads : {kThreads...})
        for (int64_t voxels : {kUpscale, kDownscale})
            for (int kind : kKinds)
                b->Args({kind, threads, voxels});
}
template <int... kThreads>
void tinyResizeArgs(benchmark::internal::Benchmark* b)
{
    for (int threads : {kThreads...})
        for (int kind : kKinds)
            b->Args({kind, threads, kTiny});
}

template <class T, bool kPlanar, int... kThreads>
bool registerResize(const char* name)
{
    benchmark::RegisterBenchmark(name, BM_Resize<T, kPlanar>)->Apply(largeResizeArgs<kThreads...>);
    benchmark::RegisterBenchmark(name, BM_Resize<T, kPlanar>)->Apply(tinyResizeArgs<kThreads...>);
    return true;
}
const bool kResizeRegistered[] = {
    registerResize<uint8_t, false, 1>("BM_Resize8uV"),
    registerResize<uint16_t, false, 1>("BM_Resize16uV"),
    registerResize<float, false, 1, 2>("BM_Resize32fV"),
    registerResize<uint8_t, true, 1>("BM_Resize8uPV"),
    registerResize<uint16_t, true, 1>("BM_Resize16uPV"),
    registerResize<float, true, 1>("BM_Resize32fPV"),
};

// Arguments: interpolation, 0 Scalar or 1 Avx, output voxels.
BENCHMARK(BM_Resize32fKernels)
    ->Unit(benchmark::kMillisecond)
    ->ArgsProduct({{InterpolationLinear, InterpolationCubicCatmullRom}, {0, 1}, {kTiny, kUpscale}});
// Argument: floats.
BENCHMARK(BM_StoreBandwidth)->Unit(benchmark::kMillisecond)->Arg(kTiny)->Arg(kUpscale);

// --- Remap, affine warp, filter ----------------------------------------------------------

// A planar cube of random voxels 0 .. 255 (the destination's contents too, so that no page is
// first touched while timed), with one plane pointer per plane.
template <class T>
struct Cube {
    int extent;
    std::vector<T> voxels;
    std::vector<T*> planes;

    explicit Cube(int n, uint32_t seed = 1) : extent(n), voxels(size_t(n) * n * n)
    {
        std::mt19937 rng(seed);
        std::uniform_int_distribution<int> value(0, 255);
        for (T& v : voxels)
            v = T(value(rng));
        for (int z = 0; z < n; ++z)
            planes.push_back(voxels.data() + size_t(z) * n * n);
    }
    const T* const* readPlanes() const { return planes.data(); }
    VolumeSize size() const { return {extent, extent, extent}; }
    Cuboid box() const { return {0, 0, 0, extent, extent, extent}; }
    int rowBytes() const { return extent * int(sizeof(T)); }
};

// The extents of a remap, warp or filter case from its output voxel count: 128^3 or 256^3, or
// 10^3 for the smoke run.
int cubeExtent(int64_t outputVoxels)
{
    return outputVoxels == kUpscale ? 256 : outputVoxels == kDownscale ? 128 : 10;
}

// Maps of an output cube from a source twice its extent: a scaled grid, swirled about the z
// axis by up to 0.3 radians at the centre, fading out with the distance from it.
struct SwirlMaps {
    Cube<float> x, y, z;

    SwirlMaps(int dstExtent, int srcExtent) : x(dstExtent), y(dstExtent), z(dstExtent)
    {
        const double scale = double(srcExtent) / dstExtent, centre = 0.5 * (srcExtent - 1);
        const double radius = 0.25 * srcExtent;
        for (int k = 0; k < dstExtent; ++k)
            for (int j = 0; j < dstExtent; ++j)
                for (int i = 0; i < dstExtent; ++i) {
                    const double u = (i + 0.5) * scale - 0.5 - centre;
                    const double v = (j + 0.5) * scale - 0.5 - centre;
                    const double angle = 0.3 * std::exp(-(u * u + v * v) / (2 * radius * radius));
                    const size_t at = (size_t(k) * dstExtent + j) * dstExtent + i;
                    x.voxels[at] = float(centre + u * std::cos(angle) - v * std::sin(angle));
                    y.voxels[at] = float(centre + u * std::sin(angle) + v * std::cos(angle));
                    z.voxels[at] = float((k + 0.5) * scale - 0.5);
                }
    }
};

template <class T>
Status remap(const Cube<T>& src, const SwirlMaps& maps, Cube<T>& dst, int kind)
{
    const auto args = [&](auto f) {
        return f(src.readPlanes(), src.size(), src.rowBytes(), src.box(), maps.x.readPlanes(),
                 maps.y.readPlanes(), maps.z.readPlanes(), maps.x.rowBytes(), dst.planes.data(),
                 dst.rowBytes(), dst.size(), kind);
    };
    if constexpr (std::is_same_v<T, uint8_t>)
        return args(vekrRemap_8u_C1PV);
    else if constexpr (std::is_same_v<T, uint16_t>)
        return args(vekrRemap_16u_C1PV);
    else
        return args(vekrRemap_32f_C1PV);
}

template <class T>
Status warpAffine(const Cube<T>& src, Cube<T>& dst, const double* coeffs, int kind)
{
    const auto args = [&](auto f) {
        return f(src.readPlanes(), src.size(), src.rowBytes(), src.box(), dst.planes.data(),
                 dst.rowBytes(), dst.box(), coeffs, kind, nullptr);
    };
    if constexpr (std::is_same_v<T, uint8_t>)
        return args(vekrWarpAffine_8u_C1PV);
    else if constexpr (std::is_same_v<T, uint16_t>)
        return args(vekrWarpAffine_16u_C1PV);
    else
        return args(vekrWarpAffine_32f_C1PV);
}

// Arguments: interpolation, threads, output voxels (128^3 from 256^3, or 10^3 from 20^3).
template <class T>
void BM_Remap(benchmark::State& state)
{
    const int kind = int(state.range(0));
    const int savedThreads = vekGetNumThreads();
    vekSetNumThreads(int(state.range(1)));
    const int dstExtent = state.range(2) == kDownscale ? 128 : 10;
    const Cube<T> src(2 * dstExtent);
    const SwirlMaps maps(dstExtent, 2 * dstExtent);
    Cube<T> dst(dstExtent, 2);
    for (auto _ : state) {
        benchmark::DoNotOptimize(remap(src, maps, dst, kind));
        benchmark::ClobberMemory();
    }
    vekSetNumThreads(savedThreads);
    setVoxelThroughput(state, state.range(2), sizeof(T));
}

// Arguments: interpolation, threads, output voxels (256^3, or 10^3): a rotation by 30 degrees
// about the z axis through the cube's centre.
template <class T>
void BM_WarpAffine(benchmark::State& state)
{
    const int kind = int(state.range(0));
    const int savedThreads = vekGetNumThreads();
    vekSetNumThreads(int(state.range(1)));
    const int extent = cubeExtent(state.range(2));
    const Cube<T> src(extent);
    Cube<T> dst(extent, 2);
    const double c = std::cos(M_PI / 6), s = std::sin(M_PI / 6), centre = 0.5 * (extent - 1);
    const double coeffs[12] = {c, -s, 0, centre - c * centre + s * centre,
                               s, c,  0, centre - s * centre - c * centre,
                               0, 0,  1, 0};
    for (auto _ : state) {
        benchmark::DoNotOptimize(warpAffine(src, dst, coeffs, kind));
        benchmark::ClobberMemory();
    }
    vekSetNumThreads(savedThreads);
    setVoxelThroughput(state, state.range(2), sizeof(T));
}

// A 3 x 3 x 3 filter (anchor 1, 1, 1; divisor 27) of an output cube from its source padded by
// one voxel on every side.
struct FilterData {
    Cube<int16_t> src, dst;
    std::vector<const int16_t*> srcPlanes;  // each at voxel (1, 1) of its padded plane
    std::vector<uint8_t> buffer;
    int32_t kernel[27];
    static constexpr VolumeSize kKernel = {3, 3, 3};

    explicit FilterData(int extent) : src(extent + 2), dst(extent, 2)
    {
        for (int i = 0; i < 27; ++i)
            kernel[i] = 1 + i % 3;  // asymmetric, so the reversal matters
        for (int16_t* plane : src.planes)
            srcPlanes.push_back(plane + src.extent + 1);
        int bytes = 0;
        vekrFilterGetBufSize(dst.size(), kKernel, 1, &bytes);
        buffer.assign(size_t(bytes), 0);
    }
    Status run()
    {
        return vekrFilter_16s_C1PV(srcPlanes.data() + 1, src.rowBytes(), dst.planes.data(),
                                   dst.rowBytes(), dst.size(), kernel, kKernel, 1, 1, 1, 27,
                                   buffer.data());
    }
    vekr::volume::FilterJob job() const
    {
        return {srcPlanes.data() + 1,
                src.extent,
                dst.planes.data(),
                dst.extent,
                dst.size(),
                kernel,
                kKernel,
                {1, 1, 1},
                27};
    }
};

// Arguments: threads, output voxels (256^3, 128^3 or 10^3).
void BM_Filter16s(benchmark::State& state)
{
    const int savedThreads = vekGetNumThreads();
    vekSetNumThreads(int(state.range(0)));
    FilterData data(cubeExtent(state.range(1)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(data.run());
        benchmark::ClobberMemory();
    }
    vekSetNumThreads(savedThreads);
    setVoxelThroughput(state, state.range(1), sizeof(int16_t));
}

// The same filter through the Scalar or Avx row kernel (argument 0: 0 or 1), one thread.
void BM_Filter16sRowKernels(benchmark::State& state)
{
    FilterData data(cubeExtent(state.range(1)));
    const auto rowKernel =
        state.range(0) ? vekr::volume::filterRowAvx : vekr::volume::filterRowScalar;
    const vekr::volume::FilterJob job = data.job();
    for (auto _ : state) {
        vekr::volume::filterSlices(job, data.buffer.data(), 0, job.roi.depth, rowKernel);
        benchmark::ClobberMemory();
    }
    setVoxelThroughput(state, state.range(1), sizeof(int16_t));
}

constexpr int kSamplingKinds[] = {InterpolationNearest, InterpolationLinear,
                                  InterpolationCubicCatmullRom};

// Arguments: interpolation, threads, output voxels. As for the resize, large cases are timed
// by the wall clock and the tiny one keeps the name the smoke run selects.
template <int64_t kVoxels>
void samplingArgs(benchmark::internal::Benchmark* b)
{
    if (kVoxels != kTiny) b->Unit(benchmark::kMillisecond)->UseRealTime();
    for (int threads : {1, 2})
        for (int kind : kSamplingKinds)
            b->Args({kind, threads, kVoxels});
}

template <class T>
bool registerSampling(const char* remapName, const char* warpName)
{
    for (auto* args : {samplingArgs<kDownscale>, samplingArgs<kTiny>})
        benchmark::RegisterBenchmark(remapName, BM_Remap<T>)->Apply(args);
    for (auto* args : {samplingArgs<kUpscale>, samplingArgs<kTiny>})
        benchmark::RegisterBenchmark(warpName, BM_WarpAffine<T>)->Apply(args);
    return true;
}
const bool kSamplingRegistered[] = {
    registerSampling<uint8_t>("BM_Remap8u", "BM_WarpAffine8u"),
    registerSampling<uint16_t>("BM_Remap16u", "BM_WarpAffine16u"),
    registerSampling<float>("BM_Remap32f", "BM_WarpAffine32f"),
};

// Arguments: threads, output voxels.
BENCHMARK(BM_Filter16s)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->ArgsProduct({{1, 2}, {kUpscale, kDownscale}});
BENCHMARK(BM_Filter16s)->ArgsProduct({{1, 2}, {kTiny}});
// Arguments: 0 Scalar or 1 Avx, output voxels.
BENCHMARK(BM_Filter16sRowKernels)
    ->Unit(benchmark::kMillisecond)
    ->ArgsProduct({{0, 1}, {kDownscale, kTiny}});

}  // namespace
