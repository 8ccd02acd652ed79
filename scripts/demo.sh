#!/usr/bin/env bash
# Builds the tesslin command-line tool and runs it on the sample document.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j "$(nproc)" --target tesslin_cli
mkdir -p build/demo
sample=tests/data/corpus/jpeg/420.jpg
build/tesslin --version
build/tesslin info "$sample"
build/tesslin convert "$sample" build/demo/sample.png
build/tesslin info build/demo/sample.png
echo "wrote build/demo/sample.png"
