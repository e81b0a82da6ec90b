/* Procedural meshes, OFF and OBJ loading and the framing camera of the example renderer.
 * Every procedural object is closed, wound counter-clockwise seen from outside, and shares its
 * vertices wherever the surface is smooth, so normals averaged around a vertex show no seams;
 * sharp edges (box edges, cylinder and cone rims) get separate vertices on each side. */
#include "scene.h"

#include <errno.h>
#include <float.h>
#include <limits.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const double kPi = 3.14159265358979323846;

/* Caps that keep every byte count and vertex number inside int and size_t on 32-bit hosts. */
enum { kMaxVertices = 1 << 26, kMaxTriangles = 1 << 26 };

/* --- Growing mesh ----------------------------------------------------------------------- */

/* A mesh under construction. A failed allocation sets failed and turns later additions into
 * no-ops, so generators need not check every call; the result is checked once at the end. */
typedef struct MeshBuilder {
    float* vertices;
    int vertexCount;
    int vertexCapacity;
    int* triangles;
    int triangleCount;
    int triangleCapacity;
    int failed;
} MeshBuilder;

/* 64-byte aligned copy of the first usedBytes of old into a block of newBytes. */
static void* growAligned(void* old, size_t usedBytes, size_t newBytes)
{
    /* aligned_alloc wants a size that is a multiple of the alignment. */
    void* grown = aligned_alloc(64, (newBytes + 63) & ~(size_t)63);
    if (grown == NULL) return NULL;
    if (usedBytes > 0) memcpy(grown, old, usedBytes);
    free(old);
    return grown;
}

static int builderReserve(MeshBuilder* b, int moreVertices, int moreTriangles)
{
    if (b->failed) return -1;
    if (moreVertices > kMaxVertices - b->vertexCount ||
        moreTriangles > kMaxTriangles - b->triangleCount) {
        b->failed = 1;
        return -1;
    }
    int needVertices = b->vertexCount + moreVertices;
    if (needVertices > b->vertexCapacity) {
        int capacity = b->vertexCapacity < 256 ? 256 : b->vertexCapacity;
        while (capacity < needVertices)
            capacity = capacity > kMaxVertices / 2 ? kMaxVertices : 2 * capacity;
        float* grown = growAligned(b->vertices, (size_t)b->vertexCount * 3 * sizeof(float),
                                   (size_t)capacity * 3 * sizeof(float));
        if (grown == NULL) {
            b->failed = 1;
            return -1;
        }
        b->vertices = grown;
        b->vertexCapacity = capacity;
    }
    int needTriangles = b->triangleCount + moreTriangles;
    if (needTriangles > b->triangleCapacity) {
        int capacity = b->triangleCapacity < 256 ? 256 : b->triangleCapacity;
        while (capacity < needTriangles)
            capacity = capacity > kMaxTriangles / 2 ? kMaxTriangles : 2 * capacity;
        int* grown = growAligned(b->triangles, (size_t)b->triangleCount * 4 * sizeof(int),
                                 (size_t)capacity * 4 * sizeof(int));
        if (grown == NULL) {
            b->failed = 1;
            return -1;
        }
        b->triangles = grown;
        b->triangleCapacity = capacity;
    }
    return 0;
}

/* Appends a vertex and returns its number, or -1 once the builder has failed. */
static int builderVertex(MeshBuilder* b, double x, double y, double z)
{
    if (builderReserve(b, 1, 0) != 0) return -1;
    float* v = b->vertices + (size_t)b->vertexCount * 3;
    v[0] = (float)x;
    v[1] = (float)y;
    v[2] = (float)z;
    return b->vertexCount++;
}

static void builderTriangle(MeshBuilder* b, int v0, int v1, int v2, int material)
{
    if (builderReserve(b, 0, 1) != 0) return;
    int* t = b->triangles + (size_t)b->triangleCount * 4;
    t[0] = v0;
    t[1] = v1;
    t[2] = v2;
    t[3] = material;
    b->triangleCount++;
}

static void builderRelease(MeshBuilder* b)
{
    free(b->vertices);
    free(b->triangles);
    memset(b, 0, sizeof *b);
}

/* Hands the arrays over to mesh, or releases them and empties mesh if anything failed. */
static int builderFinish(MeshBuilder* b, SceneMesh* mesh)
{
    if (b->failed || b->triangleCount == 0) {
        builderRelease(b);
        memset(mesh, 0, sizeof *mesh);
        return -1;
    }
    mesh->vertices = b->vertices;
    mesh->vertexCount = b->vertexCount;
    mesh->triangles = b->triangles;
    mesh->triangleCount = b->triangleCount;
    memset(b, 0, sizeof *b);
    return 0;
}

/* Where an object goes: scaled per axis, tilted about x, turned about y, then moved so that
 * its lowest point rests on the ground, the plane y = 0. */
typedef struct Placement {
    double scale[3];
    double tiltXDegrees;
    double turnYDegrees;
    double moveX, moveZ;
} Placement;

static void builderPlace(MeshBuilder* b, int firstVertex, Placement where)
{
    if (b->failed || firstVertex >= b->vertexCount) return;
    const double ca = cos(where.tiltXDegrees * kPi / 180), sa = sin(where.tiltXDegrees * kPi / 180);
    const double cb = cos(where.turnYDegrees * kPi / 180), sb = sin(where.turnYDegrees * kPi / 180);
    double lowest = DBL_MAX;
    for (int i = firstVertex; i < b->vertexCount; ++i) {
        const float* v = b->vertices + (size_t)i * 3;
        const double y = v[1] * where.scale[1], z = v[2] * where.scale[2];
        const double y1 = ca * y - sa * z;
        if (y1 < lowest) lowest = y1;
    }
    for (int i = firstVertex; i < b->vertexCount; ++i) {
        float* v = b->vertices + (size_t)i * 3;
        const double x = v[0] * where.scale[0], y = v[1] * where.scale[1],
                     z = v[2] * where.scale[2];
        const double y1 = ca * y - sa * z, z1 = sa * y + ca * z;
        const double x2 = cb * x + sb * z1, z2 = -sb * x + cb * z1;
        v[0] = (float)(x2 + where.moveX);
        v[1] = (float)(y1 - lowest);
        v[2] = (float)(z2 + where.moveZ);
    }
}

/* --- Procedural objects ----------------------------------------------------------------- */

/* Checkered square of cells x cells in the plane y = 0, side `size`, facing +y. */
static void addGround(MeshBuilder* b, int cells, double size)
{
    const int first = b->vertexCount;
    for (int i = 0; i <= cells; ++i)
        for (int j = 0; j <= cells; ++j)
            builderVertex(b, size * ((double)i / cells - 0.5), 0.0,
                          size * ((double)j / cells - 0.5));
    for (int i = 0; i < cells; ++i) {
        for (int j = 0; j < cells; ++j) {
            const int v00 = first + i * (cells + 1) + j, v01 = v00 + 1;
            const int v10 = v00 + cells + 1, v11 = v10 + 1;
            const int material = (i + j) % 2 ? SceneMaterialGroundDark : SceneMaterialGroundLight;
            builderTriangle(b, v00, v01, v10, material);
            builderTriangle(b, v10, v01, v11, material);
        }
    }
}

/* Slot of an edge midpoint in an open-addressing table keyed by the sorted vertex pair. */
typedef struct EdgeSlot {
    int lo, hi, mid; /* mid -1: slot empty */
} EdgeSlot;

/* Midpoint vertex of edge (a, b), pushed out to the unit sphere; made once per edge so the
 * two triangles along it share it. */
static int edgeMidpoint(MeshBuilder* b, EdgeSlot* table, unsigned mask, int v0, int v1)
{
    if (b->failed) return -1;
    const int lo = v0 < v1 ? v0 : v1, hi = v0 < v1 ? v1 : v0;
    unsigned slot = ((unsigned)lo * 2654435761u ^ (unsigned)hi * 40503u) & mask;
    while (table[slot].mid >= 0) {
        if (table[slot].lo == lo && table[slot].hi == hi) return table[slot].mid;
        slot = (slot + 1) & mask;
    }
    const float* p = b->vertices + (size_t)lo * 3;
    const float* q = b->vertices + (size_t)hi * 3;
    double m[3] = {(double)p[0] + q[0], (double)p[1] + q[1], (double)p[2] + q[2]};
    const double len = sqrt(m[0] * m[0] + m[1] * m[1] + m[2] * m[2]);
    const int mid = builderVertex(b, m[0] / len, m[1] / len, m[2] / len);
    table[slot].lo = lo;
    table[slot].hi = hi;
    table[slot].mid = mid;
    return mid;
}

/* Unit sphere by repeated 4-way subdivision of an icosahedron: 20 * 4^levels triangles. */
static void addIcosphere(MeshBuilder* b, int levels, int material)
{
    /* Icosahedron corners (0, +-1, +-t) and cyclic shifts, t the golden ratio (1 + sqrt 5) / 2. */
    static const double kCorner[12][3] = {
        {-1, 1.618033988749895, 0},  {1, 1.618033988749895, 0},   {-1, -1.618033988749895, 0},
        {1, -1.618033988749895, 0},  {0, -1, 1.618033988749895},  {0, 1, 1.618033988749895},
        {0, -1, -1.618033988749895}, {0, 1, -1.618033988749895},  {1.618033988749895, 0, -1},
        {1.618033988749895, 0, 1},   {-1.618033988749895, 0, -1}, {-1.618033988749895, 0, 1}};
    static const int kFace[20][3] = {{0, 11, 5}, {0, 5, 1},  {0, 1, 7},   {0, 7, 10}, {0, 10, 11},
                                     {1, 5, 9},  {5, 11, 4}, {11, 10, 2}, {10, 7, 6}, {7, 1, 8},
                                     {3, 9, 4},  {3, 4, 2},  {3, 2, 6},   {3, 6, 8},  {3, 8, 9},
                                     {4, 9, 5},  {2, 4, 11}, {6, 2, 10},  {8, 6, 7},  {9, 8, 1}};
    const int first = b->vertexCount;
    for (int i = 0; i < 12; ++i) {
        const double* c = kCorner[i];
        const double len = sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
        builderVertex(b, c[0] / len, c[1] / len, c[2] / len);
    }
    /* Faces live in a scratch list until the last level, which goes to the builder. */
    int faceCount = 20;
    int* faces = malloc(sizeof(int) * 3 * 20);
    if (faces == NULL) {
        b->failed = 1;
        return;
    }
    for (int f = 0; f < 20; ++f)
        for (int k = 0; k < 3; ++k)
            faces[f * 3 + k] = first + kFace[f][k];
    for (int level = 0; level < levels && !b->failed; ++level) {
        unsigned tableSize = 1;
        while (tableSize < (unsigned)faceCount * 4)
            tableSize *= 2; /* > 2.5 x the edges */
        EdgeSlot* table = malloc(sizeof(EdgeSlot) * tableSize);
        int* finer = malloc(sizeof(int) * 12 * (size_t)faceCount);
        if (table == NULL || finer == NULL) {
            free(table);
            free(finer);
            b->failed = 1;
            break;
        }
        for (unsigned s = 0; s < tableSize; ++s)
            table[s].mid = -1;
        for (int f = 0; f < faceCount; ++f) {
            const int a = faces[f * 3], c = faces[f * 3 + 1], e = faces[f * 3 + 2];
            const int ac = edgeMidpoint(b, table, tableSize - 1, a, c);
            const int ce = edgeMidpoint(b, table, tableSize - 1, c, e);
            const int ea = edgeMidpoint(b, table, tableSize - 1, e, a);
            const int quarter[12] = {a, ac, ea, c, ce, ac, e, ea, ce, ac, ce, ea};
            memcpy(finer + (size_t)f * 12, quarter, sizeof quarter);
        }
        free(table);
        free(faces);
        faces = finer;
        faceCount *= 4;
    }
    for (int f = 0; f < faceCount && !b->failed; ++f)
        builderTriangle(b, faces[f * 3], faces[f * 3 + 1], faces[f * 3 + 2], material);
    free(faces);
}

/* Radius factor of the bumpy spheres at unit direction (x, y, z): smooth in the direction,
 * so the surface has no seam at the pole rows or the closing meridian. */
static double bumpFactor(double x, double y, double z, double amount)
{
    return 1.0 + amount * sin(5.0 * x + 1.0) * sin(6.0 * y + 0.5) * sin(7.0 * z + 2.0);
}

/* Sphere of unit mean radius in rings x segments quads (pole rows as fans), radius scaled by
 * bumpFactor: 2 * segments * (rings - 1) triangles. */
static void addBumpySphere(MeshBuilder* b, int rings, int segments, double bump, int material)
{
    const int north = builderVertex(b, 0.0, bumpFactor(0, 1, 0, bump), 0.0);
    const int firstRing = b->vertexCount;
    for (int k = 1; k < rings; ++k) {
        const double theta = kPi * k / rings;
        for (int i = 0; i < segments; ++i) {
            const double phi = 2.0 * kPi * i / segments;
            const double x = sin(theta) * cos(phi), y = cos(theta), z = sin(theta) * sin(phi);
            const double r = bumpFactor(x, y, z, bump);
            builderVertex(b, r * x, r * y, r * z);
        }
    }
    const int south = builderVertex(b, 0.0, -bumpFactor(0, -1, 0, bump), 0.0);
    for (int i = 0; i < segments; ++i) {
        const int next = (i + 1) % segments;
        builderTriangle(b, north, firstRing + next, firstRing + i, material);
        for (int k = 1; k + 1 < rings; ++k) {
            const int a = firstRing + (k - 1) * segments + i,
                      bb = firstRing + (k - 1) * segments + next;
            const int c = a + segments, d = bb + segments;
            builderTriangle(b, a, bb, c, material);
            builderTriangle(b, bb, d, c, material);
        }
        const int lastRing = firstRing + (rings - 2) * segments;
        builderTriangle(b, lastRing + i, lastRing + next, south, material);
    }
}

/* Torus around the y axis: ring radius 1, tube radius `tube`. */
static void addTorus(MeshBuilder* b, int ringSegments, int tubeSegments, double tube, int material)
{
    const int first = b->vertexCount;
    for (int i = 0; i < ringSegments; ++i) {
        const double u = 2.0 * kPi * i / ringSegments;
        for (int j = 0; j < tubeSegments; ++j) {
            const double v = 2.0 * kPi * j / tubeSegments;
            const double r = 1.0 + tube * cos(v);
            builderVertex(b, r * cos(u), tube * sin(v), r * sin(u));
        }
    }
    for (int i = 0; i < ringSegments; ++i) {
        const int i1 = (i + 1) % ringSegments;
        for (int j = 0; j < tubeSegments; ++j) {
            const int j1 = (j + 1) % tubeSegments;
            const int a = first + i * tubeSegments + j, c = first + i * tubeSegments + j1;
            const int bb = first + i1 * tubeSegments + j, d = first + i1 * tubeSegments + j1;
            builderTriangle(b, a, c, bb, material);
            builderTriangle(b, bb, c, d, material);
        }
    }
}

/* Cube [-1, 1]^3 with four vertices per face, so every face shades flat. */
static void addBox(MeshBuilder* b, int material)
{
    for (int axis = 0; axis < 3; ++axis) {
        for (int sign = -1; sign <= 1; sign += 2) {
            /* t1 x t2 = the outward normal sign * e[axis]. */
            double n[3] = {0, 0, 0}, t1[3] = {0, 0, 0}, t2[3] = {0, 0, 0};
            n[axis] = sign;
            t1[(axis + 1) % 3] = sign;
            t2[(axis + 2) % 3] = 1;
            int corner[4];
            for (int k = 0; k < 4; ++k) {
                const double s1 = (k == 1 || k == 2) ? 1 : -1, s2 = k >= 2 ? 1 : -1;
                corner[k] =
                    builderVertex(b, n[0] + s1 * t1[0] + s2 * t2[0], n[1] + s1 * t1[1] + s2 * t2[1],
                                  n[2] + s1 * t1[2] + s2 * t2[2]);
            }
            builderTriangle(b, corner[0], corner[1], corner[2], material);
            builderTriangle(b, corner[0], corner[2], corner[3], material);
        }
    }
}

/* Cone or cylinder around the y axis from y = 0 to y = 1: base radius 1, top radius `top`
 * (0 for a cone). The side is smooth around; the caps have their own vertices. A cone gets
 * one apex vertex per segment, so its tip takes each side triangle's own normal rather than
 * a meaningless average pointing straight up. */
static void addCylinder(MeshBuilder* b, int segments, double top, int material)
{
    const int base = b->vertexCount;
    for (int i = 0; i < segments; ++i) {
        const double phi = 2.0 * kPi * i / segments;
        builderVertex(b, cos(phi), 0.0, sin(phi));
    }
    const int rim = b->vertexCount;
    for (int i = 0; i < segments; ++i) {
        const double phi = 2.0 * kPi * i / segments;
        builderVertex(b, top * cos(phi), 1.0, top * sin(phi));
    }
    for (int i = 0; i < segments; ++i) {
        const int next = (i + 1) % segments;
        builderTriangle(b, base + i, rim + i, base + next, material);
        if (top > 0) builderTriangle(b, rim + i, rim + next, base + next, material);
    }
    for (int cap = 0; cap < (top > 0 ? 2 : 1); ++cap) {
        const double y = cap, radius = cap ? top : 1.0;
        const int centre = builderVertex(b, 0.0, y, 0.0);
        const int ring = b->vertexCount;
        for (int i = 0; i < segments; ++i) {
            const double phi = 2.0 * kPi * i / segments;
            builderVertex(b, radius * cos(phi), y, radius * sin(phi));
        }
        for (int i = 0; i < segments; ++i) {
            const int next = ring + (i + 1) % segments;
            if (cap)
                builderTriangle(b, centre, next, ring + i, material);
            else
                builderTriangle(b, centre, ring + i, next, material);
        }
    }
}

int sceneMakeDefault(SceneMesh* mesh)
{
    MeshBuilder b = {0};
    /* The ground's edges face the default camera, which looks from 16.1 degrees to the right. */
    addGround(&b, 12, 8.0);
    builderPlace(&b, 0, (Placement){.scale = {1, 1, 1}, .turnYDegrees = 16.1});

    /* Front row: sphere, box, bumpy sphere; behind them the taller cylinder, cone and torus. */
    int first = b.vertexCount;
    addIcosphere(&b, 4, SceneMaterialSphere); /* 5120 triangles */
    builderPlace(&b, first, (Placement){.scale = {1.0, 1.0, 1.0}, .moveX = -2.2, .moveZ = 1.4});

    first = b.vertexCount;
    addBox(&b, SceneMaterialBox);
    builderPlace(&b, first,
                 (Placement){.scale = {0.65, 0.65, 0.65}, .turnYDegrees = 28, .moveZ = 2.3});

    first = b.vertexCount;
    addBumpySphere(&b, 56, 112, 0.09, SceneMaterialBumpy); /* 12 320 triangles */
    builderPlace(&b, first, (Placement){.scale = {1.05, 1.05, 1.05}, .moveX = 2.4, .moveZ = 1.1});

    first = b.vertexCount;
    addCylinder(&b, 64, 1.0, SceneMaterialCylinder);
    builderPlace(&b, first, (Placement){.scale = {0.55, 2.4, 0.55}, .moveX = -2.6, .moveZ = -1.8});

    first = b.vertexCount;
    addCylinder(&b, 64, 0.0, SceneMaterialCone);
    builderPlace(&b, first, (Placement){.scale = {0.8, 2.0, 0.8}, .moveX = -0.7, .moveZ = -0.9});

    first = b.vertexCount;
    addTorus(&b, 72, 36, 0.32, SceneMaterialTorus); /* 5184 triangles, standing on its rim */
    builderPlace(&b, first,
                 (Placement){.scale = {1.0, 1.0, 1.0},
                             .tiltXDegrees = 90,
                             .turnYDegrees = -40,
                             .moveX = 1.1,
                             .moveZ = -2.5});

    return builderFinish(&b, mesh);
}

int sceneMakeDense(SceneMesh* mesh, int approxTriangleCount)
{
    memset(mesh, 0, sizeof *mesh);
    if (approxTriangleCount > kMaxTriangles) return -1;
    if (approxTriangleCount < 200) approxTriangleCount = 200;
    /* 4 * rings * (rings - 1) triangles with segments = 2 * rings: the smallest ring count
     * that reaches the count asked for. */
    const int rings = (int)ceil(0.5 + 0.5 * sqrt(1.0 + (double)approxTriangleCount));
    MeshBuilder b = {0};
    addBumpySphere(&b, rings, 2 * rings, 0.12, SceneMaterialBumpy);
    return builderFinish(&b, mesh);
}

void sceneFree(SceneMesh* mesh)
{
    free(mesh->vertices);
    free(mesh->triangles);
    memset(mesh, 0, sizeof *mesh);
}

/* Offset of vertex i from centre along one unit axis. */
static double alongAxis(const SceneMesh* mesh, int i, const double centre[3], const double axis[3])
{
    const float* v = mesh->vertices + (size_t)i * 3;
    return (v[0] - centre[0]) * axis[0] + (v[1] - centre[1]) * axis[1] +
           (v[2] - centre[2]) * axis[2];
}

void sceneDefaultCamera(const SceneMesh* mesh, float eye[3], float target[3], float up[3],
                        float* fovYDegrees)
{
    const double fov = 40.0;
    /* Unit vector from the target towards the eye: looking down 30 degrees (view y = sin 30),
     * a little from the right. The image axes: right = up x view, normalised by its length
     * cos 30, and upward = view x right. */
    const double view[3] = {0.24, 0.5, 0.832105763};
    const double right[3] = {view[2] / 0.866025404, 0.0, -view[0] / 0.866025404};
    const double upward[3] = {view[1] * right[2], view[2] * right[0] - view[0] * right[2],
                              -view[1] * right[0]};
    double centre[3] = {0, 0, 0};
    for (int k = 0; k < 3; ++k) {
        double lo = DBL_MAX, hi = -DBL_MAX;
        for (int i = 0; i < mesh->vertexCount; ++i) {
            const double c = mesh->vertices[(size_t)i * 3 + k];
            lo = c < lo ? c : lo;
            hi = c > hi ? c : hi;
        }
        centre[k] = mesh->vertexCount > 0 ? 0.5 * (lo + hi) : 0.0;
    }
    /* Move the target to the middle of the mesh's extent across the image plane. */
    double sideLo = 0, sideHi = 0, upLo = 0, upHi = 0;
    for (int i = 0; i < mesh->vertexCount; ++i) {
        const double side = alongAxis(mesh, i, centre, right);
        const double rise = alongAxis(mesh, i, centre, upward);
        sideLo = side < sideLo ? side : sideLo;
        sideHi = side > sideHi ? side : sideHi;
        upLo = rise < upLo ? rise : upLo;
        upHi = rise > upHi ? rise : upHi;
    }
    for (int k = 0; k < 3; ++k)
        centre[k] += 0.5 * (sideLo + sideHi) * right[k] + 0.5 * (upLo + upHi) * upward[k];
    /* Back the eye off along view until every vertex lies inside the square of the vertical
     * field of view, less a margin, on both image axes: a vertex at offset c from the target
     * needs a distance of (c . view) + max(|c . right|, |c . upward|) / tan(margin * fov / 2).
     * Any image at least as wide as it is tall then shows the whole mesh. */
    const double slope = tan(0.46 * fov * kPi / 180.0);
    double distance = 0;
    for (int i = 0; i < mesh->vertexCount; ++i) {
        const double side = fabs(alongAxis(mesh, i, centre, right));
        const double rise = fabs(alongAxis(mesh, i, centre, upward));
        const double needed =
            alongAxis(mesh, i, centre, view) + (side > rise ? side : rise) / slope;
        distance = needed > distance ? needed : distance;
    }
    if (!(distance > 1e-6)) distance = 1.0; /* empty mesh or a single point */
    for (int k = 0; k < 3; ++k) {
        target[k] = (float)centre[k];
        eye[k] = (float)(centre[k] + distance * view[k]);
    }
    up[0] = 0.0f;
    up[1] = 1.0f;
    up[2] = 0.0f;
    *fovYDegrees = (float)fov;
}

/* --- Files ------------------------------------------------------------------------------ */

typedef struct LineReader {
    FILE* file;
    const char* path;
    char* text;    /* current line, comment and line end removed */
    size_t length; /* characters of text */
    size_t capacity;
    long number; /* 1-based number of the current line */
} LineReader;

enum { kMaxLineBytes = 1 << 24 };

static void reportError(const LineReader* r, const char* message)
{
    if (r->number > 0)
        fprintf(stderr, "%s:%ld: %s\n", r->path, r->number, message);
    else
        fprintf(stderr, "%s: %s\n", r->path, message);
}

/* Reads the next line, dropping a '#' comment and the line end. Returns 1 for a line, 0 at
 * the end of the file, -1 after reporting a read error, a NUL byte or an overlong line. */
static int readLine(LineReader* r)
{
    r->length = 0;
    int c;
    int any = 0;
    while ((c = fgetc(r->file)) != EOF) {
        any = 1;
        if (c == '\n') break;
        if (c == '\0') {
            r->number++;
            reportError(r, "NUL byte in a text line");
            return -1;
        }
        if (r->length + 1 >= r->capacity) {
            if (r->capacity >= kMaxLineBytes) {
                r->number++;
                reportError(r, "line too long");
                return -1;
            }
            size_t capacity = r->capacity ? 2 * r->capacity : 256;
            char* grown = realloc(r->text, capacity);
            if (grown == NULL) {
                reportError(r, "out of memory");
                return -1;
            }
            r->text = grown;
            r->capacity = capacity;
        }
        r->text[r->length++] = (char)c;
    }
    if (ferror(r->file)) {
        reportError(r, "read error");
        return -1;
    }
    if (!any) return 0;
    r->number++;
    if (r->text == NULL) { /* an empty first line: give text a buffer anyway */
        r->text = malloc(256);
        if (r->text == NULL) {
            reportError(r, "out of memory");
            return -1;
        }
        r->capacity = 256;
    }
    r->text[r->length] = '\0';
    char* comment = strchr(r->text, '#');
    if (comment != NULL) *comment = '\0';
    return 1;
}

static int isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

static const char* skipSpace(const char* s)
{
    while (isSpace(*s))
        ++s;
    return s;
}

/* Reads a finite float that ends at a space or the end of the text. */
static int parseFloat(const char** s, float* out)
{
    const char* p = skipSpace(*s);
    char* end;
    errno = 0;
    const double value = strtod(p, &end);
    if (end == p || (*end != '\0' && !isSpace(*end))) return -1;
    if (!isfinite(value) || fabs(value) > FLT_MAX) return -1; /* also NaN and infinity */
    *out = (float)value;
    *s = end;
    return 0;
}

/* Reads an int; the character after it must be one of the stop characters or the end. */
static int parseInt(const char** s, long* out, const char* stops)
{
    const char* p = skipSpace(*s);
    char* end;
    errno = 0;
    const long value = strtol(p, &end, 10);
    if (end == p || errno == ERANGE || value > INT_MAX || value < -INT_MAX) return -1;
    if (*end != '\0' && !isSpace(*end) && strchr(stops, *end) == NULL) return -1;
    *out = value;
    *s = end;
    return 0;
}

/* Fan of polygon corners[0..count-1] as triangles (c0, ck, ck+1). */
static void addFan(MeshBuilder* b, const int* corners, int count)
{
    for (int k = 1; k + 1 < count; ++k)
        builderTriangle(b, corners[0], corners[k], corners[k + 1], SceneMaterialLoaded);
}

/* Grows a corner list to hold at least count entries. */
static int reserveCorners(int** corners, int* capacity, long count)
{
    if (count <= *capacity) return 0;
    if (count > kMaxVertices) return -1;
    int grown = *capacity ? *capacity : 16;
    while (grown < count)
        grown *= 2;
    int* list = realloc(*corners, sizeof(int) * (size_t)grown);
    if (list == NULL) return -1;
    *corners = list;
    *capacity = grown;
    return 0;
}

/* Next line with any content, or 0 at the end of the file, -1 on an error. */
static int readContentLine(LineReader* r, const char** text)
{
    int got;
    while ((got = readLine(r)) == 1) {
        *text = skipSpace(r->text);
        if (**text != '\0') return 1;
    }
    return got;
}

/* OFF: keyword ([ST][C][N]OFF), counts "V F [E]", V lines of x y z (extra values such as
 * colours ignored), F lines "n i0 ... in-1" (trailing colour values ignored). */
static int loadOff(LineReader* r, MeshBuilder* b)
{
    const char* s;
    if (readContentLine(r, &s) != 1) return -1;
    const char* keyword = s;
    while (*s != '\0' && !isSpace(*s))
        ++s;
    const size_t keywordLength = (size_t)(s - keyword);
    size_t prefix = 0;
    if (keywordLength >= 5 && strncmp(keyword, "ST", 2) == 0) prefix += 2;
    if (prefix < keywordLength && keyword[prefix] == 'C') prefix++;
    if (prefix < keywordLength && keyword[prefix] == 'N') prefix++;
    if (keywordLength != prefix + 3 || strncmp(keyword + prefix, "OFF", 3) != 0) {
        reportError(r, "only OFF, COFF, NOFF and STOFF variants in three dimensions are read");
        return -1;
    }
    s = skipSpace(s);
    if (strncmp(s, "BINARY", 6) == 0) {
        reportError(r, "binary OFF files are not read");
        return -1;
    }
    if (*s == '\0' && readContentLine(r, &s) != 1) {
        reportError(r, "missing vertex and face counts");
        return -1;
    }
    long vertexCount, faceCount, edgeCount;
    if (parseInt(&s, &vertexCount, "") != 0 || parseInt(&s, &faceCount, "") != 0 ||
        vertexCount < 0 || faceCount < 0 || vertexCount > kMaxVertices ||
        faceCount > kMaxTriangles) {
        reportError(r, "bad vertex and face counts");
        return -1;
    }
    s = skipSpace(s);
    if (*s != '\0' && (parseInt(&s, &edgeCount, "") != 0 || *skipSpace(s) != '\0')) {
        reportError(r, "bad edge count");
        return -1;
    }
    for (long i = 0; i < vertexCount; ++i) {
        float x, y, z;
        if (readContentLine(r, &s) != 1) {
            reportError(r, "file ends before the last vertex");
            return -1;
        }
        if (parseFloat(&s, &x) != 0 || parseFloat(&s, &y) != 0 || parseFloat(&s, &z) != 0) {
            reportError(r, "a vertex needs three finite coordinates");
            return -1;
        }
        if (builderVertex(b, x, y, z) < 0) {
            reportError(r, "out of memory");
            return -1;
        }
    }
    int* corners = NULL;
    int capacity = 0, status = 0;
    for (long f = 0; f < faceCount && status == 0; ++f) {
        long count, index;
        status = -1;
        if (readContentLine(r, &s) != 1) {
            reportError(r, "file ends before the last face");
        } else if (parseInt(&s, &count, "") != 0 || count < 3) {
            reportError(r, "a face needs a corner count of 3 or more");
        } else if (reserveCorners(&corners, &capacity, count) != 0) {
            reportError(r, "face too large");
        } else {
            status = 0;
            for (long k = 0; k < count && status == 0; ++k) {
                if (parseInt(&s, &index, "") != 0 || index < 0 || index >= vertexCount) {
                    reportError(r, "face corner missing or not a vertex number");
                    status = -1;
                } else {
                    corners[k] = (int)index;
                }
            }
            if (status == 0) addFan(b, corners, (int)count);
            if (b->failed) {
                reportError(r, "out of memory");
                status = -1;
            }
        }
    }
    free(corners);
    return status;
}

/* OBJ: "v x y z" and "f" lines whose corners are i, i/t, i//n or i/t/n, with negative
 * numbers counting back from the last vertex read; every other statement is ignored. */
static int loadObj(LineReader* r, MeshBuilder* b)
{
    int* corners = NULL;
    int capacity = 0, status = 0;
    int got = 0;
    const char* s;
    /* Positive corners may name vertices defined later, so they are checked at the end. */
    long largestCorner = -1, largestCornerLine = 0;
    while (status == 0 && (got = readContentLine(r, &s)) == 1) {
        if (s[0] == 'v' && isSpace(s[1])) {
            float x, y, z;
            ++s;
            if (parseFloat(&s, &x) != 0 || parseFloat(&s, &y) != 0 || parseFloat(&s, &z) != 0) {
                reportError(r, "a vertex needs three finite coordinates");
                status = -1;
            } else if (builderVertex(b, x, y, z) < 0) {
                reportError(r, "out of memory");
                status = -1;
            }
        } else if (s[0] == 'f' && isSpace(s[1])) {
            int count = 0;
            ++s;
            while (status == 0 && *(s = skipSpace(s)) != '\0') {
                long index;
                if (parseInt(&s, &index, "/") != 0 || index == 0) {
                    reportError(r, "a face corner must be a nonzero vertex number");
                    status = -1;
                    break;
                }
                while (*s == '/' || (*s >= '0' && *s <= '9') || *s == '-')
                    ++s; /* t, n */
                if (*s != '\0' && !isSpace(*s)) {
                    reportError(r, "malformed face corner");
                    status = -1;
                    break;
                }
                if (index < 0) {
                    index += b->vertexCount;
                    if (index < 0) {
                        reportError(r, "relative face corner before the first vertex");
                        status = -1;
                        break;
                    }
                } else {
                    index -= 1;
                    if (index > largestCorner) {
                        largestCorner = index;
                        largestCornerLine = r->number;
                    }
                }
                if (reserveCorners(&corners, &capacity, count + 1L) != 0) {
                    reportError(r, "face too large");
                    status = -1;
                    break;
                }
                corners[count++] = (int)index;
            }
            if (status == 0 && count < 3) {
                reportError(r, "a face needs three or more corners");
                status = -1;
            }
            if (status == 0) addFan(b, corners, count);
            if (status == 0 && b->failed) {
                reportError(r, "out of memory");
                status = -1;
            }
        }
    }
    free(corners);
    if (status != 0 || got < 0) return -1;
    if (largestCorner >= b->vertexCount) {
        r->number = largestCornerLine;
        reportError(r, "face corner beyond the last vertex");
        return -1;
    }
    return 0;
}

int sceneLoadFile(const char* path, SceneMesh* mesh)
{
    memset(mesh, 0, sizeof *mesh);
    LineReader r = {0};
    r.path = path;
    r.file = fopen(path, "rb");
    if (r.file == NULL) {
        fprintf(stderr, "%s: %s\n", path, strerror(errno));
        return -1;
    }
    /* An OFF file starts with its keyword; anything else is read as OBJ. */
    const char* s = NULL;
    int got = readContentLine(&r, &s);
    int isOff = 0;
    if (got == 1) {
        const char* end = s;
        while (*end != '\0' && !isSpace(*end))
            ++end;
        isOff = end - s >= 3 && strncmp(end - 3, "OFF", 3) == 0;
    }
    MeshBuilder b = {0};
    int status = -1;
    if (got == 1 && fseek(r.file, 0, SEEK_SET) == 0) {
        r.number = 0;
        status = isOff ? loadOff(&r, &b) : loadObj(&r, &b);
    } else if (got == 0) {
        reportError(&r, "no content");
    } else if (got == 1) {
        reportError(&r, "cannot rewind the file");
    }
    if (status == 0 && b.triangleCount == 0) {
        r.number = 0;
        reportError(&r, "no triangles");
        status = -1;
    }
    free(r.text);
    fclose(r.file);
    if (status != 0) {
        builderRelease(&b);
        return -1;
    }
    return builderFinish(&b, mesh);
}
