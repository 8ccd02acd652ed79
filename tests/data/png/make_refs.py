#!/usr/bin/python3
"""Writes the pixels Pillow decodes from every PngSuite file that is not
deliberately corrupt (x*), as netpbm files in pngsuite/ beside this script:

  P5  grey (1-, 2-, 4-, 8-bit files scaled by Pillow to 0-255; 16-bit files
      reduced to the high byte of each sample)
  P6  RGB (colour files, and palette files through their palette)
  P7  TUPLTYPE GRAYSCALE_ALPHA or RGB_ALPHA for files with an alpha channel

Transparency chunks (tRNS) are ignored, as the library's reader ignores them.
Run from anywhere:  /usr/bin/python3 tests/data/png/make_refs.py
"""
import os
import sys

from PIL import Image

HERE = os.path.dirname(os.path.abspath(__file__))
SUITE = os.path.join(HERE, "..", "corpus", "suites", "pngsuite")
OUT = os.path.join(HERE, "pngsuite")


def write_pnm(path, kind, width, height, data, tupltype=None, depth=None):
    with open(path, "wb") as f:
        if kind == "P7":
            f.write(("P7\nWIDTH %d\nHEIGHT %d\nDEPTH %d\nMAXVAL 255\nTUPLTYPE %s\nENDHDR\n"
                     % (width, height, depth, tupltype)).encode())
        else:
            f.write(("%s\n%d %d\n255\n" % (kind, width, height)).encode())
        f.write(bytes(data))


def main():
    os.makedirs(OUT, exist_ok=True)
    names = sorted(n for n in os.listdir(SUITE) if n.endswith(".png") and not n.startswith("x"))
    for name in names:
        im = Image.open(os.path.join(SUITE, name))
        im.load()
        w, h = im.size
        base = os.path.join(OUT, name[:-4])
        mode = im.mode
        if mode in ("1", "L"):
            write_pnm(base + ".pgm", "P5", w, h, im.convert("L").tobytes())
        elif mode.startswith("I"):
            write_pnm(base + ".pgm", "P5", w, h, [v >> 8 for v in im.getdata()])
        elif mode == "LA":
            write_pnm(base + ".pam", "P7", w, h, im.tobytes(), "GRAYSCALE_ALPHA", 2)
        elif mode == "RGBA":
            write_pnm(base + ".pam", "P7", w, h, im.tobytes(), "RGB_ALPHA", 4)
        elif mode in ("RGB", "P"):
            write_pnm(base + ".ppm", "P6", w, h, im.convert("RGB").tobytes())
        else:
            sys.exit("%s: unexpected mode %s" % (name, mode))
    print("wrote %d references" % len(names))


if __name__ == "__main__":
    main()
