/* Command-line parsing and the usage text of the volume tool. */
#include "options.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vekr.h"

enum { kMaxPhantomSide = 2048, kMaxThreads = 256, kMaxSmoothSide = 31 };

static const struct {
    const char* name;
    int code;
} kInterpolations[] = {
    {"nearest", InterpolationNearest},      {"linear", InterpolationLinear},
    {"cubic", InterpolationCubicLagrange},  {"catmull-rom", InterpolationCubicCatmullRom},
    {"bspline", InterpolationCubicBSpline}, {"mitchell", InterpolationCubicB05C03},
};

static void printUsage(FILE* out, const char* program)
{
    fprintf(out,
            "Usage: %s [options] [FILE]\n"
            "Loads a volume (NRRD .nrrd/.nhdr, raw or gzip; MetaImage .mha/.mhd, raw or zlib;\n"
            "uint8, uint16, int16 or float samples) or makes the built-in phantom, applies one\n"
            "operation with vekr and writes the three mid-slices before and after as a PNG.\n"
            "  -o, --output FILE      montage PNG to write (default volume.png)\n"
            "      --save FILE        also write the result as a raw NRRD file\n"
            "      --size N|W,H,D     phantom extent in voxels (default 128)\n"
            "      --type uint8|uint16|int16|float  phantom sample type (default uint16)\n"
            "      --resize FX,FY,FZ  scale by these factors (or one factor F for all axes)\n"
            "      --rotate AX,AY,AZ  rotate by these degrees about x, then y, then z, about\n"
            "                         the volume's centre (affine warp)\n"
            "      --swirl STRENGTH   twist each slice about the z axis, by up to STRENGTH\n"
            "                         degrees in the middle slice at the axis (remap)\n"
            "      --smooth N         filter with an N x N x N kernel, 1 to %d (16-bit filter;\n"
            "                         other sample types are converted for it)\n"
            "      --kernel box|binomial  smoothing weights (default binomial)\n"
            "      --interp nearest|linear|cubic|catmull-rom|bspline|mitchell\n"
            "                         interpolation of resize, rotate and swirl (default\n"
            "                         linear; cubic is the four-point Lagrange cubic, mitchell\n"
            "                         the B = 1/2, C = 3/10 cubic)\n"
            "      --threads N        threads the library may use (default: all)\n"
            "      --help             show this text\n",
            program, (int)kMaxSmoothSide);
}

static int parseIntText(const char* text, int lowest, int highest, int* out)
{
    char* end;
    const long value = strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < lowest || value > highest) return -1;
    *out = (int)value;
    return 0;
}

/* count comma-separated finite numbers of at most 1e6 in size; with allowOne, a single
 * number stands for all of them. */
static int parseNumbers(const char* text, int count, int allowOne, double* out)
{
    int k = 0;
    for (;; ++k) {
        char* end;
        const double value = strtod(text, &end);
        if (end == text || !isfinite(value) || fabs(value) > 1e6 || k >= count) return -1;
        out[k] = value;
        if (*end == '\0') break;
        if (*end != ',') return -1;
        text = end + 1;
    }
    if (k + 1 == count) return 0;
    if (k == 0 && allowOne) {
        for (int j = 1; j < count; ++j)
            out[j] = out[0];
        return 0;
    }
    return -1;
}

static int setOperation(Options* o, OperationKind kind, const char* name)
{
    if (o->operation.kind != OperationNone) {
        fprintf(stderr, "'%s': only one operation per run\n", name);
        return -1;
    }
    o->operation.kind = kind;
    return 0;
}

int parseOptions(int argc, char** argv, Options* o)
{
    memset(o, 0, sizeof *o);
    o->outputPath = "volume.png";
    o->phantomSize[0] = o->phantomSize[1] = o->phantomSize[2] = 128;
    o->phantomType = SampleUint16;
    o->operation.kind = OperationNone;
    o->operation.binomial = 1;
    o->operation.interpolation = InterpolationLinear;
    o->interpolationName = "linear";
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (strcmp(arg, "--help") == 0) {
            printUsage(stdout, argv[0]);
            return 1;
        }
        if (arg[0] != '-' || arg[1] == '\0') {
            if (o->inputPath != NULL) {
                fprintf(stderr, "'%s': only one input file\n", arg);
                return -1;
            }
            o->inputPath = arg;
            continue;
        }
        /* --name=value or --name value */
        char name[32];
        const char* value = NULL;
        const char* equals = strchr(arg, '=');
        if (strncmp(arg, "--", 2) == 0 && equals != NULL && (size_t)(equals - arg) < sizeof name) {
            snprintf(name, sizeof name, "%.*s", (int)(equals - arg), arg);
            value = equals + 1;
        } else {
            snprintf(name, sizeof name, "%s", arg);
            if (i + 1 < argc) value = argv[i + 1], ++i;
        }
        int bad = value == NULL;
        const char* want = NULL;
        Operation* op = &o->operation;
        if (strcmp(name, "-o") == 0 || strcmp(name, "--output") == 0) {
            if (!bad) o->outputPath = value;
        } else if (strcmp(name, "--save") == 0) {
            if (!bad) o->savePath = value;
        } else if (strcmp(name, "--size") == 0) {
            double e[3];
            want = "N or W,H,D";
            bad = bad || parseNumbers(value, 3, 1, e) != 0;
            for (int k = 0; k < 3 && !bad; ++k) {
                bad = e[k] < 1 || e[k] > kMaxPhantomSide || e[k] != floor(e[k]);
                o->phantomSize[k] = (int)e[k];
            }
        } else if (strcmp(name, "--type") == 0) {
            want = "uint8, uint16, int16 or float";
            bad = 1;
            for (int t = SampleUint8; value != NULL && t <= SampleFloat; ++t)
                if (strcmp(value, sampleTypeName((SampleType)t)) == 0) {
                    o->phantomType = (SampleType)t;
                    bad = 0;
                }
        } else if (strcmp(name, "--resize") == 0) {
            want = "FX,FY,FZ or F, each above 0";
            if (setOperation(o, OperationResize, name) != 0) return -1;
            bad = bad || parseNumbers(value, 3, 1, op->factors) != 0 || op->factors[0] <= 0 ||
                  op->factors[1] <= 0 || op->factors[2] <= 0;
        } else if (strcmp(name, "--rotate") == 0) {
            want = "AX,AY,AZ in degrees";
            if (setOperation(o, OperationRotate, name) != 0) return -1;
            bad = bad || parseNumbers(value, 3, 0, op->angles) != 0;
        } else if (strcmp(name, "--swirl") == 0) {
            want = "STRENGTH in degrees";
            if (setOperation(o, OperationSwirl, name) != 0) return -1;
            bad = bad || parseNumbers(value, 1, 0, &op->strength) != 0;
        } else if (strcmp(name, "--smooth") == 0) {
            want = "a kernel side from 1 to 31";
            if (setOperation(o, OperationSmooth, name) != 0) return -1;
            bad = bad || parseIntText(value, 1, kMaxSmoothSide, &op->kernelSide) != 0;
        } else if (strcmp(name, "--kernel") == 0) {
            want = "box or binomial";
            bad = bad || (strcmp(value, "box") != 0 && strcmp(value, "binomial") != 0);
            if (!bad) op->binomial = strcmp(value, "binomial") == 0;
        } else if (strcmp(name, "--interp") == 0) {
            want = "nearest, linear, cubic, catmull-rom, bspline or mitchell";
            bad = 1;
            for (size_t k = 0;
                 value != NULL && k < sizeof kInterpolations / sizeof kInterpolations[0]; ++k)
                if (strcmp(value, kInterpolations[k].name) == 0) {
                    op->interpolation = kInterpolations[k].code;
                    o->interpolationName = kInterpolations[k].name;
                    bad = 0;
                }
        } else if (strcmp(name, "--threads") == 0) {
            want = "1 to 256";
            bad = bad || parseIntText(value, 1, kMaxThreads, &o->threadCount) != 0;
        } else {
            fprintf(stderr, "unknown option '%s' (see --help)\n", name);
            return -1;
        }
        if (bad) {
            fprintf(stderr, "bad or missing value for '%s'%s%s\n", name, want ? ": want " : "",
                    want ? want : "");
            return -1;
        }
    }
    return 0;
}
