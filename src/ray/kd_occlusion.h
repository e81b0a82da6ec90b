// Occlusion of segments that share one origin (shadow rays from a light), by KD-tree
// traversal: a ray is done at its first occluder. One ray at a time, or 4-by-4 tiles.
#pragma once

#include <cstdint>

#include "ray_hit.h"

namespace vekr::ray {

// The tested segment is origin + t * dir for 0 < t < 1; the tree is walked over [0, 1.0001].
constexpr float kSegmentEnd = 1.0f;
constexpr float kSegmentFarEnd = 1.0001f;
// Stand-ins for the inverse of a direction component of magnitude up to the float epsilon:
// smaller than the nearest-hit one for single rays, and another again for tiles.
constexpr float kSegmentParallelInverse = 83886.078125f;
constexpr float kSegmentTileParallelInverse = 8388608.0f;

// A block of segments from one origin, rows packed (row stride = width).
struct OcclusionBlock {
    const float* origin;      // 3 floats, usually the light
    const float* const* dir;  // x, y, z planes: each direction spans its whole segment
    int32_t* triIndex;        // out: first occluder found, or -1
    int32_t* mask;            // in: rays to test (0 or more); out: -1 for occluded rays
    int width, height;
};

// The per-ray path, rays in row order. The scene's box is not read.
void findOccludersSingle(const SceneView& scene, const OcclusionBlock& block);

// The packet path: triIndex is filled with -1, then tiles of 4 x 4 rays walk together under
// a lane set made from the mask words. Needs takesOcclusionPacketPath.
void findOccludersPacket4x4(const SceneView& scene, const OcclusionBlock& block);

// Sides multiples of 4, and triIndex, mask and the three direction planes at multiples of 16
// bytes.
bool takesOcclusionPacketPath(const OcclusionBlock& block);

// Chooses the path once for the block; nothing is read or written for a side below 1.
void findOccluders(const SceneView& scene, const OcclusionBlock& block);

}  // namespace vekr::ray
