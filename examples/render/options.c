/* Command-line parsing and the usage text of the renderer. */
#include "options.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vekcore.h"

enum { kMaxImageSide = 16384, kMaxBlockSide = 256, kMaxBounces = 16, kMaxLayers = 32 };

static void printUsage(FILE* out, const char* program)
{
    fprintf(out,
            "Usage: %s [options]\n"
            "Renders a triangle mesh with vekr and writes a PNG.\n"
            "  -w, --width N        image width in pixels (default 800)\n"
            "  -h, --height N       image height in pixels (default 600)\n"
            "  -o, --output FILE    PNG to write (default render.png)\n"
            "      --mesh FILE      render an OFF or OBJ file instead of the built-in scene\n"
            "      --eye X,Y,Z      camera position (default: framed from the mesh bounds)\n"
            "      --target X,Y,Z   point the camera looks at (default: the middle of the mesh)\n"
            "      --fov DEGREES    vertical field of view (default 40)\n"
            "      --tree simple|sah|sah-full  KD-tree build: one leaf, surface-area heuristic\n"
            "                       with at most 50 splits, or with up to 50 on each path\n"
            "                       (default sah-full)\n"
            "      --ratio R        the surface-area-heuristic builds' ratio, 0 to 1: higher\n"
            "                       splits where smaller gains are expected (default 0)\n"
            "      --block N        side of the square pixel blocks traced at once (default 16;\n"
            "                       multiples of 4 take the packet path)\n"
            "      --threads N      threads tracing blocks (default: the vekr thread count)\n"
            "      --light X,Y,Z[,INTENSITY]  a white point light, up to %d (repeat the option);\n"
            "                       its light falls off with the squared distance; INTENSITY\n"
            "                       is its brightness at distance 1 (default: the squared\n"
            "                       distance to the middle of the scene, so the middle is lit\n"
            "                       fully); with no --light, one light above the front left\n"
            "      --no-shadows     light every point that faces a light, without shadow rays\n"
            "      --mirror LIST    materials that reflect, comma-separated: ground, sphere,\n"
            "                       torus, box, cylinder, cone, bumpy, mesh (a loaded file),\n"
            "                       all, or none (default sphere); a mirror's colour is %g of\n"
            "                       its reflection and %g of its own lit colour\n"
            "      --bounces N      reflections along one eye ray, 0 to %d (default 2; 0: none)\n"
            "      --layers N       x-ray view instead: up to N surfaces along each eye ray,\n"
            "                       1 to %d, composited as tinted glass (default: off)\n"
            "      --help           show this text\n",
            program, (int)kMaxLights, kMirrorReflectivity, 1.0f - kMirrorReflectivity,
            (int)kMaxBounces, (int)kMaxLayers);
}

static int parseIntText(const char* text, int lowest, int highest, int* out)
{
    char* end;
    const long value = strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < lowest || value > highest) return -1;
    *out = (int)value;
    return 0;
}

static int parseVectorText(const char* text, float out[3])
{
    for (int k = 0; k < 3; ++k) {
        char* end;
        const double value = strtod(text, &end);
        if (end == text || !isfinite(value) || fabs(value) > 1e30) return -1;
        if (*end != (k < 2 ? ',' : '\0')) return -1;
        out[k] = (float)value;
        text = end + 1;
    }
    return 0;
}

/* X,Y,Z or X,Y,Z,INTENSITY, each finite and at most 1e30, the intensity above 0; intensity 0
 * when it is not given. */
static int parseLightText(const char* text, PointLight* light)
{
    double value[4] = {0, 0, 0, 0};
    int count = 0;
    for (;;) {
        char* end;
        value[count] = strtod(text, &end);
        if (end == text || !isfinite(value[count]) || fabs(value[count]) > 1e30) return -1;
        ++count;
        if (*end == '\0') break;
        if (*end != ',' || count == 4) return -1;
        text = end + 1;
    }
    if (count < 3 || (count == 4 && !(value[3] > 0))) return -1;
    for (int k = 0; k < 3; ++k)
        light->position[k] = (float)value[k];
    light->intensity = (float)value[3];
    return 0;
}

/* Matches argv[*i] against a short and a long option name ("--name VALUE" or
 * "--name=VALUE"). Returns 1 with *value set, 0 when the name differs, -1 when the value is
 * missing. */
static int takeValue(int argc, char** argv, int* i, const char* shortName, const char* longName,
                     const char** value)
{
    const char* arg = argv[*i];
    const size_t longLength = strlen(longName);
    if (strncmp(arg, longName, longLength) == 0 && arg[longLength] == '=') {
        *value = arg + longLength + 1;
        return 1;
    }
    if (strcmp(arg, longName) != 0 && (shortName == NULL || strcmp(arg, shortName) != 0)) return 0;
    if (*i + 1 >= argc) return -1;
    *value = argv[++*i];
    return 1;
}

int parseOptions(int argc, char** argv, Options* o)
{
    memset(o, 0, sizeof *o);
    o->width = 800;
    o->height = 600;
    o->output = "render.png";
    o->blockSide = 16;
    o->tree = TreeSahFull;
    o->treeRatio = 0.0f; /* builds faster and traces faster than higher ratios (README) */
    o->threadCount = vekGetNumThreads();
    o->lighting.shadows = 1;
    o->mirrors.materials = 1u << SceneMaterialSphere;
    o->mirrors.bounces = 2;
    for (int i = 1; i < argc; ++i) {
        const char* v = NULL;
        int got, bad = 0;
        if (strcmp(argv[i], "--help") == 0) {
            printUsage(stdout, argv[0]);
            return 1;
        } else if ((got = takeValue(argc, argv, &i, "-w", "--width", &v)) != 0) {
            bad = got < 0 || parseIntText(v, 1, kMaxImageSide, &o->width) != 0;
        } else if ((got = takeValue(argc, argv, &i, "-h", "--height", &v)) != 0) {
            bad = got < 0 || parseIntText(v, 1, kMaxImageSide, &o->height) != 0;
        } else if ((got = takeValue(argc, argv, &i, "-o", "--output", &v)) != 0) {
            bad = got < 0 || *v == '\0';
            o->output = v;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--mesh", &v)) != 0) {
            bad = got < 0 || *v == '\0';
            o->meshPath = v;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--eye", &v)) != 0) {
            bad = got < 0 || parseVectorText(v, o->eye) != 0;
            o->hasEye = 1;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--target", &v)) != 0) {
            bad = got < 0 || parseVectorText(v, o->target) != 0;
            o->hasTarget = 1;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--fov", &v)) != 0) {
            char* end = NULL;
            o->fovYDegrees = got < 0 ? 0.0f : strtof(v, &end);
            bad = got < 0 || *end != '\0' || !(o->fovYDegrees >= 1.0f && o->fovYDegrees <= 170.0f);
            o->hasFov = 1;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--tree", &v)) != 0) {
            int chosen = TreeChoiceCount;
            for (int t = 0; got > 0 && t < TreeChoiceCount; ++t)
                if (strcmp(v, kTreeNames[t]) == 0) chosen = t;
            bad = chosen == TreeChoiceCount;
            if (!bad) o->tree = (TreeChoice)chosen;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--ratio", &v)) != 0) {
            char* end = NULL;
            o->treeRatio = got < 0 ? -1.0f : strtof(v, &end);
            bad = got < 0 || *end != '\0' || !(o->treeRatio >= 0.0f && o->treeRatio <= 1.0f);
        } else if ((got = takeValue(argc, argv, &i, NULL, "--block", &v)) != 0) {
            bad = got < 0 || parseIntText(v, 1, kMaxBlockSide, &o->blockSide) != 0;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--threads", &v)) != 0) {
            bad = got < 0 || parseIntText(v, 1, 1024, &o->threadCount) != 0;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--light", &v)) != 0) {
            Lighting* lighting = &o->lighting;
            if (got > 0 && lighting->lightCount == kMaxLights) {
                fprintf(stderr, "%s: at most %d lights\n", argv[0], (int)kMaxLights);
                return -1;
            }
            if (got < 0 || parseLightText(v, &lighting->lights[lighting->lightCount]) != 0) {
                fprintf(stderr,
                        "%s: bad or missing value for '--light': want X,Y,Z or X,Y,Z,INTENSITY "
                        "with an intensity above 0 (see --help)\n",
                        argv[0]);
                return -1;
            }
            ++lighting->lightCount;
        } else if ((got = takeValue(argc, argv, &i, NULL, "--mirror", &v)) != 0) {
            const char* unknown = NULL;
            bad = got < 0;
            if (!bad && parseMaterialList(v, &o->mirrors.materials, &unknown) != 0) {
                const int length = (int)strcspn(unknown, ",");
                fprintf(stderr,
                        "%s: bad value for '--mirror': %s%.*s%s; want none, all or names from "
                        "ground, sphere, torus, box, cylinder, cone, bumpy, mesh, separated by "
                        "commas\n",
                        argv[0], length > 0 ? "no material '" : "an empty name", length, unknown,
                        length > 0 ? "'" : "");
                return -1;
            }
        } else if ((got = takeValue(argc, argv, &i, NULL, "--bounces", &v)) != 0) {
            if (got < 0 || parseIntText(v, 0, kMaxBounces, &o->mirrors.bounces) != 0) {
                fprintf(stderr, "%s: bad or missing value for '--bounces': want 0 to %d\n", argv[0],
                        (int)kMaxBounces);
                return -1;
            }
        } else if ((got = takeValue(argc, argv, &i, NULL, "--layers", &v)) != 0) {
            if (got < 0 || parseIntText(v, 1, kMaxLayers, &o->layers) != 0) {
                fprintf(stderr, "%s: bad or missing value for '--layers': want 1 to %d\n", argv[0],
                        (int)kMaxLayers);
                return -1;
            }
        } else if (strcmp(argv[i], "--no-shadows") == 0) {
            o->lighting.shadows = 0;
        } else {
            fprintf(stderr, "%s: unknown option '%s'\n", argv[0], argv[i]);
            printUsage(stderr, argv[0]);
            return -1;
        }
        if (bad) {
            fprintf(stderr, "%s: bad or missing value for '%s' (see --help)\n", argv[0],
                    argv[i][0] == '-' ? argv[i] : argv[i - 1]);
            return -1;
        }
    }
    return 0;
}
