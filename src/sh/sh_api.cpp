// Entry functions of the spherical harmonics: argument checks in order, then one kernel.
#include <cstddef>

#include "frame/entry_points.h"
#include "sh_basis.h"
#include "sh_state.h"
#include "sh_transform.h"

using namespace vekr;

static_assert(offsetof(SHState, order) == 0 && offsetof(SHState, method) == 4 &&
              offsetof(SHState, coeffA) == 8 && offsetof(SHState, coeffB) == 12);

namespace {

bool knownMethod(int32_t method)
{
    return method == SHMethodDirect || method == SHMethodRecurrence;
}

// The checks every transform shares after its pointers: an empty run, an order beyond the
// state's, or beyond what the basis buffers hold (a recurrence state may serve more) or an
// unknown method. StatusOk with proceed false for a negative length.
Status checkTransform(int length, uint32_t order, const SHState& state, bool& proceed)
{
    proceed = false;
    if (length == 0) return StatusBadSize;
    if (order > state.order) return StatusOutOfRange;
    if (order > sh::kMaxOrder || !knownMethod(state.method)) return StatusOutOfRange;
    proceed = length > 0;
    return StatusOk;
}

// True when any of the arguments is null, tested in argument order.
template <class... P>
bool anyNullArgument(const P*... pointers)
{
    return ((pointers == nullptr) || ...);
}

template <class T>
bool anyNull(T* const* planes)
{
    return planes[0] == nullptr || planes[1] == nullptr || planes[2] == nullptr;
}

}  // namespace

Status entry::vekrSHGetSize_32f(unsigned int order, int method, int* size)
{
    if (size == nullptr) return StatusNullPointer;
    if (method == SHMethodDirect) {
        if (order > sh::kMaxOrder) return StatusBadSize;
        *size = sh::kDirectStateBytes;
        return StatusOk;
    }
    if (method != SHMethodRecurrence) return StatusOutOfRange;
    if (order > sh::kMaxRecurrenceStateOrder) return StatusBadSize;
    *size = int(sh::recurrenceStateBytes(order));
    return StatusOk;
}

Status entry::vekrSHInit_32f(void* state, unsigned int order, int method)
{
    if (state == nullptr) return StatusNullPointer;
    if (method == SHMethodDirect) {
        if (order > sh::kMaxOrder) return StatusBadSize;
        sh::initDirectState(state, order);
        return StatusOk;
    }
    if (method != SHMethodRecurrence) return StatusOutOfRange;
    if (order > sh::kMaxRecurrenceStateOrder) return StatusBadSize;
    sh::initRecurrenceState(state, order);
    return StatusOk;
}

Status entry::vekrSH_32f(const float* x, const float* y, const float* z, int length, float* dst,
                         unsigned int order, const SHState* state)
{
    if (anyNullArgument(x, y, z, dst, state)) return StatusNullPointer;
    if (length == 0) return StatusBadSize;
    if (order > state->order || !knownMethod(state->method)) return StatusOutOfRange;
    // Either method stops at order 15, even for a recurrence state built for more.
    if (order > sh::kMaxOrder) return StatusOutOfRange;
    if (length < 0) return StatusOk;
    const sh::Directions dirs{x, y, z, length};
    if (state->method == SHMethodDirect)
        sh::evalBasisDirectAvx(dirs, order, dst);
    else
        sh::evalBasisRecurrenceAvx(dirs, order, sh::recurrenceTables(*state), dst);
    return StatusOk;
}

Status entry::vekrSHBand_32f(const float* x, const float* y, const float* z, int length, float* dst,
                             unsigned int band)
{
    if (anyNullArgument(x, y, z, dst)) return StatusNullPointer;
    if (band > sh::kMaxOrder) return StatusOutOfRange;
    if (length == 0) return StatusBadSize;
    if (length < 0) return StatusOk;
    sh::evalBandDirectAvx({x, y, z, length}, band, dst);
    return StatusOk;
}

Status entry::vekrSHTFwd_32f_C1I(const float* x, const float* y, const float* z,
                                 const float* samples, int length, float* coeffs,
                                 unsigned int order, const SHState* state)
{
    if (anyNullArgument(x, y, z, samples, coeffs, state)) return StatusNullPointer;
    bool proceed;
    const Status status = checkTransform(length, order, *state, proceed);
    if (!proceed) return status;
    float* const planes[3] = {coeffs, nullptr, nullptr};
    sh::accumulateForward(*state, order, {x, y, z, length}, {{samples, nullptr, nullptr}, 1, 1},
                          planes);
    return StatusOk;
}

Status entry::vekrSHTFwd_32f_P3I(const float* x, const float* y, const float* z,
                                 const float* const samples[3], int length, float* const coeffs[3],
                                 unsigned int order, const SHState* state)
{
    if (anyNullArgument(x, y, z, samples, coeffs, state)) return StatusNullPointer;
    if (anyNull(samples) || anyNull(coeffs)) return StatusNullPointer;
    bool proceed;
    const Status status = checkTransform(length, order, *state, proceed);
    if (!proceed) return status;
    sh::accumulateForward(*state, order, {x, y, z, length},
                          {{samples[0], samples[1], samples[2]}, 1, 3}, coeffs);
    return StatusOk;
}

Status entry::vekrSHTFwd_32f_C3P3I(const float* x, const float* y, const float* z,
                                   const float* samples, int length, float* const coeffs[3],
                                   unsigned int order, const SHState* state)
{
    if (anyNullArgument(x, y, z, samples, coeffs, state)) return StatusNullPointer;
    if (anyNull(coeffs)) return StatusNullPointer;
    bool proceed;
    const Status status = checkTransform(length, order, *state, proceed);
    if (!proceed) return status;
    sh::accumulateForward(*state, order, {x, y, z, length},
                          {{samples, samples + 1, samples + 2}, 3, 3}, coeffs);
    return StatusOk;
}

Status entry::vekrSHTInv_32f_C1(const float* coeffs, unsigned int order, const float* x,
                                const float* y, const float* z, float* dst, int length,
                                const SHState* state)
{
    if (anyNullArgument(coeffs, x, y, z, dst, state)) return StatusNullPointer;
    bool proceed;
    const Status status = checkTransform(length, order, *state, proceed);
    if (!proceed) return status;
    const float* const planes[3] = {coeffs, nullptr, nullptr};
    sh::evaluateInverse(*state, order, {x, y, z, length}, planes, {{dst, nullptr, nullptr}, 1, 1});
    return StatusOk;
}

Status entry::vekrSHTInv_32f_P3(const float* const coeffs[3], unsigned int order, const float* x,
                                const float* y, const float* z, float* const dst[3], int length,
                                const SHState* state)
{
    if (anyNullArgument(coeffs, x, y, z, dst, state)) return StatusNullPointer;
    if (anyNull(coeffs) || anyNull(dst)) return StatusNullPointer;
    bool proceed;
    const Status status = checkTransform(length, order, *state, proceed);
    if (!proceed) return status;
    sh::evaluateInverse(*state, order, {x, y, z, length}, coeffs, {{dst[0], dst[1], dst[2]}, 1, 3});
    return StatusOk;
}

Status entry::vekrSHTInv_32f_P3C3(const float* const coeffs[3], unsigned int order, const float* x,
                                  const float* y, const float* z, float* dst, int length,
                                  const SHState* state)
{
    if (anyNullArgument(coeffs, x, y, z, dst, state)) return StatusNullPointer;
    if (anyNull(coeffs)) return StatusNullPointer;
    bool proceed;
    const Status status = checkTransform(length, order, *state, proceed);
    if (!proceed) return status;
    sh::evaluateInverse(*state, order, {x, y, z, length}, coeffs, {{dst, dst + 1, dst + 2}, 3, 3});
    return StatusOk;
}
