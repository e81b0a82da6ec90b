// Spherical harmonics: basis evaluation by both methods (directions/s and output bytes/s,
// beside a plain store of the same bytes), single bands, and the transforms.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "sh/sh_basis.h"
#include "store_bandwidth.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

struct UnitDirections {
    std::vector<float> x, y, z;
    explicit UnitDirections(int n)
    {
        std::mt19937 rng(5);
        std::normal_distribution<float> g;
        for (int i = 0; i < n; ++i) {
            float v[3] = {g(rng), g(rng), g(rng)};
            const float r = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
            x.push_back(v[0] / r);
            y.push_back(v[1] / r);
            z.push_back(v[2] / r);
        }
    }
};

// A state from the core allocator, freed with the object.
struct State {
    SHState* state = nullptr;
    State(unsigned order, int method)
    {
        int size = 0;
        vekrSHGetSize_32f(order, method, &size);
        state = static_cast<SHState*>(vekMalloc(size_t(size)));
        vekrSHInit_32f(state, order, method);
    }
    ~State() { vekFree(state); }
};

void setDirectionThroughput(benchmark::State& state, int64_t directions, int64_t floatsEach)
{
    state.counters["directions/s"] = benchmark::Counter(
        double(state.iterations()) * double(directions), benchmark::Counter::kIsRate);
    state.SetBytesProcessed(int64_t(state.iterations()) * directions * floatsEach * 4);
}

// What BM_SH times: the exported function, the scalar twin of the method (to show what the
// vector paths gain), or the vector twin with streaming stores whatever the size.
enum class ShPath { Export, ScalarTwin, StreamedTwin };

// Arguments: order, directions.
template <int kMethod, ShPath kPath>
void BM_SH(benchmark::State& state)
{
    const unsigned order = unsigned(state.range(0));
    const int n = int(state.range(1));
    const UnitDirections dirs(n);
    const State sh(order, kMethod);
    const int64_t perDirection = int64_t(order + 1) * (order + 1);
    std::vector<float> dst(size_t(n * perDirection), 0.0f);
    const vekr::sh::Directions view{dirs.x.data(), dirs.y.data(), dirs.z.data(), n};
    const vekr::sh::RecurrenceTables tables = vekr::sh::recurrenceTables(*sh.state);
    for (auto _ : state) {
        if (kPath == ShPath::Export)
            vekrSH_32f(view.x, view.y, view.z, n, dst.data(), order, sh.state);
        else if (kPath == ShPath::ScalarTwin && kMethod == SHMethodDirect)
            vekr::sh::evalBasisDirectScalar(view, order, dst.data());
        else if (kPath == ShPath::ScalarTwin)
            vekr::sh::evalBasisRecurrenceScalar(view, order, tables, dst.data());
        else if (kMethod == SHMethodDirect)
            vekr::sh::evalBasisDirectAvx(view, order, dst.data(), vekr::sh::Stores::Streaming);
        else
            vekr::sh::evalBasisRecurrenceAvx(view, order, tables, dst.data(),
                                             vekr::sh::Stores::Streaming);
        benchmark::ClobberMemory();
    }
    setDirectionThroughput(state, n, perDirection);
}

// The same bytes as an order-15 evaluation stored as a constant. Argument: directions.
void BM_StreamingWrite(benchmark::State& state)
{
    const int n = int(state.range(0));
    std::vector<float> dst(size_t(n) * 256, 0.0f);
    for (auto _ : state) {
        vekr::bench::storeConstant(dst.data(), dst.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(dst.size()) * 4);
}

void shArgs(benchmark::internal::Benchmark* b)
{
    for (int order : {2, 4, 8, 15})
        for (int n : {1000, 100000})
            b->Args({order, n});
}

BENCHMARK(BM_SH<SHMethodDirect, ShPath::Export>)->Name("BM_SHDirect")->Apply(shArgs);
BENCHMARK(BM_SH<SHMethodRecurrence, ShPath::Export>)->Name("BM_SHRecurrence")->Apply(shArgs);
BENCHMARK(BM_SH<SHMethodDirect, ShPath::ScalarTwin>)
    ->Name("BM_SHDirectScalar")
    ->Args({2, 1000})
    ->Args({15, 1000});
BENCHMARK(BM_SH<SHMethodRecurrence, ShPath::ScalarTwin>)
    ->Name("BM_SHRecurrenceScalar")
    ->Args({2, 1000})
    ->Args({15, 1000});
// Streaming stores whatever the size, to show what they gain or cost against the size rule.
BENCHMARK(BM_SH<SHMethodDirect, ShPath::StreamedTwin>)
    ->Name("BM_SHDirectStreamed")
    ->Args({15, 100000});
BENCHMARK(BM_SH<SHMethodRecurrence, ShPath::StreamedTwin>)
    ->Name("BM_SHRecurrenceStreamed")
    ->Args({15, 100000});
BENCHMARK(BM_StreamingWrite)->Arg(1000)->Arg(100000);

// Arguments: band, directions.
void BM_SHBand(benchmark::State& state)
{
    const unsigned band = unsigned(state.range(0));
    const int n = int(state.range(1));
    const UnitDirections dirs(n);
    std::vector<float> dst(size_t(n) * (2 * band + 1), 0.0f);
    for (auto _ : state) {
        vekrSHBand_32f(dirs.x.data(), dirs.y.data(), dirs.z.data(), n, dst.data(), band);
        benchmark::ClobberMemory();
    }
    setDirectionThroughput(state, n, 2 * band + 1);
}
BENCHMARK(BM_SHBand)->ArgsProduct({benchmark::CreateDenseRange(0, 15, 1), {1000}});

// Arguments: order, samples. Samples/s for the forward (C1, P3) and inverse (C1, P3) transforms.
template <int kKind>
void BM_SHTransform(benchmark::State& state)
{
    const unsigned order = unsigned(state.range(0));
    const int n = int(state.range(1));
    const UnitDirections dirs(n);
    const State sh(order, SHMethodRecurrence);
    const size_t count = size_t(order + 1) * (order + 1);
    std::vector<float> samples[3], coeffs[3];
    for (int j = 0; j < 3; ++j) {
        samples[j].assign(size_t(n), 0.5f);
        coeffs[j].assign(count, 0.25f);
    }
    const float* in[3] = {samples[0].data(), samples[1].data(), samples[2].data()};
    float* out[3] = {samples[0].data(), samples[1].data(), samples[2].data()};
    const float* c[3] = {coeffs[0].data(), coeffs[1].data(), coeffs[2].data()};
    float* acc[3] = {coeffs[0].data(), coeffs[1].data(), coeffs[2].data()};
    for (auto _ : state) {
        switch (kKind) {
            case 0:
                vekrSHTFwd_32f_C1I(dirs.x.data(), dirs.y.data(), dirs.z.data(), in[0], n, acc[0],
                                   order, sh.state);
                break;
            case 1:
                vekrSHTFwd_32f_P3I(dirs.x.data(), dirs.y.data(), dirs.z.data(), in, n, acc, order,
                                   sh.state);
                break;
            case 2:
                vekrSHTInv_32f_C1(c[0], order, dirs.x.data(), dirs.y.data(), dirs.z.data(), out[0],
                                  n, sh.state);
                break;
            default:
                vekrSHTInv_32f_P3(c, order, dirs.x.data(), dirs.y.data(), dirs.z.data(), out, n,
                                  sh.state);
                break;
        }
        benchmark::ClobberMemory();
    }
    state.counters["samples/s"] =
        benchmark::Counter(double(state.iterations()) * n, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SHTransform<0>)->Name("BM_SHTFwdC1")->Args({4, 1000})->Args({15, 1000});
BENCHMARK(BM_SHTransform<1>)->Name("BM_SHTFwdP3")->Args({4, 1000})->Args({15, 1000});
BENCHMARK(BM_SHTransform<2>)->Name("BM_SHTInvC1")->Args({4, 1000})->Args({15, 1000});
BENCHMARK(BM_SHTransform<3>)->Name("BM_SHTInvP3")->Args({4, 1000})->Args({15, 1000});

}  // namespace
