// The scene bounding box: the extremes of all vertices, widened by a uniform margin.
#pragma once

namespace vekr::accel {

// Running extremes of a vertex scan; min starts at +FLT_MAX and max at -FLT_MAX.
struct BoxExtremes {
    float min[3];
    float max[3];
};

BoxExtremes initialExtremes();

// Fold vertexCount vertices (x, y, z each) into the extremes. A coordinate replaces a running
// extreme only when strictly beyond it, so NaN never does. Both give the same box.
void scanExtremesScalar(const float* vertices, int vertexCount, BoxExtremes& extremes);
void scanExtremesAvx(const float* vertices, int vertexCount, BoxExtremes& extremes);

// Writes the six box floats: each extreme moved outwards by 1e-4 of the largest magnitude.
void writeWidenedBox(const BoxExtremes& extremes, float* box);

void computeBoundBox(const float* vertices, int vertexCount, float* box);

}  // namespace vekr::accel
