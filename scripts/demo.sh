#!/usr/bin/env bash
# Builds the tesslin command-line tool and runs it on the sample document.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j "$(nproc)" --target tesslin_cli
build/tesslin --version
build/tesslin info tests/data/corpus/bmp/rgb24.bmp
build/tesslin convert tests/data/corpus/bmp/pal8-rle.bmp build/demo.bmp 1
build/tesslin info build/demo.bmp
