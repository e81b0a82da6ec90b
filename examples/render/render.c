/* Renders a triangle mesh through the public vekr interface and writes a PNG.
 *
 * Once per scene: triangle records, the scene box, a KD-tree and shading normals per triangle
 * corner (prepared_scene.c). Per block of pixels: eye-ray directions, nearest hits, hit points
 * and normals, then an ambient term and per point light shadow rays and Lambert shading, and
 * reflection rays off mirrors, shaded alike (block_pipeline.c); or, in the x-ray view, every
 * surface along the eye rays composited as glass (xray_view.c); blocks run in parallel
 * (trace_image.c). The command line is parsed in options.c, the lights completed in lights.c,
 * the materials named in materials.c, the camera set up in camera.c and the image written in
 * png_output.c. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "camera.h"
#include "lights.h"
#include "materials.h"
#include "options.h"
#include "png_output.h"
#include "prepared_scene.h"
#include "scene.h"
#include "trace_image.h"

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
    ImageCounts counts = {0};
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
    if (prepareScene(&scene, o.tree, o.treeRatio) != 0 ||
        makeCamera(eye, target, up, fovY, o.width, o.height, &camera) != 0)
        goto done;
    completeLights(&o.lighting, &scene.box);
    if (o.layers > 0) {
        printf("x-ray view: up to %d surfaces along each eye ray, unlit\n", o.layers);
    } else {
        for (int l = 0; l < o.lighting.lightCount; ++l) {
            const PointLight* light = &o.lighting.lights[l];
            printf("light %d: at %g,%g,%g, intensity %g%s\n", l + 1, light->position[0],
                   light->position[1], light->position[2], light->intensity,
                   o.lighting.shadows ? "" : ", no shadows");
        }
        char mirrorNames[80];
        formatMaterialList(o.mirrors.materials, mirrorNames, (int)sizeof mirrorNames);
        printf("mirrors: %s, reflectivity %g, up to %d bounces\n", mirrorNames, kMirrorReflectivity,
               o.mirrors.bounces);
    }
    if (traceImage(&scene, &camera, &o, image, &seconds, &counts) != 0) goto done;
    status = writePng(output, o.output, o.width, o.height, image) != 0;
    output = NULL; /* closed by writePng */
    if (status == 0) {
        const double rays = (double)o.width * o.height;
        printf("traced and shaded %dx%d pixels in %dx%d blocks on %d threads: %.3f s\n", o.width,
               o.height, o.blockSide, o.blockSide, o.threadCount, seconds);
        if (o.layers > 0) {
            printf("rays: %.0f eye through up to %d layers, %.2f Mrays/s\n", rays, o.layers,
                   rays / seconds * 1e-6);
            printf("crossings: %lld surfaces, %.2f per eye ray that hit, at most %d along one\n",
                   counts.crossings,
                   counts.hits > 0 ? (double)counts.crossings / (double)counts.hits : 0.0,
                   counts.mostCrossings);
        } else {
            const double secondary = (double)counts.shadowRays + (double)counts.reflectionRays;
            printf("rays: %.0f eye, %lld shadow and %lld reflection (%lld hit), %.2f Mrays/s\n",
                   rays, counts.shadowRays, counts.reflectionRays, counts.reflectionHits,
                   (rays + secondary) / seconds * 1e-6);
        }
        printf("hit %lld of %.0f rays\n", counts.hits, rays);
        printf("wrote %s\n", o.output);
    }
done:
    if (output != NULL) fclose(output);
    if (status != 0) remove(o.output); /* no empty or partial PNG left behind */
    free(image);
    releaseScene(&scene);
    return status;
}
