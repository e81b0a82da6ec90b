// Projected triangle records after Badouel (1990): the plane as a function of the two minor
// axes and the edge vectors scaled so that barycentric weights follow from two dot products.
// Everything is computed in double and only the stored fields are rounded to float.
#include "triangle_accel.h"

#include <cmath>
#include <cstddef>

namespace vekr::accel {
namespace {

// Both minor normal components below the double machine epsilon (unnormalised) mean the
// triangle lies in a plane of its dominant axis.
constexpr double kAxisAlignedEpsilon = 2.220446049250313e-16;

struct DominantAxes {
    int k, u, v;
};

// Ties go to the lower axis: x before y before z.
DominantAxes chooseDominantAxes(const double n[3])
{
    int k = std::fabs(n[1]) > std::fabs(n[0]) ? 1 : 0;
    if (std::fabs(n[2]) > std::fabs(n[k])) k = 2;
    switch (k) {
        case 0:
            return {0, 1, 2};
        case 1:
            return {1, 0, 2};
        default:
            return {2, 0, 1};
    }
}

}  // namespace

TriangleAccel makeTriangleAccel(const float* p0f, const float* p1f, const float* p2f)
{
    double p2[3], e1[3], e2[3];
    for (int a = 0; a < 3; ++a) {
        p2[a] = p2f[a];
        e1[a] = double(p0f[a]) - p2[a];
        e2[a] = double(p1f[a]) - p2[a];
    }
    const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                         e1[0] * e2[1] - e1[1] * e2[0]};
    const auto [k, u, v] = chooseDominantAxes(n);
    TriangleAccel rec{};
    // Zero normal: collinear or coincident vertices. The ray tests never hit a zero record.
    if (n[k] == 0.0) return rec;

    const double d = 1.0 / n[k];
    // The u-v weights flip sign when the dominant axis is y, since (z, x) is the cyclic order.
    const double s = k == 1 ? -1.0 : 1.0;
    rec.axes = uint32_t(k * 16 + u * 4 + v);
    if (std::fabs(n[v]) < kAxisAlignedEpsilon && std::fabs(n[u]) < kAxisAlignedEpsilon) {
        rec.axes |= kAxisAlignedFlag;
    } else {
        rec.nu = float(d * n[u]);
        rec.nv = float(d * n[v]);
    }
    const double f = s * d;
    rec.pk = float(p2[k]);
    rec.pu = float(p2[u]);
    rec.pv = float(p2[v]);
    rec.e2u = float(f * e2[u]);
    rec.e2v = float(f * e2[v]);
    rec.e1u = float(f * e1[u]);
    rec.e1v = float(f * e1[v]);
    return rec;
}

void initTriangleAccels(TriangleAccel* out, const float* vertices, const int* triangles,
                        int triangleCount)
{
    for (int t = 0; t < triangleCount; ++t) {
        const int* tri = triangles + std::ptrdiff_t(t) * 4;
        out[t] = makeTriangleAccel(vertices + std::ptrdiff_t(tri[0]) * 3,
                                   vertices + std::ptrdiff_t(tri[1]) * 3,
                                   vertices + std::ptrdiff_t(tri[2]) * 3);
    }
}

}  // namespace vekr::accel
