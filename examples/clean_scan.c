/* Straighten and clean a scanned page: find the skew angle, deskew,
 * remove specks, save.
 *
 *   cc clean_scan.c $(pkg-config --cflags --libs tesslin) -o clean_scan
 *   ./clean_scan scan.tif clean.tif
 */
#include <stdio.h>
#include <tesslin/tesslin.h>

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s INPUT OUTPUT.tif\n", argv[0]);
        return 2;
    }
    int32_t handle = IMG_decompress_bitmap(argv[1]);
    if (handle < 0) {
        fprintf(stderr, "%s: %s\n", argv[1], IMG_status_message(handle));
        return 1;
    }
    int32_t angle = 0;
    int32_t status = IMG_get_deskew_angle(handle, &angle, -10, 10);
    if (status >= 0 && angle != 0)
        status = IMG_deskew_bitmap(handle, angle);
    if (status >= 0)
        status = IMG_despeckle_bitmap(handle, 1);
    if (status >= 0) {
        remove(argv[2]); /* a TIFF that exists would get a page appended */
        status = IMG_save_bitmap(handle, argv[2], IMG_FORMAT_TIFF_G4);
    }
    IMG_delete_bitmap(handle);
    if (status < 0) {
        fprintf(stderr, "%s: %s\n", argv[1], IMG_status_message(status));
        return 1;
    }
    printf("%s: deskewed by %d degrees, specks removed\n", argv[2], angle);
    return 0;
}
