// Volume resize: output voxels/s and output bytes/s for each voxel type, layout and kind,
// upscaling 128^3 to 256^3 and downscaling 256^3 to 128^3, beside a plain store of the same
// 64 MiB; the 32f V form on 1 and 2 threads; the Scalar and Avx row kernels of 32f.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <type_traits>
#include <vector>

#include "store_bandwidth.h"
#include "vekcore.h"
#include "vekr.h"
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

}  // namespace
