#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each one briefly on its
# seeds (fuzz/seeds/<name>/); a crash, leak, timeout or out-of-memory fails.
#   scripts/fuzz.sh [seconds per target, default 20]
# The mutation sequence starts from a fixed seed ($TESSLIN_FUZZ_SEED, default
# 1), so a short run repeats the first part of a longer one on this build:
# a change that passes a longer run passes CI's short one. Set another seed
# (or 0: a random one) to explore further.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-20}"
seed="${TESSLIN_FUZZ_SEED:-1}"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DTESSLIN_FUZZ=ON -DTESSLIN_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build-fuzz -j "$(nproc)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
for target in build-fuzz/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name="$(basename "$target")"
  short="${name#fuzz_}"
  mkdir -p "$work/$short" "fuzz/seeds/$short" build-fuzz/artifacts
  echo "== $name: ${seconds}s"
  # New inputs go to the scratch directory; the seeds stay as they are.
  "$target" "$work/$short" "fuzz/seeds/$short" -max_total_time="$seconds" -seed="$seed" -timeout=10 \
    -rss_limit_mb=2048 -artifact_prefix="build-fuzz/artifacts/$short-" -print_final_stats=1
done
