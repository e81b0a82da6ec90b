/* Opening a volume file and telling its format by the first line. */
#include "volume_file.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "file_payload.h"

int loadVolumeFile(const char* path, Volume* v, char* error, size_t errorSize)
{
    FILE* file = fopen(path, "rb");
    if (file == NULL) {
        snprintf(error, errorSize, "%s", strerror(errno));
        return -1;
    }
    char line[kHeaderLineMax];
    const int got = readHeaderLine(file, line);
    int result = -1;
    if (got <= 0)
        snprintf(error, errorSize, got == 0 ? "empty file" : "not a NRRD or MetaImage header");
    else if (strncmp(line, "NRRD000", 7) == 0 && line[7] >= '1' && line[7] <= '5' &&
             line[8] == '\0')
        result = loadNrrd(file, path, v, error, errorSize);
    else if (strncmp(line, "NRRD", 4) == 0)
        snprintf(error, errorSize, "unknown NRRD version '%.20s'", line);
    else if (strchr(line, '=') != NULL)
        result = loadMetaImage(file, path, line, v, error, errorSize);
    else
        snprintf(error, errorSize, "not a NRRD or MetaImage header");
    fclose(file);
    return result;
}
