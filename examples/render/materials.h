/* The renderer's materials: the colour of each SceneMaterial, which of them are mirrors, and
 * the names the command line uses for them. */
#ifndef VEKR_RENDER_MATERIALS_H
#define VEKR_RENDER_MATERIALS_H

#include "scene.h"

/* Linear RGB of each SceneMaterial. */
extern const float kMaterialColour[SceneMaterialCount][3];

/* The share of a mirror's colour that is its reflection; the rest is its own lit colour. */
static const float kMirrorReflectivity = 0.6f;

/* A set of materials as bits: bit m for SceneMaterial m. */
typedef unsigned MaterialSet;

/* Which materials are mirrors, and how often a ray may be reflected. */
typedef struct Mirrors {
    MaterialSet materials; /* materials that reflect */
    int bounces;           /* reflections along one eye ray, at most; 0: none */
} Mirrors;

/* Parses a comma-separated list of material names (ground, sphere, torus, box, cylinder,
 * cone, bumpy, mesh for loaded files, all) or the single word none. Returns 0 with *set
 * filled, or -1 with nothing written and *bad pointing at the first unknown name. */
int parseMaterialList(const char* text, MaterialSet* set, const char** bad);

/* Writes the names of the set, comma-separated, or "none", into text (size bytes, at least
 * 80 hold any set). */
void formatMaterialList(MaterialSet set, char* text, int size);

#endif /* VEKR_RENDER_MATERIALS_H */
