/* PNG output through libpng: 8-bit RGB, no interlacing. */
#include "png_output.h"

#include <png.h>

/* libpng reports its own errors on stderr before jumping back to the setjmp below. */
int writePng(FILE* file, const char* path, int width, int height, const unsigned char* rgb)
{
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, NULL, NULL, NULL);
    png_infop info = png != NULL ? png_create_info_struct(png) : NULL;
    if (info == NULL) {
        fprintf(stderr, "%s: cannot set up the PNG writer\n", path);
        png_destroy_write_struct(&png, NULL);
        fclose(file);
        return -1;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        fclose(file);
        return -1;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, (png_uint_32)width, (png_uint_32)height, 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int row = 0; row < height; ++row)
        png_write_row(png, rgb + (size_t)row * width * 3);
    png_write_end(png, NULL);
    png_destroy_write_struct(&png, &info);
    if (fclose(file) != 0) {
        perror(path);
        return -1;
    }
    return 0;
}
