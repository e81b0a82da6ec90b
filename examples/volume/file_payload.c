/* Header lines and voxel payloads of volume files. Compressed payloads go through zlib's
 * inflate, which tells a zlib stream (MetaImage) from a gzip one (NRRD) by its header. */
#include "file_payload.h"

#include <ctype.h>
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <zlib.h>

int readHeaderLine(FILE* file, char* line)
{
    if (fgets(line, kHeaderLineMax, file) == NULL) return 0;
    size_t length = strlen(line);
    if (length == kHeaderLineMax - 1 && line[length - 1] != '\n') return -1;
    /* A zero byte ends the text early: binary data where a header line should be. */
    if (length == 0) return -1;
    while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\r'))
        line[--length] = '\0';
    return 1;
}

char* trimBlanks(char* text)
{
    while (isspace((unsigned char)*text))
        ++text;
    size_t length = strlen(text);
    while (length > 0 && isspace((unsigned char)text[length - 1]))
        text[--length] = '\0';
    return text;
}

int parseExtents(const char* text, int count, int* out)
{
    for (int k = 0; k < count; ++k) {
        char* end;
        errno = 0;
        const long value = strtol(text, &end, 10);
        if (end == text || errno != 0 || value < 1 || value > INT32_MAX) return -1;
        if (k + 1 < count && !isspace((unsigned char)*end)) return -1;
        out[k] = (int)value;
        text = end;
    }
    while (isspace((unsigned char)*text))
        ++text;
    return *text == '\0' ? 0 : -1;
}

int siblingPath(const char* headerPath, const char* name, char* out, size_t outSize)
{
    const char* slash = strrchr(headerPath, '/');
    const size_t folder = name[0] == '/' || slash == NULL ? 0 : (size_t)(slash - headerPath) + 1;
    const int written = snprintf(out, outSize, "%.*s%s", (int)folder, headerPath, name);
    return written < 0 || (size_t)written >= outSize ? -1 : 0;
}

static void swapBytes(Volume* v)
{
    const size_t n = volumeVoxelCount(v);
    unsigned char* bytes = v->voxels;
    const size_t size = sampleBytes(v->type);
    for (size_t i = 0; i < n; ++i, bytes += size)
        for (size_t k = 0; k < size / 2; ++k) {
            const unsigned char t = bytes[k];
            bytes[k] = bytes[size - 1 - k];
            bytes[size - 1 - k] = t;
        }
}

static int readRaw(FILE* file, long skipBytes, Volume* v, char* error, size_t errorSize)
{
    const size_t wanted = volumeBytes(v);
    if (skipBytes > 0 && fseek(file, skipBytes, SEEK_CUR) != 0) {
        snprintf(error, errorSize, "cannot skip %ld bytes: %s", skipBytes, strerror(errno));
        return -1;
    }
    const size_t got = fread(v->voxels, 1, wanted, file);
    if (got != wanted) {
        if (ferror(file))
            snprintf(error, errorSize, "read error: %s", strerror(errno));
        else
            snprintf(error, errorSize, "data ends after %zu of %zu bytes", got, wanted);
        return -1;
    }
    return 0;
}

/* Inflates into the skipped bytes first (discarded), then into the voxels. */
static int readCompressed(FILE* file, long skipBytes, Volume* v, char* error, size_t errorSize)
{
    enum { kChunk = 1 << 16 };
    unsigned char* input = malloc(kChunk);
    unsigned char* discard = malloc(kChunk);
    if (input == NULL || discard == NULL) {
        free(input);
        free(discard);
        snprintf(error, errorSize, "out of memory");
        return -1;
    }
    z_stream stream;
    memset(&stream, 0, sizeof stream);
    /* 15 + 32: the largest window, and a zlib or gzip header detected automatically. */
    if (inflateInit2(&stream, 15 + 32) != Z_OK) {
        free(input);
        free(discard);
        snprintf(error, errorSize, "cannot start zlib");
        return -1;
    }
    const size_t wanted = volumeBytes(v);
    size_t skipLeft = skipBytes > 0 ? (size_t)skipBytes : 0;
    size_t produced = 0;
    int result = Z_OK;
    while (produced < wanted) {
        if (stream.avail_in == 0) {
            stream.avail_in = (uInt)fread(input, 1, kChunk, file);
            stream.next_in = input;
            if (stream.avail_in == 0) break;
        }
        unsigned char* target = skipLeft > 0 ? discard : (unsigned char*)v->voxels + produced;
        const size_t room = skipLeft > 0
                                ? (skipLeft < kChunk ? skipLeft : kChunk)
                                : (wanted - produced < (1u << 30) ? wanted - produced : (1u << 30));
        stream.next_out = target;
        stream.avail_out = (uInt)room;
        result = inflate(&stream, Z_NO_FLUSH);
        const size_t made = room - stream.avail_out;
        if (skipLeft > 0)
            skipLeft -= made;
        else
            produced += made;
        if (result == Z_STREAM_END) break;
        if (result != Z_OK && result != Z_BUF_ERROR) break;
    }
    const int failed = result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR;
    if (failed)
        snprintf(error, errorSize, "compressed data corrupt (%s)",
                 stream.msg != NULL ? stream.msg : zError(result));
    else if (produced < wanted)
        snprintf(error, errorSize, "compressed data ends after %zu of %zu bytes", produced, wanted);
    inflateEnd(&stream);
    free(input);
    free(discard);
    return failed || produced < wanted ? -1 : 0;
}

int readPayload(FILE* file, int compressed, long skipBytes, int bigEndian, Volume* v, char* error,
                size_t errorSize)
{
    const int read = compressed ? readCompressed(file, skipBytes, v, error, errorSize)
                                : readRaw(file, skipBytes, v, error, errorSize);
    if (read != 0) return -1;
    if (bigEndian) swapBytes(v);
    return 0;
}
