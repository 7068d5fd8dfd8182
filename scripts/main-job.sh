#!/usr/bin/env bash
# The main job: builds the command-line tool and runs it on the bundled sample
# photo (data/chelsea.png), writing the results into out/ and the gallery of
# every operation into out/gallery/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
# The release folder is shared with the test command, which then builds only
# the tests on top: configure it as that command does and build the tool.
cmake --preset release -DIMG_BUILD_TESTS=ON -DIMG_BUILD_TOOLS=ON >/dev/null
cmake --build --preset release --target imgcolor_tool
tool=build/release/tools/imgcolor
in=data/chelsea.png
mkdir -p out
set -x
"$tool" info "$in"
"$tool" convert "$in" out/chelsea-48bit.png --depth 48
"$tool" info out/chelsea-48bit.png
"$tool" contrast "$in" out/contrast.png --change 300 --ellipse 100,50,350,250
"$tool" hue "$in" out/hue-left-half.png --angle 120 --rect 0,0,225,300
"$tool" desaturate "$in" out/desaturate-ellipse.png --ellipse 50,20,400,280
"$tool" gamma-ext out/chelsea-48bit.png out/gamma-luma-48bit.png --gamma 60 --space yuv
"$tool" auto-binary "$in" out/auto-binary.png
"$tool" histogram "$in" --channel red --bins 8
"$tool" gallery "$in" out/gallery
set +x
echo "results in out/; every operation on the photo: out/gallery/index.html"
