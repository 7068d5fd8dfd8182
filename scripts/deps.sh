#!/usr/bin/env bash
# Installs the build dependencies on a Debian machine when they are missing.
# "deps.sh test" adds what the test suite needs beyond the build (a headless
# browser for the gallery test, and pybind11, numpy and pytest for the Python
# binding and its tests).
set -euo pipefail
need=()
if [ "${1:-}" = test ]; then
  command -v chromium >/dev/null || need+=(chromium)
  for pkg in python3-dev python3-pybind11 python3-numpy python3-pytest; do
    dpkg -s "$pkg" >/dev/null 2>&1 || need+=("$pkg")
  done
fi
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
command -v make >/dev/null || need+=(make)
command -v pkg-config >/dev/null || need+=(pkg-config)
# libtiff-dev and libwebp-dev give the tool its optional TIFF and WebP formats.
for pkg in libgtest-dev libbenchmark-dev libpng-dev libjpeg-dev libtiff-dev libwebp-dev; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need+=("$pkg")
done
if [ ${#need[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q "${need[@]}"
fi
