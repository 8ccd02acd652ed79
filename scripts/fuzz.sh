#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each one on a corpus of
# its seeds (fuzz/seeds/<name>/), the test files (tests/data) and, when it
# is there, ../shared/corpus; a crash, leak, timeout or out-of-memory fails.
#   scripts/fuzz.sh [SECONDS]      each target for SECONDS (default 20): CI's run
#   scripts/fuzz.sh --long MINUTES each target for MINUTES, on a corpus kept in
#                                  build-fuzz/corpus/ so that every campaign
#                                  starts where the last one stopped
# The mutation seed changes from run to run and is printed; replay a run with
# TESSLIN_FUZZ_SEED=<seed>. Inputs that fail are copied to
# tests/data/crashers/<name>/, which CTest replays. Every target's time,
# executions and coverage are added to build-fuzz/fuzz-log.tsv.
set -euo pipefail
cd "$(dirname "$0")/.."
long=0
if [ "${1:-}" = "--long" ]; then
  long=1
  seconds=$(( ${2:?--long needs MINUTES} * 60 ))
else
  seconds="${1:-20}"
fi
seed="${TESSLIN_FUZZ_SEED:-$(( $(od -An -N4 -tu4 /dev/urandom) % 2147483647 + 1 ))}"
echo "fuzz seed: $seed (replay with TESSLIN_FUZZ_SEED=$seed)"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DTESSLIN_FUZZ=ON -DTESSLIN_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build-fuzz -j "$(nproc)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# The test files a target is fed besides its seeds: the extensions its
# format uses (every file for the targets that detect the format).
patterns() {
  case "$1" in
    tiff) echo "*.tif *.tiff" ;;
    jpeg) echo "*.jpg *.jpeg *.jfif" ;;
    png) echo "*.png" ;;
    gif) echo "*.gif" ;;
    pcx) echo "*.pcx *.dcx" ;;
    pdf) echo "*.pdf" ;;
    dicom) echo "*.dcm" ;;
    psd) echo "*.psd" ;;
    targa) echo "*.tga" ;;
    sunraster) echo "*.ras *.sun" ;;
    wbmp) echo "*.wbmp" ;;
    cals) echo "*.cal *.cals" ;;
    *) echo "*" ;;
  esac
}

# Copies the files of tests/data and ../shared/corpus that match the
# target's patterns (up to a size) into a corpus directory.
seed_corpus() {
  local short="$1" dir="$2" limit="$3"
  local roots=(tests/data)
  [ -d ../shared/corpus ] && roots+=(../shared/corpus)
  local args=() first=1
  for p in $(patterns "$short"); do
    [ $first = 1 ] || args+=(-o)
    args+=(-iname "$p")
    first=0
  done
  find "${roots[@]}" -type f -size -"${limit}"k \( "${args[@]}" \) \
    ! -name '*.tsv' ! -name '*.md' -print0 2>/dev/null |
    while IFS= read -r -d '' f; do
      cp -f "$f" "$dir/$(cksum < "$f" | cut -d' ' -f1)-$(basename "$f")"
    done
}

# CPU seconds (user + system) used so far by the script's finished
# children, into REPLY (`times` must run in this shell, not a subshell).
child_cpu() {
  times > "$work/times"
  REPLY=$(tail -1 "$work/times" | awk '{ t = 0; for (i = 1; i <= 2; i++) { split($i, a, "m"); t += a[1] * 60 + a[2] } printf "%.1f", t }')
}

log=build-fuzz/fuzz-log.tsv
[ -f "$log" ] || printf 'date\tseed\ttarget\tseconds\texecs\tcoverage\tfeatures\tresult\tcpu_seconds\n' > "$log"
failed=()
for target in build-fuzz/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name="$(basename "$target")"
  short="${name#fuzz_}"
  if [ $long = 1 ]; then
    corpus="build-fuzz/corpus/$short"
    limit=1024
  else
    corpus="$work/$short"
    limit=128
  fi
  mkdir -p "$corpus" "$work/$short.seeds" "fuzz/seeds/$short" build-fuzz/artifacts
  rm -f build-fuzz/artifacts/"$short"-*
  seed_corpus "$short" "$work/$short.seeds" "$limit"
  echo "== $name: ${seconds}s, seed $seed"
  # New inputs go to the first directory; the seeds stay as they are.
  status=0
  child_cpu
  cpu_before=$REPLY
  "$target" "$corpus" "fuzz/seeds/$short" "$work/$short.seeds" -max_total_time="$seconds" \
    -seed="$seed" -timeout=10 -rss_limit_mb=2048 -artifact_prefix="build-fuzz/artifacts/$short-" \
    -print_final_stats=1 2> >(tee "$work/$short.log" >&2) || status=$?
  wait
  child_cpu
  cpu=$(awk -v a="$cpu_before" -v b="$REPLY" 'BEGIN { printf "%.1f", b - a }')
  execs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$work/$short.log" | grep -o '[0-9]*$' || true)
  cov=$(grep -o 'cov: [0-9]*' "$work/$short.log" | tail -1 | grep -o '[0-9]*' || true)
  ft=$(grep -o 'ft: [0-9]*' "$work/$short.log" | tail -1 | grep -o '[0-9]*' || true)
  result=ok
  if [ $status != 0 ]; then
    result=failed
    failed+=("$short")
    mkdir -p "tests/data/crashers/$short"
    for a in build-fuzz/artifacts/"$short"-*; do
      [ -f "$a" ] && cp "$a" "tests/data/crashers/$short/" && echo "kept $a in tests/data/crashers/$short/"
    done
  fi
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$(date -u +%FT%TZ)" "$seed" "$short" "$seconds" \
    "${execs:-0}" "${cov:-0}" "${ft:-0}" "$result" "$cpu" >> "$log"
done
if [ ${#failed[@]} != 0 ]; then
  echo "fuzz: failures in ${failed[*]} (seed $seed)" >&2
  exit 1
fi
echo "fuzz: every target ran ${seconds}s without a failure (seed $seed)"
