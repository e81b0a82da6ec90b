/* MetaImage files: "Key = Value" lines ending with ElementDataFile, which is LOCAL for data
 * attached after the header (.mha) or the name of a data file (.mhd beside a .raw). Read: 3-D,
 * one channel, MET_UCHAR, MET_USHORT, MET_SHORT or MET_FLOAT, raw or zlib-compressed, either
 * byte order. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "file_payload.h"
#include "volume_file.h"

typedef struct MetaHeader {
    int dimensionCount;
    int hasSizes, sizes[3];
    int hasType, type;
    int compressed;
    int bigEndian;
    long headerSize;
    char dataFile[kHeaderLineMax];
} MetaHeader;

static int parseBoolean(const char* text, int* out)
{
    if (strcasecmp(text, "true") == 0 || strcmp(text, "1") == 0)
        *out = 1;
    else if (strcasecmp(text, "false") == 0 || strcmp(text, "0") == 0)
        *out = 0;
    else
        return -1;
    return 0;
}

static int applyKey(MetaHeader* h, const char* key, const char* value, char* error,
                    size_t errorSize)
{
    int flag = 0;
    if (strcmp(key, "ObjectType") == 0) {
        if (strcmp(value, "Image") != 0) {
            snprintf(error, errorSize, "object type '%s': only images are read", value);
            return -1;
        }
    } else if (strcmp(key, "NDims") == 0) {
        if (strcmp(value, "3") != 0) {
            snprintf(error, errorSize, "NDims %s: only 3-D volumes are read", value);
            return -1;
        }
        h->dimensionCount = 3;
    } else if (strcmp(key, "DimSize") == 0) {
        if (parseExtents(value, 3, h->sizes) != 0) {
            snprintf(error, errorSize, "bad DimSize '%s': want three positive integers", value);
            return -1;
        }
        h->hasSizes = 1;
    } else if (strcmp(key, "ElementType") == 0) {
        static const struct {
            const char* name;
            SampleType type;
        } names[] = {{"MET_UCHAR", SampleUint8},
                     {"MET_USHORT", SampleUint16},
                     {"MET_SHORT", SampleInt16},
                     {"MET_FLOAT", SampleFloat}};
        h->hasType = 0;
        for (size_t k = 0; k < sizeof names / sizeof names[0]; ++k)
            if (strcmp(value, names[k].name) == 0) {
                h->hasType = 1;
                h->type = names[k].type;
            }
        if (!h->hasType) {
            snprintf(error, errorSize,
                     "unsupported element type '%s' (MET_UCHAR, MET_USHORT, MET_SHORT and "
                     "MET_FLOAT are read)",
                     value);
            return -1;
        }
    } else if (strcmp(key, "ElementNumberOfChannels") == 0) {
        if (strcmp(value, "1") != 0) {
            snprintf(error, errorSize, "%s channels per voxel: only one is read", value);
            return -1;
        }
    } else if (strcmp(key, "BinaryData") == 0) {
        if (parseBoolean(value, &flag) != 0 || !flag) {
            snprintf(error, errorSize, "BinaryData '%s': only binary data are read", value);
            return -1;
        }
    } else if (strcmp(key, "BinaryDataByteOrderMSB") == 0 ||
               strcmp(key, "ElementByteOrderMSB") == 0 || strcmp(key, "ByteOrderMSB") == 0) {
        if (parseBoolean(value, &h->bigEndian) != 0) {
            snprintf(error, errorSize, "bad %s '%s': want True or False", key, value);
            return -1;
        }
    } else if (strcmp(key, "CompressedData") == 0) {
        if (parseBoolean(value, &h->compressed) != 0) {
            snprintf(error, errorSize, "bad CompressedData '%s': want True or False", value);
            return -1;
        }
    } else if (strcmp(key, "HeaderSize") == 0) {
        char* end;
        errno = 0;
        h->headerSize = strtol(value, &end, 10);
        if (end == value || *end != '\0' || errno != 0 || h->headerSize < -1) {
            snprintf(error, errorSize, "bad HeaderSize '%s'", value);
            return -1;
        }
    } else if (strcmp(key, "ElementDataFile") == 0) {
        if (value[0] == '\0' || strncmp(value, "LIST", 4) == 0 || strchr(value, '%') != NULL) {
            snprintf(error, errorSize,
                     "ElementDataFile '%s': want LOCAL or the name of one data file", value);
            return -1;
        }
        snprintf(h->dataFile, sizeof h->dataFile, "%s", value);
    }
    /* Spacing, offset, orientation and the like do not change the voxels. */
    return 0;
}

int loadMetaImage(FILE* file, const char* path, const char* firstLine, Volume* v, char* error,
                  size_t errorSize)
{
    MetaHeader h;
    memset(&h, 0, sizeof h);
    char line[kHeaderLineMax];
    snprintf(line, sizeof line, "%s", firstLine);
    for (int lineNumber = 1;; ++lineNumber) {
        char* equals = strchr(line, '=');
        if (equals == NULL) {
            if (trimBlanks(line)[0] == '\0') goto next; /* blank lines are allowed */
            snprintf(error, errorSize, "line %d: not a 'Key = Value' line: '%.60s'", lineNumber,
                     line);
            return -1;
        }
        *equals = '\0';
        if (applyKey(&h, trimBlanks(line), trimBlanks(equals + 1), error, errorSize) != 0)
            return -1;
        if (h.dataFile[0] != '\0') break; /* ElementDataFile is the last key */
    next:;
        const int got = readHeaderLine(file, line);
        if (got < 0) {
            snprintf(error, errorSize, "line %d: header line too long or not text", lineNumber + 1);
            return -1;
        }
        if (got == 0) {
            snprintf(error, errorSize, "header ends without ElementDataFile");
            return -1;
        }
    }
    if (h.dimensionCount == 0 || !h.hasSizes || !h.hasType) {
        snprintf(error, errorSize, "header lacks the key '%s'",
                 h.dimensionCount == 0 ? "NDims"
                 : !h.hasSizes         ? "DimSize"
                                       : "ElementType");
        return -1;
    }
    if (volumeAllocate(v, (SampleType)h.type, h.sizes[0], h.sizes[1], h.sizes[2]) != 0) {
        snprintf(error, errorSize, "cannot hold a %d x %d x %d volume of %s in memory", h.sizes[0],
                 h.sizes[1], h.sizes[2], sampleTypeName((SampleType)h.type));
        return -1;
    }
    FILE* data = file;
    if (strcmp(h.dataFile, "LOCAL") != 0) {
        char dataPath[kHeaderLineMax + 256];
        if (siblingPath(path, h.dataFile, dataPath, sizeof dataPath) != 0 ||
            (data = fopen(dataPath, "rb")) == NULL) {
            snprintf(error, errorSize, "data file '%s': %s", h.dataFile, strerror(errno));
            volumeRelease(v);
            return -1;
        }
    }
    int result = 0;
    long skip = 0;
    if (data != file && h.headerSize == -1) {
        /* -1: the data are the last bytes of the data file. */
        if (h.compressed || fseek(data, -(long)volumeBytes(v), SEEK_END) != 0) {
            snprintf(error, errorSize, "HeaderSize -1 needs a raw data file of at least %zu bytes",
                     volumeBytes(v));
            result = -1;
        }
    } else if (data != file) {
        skip = h.headerSize;
    }
    /* A compressed data file holds one zlib stream; its header is skipped before inflating. */
    if (result == 0 && h.compressed && skip > 0 && fseek(data, skip, SEEK_SET) != 0) {
        snprintf(error, errorSize, "cannot skip the %ld-byte header of the data file", skip);
        result = -1;
    }
    if (result == 0)
        result = readPayload(data, h.compressed, h.compressed ? 0 : skip, h.bigEndian, v, error,
                             errorSize);
    if (data != file) fclose(data);
    if (result != 0) volumeRelease(v);
    return result;
}
