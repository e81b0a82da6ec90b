/* The built-in test volume: a head-like phantom of nested ellipsoids, tubes and beads. */
#ifndef VEKR_VOLUME_PHANTOM_H
#define VEKR_VOLUME_PHANTOM_H

#include "volume_data.h"

/* Fills a new width x height x depth volume of the given type. Intensities run from 0
 * (outside) to 1 (the shell), stored as 250 x for uint8, 4000 x for uint16, 2000 x - 1000 for
 * int16 and as they are for float. Returns 0, or -1 when memory is short. */
int makePhantom(Volume* v, SampleType type, int width, int height, int depth);

#endif /* VEKR_VOLUME_PHANTOM_H */
