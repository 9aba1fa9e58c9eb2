#!/usr/bin/env bash
# Checks that the library's layers only include downwards. Run from the repository root; no
# arguments. Prints one line per violation and exits 1 when there is any.
#
#   platform, base  <  core  <  memory  <  file  <  auto  <  api
#
# A file under src/<layer>/ may include "src/<other>/..." only when <other> ranks at or below
# <layer>; platform and base rank lowest and may be included from anywhere. The public headers
# (include/) never include anything under src/.
set -uo pipefail

declare -A rank=([platform]=0 [base]=0 [core]=1 [memory]=2 [file]=3 [auto]=4 [api]=5)
violations=0

if [ ! -d src ] || [ ! -d include ]; then
  echo "check_layers: run me from the repository root (no src/ and include/ here)" >&2
  exit 2
fi

report() {
  echo "$1"
  violations=$((violations + 1))
}

while IFS= read -r file; do
  layer=${file#src/}
  layer=${layer%%/*}
  if [ -z "${rank[$layer]+set}" ]; then
    report "$file: folder src/$layer/ is not a known layer (add it to tools/check_layers.sh)"
    continue
  fi
  while IFS=: read -r line target; do
    [ -z "$target" ] && continue
    if [ -z "${rank[$target]+set}" ]; then
      report "$file:$line: includes src/$target/, which is not a known layer"
    elif [ "${rank[$target]}" -gt "${rank[$layer]}" ]; then
      report "$file:$line: $layer includes src/$target/ (a higher layer)"
    fi
  done < <(grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]+"src/' "$file" |
           sed -E 's#^([0-9]+):.*"src/([^/"]+)/.*#\1:\2#')
done < <(find src -type f \( -name '*.h' -o -name '*.cc' \) | sort)

while IFS= read -r hit; do
  report "${hit%%:*}:$(echo "$hit" | cut -d: -f2): a public header includes src/"
done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]+"src/' include || true)

if [ "$violations" -gt 0 ]; then
  echo "check_layers: $violations include(s) against the layering" >&2
  exit 1
fi
exit 0
