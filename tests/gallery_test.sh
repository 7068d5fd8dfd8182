#!/bin/sh
# The gallery: every operation appears, its page opens in a headless browser
# with every image loaded, and it never writes into a folder that is not its
# own.  usage: gallery_test.sh path/to/imgcolor path/to/browser
TOOL=$1
BROWSER=$2
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
status=0
fail() { echo "FAIL: $1"; status=1; }

"$TOOL" gallery sample: "$WORK/g" --quiet >"$WORK/out" 2>"$WORK/err" || fail "gallery exit status $?"
page=$WORK/g/index.html
[ -s "$page" ] || { fail "no index.html"; cat "$WORK/err"; exit 1; }

# Every registered operation has a card.
for op in $("$TOOL" list | awk '{print $1}'); do
  grep -q "id=\"$op\"" "$page" || fail "no card for $op"
done
# Tone curves for the table operations.
for op in invert contrast solarize; do
  [ -s "$WORK/g/$op-curve.png" ] || fail "no tone curve for $op"
done

# The page in a browser: the script it carries counts the images and those
# that did not load.
dom=$("$BROWSER" --headless --no-sandbox --disable-gpu --virtual-time-budget=10000 --dump-dom \
  "file://$page" 2>/dev/null)
images=$(printf '%s' "$dom" | grep -o 'data-images="[0-9]*"' | grep -o '[0-9]*')
broken=$(printf '%s' "$dom" | grep -o 'data-broken="[0-9]*"' | grep -o '[0-9]*')
tags=$(grep -o '<img ' "$page" | wc -l)
[ -n "$images" ] || fail "the browser did not run the page"
[ "${images:-0}" -eq "$tags" ] || fail "browser saw $images images, the page has $tags"
[ "${broken:-1}" -eq 0 ] || fail "$broken images did not load"

# A folder holding someone else's files is refused and left alone.
mkdir "$WORK/mine" && echo keep >"$WORK/mine/notes.txt"
"$TOOL" gallery sample: "$WORK/mine" --quiet 2>"$WORK/err" && fail "wrote into a foreign folder"
[ "$(ls "$WORK/mine")" = notes.txt ] || fail "foreign folder changed"
# Its own folder is rewritten.
"$TOOL" gallery sample: "$WORK/g" --quiet >/dev/null 2>&1 || fail "earlier gallery not rewritten"

[ $status -eq 0 ] && echo "gallery: $tags images, all loaded"
exit $status
