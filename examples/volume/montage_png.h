/* The picture the tool writes: the three orthogonal mid-slices of a volume before (top row)
 * and after (bottom row) the operation, side by side, in one PNG. */
#ifndef VEKR_VOLUME_MONTAGE_PNG_H
#define VEKR_VOLUME_MONTAGE_PNG_H

#include "volume_data.h"

/* Columns: the xy slice at the middle z (x to the right, y down), the xz slice at the middle
 * y and the yz slice at the middle x (z up in both). Grey levels map lowest .. highest to
 * black .. white, clamped. Each voxel becomes zoom x zoom pixels. Returns 0, or -1 after
 * reporting the problem on stderr. */
int writeMontagePng(const char* path, const Volume* before, const Volume* after, double lowest,
                    double highest, int zoom);

/* A zoom that makes the larger extent of the two volumes about 256 pixels (at least 1). */
int montageZoom(const Volume* before, const Volume* after);

#endif /* VEKR_VOLUME_MONTAGE_PNG_H */
