#!/usr/bin/env bash
# Builds the library and the threads test only, with ThreadSanitizer (clang),
# and runs the test: 8 threads decoding and saving every format, 8 threads
# creating and deleting handles. Any report fails the run.
#   scripts/tsan.sh [ROUNDS, default 3]
set -euo pipefail
cd "$(dirname "$0")/.."
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
CC=clang CXX=clang++ cmake -S . -B build-tsan -DTESSLIN_TSAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  "${launcher[@]}"
cmake --build build-tsan -j "$(nproc)" --target tesslin_threads
TESSLIN_THREAD_ROUNDS="${1:-3}" ctest --test-dir build-tsan --output-on-failure
