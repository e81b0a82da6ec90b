/* Renders a triangle mesh through the public vekr interface and writes a PNG.
 *
 * Once per scene: triangle records, the scene box, a KD-tree and shading normals per triangle
 * corner. Per block of pixels: eye-ray directions, nearest hits, normals interpolated at the
 * hits, then a headlight (a light at the eye) and a sky gradient behind. Blocks run in
 * parallel; every vekr call is reentrant, and each thread owns its block planes. */
#define _POSIX_C_SOURCE 200809L /* isatty */

#include <float.h>
#include <math.h>
#include <omp.h>
#include <png.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "scene.h"
#include "vekcore.h"
#include "vekr.h"

enum { kMaxImageSide = 16384, kMaxBlockSide = 256 };

/* The --tree choices, in the order of kTreeNames. */
typedef enum TreeChoice { TreeSimple, TreeSah, TreeSahFull, TreeChoiceCount } TreeChoice;
static const char* const kTreeNames[TreeChoiceCount] = {"simple", "sah", "sah-full"};

typedef struct Options {
    int width;
    int height;
    const char* output;
    const char* meshPath; /* null: the default scene */
    float eye[3];
    float target[3];
    float fovYDegrees;
    int hasEye, hasTarget, hasFov;
    TreeChoice tree;
    int blockSide;
    int threadCount;
} Options;

/* Everything the tracing reads, built once. */
typedef struct PreparedScene {
    SceneMesh mesh;
    TriangleAccel* records;
    BoundBox box;
    void* tree;
    int treeBytes;
    float* cornerNormals; /* three floats per triangle corner, unit length or zero */
    int* normalIndices;   /* per triangle: the numbers of its three corner normals, then 0 */
    IntersectContext context;
} PreparedScene;

/* Eye rays of the whole image: ray (column c, row r) has direction
 * planeOrigin + c * stepX + r * stepY, through the centre of pixel (c, r). */
typedef struct Camera {
    float eye[3];
    float up[3]; /* unit vector of the image's upward direction, for the sky gradient */
    float planeOrigin[3];
    float stepX[3];
    float stepY[3];
} Camera;

/* Per-thread planes of one block, each blockSide^2 elements, 64-byte aligned so that full
 * blocks with sides a multiple of 4 take the library's 4x4 packet paths. */
typedef struct BlockPlanes {
    float* direction[3];
    float* dist;
    float* hitUV[2];
    int32_t* triIndex;
    float* normal[3];
} BlockPlanes;

/* --- Options ---------------------------------------------------------------------------- */

static void printUsage(FILE* out, const char* program)
{
    fprintf(out,
            "Usage: %s [options]\n"
            "Renders a triangle mesh with vekr and writes a PNG.\n"
            "  -w, --width N        image width in pixels (default 800)\n"
            "  -h, --height N       image height in pixels (default 600)\n"
            "  -o, --output FILE    PNG to write (default render.png)\n"
            "      --mesh FILE      render an OFF or OBJ file instead of the built-in scene\n"
            "      --eye X,Y,Z      camera position (default: framed from the mesh bounds)\n"
            "      --target X,Y,Z   point the camera looks at (default: the middle of the mesh)\n"
            "      --fov DEGREES    vertical field of view (default 40)\n"
            "      --tree simple|sah|sah-full  KD-tree build: one leaf, surface-area heuristic\n"
            "                       with at most 50 splits, or with up to 50 on each path\n"
            "                       (default sah-full)\n"
            "      --block N        side of the square pixel blocks traced at once (default 16;\n"
            "                       multiples of 4 take the packet path)\n"
            "      --threads N      threads tracing blocks (default: the vekr thread count)\n"
            "      --help           show this text\n",
            program);
}

static int parseIntText(const char* text, int lowest, int highest, int* out)
{
    char* end;
    const long value = strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < lowest || value > highest) return -1;
    *out = (int)value;
    return 0;
}

static int parseVectorText(const char* text, float out[3])
{
    for (int k = 0; k < 3; ++k) {
        char* end;
        const double value = strtod(text, &end);
        if (end == text || !isfinite(value) || fabs(value) > 1e30) return -1;
        if (*end != (k < 2 ? ',' : '\0')) return -1;
        out[k] = (float)value;
        text = end + 1;
    }
    return 0;
}

/* Matches argv[*i] against a short and a long option name ("--name VALUE" or
 * "--name=VALUE"). Returns 1 with *value set, 0 when the name differs, -1 when the value is
 * missing. */
static int takeValue(int argc, char** argv, int* i, const char* shortName, const char* longName,
                     const char** value)
{
    const char* arg = argv[*i];
    const size_t longLength = strlen(longName);
    if (strncmp(arg, longName, longLength) == 0 && arg[longLength] == '=') {
        *value = arg + longLength + 1;
        return 1;
    }
    if (strcmp(arg, longName) != 0 && (shortName == NULL || strcmp(arg, shortName) != 0)) return 0;
    if (*i + 1 >= argc) return -1;
    *value = argv[++*i];
    return 1;
}

/* Returns 0 to render, 1 after --help, -1 after reporting a bad command line. */
static int parseOptions(int argc, char** argv, Options* o)
{
    memset(o, 0, sizeof *o);
    o->width = 800;
    o->height = 600;
    o->output = "render.png";
    o->blockSide = 16;
    o->tree = TreeSahFull;
    o->threadCount = vekGetNumThreads();
    for (int i = 1; i < argc; ++i) {
        const char* v = NULL;
        int got, bad = 0;
        if (strcmp(argv[i], "--help") == 0) {
            printUsage(stdout, argv[0]);
            return 1;
        } else if ((got = takeValue(argc, argv, &i, "-w", "--width", &v)) != 0) {
            bad = got < 0 || parseIntText(v, 1, kMaxImageSide, &o->width) != 0;
        } else if ((got = takeValue(argc, argv, &i, "-h", "--height", &v)) != 0) {
            bad = got < 0 || parseIntText(v, 1, kMaxImageSide, &o->height) != 0;
        } else if ((got = takeValue(argc, argv, &i, "-o", "--output", &v)) != 0) {
            bad = got < 0 || *v == '\0';
            o->output = v;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--mesh", &v)) != 0) {
            bad = got < 0 || *v == '\0';
            o->meshPath = v;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--eye", &v)) != 0) {
            bad = got < 0 || parseVectorText(v, o->eye) != 0;
            o->hasEye = 1;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--target", &v)) != 0) {
            bad = got < 0 || parseVectorText(v, o->target) != 0;
            o->hasTarget = 1;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--fov", &v)) != 0) {
            char* end = NULL;
            o->fovYDegrees = got < 0 ? 0.0f : strtof(v, &end);
            bad = got < 0 || *end != '\0' || !(o->fovYDegrees >= 1.0f && o->fovYDegrees <= 170.0f);
            o->hasFov = 1;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--tree", &v)) != 0) {
            int chosen = TreeChoiceCount;
            for (int t = 0; got > 0 && t < TreeChoiceCount; ++t)
                if (strcmp(v, kTreeNames[t]) == 0) chosen = t;
            bad = chosen == TreeChoiceCount;
            if (!bad) o->tree = (TreeChoice)chosen;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--block", &v)) != 0) {
            bad = got < 0 || parseIntText(v, 1, kMaxBlockSide, &o->blockSide) != 0;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--threads", &v)) != 0) {
            bad = got < 0 || parseIntText(v, 1, 1024, &o->threadCount) != 0;
        } else {
            fprintf(stderr, "%s: unknown option '%s'\n", argv[0], argv[i]);
            printUsage(stderr, argv[0]);
            return -1;
        }
        if (bad) {
            fprintf(stderr, "%s: bad or missing value for '%s' (see --help)\n", argv[0],
                    argv[i][0] == '-' ? argv[i] : argv[i - 1]);
            return -1;
        }
    }
    return 0;
}

/* --- Scene preparation ------------------------------------------------------------------ */

static const char* statusName(Status status)
{
    switch (status) {
        case StatusOk:
            return "ok";
        case StatusWarnNoOperation:
            return "warning: no operation";
        case StatusWarnVoiOutsideSource:
            return "warning: volume of interest outside the source";
        case StatusBuildMismatch:
            return "build mismatch";
        case StatusNoMemory:
            return "no memory";
        case StatusBadArgument:
            return "bad argument";
        case StatusBadSize:
            return "bad size";
        case StatusOutOfRange:
            return "out of range";
        case StatusNullPointer:
            return "null pointer";
        case StatusMemoryLimit:
            return "memory limit";
        case StatusBadParameter:
            return "bad parameter";
        case StatusBadInterpolation:
            return "bad interpolation";
        case StatusBadScale:
            return "bad scale";
        case StatusBadChannels:
            return "bad channels";
        case StatusBadCoefficients:
            return "bad coefficients";
    }
    return "unknown status";
}

/* Reports a failed call; warnings (positive codes) leave valid outputs and pass. */
static int checkStatus(Status status, const char* call)
{
    if (status >= StatusOk) return 0;
    fprintf(stderr, "%s failed: status %d (%s)\n", call, (int)status, statusName(status));
    return -1;
}

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

static void releaseScene(PreparedScene* scene)
{
    checkStatus(vekrKDTreeFree(scene->tree), "vekrKDTreeFree");
    vekFree(scene->records);
    vekFree(scene->cornerNormals);
    vekFree(scene->normalIndices);
    sceneFree(&scene->mesh);
    memset(scene, 0, sizeof *scene);
}

/* Builds records, box, tree and normals for scene->mesh; prints what it built and how long
 * the tree took. */
static int prepareScene(PreparedScene* scene, TreeChoice tree)
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
        params.ratio = 1.0f;  /* split wherever the cost model says it pays */
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
    printf("tree: %s, %d bytes, built in %.3f ms\n", kTreeNames[tree], scene->treeBytes,
           buildSeconds * 1e3);

    if (makeCornerNormals(mesh, &scene->cornerNormals, &scene->normalIndices) != 0) return -1;
    scene->context.boundBox = &scene->box.minX;
    scene->context.triangleAccel = scene->records;
    scene->context.rootNode = scene->tree;
    return 0;
}

/* --- Camera ----------------------------------------------------------------------------- */

static void cross(const double a[3], const double b[3], double out[3])
{
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

static double normalise(double v[3])
{
    const double len = sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    if (len > 0)
        for (int k = 0; k < 3; ++k)
            v[k] /= len;
    return len;
}

/* A pinhole camera with square pixels; the image plane lies at distance 1 from the eye. */
static int makeCamera(const float eye[3], const float target[3], const float up[3],
                      float fovYDegrees, int width, int height, Camera* camera)
{
    double forward[3], right[3], upward[3], upHint[3] = {up[0], up[1], up[2]};
    for (int k = 0; k < 3; ++k)
        forward[k] = (double)target[k] - eye[k];
    if (!(normalise(forward) > 0)) {
        fprintf(stderr, "the eye and the target are the same point\n");
        return -1;
    }
    cross(forward, upHint, right);
    if (!(normalise(right) > 1e-6)) { /* looking straight along up: take z as up instead */
        const double zAxis[3] = {0, 0, 1};
        cross(forward, zAxis, right);
        normalise(right);
    }
    cross(right, forward, upward);
    const double halfHeight = tan(0.5 * fovYDegrees * 3.14159265358979323846 / 180.0);
    const double pixel = 2.0 * halfHeight / height;
    const double halfWidth = 0.5 * pixel * width;
    for (int k = 0; k < 3; ++k) {
        camera->eye[k] = eye[k];
        camera->up[k] = (float)upward[k];
        camera->planeOrigin[k] = (float)(forward[k] + right[k] * (0.5 * pixel - halfWidth) +
                                         upward[k] * (halfHeight - 0.5 * pixel));
        camera->stepX[k] = (float)(right[k] * pixel);
        camera->stepY[k] = (float)(-upward[k] * pixel);
    }
    return 0;
}

/* --- Tracing ---------------------------------------------------------------------------- */

/* Linear RGB of each SceneMaterial. */
static const float kMaterialColour[SceneMaterialCount][3] = {
    {0.70f, 0.62f, 0.52f}, /* loaded meshes: clay */
    {0.75f, 0.75f, 0.72f}, /* ground, light squares */
    {0.30f, 0.31f, 0.33f}, /* ground, dark squares */
    {0.80f, 0.12f, 0.10f}, /* sphere */
    {0.85f, 0.60f, 0.10f}, /* torus */
    {0.12f, 0.30f, 0.80f}, /* box */
    {0.15f, 0.60f, 0.20f}, /* cylinder */
    {0.55f, 0.20f, 0.70f}, /* cone */
    {0.10f, 0.65f, 0.65f}, /* bumpy sphere */
};

static void freePlanes(BlockPlanes* p)
{
    for (int k = 0; k < 3; ++k)
        vekFree(p->direction[k]);
    for (int k = 0; k < 3; ++k)
        vekFree(p->normal[k]);
    vekFree(p->hitUV[0]);
    vekFree(p->hitUV[1]);
    vekFree(p->dist);
    vekFree(p->triIndex);
    memset(p, 0, sizeof *p);
}

static int allocatePlanes(BlockPlanes* p, int blockSide)
{
    const size_t bytes = (size_t)blockSide * blockSide * 4;
    memset(p, 0, sizeof *p);
    for (int k = 0; k < 3; ++k)
        p->direction[k] = vekMalloc(bytes);
    for (int k = 0; k < 3; ++k)
        p->normal[k] = vekMalloc(bytes);
    p->hitUV[0] = vekMalloc(bytes);
    p->hitUV[1] = vekMalloc(bytes);
    p->dist = vekMalloc(bytes);
    p->triIndex = vekMalloc(bytes);
    int ok = p->dist != NULL && p->triIndex != NULL && p->hitUV[0] != NULL && p->hitUV[1] != NULL;
    for (int k = 0; k < 3; ++k)
        ok = ok && p->direction[k] != NULL && p->normal[k] != NULL;
    if (!ok) freePlanes(p);
    return ok ? 0 : -1;
}

static unsigned char encodeGamma(float linear)
{
    const float clamped = linear < 0.0f ? 0.0f : linear > 1.0f ? 1.0f : linear;
    return (unsigned char)(255.0f * powf(clamped, 1.0f / 2.2f) + 0.5f);
}

/* Colours one block from its rays, hits and normals into the RGB image; returns the number of
 * rays that hit. */
static int shadeBlock(const PreparedScene* scene, const Camera* camera, const BlockPlanes* p,
                      int left, int top, int width, int height, int imageWidth,
                      unsigned char* image)
{
    const float ambient = 0.18f;
    int hitCount = 0;
    for (int row = 0; row < height; ++row) {
        unsigned char* out = image + ((size_t)(top + row) * imageWidth + left) * 3;
        for (int column = 0; column < width; ++column, out += 3) {
            const int i = row * width + column;
            const float dx = p->direction[0][i], dy = p->direction[1][i], dz = p->direction[2][i];
            const float invLength = 1.0f / sqrtf(dx * dx + dy * dy + dz * dz);
            float rgb[3];
            const int32_t triangle = p->triIndex[i];
            if (triangle < 0) {
                /* Sky: pale at the horizon, deeper blue overhead. */
                const float height01 =
                    (dx * camera->up[0] + dy * camera->up[1] + dz * camera->up[2]) * invLength;
                const float t = height01 < 0.0f ? 0.0f : height01;
                rgb[0] = 0.75f - 0.55f * t;
                rgb[1] = 0.82f - 0.45f * t;
                rgb[2] = 0.92f - 0.22f * t;
            } else {
                ++hitCount;
                const int material = scene->mesh.triangles[(size_t)triangle * 4 + 3];
                const float* base = kMaterialColour[(unsigned)material % SceneMaterialCount];
                /* The light sits at the eye, so the light and view directions coincide; the
                 * absolute value lights back faces of open meshes too. */
                const float facing =
                    fabsf(p->normal[0][i] * dx + p->normal[1][i] * dy + p->normal[2][i] * dz) *
                    invLength;
                const float diffuse = ambient + (1.0f - ambient) * facing;
                const float f2 = facing * facing, f4 = f2 * f2, f8 = f4 * f4, f16 = f8 * f8;
                const float highlight = 0.25f * f16 * f16; /* facing^32 */
                for (int k = 0; k < 3; ++k)
                    rgb[k] = base[k] * diffuse + highlight;
            }
            for (int k = 0; k < 3; ++k)
                out[k] = encodeGamma(rgb[k]);
        }
    }
    return hitCount;
}

/* Traces block (blockX, blockY) of the image and writes its pixels. Returns the number of rays
 * that hit, or -1 after reporting a failed call. */
static int traceBlock(const PreparedScene* scene, const Camera* camera, BlockPlanes* p,
                      int blockSide, int blockX, int blockY, int imageWidth, int imageHeight,
                      unsigned char* image)
{
    const int left = blockX * blockSide, top = blockY * blockSide;
    const int width = imageWidth - left < blockSide ? imageWidth - left : blockSide;
    const int height = imageHeight - top < blockSide ? imageHeight - top : blockSide;
    const int rayCount = width * height;
    const Size2D cell = {blockSide, blockSide}, size = {width, height};
    /* The library planes are packed at the block's own width, so an edge block's planes
     * are simply shorter. */
    if (checkStatus(vekrCastEye_32f(camera->planeOrigin, camera->stepX, camera->stepY, blockX,
                                    blockY, cell, p->direction, size),
                    "vekrCastEye_32f") != 0)
        return -1;
    for (int i = 0; i < rayCount; ++i)
        p->dist[i] = FLT_MAX;
    const float* const direction[3] = {p->direction[0], p->direction[1], p->direction[2]};
    if (checkStatus(vekrIntersectEyeSO_32f(camera->eye, direction, p->dist, p->hitUV, p->triIndex,
                                           &scene->context, width, height),
                    "vekrIntersectEyeSO_32f") != 0)
        return -1;
    const float* const hitUV[2] = {p->hitUV[0], p->hitUV[1]};
    if (checkStatus(vekrSurfSmoothNormal_32f(scene->cornerNormals, scene->normalIndices,
                                             p->triIndex, hitUV, p->normal, rayCount, 4),
                    "vekrSurfSmoothNormal_32f") != 0)
        return -1;
    return shadeBlock(scene, camera, p, left, top, width, height, imageWidth, image);
}

/* Redraws the bar on stderr when it has grown; called by any thread as blocks finish. */
static void showProgress(int done, int total, int* drawn)
{
    enum { kBarWidth = 40 };
    const int filled = (int)((long long)done * kBarWidth / total);
#pragma omp critical(progress)
    {
        if (filled > *drawn || done == total) {
            *drawn = filled;
            char bar[kBarWidth + 1];
            for (int k = 0; k < kBarWidth; ++k)
                bar[k] = k < filled ? '#' : '.';
            bar[kBarWidth] = '\0';
            fprintf(stderr, "\r[%s] %3d%%%s", bar, (int)((long long)done * 100 / total),
                    done == total ? "\n" : "");
            fflush(stderr);
        }
    }
}

/* Traces the whole image block by block on o->threadCount threads; sets *seconds to the
 * wall-clock time taken and *hitCount to the rays that hit. Returns 0, or -1 after a failed
 * call or allocation. */
static int traceImage(const PreparedScene* scene, const Camera* camera, const Options* o,
                      unsigned char* image, double* seconds, long long* hitCount)
{
    const int blocksX = (o->width + o->blockSide - 1) / o->blockSide;
    const int blocksY = (o->height + o->blockSide - 1) / o->blockSide;
    const int blockCount = blocksX * blocksY;
    int done = 0, drawn = -1, failed = 0;
    long long hits = 0;
    const int showBar = isatty(STDERR_FILENO); /* no bar in logs */
    const double start = omp_get_wtime();
#pragma omp parallel num_threads(o->threadCount)
    {
        BlockPlanes planes;
        if (allocatePlanes(&planes, o->blockSide) != 0) {
            fprintf(stderr, "out of memory for the block planes\n");
#pragma omp atomic write
            failed = 1;
        }
        /* Blocks differ a lot in cost (sky against dense geometry): hand them out one by one. */
#pragma omp for schedule(dynamic, 1)
        for (int b = 0; b < blockCount; ++b) {
            int stop;
#pragma omp atomic read
            stop = failed;
            if (stop) continue;
            const int blockHits = traceBlock(scene, camera, &planes, o->blockSide, b % blocksX,
                                             b / blocksX, o->width, o->height, image);
            if (blockHits < 0) {
#pragma omp atomic write
                failed = 1;
                continue;
            }
#pragma omp atomic
            hits += blockHits;
            int finished;
#pragma omp atomic capture
            finished = ++done;
            if (showBar) showProgress(finished, blockCount, &drawn);
        }
        freePlanes(&planes);
    }
    *seconds = omp_get_wtime() - start;
    *hitCount = hits;
    if (failed) fprintf(stderr, "\ntracing stopped\n");
    return failed ? -1 : 0;
}

/* --- Output ----------------------------------------------------------------------------- */

/* Writes 8-bit RGB rows to file and closes it; libpng reports its own errors on stderr before
 * jumping back. */
static int writePng(FILE* file, const char* path, int width, int height, const unsigned char* rgb)
{
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, NULL, NULL, NULL);
    png_infop info = png != NULL ? png_create_info_struct(png) : NULL;
    if (info == NULL) {
        fprintf(stderr, "%s: cannot set up the PNG writer\n", path);
        png_destroy_write_struct(&png, NULL);
        fclose(file);
        return -1;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        fclose(file);
        return -1;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, (png_uint_32)width, (png_uint_32)height, 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int row = 0; row < height; ++row)
        png_write_row(png, rgb + (size_t)row * width * 3);
    png_write_end(png, NULL);
    png_destroy_write_struct(&png, &info);
    if (fclose(file) != 0) {
        perror(path);
        return -1;
    }
    return 0;
}

int main(int argc, char** argv)
{
    Options o;
    const int parsed = parseOptions(argc, argv, &o);
    if (parsed != 0) return parsed > 0 ? 0 : 2;

    /* Open the output first, so that a bad path fails before the tracing rather than after. */
    FILE* output = fopen(o.output, "wb");
    if (output == NULL) {
        perror(o.output);
        return 1;
    }
    PreparedScene scene;
    memset(&scene, 0, sizeof scene);
    unsigned char* image = NULL;
    double seconds = 0;
    long long hitCount = 0;
    int status = 1;
    if (o.meshPath != NULL ? sceneLoadFile(o.meshPath, &scene.mesh) != 0
                           : sceneMakeDefault(&scene.mesh) != 0) {
        if (o.meshPath == NULL) fprintf(stderr, "out of memory for the default scene\n");
        goto done;
    }
    printf("mesh: %s, %d triangles, %d vertices\n", o.meshPath ? o.meshPath : "built-in scene",
           scene.mesh.triangleCount, scene.mesh.vertexCount);

    float eye[3], target[3], up[3], fovY;
    sceneDefaultCamera(&scene.mesh, eye, target, up, &fovY);
    if (o.hasEye) memcpy(eye, o.eye, sizeof eye);
    if (o.hasTarget) memcpy(target, o.target, sizeof target);
    if (o.hasFov) fovY = o.fovYDegrees;
    Camera camera;
    image = malloc((size_t)o.width * o.height * 3);
    if (image == NULL) {
        fprintf(stderr, "out of memory for a %dx%d image\n", o.width, o.height);
        goto done;
    }
    if (prepareScene(&scene, o.tree) != 0 ||
        makeCamera(eye, target, up, fovY, o.width, o.height, &camera) != 0 ||
        traceImage(&scene, &camera, &o, image, &seconds, &hitCount) != 0)
        goto done;
    status = writePng(output, o.output, o.width, o.height, image) != 0;
    output = NULL; /* closed by writePng */
    if (status == 0) {
        const double rays = (double)o.width * o.height;
        printf("traced %dx%d pixels in %dx%d blocks on %d threads: %.3f s, %.2f Mrays/s\n", o.width,
               o.height, o.blockSide, o.blockSide, o.threadCount, seconds, rays / seconds * 1e-6);
        printf("hit %lld of %.0f rays\n", hitCount, rays);
        printf("wrote %s\n", o.output);
    }
done:
    if (output != NULL) fclose(output);
    if (status != 0) remove(o.output); /* no empty or partial PNG left behind */
    free(image);
    releaseScene(&scene);
    return status;
}
