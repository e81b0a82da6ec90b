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

/* An ellipsoid of centre c and semi-axes r, turned by an angle (cosine, sine) about z. */
typedef struct Ellipsoid {
    double c[3], r[3];
    double cosAngle, sinAngle;
} Ellipsoid;

static int inEllipsoid(double x, double y, double z, const Ellipsoid* e)
{
    const double dx = x - e->c[0], dy = y - e->c[1], dz = z - e->c[2];
    const double u = e->cosAngle * dx + e->sinAngle * dy;
    const double v = -e->sinAngle * dx + e->cosAngle * dy;
    return square(u / e->r[0]) + square(v / e->r[1]) + square(dz / e->r[2]) <= 1.0;
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

enum { kBeadCount = 8 };

/* cos and sin of 0.35 and 0.5 radians, the turns of the ventricles and of the core. */
static const Ellipsoid kSkull = {{0, 0, 0}, {0.82, 0.94, 0.84}, 1, 0};
static const Ellipsoid kBrain = {{0, 0, 0}, {0.74, 0.86, 0.76}, 1, 0};
static const Ellipsoid kVentricles[2] = {
    {{-0.22, 0.12, 0.1}, {0.1, 0.34, 0.18}, 0.939372712847379, 0.342897807455451},
    {{0.22, 0.12, 0.1}, {0.1, 0.34, 0.18}, 0.939372712847379, -0.342897807455451}};
static const Ellipsoid kCore = {
    {0.0, -0.35, -0.15}, {0.26, 0.16, 0.2}, 0.877582561890373, 0.479425538604203};
static const Ellipsoid kHollow = {
    {0.0, -0.35, -0.15}, {0.12, 0.07, 0.09}, 0.877582561890373, 0.479425538604203};
/* Tubes: one along z, one slanted across x, one along y through the core. */
static const double kTubeZ[2][3] = {{0.4, -0.1, -0.9}, {0.4, -0.1, 0.9}};
static const double kTubeX[2][3] = {{-0.7, 0.45, -0.5}, {0.7, 0.3, 0.3}};
static const double kTubeY[2][3] = {{0.0, -0.8, -0.15}, {0.0, 0.75, -0.15}};

/* The value at (x, y, z) of the cube [-1, 1]^3; texture is the brain's slow ripple there.
 * Every shape lies in the skull, so points outside it are 0 at once. */
static double phantomValue(double x, double y, double z, double texture,
                           const Ellipsoid beads[kBeadCount])
{
    if (!inEllipsoid(x, y, z, &kSkull)) return 0;
    double value = 1.0;
    if (inEllipsoid(x, y, z, &kBrain)) value = 0.34 + texture;
    if (inEllipsoid(x, y, z, &kVentricles[0]) || inEllipsoid(x, y, z, &kVentricles[1])) value = 0.1;
    if (inEllipsoid(x, y, z, &kCore)) value = 0.62;
    if (inEllipsoid(x, y, z, &kHollow)) value = 0.22;
    if (segmentDistance(x, y, z, kTubeZ[0], kTubeZ[1]) < 0.07) value = 0.8;
    if (segmentDistance(x, y, z, kTubeX[0], kTubeX[1]) < 0.055) value = 0.72;
    if (segmentDistance(x, y, z, kTubeY[0], kTubeY[1]) < 0.035) value = 0.9;
    for (int k = 0; k < kBeadCount; ++k)
        if (inEllipsoid(x, y, z, &beads[k])) value = 0.18 + 0.1 * k;
    return value;
}

int makePhantom(Volume* v, SampleType type, int width, int height, int depth)
{
    if (volumeAllocate(v, type, width, height, depth) != 0) return -1;
    /* A helix of beads about the z axis: eight intensities, a full turn over the height. */
    Ellipsoid beads[kBeadCount];
    for (int k = 0; k < kBeadCount; ++k) {
        const double t = (double)k / kBeadCount, angle = 2 * 3.14159265358979324 * t;
        const Ellipsoid bead = {
            {0.5 * cos(angle), 0.55 * sin(angle), -0.6 + 1.2 * t}, {0.09, 0.09, 0.09}, 1, 0};
        beads[k] = bead;
    }
    size_t i = 0;
    for (int z = 0; z < depth; ++z)
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x, ++i) {
                /* The ripple is slow enough to take once per voxel. */
                const double cx = ((x + 0.5) / width) * 2 - 1, cy = 1 - ((y + 0.5) / height) * 2;
                const double cz = ((z + 0.5) / depth) * 2 - 1;
                const double texture = 0.04 * sin(7 * cx + 5 * cy) * cos(6 * cz);
                double sum = 0;
                for (int s = 0; s < 8; ++s) {
                    /* Samples at the quarter points of the voxel; y grows downwards in slices
                     * seen from the front, so it is flipped to keep the core at the bottom. */
                    const double px = ((x + 0.25 + 0.5 * (s & 1)) / width) * 2 - 1;
                    const double py = 1 - ((y + 0.25 + 0.5 * ((s >> 1) & 1)) / height) * 2;
                    const double pz = ((z + 0.25 + 0.5 * (s >> 2)) / depth) * 2 - 1;
                    sum += phantomValue(px, py, pz, texture, beads);
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
