/* A plug-in module for the tests, built three ways:
 *   pdfmod   (default): the stream PDF module;
 *   apdfmod  (TESSLIN_TEST_APDF): the file-name PDF module;
 *   abicmod  (TESSLIN_TEST_ABIC): the ABIC decoder.
 * The PDF modules serve a synthetic document: the text
 *   "%PDF-1.4 tesslin-test pages=<n> width=<w> height=<h> bits=<1|8>"
 * whose page p is a pattern the tests can predict: 8 bits: grey value
 * (7x + 3y + 50p) mod 256 with transparent colour 5; 1 bit: black where
 * (x/4 + y/4 + p) is even, rows delivered as run records from the bottom.
 * Each module also exports testmod_* queries of what the library did. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "tesslin/tesslin.h"

#define EXPORT __attribute__((visibility("default")))

typedef int32_t (*ReadFn)(int32_t, void *, uint32_t);
typedef int32_t (*WriteFn)(int32_t, const void *, uint32_t);
typedef int32_t (*SeekFn)(int32_t, int32_t, int);

static int g_callbacks;
static ReadFn g_read;
static SeekFn g_seek;
static int32_t g_input[2];
static uint32_t g_position;
static int32_t g_stream_at;

EXPORT int testmod_callbacks(void) { return g_callbacks; }
EXPORT int32_t testmod_input(int i) { return g_input[i & 1]; }
EXPORT uint32_t testmod_position(void) { return g_position; }
EXPORT int32_t testmod_stream_at(void) { return g_stream_at; }

EXPORT int32_t set_pdf_input(int32_t a, int32_t b) {
    g_input[0] = a;
    g_input[1] = b;
    return 17;
}

#if !defined(TESSLIN_TEST_ABIC)

struct Doc {
    int pages, width, height, bits;
};

static int parse(const char *text, struct Doc *d) {
    const char *p = strstr(text, "tesslin-test");
    if (strncmp(text, "%PDF", 4) != 0 || !p) return IMG_ERR_BAD_IMAGE;
    if (sscanf(p, "tesslin-test pages=%d width=%d height=%d bits=%d", &d->pages, &d->width,
               &d->height, &d->bits) != 4)
        return IMG_ERR_BAD_IMAGE;
    if (d->width < 1 || d->width > 4096 || d->height < 1 || d->height > 4096) return IMG_ERR_BAD_IMAGE;
    return 0;
}

static int32_t render(const struct Doc *d, int page, IMG_RASTER_CALLBACK raster, intptr_t user,
                      IMG_HEADER_CALLBACK header) {
    static uint8_t block[40 + 1024];
    static uint32_t row[4096 + 16];
    IMG_BITMAPINFOHEADER *h = (IMG_BITMAPINFOHEADER *)block;
    uint8_t *pal = block + 40;
    int32_t r;
    if (page >= d->pages) return IMG_ERR_NO_PAGE;
    memset(block, 0, sizeof block);
    h->biSize = 40;
    h->biWidth = d->width;
    h->biHeight = d->height;
    h->biPlanes = 1;
    h->biBitCount = (uint16_t)d->bits;
    h->biXPelsPerMeter = h->biYPelsPerMeter = 200;
    for (int i = 0; i < 256; ++i) pal[i * 4] = pal[i * 4 + 1] = pal[i * 4 + 2] = (uint8_t)i;
    if (d->bits == 1) pal[4] = pal[5] = pal[6] = 255;
    if (d->bits == 8) h->biClrUsed = 0x1000 | 5;
    r = header(h, user);
    if (r < 0) return r;
    for (int i = 0; i < d->height; ++i) {
        uint8_t *bytes = (uint8_t *)row;
        if (d->bits == 8) {
            int y = i;
            uint32_t n = ((uint32_t)d->width + 3) & ~3u;
            for (int x = 0; x < d->width; ++x) bytes[x] = (uint8_t)(7 * x + 3 * y + 50 * page);
            r = raster(bytes, user, y, n);
        } else {
            /* Run record of row y, bottom row first. */
            int y = d->height - 1 - i, n = 1;
            int black = ((y / 4 + page) % 2) == 0; /* colour at x = 0 */
            if (black) row[n++] = 0;
            for (int x = 4; x < d->width; x += 4) row[n++] = (uint32_t)x;
            row[n++] = (uint32_t)d->width;
            row[n++] = (uint32_t)d->width;
            row[n++] = (uint32_t)d->width;
            row[n++] = (uint32_t)d->width; /* one more: never a packed row's length */
            row[0] = (uint32_t)n * 4;
            r = raster(bytes, user, y, row[0]);
        }
        if (r < 0) return r;
    }
    return 0;
}

#endif

#if !defined(TESSLIN_TEST_APDF) && !defined(TESSLIN_TEST_ABIC)

EXPORT void set_callbacks(ReadFn read, WriteFn write, SeekFn seek, intptr_t zero,
                          void *decompress_mem, void *fax_mem, void *display, void *delete_bitmap,
                          void *rotate) {
    (void)write, (void)zero, (void)decompress_mem, (void)fax_mem, (void)display;
    (void)delete_bitmap, (void)rotate;
    g_read = read;
    g_seek = seek;
    ++g_callbacks;
}

static int read_doc(int32_t stream, struct Doc *d) {
    char text[128] = {0};
    if (!g_read || g_read(stream, text, sizeof text - 1) < 10) return IMG_ERR_READ;
    return parse(text, d);
}

EXPORT int32_t decode_pdf(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                          IMG_HEADER_CALLBACK header, int32_t stream) {
    struct Doc d;
    int page = 0, r;
    g_position = position;
    if (!g_seek) return IMG_ERR_MEMORY;
    g_stream_at = g_seek(stream, 0, 1);
    if (position & 0x80000000u)
        page = (int)(position & 0xFFFF);
    else
        g_seek(stream, (int32_t)position, 0);
    r = read_doc(stream, &d);
    return r < 0 ? r : render(&d, page, raster, user, header);
}

EXPORT int32_t pdf_get_pages(int32_t stream) {
    struct Doc d;
    int r;
    if (!g_seek) return IMG_ERR_MEMORY;
    g_seek(stream, 0, 0);
    r = read_doc(stream, &d);
    return r < 0 ? r : d.pages;
}

EXPORT int32_t pdf_search_text(void) { return IMG_ERR_TEXT_NOT_FOUND; }

#elif defined(TESSLIN_TEST_APDF)

static int read_file(const char *file, struct Doc *d) {
    char text[128] = {0};
    FILE *f = fopen(file, "rb");
    if (!f) return IMG_ERR_OPEN;
    size_t n = fread(text, 1, sizeof text - 1, f);
    fclose(f);
    if (n < 10) return IMG_ERR_READ;
    return parse(text, d);
}

EXPORT int32_t decode_apdf(const char *file, IMG_RASTER_CALLBACK raster, intptr_t user,
                           IMG_HEADER_CALLBACK header, int32_t page) {
    struct Doc d;
    int r = read_file(file, &d);
    g_position = (uint32_t)page;
    return r < 0 ? r : render(&d, page, raster, user, header);
}

EXPORT int32_t apdf_get_pages(const char *file) {
    struct Doc d;
    int r = read_file(file, &d);
    return r < 0 ? r : d.pages + 100; /* told apart from the stream module's count */
}

EXPORT int32_t apdf_extract_text(const char *file, char **text, int32_t flag) {
    (void)file, (void)text, (void)flag;
    return 0;
}

#else /* abicmod */

/* Fills `rows` packed rows (4-byte aligned) of `width` pixels: row i has
 * black (1 bits) in its first (i mod width) + 1 pixels. */
EXPORT int32_t IMG_decomp_abic(int32_t stream, int32_t width, int32_t rows, int32_t five,
                               uint8_t *out, SeekFn seek, ReadFn read) {
    uint32_t rb = (((uint32_t)width + 31) / 32) * 4;
    (void)stream, (void)seek, (void)read;
    g_input[0] = five;
    for (int i = 0; i < rows; ++i) {
        uint8_t *row = out + (size_t)i * rb;
        memset(row, 0, rb);
        for (int x = 0; x <= i % width; ++x) row[x / 8] |= (uint8_t)(0x80 >> (x % 8));
    }
    return 0;
}

#endif
