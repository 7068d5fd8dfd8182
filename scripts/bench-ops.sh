#!/usr/bin/env bash
# Times every operation of the registry with its default arguments
# (bench/ops_bench.cpp: 3840x2160, 24- and 48-bit colour or 8-bit gray, one
# thread, memcpy of the same buffer in the same run) and prints the table.
#
#   scripts/bench-ops.sh [--libs REV | --compare REV] [--reps N] [--only NAME,...] [--size WxH]
#
# The program (the benchmark, the registry and the descriptors of this working
# tree) is linked against the static libraries of this working tree, or with
# --libs REV against those of a git revision: two states of the libraries are
# measured by the same program with the same arguments. --compare REV runs
# both, one operation at a time, REV first (so that a change of load on the
# machine hits both alike), and prints them side by side with now / REV.
# Everything is built in build/bench-ops/ (a revision's sources are unpacked
# there with git archive), two jobs at a time.
set -euo pipefail
shopt -s inherit_errexit
cd "$(dirname "$0")/.."
root=$PWD
out=$root/build/bench-ops
mode=worktree rev=""
case "${1:-}" in
  --libs | --compare)
    [ $# -ge 2 ] || { echo "usage: $0 [--libs REV | --compare REV] [ops_bench options]" >&2; exit 2; }
    mode=${1#--} rev=$2
    shift 2
    ;;
esac
mkdir -p "$out/obj"

# libraries [REV]: builds the four static libraries of REV (none: this working
# tree) and prints their folder.
libraries() {
  local src=$root build=$out/libs-worktree
  if [ -n "${1:-}" ]; then
    local sha
    sha=$(git rev-parse --short "$1^{commit}")
    src=$out/src-$sha build=$out/libs-$sha
    if [ ! -f "$src/CMakeLists.txt" ]; then
      rm -rf "$src" && mkdir -p "$src"
      git archive "$sha" | tar -x -C "$src"
    fi
  fi
  cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=Release -DIMG_BUILD_TESTS=OFF -DIMG_BUILD_TOOLS=OFF \
    -DIMG_BUILD_BENCH=OFF >/dev/null
  cmake --build "$build" --target imgcolor_static -j2 >/dev/null
  echo "$build"
}

# The program's own objects, compiled once from this working tree.
flags=(-std=c++20 -O2 -ffp-contract=off -Wall -Wextra -Werror -Wno-missing-field-initializers
  -Itools -Iinclude -Isibling/imgkernel -Isibling/imgdisplay -Isibling/imgutil -Isibling/internal)
objects=()
for src in bench/ops_bench.cpp tools/registry.cpp tools/ops/*.cpp; do
  obj=$out/obj/$(echo "$src" | tr / _).o
  objects+=("$obj")
  echo "c++ -c $src" >&2
  c++ "${flags[@]}" -c "$src" -o "$obj"
done

# program NAME LIBDIR: links the benchmark against the libraries in LIBDIR.
program() {
  c++ "${objects[@]}" "$2/libimgcolor.a" "$2/libimgutil.a" "$2/libimgdisplay.a" "$2/libimgkernel.a" -lm \
    -o "$out/$1"
  echo "$out/$1"
}

case $mode in
  worktree)
    lib=$(libraries)
    bench=$(program ops_bench "$lib")
    "$bench" "$@"
    ;;
  libs)
    lib=$(libraries "$rev")
    bench=$(program ops_bench-rev "$lib")
    "$bench" "$@"
    ;;
  compare)
    lib=$(libraries "$rev")
    before=$(program ops_bench-before "$lib")
    lib=$(libraries)
    after=$(program ops_bench-after "$lib")
    : >"$out/before.txt"
    : >"$out/after.txt"
    for name in $("$after" "$@" --list); do
      echo "$name: the libraries of $rev, then of this working tree" >&2
      "$before" "$@" --only "$name" >"$out/one.txt"
      sed 1,2d "$out/one.txt" | tee -a "$out/before.txt" >&2
      "$after" "$@" --only "$name" >"$out/one.txt"
      sed 1,2d "$out/one.txt" | tee -a "$out/after.txt" >&2
    done
    head -1 "$out/one.txt"
    sort -b -k2,2 -s "$out/after.txt" -o "$out/after.txt"
    awk -v rev="$rev" '
      NR == FNR { ms[$1 " " $2] = $3; x[$1 " " $2] = $5; next }
      FNR == 1 { printf "%-20s %-10s %12s %9s %12s %9s %8s\n", "operation", "kind",
                   rev " ms", "x memcpy", "now ms", "x memcpy", "now/" rev }
      ($1 " " $2) in ms { printf "%-20s %-10s %12.2f %9.1f %12.2f %9.1f %8.2f\n", $1, $2,
                          ms[$1 " " $2], x[$1 " " $2], $3, $5, $3 / ms[$1 " " $2] }
    ' "$out/before.txt" "$out/after.txt"
    ;;
esac
