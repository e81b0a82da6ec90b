/* Checks of the renderer's meshes: the procedural objects are closed, consistently wound
 * outwards and rest on the ground; the camera sees every vertex; the OFF and OBJ loaders read
 * the committed files and the corner forms they promise, and reject malformed files with an
 * empty mesh. Usage: render_scene_test DATA_DIR SCRATCH_DIR. Exits 0 when every check passes. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "scene.h"

static int failures = 0;

#define CHECK(condition, ...)                                                             \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            ++failures;                                                                   \
            fprintf(stderr, "%s:%d: check failed: %s: ", __FILE__, __LINE__, #condition); \
            fprintf(stderr, __VA_ARGS__);                                                 \
            fputc('\n', stderr);                                                          \
        }                                                                                 \
    } while (0)

/* --- Mesh properties -------------------------------------------------------------------- */

/* A directed edge keyed by end positions, or by vertex numbers (then in a[0] and b[0]). */
typedef struct Edge {
    double a[3], b[3];
} Edge;

static int comparePoints(const double* l, const double* r)
{
    for (int k = 0; k < 3; ++k)
        if (l[k] != r[k]) return l[k] < r[k] ? -1 : 1;
    return 0;
}

static int compareEdges(const void* left, const void* right)
{
    const Edge* l = left;
    const Edge* r = right;
    const int first = comparePoints(l->a, r->a);
    return first != 0 ? first : comparePoints(l->b, r->b);
}

static void edgeEnd(const SceneMesh* m, int vertex, int byIndex, double out[3])
{
    for (int k = 0; k < 3; ++k)
        out[k] = byIndex ? (k == 0 ? vertex : 0) : m->vertices[(size_t)vertex * 3 + k];
}

/* Number of directed edges of the material's triangles that are not matched by exactly one
 * edge running the other way: 0 for a closed, consistently wound surface. byIndex demands
 * that the two sides share vertex numbers (no seams), not just positions. */
static int countOpenEdges(const SceneMesh* m, int material, int byIndex)
{
    Edge* edges = malloc(sizeof(Edge) * 3 * (size_t)m->triangleCount);
    if (edges == NULL) return -1;
    size_t count = 0;
    for (int t = 0; t < m->triangleCount; ++t) {
        const int* tri = m->triangles + (size_t)t * 4;
        if (tri[3] != material) continue;
        for (int c = 0; c < 3; ++c, ++count) {
            edgeEnd(m, tri[c], byIndex, edges[count].a);
            edgeEnd(m, tri[(c + 1) % 3], byIndex, edges[count].b);
        }
    }
    qsort(edges, count, sizeof(Edge), compareEdges);
    int open = 0;
    for (size_t i = 0; i < count; ++i) {
        Edge reverse;
        memcpy(reverse.a, edges[i].b, sizeof reverse.a);
        memcpy(reverse.b, edges[i].a, sizeof reverse.b);
        const Edge* match = bsearch(&reverse, edges, count, sizeof(Edge), compareEdges);
        /* A repeated directed edge means two faces wound the same way along it. */
        const int repeated = (i > 0 && compareEdges(&edges[i - 1], &edges[i]) == 0) ||
                             (i + 1 < count && compareEdges(&edges[i + 1], &edges[i]) == 0);
        if (match == NULL || repeated) ++open;
    }
    free(edges);
    return open;
}

/* Signed volume enclosed by the material's triangles: positive when wound outwards. */
static double signedVolume(const SceneMesh* m, int material)
{
    double volume = 0;
    for (int t = 0; t < m->triangleCount; ++t) {
        const int* tri = m->triangles + (size_t)t * 4;
        if (tri[3] != material) continue;
        const float* p = m->vertices + (size_t)tri[0] * 3;
        const float* q = m->vertices + (size_t)tri[1] * 3;
        const float* r = m->vertices + (size_t)tri[2] * 3;
        volume += ((double)p[0] * ((double)q[1] * r[2] - (double)q[2] * r[1]) +
                   (double)p[1] * ((double)q[2] * r[0] - (double)q[0] * r[2]) +
                   (double)p[2] * ((double)q[0] * r[1] - (double)q[1] * r[0])) /
                  6.0;
    }
    return volume;
}

static double lowestY(const SceneMesh* m, int material)
{
    double lowest = INFINITY;
    for (int t = 0; t < m->triangleCount; ++t)
        for (int c = 0; c < 3 && m->triangles[(size_t)t * 4 + 3] == material; ++c) {
            const double y = m->vertices[(size_t)m->triangles[(size_t)t * 4 + c] * 3 + 1];
            if (y < lowest) lowest = y;
        }
    return lowest;
}

/* Twice the smallest triangle area of the mesh. */
static double smallestArea(const SceneMesh* m)
{
    double smallest = INFINITY;
    for (int t = 0; t < m->triangleCount; ++t) {
        const int* tri = m->triangles + (size_t)t * 4;
        double e1[3], e2[3];
        for (int k = 0; k < 3; ++k) {
            e1[k] =
                (double)m->vertices[(size_t)tri[1] * 3 + k] - m->vertices[(size_t)tri[0] * 3 + k];
            e2[k] =
                (double)m->vertices[(size_t)tri[2] * 3 + k] - m->vertices[(size_t)tri[0] * 3 + k];
        }
        const double nx = e1[1] * e2[2] - e1[2] * e2[1], ny = e1[2] * e2[0] - e1[0] * e2[2],
                     nz = e1[0] * e2[1] - e1[1] * e2[0];
        const double area = sqrt(nx * nx + ny * ny + nz * nz);
        if (area < smallest) smallest = area;
    }
    return smallest;
}

static int indicesValid(const SceneMesh* m)
{
    for (int t = 0; t < m->triangleCount; ++t)
        for (int c = 0; c < 3; ++c) {
            const int v = m->triangles[(size_t)t * 4 + c];
            if (v < 0 || v >= m->vertexCount) return 0;
        }
    return 1;
}

static void crossUnit(const double a[3], const double b[3], double out[3])
{
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
    const double len = sqrt(out[0] * out[0] + out[1] * out[1] + out[2] * out[2]);
    for (int k = 0; k < 3; ++k)
        out[k] /= len;
}

/* Every vertex must lie in front of the camera of sceneDefaultCamera, and within the vertical
 * half-angle of its field of view both sideways and up or down, so that a square image shows
 * the whole mesh. */
static void checkCameraSeesAll(const SceneMesh* m, const char* name)
{
    float eye[3], target[3], up[3], fov;
    sceneDefaultCamera(m, eye, target, up, &fov);
    double forward[3], right[3], upward[3], upHint[3] = {up[0], up[1], up[2]};
    for (int k = 0; k < 3; ++k)
        forward[k] = (double)target[k] - eye[k];
    const double len =
        sqrt(forward[0] * forward[0] + forward[1] * forward[1] + forward[2] * forward[2]);
    CHECK(len > 0 && fov > 1 && fov < 170, "%s: degenerate camera", name);
    if (!(len > 0)) return;
    for (int k = 0; k < 3; ++k)
        forward[k] /= len;
    crossUnit(forward, upHint, right);
    crossUnit(right, forward, upward);
    const double slope = tan(0.5 * fov * 3.14159265358979323846 / 180.0);
    int outside = 0;
    for (int v = 0; v < m->vertexCount; ++v) {
        double depth = 0, sideways = 0, rise = 0;
        for (int k = 0; k < 3; ++k) {
            const double d = (double)m->vertices[(size_t)v * 3 + k] - eye[k];
            depth += d * forward[k];
            sideways += d * right[k];
            rise += d * upward[k];
        }
        if (!(depth > 0) || fabs(sideways) > slope * depth || fabs(rise) > slope * depth) ++outside;
    }
    CHECK(outside == 0, "%s: %d vertices outside the view", name, outside);
}

/* --- Procedural meshes ------------------------------------------------------------------ */

static void checkDefaultScene(void)
{
    SceneMesh m;
    CHECK(sceneMakeDefault(&m) == 0, "default scene not built");
    if (m.triangleCount == 0) return;
    CHECK(m.triangleCount >= 10000 && m.triangleCount <= 30000, "%d triangles", m.triangleCount);
    CHECK(indicesValid(&m), "vertex number out of range");
    CHECK(smallestArea(&m) > 1e-8, "degenerate triangle (doubled area %g)", smallestArea(&m));
    int perMaterial[SceneMaterialCount] = {0};
    for (int t = 0; t < m.triangleCount; ++t) {
        const int material = m.triangles[(size_t)t * 4 + 3];
        CHECK(material > SceneMaterialLoaded && material < SceneMaterialCount,
              "triangle %d material %d", t, material);
        if (material > 0 && material < SceneMaterialCount) perMaterial[material]++;
    }
    for (int material = SceneMaterialGroundLight; material < SceneMaterialCount; ++material)
        CHECK(perMaterial[material] > 0, "material %d unused", material);
    /* Every object is closed and wound outwards, and stands on the ground at y = 0. */
    for (int material = SceneMaterialSphere; material < SceneMaterialCount; ++material) {
        CHECK(countOpenEdges(&m, material, 0) == 0, "material %d: %d open edges", material,
              countOpenEdges(&m, material, 0));
        CHECK(signedVolume(&m, material) > 0.1, "material %d: volume %g", material,
              signedVolume(&m, material));
        CHECK(fabs(lowestY(&m, material)) < 1e-5, "material %d: lowest y %g", material,
              lowestY(&m, material));
    }
    /* Smooth objects share the vertices along their seams, or their normals would crease. */
    const int smooth[] = {SceneMaterialSphere, SceneMaterialTorus, SceneMaterialBumpy};
    for (int i = 0; i < 3; ++i)
        CHECK(countOpenEdges(&m, smooth[i], 1) == 0, "material %d: %d seam edges", smooth[i],
              countOpenEdges(&m, smooth[i], 1));
    /* The ground lies in y = 0 and faces up. */
    for (int t = 0; t < m.triangleCount; ++t) {
        const int* tri = m.triangles + (size_t)t * 4;
        if (tri[3] != SceneMaterialGroundLight && tri[3] != SceneMaterialGroundDark) continue;
        const float* p = m.vertices + (size_t)tri[0] * 3;
        const float* q = m.vertices + (size_t)tri[1] * 3;
        const float* r = m.vertices + (size_t)tri[2] * 3;
        const double ny = ((double)q[2] - p[2]) * ((double)r[0] - p[0]) -
                          ((double)q[0] - p[0]) * ((double)r[2] - p[2]);
        CHECK(ny > 0 && p[1] == 0 && q[1] == 0 && r[1] == 0, "ground triangle %d", t);
        if (!(ny > 0)) break;
    }
    checkCameraSeesAll(&m, "default scene");
    sceneFree(&m);
    CHECK(m.vertices == NULL && m.triangles == NULL && m.triangleCount == 0, "not emptied");
}

static void checkDenseMesh(void)
{
    const int asked[] = {100000, 5000, 10};
    for (int i = 0; i < 3; ++i) {
        SceneMesh m;
        CHECK(sceneMakeDense(&m, asked[i]) == 0, "dense %d not built", asked[i]);
        const int low = asked[i] < 200 ? 200 : asked[i] * 95 / 100;
        const int high = asked[i] < 200 ? 300 : asked[i] * 105 / 100;
        CHECK(m.triangleCount >= low && m.triangleCount <= high, "asked %d, got %d", asked[i],
              m.triangleCount);
        CHECK(indicesValid(&m), "dense %d: vertex number out of range", asked[i]);
        CHECK(countOpenEdges(&m, SceneMaterialBumpy, 1) == 0, "dense %d: open", asked[i]);
        CHECK(signedVolume(&m, SceneMaterialBumpy) > 3.0, "dense %d: volume %g", asked[i],
              signedVolume(&m, SceneMaterialBumpy));
        CHECK(smallestArea(&m) > 0, "dense %d: degenerate triangle", asked[i]);
        if (i == 0) checkCameraSeesAll(&m, "dense mesh");
        sceneFree(&m);
    }
    SceneMesh m;
    CHECK(sceneMakeDense(&m, 2000000000) == -1 && m.vertices == NULL && m.triangleCount == 0,
          "an impossible count must fail with an empty mesh");
    sceneFree(&m); /* freeing an empty mesh is harmless */
}

/* --- Loading ---------------------------------------------------------------------------- */

static const char* scratchDir;

static const char* writeScratch(const char* name, const char* bytes, size_t length)
{
    static char path[4096];
    snprintf(path, sizeof path, "%s/%s", scratchDir, name);
    FILE* f = fopen(path, "wb");
    if (f == NULL || fwrite(bytes, 1, length, f) != length || fclose(f) != 0) {
        CHECK(0, "cannot write %s", path);
        return NULL;
    }
    return path;
}

static void checkCommittedFiles(const char* dataDir)
{
    char path[4096];
    SceneMesh m;
    snprintf(path, sizeof path, "%s/pyramid.off", dataDir);
    CHECK(sceneLoadFile(path, &m) == 0, "%s not loaded", path);
    CHECK(m.vertexCount == 5 && m.triangleCount == 6, "pyramid: %d vertices, %d triangles",
          m.vertexCount, m.triangleCount);
    CHECK(countOpenEdges(&m, SceneMaterialLoaded, 1) == 0, "pyramid open");
    /* Base 2 x 2, height 1.5: a third of 4 * 1.5. */
    CHECK(fabs(signedVolume(&m, SceneMaterialLoaded) - 2.0) < 1e-9, "pyramid volume %g",
          signedVolume(&m, SceneMaterialLoaded));
    sceneFree(&m);

    snprintf(path, sizeof path, "%s/house.obj", dataDir);
    CHECK(sceneLoadFile(path, &m) == 0, "%s not loaded", path);
    CHECK(m.vertexCount == 10 && m.triangleCount == 16, "house: %d vertices, %d triangles",
          m.vertexCount, m.triangleCount);
    CHECK(countOpenEdges(&m, SceneMaterialLoaded, 1) == 0, "house open");
    /* Box 2 * 1.5 * 2 = 6, roof prism 2 * 1 / 2 * 2 = 2. */
    CHECK(fabs(signedVolume(&m, SceneMaterialLoaded) - 8.0) < 1e-9, "house volume %g",
          signedVolume(&m, SceneMaterialLoaded));
    checkCameraSeesAll(&m, "house");
    sceneFree(&m);
}

static void checkAccepted(void)
{
    static const struct {
        const char* name;
        const char* text;
        int triangles[3][3]; /* expected corners of the first triangles */
        int triangleCount;
    } cases[] = {
        {"counts on the keyword line, CRLF ends",
         "OFF 4 1 0\r\n0 0 0\r\n1 0 0\r\n1 1 0\r\n0 1 0\r\n4 3 2 1 0\r\n",
         {{3, 2, 1}, {3, 1, 0}},
         2},
        {"COFF colours after the coordinates, comments",
         "COFF # colours\n3 1 3\n# vertices\n0 0 0 1 0 0 1\n\n1 0 0 0 1 0 1\n0 1 0 0 0 1 1\n"
         "3 0 1 2\n",
         {{0, 1, 2}},
         1},
        {"OBJ relative corners, tabs, a w coordinate",
         "v 0 0 0\nv\t1 0 0 1\nv 1 1 0\nf -3 -2 -1\nv 0 1 0\nf 1/1 3/3 4/4 # quad\n",
         {{0, 1, 2}, {0, 2, 3}},
         2},
        {"OBJ corners before their vertices, v//n forms",
         "f 1//1 2//1 3//1\nvn 0 0 1\nv 0 0 0\nv 1 0 0\nv 0 1 0\ng g1\ns 1\nusemtl x\n",
         {{0, 1, 2}},
         1},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const char* path = writeScratch("accepted.txt", cases[i].text, strlen(cases[i].text));
        SceneMesh m;
        if (path == NULL) continue;
        CHECK(sceneLoadFile(path, &m) == 0, "%s: not loaded", cases[i].name);
        CHECK(m.triangleCount == cases[i].triangleCount, "%s: %d triangles", cases[i].name,
              m.triangleCount);
        for (int t = 0; t < m.triangleCount && t < cases[i].triangleCount; ++t) {
            const int* got = m.triangles + (size_t)t * 4;
            CHECK(memcmp(got, cases[i].triangles[t], sizeof(int) * 3) == 0 &&
                      got[3] == SceneMaterialLoaded,
                  "%s: triangle %d is %d %d %d", cases[i].name, t, got[0], got[1], got[2]);
        }
        sceneFree(&m);
    }
}

/* A string literal and its length without the closing NUL; the bytes may hold NULs. */
#define BYTES(literal) literal, sizeof(literal) - 1

static void checkRejected(void)
{
    static const struct {
        const char* name;
        const char* bytes;
        size_t length;
    } cases[] = {
        {"empty file", BYTES("")},
        {"only comments", BYTES("# nothing\n\n")},
        {"OFF without counts", BYTES("OFF\n")},
        {"OFF negative count", BYTES("OFF\n-3 1 0\n")},
        {"OFF count beyond int", BYTES("OFF\n99999999999 1 0\n")},
        {"OFF huge count, short file", BYTES("OFF\n50000000 1 0\n0 0 0\n")},
        {"OFF garbage after the counts", BYTES("OFF\n3 1 0 x\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n")},
        {"OFF missing vertex", BYTES("OFF\n3 1 0\n0 0 0\n1 0 0\n")},
        {"OFF vertex with two coordinates", BYTES("OFF\n3 1 0\n0 0\n1 0 0\n0 1 0\n3 0 1 2\n")},
        {"OFF NaN coordinate", BYTES("OFF\n3 1 0\n0 0 nan\n1 0 0\n0 1 0\n3 0 1 2\n")},
        {"OFF coordinate beyond float", BYTES("OFF\n3 1 0\n0 0 1e39\n1 0 0\n0 1 0\n3 0 1 2\n")},
        {"OFF corner out of range", BYTES("OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 3\n")},
        {"OFF negative corner", BYTES("OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 -1\n")},
        {"OFF two-corner face", BYTES("OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n2 0 1\n")},
        {"OFF face ends early", BYTES("OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1\n")},
        {"OFF fractional corner", BYTES("OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 1.5\n")},
        {"OFF missing face", BYTES("OFF\n3 2 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n")},
        {"OFF no faces", BYTES("OFF\n3 0 0\n0 0 0\n1 0 0\n0 1 0\n")},
        {"OFF in four dimensions", BYTES("4OFF\n3 1 0\n0 0 0 0\n1 0 0 0\n0 1 0 0\n3 0 1 2\n")},
        {"binary OFF", BYTES("OFF BINARY\n\x01\x02\x03")},
        {"OBJ corner beyond the last vertex", BYTES("v 0 0 0\nv 1 0 0\nf 1 2 3\n")},
        {"OBJ corner 0", BYTES("v 0 0 0\nv 1 0 0\nv 0 1 0\nf 0 1 2\n")},
        {"OBJ relative corner before the first vertex", BYTES("v 0 0 0\nv 1 0 0\nf -3 -2 -1\n")},
        {"OBJ corner beyond int", BYTES("v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 99999999999\n")},
        {"OBJ two-corner face", BYTES("v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2\n")},
        {"OBJ letters in a corner", BYTES("v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3a\n")},
        {"OBJ vertex with two coordinates", BYTES("v 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n")},
        {"OBJ infinite coordinate", BYTES("v 0 0 inf\nv 1 0 0\nv 0 1 0\nf 1 2 3\n")},
        {"OBJ without faces", BYTES("v 0 0 0\nv 1 0 0\nv 0 1 0\n")},
        {"text that is no mesh", BYTES("Hello, world.\nThis is not a mesh.\n")},
        {"NUL bytes", BYTES("v 0 0 0\nv 1\0 0 0\nv 0 1 0\nf 1 2 3\n")},
        {"binary noise", BYTES("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\xff\xfe")},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const char* path = writeScratch("rejected.txt", cases[i].bytes, cases[i].length);
        if (path == NULL) continue;
        SceneMesh m = {(float*)&m, 7, (int*)&m, 7}; /* junk the loader must overwrite */
        fprintf(stderr, "[expect an error] %s: ", cases[i].name);
        const int got = sceneLoadFile(path, &m);
        CHECK(got == -1, "%s: accepted", cases[i].name);
        CHECK(
            m.vertices == NULL && m.triangles == NULL && m.vertexCount == 0 && m.triangleCount == 0,
            "%s: mesh not left empty", cases[i].name);
        if (got == 0) sceneFree(&m);
    }
    SceneMesh m;
    char missing[4096];
    snprintf(missing, sizeof missing, "%s/no-such-file.obj", scratchDir);
    CHECK(sceneLoadFile(missing, &m) == -1 && m.triangleCount == 0, "missing file accepted");
    CHECK(sceneLoadFile(scratchDir, &m) == -1 && m.triangleCount == 0, "directory accepted");
}

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s DATA_DIR SCRATCH_DIR\n", argv[0]);
        return 2;
    }
    scratchDir = argv[2];
    checkDefaultScene();
    checkDenseMesh();
    checkCommittedFiles(argv[1]);
    checkAccepted();
    checkRejected();
    if (failures != 0) fprintf(stderr, "%d checks failed\n", failures);
    return failures == 0 ? 0 : 1;
}
