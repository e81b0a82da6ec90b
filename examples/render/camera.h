/* The pinhole camera of the renderer: where its eye rays start and how they fan out. */
#ifndef VEKR_RENDER_CAMERA_H
#define VEKR_RENDER_CAMERA_H

/* Eye rays of the whole image: ray (column c, row r) has direction
 * planeOrigin + c * stepX + r * stepY, through the centre of pixel (c, r). */
typedef struct Camera {
    float eye[3];
    float up[3]; /* unit vector of the image's upward direction, for the sky gradient */
    float planeOrigin[3];
    float stepX[3];
    float stepY[3];
} Camera;

/* A pinhole camera with square pixels; the image plane lies at distance 1 from the eye.
 * Returns 0, or -1 with a message when the eye and the target coincide. */
int makeCamera(const float eye[3], const float target[3], const float up[3], float fovYDegrees,
               int width, int height, Camera* camera);

#endif /* VEKR_RENDER_CAMERA_H */
