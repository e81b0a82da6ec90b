/* The phantom is defined on the cube [-1, 1]^3 stretched over the volume, as a stack of shapes
 * painted in order (later shapes cover earlier ones). Each voxel averages 2 x 2 x 2 samples, so
 * edges are smooth enough to show what an interpolation does with them. */
#include "phantom.h"

#include <math.h>
#include <stdint.h>

static double square(double a)
{
    return a * a;
}

/* Inside the ellipsoid of centre c and semi-axes r, turned by angle about the z axis. */
static int inEllipsoid(double x, double y, double z, const double c[3], const double r[3],
                       double angle)
{
    const double dx = x - c[0], dy = y - c[1], dz = z - c[2];
    const double u = cos(angle) * dx + sin(angle) * dy, v = -sin(angle) * dx + cos(angle) * dy;
    return square(u / r[0]) + square(v / r[1]) + square(dz / r[2]) <= 1.0;
}

/* Distance of (x, y, z) from the segment a..b. */
static double segmentDistance(double x, double y, double z, const double a[3], const double b[3])
{
    const double d[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
    const double p[3] = {x - a[0], y - a[1], z - a[2]};
    const double length2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
    double t = (p[0] * d[0] + p[1] * d[1] + p[2] * d[2]) / length2;
    t = t < 0 ? 0 : t > 1 ? 1 : t;
    return sqrt(square(p[0] - t * d[0]) + square(p[1] - t * d[1]) + square(p[2] - t * d[2]));
}

static double phantomValue(double x, double y, double z)
{
    static const double origin[3] = {0, 0, 0};
    static const double skull[3] = {0.82, 0.94, 0.84}, brain[3] = {0.74, 0.86, 0.76};
    double value = 0;
    if (inEllipsoid(x, y, z, origin, skull, 0)) value = 1.0;
    if (inEllipsoid(x, y, z, origin, brain, 0))
        value = 0.34 + 0.04 * sin(7 * x + 5 * y) * cos(6 * z);
    /* Two dark ventricles, turned towards each other. */
    static const double ventricleL[3] = {-0.22, 0.12, 0.1}, ventricleR[3] = {0.22, 0.12, 0.1};
    static const double ventricleSize[3] = {0.1, 0.34, 0.18};
    if (inEllipsoid(x, y, z, ventricleL, ventricleSize, 0.35) ||
        inEllipsoid(x, y, z, ventricleR, ventricleSize, -0.35))
        value = 0.1;
    /* A bright core below the middle, with a darker hollow in it. */
    static const double core[3] = {0.0, -0.35, -0.15}, coreSize[3] = {0.26, 0.16, 0.2};
    static const double hollowSize[3] = {0.12, 0.07, 0.09};
    if (inEllipsoid(x, y, z, core, coreSize, 0.5)) value = 0.62;
    if (inEllipsoid(x, y, z, core, hollowSize, 0.5)) value = 0.22;
    /* Tubes: one along z, one slanted across x, one along y through the core. */
    static const double tubeZa[3] = {0.4, -0.1, -0.9}, tubeZb[3] = {0.4, -0.1, 0.9};
    static const double tubeXa[3] = {-0.7, 0.45, -0.5}, tubeXb[3] = {0.7, 0.3, 0.3};
    static const double tubeYa[3] = {0.0, -0.8, -0.15}, tubeYb[3] = {0.0, 0.75, -0.15};
    if (segmentDistance(x, y, z, tubeZa, tubeZb) < 0.07) value = 0.8;
    if (segmentDistance(x, y, z, tubeXa, tubeXb) < 0.055) value = 0.72;
    if (segmentDistance(x, y, z, tubeYa, tubeYb) < 0.035) value = 0.9;
    /* A helix of beads about the z axis: eight intensities, a full turn over the height. */
    for (int k = 0; k < 8; ++k) {
        const double t = k / 8.0, angle = 2 * 3.14159265358979324 * t;
        const double centre[3] = {0.5 * cos(angle), 0.55 * sin(angle), -0.6 + 1.2 * t};
        const double size[3] = {0.09, 0.09, 0.09};
        if (inEllipsoid(x, y, z, centre, size, 0)) value = 0.18 + 0.1 * k;
    }
    return value;
}

int makePhantom(Volume* v, SampleType type, int width, int height, int depth)
{
    if (volumeAllocate(v, type, width, height, depth) != 0) return -1;
    size_t i = 0;
    for (int z = 0; z < depth; ++z)
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x, ++i) {
                double sum = 0;
                for (int s = 0; s < 8; ++s) {
                    /* Samples at the quarter points of the voxel; y grows downwards in slices
                     * seen from the front, so it is flipped to keep the core at the bottom. */
                    const double px = ((x + 0.25 + 0.5 * (s & 1)) / width) * 2 - 1;
                    const double py = 1 - ((y + 0.25 + 0.5 * ((s >> 1) & 1)) / height) * 2;
                    const double pz = ((z + 0.25 + 0.5 * (s >> 2)) / depth) * 2 - 1;
                    sum += phantomValue(px, py, pz);
                }
                const double value = sum / 8;
                switch (type) {
                    case SampleUint8:
                        ((uint8_t*)v->voxels)[i] = (uint8_t)lrint(250 * value);
                        break;
                    case SampleUint16:
                        ((uint16_t*)v->voxels)[i] = (uint16_t)lrint(4000 * value);
                        break;
                    case SampleInt16:
                        ((int16_t*)v->voxels)[i] = (int16_t)lrint(2000 * value - 1000);
                        break;
                    case SampleFloat:
                        ((float*)v->voxels)[i] = (float)value;
                        break;
                }
            }
    return 0;
}
