/* A plain C application using only the installed header and the shared
 * library: handles from DIBs of every depth built with the header's
 * structures, rows read back unchanged, bad handles refused. (The run-record
 * conversions are checked in tests/core.) */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tesslin/tesslin.h>

static int failures = 0;
#define CHECK(cond)                                                          \
    do {                                                                     \
        if (!(cond)) {                                                       \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, \
                    #cond);                                                  \
            ++failures;                                                      \
        }                                                                    \
    } while (0)

static uint32_t row_bytes(int32_t width, int bits) {
    return (uint32_t)(((width * bits + 31) / 32) * 4);
}

static uint32_t palette_bytes(int bits) {
    return bits == 1 ? 8u : bits == 4 ? 64u : (bits == 8 || bits == 16) ? 1024u : 0u;
}

/* A DIB in a library block, rows filled with a pattern that depends on the
 * row, so that a row swapped or shifted is noticed. */
static void *make_dib(int32_t width, int32_t height, int bits) {
    uint32_t rb = row_bytes(width, bits), pal = palette_bytes(bits);
    uint8_t *dib = tesslin_block_alloc(40 + pal + rb * (uint32_t)height);
    IMG_BITMAPINFOHEADER *h = (IMG_BITMAPINFOHEADER *)dib;
    memset(h, 0, 40);
    h->biSize = 40;
    h->biWidth = width;
    h->biHeight = height;
    h->biPlanes = 1;
    h->biBitCount = (uint16_t)bits;
    h->biSizeImage = rb * (uint32_t)height;
    for (uint32_t i = 0; i < pal / 4; ++i) {
        IMG_RGBQUAD *q = (IMG_RGBQUAD *)(dib + 40) + i;
        q->rgbRed = q->rgbGreen = q->rgbBlue = (uint8_t)(bits == 1 ? i * 255 : i);
        q->rgbReserved = 0;
    }
    uint8_t *px = dib + 40 + pal;
    for (int32_t r = 0; r < height; ++r) {
        uint8_t *row = px + (uint32_t)(height - 1 - r) * rb;
        for (uint32_t b = 0; b < rb; ++b) row[b] = (uint8_t)(r * 31 + b * 7 + (b >> 3));
    }
    return dib;
}

static void check_depth(int bits) {
    const int32_t w = 37, h = 23;
    uint8_t *dib = make_dib(w, h, bits);
    uint32_t rb = row_bytes(w, bits);
    uint8_t *copy = malloc(rb * (uint32_t)h);
    memcpy(copy, dib + 40 + palette_bytes(bits), rb * (uint32_t)h);
    int32_t handle = IMG_create_handle_keep(dib);
    CHECK(handle >= 0);
    int32_t gw = 0, gh = 0, gb = 0;
    CHECK(IMG_bitmap_info(handle, &gw, &gh, &gb) == (intptr_t)dib);
    CHECK(gw == w && gh == h && gb == bits);
    uint8_t *row = malloc(rb);
    for (int32_t r = 0; r < h; ++r) {
        CHECK(IMGLOW_get_raster(handle, row, r, 0) == 0);
        CHECK(memcmp(row, copy + (uint32_t)(h - 1 - r) * rb, rb) == 0);
    }
    CHECK(IMG_delete_bitmap(handle) == 0);
    CHECK(IMG_bitmap_info(handle, &gw, &gh, &gb) == IMG_ERR_HANDLE);
    free(row);
    free(copy);
}

int main(void) {
    static const int depths[] = {1, 4, 8, 16, 24, 32};
    for (size_t i = 0; i < sizeof depths / sizeof depths[0]; ++i) check_depth(depths[i]);
    int32_t x;
    CHECK(IMG_get_croprect(-1, &x, &x, &x, &x) == IMG_ERR_HANDLE);
    int32_t major = 0, minor = -1;
    CHECK(IMG_ifl_version(&major, &minor) == 0 && major == 13 && minor == 0);
    CHECK(strcmp(IMG_status_name(IMG_ERR_NO_PAGE), "IMG_ERR_NO_PAGE") == 0);
    if (failures) fprintf(stderr, "%d checks failed\n", failures);
    return failures ? 1 : 0;
}
