// Secondary rays from surface points: shadow rays from a point light, mirror reflections.
#pragma once

#include <cstdint>

namespace vekr::ray {

// A point whose |(point - light) . normal| is below this is lit at too grazing an angle and
// counts as unlit: 0.1 degree in radians, pi / 1800 = 0.0017453292519943 (the same float).
inline constexpr float kGrazingDot = 0.0017453292f;

// One run of surface points lit by one point light (element i of every plane is ray i).
struct ShadowRayRun {
    const float* lightPos;         // 3 floats, the common origin of the shadow rays
    const float* eyeDot;           // per ray; its sign tells the side the surface is seen from
    const float* const* normal;    // x, y, z planes
    const float* const* hitPoint;  // x, y, z planes
    int32_t* mask;                 // in/out: negative = inactive; -1 written for unlit points
    float* shadowDot;              // out: |v . normal|, 0 for invalid rays
    float* const* shadowDir;       // out x, y, z planes: v = point - light, 0 for invalid rays
    int count;                     // rays; below 1 nothing is read or written
};

// With v = point - light and dot = ((v.x * n.x) + (v.y * n.y)) + (v.z * n.z), a ray is valid
// when its mask word is >= 0, eyeDot * dot > 0 and |dot| >= kGrazingDot. Rays go in groups of
// eight, then a tail of count mod 8, and the two treat mask words differently:
// - groups: every invalid ray's word becomes -1 (negative ones too); a valid ray's word goes
//   through float and back, so words above 2^24 round to the nearest float;
// - tail: |dot| < kGrazingDot is taken as 0 before the eyeDot test, and a word that was
//   already negative is kept as it is.
// NaN in v, the normal or eyeDot fails a comparison, so the ray is invalid on both paths.
void castShadowRaysScalar(const ShadowRayRun& rays);
void castShadowRaysAvx(const ShadowRayRun& rays);

// One run of incident directions to mirror about their normals.
struct ReflectionRayRun {
    const float* const* incident;  // x, y, z planes, D
    const int32_t* mask;           // negative = inactive, gets (0, 0, 0)
    const float* const* normal;    // x, y, z planes, N (unit length for a true mirror)
    float* const* reflected;       // out x, y, z planes, R = D - (dot + dot) * N, not normalised
    int count;                     // rays; below 1 nothing is read or written
};

// By groups of four, count a multiple of 4: dot = ((D.x * N.x) + (D.y * N.y)) + D.z * N.z.
// A group whose four mask words are negative is stored as zeros, D and N unread. The aligned
// variant needs all nine planes and the mask 16-byte aligned; both give the scalar twin's bits.
void reflectQuadsScalar(const ReflectionRayRun& rays);
void reflectQuadsAvx(const ReflectionRayRun& rays);
void reflectQuadsAlignedAvx(const ReflectionRayRun& rays);

// Any count, ray by ray with dot = ((D.y * N.y) + (D.z * N.z)) + D.x * N.x: the last bit may
// differ from the grouped path.
void reflectOneByOne(const ReflectionRayRun& rays);

// Chooses the path once per call: groups of four when count is a multiple of 4 (aligned
// variant when all ten pointers allow it), else one by one.
void castReflectionRays(const ReflectionRayRun& rays);

}  // namespace vekr::ray
