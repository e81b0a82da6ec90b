/* The pinhole camera: image-plane origin and pixel steps from eye, target and field of view. */
#include "camera.h"

#include <math.h>
#include <stdio.h>

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

int makeCamera(const float eye[3], const float target[3], const float up[3], float fovYDegrees,
               int width, int height, Camera* camera)
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
