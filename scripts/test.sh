#!/usr/bin/env bash
# Builds Tesslin and runs the whole test suite.
#   scripts/test.sh              normal build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UBSan build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

dir=build
opts=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
if [ "${1:-}" = "--sanitize" ]; then
  dir=build-asan
  opts=(-DCMAKE_BUILD_TYPE=Debug -DTESSLIN_SANITIZE=ON)
fi
cmake -S . -B "$dir" "${opts[@]}"
cmake --build "$dir" -j "$(nproc)"
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)"
