/* Default placement and intensity of the point lights. */
#include "lights.h"

#include <math.h>

void completeLights(Lighting* lighting, const BoundBox* box)
{
    const float* lo = &box->minX;
    const float* hi = &box->maxX;
    double middle[3], halfDiagonal = 0;
    for (int k = 0; k < 3; ++k) {
        middle[k] = 0.5 * ((double)lo[k] + hi[k]);
        halfDiagonal += 0.25 * ((double)hi[k] - lo[k]) * ((double)hi[k] - lo[k]);
    }
    halfDiagonal = sqrt(halfDiagonal);
    if (lighting->lightCount == 0) {
        /* y is up and the default camera looks from the front (+z) and a little from the right
         * (+x): a light to the left, in front and high above lights the faces the camera sees
         * and throws the shadows onto the ground behind and to the right of the objects. */
        const double offset[3] = {-0.5, 1.2, 0.9};
        PointLight* light = &lighting->lights[0];
        for (int k = 0; k < 3; ++k)
            light->position[k] = (float)(middle[k] + offset[k] * halfDiagonal);
        light->intensity = 0;
        lighting->lightCount = 1;
    }
    for (int l = 0; l < lighting->lightCount; ++l) {
        PointLight* light = &lighting->lights[l];
        if (light->intensity > 0) continue;
        double squared = 0;
        for (int k = 0; k < 3; ++k)
            squared += (light->position[k] - middle[k]) * (light->position[k] - middle[k]);
        light->intensity = (float)(squared > 1e-12 ? squared : 1.0);
    }
}
