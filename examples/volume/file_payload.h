/* What the NRRD and MetaImage readers share: header lines, the path of a detached data file,
 * and the voxel payload, raw or zlib/gzip-compressed, in either byte order. */
#ifndef VEKR_FILE_PAYLOAD_H
#define VEKR_FILE_PAYLOAD_H

#include <stdio.h>

#include "volume_data.h"

enum { kHeaderLineMax = 4096 };

/* Reads one header line into line (without its line end). Returns 1 for a line, 0 at the end
 * of the file, -1 for a line longer than kHeaderLineMax - 1 or one holding a zero byte. */
int readHeaderLine(FILE* file, char* line);

/* Strips blanks at both ends in place and returns the start. */
char* trimBlanks(char* text);

/* Parses exactly count positive integers separated by blanks. Returns 0 or -1. */
int parseExtents(const char* text, int count, int* out);

/* The path of a data file named in the header at headerPath: relative names are taken from the
 * header's folder. Returns 0, or -1 when the result does not fit. */
int siblingPath(const char* headerPath, const char* name, char* out, size_t outSize);

/* Reads the voxels of v (allocated) from the file's current position: volumeBytes(v) bytes,
 * after skipBytes more of the decoded stream, zlib- or gzip-compressed when compressed is set,
 * byte-swapped to this machine's little-endian order when bigEndian is set. Returns 0, or -1
 * with the problem in error. */
int readPayload(FILE* file, int compressed, long skipBytes, int bigEndian, Volume* v, char* error,
                size_t errorSize);

#endif /* VEKR_FILE_PAYLOAD_H */
