// Coefficients of the band recurrence Y(l, m) = z a(l, m) Y(l-1, m) + b(l, m) Y(l-2, m) of the
// normalised associated Legendre functions, and the sectoral step of factor a(l, l).
#include "sh_state.h"

#include <cmath>
#include <cstddef>
#include <cstring>

#include "frame/clear_block.h"

namespace vekr::sh {

namespace {

// Y00 = 1 / (2 sqrt(pi)) and the band-1 factor sqrt(3 / (4 pi)).
constexpr double kY00 = 0.28209479177387814;
constexpr double kBand1 = 0.4886025119029199;

uint32_t alignUp(uint32_t offset, uintptr_t base)
{
    const uintptr_t address = base + offset;
    const uintptr_t aligned = (address + kTableAlignment - 1) & ~uintptr_t(kTableAlignment - 1);
    return offset + uint32_t(aligned - address);
}

// a(l, m) = sqrt((4 l^2 - 1) / (l^2 - m^2)) for m < l; a(l, l) = -sqrt((2 l + 1) / (2 l)).
double coefficientA(double l, double m)
{
    if (m == l) return -std::sqrt((2.0 * l + 1.0) / (2.0 * l));
    return std::sqrt((4.0 * l * l - 1.0) / (l * l - m * m));
}

// b(l, m) = -sqrt((2 l + 1) ((l - 1)^2 - m^2) / ((2 l - 3) (l^2 - m^2))) for m <= l - 2.
double coefficientB(double l, double m)
{
    return -std::sqrt((2.0 * l + 1.0) * ((l - 1.0) * (l - 1.0) - m * m) /
                      ((2.0 * l - 3.0) * (l * l - m * m)));
}

}  // namespace

uint32_t recurrenceTableFloats(uint32_t order)
{
    return (order + 1) * (order + 2) / 2;
}

uint32_t recurrenceStateBytes(uint32_t order)
{
    return ((8 * recurrenceTableFloats(order) + 30) & ~31u) + 16;
}

void initDirectState(void* state, uint32_t order)
{
    frame::clearBlock(state, kDirectStateBytes);
    SHState header{order, SHMethodDirect, 0, 0};
    std::memcpy(state, &header, sizeof header);
}

void initRecurrenceState(void* state, uint32_t order)
{
    frame::clearBlock(state, recurrenceStateBytes(order));
    const uintptr_t base = reinterpret_cast<uintptr_t>(state);
    const uint32_t floats = recurrenceTableFloats(order);
    const uint32_t offsetA = alignUp(kDirectStateBytes, base);
    const uint32_t offsetB = alignUp(offsetA + 4 * floats, base);
    const SHState header{order, SHMethodRecurrence, offsetA, offsetB};
    std::memcpy(state, &header, sizeof header);
    float* a = reinterpret_cast<float*>(static_cast<char*>(state) + offsetA);
    float* b = reinterpret_cast<float*>(static_cast<char*>(state) + offsetB);
    a[0] = float(kY00);
    a[1] = float(kBand1);
    a[2] = float(-kBand1);
    for (uint32_t l = 2; l <= order; ++l) {
        const size_t block = size_t(l) * (l + 1) / 2;
        for (uint32_t m = 0; m <= l; ++m)
            a[block + m] = float(coefficientA(double(l), double(m)));
        for (uint32_t m = 0; m + 2 <= l; ++m)
            b[block + m] = float(coefficientB(double(l), double(m)));
    }
}

RecurrenceTables recurrenceTables(const SHState& state)
{
    const char* base = reinterpret_cast<const char*>(&state);
    return {reinterpret_cast<const float*>(base + state.coeffA),
            reinterpret_cast<const float*>(base + state.coeffB)};
}

}  // namespace vekr::sh
