/* Names of the vekr status codes, for the renderer's error messages. */
#include "call_status.h"

#include <stdio.h>

static const char* statusName(Status status)
{
    switch (status) {
        case StatusOk:
            return "ok";
        case StatusWarnNoOperation:
            return "warning: no operation";
        case StatusWarnVoiOutsideSource:
            return "warning: volume of interest outside the source";
        case StatusBuildMismatch:
            return "build mismatch";
        case StatusNoMemory:
            return "no memory";
        case StatusBadArgument:
            return "bad argument";
        case StatusBadSize:
            return "bad size";
        case StatusOutOfRange:
            return "out of range";
        case StatusNullPointer:
            return "null pointer";
        case StatusMemoryLimit:
            return "memory limit";
        case StatusBadParameter:
            return "bad parameter";
        case StatusBadInterpolation:
            return "bad interpolation";
        case StatusBadScale:
            return "bad scale";
        case StatusBadChannels:
            return "bad channels";
        case StatusBadCoefficients:
            return "bad coefficients";
    }
    return "unknown status";
}

int checkStatus(Status status, const char* call)
{
    if (status >= StatusOk) return 0;
    fprintf(stderr, "%s failed: status %d (%s)\n", call, (int)status, statusName(status));
    return -1;
}
