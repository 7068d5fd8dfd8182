#!/usr/bin/env bash
# Rewrites docs/reference/: one page per family from the operation descriptors
# and the public header, with a thumbnail of every operation on the sample
# photo (the gallery's, 240 pixels wide, JPEG). Run after adding or changing
# an operation; the test reference_doc fails while the pages are stale.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release --target imgcolor_tool imgcolor_docgen
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
build/release/tools/imgcolor gallery sample: "$work/g" --width 240 --format jpeg --quiet >/dev/null
mkdir -p docs/reference/img
rm -f docs/reference/img/*.jpg
for f in "$work"/g/*.jpg; do
  name=$(basename "$f")
  case $name in original.jpg | *-[0-9].jpg) continue ;; esac  # variants stay in the gallery
  cp "$f" docs/reference/img/
done
build/release/tools/imgcolor_docgen --reference include/imgcolor.h docs/reference
echo "docs/reference/ rewritten"
