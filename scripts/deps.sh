#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking
# Tesslin need, when any is missing. Runs apt-get as root (or through sudo).
set -euo pipefail

packages=(
  # build
  cmake make g++ clang pkg-config
  zlib1g-dev libjbig-dev libfreetype-dev libfontconfig1-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  # independent tools the tests compare against
  libtiff-tools python3-pil pngcheck libjpeg-turbo-progs poppler-utils ghostscript netpbm
  # peers the benchmarks measure beside us
  libtiff-dev libjpeg62-turbo-dev libpng-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}" >&2
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo apt-get update
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
