// Triangle extents for the surface-area-heuristic build, optionally clipped to a scene box.
#pragma once

#include <cstdint>
#include <limits>

namespace vekr::accel {

// The mesh as the caller passed it: three floats per vertex, four ints per triangle.
struct MeshView {
    const float* vertices;
    const int* triangles;
    int vertexCount;
    int triangleCount;
};

// One float plane per bound, by position in the list of the triangles the tree holds:
// lower[k] and upper[k] on axis k.
struct TriangleExtents {
    float* lower[3];
    float* upper[3];
};

// An axis-aligned cell: lo and hi on each axis, lo <= hi.
struct Cell {
    float lo[3];
    float hi[3];
};

// The bounds of the part of triangle (p0, p1, p2) inside box (min x, y, z, max x, y, z),
// trimmed as a polygon plane by plane in double precision and rounded outwards to float.
// False when no part lies inside, which includes every box with a NaN bound.
bool clipTriangleBounds(const double p[3][3], const float box[6], float lower[3], float upper[3]);

// Lists, ascending, the triangles the tree will hold, fills their extents in the same order and
// returns their count. Left out are triangles with a vertex index outside the vertex array, with a
// non-finite coordinate, and (with clipBox) those wholly outside the box: no ray can hit
// them inside the tree's cells. Extents hold no -0. The root cell is clipBox when given,
// otherwise the bounds of the listed extents (zero when none is listed).
int32_t computeTriangleExtents(const MeshView& mesh, const float* clipBox,
                               const TriangleExtents& extents, int32_t* listed, Cell& root);

// The same in parts: lists the triangles first .. end-1 at positions 0, 1, ... of extents and
// listed, and widens bounds (min x, y, z, max x, y, z; see resetBounds) by their extents as
// they come, a bound replaced only by a strictly smaller or larger value (so a bound of 0 keeps
// the sign of the first zero). Parts merged in order with the same rule give the bounds of the
// whole. Returns the count.
int32_t listTriangles(const MeshView& mesh, const float* clipBox, int32_t first, int32_t end,
                      const TriangleExtents& extents, int32_t* listed, float bounds[6]);

inline void resetBounds(float bounds[6])
{
    for (int k = 0; k < 3; ++k) {
        bounds[k] = std::numeric_limits<float>::infinity();
        bounds[k + 3] = -std::numeric_limits<float>::infinity();
    }
}

// The root cell of count listed triangles with those bounds.
Cell rootCellOf(const float* clipBox, const float bounds[6], int32_t count);

}  // namespace vekr::accel
