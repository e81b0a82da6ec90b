#include "kd_sah_extents.h"

#include <algorithm>
#include <cmath>

namespace vekr::accel {

namespace {

// A triangle trimmed by six planes has at most 3 + 6 corners.
constexpr int kMaxClippedCorners = 9;

struct Polygon {
    double corner[kMaxClippedCorners][3];
    int count = 0;
};

// Keeps the part of the polygon on the inner side of plane x[axis] = plane (keepAbove: the
// side of larger x). Corners on the plane are kept; each edge that crosses it adds its
// crossing point at t = (plane - a) / (b - a), with the plane coordinate set exactly.
void clipByPlane(const Polygon& in, int axis, double plane, bool keepAbove, Polygon& out)
{
    out.count = 0;
    for (int i = 0; i < in.count; ++i) {
        const double* a = in.corner[i];
        const double* b = in.corner[(i + 1) % in.count];
        const bool aInside = keepAbove ? a[axis] >= plane : a[axis] <= plane;
        const bool bInside = keepAbove ? b[axis] >= plane : b[axis] <= plane;
        if (aInside) std::copy(a, a + 3, out.corner[out.count++]);
        if (aInside != bInside) {
            const double t = (plane - a[axis]) / (b[axis] - a[axis]);
            double* c = out.corner[out.count++];
            for (int k = 0; k < 3; ++k)
                c[k] = k == axis ? plane : a[k] + (b[k] - a[k]) * t;
        }
    }
}

// The nearest float not above / not below x.
float floatAtMost(double x)
{
    const float f = float(x);
    return double(f) > x ? std::nextafter(f, -INFINITY) : f;
}
float floatAtLeast(double x)
{
    const float f = float(x);
    return double(f) < x ? std::nextafter(f, INFINITY) : f;
}

}  // namespace

bool clipTriangleBounds(const double p[3][3], const float box[6], float lower[3], float upper[3])
{
    Polygon a, b;
    a.count = 3;
    for (int i = 0; i < 3; ++i)
        std::copy(p[i], p[i] + 3, a.corner[i]);
    for (int axis = 0; axis < 3; ++axis) {
        clipByPlane(a, axis, box[axis], true, b);
        clipByPlane(b, axis, box[axis + 3], false, a);
        if (a.count == 0) return false;
    }
    for (int k = 0; k < 3; ++k) {
        double lo = a.corner[0][k], hi = lo;
        for (int i = 1; i < a.count; ++i) {
            lo = std::min(lo, a.corner[i][k]);
            hi = std::max(hi, a.corner[i][k]);
        }
        // Interpolated corners may stray past another axis's planes by a rounding step.
        lower[k] = std::clamp(floatAtMost(lo), box[k], box[k + 3]);
        upper[k] = std::clamp(floatAtLeast(hi), box[k], box[k + 3]);
    }
    return true;
}

int32_t listTriangles(const MeshView& mesh, const float* clipBox, int32_t first, int32_t end,
                      const TriangleExtents& extents, int32_t* listed, float bounds[6])
{
    int32_t count = 0;
    for (int32_t t = first; t < end; ++t) {
        const int* corner = mesh.triangles + 4 * int64_t(t);
        double p[3][3];
        bool usable = true;
        for (int i = 0; i < 3 && usable; ++i) {
            const int v = corner[i];
            usable = v >= 0 && v < mesh.vertexCount;
            for (int k = 0; k < 3 && usable; ++k) {
                p[i][k] = mesh.vertices[3 * int64_t(v) + k];
                usable = std::isfinite(p[i][k]);
            }
        }
        if (!usable) continue;
        float lower[3], upper[3];
        for (int k = 0; k < 3; ++k) {
            lower[k] = float(std::min({p[0][k], p[1][k], p[2][k]}));
            upper[k] = float(std::max({p[0][k], p[1][k], p[2][k]}));
        }
        if (clipBox != nullptr) {
            bool inside = true;
            for (int k = 0; k < 3; ++k)
                inside = inside && lower[k] >= clipBox[k] && upper[k] <= clipBox[k + 3];
            if (!inside && !clipTriangleBounds(p, clipBox, lower, upper)) continue;
        }
        for (int k = 0; k < 3; ++k) {
            // Adding +0 turns -0 into +0, so equal bounds have equal sort keys.
            extents.lower[k][count] = lower[k] + 0.0f;
            extents.upper[k][count] = upper[k] + 0.0f;
            bounds[k] = std::min(bounds[k], lower[k]);
            bounds[k + 3] = std::max(bounds[k + 3], upper[k]);
        }
        listed[count++] = t;
    }
    return count;
}

Cell rootCellOf(const float* clipBox, const float bounds[6], int32_t count)
{
    Cell root;
    for (int k = 0; k < 3; ++k) {
        if (clipBox != nullptr) {
            root.lo[k] = clipBox[k] + 0.0f;
            root.hi[k] = clipBox[k + 3] + 0.0f;
        } else {
            root.lo[k] = count > 0 ? bounds[k] : 0.0f;
            root.hi[k] = count > 0 ? bounds[k + 3] : 0.0f;
        }
    }
    return root;
}

int32_t computeTriangleExtents(const MeshView& mesh, const float* clipBox,
                               const TriangleExtents& extents, int32_t* listed, Cell& root)
{
    float bounds[6];
    resetBounds(bounds);
    const int32_t count =
        listTriangles(mesh, clipBox, 0, mesh.triangleCount, extents, listed, bounds);
    root = rootCellOf(clipBox, bounds, count);
    return count;
}

}  // namespace vekr::accel
