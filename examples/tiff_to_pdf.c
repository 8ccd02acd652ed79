/* Every page of a multi-page TIFF into one PDF: each page is decoded and
 * saved in turn; saving into an existing PDF appends a page.
 *
 *   cc tiff_to_pdf.c $(pkg-config --cflags --libs tesslin) -o tiff_to_pdf
 *   ./tiff_to_pdf fax.tif fax.pdf
 */
#include <stdio.h>
#include <tesslin/tesslin.h>

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s INPUT.tif OUTPUT.pdf\n", argv[0]);
        return 2;
    }
    const char *input = argv[1], *output = argv[2];
    int32_t pages = IMGLOW_get_pages(input);
    if (pages < 0) {
        fprintf(stderr, "%s: %s\n", input, IMG_status_message(pages));
        return 1;
    }
    /* Start from an empty output: an existing PDF would be appended to. */
    remove(output);
    for (int32_t page = 0; page < pages; ++page) {
        int32_t handle = IMG_decompress_bitmap_page(input, page);
        if (handle < 0) {
            fprintf(stderr, "%s: page %d: %s\n", input, page + 1, IMG_status_message(handle));
            return 1;
        }
        int32_t status = IMG_save_bitmap(handle, output, IMG_FORMAT_PDF);
        IMG_delete_bitmap(handle);
        if (status < 0) {
            fprintf(stderr, "%s: %s\n", output, IMG_status_message(status));
            return 1;
        }
    }
    printf("%s: %d page%s\n", output, pages, pages == 1 ? "" : "s");
    return 0;
}
