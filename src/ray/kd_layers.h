// Successive hits along rays that share one origin: after each hit the ray goes on from the hit
// point, up to a given number of layers. One ray at a time, or 4-by-4 tiles.
#pragma once

#include <cstdint>

#include "ray_hit.h"

namespace vekr::ray {

// Descent tolerance of the per-ray path, wider than the nearest hit's, so that a continued
// ray starting on a split plane still visits both sides; and that of the tiles.
constexpr float kLayerDescentTolerance = 0.00019f;
constexpr float kLayerTileDescentTolerance = 1.1920929e-5f;
// Earlier hits a continued ray passes over (besides the previous layer's triangle).
constexpr int kExclusionRingSize = 8;

// A block of rays from one origin and its layered hit planes: each output holds `layers`
// blocks of width * height elements one after another (layer k of ray i at k * width * height
// + i).
struct LayeredRayBlock {
    const float* origin;      // 3 floats
    const float* const* dir;  // x, y, z planes (one layer)
    float* dist;              // layer 0: maximum distance in; every layer: distance from origin
    float* hitU;              // weight of the first vertex, per layer
    float* hitV;              // weight of the second vertex, per layer
    int32_t* triIndex;        // hit triangle per layer, or -1
    int width, height, layers;
};

// The per-ray path over a whole block, rays in row order; every layer of triIndex is filled
// with -1 first.
void intersectLayersSingle(const SceneView& scene, const LayeredRayBlock& block);

// The packet path: triIndex is filled with -1, then tiles of 4 x 4 rays go through their
// layers together.
void intersectLayersPacket4x4(const SceneView& scene, const LayeredRayBlock& block);

// Sides multiples of 4, and the three direction planes, dist, both weight planes and the index
// plane at multiples of 16 bytes.
bool takesLayersPacketPath(const LayeredRayBlock& block);

// Chooses the path once for the block. Nothing is written when a side or the layer count is
// below 1.
void intersectLayers(const SceneView& scene, const LayeredRayBlock& block);

}  // namespace vekr::ray
