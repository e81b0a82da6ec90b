/* NRRD files: a text header of "field: value" lines, then a blank line and the data, or the
 * data in a separate file named by "data file". Read: 3-D, uint8/uint16/int16/float, raw or
 * gzip, either byte order, byte and line skips. Written: raw little-endian, data attached. */
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "file_payload.h"
#include "volume_file.h"

typedef struct NrrdHeader {
    int hasType, type;
    int dimension;
    int hasSizes, sizes[3];
    int compressed;
    int bigEndian;
    char dataFile[kHeaderLineMax];
    long byteSkip;
    long lineSkip;
} NrrdHeader;

/* The type names the format allows for the four sample types the tool reads. */
static int parseNrrdType(const char* text, SampleType* type)
{
    static const struct {
        const char* name;
        SampleType type;
    } names[] = {
        {"uchar", SampleUint8},
        {"unsigned char", SampleUint8},
        {"uint8", SampleUint8},
        {"uint8_t", SampleUint8},
        {"ushort", SampleUint16},
        {"unsigned short", SampleUint16},
        {"unsigned short int", SampleUint16},
        {"uint16", SampleUint16},
        {"uint16_t", SampleUint16},
        {"short", SampleInt16},
        {"short int", SampleInt16},
        {"signed short", SampleInt16},
        {"signed short int", SampleInt16},
        {"int16", SampleInt16},
        {"int16_t", SampleInt16},
        {"float", SampleFloat},
    };
    for (size_t k = 0; k < sizeof names / sizeof names[0]; ++k)
        if (strcmp(text, names[k].name) == 0) {
            *type = names[k].type;
            return 0;
        }
    return -1;
}

static int parseLong(const char* text, long lowest, long* out)
{
    char* end;
    errno = 0;
    const long value = strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || value < lowest) return -1;
    *out = value;
    return 0;
}

/* Applies one "field: value" line. Returns 0, or -1 with the problem in error. */
static int applyField(NrrdHeader* h, const char* field, char* value, char* error, size_t errorSize)
{
    if (strcmp(field, "type") == 0) {
        SampleType type;
        if (parseNrrdType(value, &type) != 0) {
            snprintf(error, errorSize,
                     "unsupported sample type '%s' (uint8, uint16, int16 and float are read)",
                     value);
            return -1;
        }
        h->hasType = 1;
        h->type = type;
    } else if (strcmp(field, "dimension") == 0) {
        long dimension;
        if (parseLong(value, 1, &dimension) != 0) {
            snprintf(error, errorSize, "bad dimension '%s'", value);
            return -1;
        }
        if (dimension != 3) {
            snprintf(error, errorSize, "dimension %ld: only 3-D volumes are read", dimension);
            return -1;
        }
        h->dimension = 3;
    } else if (strcmp(field, "sizes") == 0) {
        if (parseExtents(value, 3, h->sizes) != 0) {
            snprintf(error, errorSize, "bad sizes '%s': want three positive integers", value);
            return -1;
        }
        h->hasSizes = 1;
    } else if (strcmp(field, "encoding") == 0) {
        if (strcmp(value, "raw") == 0)
            h->compressed = 0;
        else if (strcmp(value, "gzip") == 0 || strcmp(value, "gz") == 0)
            h->compressed = 1;
        else {
            snprintf(error, errorSize, "unsupported encoding '%s' (raw and gzip are read)", value);
            return -1;
        }
    } else if (strcmp(field, "endian") == 0) {
        if (strcmp(value, "little") != 0 && strcmp(value, "big") != 0) {
            snprintf(error, errorSize, "bad endian '%s': want little or big", value);
            return -1;
        }
        h->bigEndian = strcmp(value, "big") == 0;
    } else if (strcmp(field, "data file") == 0 || strcmp(field, "datafile") == 0) {
        /* Lists of files and numbered file patterns split one volume over several files. */
        if (strncmp(value, "LIST", 4) == 0 || strchr(value, '%') != NULL || value[0] == '\0') {
            snprintf(error, errorSize, "data file '%s': only a single data file is read", value);
            return -1;
        }
        snprintf(h->dataFile, sizeof h->dataFile, "%s", value);
    } else if (strcmp(field, "byte skip") == 0 || strcmp(field, "byteskip") == 0) {
        if (parseLong(value, -1, &h->byteSkip) != 0) {
            snprintf(error, errorSize, "bad byte skip '%s'", value);
            return -1;
        }
    } else if (strcmp(field, "line skip") == 0 || strcmp(field, "lineskip") == 0) {
        if (parseLong(value, 0, &h->lineSkip) != 0) {
            snprintf(error, errorSize, "bad line skip '%s'", value);
            return -1;
        }
    }
    /* Other fields (spacings, space directions, kinds, content, ...) do not change the voxels. */
    return 0;
}

static int skipLines(FILE* file, long lines)
{
    for (long k = 0; k < lines; ++k)
        for (int c;;) {
            c = getc(file);
            if (c == EOF) return -1;
            if (c == '\n') break;
        }
    return 0;
}

int loadNrrd(FILE* file, const char* path, Volume* v, char* error, size_t errorSize)
{
    NrrdHeader h;
    memset(&h, 0, sizeof h);
    char line[kHeaderLineMax];
    int lineNumber = 1, ended = 0;
    for (;;) {
        const int got = readHeaderLine(file, line);
        ++lineNumber;
        if (got < 0) {
            snprintf(error, errorSize, "line %d: header line too long or not text", lineNumber);
            return -1;
        }
        if (got == 0) break;
        if (line[0] == '\0') {
            ended = 1; /* the blank line: attached data follows */
            break;
        }
        if (line[0] == '#' || strstr(line, ":=") != NULL) continue; /* comments, key/values */
        char* colon = strstr(line, ": ");
        if (colon == NULL) {
            snprintf(error, errorSize, "line %d: not a 'field: value' line: '%.60s'", lineNumber,
                     line);
            return -1;
        }
        *colon = '\0';
        char* field = trimBlanks(line);
        for (char* c = field; *c; ++c)
            *c = (char)tolower((unsigned char)*c);
        if (applyField(&h, field, trimBlanks(colon + 2), error, errorSize) != 0) return -1;
    }
    if (!h.hasType || h.dimension == 0 || !h.hasSizes) {
        snprintf(error, errorSize, "header lacks the field '%s'",
                 !h.hasType         ? "type"
                 : h.dimension == 0 ? "dimension"
                                    : "sizes");
        return -1;
    }
    if (!ended && h.dataFile[0] == '\0') {
        snprintf(error, errorSize, "header ends without a blank line before the data");
        return -1;
    }
    if (volumeAllocate(v, (SampleType)h.type, h.sizes[0], h.sizes[1], h.sizes[2]) != 0) {
        snprintf(error, errorSize, "cannot hold a %d x %d x %d volume of %s in memory", h.sizes[0],
                 h.sizes[1], h.sizes[2], sampleTypeName((SampleType)h.type));
        return -1;
    }
    FILE* data = file;
    char dataPath[kHeaderLineMax + 256];
    if (h.dataFile[0] != '\0') {
        if (siblingPath(path, h.dataFile, dataPath, sizeof dataPath) != 0 ||
            (data = fopen(dataPath, "rb")) == NULL) {
            snprintf(error, errorSize, "data file '%s': %s", h.dataFile, strerror(errno));
            volumeRelease(v);
            return -1;
        }
    }
    int result = 0;
    if (skipLines(data, h.lineSkip) != 0) {
        snprintf(error, errorSize, "data ends within the %ld lines to skip", h.lineSkip);
        result = -1;
    } else if (h.byteSkip == -1) {
        /* -1: the data are the last bytes of the file (raw data only). */
        if (h.compressed) {
            snprintf(error, errorSize, "byte skip -1 is only meaningful for raw data");
            result = -1;
        } else if (fseek(data, -(long)volumeBytes(v), SEEK_END) != 0) {
            snprintf(error, errorSize, "data file shorter than the %zu bytes of the volume",
                     volumeBytes(v));
            result = -1;
        }
    }
    if (result == 0)
        result = readPayload(data, h.compressed, h.byteSkip > 0 ? h.byteSkip : 0, h.bigEndian, v,
                             error, errorSize);
    if (data != file) fclose(data);
    if (result != 0) volumeRelease(v);
    return result;
}

int saveVolumeNrrd(const char* path, const Volume* v, char* error, size_t errorSize)
{
    FILE* file = fopen(path, "wb");
    if (file == NULL) {
        snprintf(error, errorSize, "%s", strerror(errno));
        return -1;
    }
    /* The voxels are written as they lie in memory: little-endian on x86-64. */
    fprintf(file,
            "NRRD0004\n"
            "# written by the vekr volume tool\n"
            "type: %s\n"
            "dimension: 3\n"
            "sizes: %d %d %d\n"
            "endian: little\n"
            "encoding: raw\n"
            "\n",
            sampleTypeName(v->type), v->width, v->height, v->depth);
    const size_t written = fwrite(v->voxels, 1, volumeBytes(v), file);
    const int closed = fclose(file);
    if (written != volumeBytes(v) || closed != 0) {
        snprintf(error, errorSize, "write error: %s", strerror(errno));
        return -1;
    }
    return 0;
}
