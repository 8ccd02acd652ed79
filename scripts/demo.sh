#!/usr/bin/env bash
# Builds the tesslin command-line tool and runs it on the sample document: a
# three-page Group 4 fax TIFF, described and converted page by page to PNG.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j "$(nproc)" --target tesslin_cli
sample=tests/data/corpus/doc/multipage-g4.tif
mkdir -p build/demo
rm -f build/demo/sample-*.png
build/tesslin --version
build/tesslin info "$sample"
build/tesslin convert "$sample" build/demo/sample.png --all-pages
build/tesslin info build/demo/sample-*.png
echo "wrote the pages of $sample to build/demo/sample-1.png ... sample-3.png"
