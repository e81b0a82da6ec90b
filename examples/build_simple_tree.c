/* Builds the acceleration data of a small mesh through the public C interface: triangle
 * records, the scene box and a KD-tree by the simple method. Exits 0 when every step works. */
#include <stdio.h>
#include <stdlib.h>

#include "vekr.h"

int main(void)
{
    /* A unit quad in the plane z = 0, split into two triangles. */
    static const float vertices[] = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0};
    static const int triangles[] = {0, 1, 2, 0, /* fourth word: free for the caller */
                                    0, 2, 3, 0};
    const int vertexCount = 4, triangleCount = 2;

    const LibVersion* version = vekrGetLibVersion();
    printf("%s %s, built %s\n", version->name, version->versionText, version->buildDate);

    int recordSize = 0;
    if (vekrTriangleAccelGetSize(&recordSize) != StatusOk) return 1;
    TriangleAccel* records = malloc((size_t)recordSize * triangleCount);
    if (records == NULL) return 1;
    vekrTriangleAccelInit(records, vertices, triangles, triangleCount);

    BoundBox box;
    if (vekrSetBoundBox_32f(vertices, vertexCount, &box.minX) != StatusOk) return 1;
    printf("box (%g, %g, %g) - (%g, %g, %g)\n", box.minX, box.minY, box.minZ, box.maxX, box.maxY,
           box.maxZ);

    KDTreeBuildParams params = {KDTreeBuildSimple, 0, 0.0f, 0, NULL};
    void* tree = NULL;
    int treeSize = 0;
    Status status = vekrKDTreeBuildAlloc(&tree, vertices, triangles, vertexCount, triangleCount,
                                         &treeSize, &params);
    if (status != StatusOk) {
        fprintf(stderr, "build failed with status %d\n", (int)status);
        free(records);
        return 1;
    }
    printf("simple tree: %d bytes, first record axes 0x%08x\n", treeSize,
           (unsigned)records[0].axes);

    vekrKDTreeFree(tree);
    free(records);
    return treeSize == 16 + 4 * triangleCount ? 0 : 1;
}
