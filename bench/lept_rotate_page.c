/* The end-to-end peer of `tesslin rotate --angle 90`, for bench_geometry:
 * reads a Group 4 TIFF page with Leptonica, turns it clockwise by a quarter
 * turn (pixRotate90) and writes it as Group 4 TIFF. */
#include <leptonica/allheaders.h>

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    PIX* pix = pixRead(argv[1]);
    if (!pix) return 1;
    PIX* turned = pixRotate90(pix, 1);
    const int status = turned && pixWrite(argv[2], turned, IFF_TIFF_G4) == 0 ? 0 : 1;
    pixDestroy(&turned);
    pixDestroy(&pix);
    return status;
}
