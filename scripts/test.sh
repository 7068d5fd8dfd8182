#!/usr/bin/env bash
# Installs what is missing, builds the family in Release with tests, and runs
# the whole suite (two jobs in parallel). Pass "asan" (or "debug") to use that
# build instead.
#
# Whatever the build folder's cache holds (the main job shares it), tests and
# tool are switched on; configuring deletes test programs that are no longer
# targets, the build brings every current one up to date, and ctest fails
# when it finds no test.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}
scripts/deps.sh test
cmake --preset "$preset" -DIMG_BUILD_TESTS=ON -DIMG_BUILD_TOOLS=ON >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"
