/* The volume tool's command line. */
#ifndef VEKR_VOLUME_OPTIONS_H
#define VEKR_VOLUME_OPTIONS_H

#include "operations.h"
#include "volume_data.h"

typedef struct Options {
    const char* inputPath;  /* null: the built-in phantom */
    const char* outputPath; /* the montage PNG */
    const char* savePath;   /* null: the result is not saved */
    int phantomSize[3];
    SampleType phantomType;
    Operation operation;
    const char* interpolationName;
    int threadCount; /* 0: the library's default */
} Options;

/* Fills *o from the command line, defaults first. Returns 0 to run, 1 after --help, -1 after
 * reporting a bad command line on stderr. */
int parseOptions(int argc, char** argv, Options* o);

#endif /* VEKR_VOLUME_OPTIONS_H */
