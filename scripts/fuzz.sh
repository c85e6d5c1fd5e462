#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehavior-
# Sanitizer) in build/fuzz and runs each for SECONDS (default 20), starting
# from a scratch copy of its seed corpus.  For a long run of one target:
#   scripts/fuzz.sh 3600 record
set -euo pipefail
source "$(dirname "$0")/common.sh"
"$KWZ_ROOT/scripts/bootstrap.sh"
CC=clang CXX=clang++ kwz_build "$KWZ_ROOT/build/fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKWZ_BUILD_FUZZERS=ON -DKWZ_BUILD_TESTS=OFF -DKWZ_BUILD_TOOLS=OFF -DKWZ_SANITIZE=address,undefined
seconds=${1:-20}; only=${2:-}
dir="$KWZ_ROOT/build/fuzz/fuzz"
shopt -s nullglob
found=0
for bin in "$dir"/fuzz_*; do
  [ -x "$bin" ] || continue
  name=$(basename "$bin"); short=${name#fuzz_}
  [ -n "$only" ] && [ "$only" != "$short" ] && continue
  found=1
  work=$(mktemp -d)
  cp -r "$KWZ_ROOT/fuzz/corpus/$short/." "$work/" 2>/dev/null || true
  echo "-- $name (${seconds}s)"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "$bin" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=0 \
    -artifact_prefix="$KWZ_ROOT/build/fuzz/$short-" "$work" 2>&1 | tail -n 3
  rm -rf "$work"
done
[ $found -eq 1 ] || echo "no fuzz targets built"
