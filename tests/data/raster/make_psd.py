"""Writes the Photoshop files ImageMagick cannot write into the directory
given as the first argument: bitmap mode (raw and PackBits), duotone,
multichannel, Lab with and without alpha, and RGB with 16-bit PackBits
channels."""
import os
import struct
import sys

out = sys.argv[1]
W, H = 37, 23


def packbits(row):
    """Runs of 3 or more as repeats, the rest as literals."""
    data, i = b"", 0
    while i < len(row):
        run = 1
        while i + run < len(row) and run < 128 and row[i + run] == row[i]:
            run += 1
        if run >= 3:
            data += bytes([257 - run, row[i]])
            i += run
            continue
        lit = 1
        while i + lit < len(row) and lit < 128 and not (
                i + lit + 2 < len(row) and row[i + lit] == row[i + lit + 1] == row[i + lit + 2]):
            lit += 1
        data += bytes([lit - 1]) + bytes(row[i:i + lit])
        i += lit
    return data


def psd(mode, depth, channels, colour_data=b"", compressed=False):
    """channels: a list of channels, each a list of H rows of bytes."""
    head = b"8BPS" + struct.pack(">H6xHIIHH", 1, len(channels), H, W, depth, mode)
    head += struct.pack(">I", len(colour_data)) + colour_data
    resolution = b"8BIM" + struct.pack(">HHI", 1005, 0, 16) + struct.pack(">IHHIHH", 96 << 16, 1, 1, 96 << 16, 1, 1)
    head += struct.pack(">I", len(resolution)) + resolution + struct.pack(">I", 0)
    if not compressed:
        return head + struct.pack(">H", 0) + b"".join(r for c in channels for r in c)
    rows = [packbits(r) for c in channels for r in c]
    return head + struct.pack(">H", 1) + b"".join(struct.pack(">H", len(r)) for r in rows) + b"".join(rows)


def plane(f, size=1):
    return [b"".join(struct.pack(">H", f(x, y) * 257) if size == 2 else bytes([f(x, y)])
                     for x in range(W)) for y in range(H)]


bitmap = [bytes(sum(1 << (7 - b) for b in range(8) if (x * 8 + b + y) % 5 == 0 or x == 2)
                for x in range((W + 7) // 8)) for y in range(H)]
grey = plane(lambda x, y: (x * 7 + y * 3) % 256)
files = {
    "bitmap.psd": psd(0, 1, [bitmap]),
    "bitmap-packbits.psd": psd(0, 1, [bitmap], compressed=True),
    "duotone.psd": psd(8, 8, [grey], colour_data=b"\0" * 40),
    "multichannel.psd": psd(7, 8, [grey, plane(lambda x, y: x)]),
    "lab.psd": psd(9, 8, [plane(lambda x, y: (x * 6) % 256), plane(lambda x, y: 128 + x - y),
                          plane(lambda x, y: 100 + y * 2)]),
    "lab-alpha.psd": psd(9, 8, [plane(lambda x, y: (y * 11) % 256), plane(lambda x, y: 90 + x),
                                plane(lambda x, y: 160 - y), plane(lambda x, y: x * 5)]),
    "rgb16-packbits.psd": psd(3, 16, [plane(lambda x, y: x * 6, 2), plane(lambda x, y: y * 9, 2),
                                      plane(lambda x, y: 200 if x < 20 else 7, 2)], compressed=True),
}
for name, data in files.items():
    with open(os.path.join(out, name), "wb") as f:
        f.write(data)
