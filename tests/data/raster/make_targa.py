"""Writes Targa files of every kind the reader takes into the directory
given as the first argument: Pillow's writer for 8-bit grey, colour-mapped,
24- and 32-bit images, raw and run-length coded, bottom-up and top-down; and
hand-built files for what Pillow does not write, after the cases of the
Truevision conformance set (15- and 16-bit true colour, 16-bit colour maps,
right-to-left rows, an ID field, run-length packets crossing rows)."""
import os
import struct
import sys

from PIL import Image

out = sys.argv[1]
W, H = 37, 23


def picture(mode):
    im = Image.new("RGBA", (W, H))
    im.putdata([((x * 7) % 256, (y * 11) % 256, (x * y) % 256, (x + y * 9) % 256)
                for y in range(H) for x in range(W)])
    if mode == "P":
        return im.convert("RGB").quantize(200)
    return im.convert(mode)


for mode, name in (("L", "grey"), ("P", "pal8"), ("RGB", "rgb24"), ("RGBA", "rgba32")):
    im = picture(mode)
    for rle in (False, True):
        for top in (False, True):
            im.save(os.path.join(out, "%s%s%s.tga" % (name, "-rle" if rle else "", "-top" if top else "")),
                    compression="tga_rle" if rle else None, orientation=1 if top else -1)


def header(id_len, map_type, kind, map_len, map_bits, depth, descriptor):
    return struct.pack("<BBBHHBHHHHBB", id_len, map_type, kind, 0, map_len, map_bits, 0, 0, W, H,
                       depth, descriptor)


def value16(x, y):
    return ((x * 3) % 32) << 10 | ((y * 5) % 32) << 5 | ((x + y) % 32) | ((x & 1) << 15)


def rle(pixels, size):
    """Packets of up to 128 pixels over the whole image, crossing rows."""
    data, i = b"", 0
    while i < len(pixels):
        run = 1
        while i + run < len(pixels) and run < 128 and pixels[i + run] == pixels[i]:
            run += 1
        if run > 1:
            data += bytes([0x80 | (run - 1)]) + pixels[i]
            i += run
            continue
        lit = 1
        while i + lit < len(pixels) and lit < 128 and pixels[i + lit] != pixels[i + lit - 1]:
            lit += 1
        data += bytes([lit - 1]) + b"".join(pixels[i:i + lit])
        i += lit
    return data


rows16 = [struct.pack("<H", value16(x // 4, y)) for y in range(H) for x in range(W)]
map16 = b"".join(struct.pack("<H", value16(i, i // 3)) for i in range(256))
index = [bytes([(x * 5 + y * 3) % 256]) for y in range(H) for x in range(W)]
hand = {
    "utc16.tga": header(0, 0, 2, 0, 0, 16, 0) + b"".join(rows16),
    "utc15.tga": header(0, 0, 2, 0, 0, 15, 0) + b"".join(rows16),
    "ctc16.tga": header(0, 0, 10, 0, 0, 16, 0) + rle(rows16, 2),
    "utc16-top.tga": header(0, 0, 2, 0, 0, 16, 0x20) + b"".join(rows16),
    "ucm8-map16.tga": header(0, 1, 1, 256, 16, 8, 0) + map16 + b"".join(index),
    "ccm8-map16.tga": header(0, 1, 9, 256, 16, 8, 0) + map16 + rle(index, 1),
    "id-field.tga": header(5, 0, 3, 0, 0, 8, 0) + b"hello" + b"".join(index),
    "right-to-left.tga": header(0, 0, 2, 0, 0, 24, 0x10) +
        b"".join(bytes([x * 6 % 256, y * 10 % 256, 99]) for y in range(H) for x in range(W)),
}
for name, data in hand.items():
    with open(os.path.join(out, name), "wb") as f:
        f.write(data)
