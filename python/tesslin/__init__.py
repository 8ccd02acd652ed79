"""Tesslin imaging library for Python.

A thin ctypes layer over the installed shared library::

    import numpy, tesslin
    page = tesslin.open("scan.tif", page=0)
    print(page.width, page.height, page.bits)
    pixels = numpy.asarray(page)          # rows x columns [x channels]
    page.rotate(90)
    page.save("scan.pdf")

The library is found through $TESSLIN_LIBRARY (a path to libtesslin.so),
else beside the installed package, else on the dynamic loader's path.
Failures raise tesslin.Error carrying the library's status and its text.
"""
import ctypes
import ctypes.util
import os

__all__ = ["Bitmap", "Error", "open", "from_bytes", "page_count", "formats",
           "library_path"]

try:
    from . import _config
except ImportError:  # running from the source tree
    _config = None


class Error(Exception):
    """A negative status from the library: .status (int), .name, .text."""

    def __init__(self, status, what=""):
        self.status = int(status)
        self.name = _text(_lib().IMG_status_name(self.status))
        self.text = _text(_lib().IMG_status_message(self.status))
        message = "%s (%s, %d)" % (self.text, self.name, self.status)
        super().__init__("%s: %s" % (what, message) if what else message)


class _FormatInfo(ctypes.Structure):
    _fields_ = [("code", ctypes.c_int32), ("name", ctypes.c_char_p),
                ("description", ctypes.c_char_p), ("extension", ctypes.c_char_p),
                ("reads", ctypes.c_int32), ("writes", ctypes.c_int32),
                ("multipage", ctypes.c_int32)]


class _Header(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("width", ctypes.c_int32),
                ("height", ctypes.c_int32), ("planes", ctypes.c_uint16),
                ("bit_count", ctypes.c_uint16), ("compression", ctypes.c_uint32),
                ("image_size", ctypes.c_uint32), ("x_dpi", ctypes.c_int32),
                ("y_dpi", ctypes.c_int32), ("colors_used", ctypes.c_uint32),
                ("colors_important", ctypes.c_uint32)]


_I32, _P, _S = ctypes.c_int32, ctypes.c_void_p, ctypes.c_char_p
_PI32 = ctypes.POINTER(ctypes.c_int32)

# Signatures of the functions used here; operations are looked up on use
# (see _OPERATIONS) so a build without one still loads.
_SIGNATURES = {
    "IMG_status_name": (_S, [_I32]),
    "IMG_status_message": (_S, [_I32]),
    "IMG_decompress_bitmap_page": (_I32, [_S, _I32]),
    "IMG_decompress_bitmap_mem": (_I32, [_P, _I32]),
    "IMG_delete_bitmap": (_I32, [_I32]),
    "IMG_bitmap_info": (ctypes.c_ssize_t, [_I32, _PI32, _PI32, _PI32]),
    "IMGLOW_get_bitmap_header": (_I32, [_I32, _P]),
    "IMGLOW_get_raster": (_I32, [_I32, _P, _I32, ctypes.c_uint32]),
    "IMG_save_bitmap": (_I32, [_I32, _S, _I32]),
    "IMG_save_bitmap_mem": (_I32, [_I32, _P, _I32]),
    "IMGLOW_get_format_info": (_I32, [_I32, ctypes.POINTER(_FormatInfo)]),
    "IMGLOW_get_pages": (_I32, [_S]),
    "tesslin_block_alloc": (_P, [ctypes.c_uint32]),
    "tesslin_block_free": (None, [_P]),
}

_state = {}


def library_path():
    """The path of the shared library this package loads."""
    explicit = os.environ.get("TESSLIN_LIBRARY")
    if explicit:
        return explicit
    if _config is not None:
        here = os.path.dirname(os.path.abspath(__file__))
        candidate = os.path.normpath(os.path.join(here, _config.LIBDIR_FROM_PACKAGE,
                                                  _config.LIBRARY_NAME))
        if os.path.exists(candidate):
            return candidate
    found = ctypes.util.find_library("tesslin")
    if found:
        return found
    raise OSError("libtesslin not found: set TESSLIN_LIBRARY to its path")


def _lib():
    lib = _state.get("lib")
    if lib is None:
        lib = ctypes.CDLL(library_path())
        for name, (restype, argtypes) in _SIGNATURES.items():
            function = getattr(lib, name)
            function.restype, function.argtypes = restype, argtypes
        _state["lib"] = lib
    return lib


def _text(raw):
    return raw.decode("utf-8", "replace") if raw else ""


def _check(status, what=""):
    if status < 0:
        raise Error(status, what)
    return status


def _path(path):
    return os.fsencode(os.fspath(path))


def formats():
    """Every format code the library knows: a list of dicts with code, name,
    description, extension, reads, writes, multipage."""
    result = []
    for code in range(0, 78):
        info = _FormatInfo()
        if _lib().IMGLOW_get_format_info(code, ctypes.byref(info)) < 0:
            continue
        result.append({"code": info.code, "name": _text(info.name),
                       "description": _text(info.description),
                       "extension": _text(info.extension), "reads": info.reads,
                       "writes": bool(info.writes), "multipage": info.multipage})
    return result


def _format_code(format, path, bits):
    """A format code from a code, a name as `tesslin formats` lists it, or the
    extension of path (TIFF: Group 4 for bilevel pages, LZW otherwise)."""
    if isinstance(format, int):
        return format
    table = [f for f in formats() if f["writes"]]
    if format is not None:
        wanted = format.lower()
        for f in table:
            if wanted in (f["name"], f["extension"]):
                return f["code"]
        raise ValueError("unknown format %r" % format)
    extension = os.path.splitext(os.fspath(path))[1].lower().lstrip(".")
    if extension in ("tif", "tiff"):
        return 4 if bits == 1 else 9  # TIFF Group 4 / TIFF LZW
    if extension == "jpeg":
        extension = "jpg"
    for f in table:
        if f["extension"] == extension:
            return f["code"]
    raise ValueError("no writable format for the extension of %r; give format="
                     % os.fspath(path))


def page_count(path):
    """Number of pages of a file."""
    return _check(_lib().IMGLOW_get_pages(_path(path)), os.fspath(path))


def open(path, page=0):
    """Decode one page (counting from 0) of a file into a Bitmap."""
    handle = _lib().IMG_decompress_bitmap_page(_path(path), int(page))
    return Bitmap(_check(handle, os.fspath(path)))


def from_bytes(data, page=0):
    """Decode one page of a file image held in memory."""
    data = bytes(data)
    block = _lib().tesslin_block_alloc(max(len(data), 1))
    if not block:
        raise MemoryError("no memory for %d bytes" % len(data))
    try:
        ctypes.memmove(block, data, len(data))
        handle = _lib().IMG_decompress_bitmap_mem(block, int(page))
    finally:
        _lib().tesslin_block_free(block)
    return Bitmap(_check(handle))


# name: (C function, argument converters) for operations on a handle that
# change its image in place.
_OPERATIONS = {
    "flip_x": "IMG_flip_bitmapx",
    "flip_y": "IMG_flip_bitmapy",
    "invert": "IMG_invert_bitmap",
    "gray": "IMG_color_gray",
    "promote_8": "IMG_promote_8",
    "promote_24": "IMG_promote_24",
    "promote_32": "IMG_promote_32",
    "bayer_mono": "IMG_bayer_mono",
    "halftone_mono": "IMG_halftone_mono",
    "diffusion_mono": "IMG_diffusion_mono",
}

_RESIZE = {"nearest": "IMG_resize_bitmap", "interp": "IMG_resize_bitmap_interp",
           "area": "IMG_resize_bitmap_bicubic", "grey": "IMG_resize_to_gray",
           "gray": "IMG_resize_to_gray"}


class Bitmap:
    """One decoded image, held by the library under a bitmap handle."""

    def __init__(self, handle):
        self.handle = handle

    def __del__(self):
        self.close()

    def close(self):
        """Free the image now (also done when the object goes)."""
        if getattr(self, "handle", -1) >= 0 and "lib" in _state:
            _state["lib"].IMG_delete_bitmap(self.handle)
        self.handle = -1

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _info(self):
        w, h, b = ctypes.c_int32(), ctypes.c_int32(), ctypes.c_int32()
        _check(_lib().IMG_bitmap_info(self.handle, ctypes.byref(w), ctypes.byref(h),
                                      ctypes.byref(b)))
        return w.value, h.value, b.value

    @property
    def width(self):
        return self._info()[0]

    @property
    def height(self):
        return self._info()[1]

    @property
    def bits(self):
        return self._info()[2]

    def header(self):
        """The image's header fields as a dict (dpi in x_dpi, y_dpi)."""
        buffer = ctypes.create_string_buffer(40 + 1024)
        _check(_lib().IMGLOW_get_bitmap_header(self.handle, buffer))
        h = _Header.from_buffer_copy(buffer.raw[:40])
        return {name: getattr(h, name) for name, _ in _Header._fields_}

    def palette(self):
        """The palette as a list of (r, g, b) tuples (empty above 8 bits)."""
        bits = self.bits
        count = {1: 2, 4: 16, 8: 256}.get(bits, 0)
        if not count:
            return []
        buffer = ctypes.create_string_buffer(40 + 1024)
        _check(_lib().IMGLOW_get_bitmap_header(self.handle, buffer))
        raw = buffer.raw[40:40 + 4 * count]
        return [(raw[i + 2], raw[i + 1], raw[i]) for i in range(0, len(raw), 4)]

    def rows(self):
        """The stored bytes of every row, top row first (packed, padded)."""
        width, height, bits = self._info()
        stride = ((width * bits + 31) // 32) * 4
        buffer = ctypes.create_string_buffer(stride)
        out = []
        for row in range(height):
            _check(_lib().IMGLOW_get_raster(self.handle, buffer, row, 0))
            out.append(buffer.raw)
        return out

    # ---- numpy ------------------------------------------------------------
    def pixels(self):
        """(bytes, shape, typestr) of the image as numpy sees it: rows x
        columns for grey images (palette applied), rows x columns x 3 (RGB)
        for colour palettes and 24 bits, x 4 for 32 bits (RGBA with alpha,
        else CMYK), 16 bits as unsigned 16-bit samples."""
        width, height, bits = self._info()
        rows = self.rows()
        if bits in (1, 4, 8):
            palette = self.palette()
            grey = all(r == g == b for r, g, b in palette)
            per_byte = 8 // bits
            mask = (1 << bits) - 1
            if grey:
                lut = [bytes(palette[(v >> (8 - bits * (i + 1))) & mask][0]
                             for i in range(per_byte)) for v in range(256)]
            else:
                lut = [b"".join(bytes(palette[(v >> (8 - bits * (i + 1))) & mask])
                                for i in range(per_byte)) for v in range(256)]
            channels = 1 if grey else 3
            used = width * channels
            data = b"".join(b"".join(lut[v] for v in row)[:used] for row in rows)
            shape = (height, width) if grey else (height, width, 3)
            return data, shape, "|u1"
        if bits == 16:
            data = b"".join(row[:width * 2] for row in rows)
            return data, (height, width), "<u2"
        channels = 3 if bits == 24 else 4
        out = bytearray()
        for row in rows:
            pixel = bytearray(row[:width * channels])
            if bits == 24 or self.header()["compression"] == 200:
                pixel[0::channels], pixel[2::channels] = pixel[2::channels], pixel[0::channels]
            out += pixel
        return bytes(out), (height, width, channels), "|u1"

    @property
    def __array_interface__(self):
        data, shape, typestr = self.pixels()
        return {"version": 3, "shape": shape, "typestr": typestr, "data": data}

    # ---- processing -------------------------------------------------------
    def _call(self, function, *args):
        lib = _lib()
        try:
            fn = getattr(lib, function)
        except AttributeError:
            raise Error(-7, "%s is not in this library" % function) from None
        fn.restype = ctypes.c_int32
        _check(fn(ctypes.c_int32(self.handle), *args), function)
        return self

    def __getattr__(self, name):
        function = _OPERATIONS.get(name)
        if function is None:
            raise AttributeError(name)
        return lambda: self._call(function)

    def rotate(self, degrees):
        """Turn clockwise by degrees (hundredths are kept: 0.5 is 50)."""
        return self._call("IMG_rotate_bitmap", ctypes.c_int32(int(round(degrees * 100))))

    def deskew(self, angle=None, low=-10, high=10):
        """Straighten a scanned page: by the angle found between low and high
        whole degrees, or by the angle given."""
        if angle is None:
            angle = self.deskew_angle(low, high)
        return self._call("IMG_deskew_bitmap", ctypes.c_int32(int(angle)))

    def deskew_angle(self, low=-10, high=10):
        """The correction angle in whole degrees that deskew would apply."""
        out = ctypes.c_int32()
        self._call("IMG_get_deskew_angle", ctypes.byref(out), ctypes.c_int32(low),
                   ctypes.c_int32(high))
        return out.value

    def despeckle(self, level=1):
        return self._call("IMG_despeckle_bitmap", ctypes.c_int32(level))

    def autocrop(self, margin=0):
        return self._call("IMG_autocrop_bitmap", ctypes.c_int32(margin))

    def orientation(self):
        """0 when text lines run across the page, 90 when they run down it."""
        out = ctypes.c_int32()
        self._call("IMG_auto_orient", ctypes.byref(out))
        return out.value

    def threshold(self, level=-1):
        """To 1 bit at a grey level; -1 picks the level automatically."""
        return self._call("IMG_thresh_mono", ctypes.c_int32(level))

    def resize(self, width, height, method="nearest"):
        """method: nearest, interp, area or grey."""
        function = _RESIZE.get(method)
        if function is None:
            raise ValueError("method must be one of %s" % ", ".join(sorted(_RESIZE)))
        return self._call(function, ctypes.c_int32(width), ctypes.c_int32(height))

    # ---- saving -----------------------------------------------------------
    def save(self, path, format=None):
        """Save to a file. format: a code, a name as `tesslin formats` lists
        it, or None for the one the extension names. Multi-page formats
        append a page to an existing file."""
        code = _format_code(format, path, self.bits)
        _check(_lib().IMG_save_bitmap(self.handle, _path(path), code), os.fspath(path))

    def to_bytes(self, format):
        """The file image of a save, in memory."""
        code = _format_code(format, "", self.bits)
        width, height, bits = self._info()
        size = max(4096, width * height * max(bits, 8) // 8 * 2 + 65536)
        block = _lib().tesslin_block_alloc(size)
        if not block:
            raise MemoryError("no memory for %d bytes" % size)
        try:
            count = _check(_lib().IMG_save_bitmap_mem(self.handle, block, code))
            return ctypes.string_at(block, count)
        finally:
            _lib().tesslin_block_free(block)

    def __repr__(self):
        if self.handle < 0:
            return "<tesslin.Bitmap closed>"
        return "<tesslin.Bitmap %dx%d, %d bits>" % self._info()
