// Nearest hits of blocks of rays that share one origin, by KD-tree traversal: one ray at a
// time, or 4-by-4 tiles of coherent rays traversing together.
#pragma once

#include <cstdint>

#include "ray_hit.h"

namespace vekr::ray {

// A block of rays sharing one origin and its hit planes, rows packed (row stride = width).
struct EyeRayBlock {
    const float* origin;      // 3 floats
    const float* const* dir;  // x, y, z planes
    float* dist;              // maximum distance in, nearest hit out (unchanged on a miss)
    float* hitU;              // weight of the first vertex (written on a hit only)
    float* hitV;              // weight of the second vertex (written on a hit only)
    int32_t* triIndex;        // hit triangle or -1
    int width, height;
};

// Walks the tree for one ray clipped to the box, updating hit with every nearer triangle.
// The pending far children live in a fixed 50-entry stack: the builders never put more than
// 50 inner nodes on a path.
void traverseSingle(const SceneView& scene, const float origin[3], const float dir[3],
                    RayFrame frame, RayHit& hit);

// The per-ray path over a whole block, rays in row order.
void intersectEyeRaysSingle(const SceneView& scene, const EyeRayBlock& block);

// The packet path: triIndex is filled with -1, then tiles of 4 x 4 rays traverse together.
// Needs sides that are multiples of 4 and 16-byte aligned planes (takesPacketPath).
void intersectEyeRaysPacket4x4(const SceneView& scene, const EyeRayBlock& block);

// Sides multiples of 4, and the three direction planes, dist, both weight planes and the
// index plane all at multiples of 16 bytes.
bool takesPacketPath(const EyeRayBlock& block);

// Chooses the path once for the block; nothing is written for a side below 1.
void intersectEyeRays(const SceneView& scene, const EyeRayBlock& block);

}  // namespace vekr::ray
