#!/usr/bin/env bash
# Builds bench/peers (the bench preset; needs OpenCV: apt-get install
# libopencv-dev) and prints the table of our exports beside their OpenCV
# counterparts: medians of the repetitions in milliseconds of thread CPU time,
# one thread, and ours / peer. Rows named *_bits48 / *_16 compare our 16-bit
# form with our 8-bit form.
#
#   scripts/bench-peers.sh [benchmark options, e.g. --benchmark_filter=hue]
set -euo pipefail
cd "$(dirname "$0")/.."
export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER:-ccache}
export CMAKE_C_COMPILER_LAUNCHER=${CMAKE_C_COMPILER_LAUNCHER:-ccache}
if ! dpkg -s libopencv-dev > /dev/null 2>&1; then
  echo "libopencv-dev is not installed (apt-get install libopencv-dev)" >&2
  exit 2
fi
cmake --preset bench > /dev/null
cmake --build --preset bench --target peers_bench -j2 > /dev/null
build/bench/bench/peers/peers_bench --benchmark_counters_tabular=true "$@"
