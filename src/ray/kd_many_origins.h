// Nearest hits of blocks of rays with one origin each (reflection rays from earlier hits, say),
// by KD-tree traversal: one ray at a time, or 4-by-4 tiles. The box test is strict about rays
// parallel to a slab, and the triangle test passes over triangles edge-on to the ray and keeps
// a hit unless a new one is nearer by more than kCloserBy.
#pragma once

#include <cstdint>

#include "ray_hit.h"

namespace vekr::ray {

// |den| below this: the ray runs nearly in the triangle's plane and the triangle is passed over.
constexpr float kEdgeOnLimit = 1.1920929e-6f;
// A new hit must lie this much nearer than the current distance (the first hit: than the
// caller's maximum distance).
constexpr float kCloserBy = 0.00001f;
// Stand-in inverse of a direction component of magnitude up to the float epsilon, one ray at
// a time (tiles use kParallelInverse).
constexpr float kOwnOriginParallelInverse = 83886.078125f;

// A block of rays with their own origins and their hit planes, rows packed (row stride = width).
struct ManyOriginRayBlock {
    const float* const* origin;  // x, y, z planes
    const float* const* dir;     // x, y, z planes
    float* dist;                 // maximum distance in, nearest hit out (unchanged on a miss)
    float* hitU;                 // weight of the first vertex (written on a hit only)
    float* hitV;                 // weight of the second vertex (written on a hit only)
    int32_t* triIndex;           // hit triangle or -1
    int width, height;
};

// Clips a ray with its own origin to the box: a component of magnitude up to the float epsilon
// misses unless the origin lies strictly inside that slab; the others narrow the interval by
// multiplying with their reciprocal. False for a miss; the far end comes back widened.
bool clipOwnOriginRayToBox(const float* box, const float origin[3], const float dir[3],
                           float maxDist, RayFrame& frame);

// The per-ray path over a whole block, rays in row order.
void intersectManyOriginsSingle(const SceneView& scene, const ManyOriginRayBlock& block);

// The packet path: triIndex is filled with -1, then tiles of 4 x 4 rays traverse together.
void intersectManyOriginsPacket4x4(const SceneView& scene, const ManyOriginRayBlock& block);

// Sides multiples of 4, and the three origin planes, the three direction planes, dist, both
// weight planes and the index plane all at multiples of 16 bytes.
bool takesManyOriginsPacketPath(const ManyOriginRayBlock& block);

// Chooses the path once for the block; nothing is written for a side below 1.
void intersectManyOrigins(const SceneView& scene, const ManyOriginRayBlock& block);

}  // namespace vekr::ray
