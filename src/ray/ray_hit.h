// The pieces every nearest-hit search shares: the hit record, the clip of a ray to the scene
// box and the ray-triangle test on the projected triangle records.
#pragma once

#include <cmath>
#include <cstdint>

#include "accel/kd_format.h"
#include "vekr.h"

namespace vekr::ray {

// What a search reads of one object: its box (six floats), records and tree.
struct SceneView {
    const float* box;
    const TriangleAccel* triangles;
    const accel::KdNode* root;
};

struct RayHit {
    float dist;        // nearest hit so far; the ray's maximum distance at the start
    float u, v;        // weights of the triangle's first and second vertex
    int32_t triangle;  // -1 until a hit
};

// A direction component of magnitude up to the float epsilon counts as parallel: that axis
// does not narrow the interval, and this stands in for its inverse.
constexpr float kParallelLimit = 1.1920929e-7f;
constexpr float kParallelInverse = 838860800.0f;
// The far end of the box interval is widened so a hit on the box face is kept.
constexpr float kFarWidening = 0.0001f;
// A child is skipped only when the interval clears its side of the split by this much.
constexpr float kDescentTolerance = 0.00001f;

// min and max with the operand roles of the vector instructions (the second operand wins an
// unordered compare), so the scalar and the packet path agree even for NaN.
inline float minLikeVector(float a, float b)
{
    return a < b ? a : b;
}
inline float maxLikeVector(float a, float b)
{
    return a > b ? a : b;
}

// The ray's parameters against the tree: inverse direction and sign flag per axis, and the
// interval [tNear, tFar] inside the box.
struct RayFrame {
    float inverse[3];
    int negative[3];  // 1 when the direction is negative on the axis: the upper child is near
    float tNear, tFar;
};

// Clips the ray to the box axis by axis (x, y, z); false when it misses. The far end comes
// back widened.
inline bool clipRayToBox(const float* box, const float origin[3], const float dir[3], float maxDist,
                         RayFrame& frame)
{
    frame.tNear = 0.0f;
    frame.tFar = maxDist;
    for (int k = 0; k < 3; ++k) {
        if (std::fabs(dir[k]) <= kParallelLimit) {
            frame.inverse[k] = kParallelInverse;
            frame.negative[k] = 0;
            continue;
        }
        const float t1 = (box[k] - origin[k]) / dir[k];
        const float t2 = (box[k + 3] - origin[k]) / dir[k];
        frame.tNear = maxLikeVector(minLikeVector(t1, t2), frame.tNear);
        frame.tFar = minLikeVector(maxLikeVector(t1, t2), frame.tFar);
        frame.inverse[k] = 1.0f / dir[k];
        frame.negative[k] = dir[k] < 0.0f ? 1 : 0;
        if (frame.tNear > frame.tFar) return false;
    }
    frame.tFar = frame.tFar + kFarWidening;
    return true;
}

// The axes of a record: k of the plane equation, u and v of the projection.
struct RecordAxes {
    int k, u, v;
};
inline RecordAxes recordAxes(uint32_t axes)
{
    return {int(axes >> 4 & 3), int(axes >> 2 & 3), int(axes & 3)};
}

// Division-free crossing test on the projected record. den is the plane normal (scaled so
// n[k] = 1) dotted with the direction; beta' and gamma' are den times the weights of the first
// two vertices, alpha' the rest; the ray crosses when all three agree in sign, edges and
// vertices included, for either sign of den. The distance is num / den. Degenerate records
// (axes 0) are the caller's to skip.
struct Crossing {
    float num, den, beta, gamma;
};
inline bool crossTriangle(const TriangleAccel& rec, const float origin[3], const float dir[3],
                          Crossing& c)
{
    const RecordAxes a = recordAxes(rec.axes);
    c.den = rec.nu * dir[a.u] + rec.nv * dir[a.v] + dir[a.k];
    const float eu = rec.pu - origin[a.u];
    const float ev = rec.pv - origin[a.v];
    c.num = (rec.pk + rec.nu * eu) + rec.nv * ev - origin[a.k];
    const float qu = c.num * dir[a.u] - c.den * eu;
    const float qv = c.num * dir[a.v] - c.den * ev;
    c.beta = qu * rec.e2v - qv * rec.e2u;
    c.gamma = qv * rec.e1u - qu * rec.e1v;
    const float alpha = c.den - c.beta - c.gamma;
    return alpha * c.beta >= 0.0f && c.beta * c.gamma >= 0.0f && alpha * c.gamma >= 0.0f;
}

}  // namespace vekr::ray
