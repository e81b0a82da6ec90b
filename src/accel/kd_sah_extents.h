// Triangle extents for the surface-area-heuristic build, optionally clipped to a scene box.
#pragma once

#include <cstdint>

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

}  // namespace vekr::accel
