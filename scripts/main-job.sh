#!/usr/bin/env bash
# The main job: builds the command-line tool and runs it on the bundled sample
# photo, writing the results into out/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset release -DIMG_BUILD_TESTS=OFF >/dev/null
cmake --build --preset release --target imgcolor_tool
tool=build/release/tools/imgcolor
mkdir -p out
"$tool" info data/chelsea.png
"$tool" convert data/chelsea.png out/chelsea-16bit.png --depth 48
"$tool" info out/chelsea-16bit.png
echo "results in out/"
