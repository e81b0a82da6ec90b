/* Volume files: NRRD and MetaImage headers and their raw or zlib-compressed voxels. */
#ifndef VEKR_VOLUME_FILE_H
#define VEKR_VOLUME_FILE_H

#include <stddef.h>
#include <stdio.h>

#include "volume_data.h"

/* Loads a 3-D volume from a NRRD file (data attached, or detached through 'data file') or a
 * MetaImage file (.mha with the data attached, .mhd with a data file beside it); the format is
 * told by the file's first line. Returns 0, or -1 with the problem in error (the caller names
 * the file). */
int loadVolumeFile(const char* path, Volume* v, char* error, size_t errorSize);

/* Writes v as a NRRD file with raw little-endian data attached. Returns 0 or -1 as above. */
int saveVolumeNrrd(const char* path, const Volume* v, char* error, size_t errorSize);

/* The readers of each format, entered with the file open after its first line. */
int loadNrrd(FILE* file, const char* path, Volume* v, char* error, size_t errorSize);
int loadMetaImage(FILE* file, const char* path, const char* firstLine, Volume* v, char* error,
                  size_t errorSize);

#endif /* VEKR_VOLUME_FILE_H */
