// The interpolation kernels of the volume functions, one entry per public interpolation code.
#pragma once

#include <immintrin.h>

namespace vekr::volume {

// One interpolation kind: how many source voxels along an axis feed a sample, and the weight
// w(t) of a tap at distance t from the sample, in double. Nearest has no weight function: it
// takes the voxel whose index is the truncated position.
struct InterpolationKernel {
    int code;  // the public Interpolation* value
    int taps;  // 1, 2 or 4
    double (*weight)(double t);
    // The cubics' four weights of computeCubicWeights for eight lanes of fractions, bit for bit.
    void (*cubicWeightLanes)(__m256 fraction, __m256 weights[4]);
};

// The kernel of a public code; null for an unknown code (3 included).
const InterpolationKernel* findInterpolationKernel(int interpolation);

// Weights of the four taps base-1 .. base+2 of a sample at fraction f (0 <= f <= 1) past base:
// w(|-1-f|), w(|-f|), w(|1-f|), w(|2-f|), each evaluated in double from the widened fraction
// and rounded to float on its own. They are not renormalised, so they sum to 1 only up to
// that rounding.
void computeCubicWeights(const InterpolationKernel& kernel, float fraction, float weights[4]);

}  // namespace vekr::volume
