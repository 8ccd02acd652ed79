#!/usr/bin/python3
"""Writes DICOM test files with pydicom and DCMTK into a directory, with what
an independent decoder makes of them, and hand-made files of the encodings no
writer makes (packed 12 bits, implicit VR big-endian) and of damage:

  cases.tsv    file, compare (exact / psnr / status), width, height, DIB bits,
               expected rows, expected palette, expected status (IMG_ERR_ name)
  queries.tsv  file, tag, result (0 value, 1 text, -31 absent), value

Expected rows are top-down and unpadded, in the layout of the DIB the reader
must deliver: 8-bit indices, 16-bit little-endian samples (12 bits stored
with high bit 11 multiplied by 16), blue-green-red for colour. Pixels come
from pydicom's pixel_array; JPEG frames from djpeg of the embedded stream.
"""
import os
import shutil
import struct
import subprocess
import sys

import numpy as np
import pydicom
from pydicom.dataset import Dataset, FileMetaDataset
from pydicom.encaps import generate_pixel_data_frame
from pydicom.pixel_data_handlers.util import apply_color_lut
from pydicom.uid import (ExplicitVRBigEndian, ExplicitVRLittleEndian, ImplicitVRLittleEndian,
                         RLELossless, generate_uid)

OUT = sys.argv[1]
W, H = 37, 23  # odd width: rows are not padded in DICOM
cases, queries = [], []


def path(name):
    return os.path.join(OUT, name)


def dataset(arr, photometric, bits_stored=None, signed=False):
    ds = Dataset()
    ds.PatientName = "Doe^Jane"
    ds.Modality = "OT"
    ds.SOPClassUID = "1.2.840.10008.5.1.4.1.1.7"
    ds.SOPInstanceUID = generate_uid()
    ds.Rows, ds.Columns = arr.shape[0], arr.shape[1]
    ds.SamplesPerPixel = 3 if arr.ndim == 3 else 1
    if arr.ndim == 3:
        ds.PlanarConfiguration = 0
    ds.PhotometricInterpretation = photometric
    ds.BitsAllocated = arr.dtype.itemsize * 8
    ds.BitsStored = bits_stored or ds.BitsAllocated
    ds.HighBit = ds.BitsStored - 1
    ds.PixelRepresentation = 1 if signed else 0
    data = arr.tobytes()
    ds.PixelData = data + b"\0" * (len(data) % 2)
    return ds


def save(ds, name, syntax, meta=True):
    ds.is_little_endian = syntax != ExplicitVRBigEndian
    ds.is_implicit_VR = syntax == ImplicitVRLittleEndian
    if ds.is_little_endian is False and ds.BitsAllocated == 16:
        ds.PixelData = np.frombuffer(ds.PixelData, "<u2").astype(">u2").tobytes()
    if meta:
        ds.file_meta = FileMetaDataset()
        ds.file_meta.MediaStorageSOPClassUID = ds.SOPClassUID
        ds.file_meta.MediaStorageSOPInstanceUID = ds.SOPInstanceUID
        ds.file_meta.TransferSyntaxUID = syntax
        ds.preamble = b"\0" * 128
        ds.save_as(path(name), write_like_original=False)
    else:
        pydicom.dcmwrite(path(name), ds, write_like_original=True)


def expected_rows(arr, ds):
    """Rows as the DIB holds them."""
    if arr.ndim == 3:
        return arr[:, :, ::-1].astype(np.uint8).tobytes()
    if arr.dtype.itemsize == 1:
        return arr.astype(np.uint8).tobytes()
    v = arr.astype(np.int64) & 0xFFFF
    if ds.BitsStored == 12 and ds.HighBit == 11:
        v = (v << 4) & 0xFFFF
    return v.astype("<u2").tobytes()


def add(name, compare, bits, rows=b"", palette=b"", status="", size=(W, H)):
    if rows:
        open(path(name + ".rows"), "wb").write(rows)
    if palette:
        open(path(name + ".pal"), "wb").write(palette)
    cases.append([name, compare, size[0], size[1], bits, name + ".rows" if rows else "",
                  name + ".pal" if palette else "", status])


def check_pixels(name, bits, reference=None):
    """Adds a case whose expected rows are what pydicom decodes (of the
    reference file, when given)."""
    ds = pydicom.dcmread(path(reference or name), force=True)
    if "TransferSyntaxUID" not in ds.file_meta:  # a bare data set
        ds.file_meta.TransferSyntaxUID = ImplicitVRLittleEndian
    arr = ds.pixel_array
    palette = b""
    if ds.PhotometricInterpretation == "PALETTE COLOR":
        lut = apply_color_lut(np.arange(256, dtype=np.uint8), ds)
        palette = (lut >> 8).astype(np.uint8).tobytes()
    add(name, "exact", bits, expected_rows(arr, ds), palette, size=(ds.Columns, ds.Rows))


def query(name, tags):
    ds = pydicom.dcmread(path(name), force=True)
    for tag in tags:
        elem = ds.file_meta.get(tag) if tag >> 16 == 2 else ds.get(tag)
        if elem is None:
            queries.append([name, "%08X" % tag, -31, ""])
        elif elem.VR in ("US", "SS") and not isinstance(elem.value, (list, bytes)):
            queries.append([name, "%08X" % tag, 0, int(elem.value) & 0xFFFF])
        else:
            queries.append([name, "%08X" % tag, 1, str(elem.value)])


# ---- pydicom -------------------------------------------------------------------
y, x = np.mgrid[0:H, 0:W]
grey8 = ((x * 7 + y * 11) % 256).astype(np.uint8)
grey12 = ((x * 97 + y * 173) % 4096).astype(np.uint16)
grey16 = ((x * 1777 + y * 2011) % 65536).astype(np.uint16)
signed16 = (grey16.astype(np.int32) - 32768).astype(np.int16)
rgb = np.stack([grey8, 255 - grey8, ((x * 13) % 256).astype(np.uint8)], axis=2)

plain = [
    ("grey8-implicit.dcm", grey8, "MONOCHROME2", None, False, ImplicitVRLittleEndian),
    ("grey8-explicit.dcm", grey8, "MONOCHROME1", None, False, ExplicitVRLittleEndian),
    ("grey12-explicit.dcm", grey12, "MONOCHROME2", 12, False, ExplicitVRLittleEndian),
    ("grey16-big.dcm", grey16, "MONOCHROME2", None, False, ExplicitVRBigEndian),
    ("grey16-signed.dcm", signed16, "MONOCHROME2", None, True, ImplicitVRLittleEndian),
    ("rgb-explicit.dcm", rgb, "RGB", None, False, ExplicitVRLittleEndian),
]
for name, arr, pi, stored, signed, syntax in plain:
    save(dataset(arr, pi, stored, signed), name, syntax)
    check_pixels(name, 24 if arr.ndim == 3 else arr.dtype.itemsize * 8)

# A palette image with 16-bit lookup entries.
ds = dataset(grey8, "PALETTE COLOR")
i = np.arange(256)
for colour, values in (("Red", (255 - i) * 257), ("Green", i * 257), ("Blue", (i * 7 % 256) * 257)):
    setattr(ds, colour + "PaletteColorLookupTableDescriptor", [256, 0, 16])
    setattr(ds, colour + "PaletteColorLookupTableData", values.astype("<u2").tobytes())
save(ds, "palette.dcm", ExplicitVRLittleEndian)
check_pixels("palette.dcm", 8)

# "DICM" at the start (no preamble), and a bare data set.
data = open(path("grey8-explicit.dcm"), "rb").read()
open(path("no-preamble.dcm"), "wb").write(data[128:])
add("no-preamble.dcm", "exact", 8, expected_rows(grey8, None))
save(dataset(grey8, "MONOCHROME2"), "bare.dcm", ImplicitVRLittleEndian, meta=False)
check_pixels("bare.dcm", 8)

# RLE: one segment (8 bits), two (16 bits, high bytes first), three (RGB).
for name, arr, pi, stored in (("grey8-rle.dcm", grey8, "MONOCHROME2", None),
                              ("grey16-rle.dcm", grey16, "MONOCHROME2", None),
                              ("rgb-rle.dcm", rgb, "RGB", None)):
    ds = dataset(arr, pi, stored)
    ds.compress(RLELossless, arr)
    save(ds, name, RLELossless)
    check_pixels(name, 24 if arr.ndim == 3 else arr.dtype.itemsize * 8)

for name in ("grey8-implicit.dcm", "grey16-big.dcm", "palette.dcm", "bare.dcm"):
    query(name, [0x00280010, 0x00280011, 0x00100010, 0x00020010, 0x00100020, 0x00280101])

# ---- DCMTK ---------------------------------------------------------------------
def run(*args):
    subprocess.run(args, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def djpeg_rows(dcm):
    """The frame's JPEG stream decoded by djpeg, as DIB rows."""
    ds = pydicom.dcmread(path(dcm))
    frame = next(generate_pixel_data_frame(ds.PixelData))
    open(path(dcm + ".jpg"), "wb").write(frame)
    pnm = subprocess.run(["djpeg", "-nosmooth", "-pnm", path(dcm + ".jpg")], check=True,
                         stdout=subprocess.PIPE).stdout
    kind, w, h = pnm[:2], ds.Columns, ds.Rows
    px = np.frombuffer(pnm[-w * h * (3 if kind == b"P6" else 1):], np.uint8)
    if kind == b"P6":
        return 24, px.reshape(h, w, 3)[:, :, ::-1].tobytes()
    return 8, px.tobytes()


if all(shutil.which(t) for t in ("img2dcm", "dcmconv", "dcmcrle", "dcmcjpeg", "djpeg", "cjpeg")):
    # RGB written by img2dcm from a BMP file; grey images from pydicom.
    open(path("rgb.pnm"), "wb").write(b"P6 %d %d 255\n" % (W, H) + rgb.tobytes())
    run("/usr/bin/convert", path("rgb.pnm"), "BMP3:" + path("rgb.bmp"))
    run("img2dcm", "-i", "BMP", path("rgb.bmp"), path("dcmtk-rgb.dcm"))
    check_pixels("dcmtk-rgb.dcm", 24)
    for source, bits in (("grey8-implicit", 8), ("grey12-explicit", 16), ("dcmtk-rgb", 24)):
        conversions = [
            ("-ti.dcm", ["dcmconv", "+ti"]),
            ("-tb.dcm", ["dcmconv", "+tb"]),
            ("-grouped.dcm", ["dcmconv", "+te", "+g", "-e"]),  # group lengths, undefined lengths
            ("-rle.dcm", ["dcmcrle"]),
        ]
        for suffix, tool in conversions:
            run(*tool, path(source + ".dcm"), path(source + suffix))
            # pydicom 2.3 leaves 8-bit samples in big-endian OW words swapped
            # in pairs; the conversion is lossless, so the source is the
            # reference there.
            swapped = suffix == "-tb.dcm" and bits != 16
            check_pixels(source + suffix, bits, source + ".dcm" if swapped else None)
        if bits == 16:
            continue
        run("dcmcjpeg", "+eb", path(source + ".dcm"), path(source + "-jpeg.dcm"))
        jbits, rows = djpeg_rows(source + "-jpeg.dcm")
        add(source + "-jpeg.dcm", "psnr", jbits, rows)
        # JPEG lossless (process 14 and its first-order prediction form): refused.
        for suffix, option in (("-lossless.dcm", "+el"), ("-lossless-sv1.dcm", "+e1")):
            run("dcmcjpeg", option, path(source + ".dcm"), path(source + suffix))
            add(source + suffix, "status", 0, status="COMPRESSION")
    # A JPEG file wrapped as it is (baseline, YCbCr 4:2:0).
    run("cjpeg", "-quality", "95", "-outfile", path("photo.jpg"), path("rgb.pnm"))
    run("img2dcm", path("photo.jpg"), path("img2dcm-jpeg.dcm"))
    jbits, rows = djpeg_rows("img2dcm-jpeg.dcm")
    add("img2dcm-jpeg.dcm", "psnr", jbits, rows)
    query("grey8-implicit-tb.dcm", [0x00280010, 0x00280100, 0x00080016, 0x00020002])

# ---- hand-made: explicit VR little-endian elements -----------------------------
UNDEFINED = 0xFFFFFFFF
EXPLICIT, RLE = "1.2.840.10008.1.2.1", "1.2.840.10008.1.2.5"


def el(group, elem, vr, value=b"", length=None):
    n = len(value) if length is None else length
    head = struct.pack("<HH", group, elem) + vr.encode()
    if vr in ("OB", "OW", "SQ", "UN"):
        return head + struct.pack("<2xI", n) + value
    return head + struct.pack("<H", n) + value


def item(elem, value=b"", length=None):
    return struct.pack("<HHI", 0xFFFE, elem, len(value) if length is None else length) + value


def us(v):
    return struct.pack("<H", v)


def meta(syntax, extra=b""):
    body = el(2, 0x10, "UI", syntax.encode() + b"\0" * (len(syntax) % 2)) + extra
    return b"\0" * 128 + b"DICM" + el(2, 0, "UL", struct.pack("<I", len(body))) + body


def attributes(rows, columns, allocated, stored):
    return (el(0x28, 4, "CS", b"MONOCHROME2 ") + el(0x28, 0x10, "US", us(rows)) +
            el(0x28, 0x11, "US", us(columns)) + el(0x28, 0x100, "US", us(allocated)) +
            el(0x28, 0x101, "US", us(stored)) + el(0x28, 0x102, "US", us(stored - 1)))


def hand(name, data, compare, bits=0, rows=b"", status="", size=(0, 0)):
    open(path(name), "wb").write(data)
    add(name, compare, bits, rows, status=status, size=size)


# Packed 12-bit samples: 12 34 56 gives 0x1230 and 0x4560. A nested sequence
# of undefined length holding its own Rows and Pixel Data (an icon) does not
# disturb the image's.
icon = item(0xE000, el(0x28, 0x10, "US", us(99)) + el(0x7FE0, 0x10, "OB", b"\1\2") + item(0xE00D), UNDEFINED)
hand("packed12-nested.dcm", meta(EXPLICIT) + attributes(1, 2, 12, 12) +
     el(0x88, 0x200, "SQ", icon + item(0xE0DD), UNDEFINED) + el(0x7FE0, 0x10, "OB", b"\x12\x34\x56\0"),
     "exact", 16, us(0x1230) + us(0x4560), size=(2, 1))


# Implicit VR big-endian: 16-bit samples, and 8-bit samples in byte-swapped words.
def big_implicit(group, elem, value):
    return struct.pack(">HHI", group, elem, len(value)) + value


for bits, pixels, rows in ((16, b"\1\2\3\4\xFF\xFE", struct.pack("<3H", 0x0102, 0x0304, 0xFFFE)),
                           (8, b"\2\1\0\3", b"\1\2\3")):
    header = b"".join(big_implicit(0x28, e, struct.pack(">H", v))
                      for e, v in ((0x10, 1), (0x11, 3), (0x100, bits), (0x101, bits)))
    hand("implicit-big%d.dcm" % bits, meta("1.2.840.10008.1.3") + big_implicit(0x28, 4, b"MONOCHROME2 ") + header +
         big_implicit(0x7FE0, 0x10, pixels), "exact", bits, rows, size=(3, 1))


# A 4 x 2 8-bit image whose pixel data is one RLE fragment of one literal run.
def rle_file(segments, first_offset, cut=0):
    fragment = struct.pack("<2I56x", segments, first_offset) + bytes([7, 1, 2, 3, 4, 5, 6, 7, 8])
    data = (meta(RLE) + attributes(2, 4, 8, 8) + el(0x7FE0, 0x10, "OB", length=UNDEFINED) + item(0xE000) +
            item(0xE000, fragment) + item(0xE0DD))
    return data[:len(data) - cut]


hand("rle-literal.dcm", rle_file(1, 64), "exact", 8, bytes(range(1, 9)), size=(4, 2))
image, pixels = attributes(2, 4, 8, 8), el(0x7FE0, 0x10, "OB", b"\x09" * 8)
damaged = [
    ("meta element the meta information may not hold", meta(EXPLICIT, el(2, 0x99, "UI", b"1.")) + image + pixels,
     "BAD_IMAGE"),
    ("meta element of undefined length", meta(EXPLICIT, el(2, 0x102, "OB", length=UNDEFINED)) + image + pixels,
     "BAD_IMAGE"),
    ("native pixel data of undefined length",
     meta(EXPLICIT) + image + el(0x7FE0, 0x10, "OB", b"\x09" * 8, UNDEFINED), "BAD_IMAGE"),
    ("element length past the end", meta(EXPLICIT) + el(0x10, 0x10, "UN", b"Doe", 0x7FFFFF00) + image + pixels,
     "READ"),
    ("sequence that never ends",
     meta(EXPLICIT) + image + el(0x88, 0x200, "SQ", item(0xE000, b"\0" * 8, UNDEFINED), UNDEFINED), "READ"),
    ("pixel data shorter than the image", meta(EXPLICIT) + image + el(0x7FE0, 0x10, "OB", b"\x09" * 6), "READ"),
    ("rows and columns the data cannot hold", meta(EXPLICIT) + attributes(60000, 60000, 16, 16) + pixels, "READ"),
    ("32 bits allocated", meta(EXPLICIT) + attributes(2, 4, 32, 32) + pixels, "VARIANT"),
    ("RLE data without an item",
     meta(RLE) + image + el(0x7FE0, 0x10, "OB", length=UNDEFINED) + el(0x10, 0x10, "PN"), "BAD_IMAGE"),
    ("RLE segment offset past the fragment", rle_file(1, 4000), "BAD_IMAGE"),
    ("RLE segment offset inside the header", rle_file(1, 8), "BAD_IMAGE"),
    ("RLE segment count 0", rle_file(0, 64), "BAD_IMAGE"),
    ("RLE fragment cut short", rle_file(1, 64, cut=20), "READ"),
    ("JPEG data that is no JPEG", meta("1.2.840.10008.1.2.4.50") + image + el(0x7FE0, 0x10, "OB", length=UNDEFINED) +
     item(0xE000) + item(0xE000, b"\7" * 16) + item(0xE0DD), "BAD_IMAGE"),
]
for what, data, status in damaged:
    hand(what.replace(" ", "-") + ".dcm", data, "status", status=status)

with open(path("cases.tsv"), "w") as f:
    f.write("file\tcompare\twidth\theight\tbits\trows\tpalette\tstatus\n")
    f.writelines("\t".join(map(str, c)) + "\n" for c in cases)
with open(path("queries.tsv"), "w") as f:
    f.write("file\ttag\tresult\tvalue\n")
    f.writelines("\t".join(map(str, q)) + "\n" for q in queries)
