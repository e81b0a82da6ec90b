/* The renderer's command line: what it asks for, and the parsing that fills it in. */
#ifndef VEKR_RENDER_OPTIONS_H
#define VEKR_RENDER_OPTIONS_H

#include "lights.h"
#include "materials.h"
#include "prepared_scene.h"

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
    float treeRatio; /* the surface-area-heuristic builds' ratio, 0 to 1 */
    int blockSide;
    int threadCount;
    Lighting lighting; /* the --light options in order (intensity 0 when not given), shadows */
    Mirrors mirrors;   /* the mirror materials and the bounces of reflection rays */
    int layers;        /* x-ray view: surfaces per eye ray, at most; 0: the lit view */
} Options;

/* Fills *o from the command line, defaults first. Returns 0 to render, 1 after --help, -1
 * after reporting a bad command line on stderr. */
int parseOptions(int argc, char** argv, Options* o);

#endif /* VEKR_RENDER_OPTIONS_H */
