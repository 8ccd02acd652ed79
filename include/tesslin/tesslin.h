/*
 * Tesslin imaging library: public interface.
 *
 * Every exported function returns a signed status, a handle or a count.
 * Zero or positive means success; negative values are the IMG_ERR_ codes
 * below. Nothing is thrown across this interface.
 *
 * Bitmap handles are small integers (0 to 9999) naming slots of one
 * process-wide table. Stream handles are 32-bit values: an open file
 * descriptor, a memory stream made by the library, or anything the
 * application's own I/O hooks understand (IMGLOW_set_fileio).
 *
 * Settings (IMGLOW_set_*) are process-wide and not locked: set them from
 * the thread that then decodes or saves. Different handles and streams
 * may be used on different threads at the same time.
 */
#ifndef TESSLIN_TESSLIN_H
#define TESSLIN_TESSLIN_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#define TESSLIN_API __declspec(dllexport)
#else
#define TESSLIN_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------ */
/* Status codes                                                         */
/* ------------------------------------------------------------------ */

enum {
    IMG_OK = 0,
    IMG_ERR_MEMORY = -1,           /* no memory, or a failure without a more specific code */
    IMG_ERR_OPEN = -2,             /* a named file could not be opened */
    IMG_ERR_BAD_IMAGE = -3,        /* invalid image description or self-contradicting data */
    IMG_ERR_CREATE = -6,           /* an output file could not be created or opened */
    IMG_ERR_UNSUPPORTED = -7,      /* unknown format or code, or not applicable */
    IMG_ERR_VARIANT = -8,          /* a sub-format the reader does not handle */
    IMG_ERR_WRITE = -9,            /* a stream write was short */
    IMG_ERR_DISPLAY_RECT = -10,    /* display rectangle narrower or lower than 1 */
    IMG_ERR_NO_PAGE = -11,         /* the page or image does not exist */
    IMG_ERR_READ = -12,            /* a stream read was short (truncated data) */
    IMG_ERR_HANDLE = -13,          /* bad bitmap handle */
    IMG_ERR_SCAN_REFUSED = -16,    /* the scanner's manager or source refused an operation */
    IMG_ERR_SCAN_MANAGER = -17,    /* the scanner's manager module is absent or unusable */
    IMG_ERR_STOP = -18,            /* header callback asked to stop; scanning: cancelled, no image */
    IMG_ERR_DEPTH = -21,           /* bit depth not supported by the operation */
    IMG_ERR_NOT_GRAY = -22,        /* needs a grey palette */
    IMG_ERR_NO_TRANSPARENCY = -26, /* the bitmap has no transparent colour */
    IMG_ERR_COMPRESSION = -27,     /* compression not handled by the built-in decoder */
    IMG_ERR_SCAN_NO_PAPER = -28,   /* no paper in the scanner's feeder, or the query failed */
    IMG_ERR_SCAN_FEEDER = -29,     /* the scanner's feeder could not be enabled */
    IMG_ERR_GIF_BLOCK = -30,       /* a GIF block without the extension introducer */
    IMG_ERR_NOT_FOUND = -31,       /* tag, resource or block not found */
    IMG_ERR_NOT_TILED = -32,       /* the image is not tiled */
    IMG_ERR_SCAN_CAPABILITY = -33, /* a scanner capability could not be read or set as asked */
    IMG_ERR_SCAN_AUTOFEED = -34,   /* the scanner's automatic feeding could not be enabled */
    IMG_ERR_PLUGIN = -36,          /* the PDF input module could not be loaded */
    IMG_ERR_ABIC_PLUGIN = -37,     /* the ABIC module could not be loaded */
    IMG_ERR_STREAM_FAULT = -38,    /* a fault inside a stream read, write or seek */
    IMG_ERR_PCL_PLUGIN = -40,      /* the PCL input module could not be loaded */
    IMG_ERR_JP2_PLUGIN = -41,      /* the JPEG 2000 module could not be loaded */
    IMG_ERR_TEXT_NOT_FOUND = -42,  /* a text search found nothing */
    IMG_ERR_DOC_PLUGIN = -43       /* the document module could not be loaded */
};

/* Name of a status ("IMG_ERR_NO_PAGE") and a short sentence describing it
 * ("page does not exist"). Unknown codes give "IMG_ERR_UNKNOWN" and
 * "unknown status"; zero and positive values give "IMG_OK" and "success".
 * The strings are static. */
TESSLIN_API const char *IMG_status_name(int32_t status);
TESSLIN_API const char *IMG_status_message(int32_t status);

/* ------------------------------------------------------------------ */
/* DIB layout                                                           */
/* ------------------------------------------------------------------ */

/* The 40-byte info header that starts every DIB, followed by the palette
 * (2 entries for 1 bit, 16 for 4, 256 for 8 and 16 bits, none for 24 and 32)
 * and the rows. Inside the library the two resolution fields hold dots per
 * inch. Rows are stored bottom-up, each padded to a multiple of 4 bytes. */
typedef struct IMG_BITMAPINFOHEADER {
    uint32_t biSize;
    int32_t biWidth;
    int32_t biHeight;
    uint16_t biPlanes;
    uint16_t biBitCount;
    uint32_t biCompression;
    uint32_t biSizeImage;
    int32_t biXPelsPerMeter; /* dots per inch inside the library */
    int32_t biYPelsPerMeter; /* dots per inch inside the library */
    uint32_t biClrUsed;
    uint32_t biClrImportant;
} IMG_BITMAPINFOHEADER;

typedef struct IMG_RGBQUAD {
    uint8_t rgbBlue;
    uint8_t rgbGreen;
    uint8_t rgbRed;
    uint8_t rgbReserved;
} IMG_RGBQUAD;

/* Compression field values the library uses besides 0. */
enum {
    IMG_COMPRESSION_RUNS = 99,  /* bilevel rows held as run records */
    IMG_COMPRESSION_ALPHA = 200 /* 32-bit blue, green, red, alpha (else 32 bits is CMYK) */
};

/* ------------------------------------------------------------------ */
/* Memory blocks                                                        */
/* ------------------------------------------------------------------ */

/* Every DIB the library keeps lives in a block of this allocator. A DIB
 * handed to IMG_create_handle_keep must come from tesslin_block_alloc,
 * because later operations may reallocate or free it; a DIB returned by
 * IMG_delete_bitmap_keep is freed with tesslin_block_free.
 * tesslin_block_alloc returns NULL when no memory is left; the contents are
 * not cleared. tesslin_block_free ignores NULL and addresses that are not
 * the start of a live block. tesslin_block_size returns the size of a live
 * block, or -1 when the address does not start one. */
TESSLIN_API void *tesslin_block_alloc(uint32_t size);
TESSLIN_API void *tesslin_block_realloc(void *block, uint32_t size);
TESSLIN_API void tesslin_block_free(void *block);
TESSLIN_API int64_t tesslin_block_size(const void *block);

/* ------------------------------------------------------------------ */
/* Bitmap handles                                                       */
/* ------------------------------------------------------------------ */

/* Every operation that takes a handle returns IMG_ERR_HANDLE for a
 * negative handle, one of 10000 or more, or an empty slot. */

/* Decode a packed DIB (info header, palette, rows) or a BMP file image
 * held in memory into a new handle, as IMG_decompress_bitmap_mem with page
 * 0 does; the caller's block is not kept. Give a block from
 * tesslin_block_alloc so that reading stops at its end. Returns the handle,
 * IMG_ERR_BAD_IMAGE for a NULL pointer or a header that contradicts itself, IMG_ERR_READ for rows
 * the block does not hold, IMG_ERR_DEPTH for a bit count DIBs do not have, IMG_ERR_MEMORY when
 * memory runs out. Reads the decode settings. */
TESSLIN_API int32_t IMG_create_handle(const void *dib);
/* Wrap the caller's DIB (from tesslin_block_alloc) without copying. A 1-bit
 * DIB whose palette entry 0 has three non-zero components gets palette
 * black, white (pixels unchanged). IMG_ERR_BAD_IMAGE when width, height or bit count is
 * below 1; IMG_ERR_MEMORY when no slot or memory is left. */
TESSLIN_API int32_t IMG_create_handle_keep(void *dib);
/* New image with the given header and palette and uninitialised rows. */
TESSLIN_API int32_t IMG_create_handle_shell(const void *header);
/* Free the bitmap and its DIB. Waits while a display of it is running. */
TESSLIN_API int32_t IMG_delete_bitmap(int32_t handle);
/* Free the bitmap but leave the DIB (plain or run-encoded) to the caller. */
TESSLIN_API int32_t IMG_delete_bitmap_keep(int32_t handle);
/* Width, height and bit count; returns the DIB header's address, or IMG_ERR_HANDLE. */
TESSLIN_API intptr_t IMG_bitmap_info(int32_t handle, int32_t *width, int32_t *height,
                                     int32_t *bits);
/* Copy the 40-byte header and the palette (size from the bit count). */
TESSLIN_API int32_t IMGLOW_get_bitmap_header(int32_t handle, void *buffer);
TESSLIN_API int32_t IMGLOW_get_palette(int32_t handle, void *palette);
TESSLIN_API int32_t IMGLOW_put_palette(int32_t handle, const void *palette);
/* Copy one row (0 = top) out of or into the image; count 0 means the row's
 * stored byte count, larger counts are cut to it. Run-encoded rows are
 * expanded to packed bits on the way out and encoded on the way in.
 * IMG_ERR_BAD_IMAGE for a row outside the image, IMG_ERR_MEMORY when the handle has
 * no DIB. */
TESSLIN_API int32_t IMGLOW_get_raster(int32_t handle, void *buffer, int32_t row, uint32_t count);
TESSLIN_API int32_t IMGLOW_put_raster(int32_t handle, const void *buffer, int32_t row,
                                      uint32_t count);
TESSLIN_API int32_t IMG_get_croprect(int32_t handle, int32_t *x, int32_t *y, int32_t *width,
                                     int32_t *height);
/* Clamped into the image: x or y outside it become 0, sizes below 1 become
 * 1, and the rectangle is cut at the right and bottom edges. */
TESSLIN_API int32_t IMG_set_croprect(int32_t handle, int32_t x, int32_t y, int32_t width,
                                     int32_t height);
TESSLIN_API int32_t IMGLOW_get_display_rect(int32_t handle, int32_t *x, int32_t *y,
                                            int32_t *width, int32_t *height);
TESSLIN_API int32_t IMGLOW_set_rop(int32_t handle, uint32_t rop);
TESSLIN_API int32_t IMGLOW_set_alias_img(int32_t handle, int32_t mode);
TESSLIN_API int32_t IMGLOW_set_transp_color(int32_t handle, uint32_t color);
/* The transparent colour, or IMG_ERR_NO_TRANSPARENCY when none is set. */
TESSLIN_API int32_t IMGLOW_get_transp_color(int32_t handle);
/* Plain 1-bit rows to run records: IMG_ERR_UNSUPPORTED if already run-encoded, IMG_ERR_DEPTH if the
 * image is not 1 bit deep, IMG_ERR_MEMORY without a DIB or memory. */
TESSLIN_API int32_t IMG_dib_to_runs(int32_t handle);
/* Run records to plain rows: IMG_ERR_UNSUPPORTED if not run-encoded, IMG_ERR_MEMORY
 * without DIB or memory. */
TESSLIN_API int32_t IMG_runs_to_dib(int32_t handle);

/* ------------------------------------------------------------------ */
/* Streams and I/O hooks                                                */
/* ------------------------------------------------------------------ */

typedef int32_t (*IMG_READ_HOOK)(int32_t stream, void *buffer, uint32_t count);
typedef int32_t (*IMG_WRITE_HOOK)(int32_t stream, const void *buffer, uint32_t count);
typedef int32_t (*IMG_SEEK_HOOK)(int32_t stream, int32_t offset, int32_t origin);

/* Route every stream read, write or seek through the application's own
 * functions (NULL removes one). With a hook installed the stream handle is
 * passed to it untouched and the scrambling key is not applied. A fault
 * inside a hook makes the operation fail with IMG_ERR_STREAM_FAULT. Returns 0. */
TESSLIN_API int32_t IMGLOW_set_fileio(IMG_READ_HOOK read_hook, IMG_WRITE_HOOK write_hook,
                                      IMG_SEEK_HOOK seek_hook);
/* Scramble every byte crossing a file or memory stream with a one-byte key:
 * the sum of the key's four bytes modulo 256, or 0x9D when that is 0.
 * A flag of 0 turns scrambling off. Returns 0. */
TESSLIN_API int32_t IMG_set_encrypt(int32_t flag, int32_t key);

/* ------------------------------------------------------------------ */
/* Callbacks                                                            */
/* ------------------------------------------------------------------ */

/* Called once per delivered or stored row while decoding, saving or
 * processing with (user, total rows, current row, bytes in the row);
 * a negative result stops the operation with that status. */
typedef int32_t (*IMG_STATUS_CALLBACK)(intptr_t user, int32_t total_rows, int32_t row,
                                       uint32_t row_bytes);
/* Decoding: a decoder announces the image once through the header callback
 * (40-byte info header followed by its palette; a negative result ends the
 * decode with that status), then delivers every row through the raster
 * callback with (row, user, row number with 0 = top, byte count). A byte
 * count equal to the packed row size means a packed row; any other count
 * marks a bilevel run record whose first word is its length. The row buffer
 * belongs to the decoder; the callback may change it in place. A negative
 * result ends the decode with that status. */
typedef int32_t (*IMG_HEADER_CALLBACK)(const IMG_BITMAPINFOHEADER *header, intptr_t user);
typedef int32_t (*IMG_RASTER_CALLBACK)(uint8_t *row, intptr_t user, int32_t row_number,
                                       uint32_t byte_count);
/* Saving: an encoder asks for row `row` (0 = top) with the byte count it
 * wants. Packed supply: fills byte_count bytes and returns 0. Run supply:
 * returns the byte length of a run record written into the buffer (first
 * word 0), or 0 when it wrote a packed 1-bit row instead. Negative results
 * end the save with that status. */
typedef int32_t (*IMG_SUPPLY_CALLBACK)(intptr_t user, uint8_t *buffer, int32_t row,
                                       uint32_t byte_count);
/* Called by the display operations before drawing; a result below 1
 * cancels the drawing and is returned. */
typedef int32_t (*IMG_DISPLAY_CALLBACK)(const IMG_BITMAPINFOHEADER *header, intptr_t user);

/* ------------------------------------------------------------------ */
/* Settings                                                             */
/* ------------------------------------------------------------------ */

/* Decode-time reduction of depth: 8, 4 or 1 (anything else: none). */
TESSLIN_API int32_t IMGLOW_set_decomp_reduction(int32_t depth);
/* Decode-time reduction of size; applies when both are non-zero and both
 * smaller than the image. */
TESSLIN_API int32_t IMGLOW_set_decompsize(int32_t width, int32_t height);
/* Decode-time crop; negative x or y become 0; all four 0 turns it off. */
TESSLIN_API int32_t IMGLOW_set_decomp_rect(int32_t x, int32_t y, int32_t width, int32_t height);
/* Detection switches by format code 0..78 (TIFF variants act on 0, code 12
 * on 1). Set and unset return the previous flag; all return IMG_ERR_UNSUPPORTED for a code
 * outside 0..78. */
TESSLIN_API int32_t IMGLOW_set_auto_detect(int32_t format_code);
TESSLIN_API int32_t IMGLOW_unset_auto_detect(int32_t format_code);
TESSLIN_API int32_t IMGLOW_get_auto_detect(int32_t format_code);
TESSLIN_API int32_t IMGLOW_set_dithermode(int32_t mode);
TESSLIN_API int32_t IMGLOW_autocolor(int32_t flag);
/* Scale-to-grey display mode; values above 4 are ignored. */
TESSLIN_API int32_t IMGLOW_set_alias(int32_t mode);
/* Scale-to-grey quality, clamped to 1..100 (0 is kept as given). */
TESSLIN_API int32_t IMGLOW_set_alias_quality(int32_t quality);
TESSLIN_API int32_t IMGLOW_set_wipedelay(int32_t delay);
TESSLIN_API int32_t IMGLOW_set_dispfunc(IMG_DISPLAY_CALLBACK callback, intptr_t user);
/* Progress reporting: enable non-zero stores user and callback and turns it
 * on; enable 0 turns it off. */
TESSLIN_API int32_t IMG_set_statusbar(intptr_t user, IMG_STATUS_CALLBACK callback,
                                      int32_t enable);
/* JPEG quality 1..100: recomputes both quantisation tables. */
TESSLIN_API int32_t IMGLOW_set_comp_quality(int32_t quality);
/* Luminance sampling factors of the JPEG encoder (default 2, 1). */
TESSLIN_API int32_t IMGLOW_set_jpg_interleave(int32_t horizontal, int32_t vertical);
TESSLIN_API int32_t IMGLOW_set_tiff_save_strips(int32_t flag);
TESSLIN_API int32_t IMGLOW_set_tiff_indexing(int32_t count);
/* TIFF orientation tag value for saving, 1..8 (larger values ignored). */
TESSLIN_API int32_t IMGLOW_set_image_orientation(int32_t orientation);
/* PDF page size in points (default 612 x 792), read by every save with
 * IMG_FORMAT_PDF: images smaller than the page both ways are centred one
 * pixel a point, others fitted to the page (docs/pdf.md). Returns 0; a size
 * below 1 makes those saves fail with IMG_ERR_BAD_IMAGE. */
TESSLIN_API int32_t IMGLOW_set_pdf_output(int32_t width, int32_t height);
/* Copyright notice (up to 199 characters) and date (up to 10) that writers
 * embed; NULL leaves one unchanged. Get copies both out with their zero
 * (notice buffer 200 bytes, date buffer 11 bytes). */
TESSLIN_API int32_t IMGLOW_set_bitmap_name(const char *notice, const char *date);
TESSLIN_API int32_t IMGLOW_get_bitmap_name(char *notice, char *date);
TESSLIN_API int32_t IMGLOW_set_jpeg_decompression(int32_t flag);
TESSLIN_API int32_t IMGLOW_set_overlay_path(const char *path);
/* Interface version: major 13, minor 0. */
TESSLIN_API int32_t IMG_ifl_version(int32_t *major, int32_t *minor);
/* Accepted for compatibility; does nothing. */
TESSLIN_API int32_t IMG_set_profile(intptr_t a, intptr_t b);
/* The ICC profile embedded in a JPEG file (APP2 "ICC_PROFILE" chunks,
 * concatenated in order): a block from tesslin_block_alloc that the caller
 * frees with tesslin_block_free, its length stored in *size. NULL and a size
 * of 0 when the file cannot be opened, is not JPEG or carries no profile.
 * The second argument is not used. */
TESSLIN_API void *IMG_get_profile(const char *file_name, int32_t reserved, uint32_t *size);

/* ------------------------------------------------------------------ */
/* Format detection and queries                                         */
/* ------------------------------------------------------------------ */

/* Format codes name a format and compression variant. Detection looks only
 * at the data, never at a file name; each signature test runs only while its
 * format's detection switch is on (IMGLOW_set_auto_detect). `tesslin
 * formats` and IMGLOW_get_format_info tell which codes this build reads and
 * writes. Codes marked "save only" are produced by no detection. */
enum {
    IMG_FORMAT_TIFF = 0,               /* TIFF, uncompressed */
    IMG_FORMAT_BMP = 1,                /* Windows BMP, uncompressed */
    IMG_FORMAT_PCX = 2,                /* PCX */
    IMG_FORMAT_TARGA = 3,              /* Targa */
    IMG_FORMAT_GIF = 4,                /* GIF, not interlaced */
    IMG_FORMAT_WPG = 5,                /* WordPerfect graphics */
    IMG_FORMAT_WMF = 6,                /* Windows metafile (placeable) */
    IMG_FORMAT_TIFF_MH = 7,            /* TIFF, CCITT modified Huffman */
    IMG_FORMAT_TIFF_G3 = 8,            /* TIFF, CCITT Group 3 */
    IMG_FORMAT_TIFF_LZW = 9,           /* TIFF, LZW */
    IMG_FORMAT_TIFF_G4 = 10,           /* TIFF, CCITT Group 4 */
    IMG_FORMAT_DCX = 11,               /* DCX (multi-page PCX) */
    IMG_FORMAT_BMP_RLE = 12,           /* Windows BMP, run-length compressed */
    IMG_FORMAT_JPEG = 13,              /* JPEG */
    IMG_FORMAT_EPS = 14,               /* EPS with a TIFF preview */
    IMG_FORMAT_PICT = 15,              /* Macintosh PICT */
    IMG_FORMAT_TIFF_PACKBITS = 16,     /* TIFF, PackBits */
    IMG_FORMAT_TIFF_G3_2D = 17,        /* TIFF, Group 3 with two-dimensional coding (read only) */
    IMG_FORMAT_CALS = 18,              /* CALS raster */
    IMG_FORMAT_LSD = 19,               /* LSD fax container (read only) */
    IMG_FORMAT_XBM = 20,               /* X bitmap */
    IMG_FORMAT_MACPAINT = 21,          /* MacPaint (read only) */
    IMG_FORMAT_GX2 = 22,               /* GX2 (read only) */
    IMG_FORMAT_KFX = 23,               /* KFX fax container (read only) */
    IMG_FORMAT_IOCA = 24,              /* IOCA */
    IMG_FORMAT_ICON = 25,              /* Windows icon */
    IMG_FORMAT_IFF = 26,               /* IFF (FORM) */
    IMG_FORMAT_CLIPBOARD = 27,         /* Windows clipboard */
    IMG_FORMAT_GEM_IMG = 28,           /* GEM IMG (read only) */
    IMG_FORMAT_BTR = 29,               /* BTR fax container */
    IMG_FORMAT_MSP = 30,               /* Microsoft Paint (read only) */
    IMG_FORMAT_CUT = 31,               /* Dr. Halo CUT (read only) */
    IMG_FORMAT_TARGA_24 = 32,          /* Targa, 24-bit only (save only) */
    IMG_FORMAT_RAW_G3_REVERSED = 33,   /* raw Group 3, bytes bit-reversed (save only) */
    IMG_FORMAT_RAW_G4_REVERSED = 34,   /* raw Group 4, bytes bit-reversed (save only) */
    IMG_FORMAT_XPM = 35,               /* X pixmap */
    IMG_FORMAT_XWD = 36,               /* X window dump */
    IMG_FORMAT_SUN_RASTER = 37,        /* Sun raster */
    IMG_FORMAT_TEXT = 38,              /* plain text rendered as pages (read only) */
    IMG_FORMAT_PHOTO_CD = 39,          /* Kodak Photo CD (read only) */
    IMG_FORMAT_TIFF_JPEG = 40,         /* TIFF, JPEG */
    IMG_FORMAT_PSD = 41,               /* Photoshop */
    IMG_FORMAT_IMT = 42,               /* IMT fax container */
    IMG_FORMAT_PNG = 43,               /* PNG */
    IMG_FORMAT_GIF_INTERLACED = 44,    /* GIF, interlaced */
    IMG_FORMAT_TIFF_ABIC_32010 = 46,   /* TIFF, compression 32010 (read only) */
    IMG_FORMAT_TIFF_ABIC_32008 = 47,   /* TIFF, compression 32008 (read only) */
    IMG_FORMAT_DIB = 48,               /* BMP without the file header (save only) */
    IMG_FORMAT_MODCA = 49,             /* MO:DCA */
    IMG_FORMAT_TIFF_G4_FILL1 = 51,     /* TIFF, Group 4 with fill order 1 (save only) */
    IMG_FORMAT_RAW_G4 = 52,            /* raw Group 4 (save only) */
    IMG_FORMAT_RAW_G3 = 53,            /* raw Group 3 (save only) */
    IMG_FORMAT_OLE = 54,               /* OLE compound document (read only) */
    IMG_FORMAT_DICOM = 55,             /* DICOM (read only) */
    IMG_FORMAT_JED = 56,               /* JED tiled bilevel */
    IMG_FORMAT_PCL = 57,               /* PCL, unencoded raster */
    IMG_FORMAT_FXS = 58,               /* FXS fax (read only) */
    IMG_FORMAT_PDF = 59,               /* PDF */
    IMG_FORMAT_SCITEX = 60,            /* Scitex CT */
    IMG_FORMAT_MAG = 61,               /* MAG (read only) */
    IMG_FORMAT_EPS_SEPARATION = 62,    /* EPS four-plate CMYK separation (save only) */
    IMG_FORMAT_EPS_LEVEL2_RLE = 63,    /* EPS level 2, run-length or JPEG (save only) */
    IMG_FORMAT_EPS_LEVEL2_G4 = 64,     /* EPS level 2, Group 4 or JPEG (save only) */
    IMG_FORMAT_NCR = 65,               /* NCR (read only) */
    IMG_FORMAT_TIFF_JBIG = 66,         /* TIFF, JBIG */
    IMG_FORMAT_TIFF_G4_STRIPS = 67,    /* TIFF, Group 4 with fill order 1, in strips */
    IMG_FORMAT_WBMP = 68,              /* wireless bitmap */
    IMG_FORMAT_PS_FILTERED = 69,       /* PostScript, filtered data (save only) */
    IMG_FORMAT_JPEG2000 = 70,          /* JPEG 2000 (plug-in module) */
    IMG_FORMAT_JBIG = 71,              /* JBIG (read only) */
    IMG_FORMAT_COD = 72,               /* COD (read only) */
    IMG_FORMAT_CIM = 73,               /* CIM (read only) */
    IMG_FORMAT_MODCA_RI = 74,          /* MO:DCA with record introducers (save only) */
    IMG_FORMAT_CIF = 75,               /* CIF (read only) */
    IMG_FORMAT_PCL_MODE2 = 76,         /* PCL, compression mode 2 raster (save only) */
    IMG_FORMAT_JBIG2 = 77,             /* JBIG2 (read only) */
    IMG_FORMAT_CODES = 79              /* detection switches exist for codes 0 .. 78 */
};


/* What the library knows of a format code. reads: 0 not read, 1 read by the
 * library, 2 read through a plug-in module. writes: 1 when saving the code
 * is supported. multipage: bit 0 the reader counts and selects pages, bit 1
 * saving into an existing file appends a page. The strings are static. */
typedef struct IMG_FORMAT_INFO {
    int32_t code;
    const char *name;        /* short name for command lines: "tiff-g4", "png" */
    const char *description; /* "TIFF, CCITT Group 4" */
    const char *extension;   /* usual file extension without the dot */
    int32_t reads;
    int32_t writes;
    int32_t multipage;
} IMG_FORMAT_INFO;

/* Fills info for a format code 0..77; IMG_ERR_UNSUPPORTED for a code that names no format
 * (45, 50, anything out of range). */
TESSLIN_API int32_t IMGLOW_get_format_info(int32_t code, IMG_FORMAT_INFO *info);

/* Format code of a file, an open stream or a memory block. The _fd variant detects from offset 0
 * and puts the stream back where it was, except that TIFF, BMP and GIF files are then read from
 * that position to tell their variants apart (compression of the first TIFF directory, BMP
 * compressed or not, GIF interlaced or not) and the stream is left where that reading ended.
 * IMG_ERR_UNSUPPORTED for data no test recognises (also for fewer than 10 bytes) and, in the memory
 * variant, for JBIG, JBIG2, JPEG 2000, COD, CIM and CIF data; IMG_ERR_OPEN when the file cannot be
 * opened; IMG_ERR_BAD_IMAGE or IMG_ERR_READ for a GIF whose blocks end early or whose header is
 * short. Reads the detection switches. */
TESSLIN_API int32_t IMGLOW_get_filetype(const char *file);
TESSLIN_API int32_t IMGLOW_get_filetype_fd(int32_t stream);
TESSLIN_API int32_t IMGLOW_get_filetype_mem(const void *block);

/* Number of pages (or images) of a multi-page file: TIFF directories, PDF
 * and PCL pages through the plug-in modules, and each format's own count as
 * its reader provides one; 1 for every other file, also when no format is
 * recognised. For PDF files the file-name module (apdfmod) is asked first;
 * when it is absent the stream module (pdfmod) answers, and its failure
 * counts as 0 pages (the _mem variant returns the module's status as it is:
 * IMG_ERR_PLUGIN when absent). IMG_ERR_OPEN when the file cannot be opened. */
TESSLIN_API int32_t IMGLOW_get_pages(const char *file);
TESSLIN_API int32_t IMGLOW_get_pages_fd(int32_t stream);
TESSLIN_API int32_t IMGLOW_get_pages_mem(const void *block);

/* Header-only decode of the first image: copies the 40-byte header the
 * decoder announces (width, height, bit count, compression, resolution in
 * dots per inch) into *record. 0, or the decoder's failure; IMG_ERR_UNSUPPORTED for an
 * unknown format, IMG_ERR_OPEN when the file cannot be opened. */
TESSLIN_API int32_t IMGLOW_get_fileinfo(const char *file, IMG_BITMAPINFOHEADER *record);
TESSLIN_API int32_t IMGLOW_get_fileinfo_fd(int32_t stream, IMG_BITMAPINFOHEADER *record);

/* Orientation in degrees (0, 90, 180, 270) recorded in the file: TIFF
 * orientation tag (1 -> 0, 6 -> 90, 3 -> 180, 8 -> 270, other values as
 * they are), Photo CD and CALS header fields. IMG_ERR_UNSUPPORTED for formats that record
 * none, IMG_ERR_OPEN when the file cannot be opened, IMG_ERR_NO_PAGE for a TIFF page that does not
 * exist. The page is used for TIFF (and MO:DCA) files only. */
TESSLIN_API int32_t IMGLOW_get_image_orientation(const char *file);
TESSLIN_API int32_t IMGLOW_get_image_orientation_page(const char *file, int32_t page);

/* ------------------------------------------------------------------ */
/* Decoding                                                             */
/* ------------------------------------------------------------------ */

/* Low-level decode with the caller's callbacks (see IMG_HEADER_CALLBACK):
 * detects the format of the image at `offset` of the stream and runs its
 * decoder. `page` 0 decodes the first image; otherwise bits 0-15 are the
 * page and the bits above a tile index, handed to the decoder with bit 31
 * set and the stream at `offset`. Returns 0 or a negative status: IMG_ERR_UNSUPPORTED for an
 * unknown format or one whose decoder is not built, IMG_ERR_BAD_IMAGE for a negative
 * offset or a missing callback, and any status the decoder or a callback
 * returns (decoders give IMG_ERR_READ for truncated data, IMG_ERR_BAD_IMAGE for data that
 * contradicts itself, IMG_ERR_NO_PAGE for a page that does not exist). The _mem variant
 * decodes a memory block from offset 0. Reads the detection switches. */
TESSLIN_API int32_t IMGLOW_decompress_bitmap(int32_t stream, int32_t offset, int32_t page,
                                             IMG_RASTER_CALLBACK raster, intptr_t user,
                                             IMG_HEADER_CALLBACK header);
TESSLIN_API int32_t IMGLOW_decompress_bitmap_mem(const void *block, int32_t page,
                                                 IMG_RASTER_CALLBACK raster, intptr_t user,
                                                 IMG_HEADER_CALLBACK header);

/* Decode a file, the image at `offset` of an open stream, a memory block or
 * one page of a file into a new bitmap handle. Bilevel images are held as
 * run records. Applies the decode settings: depth reduction
 * (IMGLOW_set_decomp_reduction: 8 from 24 bits and more with the 3-3-2
 * palette, 4 from 8 bits and more with the 16-colour dither palette, 1 from
 * 4 bits and more, each by ordered dither), size reduction
 * (IMGLOW_set_decompsize, nearest neighbour, when both values are smaller
 * than the image), the decode rectangle (IMGLOW_set_decomp_rect, clipped to
 * the image; IMG_ERR_BAD_IMAGE when it starts outside) and progress reporting
 * (IMG_set_statusbar: once per row; a negative result stops the decode with
 * that status). Returns the handle or a negative status as
 * IMGLOW_decompress_bitmap does, IMG_ERR_OPEN when the file cannot be opened, IMG_ERR_MEMORY when
 * memory runs out. Nothing is left behind on failure. PDF files given to
 * IMG_decompress_bitmap_page go to the PDF modules (IMG_ERR_PLUGIN when neither pdfmod
 * nor apdfmod can be loaded). */
TESSLIN_API int32_t IMG_decompress_bitmap(const char *file);
TESSLIN_API int32_t IMG_decompress_bitmap_fd(int32_t stream, int32_t offset, int32_t page);
/* WARNING: the _mem decoders (IMG_decompress_bitmap_mem,
 * IMGLOW_decompress_bitmap_mem, IMG_decompress_fax_mem) know the size of a
 * block only when it comes from tesslin_block_alloc. Any other address
 * (malloc, new, a stack buffer, a mapped file) is read as far as the image
 * it holds says, past the end of the caller's buffer when the data is cut
 * or damaged (tens of kilobytes have been seen); a fault there is contained
 * and gives IMG_ERR_STREAM_FAULT, but bytes that happen to be readable are
 * decoded. Hand these functions tesslin_block_alloc blocks (every wrapper
 * shipped with the library does). See docs/reliability.md. */
TESSLIN_API int32_t IMG_decompress_bitmap_mem(const void *block, int32_t page);
TESSLIN_API int32_t IMG_decompress_bitmap_page(const char *file, int32_t page);

/* Decode a tiled image tile by tile into one new handle. IMG_ERR_NOT_TILED when the page
 * is not tiled (or its format has no tile information), otherwise as
 * IMG_decompress_bitmap. */
TESSLIN_API int32_t IMG_decompress_tiled_bitmap(const char *file, int32_t page);

/* ------------------------------------------------------------------ */
/* Raw fax data                                                         */
/* ------------------------------------------------------------------ */

/* Decode headerless fax data, starting at the stream's position (or at the start of the block),
 * into a new bitmap handle of `width` pixels.   mode 2: Group 3 two-dimensional (every row an EOL
 * and a tag bit),   mode 3: Group 3 one-dimensional with EOL codes,   mode 4: Group 4,   mode 5:
 * bilevel ABIC, mode 6: 4-bit grey ABIC (16-level grey palette),           through the ABIC module;
 * a height must be given; 100 dpi;   other: Modified Huffman with no EOL handling and no row
 * alignment. fill_order 2: the first pixel of each byte is its least significant bit; any other
 * value: its most significant bit. height > 0: that many rows; rows after the end of the page
 * (three EOL codes in a row) are white (Group 4: repeats of the last row). height 0: decoding stops
 * at the end of the page (RTC: an EOL right after a row's EOL; EOFB; or where nothing but padding
 * is left of the data) and the bitmap is as tall as the rows found, not padded. The image is
 * bilevel, held as run records, resolution 0. The decode settings apply as for
 * IMG_decompress_bitmap (reduction, rectangle, progress). The _mem variant reads a block of the
 * library's allocator within its size; any other address is read ahead (up to 30,000 bytes past the
 * data) under the fault guard, so with height 0 such a block must hold an RTC or EOFB, and a fault
 * gives IMG_ERR_STREAM_FAULT. Returns the handle, or IMG_ERR_BAD_IMAGE for a width below 1 or above
 * 16,777,216 or a negative height, IMG_ERR_READ when the data holds no row (or, with a height, too
 * few bytes for that many rows), IMG_ERR_ABIC_PLUGIN when the ABIC module cannot be loaded,
 * IMG_ERR_MEMORY when memory runs out, IMG_ERR_STREAM_FAULT for a stream fault, or the status of
 * the progress callback. Nothing is left behind on failure. */
TESSLIN_API int32_t IMG_decompress_fax(int32_t stream, int32_t width, int32_t height,
                                       int32_t mode, int32_t fill_order);
/* WARNING: as for IMG_decompress_bitmap_mem, a block that does not come
 * from tesslin_block_alloc is read past its end (see docs/reliability.md). */
TESSLIN_API int32_t IMG_decompress_fax_mem(const void *block, int32_t width, int32_t height,
                                           int32_t mode, int32_t fill_order);

/* ------------------------------------------------------------------ */
/* Saving                                                               */
/* ------------------------------------------------------------------ */

/* Low-level save: the encoder of `format_code` writes the image the header
 * describes (40-byte header and palette; compression 99 when the supply
 * delivers run records) to the stream at its position, pulling rows from
 * `supply` (see IMG_SUPPLY_CALLBACK). 0 or a negative status: IMG_ERR_UNSUPPORTED for a code
 * without an encoder, IMG_ERR_WRITE for a short write, IMG_ERR_DEPTH for a depth the format does
 * not write, or the supply's status. The _mem variant writes into a memory
 * block (a library block is bounded by its size) and returns the number of
 * bytes written. */
TESSLIN_API int32_t IMGLOW_save_bitmap(int32_t stream, const IMG_BITMAPINFOHEADER *header,
                                       int32_t format_code, IMG_SUPPLY_CALLBACK supply,
                                       intptr_t user);
TESSLIN_API int32_t IMGLOW_save_bitmap_mem(void *block, const IMG_BITMAPINFOHEADER *header,
                                           int32_t format_code, IMG_SUPPLY_CALLBACK supply,
                                           intptr_t user);

/* Save a bitmap's crop rectangle in a format: to a named file (code -1 takes the code from the file
 * name's last three characters, compared exactly: "tif" 0, "bmp" 1, "jpg" 13, "png" 43 ...), to an
 * open stream at its position, or into a memory block (returns the bytes written). A multi-page
 * format (TIFF codes, DCX, PDF, MO:DCA) appends a page to an existing file of that name; other
 * codes replace the file. Bilevel encoders receive run records, all others packed rows; a progress
 * callback (IMG_set_statusbar) is called once per row and may stop the save with its negative
 * result. Returns 0 (or the byte count) or a negative status: IMG_ERR_HANDLE bad handle,
 * IMG_ERR_UNSUPPORTED a code without an encoder, IMG_ERR_CREATE the file cannot be created,
 * IMG_ERR_WRITE short write, IMG_ERR_DEPTH depth not written by the format. A file this call
 * created is deleted when the save fails. */
TESSLIN_API int32_t IMG_save_bitmap(int32_t handle, const char *file, int32_t format_code);
TESSLIN_API int32_t IMG_save_bitmap_fd(int32_t handle, int32_t stream, int32_t format_code);
TESSLIN_API int32_t IMG_save_bitmap_mem(int32_t handle, void *block, int32_t format_code);

/* ------------------------------------------------------------------ */
/* TIFF tags, tiles and writing                                         */
/* ------------------------------------------------------------------ */

/* Value of a tag of a TIFF file's first page (_page: of page `page`; _page_fd:
 * on an open stream, read from its offset 0; other formats' tagged values
 * answer through the same calls as their readers provide them). ASCII
 * values and values of more than 4 items are copied into `buffer`, at most
 * `size` bytes, and the count copied is returned; other values are stored
 * in *value (a RATIONAL as numerator / denominator, two SHORTs as the whole
 * 32-bit field, the first in its file-order position) and 0 is returned.
 * IMG_ERR_NOT_FOUND when the page has no such tag, IMG_ERR_NO_PAGE for a page beyond the directory
 * chain, IMG_ERR_BAD_IMAGE for a directory of fewer than 3 or more than 1000 entries on
 * the way, IMG_ERR_UNSUPPORTED for files that are not TIFF (the _fd variant: not TIFF or
 * DICOM), IMG_ERR_OPEN when the file cannot be opened. */
TESSLIN_API int32_t IMGLOW_get_tiff_tag(int32_t tag, int32_t size, int32_t *value,
                                        const char *file, void *buffer);
TESSLIN_API int32_t IMGLOW_get_tiff_tag_page(int32_t tag, int32_t size, int32_t *value,
                                             const char *file, void *buffer, int32_t page);
TESSLIN_API int32_t IMGLOW_get_tiff_tag_page_fd(int32_t tag, int32_t size, int32_t *value,
                                                int32_t stream, void *buffer, int32_t page);

/* One entry of a TIFF directory as IMGLOW_get_tiff_directory lists it.
 * value holds the first values as unsigned 32-bit numbers (signed types
 * sign-extended): up to four BYTE, SHORT, LONG or IFD values; RATIONAL and
 * SRATIONAL as numerator, denominator of the first two; FLOAT as its bits;
 * DOUBLE as the low then the high word of the first; ASCII and unknown
 * types leave value zero (read them with IMGLOW_get_tiff_tag_page).
 * offset is where the value data lie when they do not fit in the entry
 * (from the TIFF's start), else 0. */
typedef struct IMG_TIFF_FIELD {
    uint16_t tag;
    uint16_t type;
    uint32_t count;
    uint32_t offset;
    uint32_t value[4];
} IMG_TIFF_FIELD;

/* The entries of the directory of a TIFF page (0-based), in file order:
 * fills at most `max` of `fields` and returns the directory's entry count
 * (so a call with max 0 sizes the array). IMG_ERR_NO_PAGE for a page beyond the
 * directory chain, IMG_ERR_BAD_IMAGE for a directory of fewer than 3 or more than 1000
 * entries on the way, IMG_ERR_READ when the directory is cut short, IMG_ERR_UNSUPPORTED for files
 * that are not TIFF, IMG_ERR_OPEN when the file cannot be opened. */
TESSLIN_API int32_t IMGLOW_get_tiff_directory(const char *file, int32_t page,
                                              IMG_TIFF_FIELD *fields, int32_t max);

/* 1 when the file's first page is tiled: a TIFF (or a CALS file carrying a
 * TIFF at offset 1431) with a non-zero TileWidth and no JPEGQTables, or a
 * JED file; else 0, also when the file cannot be opened. */
TESSLIN_API int32_t IMGLOW_is_tiled_image(const char *file);

/* Tile geometry of a page: info[0..4] = image width, image length, tile width, tile length, tile
 * count (tiles across times tiles down). Returns 0 for TIFF (and CALS-embedded TIFF), 1 for JED
 * files (512 x 512 tiles); IMG_ERR_NOT_TILED when the page has no TileLength, or no TileWidth on
 * page 0; IMG_ERR_NO_PAGE when another page has no TileWidth or does not exist; IMG_ERR_BAD_IMAGE
 * for a tile width or length of 0; IMG_ERR_UNSUPPORTED for other formats; IMG_ERR_OPEN when the
 * file cannot be opened. */
TESSLIN_API int32_t IMGLOW_get_tile_info(const char *file, int32_t *info, int32_t page);

/* Extra tags the TIFF writer adds to every page it writes from now on, in
 * the order set, after its own tags: a count below 5 writes a LONG with
 * `value`; a count of 5 or more writes `count` ASCII bytes copied from
 * `data` now. A negative tag clears the list. Returns 0; IMG_ERR_BAD_IMAGE for a tag above
 * 65535 or a missing `data`. Process-wide, like the other settings. */
TESSLIN_API int32_t IMGLOW_set_tiff_tag(int32_t tag, int32_t count, int32_t value,
                                        const void *data);

/* Writes one TIFF page whose data the caller has already compressed: the
 * header's width, height, bit count, palette and resolution and the given
 * compression value describe it, and `length` bytes of `data` form its
 * single strip. Appends to the named file when it holds a little-endian
 * TIFF, else writes a new file (from its start, without a page index).
 * Carries the extra tags (IMGLOW_set_tiff_tag), the orientation setting and
 * the library's date and notice strings. 0; IMG_ERR_CREATE when the file can be neither
 * opened nor created, IMG_ERR_BAD_IMAGE when an existing file's directory chain cannot be
 * read or the header is invalid, IMG_ERR_DEPTH for a bit count DIBs do not have, IMG_ERR_WRITE
 * on a short write. */
TESSLIN_API int32_t IMGLOW_write_tiff_stream(const IMG_BITMAPINFOHEADER *header, const void *data,
                                             uint32_t length, int32_t compression,
                                             const char *file);

/* ------------------------------------------------------------------ */
/* Photoshop files                                                      */
/* ------------------------------------------------------------------ */

/* No functions of their own; two of the calls above answer for them:
 * - IMGLOW_get_tiff_tag(id, size, &value, file, buffer) on a Photoshop file
 *   copies at most `size` bytes of the data of the first image resource
 *   with that id (1005: resolution information) into `buffer` and returns
 *   1; IMG_ERR_NOT_FOUND when the file has no such resource, IMG_ERR_READ
 *   when its header cannot be read. `value` is not used; the _page_fd
 *   variant answers IMG_ERR_UNSUPPORTED.
 * - IMG_decompress_bitmap_page(file, -c) decodes channel c of the composite
 *   image as an 8-bit grey image: byte c of each pixel as the image would
 *   be held (RGB: 1 green, 2 red, 3 alpha); IMG_ERR_BAD_IMAGE for a channel the image does
 *   not have and for one-channel images.
 * docs/raster-formats.md describes the Photoshop reader and writer. */

/* ------------------------------------------------------------------ */
/* DICOM elements                                                       */
/* ------------------------------------------------------------------ */

/* IMGLOW_get_tiff_tag, IMGLOW_get_tiff_tag_page and
 * IMGLOW_get_tiff_tag_page_fd on a DICOM file (the page is ignored): tag =
 * group * 65536 + element, looked for among the file meta elements and the
 * top-level elements of the data set. With n the smaller of the element's
 * length and `size`: n = 2 stores the 16-bit value (in the file's byte
 * order) in *value and returns 0; otherwise at most size - 1 bytes of the
 * value and a terminating zero are copied into `buffer` and 1 is returned.
 * IMG_ERR_NOT_FOUND when the element is absent, IMG_ERR_BAD_IMAGE for
 * malformed meta information.
 * Decoding a DICOM file keeps 16-bit samples as unsigned 16-bit values
 * (12 bits stored with high bit 11 multiplied by 16): docs/dicom.md. */

/* ------------------------------------------------------------------ */
/* Plug-in modules                                                      */
/* ------------------------------------------------------------------ */

/* PDF, word-processor and PCL input, JPEG 2000 and ABIC decoding are done
 * by separately delivered modules (pdfmod.so, apdfmod.so, docmod.so,
 * pclmod.so, jp2mod.so, abicmod.so), loaded on first use from the directory
 * set here; when none is set, from $TESSLIN_PLUGIN_DIR; else from the
 * directory of libtesslin itself and then the dynamic loader's search path.
 * NULL clears the setting; modules already loaded stay loaded. 0, or IMG_ERR_BAD_IMAGE
 * for a path of 4096 characters or more. docs/platform.md describes the
 * module interface. */
TESSLIN_API int32_t tesslin_set_plugin_dir(const char *dir);

/* ------------------------------------------------------------------ */
/* Colour reduction, dithering, promotion and conversion                */
/* ------------------------------------------------------------------ */

/* Every operation below works in place on the handle: it builds the whole
 * new image beside the old one and installs it only when every row is
 * done, so the handle stays valid and keeps its crop rectangle, and any
 * failure leaves the old image as it was. Each returns IMG_ERR_HANDLE for a
 * bad handle, IMG_ERR_MEMORY when memory runs out (or the new image would
 * pass the library's size limit), and the negative status of the progress
 * callback (IMG_set_statusbar), which is called once per stored row with
 * (user, height, row, row bytes). Rows are worked on in storage order,
 * bottom image row first: dither patterns and serpentine directions follow
 * the stored row number s (image row height - 1 - s). Grey values of the
 * bilevel reductions are (59 green + 30 red + 11 blue) / 100 of each
 * pixel's colour (16-bit samples through the palette entry of their high
 * byte; 32-bit CMYK through the conversion IMG_cmyk_to_rgb uses). */

/* Bilevel results, left as run records (IMG_runs_to_dib gives plain rows),
 * palette black, white. Sources of 4, 8, 16, 24 and 32 bits;
 * IMG_ERR_UNSUPPORTED for 1-bit images.
 *   IMG_bayer_mono: white where the grey value exceeds the 8 x 8 Bayer
 *     threshold (the Bayer order times 4, first value 4) of column x mod 8
 *     and stored row s mod 8.
 *   IMG_halftone_mono: the same with an 8 x 8 clustered-dot screen.
 *   IMG_diffusion_mono: Stucki error diffusion over three rows, serpentine,
 *     integer shares truncated toward zero, values never clamped.
 *   IMG_thresh_mono: white where the grey value exceeds `threshold`; -1
 *     maps every grey value through the image's cumulative histogram (0 to
 *     255) and compares with 40. */
TESSLIN_API int32_t IMG_bayer_mono(int32_t handle);
TESSLIN_API int32_t IMG_halftone_mono(int32_t handle);
TESSLIN_API int32_t IMG_diffusion_mono(int32_t handle);
TESSLIN_API int32_t IMG_thresh_mono(int32_t handle, int32_t threshold);

/* 16 colours with the "pcx" palette (index bit 0 red, 1 green, 2 blue at
 * 128; bit 3 full intensity 255), 4 bits per pixel; IMG_ERR_UNSUPPORTED for
 * 1-bit images.
 *   IMG_bayer_color: ordered dither with the Bayer thresholds (sources of
 *     4, 8, 16, 24, 32 bits).
 *   IMG_diffusion_color: Burkes error diffusion, left to right on every
 *     row (4, 8, 16, 24, 32 bits). */
TESSLIN_API int32_t IMG_bayer_color(int32_t handle);
TESSLIN_API int32_t IMG_diffusion_color(int32_t handle);

/* 8 bits with the "332" palette (the 3-3-2 colour cube, or the fixed
 * 256-colour table when IMGLOW_set_dithermode is 2; read at the call), by
 * error diffusion; no palette is computed from the image. Sources of 4, 8,
 * 16, 24 and 32 bits; IMG_ERR_DEPTH for 1-bit images. */
TESSLIN_API int32_t IMG_mediancut_color(int32_t handle);

/* 8 bits with a palette of the 255 most frequent 4-bit-per-channel colour
 * cells (entry 0 black), pixels mapped to the nearest entry without
 * diffusion. Sources of 24 and 32 bits; IMG_ERR_UNSUPPORTED below. */
TESSLIN_API int32_t IMG_popularity_color(int32_t handle);

/* Octree quantisation to `bits` (4 or 8) bits per pixel with at most
 * `colors` palette entries (clamped to 8..256, and to 16 for 4 bits), then
 * Floyd-Steinberg error diffusion, serpentine. With `palette` (an array of
 * `colors` IMG_RGBQUAD entries) the tree is built from those colours
 * instead of the image's. Returns the number of palette entries produced;
 * IMG_ERR_DEPTH for 1-, 4- and 16-bit sources and for `bits` other than 4
 * and 8. Sources of 8, 24 and 32 bits. The progress callback sees twice the
 * height as its total: once per row while the image's colours are counted,
 * once per row while they are mapped. */
TESSLIN_API int32_t IMG_octree_color(int32_t handle, int32_t bits, const IMG_RGBQUAD *palette,
                                     int32_t colors);

/* Promotion. Bilevel pages held as run records come out as plain rows.
 *   IMG_promote_8: 1 bit -> 0 and 255 with a 256-level grey palette; 4 bits
 *     -> the same indices and palette; 8 bits -> a copy; 16 bits -> the high
 *     byte of each sample. IMG_ERR_UNSUPPORTED for 24 and 32 bits.
 *   IMG_promote_24: 1, 4, 8 bits -> the palette colours; 16 bits -> the high
 *     byte as grey (the palette is not used); 32 bits -> as IMG_cmyk_to_rgb.
 *     IMG_ERR_UNSUPPORTED for 24 bits.
 *   IMG_promote_32: 1, 4, 8 bits -> the palette colours; 16 bits -> the high
 *     byte as grey; 24 bits -> the same colours; the fourth byte is 0 and
 *     the header carries IMG_COMPRESSION_ALPHA. IMG_ERR_UNSUPPORTED for 32
 *     bits. */
TESSLIN_API int32_t IMG_promote_8(int32_t handle);
TESSLIN_API int32_t IMG_promote_24(int32_t handle);
TESSLIN_API int32_t IMG_promote_32(int32_t handle);

/* 32-bit images to 24-bit blue, green, red. With IMG_COMPRESSION_ALPHA the
 * fourth byte is dropped; otherwise the bytes are cyan, magenta, yellow,
 * black: c = trunc(C 0.57), m = trunc(M 0.6), y = trunc(Y 0.5),
 * k = 255 - trunc(K 0.4); blue = k - 1.2 y - 0.133 c - 0.592 m,
 * green = k - 1.2 m - 0.39 c - 0.074 y, red = k - 1.2 c - 0.1 m - 0.223 y,
 * each truncated and clamped to 0..255. IMG_ERR_DEPTH for other depths. */
TESSLIN_API int32_t IMG_cmyk_to_rgb(int32_t handle);

/* 24-bit colour to 32-bit cyan, magenta, yellow, black (compression 0):
 * c = 255 - red, m = 255 - green, y = 255 - blue, k = trunc(max(c, m, y)
 * 0.3), inks clamp(trunc((c - k) 1.35)) ... and k. Not the inverse of
 * IMG_cmyk_to_rgb. 4-, 8- and 16-bit sources are taken through their
 * palette; IMG_ERR_DEPTH for 1 and 32 bits. */
TESSLIN_API int32_t IMG_rgb_to_cmyk(int32_t handle);

/* 8-bit grey with a 256-level grey palette: (75 green + 14 blue + 38 red)
 * >> 7 of each pixel's colour, less 40 (not below 0) for 8- and 16-bit
 * palette sources. Sources of 4, 8, 16, 24, 32 bits; IMG_ERR_UNSUPPORTED for
 * 1 bit. */
TESSLIN_API int32_t IMG_color_gray(int32_t handle);

/* A new 8-bit grey bitmap of byte `plane` of every pixel of a 24-bit (0
 * blue, 1 green, 2 red) or 32-bit image (0..3: cyan, magenta, yellow, black,
 * or blue, green, red and alpha). Returns the new handle (made as
 * IMG_create_handle makes one, so the decode settings apply);
 * IMG_ERR_DEPTH for other depths and planes outside the pixel. The source
 * is not changed. */
TESSLIN_API int32_t IMG_color_separate(int32_t handle, int32_t plane);

/* A new bitmap from 8-bit planes of equal size: with `planes` 3, 24-bit
 * blue a, green b, red c; with 4, 32-bit cyan a, magenta b, yellow c, black
 * d (compression 0). Returns the new handle (made as IMG_create_handle makes
 * one); IMG_ERR_HANDLE for a bad handle among those used, IMG_ERR_DEPTH for
 * a plane that is not 8 bits, planes of different sizes, or a plane count
 * other than 3 and 4. The sources are not changed. */
TESSLIN_API int32_t IMG_color_combine(int32_t a, int32_t b, int32_t c, int32_t d, int32_t planes);
/* Rotation, flipping and inversion                                     */
/* ------------------------------------------------------------------ */

/* Each works on every depth (1, 4, 8, 16, 24, 32) and replaces the image in
 * place: the new image is built beside the old one and installed when its
 * last row is done, so a failure leaves the image as it was. Run-encoded
 * bilevel images stay run-encoded; flips, inversion and half turns work on
 * their change positions without expanding them. The progress callback
 * (IMG_set_statusbar) is called once per row with the row count as total;
 * a negative result stops the operation with that status, the image
 * unchanged. Returns 0, IMG_ERR_HANDLE for a bad handle, IMG_ERR_MEMORY
 * when memory runs out (or the handle holds no image), or the callback's
 * status. docs/geometry.md describes them. */

/* Mirror left to right; the crop rectangle is mirrored with the pixels
 * (crop x becomes width - crop width - crop x). */
TESSLIN_API int32_t IMG_flip_bitmapx(int32_t handle);
/* Mirror top to bottom; crop y becomes height - crop height - crop y. */
TESSLIN_API int32_t IMG_flip_bitmapy(int32_t handle);
/* Turn by `angle` hundredths of a degree, clockwise when positive; the
 * angle counts modulo 36000 (-9000 turns like 27000), and 0 changes
 * nothing. Quarter turns swap width, height and the two resolutions and
 * carry the crop rectangle with the picture; a half turn mirrors it both
 * ways. Other angles sample the nearest source pixel and enlarge the image
 * to hold the whole turned picture (a 100 x 100 image turned by 4500 becomes
 * 142 x 142), filling the uncovered corners with white for bilevel images
 * and with 0 for the other depths; the crop rectangle becomes the whole new
 * image. IMG_ERR_MEMORY also when the turned image would exceed the size
 * limits. */
TESSLIN_API int32_t IMG_rotate_bitmap(int32_t handle, int32_t angle);
/* Complement every pixel value: palette images get complemented indices
 * (the palette is kept), 16-, 24- and 32-bit images their negative. */
TESSLIN_API int32_t IMG_invert_bitmap(int32_t handle);

/* ------------------------------------------------------------------ */
/* Resizing                                                             */
/* ------------------------------------------------------------------ */

/* Each replaces the image by one of width x height pixels (both at least 1,
 * else IMG_ERR_BAD_IMAGE), built beside the old one and installed when
 * complete; the crop rectangle becomes the whole new image and the display
 * extent its size. The progress callback is called once per new row; a
 * negative result stops the operation with that status, the image
 * unchanged. IMG_ERR_HANDLE for a bad handle, IMG_ERR_MEMORY when memory
 * runs out or the new image would exceed the size limits.
 * docs/geometry.md describes the methods. */

/* Nearest neighbour, every depth: new pixel i of a row takes source pixel
 * (i * step) >> 16 with step = (old width << 16) / new width, and stored
 * row j (counting from the bottom) source stored row (j * ystep) >> 16.
 * Run-encoded images stay run-encoded and are scaled on their change
 * positions from the crop rectangle. */
TESSLIN_API int32_t IMG_resize_bitmap(int32_t handle, int32_t width, int32_t height);
/* Linear interpolation for 8-bit grey, 16-, 24- and 32-bit images when the
 * width grows (nearest neighbour, as IMG_resize_bitmap, when it does not).
 * Bilevel images that shrink both ways keep every black pixel (a new pixel
 * is black when any source pixel it covers is; the scale-to-grey quality
 * IMGLOW_set_alias_quality below 100 shortens the rows covered); other
 * bilevel sizes go to IMG_resize_bitmap. IMG_ERR_UNSUPPORTED for 4 bits,
 * IMG_ERR_NOT_GRAY for an 8-bit image with a colour palette. */
TESSLIN_API int32_t IMG_resize_bitmap_interp(int32_t handle, int32_t width, int32_t height);
/* Area averaging of the crop rectangle for 8-bit grey, 16-, 24- and 32-bit
 * images: each new pixel is the mean of a box of at least 2 x 2 source
 * pixels (so even at equal size the image softens slightly). 16-bit samples
 * average as one channel. IMG_ERR_DEPTH below 8 bits, IMG_ERR_NOT_GRAY for
 * an 8-bit colour palette. */
TESSLIN_API int32_t IMG_resize_bitmap_bicubic(int32_t handle, int32_t width, int32_t height);
/* Bilevel images that shrink in both dimensions become 8-bit grey: each new
 * pixel counts the black pixels of the crop rectangle's box around it
 * (white 255, solid black 0); the grey palette goes through the bitmap's
 * tone settings (gamma, brightness, contrast). Other sizes go to
 * IMG_resize_bitmap. Run records are read directly. IMG_ERR_DEPTH for
 * depths other than 1. */
TESSLIN_API int32_t IMG_resize_to_gray(int32_t handle, int32_t width, int32_t height);
/* Picks the method by depth: 1 bit IMG_resize_to_gray; 4 and 8 bits
 * IMG_promote_24 then IMG_resize_bitmap_bicubic; 16, 24 and 32 bits
 * IMG_resize_bitmap_bicubic. Keeps no aspect ratio of its own. Returns
 * what the chosen operations return. */
TESSLIN_API int32_t IMG_create_thumbnail(int32_t handle, int32_t width, int32_t height);

/* ------------------------------------------------------------------ */
/* Display surfaces                                                     */
/* ------------------------------------------------------------------ */

/* Linux has no window system call behind the display operations, so the
 * library draws into software surfaces (docs/platform.md). A window handle
 * stands for a window's client area, of the size given, with a device
 * context of its own (tesslin_window_dc); a device context handle stands for
 * a 24-bit top-down RGB buffer (tesslin_dc_pixels: width x 3 bytes a row, no
 * padding, white when created). Handles are non-zero; create returns 0 for a
 * size below 1 or above 32768, or when memory runs out. destroy returns 0,
 * or IMG_ERR_BAD_IMAGE for a handle that is not live (and for a window's own device
 * context, which goes with its window). */
TESSLIN_API intptr_t tesslin_window_create(int32_t client_width, int32_t client_height);
TESSLIN_API int32_t tesslin_window_destroy(intptr_t window);
TESSLIN_API intptr_t tesslin_window_dc(intptr_t window);
TESSLIN_API intptr_t tesslin_dc_create(int32_t width, int32_t height);
TESSLIN_API uint8_t *tesslin_dc_pixels(intptr_t dc);
TESSLIN_API int32_t tesslin_dc_size(intptr_t dc, int32_t *width, int32_t *height);
TESSLIN_API int32_t tesslin_dc_destroy(intptr_t dc);

/* ------------------------------------------------------------------ */
/* Display                                                              */
/* ------------------------------------------------------------------ */

/* Store (x, y, |width|, |height|) as the bitmap's display rectangle and draw
 * its crop rectangle there, stretched (nearest neighbour); a negative width
 * mirrors the picture left to right, a negative height top to bottom. The
 * display callback (IMGLOW_set_dispfunc) is asked first; a result below 1
 * cancels the drawing and is returned. 0, IMG_ERR_HANDLE, IMG_ERR_BAD_IMAGE
 * for a dc that is not a live device context, IMG_ERR_DISPLAY_RECT for a
 * width or height of 0. */
TESSLIN_API int32_t IMG_display_bitmap(int32_t handle, intptr_t dc, int32_t x, int32_t y,
                                       int32_t width, int32_t height);
/* Realise the bitmap's palette on a device context (software surfaces are
 * true colour: only the handles are checked). */
TESSLIN_API int32_t IMG_bitmap_palette(int32_t handle, intptr_t dc);
/* ------------------------------------------------------------------ */
/* Document clean-up                                                    */
/* ------------------------------------------------------------------ */

/* The clean-up operations below (all but IMG_erase_rect) work on 1-bit
 * pages kept as run records; a plain 1-bit image is encoded to run records
 * first. Each returns 0, IMG_ERR_HANDLE, IMG_ERR_DEPTH for other depths,
 * IMG_ERR_MEMORY, or the negative answer of the status-bar callback
 * (IMG_set_statusbar) where noted; a failure leaves the image as it was.
 * Rows and columns within a tenth of the width of the page's edges (pages
 * wider than 100 pixels) take no part in skew and orientation detection. */

/* Writes to *angle the skew correction in whole degrees: the slope angle a
 * in lo .. hi - 1 whose line accumulator (fed with the edges of black runs)
 * holds the largest count, negated, so that it can be passed to
 * IMG_deskew_bitmap. A page with nothing that looks like a line (no count
 * above 2) and an empty range (hi <= lo) give -lo. Calls the status-bar
 * callback once per row. IMG_ERR_BAD_IMAGE for a null angle; IMG_ERR_MEMORY
 * for a range whose accumulator the library will not hold. */
TESSLIN_API int32_t IMG_get_deskew_angle(int32_t handle, int32_t *angle, int32_t lo, int32_t hi);
/* Turns the page by `angle` whole degrees (positive = clockwise) about its
 * middle by two shears; the page keeps its size, content pushed past an
 * edge is cut there and white comes in. 0 does nothing. */
TESSLIN_API int32_t IMG_deskew_bitmap(int32_t handle, int32_t angle);
/* Writes 0 to *orientation when the text lines run across the page, 90 when
 * they run down it (an upside-down page also gives 0). Calls the status-bar
 * callback once per row. IMG_ERR_BAD_IMAGE for a null pointer. */
TESSLIN_API int32_t IMG_auto_orient(int32_t handle, int32_t *orientation);
/* Level 1 and above removes specks: a black pixel stays only when a black
 * pixel lies above or below it or it is inside a horizontal run of at least
 * 6 (levels 20 and above ask for more, up to 99). Level 0 and below thickens
 * strokes by one pixel in the four directions. Pages of fewer than three
 * rows are left unchanged. Calls the status-bar callback once per row. */
TESSLIN_API int32_t IMG_despeckel_bitmap(int32_t handle, int32_t level);
/* The same operation as IMG_despeckel_bitmap. */
TESSLIN_API int32_t IMG_despeckle_bitmap(int32_t handle, int32_t level);
/* Crops the page to the box of its black pixels widened by `margin` pixels
 * on each side (kept inside the page; a negative margin counts as 0). A page
 * without black pixels, or whose only black pixels are in its last row, is
 * left unchanged. The crop rectangle becomes the whole new page. */
TESSLIN_API int32_t IMG_autocrop_bitmap(int32_t handle, int32_t margin);
/* Fills the rectangle x, y, width, height (0 = top; clipped to the image)
 * with `colour` when inside is 1, else everything outside it. Values by
 * depth: 1 bit: non-zero white, 0 black; 8 bits: the low byte; 16 bits: the
 * bytes colour >> 8, then colour & 255; 24 bits: a COLORREF 0x00BBGGRR;
 * 32 bits: the bytes colour >> 24, >> 16, >> 8, & 255 in that order. A 4-bit
 * image is left unchanged. A 1-bit image comes back run-encoded. Any depth;
 * 0, IMG_ERR_HANDLE, IMG_ERR_MEMORY. */
TESSLIN_API int32_t IMG_erase_rect(int32_t handle, int32_t x, int32_t y, int32_t width,
                                   int32_t height, uint32_t colour, int32_t inside);

/* ------------------------------------------------------------------ */
/* GIF animation                                                        */
/* ------------------------------------------------------------------ */

/* Delay, in hundredths of a second, of the last graphic control extension
 * among the extension blocks that follow a GIF's header (screen descriptor
 * and global colour table) before its first image. IMG_ERR_GIF_BLOCK when
 * the first block after the header is not an extension or none of those
 * extensions is a graphic control extension; IMG_ERR_UNSUPPORTED when the
 * file does not begin with "GIF"; IMG_ERR_READ for a header cut short (or an
 * extension cut short); IMG_ERR_OPEN when the file cannot be opened. Reads
 * no setting. */
TESSLIN_API int32_t IMGLOW_get_anim_delay(const char *file);

/* Plays a GIF animation once in a window (tesslin_window_create): frame 0,
 * 1, 2 ... each decoded into a new bitmap handle as IMG_decompress_bitmap_fd
 * does (the decode settings apply), drawn with IMG_display_bitmap at (x, y)
 * of the window's device context, stretched to width x height (0 for either:
 * the frame's own size), then deleted. Each frame stays for the file's
 * delay (IMGLOW_get_anim_delay, applied to every frame) measured from the
 * start of its decode; the calling thread sleeps meanwhile. Frame offsets
 * and disposal methods are not used: every frame is drawn whole at (x, y).
 * Playing ends at the first frame that does not decode. Returns 0; the
 * negative status of IMGLOW_get_anim_delay (before anything is drawn),
 * IMG_ERR_OPEN when the file cannot be opened, IMG_ERR_BAD_IMAGE when
 * `window` is not a live window, or a drawing's negative status (the
 * display callback's refusal). */
TESSLIN_API int32_t IMG_animate(intptr_t window, const char *file, int32_t width, int32_t height,
                                int32_t x, int32_t y);

/* Unload every loaded module. Returns 0. */
TESSLIN_API int32_t IMG_unload_plugins(void);
/* Settings forwarded to the modules (loaded if needed); each returns the
 * module's result (docs/modules.md).
 * IMGLOW_set_pdf_input(resolution, bits): how PDF pages are rendered when
 * decoded: resolution in dots per inch (10 to 2400, default 200) and output
 * depth 1 (bilevel, thresholded without anti-aliasing), 8 (grey) or 24
 * (colour, the default); 0 for either restores its default. Given to both
 * apdfmod and pdfmod, whichever can be loaded (apdfmod's answer is
 * returned); 0, IMG_ERR_BAD_IMAGE for a value out of range (nothing
 * changed), IMG_ERR_PLUGIN when neither module can be loaded.
 * IMGLOW_set_pcl_input: to pclmod (IMG_ERR_PLUGIN).
 * IMGLOW_set_jpeg2000_comp_ratio(ratio): compression of format code 70
 * (IMG_FORMAT_JPEG2000): 1 (the default, also 0) lossless, 2 to 1000 lossy
 * at that ratio of the raw pixel size; 0, IMG_ERR_BAD_IMAGE out of range,
 * IMG_ERR_JP2_PLUGIN when jp2mod cannot be loaded. */
TESSLIN_API int32_t IMGLOW_set_pdf_input(int32_t a, int32_t b);
TESSLIN_API int32_t IMGLOW_set_pcl_input(int32_t a, int32_t b);
TESSLIN_API int32_t IMGLOW_set_jpeg2000_comp_ratio(int32_t ratio);
/* The text of a PDF file through apdfmod: UTF-8, each page followed by a
 * form feed, in reading order (flag bit 0 clear) or keeping the page's
 * physical layout (flag bit 0 set). On success *text receives a
 * zero-terminated block from tesslin_block_alloc that the caller frees with
 * tesslin_block_free, *length its length without the terminator, and 0 is
 * returned. Failures (*text NULL, *length 0): IMG_ERR_OPEN, IMG_ERR_UNSUPPORTED
 * for a file that is not a PDF, IMG_ERR_PLUGIN without apdfmod,
 * IMG_ERR_TEXT_NOT_FOUND for a document without text, IMG_ERR_VARIANT for a
 * document that needs a password, IMG_ERR_BAD_IMAGE for a damaged one or a
 * NULL output, IMG_ERR_MEMORY. */
TESSLIN_API int32_t IMGLOW_extract_text(const char *file, char **text, int32_t *length,
                                        int32_t flag);
/* Number of occurrences of `text` (UTF-8) on page `page` (0 = first) of a
 * PDF file, through pdfmod; flag bit 0: ignore case. IMG_ERR_TEXT_NOT_FOUND
 * when there is none, IMG_ERR_NO_PAGE, IMG_ERR_OPEN, IMG_ERR_UNSUPPORTED
 * for a file that is not a PDF, IMG_ERR_PLUGIN without pdfmod,
 * IMG_ERR_BAD_IMAGE for an empty or NULL text or a damaged document,
 * IMG_ERR_VARIANT for a document that needs a password. */
TESSLIN_API int32_t IMGLOW_search_text(const char *file, int32_t page, const char *text,
                                       int32_t flag);

/* ------------------------------------------------------------------ */
/* Display geometry and drawing                                         */
/* ------------------------------------------------------------------ */

/* Drawing entry points read the bitmap's crop rectangle, display angle and
 * raster operation (IMGLOW_set_rop; the brush is white) and draw into the
 * software surfaces above (docs/display.md). Those that take a bitmap handle
 * return IMG_ERR_HANDLE for a bad one, IMG_ERR_BAD_IMAGE for a device
 * context or window that is not live, IMG_ERR_DISPLAY_RECT for a rectangle
 * or area of width or height 0; the display operations (all but printing
 * and device bitmaps) store their display rectangle, mark the bitmap busy
 * while drawing and ask the display callback (IMGLOW_set_dispfunc) first,
 * whose result below 1 cancels the drawing and is returned. Negative
 * widths and heights mirror the picture left to right and top to bottom in
 * the image's own orientation. */

/* Store the display angle, clockwise: 0, 90, 180 or 270 (0 when a handle is
 * created); every drawing of the bitmap then shows it turned. IMG_ERR_UNSUPPORTED
 * (the old angle kept) for any other value. */
TESSLIN_API int32_t IMG_set_display_angle(int32_t handle, int32_t angle);
/* Convert an image point (*x, *y) to the client point of `window` where it
 * is shown, and back. With the crop rectangle covering the whole image the
 * picture keeps its aspect ratio in the client area, centred; with a part
 * of the image it is stretched over the whole client area. Image-to-window
 * results are reduced to signed 16-bit values; window-to-image results are
 * clamped into the image, and use the centring offset only when the display
 * rectangle does not start at (0, 0). 0, IMG_ERR_HANDLE, or
 * IMG_ERR_BAD_IMAGE for a window that is not live or a NULL x or y. */
TESSLIN_API int32_t IMGLOW_map_image_to_wnd(int32_t handle, intptr_t window, int32_t *x,
                                            int32_t *y);
TESSLIN_API int32_t IMGLOW_map_wnd_to_image(int32_t handle, intptr_t window, int32_t *x,
                                            int32_t *y);
/* Fit the displayed image width (height) to the area of `width` x `height`
 * at (x, y): set the crop rectangle to the rows (columns) the area shows,
 * centre the picture across when the whole image fits, store the display
 * rectangle and draw into `dc`. `window` (0 for none) is only checked:
 * software windows have no scroll bars. Returns the zoom in percent (0 when
 * less than one image row or column fits), or a negative status. */
TESSLIN_API int32_t IMG_display_fit_to_width(int32_t handle, intptr_t dc, intptr_t window,
                                             int32_t x, int32_t y, int32_t width,
                                             int32_t height);
TESSLIN_API int32_t IMG_display_fit_to_height(int32_t handle, intptr_t dc, intptr_t window,
                                              int32_t x, int32_t y, int32_t width,
                                              int32_t height);
/* IMG_display_bitmap variants: _aspect fits the picture into the rectangle
 * with its aspect ratio kept, centred, and stores the rectangle it drew;
 * _transp leaves pixels of the transparent colour (IMGLOW_set_transp_color:
 * a palette index in the low byte for images of 8 bits or fewer, a
 * COLORREF for deeper ones) as the surface had them, and draws everything
 * when no transparent colour is set; _iac draws anti-aliased, each surface
 * pixel the average of the image pixels it covers (a bilevel page shrinks
 * to grey). */
TESSLIN_API int32_t IMG_display_bitmap_aspect(int32_t handle, intptr_t dc, int32_t x,
                                              int32_t y, int32_t width, int32_t height);
TESSLIN_API int32_t IMG_display_bitmap_transp(int32_t handle, intptr_t dc, int32_t x,
                                              int32_t y, int32_t width, int32_t height);
TESSLIN_API int32_t IMG_display_bitmap_iac(int32_t handle, intptr_t dc, int32_t x, int32_t y,
                                           int32_t width, int32_t height);
/* Lay the picture over what the surface holds at `percent` opacity (100:
 * covers it; 0: leaves it). IMG_ERR_UNSUPPORTED for a percentage outside
 * 0 .. 100. */
TESSLIN_API int32_t IMG_merge_bitmap(int32_t handle, intptr_t dc, int32_t x, int32_t y,
                                     int32_t width, int32_t height, int32_t percent);
/* The palette drawing realises for the bitmap, copied into `palette` (room
 * for 256 entries; NULL just counts): the number of entries, 0 for images
 * deeper than 8 bits (drawn in true colour), IMG_ERR_HANDLE. */
TESSLIN_API int32_t IMG_get_bitmap_palette(int32_t handle, IMG_RGBQUAD *palette);
/* Device bitmaps. IMG_dib_to_ddb copies the crop rectangle (1:1, display
 * angle not applied) into a new device bitmap for `dc`: a device context
 * handle of the crop's size, read with tesslin_dc_pixels and freed with
 * tesslin_dc_destroy; IMG_ERR_MEMORY when no memory is left or the crop is
 * wider or higher than 32768. IMG_display_ddb stretches one (nearest) over
 * a rectangle of `dc`; IMG_display_ddb_effect draws it in 16 steps, effect
 * 0 at once, 1 wiping in from the left, 2 from the right, 3 from the top, 4
 * from the bottom, waiting the wipe delay (IMGLOW_set_wipedelay, 0 meaning
 * 2 ms) between steps; IMG_ERR_UNSUPPORTED for another effect.
 * IMG_create_handle_ddb makes a new 24-bit bitmap handle of one. A device
 * bitmap that is not live gives IMG_ERR_BAD_IMAGE. */
TESSLIN_API intptr_t IMG_dib_to_ddb(int32_t handle, intptr_t dc);
TESSLIN_API int32_t IMG_display_ddb(intptr_t ddb, intptr_t dc, int32_t x, int32_t y,
                                    int32_t width, int32_t height);
TESSLIN_API int32_t IMG_display_ddb_effect(intptr_t ddb, intptr_t dc, int32_t x, int32_t y,
                                           int32_t width, int32_t height, int32_t effect);
TESSLIN_API int32_t IMG_create_handle_ddb(intptr_t ddb);
/* Print the crop rectangle, in the display angle, onto a page surface:
 * fitted into the rectangle with its aspect ratio kept and centred (width
 * and height 0: the whole surface). IMG_print_bitmap averages the image
 * pixels each page pixel covers; IMG_print_bitmap_fast takes the nearest.
 * The display rectangle, display callback and raster operation are not
 * used. */
TESSLIN_API int32_t IMG_print_bitmap(int32_t handle, intptr_t dc, int32_t x, int32_t y,
                                     int32_t width, int32_t height);
TESSLIN_API int32_t IMG_print_bitmap_fast(int32_t handle, intptr_t dc, int32_t x, int32_t y,
                                          int32_t width, int32_t height);

/* ------------------------------------------------------------------ */
/* Text files as pages                                                  */
/* ------------------------------------------------------------------ */

/* Plain text files open like images (format code IMG_FORMAT_TEXT, detected
 * only after IMGLOW_set_auto_detect(IMG_FORMAT_TEXT)): each page is typeset
 * in a monospace font onto a white 1-bit page (docs/text.md). The
 * attributes below are process-wide; lengths are in thousandths of an
 * inch. */
typedef struct {
    uint32_t mask;          /* which fields a set or get call touches */
    int32_t x_resolution;   /* 0x1: dots per inch across, default 200 */
    int32_t y_resolution;   /* 0x2: dots per inch down, default 200 */
    int32_t left_margin;    /* 0x4 (the four margins): default 1000 */
    int32_t top_margin;     /* default 750 */
    int32_t right_margin;   /* default 1000 */
    int32_t bottom_margin;  /* default 750 */
    int32_t tab_size;       /* 0x8: tab stops every so many characters, default 8 */
    int32_t page_width;     /* 0x10: default 8500 */
    int32_t page_height;    /* 0x20: default 11000 */
    int32_t font_height;    /* 0x40: in pixels (0: 12 points); negative, the default
                               -1: fitted to the lines and characters per page */
    int32_t chars_per_line; /* 0x80: default 80 */
    int32_t lines_per_page; /* 0x100: default 60 */
    int32_t bold;           /* 0x200: non-zero selects the bold face */
    int32_t italic;         /* 0x400: the low byte non-zero selects the italic face */
    char font_name[32];     /* 0x800: face name, default "Courier New" (matched through
                               fontconfig, docs/platform.md); longer names are cut to 31 */
} IMG_ASCII_ATTRIBUTES;

enum {
    IMG_ASCII_X_RESOLUTION = 0x1,
    IMG_ASCII_Y_RESOLUTION = 0x2,
    IMG_ASCII_MARGINS = 0x4,
    IMG_ASCII_TAB_SIZE = 0x8,
    IMG_ASCII_PAGE_WIDTH = 0x10,
    IMG_ASCII_PAGE_HEIGHT = 0x20,
    IMG_ASCII_FONT_HEIGHT = 0x40,
    IMG_ASCII_CHARS_PER_LINE = 0x80,
    IMG_ASCII_LINES_PER_PAGE = 0x100,
    IMG_ASCII_BOLD = 0x200,
    IMG_ASCII_ITALIC = 0x400,
    IMG_ASCII_FONT_NAME = 0x800
};

/* Copy the fields whose mask bit is set into the process-wide attributes
 * (set) or out of them (get). 0, or IMG_ERR_BAD_IMAGE for NULL. */
TESSLIN_API int32_t IMGLOW_set_ascii_attributes(const IMG_ASCII_ATTRIBUTES *record);
TESSLIN_API int32_t IMGLOW_get_ascii_attributes(IMG_ASCII_ATTRIBUTES *record);
/* The page width, in thousandths of an inch, that holds the file's widest
 * line between the margins, measured in the current font with tabs
 * expanded; the number of characters of the longest line (tabs counting
 * one) becomes the characters-per-line attribute. IMG_ERR_OPEN when the
 * file cannot be opened, IMG_ERR_BAD_IMAGE for a file that is not text (a
 * byte below 32 other than 9 to 13 and 26) or a resolution below 1,
 * IMG_ERR_UNSUPPORTED when no font can be had. Reads the attributes. */
TESSLIN_API int32_t IMGLOW_get_ascii_page_width(const char *file_name);
/* Decode page `page` (0 = the first) of a text file into a new bitmap
 * handle, as IMG_decompress_bitmap_fd at offset 0 does: the handle,
 * IMG_ERR_OPEN, IMG_ERR_UNSUPPORTED while detection of IMG_FORMAT_TEXT is
 * off (or when no font can be had), IMG_ERR_NO_PAGE beyond the last page,
 * IMG_ERR_BAD_IMAGE for a page smaller than one pixel. Reads the
 * attributes and the decode settings. */
TESSLIN_API int32_t IMG_import_ascii(const char *file_name, int32_t page);
/* Scanning                                                             */
/* ------------------------------------------------------------------ */

/* Pages come from a scanner through a data source manager module loaded at
 * run time: $TESSLIN_TWAIN_DSM, else libtesslin-twain.so beside the library
 * (docs/scanning.md). The module shipped with the library drives SANE: the
 * device $TESSLIN_SANE_DEVICE, else the first one SANE lists, with the extra
 * backend options of $TESSLIN_SANE_OPTIONS ("name=value;..."). Connection
 * state is process-wide and unlocked: one scanning operation at a time.
 * `parent` is handed to the manager as the parent window (0 is fine).
 * Statuses common to all: IMG_ERR_SCAN_MANAGER (module absent, not loadable,
 * no entry point; returned as such by IMG_scan_open_source, IMG_scan_acquire
 * and IMG_scan_pages, as IMG_ERR_SCAN_REFUSED by the others),
 * IMG_ERR_SCAN_REFUSED (the manager or the source refused to open or to
 * act), IMG_ERR_STOP (cancelled, or no image was transferred). */

/* The scan settings the library imposes when the source's own dialog is
 * not shown (show_ui 0): 44 bytes, no padding. Defaults: 1 bit, frame
 * 0, 0, 8.5, 11 inches, 300 by 300 dots per inch. */
#pragma pack(push, 4)
typedef struct {
    int32_t bits_per_pixel; /* 1 black and white, 8 grey, 24 colour */
    double left, top, right, bottom; /* scan frame, inches */
    int32_t x_resolution, y_resolution; /* dots per inch */
} IMG_SCAN_SETTINGS;
#pragma pack(pop)

/* Ask the manager for its default source, then let it choose one (its
 * selection dialog; the SANE manager has none and keeps the default); the
 * choice is used by the next operations. Closes the connection. 0, or the
 * manager-open status. */
TESSLIN_API int32_t IMG_scan_open_source(intptr_t parent);
/* Show the source's own settings dialog without acquiring. Leaves the
 * connection open (IMG_scan_feeder_close ends it). 0; IMG_ERR_SCAN_REFUSED;
 * IMG_ERR_SCAN_CAPABILITY when the source cannot show its dialog alone. */
TESSLIN_API int32_t IMG_scan_setup(intptr_t parent);
/* The current value of one capability (one-value container), or
 * IMG_ERR_SCAN_CAPABILITY. Leaves the connection open. */
TESSLIN_API int32_t IMG_scan_get_cap(intptr_t parent, uint16_t capability);
/* Set one capability as a 16-bit value. 0 or IMG_ERR_SCAN_CAPABILITY. Leaves
 * the connection open. */
TESSLIN_API int32_t IMG_scan_set_cap(intptr_t parent, uint16_t capability, int32_t value);
/* Store the scan settings record (copied whole; NULL is ignored). 0. */
TESSLIN_API int32_t IMG_scan_set_caps(const IMG_SCAN_SETTINGS *settings);
/* Acquire one page by native transfer (the feeder switched off) into a new
 * handle. With show_ui 0 the scan settings are applied first. The handle,
 * IMG_ERR_STOP when the source closed without a transfer, or the decode
 * status of the transferred DIB. Reads the decode settings. */
TESSLIN_API int32_t IMG_scan_acquire(intptr_t parent, int32_t show_ui);
/* The next page from the feeder as a new handle. The first call opens the
 * connection (IMG_ERR_SCAN_NO_PAPER when the feeder is empty or cannot say,
 * IMG_ERR_SCAN_FEEDER when it cannot be enabled, IMG_ERR_SCAN_AUTOFEED when
 * automatic feeding cannot be), and the connection stays open while pages
 * remain; it is closed after the last page or a failure. The _fast variant
 * asks for Group 4 compressed pages by memory transfer (when the source
 * offers them; else native) and sets duplex scanning to `duplex` when the
 * source has it. */
TESSLIN_API int32_t IMG_scan_acquire_feeder(intptr_t parent, int32_t show_ui);
TESSLIN_API int32_t IMG_scan_acquire_feeder_fast(intptr_t parent, int32_t show_ui,
                                                 int32_t duplex);
/* Scan every page in the feeder and save each with IMG_save_bitmap in
 * format `format_code` (negative: BMP). Multi-page codes (IMG_FORMAT_TIFF,
 * _TIFF_MH, _TIFF_G3, _TIFF_G4, _DCX, _TIFF_PACKBITS) write all pages into
 * the file `name`, started afresh; other codes write "<name>%08d.img"
 * (pages counted from 0; "%08d.img" when name is NULL), replacing files of
 * those names. 0, or the first negative status (feeder statuses as
 * IMG_ERR_SCAN_REFUSED, save statuses, transfer statuses). Pages written
 * before a failure stay. */
TESSLIN_API int32_t IMG_scan_pages(intptr_t parent, const char *name, int32_t format_code,
                                   int32_t show_ui);
TESSLIN_API int32_t IMG_scan_pages_fast(intptr_t parent, const char *name, int32_t format_code,
                                        int32_t show_ui, int32_t duplex);
/* End the connection: disable and close the source, close and unload the
 * manager. 0. */
TESSLIN_API int32_t IMG_scan_feeder_close(void);

/* ------------------------------------------------------------------ */
/* Tone and effects                                                     */
/* ------------------------------------------------------------------ */

/* Tone fields of a bitmap (zero when it is created), read when it is saved
 * or shown: gamma in hundredths (100 = 1.0, 0 counts as 100), contrast and
 * brightness. The tone table built from them maps entry i to
 * clamp(trunc((255 (i/255)^(100/gamma) + brightness) (2 contrast + 256) / 255)
 * - contrast, 0, 255). Saving applies the table built WITHOUT gamma to the
 * rows of 24- and 32-bit and grey-palette bitmaps and to the palette of
 * colour-palette bitmaps. Both return 0 or IMG_ERR_HANDLE. */
TESSLIN_API int32_t IMG_set_gamma(int32_t handle, int32_t gamma);
TESSLIN_API int32_t IMG_set_lut(int32_t handle, int32_t contrast, int32_t brightness);

/* Window/level mapping of an 8-bit grey or 16-bit image for display: with
 * enable non-zero, value v maps to clamp(256 (v - low) / (high - low), 0,
 * 255) (low = high = 0: the image's own smallest and largest values); with
 * enable 0 the mapping is removed. The pixels are not changed. 0,
 * IMG_ERR_HANDLE, IMG_ERR_DEPTH for other depths and colour palettes,
 * IMG_ERR_MEMORY. */
TESSLIN_API int32_t IMG_window_level(int32_t handle, int32_t low, int32_t high, int32_t enable);

/* Bakes the settings into the pixels. IMG_apply_tone maps the samples of
 * 24- and 32-bit images, and the palette of palette images, through the
 * tone table (gamma included) and clears the three fields: 0 (also when no
 * field is set), IMG_ERR_HANDLE, IMG_ERR_DEPTH for 16 bits.
 * IMG_apply_window_level replaces an image that has a window/level mapping
 * by the 8-bit grey image of its mapped values ("tiff" grey ramp) and
 * removes the mapping: 0, IMG_ERR_HANDLE, IMG_ERR_UNSUPPORTED without a
 * mapping, IMG_ERR_MEMORY or the status-bar callback's negative status (the
 * image then unchanged). */
TESSLIN_API int32_t IMG_apply_tone(int32_t handle);
TESSLIN_API int32_t IMG_apply_window_level(int32_t handle);

/* Histogram equalisation in place of an 8-bit grey or 16-bit image: value v
 * becomes trunc(L x fraction of pixels <= v), L = 255 or 65,535; the
 * palette is kept. 0, IMG_ERR_HANDLE, IMG_ERR_DEPTH for other images. */
TESSLIN_API int32_t IMG_histogram_equalize(int32_t handle);

/* Smooths (amount <= 0) or sharpens (amount > 0) in place with a 3 x 3
 * neighbourhood whose centre weight falls as |amount| grows (17 for 0 ... 15,
 * 1 for 128). Border rows and columns keep their values. 4- and 8-bit
 * images need a grey palette. 0, IMG_ERR_HANDLE, IMG_ERR_UNSUPPORTED for 1
 * bit and colour palettes, or the status-bar callback's negative status (the
 * rows done so far stay changed). Reads the status-bar setting. */
TESSLIN_API int32_t IMG_sharpen_bitmap(int32_t handle, int32_t amount);

/* 3 x 3 convolution in place, no divisor, sums clamped to the sample range
 * (0 ... 255; 0 ... 65,535 for 16-bit values). Filter 0 takes `kernel`
 * (nine signed weights: the row below, the row, the row above, each left,
 * centre, right); 1 Laplacian, 2 edges, 3 horizontal lines, 4 vertical lines,
 * 5 and 6 diagonal lines, 7 sharpen, 8 neighbour sum, 9 diagonal edges. 4-
 * and 8-bit colour-palette images are made 8-bit grey first (IMG_color_gray);
 * 4-bit grey images are left unchanged. 0, IMG_ERR_HANDLE,
 * IMG_ERR_UNSUPPORTED for 1 bit, filters outside 0 ... 9 and filter 0
 * without a kernel, or the status-bar callback's negative status. */
TESSLIN_API int32_t IMG_process_bitmap(int32_t handle, int32_t filter, const int8_t *kernel);

/* Red-eye removal in place on a 24-bit image, inside the rectangle (x, y
 * from the top left, width, height; -1 in any of them: the whole image):
 * groups of at least 4 red pixels (red >= 129 and red > green + blue), and
 * fewer than width x height / 800, lose their red. 0, IMG_ERR_HANDLE,
 * IMG_ERR_DEPTH for other depths. */
TESSLIN_API int32_t IMG_remove_red_eye(int32_t handle, int32_t x, int32_t y, int32_t width,
                                       int32_t height);

/* Sepia tone and a frame 2 % of the width wide (colour 0x00B7DCFA) in place
 * on a 24-bit image. 0, IMG_ERR_HANDLE, IMG_ERR_DEPTH for other depths. */
TESSLIN_API int32_t IMG_antique_effect(int32_t handle);

/* The value of pixel (x, y), y = 0 the top row: the bit, nibble, byte or
 * 16-bit value; blue + green x 256 + red x 65,536 for 24 bits; the four
 * bytes as one little-endian value for 32 bits. IMG_ERR_HANDLE,
 * IMG_ERR_UNSUPPORTED for a run-encoded image (IMG_runs_to_dib first),
 * IMG_ERR_BAD_IMAGE outside the image. A 32-bit pixel can read as a negative
 * number; test the coordinates rather than the sign there. */
TESSLIN_API int32_t IMGLOW_read_pixel(int32_t handle, int32_t x, int32_t y);

/* Combines `source` into `dest` with its top left at (x, y) of dest (x
 * rounded down to a whole byte for 1 and 4 bits), byte by byte: mode 0
 * copies, 1 ORs, 2 ANDs, other modes change nothing. Whatever falls outside
 * dest is dropped. Run-encoded 1-bit images are made plain first, both of
 * them, and stay plain. 0, IMG_ERR_HANDLE, IMG_ERR_DEPTH when the depths
 * differ, IMG_ERR_BAD_IMAGE for negative x or y, IMG_ERR_MEMORY. */
TESSLIN_API int32_t IMG_merge_bitmap_handle(int32_t dest, int32_t source, int32_t mode,
                                            int32_t x, int32_t y);

/* Blends a 32-bit image with alpha (compression 200) into the caller's
 * packed 24-bit DIB (`dest`: the header, its biClrUsed palette entries and
 * the rows) with its top left at (x, y) of dest: with `copy` non-zero each
 * pixel of non-zero alpha replaces dest's; otherwise each channel becomes
 * min(255, (dest (255 - a) >> 8) + (source a >> 8)). Alpha 0 leaves dest.
 * What falls outside dest is dropped. 0, IMG_ERR_HANDLE, IMG_ERR_UNSUPPORTED
 * for a CMYK 32-bit image, IMG_ERR_DEPTH for other depths, IMG_ERR_BAD_IMAGE
 * for a dest that is not 24 bits. */
TESSLIN_API int32_t IMG_merge_bitmap_alpha(int32_t handle, IMG_BITMAPINFOHEADER *dest, int32_t x,
                                           int32_t y, int32_t copy);

#ifdef __cplusplus
}
#endif

#endif /* TESSLIN_TESSLIN_H */
