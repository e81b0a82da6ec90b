// Hit points origin + (direction * dist) * eps for runs of rays, under a per-ray mask.
#pragma once

#include <cstdint>

namespace vekr::ray {

// The inputs of one run of rays. Exactly one of origin / originPlanes is set: one shared
// origin (3 floats) or one origin per ray (x, y, z planes).
struct HitPointRays {
    const float* origin;
    const float* const* originPlanes;
    const float* const* dir;  // x, y, z planes
    const float* dist;
    const int32_t* mask;  // 0 keeps a point, -1 clears it
    int count;
    float eps;
};

// Rays go in groups of eight. A full group whose eight mask words are all negative is
// stored unmasked (its points are computed and kept); every other group, and the tail of
// fewer than eight, ANDs each coordinate with the complement of the ray's mask word.
void computeHitPointsScalar(const HitPointRays& rays, float* const hitPoint[3]);
void computeHitPointsAvx(const HitPointRays& rays, float* const hitPoint[3]);

}  // namespace vekr::ray
