#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking
# Tesslin need, when any is missing. Runs apt-get as root (or through sudo).
set -euo pipefail

packages=(
  # build
  cmake make g++ clang pkg-config
  zlib1g-dev libjbig-dev libfreetype-dev libfontconfig1-dev fonts-liberation
  libgtest-dev libgmock-dev libbenchmark-dev
  # plug-in modules and the scanning bridge (each skipped when its library is missing)
  libpoppler-cpp-dev libpoppler-private-dev libopenjp2-7-dev libsane-dev
  # independent tools the tests compare against
  libtiff-tools python3-pil python3-numpy python3-pytest python3-pydicom pngcheck
  libjpeg-turbo-progs poppler-utils qpdf ghostscript netpbm imagemagick giflib-tools
  dcmtk libopenjp2-tools tesseract-ocr tesseract-ocr-eng sane-utils
  # peers the benchmarks measure beside us
  libtiff-dev libjpeg62-turbo-dev libpng-dev libgif-dev libleptonica-dev
  # sanitizer runtimes for clang (LeakSanitizer, ThreadSanitizer)
  libclang-rt-14-dev
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
