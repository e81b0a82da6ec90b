/* Triangle meshes for the example renderer: a procedural default scene, a dense single mesh
 * for benchmarks, OFF and OBJ loading, and a camera that frames any mesh. Plain C11. */
#ifndef VEKR_RENDER_SCENE_H
#define VEKR_RENDER_SCENE_H

#ifdef __cplusplus
extern "C" {
#endif

/* A mesh in the layout vekr takes: three floats per vertex, four ints per triangle (three
 * vertex numbers, counter-clockwise seen from outside, then a SceneMaterial number). Both
 * arrays are 64-byte aligned and released by sceneFree. */
typedef struct SceneMesh {
    float* vertices;   /* x, y, z per vertex */
    int vertexCount;   /* number of vertices */
    int* triangles;    /* v0, v1, v2, material per triangle */
    int triangleCount; /* number of triangles */
} SceneMesh;

/* Material numbers in the fourth word of a triangle; the renderer maps them to colours. */
enum SceneMaterial {
    SceneMaterialLoaded = 0,      /* every triangle of a loaded file */
    SceneMaterialGroundLight = 1, /* light squares of the ground */
    SceneMaterialGroundDark = 2,  /* dark squares of the ground */
    SceneMaterialSphere = 3,      /* the subdivided icosahedron */
    SceneMaterialTorus = 4,       /* the torus */
    SceneMaterialBox = 5,         /* the box */
    SceneMaterialCylinder = 6,    /* the cylinder */
    SceneMaterialCone = 7,        /* the cone */
    SceneMaterialBumpy = 8,       /* the displaced sphere */
    SceneMaterialCount = 9        /* number of material numbers above */
};

/* Builds the default scene: six closed objects standing on a checkered ground in the plane
 * y = 0, about 23 000 triangles. Returns 0, or -1 when memory is short (mesh left empty). */
int sceneMakeDefault(SceneMesh* mesh);

/* Builds one closed displaced sphere of at least approxTriangleCount triangles (and 200),
 * radius about 1 around the origin. Returns 0, or -1 when memory is short or the count is
 * too large (mesh left empty). */
int sceneMakeDense(SceneMesh* mesh, int approxTriangleCount);

/* Loads an OFF or OBJ file (chosen by its content: OFF files start with an OFF keyword),
 * fan-triangulating polygons; every triangle gets SceneMaterialLoaded. Returns 0, or -1 with
 * a message on stderr for an unreadable or malformed file (mesh left empty). */
int sceneLoadFile(const char* path, SceneMesh* mesh);

/* Releases the arrays of a mesh and empties it; an empty mesh is left as it is. */
void sceneFree(SceneMesh* mesh);

/* A camera that sees the whole mesh: looking down 30 degrees (y up) from the front (+z) and a
 * little to the right, aimed at the middle of the mesh's extent, and far enough back that every
 * vertex lies within the vertical field of view on both image axes, so any image at least as
 * wide as it is tall shows all of it. */
void sceneDefaultCamera(const SceneMesh* mesh, float eye[3], float target[3], float up[3],
                        float* fovYDegrees);

#ifdef __cplusplus
}
#endif

#endif /* VEKR_RENDER_SCENE_H */
