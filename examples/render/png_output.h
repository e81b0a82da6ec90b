/* Writing the rendered image as a PNG. */
#ifndef VEKR_RENDER_PNG_OUTPUT_H
#define VEKR_RENDER_PNG_OUTPUT_H

#include <stdio.h>

/* Writes 8-bit RGB rows (width x height, row after row) to file, an open file named path, and
 * closes it. Returns 0, or -1 after libpng or the file system reported the failure on stderr. */
int writePng(FILE* file, const char* path, int width, int height, const unsigned char* rgb);

#endif /* VEKR_RENDER_PNG_OUTPUT_H */
