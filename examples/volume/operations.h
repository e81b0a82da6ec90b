/* The operations the tool applies to a volume, each through one family of vekr functions,
 * called slab by slab so that long runs can report their progress. */
#ifndef VEKR_VOLUME_OPERATIONS_H
#define VEKR_VOLUME_OPERATIONS_H

#include <stddef.h>

#include "volume_data.h"

typedef enum OperationKind {
    OperationNone = 0,
    OperationResize = 1, /* factors: destination over source extent per axis */
    OperationRotate = 2, /* angles in degrees about x, then y, then z, about the centre */
    OperationSwirl = 3,  /* strength: twist in degrees at the middle of the middle slice */
    OperationSmooth = 4  /* kernelSide^3 box or binomial kernel */
} OperationKind;

typedef struct Operation {
    OperationKind kind;
    double factors[3];
    double angles[3];
    double strength;
    int kernelSide;
    int binomial;      /* smooth: binomial weights instead of a box */
    int interpolation; /* a vekr interpolation code */
} Operation;

/* What a run took: the time inside the library calls and the destination voxels they wrote. */
typedef struct OperationTiming {
    double seconds;
    size_t voxels;
} OperationTiming;

/* Describes the operation in words ("rotate by 30, 0, 15 degrees (linear)") into text. */
void describeOperation(const Operation* op, const char* interpolationName, char* text,
                       size_t textSize);

/* Applies op to src into a new volume *dst of the same sample type (a copy for
 * OperationNone). Voxels the library leaves unwritten (rotated in from outside the source)
 * hold the source's smallest value. Returns 0, or -1 after reporting the problem on stderr. */
int applyOperation(const Operation* op, const Volume* src, Volume* dst, OperationTiming* timing);

#endif /* VEKR_VOLUME_OPERATIONS_H */
