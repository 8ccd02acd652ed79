#!/usr/bin/python3
"""Writes the reference rasters of BMP Suite's good files (g/) as Pillow
decodes them: one P6 file per distinct picture in refs/, and bmpsuite.tsv
naming the reference of each file.

Run from this directory: /usr/bin/python3 make_refs.py
BMP Suite draws the same picture in several files. Where Pillow cannot serve
as the reference, the decode of an uncompressed file with the same picture
does: Pillow refuses g/rgb32bf.bmp (its mask layout), and Pillow 9 reads an
RLE4 absolute run of an odd number of pixels one pixel short, which shifts
the rest of such rows in g/pal4rle.bmp.
"""
import glob
import hashlib
import os

from PIL import Image

SUITE = os.path.join("..", "corpus", "suites", "bmpsuite")
SAME_AS = {"g/rgb32bf.bmp": "g/rgb24.bmp", "g/pal4rle.bmp": "g/pal4.bmp"}

rows = []
refs = {}
for path in sorted(glob.glob(os.path.join(SUITE, "g", "*.bmp"))):
    name = os.path.relpath(path, SUITE)
    source = os.path.join(SUITE, SAME_AS.get(name, name))
    im = Image.open(source).convert("RGB")
    data = b"P6\n%d %d\n255\n" % im.size + im.tobytes()
    ref = "refs/%s.ppm" % hashlib.sha1(data).hexdigest()[:16]
    refs[ref] = data
    rows.append((name, ref, "pillow" if name not in SAME_AS else "same as " + SAME_AS[name]))

for old in glob.glob("refs/*.ppm"):
    os.remove(old)
for ref, data in refs.items():
    with open(ref, "wb") as f:
        f.write(data)
with open("bmpsuite.tsv", "w") as f:
    f.write("file\treference\tsource\n")
    for row in rows:
        f.write("\t".join(row) + "\n")
