#!/bin/sh
# Installs the family from the build tree into a scratch prefix and moves that
# prefix elsewhere (an install must work wherever it is put). Then, without
# LD_LIBRARY_PATH, builds and runs a small C program against it with
# find_package(imgcolor) (shared and static) and with pkg-config, builds the
# examples on their own against it (the C++ one through the installed
# imgcolor.hpp, also with pkg-config) and runs them, and runs the installed
# tool; every family library a program loads must come from the moved prefix.
# Usage: package_test.sh SOURCE_DIR BUILD_DIR TOOL_BUILT(0|1)
set -eu
src=$1 build=$2 tool=$3
unset LD_LIBRARY_PATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/staged" >/dev/null
mv "$work/staged" "$work/prefix"
p=$work/prefix
pcdir=$(dirname "$(find "$p" -name imgcolor.pc)")

# Runs a program and checks that each libimg* it loads resolves inside $p.
run() {
  deps=$(ldd "$1" | grep 'libimg') || deps=""
  if printf '%s\n' "$deps" | grep -v "=> $p/" | grep -q .; then
    echo "FAIL: $1 loads a family library from outside the prefix:"; echo "$deps"; exit 1
  fi
  "$@"
}

cmake -S "$src/tests/package" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$p" >/dev/null
cmake --build "$work/consumer" >/dev/null
run "$work/consumer/consumer"
# The static program needs none of the shared libraries.
if ldd "$work/consumer/consumer_static" | grep -q libimg; then
  echo "FAIL: consumer_static loads a shared family library"; exit 1
fi
run "$work/consumer/consumer_static"

export PKG_CONFIG_PATH="$pcdir"
case $(pkg-config --variable=prefix imgcolor) in
  "$p"/*) ;;
  *) echo "FAIL: pkg-config prefix $(pkg-config --variable=prefix imgcolor) is not under $p"; exit 1 ;;
esac
cc -o "$work/pc" "$src/tests/package/main.c" $(pkg-config --cflags --libs imgcolor) \
  -Wl,-rpath,"$(pkg-config --variable=libdir imgcolor)"
run "$work/pc"

[ -f "$p/include/imgcolor/imgcolor.hpp" ] || { echo "FAIL: imgcolor.hpp not installed"; exit 1; }
cmake -S "$src/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$p" >/dev/null
cmake --build "$work/examples" >/dev/null
for e in contrast_hue planes progress wrapper; do
  run "$work/examples/$e" "$work" >"$work/$e.out" 2>&1 || { echo "FAIL: installed example $e"; cat "$work/$e.out"; exit 1; }
done
c++ -std=c++17 -o "$work/wrapper_pc" "$src/examples/wrapper.cpp" $(pkg-config --cflags --libs imgcolor) \
  -Wl,-rpath,"$(pkg-config --variable=libdir imgcolor)"
run "$work/wrapper_pc" "$work" >/dev/null

if [ "$tool" = 1 ]; then
  run "$p/bin/imgcolor" list >"$work/list"
  grep -q . "$work/list" || { echo "FAIL: the installed tool lists no operation"; exit 1; }
fi
for f in LICENSE README.md; do
  [ -f "$p/share/doc/imgcolor/$f" ] || { echo "FAIL: $f not installed"; exit 1; }
done
echo "package: ok"
