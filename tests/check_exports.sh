#!/usr/bin/env bash
# Every function the header marks KWZ_API is exported under its plain C name,
# and the library exports nothing else.
set -euo pipefail
lib=$1 header=$2
exported=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TW]$/ {print $3}' | sort -u)
declared=$(grep -v '^#' "$header" | grep -oE 'KWZ_API [^(]*\(' | sed -E 's/\($//; s/.*[ *]([A-Za-z_0-9]+)$/\1/' | sort -u)
status=0
missing=$(comm -13 <(echo "$exported") <(echo "$declared"))
extra=$(comm -23 <(echo "$exported") <(echo "$declared") | grep -vE '^(_init|_fini)$' || true)
if [ -n "$missing" ]; then echo "declared but not exported:"; echo "$missing"; status=1; fi
if [ -n "$extra" ]; then echo "exported but not declared:"; echo "$extra"; status=1; fi
[ $status -eq 0 ] && echo "$(echo "$declared" | wc -l) functions exported, nothing else"
exit $status
