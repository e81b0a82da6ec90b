/* What the tracing reads of a scene, built once: triangle records, scene box, KD-tree and
 * shading normals per triangle corner. */
#ifndef VEKR_RENDER_PREPARED_SCENE_H
#define VEKR_RENDER_PREPARED_SCENE_H

#include "scene.h"
#include "vekr.h"

/* The KD-tree build methods the renderer offers, in the order of kTreeNames. */
typedef enum TreeChoice { TreeSimple, TreeSah, TreeSahFull, TreeChoiceCount } TreeChoice;
extern const char* const kTreeNames[TreeChoiceCount]; /* "simple", "sah", "sah-full" */

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

/* Builds records, box, tree and normals for scene->mesh; prints what it built and how long
 * the tree took. Returns 0, or -1 after reporting the failure (release the scene either way). */
int prepareScene(PreparedScene* scene, TreeChoice tree, float ratio);

/* Releases everything prepareScene built and the mesh, and empties the scene. */
void releaseScene(PreparedScene* scene);

#endif /* VEKR_RENDER_PREPARED_SCENE_H */
