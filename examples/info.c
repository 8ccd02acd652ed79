/* Decode each file named on the command line and print what it holds:
 * format, page count, and for the first page its size, depth and
 * resolution.
 *
 *   cc info.c $(pkg-config --cflags --libs tesslin) -o info
 *   ./info scan.tif photo.jpg
 */
#include <stdio.h>
#include <tesslin/tesslin.h>

static int describe(const char *file) {
    int32_t code = IMGLOW_get_filetype(file);
    if (code < 0) {
        fprintf(stderr, "%s: %s\n", file, IMG_status_message(code));
        return 1;
    }
    IMG_FORMAT_INFO format;
    const char *name = IMGLOW_get_format_info(code, &format) == 0 ? format.description : "?";
    int32_t pages = IMGLOW_get_pages(file);

    int32_t handle = IMG_decompress_bitmap(file);
    if (handle < 0) {
        fprintf(stderr, "%s: cannot decode: %s\n", file, IMG_status_message(handle));
        return 1;
    }
    int32_t width = 0, height = 0, bits = 0;
    IMG_bitmap_info(handle, &width, &height, &bits);
    /* The header is copied with the palette that follows it. */
    struct {
        IMG_BITMAPINFOHEADER header;
        IMG_RGBQUAD palette[256];
    } dib;
    IMGLOW_get_bitmap_header(handle, &dib);
    /* The resolution fields of a decoded image hold dots per inch. */
    printf("%s: %s, %d page%s, %d x %d, %d bit%s, %d x %d dpi\n", file, name,
           pages > 0 ? pages : 1, pages > 1 ? "s" : "", width, height, bits,
           bits == 1 ? "" : "s", dib.header.biXPelsPerMeter, dib.header.biYPelsPerMeter);
    IMG_delete_bitmap(handle);
    return 0;
}

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s FILE...\n", argv[0]);
        return 2;
    }
    int failed = 0;
    for (int i = 1; i < argc; ++i)
        failed |= describe(argv[i]);
    return failed;
}
