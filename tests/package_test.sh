#!/bin/sh
# Installs the family from the build tree into a scratch prefix and builds a
# small C program against it with find_package(imgcolor) and with pkg-config.
# Usage: package_test.sh SOURCE_DIR BUILD_DIR
set -eu
src=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$src/tests/package" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer/consumer"
if command -v pkg-config >/dev/null; then
  flags=$(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --define-prefix --cflags --libs imgcolor)
  cc $(echo "$flags" | sed "s#/usr/local#$work/prefix#g") -o "$work/pc" "$src/tests/package/main.c" \
    -L"$work/prefix/lib" -limgcolor -limgutil -limgdisplay -limgkernel
  LD_LIBRARY_PATH="$work/prefix/lib" "$work/pc"
fi
echo "package: ok"
