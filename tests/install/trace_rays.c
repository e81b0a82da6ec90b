/* A client of the installed libraries: traces an 8 x 8 block of eye rays through a KD-tree of
 * two squares, one behind the other, and checks every hit against the geometry. Exits 0 when
 * all rays agree. */
#include <float.h>
#include <math.h>
#include <stdio.h>

#include "vekcore.h"
#include "vekr.h"

/* A near square at z = 2 over x, y in [0, 2] and a far one at z = 4 over [-4, 4]; with a
 * ratio of 1 the tree splits them apart, so the rays walk inner nodes. */
static const float kVertices[] = {0,  0,  2, 2, 0,  2, 2, 2, 2, 0,  2, 2,
                                  -4, -4, 4, 4, -4, 4, 4, 4, 4, -4, 4, 4};
static const int kTriangles[] = {0, 1, 2, 0, 0, 2, 3, 0, 4, 5, 6, 0, 4, 6, 7, 0};
enum { kVertexCount = 8, kTriangleCount = 4, kSide = 8, kRayCount = kSide * kSide };

/* The ray's hit point against the point its weights give on the triangle it names:
 * w0 * p0 + w1 * p1 + (1 - w0 - w1) * p2. */
static int checkRay(int i, const float direction[3], float dist, float w0, float w1, int tri)
{
    const int near = direction[0] > 0 && direction[1] > 0;
    const float expectedDist = near ? 2.0f : 4.0f;
    if (tri != (near ? 0 : 2) && tri != (near ? 1 : 3)) {
        fprintf(stderr, "ray %d: triangle %d, want the %s square\n", i, tri, near ? "near" : "far");
        return 0;
    }
    if (fabsf(dist - expectedDist) > 1e-5f * expectedDist) {
        fprintf(stderr, "ray %d: distance %.9g, want %g\n", i, dist, expectedDist);
        return 0;
    }
    const float* p[3];
    for (int k = 0; k < 3; ++k)
        p[k] = kVertices + 3 * kTriangles[4 * tri + k];
    for (int axis = 0; axis < 3; ++axis) {
        const float onTriangle = w0 * p[0][axis] + w1 * p[1][axis] + (1 - w0 - w1) * p[2][axis];
        if (fabsf(onTriangle - dist * direction[axis]) > 1e-4f) {
            fprintf(stderr, "ray %d: weights %g, %g put the hit at %g on axis %d, not %g\n", i, w0,
                    w1, onTriangle, axis, dist * direction[axis]);
            return 0;
        }
    }
    return 1;
}

int main(void)
{
    int recordSize = 0;
    if (vekrTriangleAccelGetSize(&recordSize) != StatusOk ||
        recordSize != (int)sizeof(TriangleAccel)) {
        fprintf(stderr, "record size %d, the header says %d\n", recordSize,
                (int)sizeof(TriangleAccel));
        return 1;
    }
    TriangleAccel records[kTriangleCount];
    BoundBox box;
    if (vekrTriangleAccelInit(records, kVertices, kTriangles, kTriangleCount) != StatusOk ||
        vekrSetBoundBox_32f(kVertices, kVertexCount, &box.minX) != StatusOk)
        return 1;
    const KDTreeBuildParams params = {KDTreeBuildSah, 8, 1.0f, 64, NULL};
    void* tree = NULL;
    int treeSize = 0;
    Status status = vekrKDTreeBuildAlloc(&tree, kVertices, kTriangles, kVertexCount, kTriangleCount,
                                         &treeSize, &params);
    if (status != StatusOk) {
        fprintf(stderr, "tree build: status %d\n", (int)status);
        return 1;
    }

    /* 64-byte aligned planes from the core library, so that the 4 x 4 packet path runs. */
    float* planes[6];
    int32_t* tri = vekMalloc(kRayCount * sizeof(int32_t));
    int allocated = tri != NULL;
    for (int k = 0; k < 6; ++k) {
        planes[k] = vekMalloc(kRayCount * sizeof(float));
        allocated = allocated && planes[k] != NULL;
    }
    int good = 0;
    if (allocated) {
        float* const dir[3] = {planes[0], planes[1], planes[2]};
        float* dist = planes[3];
        float* const hitUV[2] = {planes[4], planes[5]};
        const float origin[3] = {0, 0, 0};
        const float planeOrigin[3] = {-0.875f, -0.875f, 1}, stepX[3] = {0.25f, 0, 0},
                    stepY[3] = {0, 0.25f, 0};
        const Size2D block = {kSide, kSide};
        const IntersectContext context = {&box.minX, records, tree};
        const float* const direction[3] = {dir[0], dir[1], dir[2]};
        for (int i = 0; i < kRayCount; ++i)
            dist[i] = FLT_MAX;
        if (vekrCastEye_32f(planeOrigin, stepX, stepY, 0, 0, block, dir, block) == StatusOk &&
            vekrIntersectEyeSO_32f(origin, direction, dist, hitUV, tri, &context, kSide, kSide) ==
                StatusOk) {
            for (int i = 0; i < kRayCount; ++i) {
                const float d[3] = {dir[0][i], dir[1][i], dir[2][i]};
                good += checkRay(i, d, dist[i], hitUV[0][i], hitUV[1][i], tri[i]);
            }
        }
    }
    for (int k = 0; k < 6; ++k)
        vekFree(planes[k]);
    vekFree(tri);
    vekrKDTreeFree(tree);
    printf("%s: tree of %d bytes, %d of %d rays as expected\n", vekrGetLibVersion()->name, treeSize,
           good, kRayCount);
    return good == kRayCount ? 0 : 1;
}
