#!/bin/sh
# Compares the dynamic symbols each shared library defines with the functions
# its public header declares. Usage: exported_symbols.sh SRC kernel display util color
src=$1; shift
status=0
check() {
  lib=$1; shift; header="$*"
  want=$(sh "$src/scripts/api-names.sh" "$@")
  have=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | sed 's/@.*//' | grep -v '^IMG' | sort -u)
  if [ "$want" != "$have" ]; then
    echo "FAIL: $lib exports differ from $header"
    printf '%s\n' "$want" > /tmp/want.$$; printf '%s\n' "$have" > /tmp/have.$$
    diff /tmp/want.$$ /tmp/have.$$; rm -f /tmp/want.$$ /tmp/have.$$
    status=1
  else
    echo "ok: $(basename "$lib") exports $(printf '%s\n' "$have" | wc -l) functions"
  fi
}
check "$1" "$src/sibling/imgkernel/imgkernel.h" "$src/sibling/imgkernel/imgplatform.h"
check "$2" "$src/sibling/imgdisplay/imgdisplay.h"
check "$3" "$src/sibling/imgutil/imgutil.h"
check "$4" "$src/include/imgcolor.h"
exit $status
