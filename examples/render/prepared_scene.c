/* Scene preparation: triangle records, scene box, KD-tree and the corner normals that the
 * smooth shading interpolates. */
#include "prepared_scene.h"

#include <math.h>
#include <omp.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "call_status.h"
#include "vekcore.h"

const char* const kTreeNames[TreeChoiceCount] = {"simple", "sah", "sah-full"};

/* Angle of triangle t at its corner c, in radians; 0 where an edge has zero length. */
static double cornerAngle(const SceneMesh* mesh, int t, int c)
{
    const int* corner = mesh->triangles + (size_t)t * 4;
    const float* p = mesh->vertices + (size_t)corner[c] * 3;
    const float* q = mesh->vertices + (size_t)corner[(c + 1) % 3] * 3;
    const float* r = mesh->vertices + (size_t)corner[(c + 2) % 3] * 3;
    double dot = 0, lengths1 = 0, lengths2 = 0;
    for (int k = 0; k < 3; ++k) {
        const double e1 = (double)q[k] - p[k], e2 = (double)r[k] - p[k];
        dot += e1 * e2;
        lengths1 += e1 * e1;
        lengths2 += e2 * e2;
    }
    if (lengths1 == 0 || lengths2 == 0) return 0;
    const double cosine = dot / sqrt(lengths1 * lengths2);
    return acos(cosine > 1 ? 1 : cosine < -1 ? -1 : cosine);
}

/* Shading normals, one per triangle corner, for vekrSurfSmoothNormal_32f. A corner's normal
 * averages the library's unit triangle normals around its vertex, each weighted by the
 * triangle's angle there (Thurmer and Wuthrich 1998) so that it does not depend on how finely
 * the surface is split, but takes only triangles within 60 degrees of the corner's own: curved
 * surfaces shade smoothly while the hard edges of a loaded box stay hard, and neighbours wound
 * the other way do not cancel. Degenerate triangles have zero normals and add nothing.
 * Writes the normals (three floats per corner) and their indices (four ints per triangle,
 * the fourth unused, so the triangles' own step of 4 applies). */
static int makeCornerNormals(const SceneMesh* mesh, float** cornerNormals, int** normalIndices)
{
    const double kCreaseCosine = 0.5; /* cos 60 degrees */
    const int triangleCount = mesh->triangleCount, vertexCount = mesh->vertexCount;
    const size_t cornerCount = (size_t)triangleCount * 3;
    float* triangleNormals = vekMalloc(cornerCount * sizeof(float));
    double* angles = malloc(cornerCount * sizeof(double));
    int* firstCorner = calloc((size_t)vertexCount + 1, sizeof(int));
    int* cornersByVertex = malloc(cornerCount * sizeof(int));
    float* normals = vekMalloc(cornerCount * 3 * sizeof(float));
    int* indices = vekMalloc((size_t)triangleCount * 4 * sizeof(int));
    int status = -1;
    if (triangleNormals == NULL || angles == NULL || firstCorner == NULL ||
        cornersByVertex == NULL || normals == NULL || indices == NULL) {
        fprintf(stderr, "out of memory for the normals\n");
        goto done;
    }
    memset(triangleNormals, 0, cornerCount * sizeof(float));
    if (checkStatus(
            vekrTriangleNormal_32f(mesh->vertices, mesh->triangles, triangleNormals, triangleCount),
            "vekrTriangleNormal_32f") != 0)
        goto done;
    for (size_t k = 0; k < cornerCount; ++k) {
        angles[k] = cornerAngle(mesh, (int)(k / 3), (int)(k % 3));
        firstCorner[mesh->triangles[k / 3 * 4 + k % 3] + 1]++;
    }
    for (int v = 0; v < vertexCount; ++v)
        firstCorner[v + 1] += firstCorner[v];
    /* Counting sort of the corners by vertex: afterwards the corners of vertex v run from
     * firstCorner[v - 1] (0 for v = 0) to firstCorner[v]. */
    for (size_t k = 0; k < cornerCount; ++k)
        cornersByVertex[firstCorner[mesh->triangles[k / 3 * 4 + k % 3]]++] = (int)k;
    for (size_t k = 0; k < cornerCount; ++k) {
        const int vertex = mesh->triangles[k / 3 * 4 + k % 3];
        const float* own = triangleNormals + k / 3 * 3;
        const int begin = vertex > 0 ? firstCorner[vertex - 1] : 0, end = firstCorner[vertex];
        double sum[3] = {0, 0, 0};
        for (int i = begin; i < end; ++i) {
            const int other = cornersByVertex[i];
            const float* n = triangleNormals + (size_t)other / 3 * 3;
            if ((double)own[0] * n[0] + (double)own[1] * n[1] + (double)own[2] * n[2] <
                kCreaseCosine)
                continue;
            for (int c = 0; c < 3; ++c)
                sum[c] += angles[other] * n[c];
        }
        const double length = sqrt(sum[0] * sum[0] + sum[1] * sum[1] + sum[2] * sum[2]);
        for (int c = 0; c < 3; ++c)
            normals[k * 3 + c] = length > 0 ? (float)(sum[c] / length) : 0;
    }
    for (int t = 0; t < triangleCount; ++t)
        for (int c = 0; c < 4; ++c)
            indices[(size_t)t * 4 + c] = c < 3 ? t * 3 + c : 0;
    status = 0;
done:
    vekFree(triangleNormals);
    free(angles);
    free(firstCorner);
    free(cornersByVertex);
    if (status != 0) {
        vekFree(normals);
        vekFree(indices);
        return -1;
    }
    *cornerNormals = normals;
    *normalIndices = indices;
    return 0;
}

void releaseScene(PreparedScene* scene)
{
    checkStatus(vekrKDTreeFree(scene->tree), "vekrKDTreeFree");
    vekFree(scene->records);
    vekFree(scene->cornerNormals);
    vekFree(scene->normalIndices);
    sceneFree(&scene->mesh);
    memset(scene, 0, sizeof *scene);
}

int prepareScene(PreparedScene* scene, TreeChoice tree, float ratio)
{
    const SceneMesh* mesh = &scene->mesh;
    int recordBytes = 0;
    if (checkStatus(vekrTriangleAccelGetSize(&recordBytes), "vekrTriangleAccelGetSize") != 0)
        return -1;
    scene->records = vekMalloc((size_t)recordBytes * (size_t)mesh->triangleCount);
    if (scene->records == NULL) {
        fprintf(stderr, "out of memory for %d triangle records\n", mesh->triangleCount);
        return -1;
    }
    if (checkStatus(vekrTriangleAccelInit(scene->records, mesh->vertices, mesh->triangles,
                                          mesh->triangleCount),
                    "vekrTriangleAccelInit") != 0 ||
        checkStatus(vekrSetBoundBox_32f(mesh->vertices, mesh->vertexCount, &scene->box.minX),
                    "vekrSetBoundBox_32f") != 0)
        return -1;

    KDTreeBuildParams params = {KDTreeBuildSimple, 0, 0.0f, 0, NULL};
    if (tree != TreeSimple) {
        /* The build refuses a budget below 12 bytes per vertex + 84 per triangle + 32 MiB.
         * On top, its pools of build nodes and leaf lists grow in 16 MiB steps: a full-depth
         * tree takes up to about 300 bytes per triangle. The budget is taken in bytes as an
         * unsigned 32-bit number, so 4095 MB is the most it can be. */
        const double neededMB =
            ceil((12.0 * mesh->vertexCount + 84.0 * mesh->triangleCount + 33554676.0) / 1048576.0);
        if (neededMB > 4095) {
            fprintf(stderr, "mesh too large for the surface-area-heuristic build budget\n");
            return -1;
        }
        const double roomMB = 64 + ceil(384.0 * mesh->triangleCount / 1048576.0);
        params.memoryLimitMB = (uint32_t)fmin(4095, neededMB + roomMB);
        params.method = tree == TreeSah ? KDTreeBuildSah : KDTreeBuildSahFullDepth;
        params.maxDepth = 50; /* the most splits the build allows (in all, or on each path) */
        params.ratio = ratio;
        params.pBoundBox = &scene->box.minX;
    }
    const double start = omp_get_wtime();
    const Status built =
        vekrKDTreeBuildAlloc(&scene->tree, mesh->vertices, mesh->triangles, mesh->vertexCount,
                             mesh->triangleCount, &scene->treeBytes, &params);
    const double buildSeconds = omp_get_wtime() - start;
    if (checkStatus(built, "vekrKDTreeBuildAlloc") != 0) {
        if (tree != TreeSimple)
            fprintf(stderr,
                    "the surface-area-heuristic build failed; '--tree simple' builds the "
                    "one-leaf tree instead\n");
        return -1;
    }
    if (tree == TreeSimple)
        printf("tree: %s, %d bytes, built in %.3f ms\n", kTreeNames[tree], scene->treeBytes,
               buildSeconds * 1e3);
    else
        printf("tree: %s, ratio %g, %d bytes, built in %.3f ms\n", kTreeNames[tree], ratio,
               scene->treeBytes, buildSeconds * 1e3);

    if (makeCornerNormals(mesh, &scene->cornerNormals, &scene->normalIndices) != 0) return -1;
    scene->context.boundBox = &scene->box.minX;
    scene->context.triangleAccel = scene->records;
    scene->context.rootNode = scene->tree;
    return 0;
}
