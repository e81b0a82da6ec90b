// Evaluation of the real spherical-harmonic basis at runs of directions: closed-form band
// polynomials in double, or the single-precision band recurrence.
#pragma once

#include <cstdint>

#include "sh_state.h"

namespace vekr::sh {

// count directions given as three planes; unit vectors are assumed, not enforced.
struct Directions {
    const float* x;
    const float* y;
    const float* z;
    int count;
};

// How the vector twins store: streaming stores past the caches for a destination of more than
// 16 MiB or more than the largest cache, ordinary stores below; or streaming stores always.
enum class Stores { BySize, Streaming };

// (order + 1)^2 values per direction, direction after direction, index l^2 + l + m. Every
// input is widened to double and every product formed in double; each value is rounded to
// float once. The twins give the same bits.
void evalBasisDirectScalar(const Directions& dirs, uint32_t order, float* dst);
void evalBasisDirectAvx(const Directions& dirs, uint32_t order, float* dst,
                        Stores stores = Stores::BySize);

// The same layout by the recurrence over bands in single precision, with the state's tables.
// The twins give the same bits.
void evalBasisRecurrenceScalar(const Directions& dirs, uint32_t order,
                               const RecurrenceTables& tables, float* dst);
void evalBasisRecurrenceAvx(const Directions& dirs, uint32_t order, const RecurrenceTables& tables,
                            float* dst, Stores stores = Stores::BySize);

// 2 band + 1 values per direction (m = -band .. band) of one band by its polynomial routine;
// from band 2 up z^2 is the single-precision product of z with itself, widened. The twins
// give the same bits.
void evalBandDirectScalar(const Directions& dirs, uint32_t band, float* dst);
void evalBandDirectAvx(const Directions& dirs, uint32_t band, float* dst,
                       Stores stores = Stores::BySize);

}  // namespace vekr::sh
