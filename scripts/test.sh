#!/usr/bin/env bash
# Installs what is missing, builds the family in Release with tests, and runs
# the whole suite (two jobs in parallel). Pass "asan" to use the
# AddressSanitizer + UndefinedBehaviorSanitizer build instead.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}
scripts/deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"
