#!/usr/bin/env bash
# Every function the header marks KWZ_API is exported under its plain C name,
# and the library exports nothing else, except the C++ classes that the header
# declares as "class KWZ_API Name" / "struct KWZ_API Name": their members,
# vtables and type information (mangled names, checked demangled).
set -euo pipefail
lib=$1 header=$2
symbols=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TWVDRB]$/ {print $3}' | sort -u)
exported=$(echo "$symbols" | grep -v '^_Z' || true)
mangled=$(echo "$symbols" | grep '^_Z' || true)
declared=$(grep -v '^#' "$header" | grep -oE 'KWZ_API [^(]*\(' | sed -E 's/\($//; s/.*[ *]([A-Za-z_0-9]+)$/\1/' | sort -u)
classes=$(grep -oE '^(class|struct) KWZ_API [A-Za-z_][A-Za-z_0-9]*' "$header" | awk '{print $3}' | sort -u)
status=0
missing=$(comm -13 <(echo "$exported") <(echo "$declared"))
extra=$(comm -23 <(echo "$exported") <(echo "$declared") | grep -vE '^(_init|_fini|_edata|_end|__bss_start)$' || true)
if [ -n "$mangled" ]; then
  pattern='^$'
  for c in $classes; do
    pattern="$pattern|^$c::|^(vtable|typeinfo|typeinfo name) for $c\$"
  done
  strays=$(echo "$mangled" | c++filt | grep -vE "$pattern" || true)
  [ -n "$strays" ] && extra=$(printf '%s\n%s' "$extra" "$strays" | sed '/^$/d')
fi
if [ -n "$missing" ]; then echo "declared but not exported:"; echo "$missing"; status=1; fi
if [ -n "$extra" ]; then echo "exported but not declared:"; echo "$extra"; status=1; fi
# Each exported class must really leave the library (the version script lists it).
demangled=$(echo "$mangled" | c++filt)
for c in $classes; do
  if ! grep -qE "^$c::" <<<"$demangled"; then
    echo "class $c: no member exported"; status=1
  fi
done
[ $status -eq 0 ] && echo "$(echo "$declared" | wc -l) functions and $(echo "$mangled" | sed '/^$/d' | wc -l) class symbols exported, nothing else"
exit $status
