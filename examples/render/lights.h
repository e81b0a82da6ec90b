/* The point lights of the renderer: what the command line gives and the defaults for the rest. */
#ifndef VEKR_RENDER_LIGHTS_H
#define VEKR_RENDER_LIGHTS_H

#include "vekr.h"

enum { kMaxLights = 8 };

/* A white point light; its contribution falls off with the square of the distance. */
typedef struct PointLight {
    float position[3];
    float intensity; /* brightness at distance 1; 0: chosen by completeLights */
} PointLight;

typedef struct Lighting {
    PointLight lights[kMaxLights];
    int lightCount; /* 0: completeLights places one */
    int shadows;    /* nonzero: trace shadow rays; zero: every light reaches every point it faces */
} Lighting;

/* Places the default light when none is given, above the scene box to the front left so the
 * objects cast their shadows back and to the right, and gives every light without an intensity
 * the squared distance from it to the middle of the box: the middle is then lit as by a light
 * of intensity 1 at distance 1. */
void completeLights(Lighting* lighting, const BoundBox* box);

#endif /* VEKR_RENDER_LIGHTS_H */
