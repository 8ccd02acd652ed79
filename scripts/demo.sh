#!/usr/bin/env bash
# Builds the tesslin command-line tool and runs it on the sample document: a
# three-page Group 4 fax TIFF, described and converted into one PDF, which
# poppler's pdfinfo then describes.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j "$(nproc)" --target tesslin_cli
sample=tests/data/corpus/doc/multipage-g4.tif
mkdir -p build/demo
rm -f build/demo/sample.pdf
build/tesslin --version
build/tesslin info "$sample"
build/tesslin convert "$sample" build/demo/sample.pdf --all-pages
pdfinfo build/demo/sample.pdf
pages=$(pdfinfo build/demo/sample.pdf | awk '/^Pages:/ {print $2}')
[ "$pages" = 3 ] || { echo "expected 3 pages in build/demo/sample.pdf, found ${pages:-none}" >&2; exit 1; }
echo "wrote the 3 pages of $sample to build/demo/sample.pdf"
