"""Independent references for the geometry and resizing tests.

Usage: numpy_ops.py CASES

CASES lists one check per line: OP [ARGS...] INPUT OUTPUT, where INPUT is
the array the library started from and OUTPUT what it produced. Arrays are
files with a text line "WIDTH HEIGHT K" and then HEIGHT x WIDTH x K bytes,
top row first (K bytes per pixel: a palette index, or the pixel's bytes).
For each line the script prints "ok", "diff N" (N samples differ from
numpy's result), "size W H" (numpy's result has another size), "psnr X"
(box, bilinear: Pillow's resize; boxmean F: numpy's F x F block mean) or
"match F" (rotate DEG: the fraction of pixels equal to Pillow's
nearest-neighbour turn, centred on OUTPUT).
"""
import sys

import numpy as np
from PIL import Image

# Operations whose exact result numpy gives from the input alone.
EXACT = {
    "rot90cw": lambda a: np.rot90(a, -1),
    "rot90ccw": lambda a: np.rot90(a, 1),
    "rot180": lambda a: np.rot90(a, 2),
    "fliplr": np.fliplr,
    "flipud": np.flipud,
}


def load(path):
    with open(path, "rb") as f:
        w, h, k = (int(v) for v in f.readline().split())
        data = np.frombuffer(f.read(), dtype=np.uint8)
    return data[: w * h * k].reshape(h, w, k)


def psnr(a, b):
    err = np.mean((a.astype(np.float64) - b.astype(np.float64)) ** 2)
    return 99.0 if err == 0 else 10 * np.log10(255.0 ** 2 / err)


def nearest(a, width, height):
    h, w = a.shape[:2]
    xstep = (w << 16) // width
    ystep = (h << 16) // height
    cols = (np.arange(width, dtype=np.int64) * xstep) >> 16
    stored = (np.arange(height, dtype=np.int64) * ystep) >> 16  # bottom row first
    rows = (h - 1 - stored)[::-1]
    return a[rows][:, cols]


def pillow_resize(a, width, height, method):
    img = Image.fromarray(a[:, :, 0] if a.shape[2] == 1 else a)
    filt = Image.BOX if method == "box" else Image.BILINEAR
    out = np.asarray(img.resize((width, height), filt))
    return out.reshape(height, width, -1)


def check(parts):
    op, args, src, out = parts[0], parts[1:-2], load(parts[-2]), load(parts[-1])
    if op in EXACT:
        want = EXACT[op](src)
    elif op == "invert":
        top = {1: 1, 4: 15}.get(int(args[0]), 255)
        want = (top - src.astype(np.int32)).astype(np.uint8)
    elif op == "nearest":
        want = nearest(src, int(args[0]), int(args[1]))
    elif op in ("box", "bilinear"):
        want = pillow_resize(src, int(args[0]), int(args[1]), op)
        if want.shape != out.shape:
            return "size %d %d" % (want.shape[1], want.shape[0])
        return "psnr %.3f" % psnr(want, out)
    elif op == "rotate":
        img = Image.fromarray(src[:, :, 0])
        want = np.asarray(img.rotate(-float(args[0]), resample=Image.NEAREST, expand=True))
        h, w = out.shape[:2]
        canvas = np.zeros((h, w), dtype=np.uint8)
        # Centre Pillow's result on ours (their sizes may differ by a pixel).
        wh, ww = want.shape
        oy, ox = (h - wh) // 2, (w - ww) // 2
        ys, xs = max(0, oy), max(0, ox)
        canvas[ys : min(h, oy + wh), xs : min(w, ox + ww)] = want[ys - oy : min(h, oy + wh) - oy, xs - ox : min(w, ox + ww) - ox]
        return "match %.4f" % np.mean(canvas == out[:, :, 0])
    elif op == "boxmean":
        f = int(args[0])
        h, w = src.shape[0] // f * f, src.shape[1] // f * f
        blocks = src[:h, :w, 0].astype(np.float64).reshape(h // f, f, w // f, f)
        want = blocks.mean(axis=(1, 3))
        got = out[: h // f, : w // f, 0]
        return "psnr %.3f" % psnr(want, got)
    else:
        return "unknown op " + op
    if want.shape != out.shape:
        return "size %d %d" % (want.shape[1], want.shape[0])
    n = int(np.count_nonzero(want != out))
    return "ok" if n == 0 else "diff %d" % n


def main():
    with open(sys.argv[1]) as f:
        for line in f:
            parts = line.split()
            if parts:
                print(check(parts))


if __name__ == "__main__":
    main()
