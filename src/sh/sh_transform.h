// Forward and inverse spherical-harmonic transforms: projection of samples onto the basis by
// accumulation in sample order, and evaluation of expansions at directions.
#pragma once

#include <cstdint>

#include "sh_basis.h"

namespace vekr::sh {

// Sample values in one of three layouts: one plane, three planes, or three interleaved.
struct SampleChannels {
    const float* planes[3];  // planes[j][i * step] is channel j of sample i
    int step;                // 1 for planes, 3 for interleaved channels
    int channels;            // 1 or 3
};

// coeffs[j][k] += channel j of sample i times Y(k, direction i), sample after sample; each
// product is rounded before it is added, as by a scale-then-add of whole vectors.
void accumulateForward(const SHState& state, uint32_t order, const Directions& dirs,
                       const SampleChannels& samples, float* const coeffs[3]);

// Channel j of output i = the dot product of coeffs[j] with the basis at direction i.
struct OutputChannels {
    float* planes[3];
    int step;
    int channels;
};
void evaluateInverse(const SHState& state, uint32_t order, const Directions& dirs,
                     const float* const coeffs[3], const OutputChannels& out);

// The dot product of two runs of n floats with eight running partial sums (element k goes to
// sum k mod 8), added pairwise at the end: ((s0 + s4) + (s2 + s6)) + ((s1 + s5) + (s3 + s7)).
// The twins give the same bits.
float dotProductScalar(const float* a, const float* b, int n);
float dotProductAvx(const float* a, const float* b, int n);

}  // namespace vekr::sh
