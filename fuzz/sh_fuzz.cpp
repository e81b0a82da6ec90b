// Fuzzes the spherical-harmonic entry points: the state size query and initialisation for any
// order and method, then the basis, one band and the six transforms with random orders,
// lengths and directions, on states and buffers of exactly the sizes documented.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "exact_buffers.h"
#include "fuzz_inputs.h"

using namespace vekr::fuzz;

namespace {

constexpr unsigned kMaxOrder = 15;                    // the highest order either method evaluates
constexpr unsigned kMaxRecurrenceStateOrder = 23168;  // the last whose state size fits an int
constexpr int kMaxStateBytes = 1 << 20;               // larger states are sized but not made
constexpr int kMaxLength = 40;

unsigned pickOrder(FuzzedDataProvider& in)
{
    switch (in.ConsumeIntegralInRange<int>(0, 15)) {
        case 14:
            return in.ConsumeIntegralInRange<unsigned>(16, 400);
        case 15:
            return in.ConsumeIntegral<unsigned>();
        default:
            return in.ConsumeIntegralInRange<unsigned>(0, kMaxOrder + 1);
    }
}

int pickMethod(FuzzedDataProvider& in)
{
    if (rarely(in)) return in.ConsumeBool() ? 2 : in.ConsumeIntegral<int>();
    return in.ConsumeBool() ? SHMethodRecurrence : SHMethodDirect;
}

std::size_t basisCount(unsigned order)
{
    return std::size_t(order + 1) * std::size_t(order + 1);
}

// The status the documented order and method checks give, for the size query and the
// initialisation alike (after their pointer checks).
Status stateCheckStatus(unsigned order, int method)
{
    if (method == SHMethodDirect) return order > kMaxOrder ? StatusBadSize : StatusOk;
    if (method != SHMethodRecurrence) return StatusOutOfRange;
    return order > kMaxRecurrenceStateOrder ? StatusBadSize : StatusOk;
}

// A state sized by the query and set up by the initialisation, or null when either refuses the
// order and method or the size is too large to make here.
SHState* makeState(FuzzedDataProvider& in, ExactBlocks& blocks, unsigned order, int method)
{
    const Status checks = stateCheckStatus(order, method);
    int size = -7;
    int* sizeOut = maybeNull(in, &size);
    requireStatus(vekrSHGetSize_32f(order, method, sizeOut), sizeOut ? checks : StatusNullPointer,
                  "vekrSHGetSize_32f");
    require((sizeOut && checks == StatusOk) || size == -7, "a refused size query wrote");
    if (checks != StatusOk) {
        uint8_t* buffer = maybeNull(in, blocks.take<uint8_t>(64));
        const auto before = blocks.snapshot();
        requireStatus(vekrSHInit_32f(buffer, order, method), buffer ? checks : StatusNullPointer,
                      "vekrSHInit_32f");
        require(blocks.unchangedSince(before), "a refused initialisation wrote");
        return nullptr;
    }
    if (!sizeOut) return nullptr;
    if (method == SHMethodDirect) require(size == 16, "a direct state is not 16 bytes");
    if (size <= 0 || size > kMaxStateBytes) return nullptr;
    // The block starts on a 64-byte boundary, as the state's tables need.
    auto* state = reinterpret_cast<SHState*>(blocks.take<uint8_t>(std::size_t(size)));
    requireStatus(vekrSHInit_32f(state, order, method), StatusOk, "vekrSHInit_32f");
    require(state->order == order && state->method == method, "the state header is not as set up");
    return state;
}

struct Directions {
    float* x;
    float* y;
    float* z;
};

Directions makeDirections(FuzzedDataProvider& in, ExactBlocks& blocks, std::size_t n)
{
    Directions d{blocks.take<float>(n), blocks.take<float>(n), blocks.take<float>(n)};
    // Unit vectors mostly; the special values land on single components.
    uint64_t seed = in.ConsumeIntegral<uint64_t>();
    for (std::size_t i = 0; i < n; ++i) {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;  // Knuth's MMIX LCG
        const double z = double(seed >> 11) / double(1ull << 53) * 2.0 - 1.0;
        const double phi = double((seed * 31) >> 11) / double(1ull << 53) * 6.283185307179586;
        const double r = std::sqrt(std::max(0.0, 1.0 - z * z));
        d.x[i] = float(r * std::cos(phi));
        d.y[i] = float(r * std::sin(phi));
        d.z[i] = float(z);
    }
    sprinkleSpecials(in, d.x, n);
    sprinkleSpecials(in, d.y, n);
    sprinkleSpecials(in, d.z, n);
    return d;
}

enum class Call { Basis, Band, FwdC1, FwdP3, FwdC3, InvC1, InvP3, InvP3C3 };

// The status the documented checks give, for a call whose pointers are all present.
Status expectedEvaluation(Call call, int length, unsigned order, unsigned band,
                          const SHState& state)
{
    if (call == Call::Band) {
        if (band > kMaxOrder) return StatusOutOfRange;
        return length == 0 ? StatusBadSize : StatusOk;
    }
    if (length == 0) return StatusBadSize;
    if (order > state.order) return StatusOutOfRange;
    if (order > kMaxOrder) return StatusOutOfRange;
    if (state.method != SHMethodDirect && state.method != SHMethodRecurrence)
        return StatusOutOfRange;
    return StatusOk;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const LibraryBlocksReturned noLeak;
    ExactBlocks blocks(pickFence(in));
    const unsigned stateOrder = pickOrder(in);
    const int stateMethod = pickMethod(in);
    SHState* state = makeState(in, blocks, stateOrder, stateMethod);
    if (state == nullptr) return 0;
    // A caller may overwrite the method with anything: an unknown one must be refused.
    if (rarely(in)) state->method = in.ConsumeIntegralInRange<int32_t>(2, 9);

    const auto call = Call(in.ConsumeIntegralInRange<int>(0, 7));
    const int length = rarely(in) ? in.ConsumeIntegralInRange<int>(-3, 0)
                                  : in.ConsumeIntegralInRange<int>(1, kMaxLength);
    const unsigned order =
        rarely(in) ? pickOrder(in)
                   : std::min(stateOrder, in.ConsumeIntegralInRange<unsigned>(0, kMaxOrder));
    const unsigned band =
        rarely(in) ? pickOrder(in) : in.ConsumeIntegralInRange<unsigned>(0, kMaxOrder);
    const std::size_t n = std::size_t(std::max(length, 0));
    // Outputs are sized for what the call may write; orders it must refuse get no room at all.
    const std::size_t k = order <= kMaxOrder ? basisCount(order) : 0;
    const std::size_t bandValues = band <= kMaxOrder ? 2 * std::size_t(band) + 1 : 0;

    const Directions dir = makeDirections(in, blocks, n);
    float *samples[3], *coeffs[3], *planes[3];
    for (int c = 0; c < 3; ++c) {
        samples[c] = blocks.take<float>(n);
        fillValues(in, samples[c], n, [](uint64_t r) { return float(int(r % 201) - 100) * 0.01f; });
        coeffs[c] = blocks.take<float>(k);
        fillValues(in, coeffs[c], k, [](uint64_t r) { return float(int(r % 201) - 100) * 0.01f; });
        planes[c] = blocks.take<float>(n);
    }
    float* interleaved = blocks.take<float>(3 * n);
    fillValues(in, interleaved, 3 * n,
               [](uint64_t r) { return float(int(r % 201) - 100) * 0.01f; });
    float* basis = blocks.take<float>(call == Call::Band ? n * bandValues : n * k);

    // Any one pointer, or one plane of a P3 argument, may be null.
    const int nullArgument = rarely(in) ? in.ConsumeIntegralInRange<int>(0, 7) : -1;
    const int nullPlane = rarely(in) ? in.ConsumeIntegralInRange<int>(0, 2) : -1;
    auto arg = [&](int i, auto* p) { return i == nullArgument ? decltype(p)(nullptr) : p; };
    const float* x = arg(0, dir.x);
    const float* y = arg(1, dir.y);
    const float* z = arg(2, dir.z);
    const SHState* st = arg(3, state);
    const float* const samplesP3[3] = {nullPlane == 0 ? nullptr : samples[0],
                                       nullPlane == 1 ? nullptr : samples[1],
                                       nullPlane == 2 ? nullptr : samples[2]};
    float* const coeffsP3[3] = {nullPlane == 0 ? nullptr : coeffs[0],
                                nullPlane == 1 ? nullptr : coeffs[1],
                                nullPlane == 2 ? nullptr : coeffs[2]};
    float* const dstP3[3] = {nullPlane == 0 ? nullptr : planes[0],
                             nullPlane == 1 ? nullptr : planes[1],
                             nullPlane == 2 ? nullptr : planes[2]};
    const float* const* samplesIn = arg(4, samplesP3);
    float* const* coeffsIn = arg(5, coeffsP3);
    float* const* dstIn = arg(6, dstP3);
    float* single = arg(7, basis);

    bool nullGiven = !x || !y || !z;
    Status status = StatusOk;
    const auto before = blocks.snapshot();
    switch (call) {
        case Call::Basis:
            nullGiven = nullGiven || !single || !st;
            status = vekrSH_32f(x, y, z, length, single, order, st);
            break;
        case Call::Band:
            nullGiven = nullGiven || !single;
            status = vekrSHBand_32f(x, y, z, length, single, band);
            break;
        case Call::FwdC1:
            nullGiven = nullGiven || !st || !single || !coeffsIn;
            status = vekrSHTFwd_32f_C1I(x, y, z, single ? samples[0] : nullptr, length,
                                        coeffsIn ? coeffs[0] : nullptr, order, st);
            break;
        case Call::FwdP3:
            nullGiven = nullGiven || !st || !samplesIn || !coeffsIn || nullPlane >= 0;
            status = vekrSHTFwd_32f_P3I(x, y, z, samplesIn, length, coeffsIn, order, st);
            break;
        case Call::FwdC3:
            nullGiven = nullGiven || !st || !single || !coeffsIn || nullPlane >= 0;
            status = vekrSHTFwd_32f_C3P3I(x, y, z, single ? interleaved : nullptr, length, coeffsIn,
                                          order, st);
            break;
        case Call::InvC1:
            nullGiven = nullGiven || !st || !single || !coeffsIn;
            status = vekrSHTInv_32f_C1(coeffsIn ? coeffs[0] : nullptr, order, x, y, z,
                                       single ? planes[0] : nullptr, length, st);
            break;
        case Call::InvP3:
            nullGiven = nullGiven || !st || !coeffsIn || !dstIn || nullPlane >= 0;
            status = vekrSHTInv_32f_P3(reinterpret_cast<const float* const*>(coeffsIn), order, x, y,
                                       z, dstIn, length, st);
            break;
        case Call::InvP3C3:
            nullGiven = nullGiven || !st || !coeffsIn || !single || nullPlane >= 0;
            status = vekrSHTInv_32f_P3C3(reinterpret_cast<const float* const*>(coeffsIn), order, x,
                                         y, z, single ? interleaved : nullptr, length, st);
            break;
    }
    const Status expected =
        nullGiven ? StatusNullPointer : expectedEvaluation(call, length, order, band, *state);
    requireStatus(status, expected, "a spherical-harmonic evaluation");
    if (status != StatusOk || length < 0)
        require(blocks.unchangedSince(before), "a refused or empty evaluation wrote");
    return 0;
}
