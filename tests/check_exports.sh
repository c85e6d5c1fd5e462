#!/usr/bin/env bash
# Every function the header marks KWZ_API is exported under its plain C name,
# the members of the classes it marks KWZ_API ("struct KWZ_API Name" or
# "class KWZ_API Name") under their C++ names, and the library exports
# nothing else.
set -euo pipefail
lib=$1 header=$2
exported=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TW]$/ {print $3}' | sort -u)
declared=$(grep -v '^#' "$header" | grep -oE 'KWZ_API [^(]*\(' | sed -E 's/\($//; s/.*[ *]([A-Za-z_0-9]+)$/\1/' | sort -u)
classes=$(grep -v '^#' "$header" | grep -oE '^(struct|class) KWZ_API [A-Za-z_0-9]+' | awk '{print $3}' | sort -u || true)
# Mangled names of class members: kept out of the comparison with the flat
# functions, and counted per class.
members=""
if [ -n "$classes" ]; then
  pattern=$(echo "$classes" | sed 's/$/::/' | paste -sd'|')
  members=$(echo "$exported" | while read -r sym; do
    [[ $sym == _Z* ]] || continue
    name=$(echo "$sym" | c++filt)
    [[ $name =~ ^($pattern) ]] && echo "$sym"
  done | sort -u || true)
  exported=$(comm -23 <(echo "$exported") <(echo "$members"))
fi
status=0
missing=$(comm -13 <(echo "$exported") <(echo "$declared"))
extra=$(comm -23 <(echo "$exported") <(echo "$declared") | grep -vE '^(_init|_fini)$' || true)
if [ -n "$missing" ]; then echo "declared but not exported:"; echo "$missing"; status=1; fi
if [ -n "$extra" ]; then echo "exported but not declared:"; echo "$extra"; status=1; fi
for class in $classes; do
  count=$(echo "$members" | while read -r sym; do [ -n "$sym" ] && echo "$sym" | c++filt; done | grep -c "^$class::" || true)
  # The version script must list the class ("extern \"C++\" { Name::*; };")
  # for its members to leave the library.
  echo "class $class: $count members exported"
done
[ $status -eq 0 ] && echo "$(echo "$declared" | wc -l) functions exported, nothing else"
exit $status
