#!/usr/bin/env bash
# Makes the JPEG test files with independent encoders and their references
# with an independent decoder. Run from anywhere; rewrites this folder.
#
# Source: the corpus photograph (227 x 149) halved with Pillow to 113 x 74,
# a size that is not a multiple of any MCU.
#   cjpeg (libjpeg-turbo): every sampling the decoder reads, grey,
#     progressive, restart intervals, one scan per component, 16-bit
#     quantisation tables (an extended SOF1 frame)
#   Pillow: Adobe CMYK (transform 0)
#   ghostscript's DCTEncode filter: Adobe YCCK (transform 2)
#   patched copies: a 12-bit frame and a lossless frame (must be refused)
# References: djpeg -nosmooth (chroma replicated, as our decoder does);
# four-component files come out of djpeg as RGB (C * K / 255 per channel on
# the stored values).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
corpus="$here/../corpus"
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
py=/usr/bin/python3

$py - "$corpus" "$tmp" <<'PY'
import sys
from PIL import Image
corpus, tmp = sys.argv[1], sys.argv[2]
rgb = Image.open(corpus + "/refs/b8d8b9b4501bf26d.ppm").convert("RGB")
small = rgb.resize((113, 74), Image.LANCZOS)
small.save(tmp + "/src.ppm")
small.convert("L").save(tmp + "/src.pgm")
cmyk = Image.open(corpus + "/tone/cmyk.tif").convert("CMYK").resize((113, 74), Image.LANCZOS)
cmyk.save(tmp + "/pil-cmyk.jpg", quality=90)
open(tmp + "/src.cmyk", "wb").write(cmyk.tobytes())
PY

cd "$here"
rm -f ./*.jpg ./*.ppm ./*.pgm
cjpeg -quality 85 -sample 1x1 "$tmp/src.ppm" > 444.jpg
cjpeg -quality 85 -sample 2x1 "$tmp/src.ppm" > 422.jpg
cjpeg -quality 85 -sample 2x2 "$tmp/src.ppm" > 420.jpg
cjpeg -quality 85 -sample 4x1 "$tmp/src.ppm" > 411.jpg
cjpeg -quality 85 -sample 1x2 "$tmp/src.ppm" > 440.jpg
cjpeg -quality 85 -sample 2x1,2x1,2x1 "$tmp/src.ppm" > 444-in-2x1.jpg
cjpeg -quality 85 -grayscale "$tmp/src.ppm" > grey.jpg
cjpeg -quality 85 -sample 2x2 -progressive "$tmp/src.ppm" > progressive.jpg
cjpeg -quality 85 -grayscale -progressive "$tmp/src.ppm" > progressive-grey.jpg
cjpeg -quality 85 -sample 2x2 -progressive -restart 2B "$tmp/src.ppm" > progressive-restart.jpg
cjpeg -quality 85 -sample 2x2 -restart 3B "$tmp/src.ppm" > restart.jpg
cjpeg -quality 85 -sample 2x2 -restart 1 "$tmp/src.ppm" > restart-rows.jpg
printf '0: 0 63 0 0;\n1: 0 63 0 0;\n2: 0 63 0 0;\n' > "$tmp/scans.txt"
cjpeg -quality 85 -sample 2x2 -scans "$tmp/scans.txt" "$tmp/src.ppm" > multiscan.jpg
cjpeg -quality 2 -sample 2x2 "$tmp/src.ppm" > extended.jpg
cp "$tmp/pil-cmyk.jpg" cmyk.jpg
cat > "$tmp/ycck.ps" <<PS
/infile ($tmp/src.cmyk) (r) file def
/outfile ($here/ycck.jpg) (w) file def
/enc outfile << /Columns 113 /Rows 74 /Colors 4 /ColorTransform 1 /QFactor 0.25 >> /DCTEncode filter def
/buf 4096 string def
{ infile buf readstring exch enc exch writestring not { exit } if } loop
enc closefile outfile closefile
PS
gs -q -dNOSAFER -dNODISPLAY -dBATCH "$tmp/ycck.ps"

for f in *.jpg; do
  base="${f%.jpg}"
  case "$base" in grey|progressive-grey) ext=pgm ;; *) ext=ppm ;; esac
  djpeg -nosmooth -pnm "$f" > "$base.$ext"
done

# Frames the decoder must refuse: the 4:2:0 file with its precision byte set
# to 12, and with its SOF0 marker turned into SOF3 (lossless).
$py - <<'PY'
data = bytearray(open("420.jpg", "rb").read())
sof = data.index(b"\xff\xc0")
twelve = bytearray(data); twelve[sof + 4] = 12
open("twelve-bit.jpg", "wb").write(twelve)
lossless = bytearray(data); lossless[sof + 1] = 0xC3
open("lossless.jpg", "wb").write(lossless)
PY
ls -l "$here"
