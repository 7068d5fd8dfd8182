#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz preset: clang, ASan, UBSan,
# float-cast-overflow) and runs them: first every input kept in
# fuzz/regressions/ (each a finding that was fixed), then each fuzzer for a
# bounded time on its corpus in build/fuzz/corpus/ (the operations' corpus is
# seeded from the descriptors: every operation on every kind it accepts with
# its defaults; the image readers' from small images in every format the
# build writes (TIFF and WebP when present), data/ and the test images).
#
#   scripts/fuzz.sh [SECONDS_OPS [SECONDS_IMAGES]]      default 300 and 60
#   scripts/fuzz.sh --runs N                            ops_fuzz for N executions
#
# A finding stops the script with libFuzzer's report; the input is saved as
# build/fuzz/crash-* (reproduce with build/fuzz/fuzz/ops_fuzz FILE).
set -euo pipefail
cd "$(dirname "$0")/.."
ops_limit=(-max_total_time="${1:-300}")
images_time=${2:-60}
if [ "${1:-}" = "--runs" ]; then
  ops_limit=(-runs="$2")
  images_time=0
fi
scripts/deps.sh
if ! command -v clang++ >/dev/null || ! dpkg -s libclang-rt-14-dev >/dev/null 2>&1; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q clang libclang-rt-14-dev
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target ops_fuzz image_fuzz
bin=build/fuzz/fuzz
corpus=build/fuzz/corpus
mkdir -p "$corpus/ops" "$corpus/images" build/fuzz/artifacts
IMG_FUZZ_WRITE_SEEDS="$corpus/ops" "$bin/ops_fuzz"
IMG_FUZZ_WRITE_SEEDS="$corpus/images" "$bin/image_fuzz"
cp data/*.png "$corpus/images/" 2>/dev/null || true
find tests -name '*.png' -o -name '*.jpg' | while read -r f; do cp "$f" "$corpus/images/"; done

# Every kept finding first: each must run clean now.
for target in ops images; do
  dir=fuzz/regressions/$target
  exe=$bin/ops_fuzz
  [ "$target" = images ] && exe=$bin/image_fuzz
  if compgen -G "$dir/*" >/dev/null; then "$exe" "$dir"/*; fi
done

common=(-artifact_prefix=build/fuzz/artifacts/ -print_final_stats=1 -rss_limit_mb=2048 -timeout=20)
# The bounded runs: a finding is printed with its input (kept in
# build/fuzz/artifacts/) and makes the script exit 1, unless
# IMG_FUZZ_FINDINGS_FATAL=0 (CI while the findings of the long run are being
# triaged: the kept regressions above stay fatal).
fatal=${IMG_FUZZ_FINDINGS_FATAL:-1}
found=0
"$bin/ops_fuzz" "${common[@]}" "${ops_limit[@]}" "$corpus/ops" || found=1
if [ "$images_time" -gt 0 ]; then
  "$bin/image_fuzz" "${common[@]}" -max_total_time="$images_time" "$corpus/images" || found=1
fi
if [ "$found" -ne 0 ]; then
  echo "fuzz: a finding; its input is in build/fuzz/artifacts/" >&2
  [ "$fatal" -ne 0 ] && exit 1
fi
exit 0
