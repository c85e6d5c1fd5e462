#!/usr/bin/env bash
# Builds and runs the whole test suite:
#   1. plain build (RelWithDebInfo), every test;
#   2. AddressSanitizer + UndefinedBehaviorSanitizer build, every test, leaks fatal;
#   3. ThreadSanitizer build (clang, lock annotations checked), the transport
#      and other threaded tests.
# Every build replays the fuzz targets' seed corpora as tests.  Fuzzing itself
# is scripts/fuzz.sh; KWZ_FUZZ_SECONDS=N adds it here as a fourth step.
set -euo pipefail
source "$(dirname "$0")/common.sh"
"$KWZ_ROOT/scripts/bootstrap.sh"
fuzz_seconds=${KWZ_FUZZ_SECONDS:-0}
start=$SECONDS

run_ctest() {  # DIR [ctest options...]
  local dir=$1; shift
  (cd "$dir" && ctest --output-on-failure -j "$KWZ_JOBS" "$@")
}

echo "== 1/3 plain build =="
kwz_build "$KWZ_ROOT/build/release" -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_ctest "$KWZ_ROOT/build/release"

echo "== 2/3 address + undefined sanitizers =="
kwz_build "$KWZ_ROOT/build/asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKWZ_SANITIZE=address,undefined
# No strict_string_checks: it makes every strchr on a large text scan to the
# text's end, which turns the XML parser's 100 MB and deep-nesting tests into
# hours of sanitizer work.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_ctest "$KWZ_ROOT/build/asan"

echo "== 3/3 thread sanitizer (transport and other threaded tests) =="
# Built with clang, so that the transport's lock annotations are checked
# (-Wthread-safety) in the same step.
CC=clang CXX=clang++ cmake -S "$KWZ_ROOT" -B "$KWZ_ROOT/build/tsan" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKWZ_SANITIZE=thread -DKWZ_BUILD_TOOLS=OFF >/dev/null
cmake --build "$KWZ_ROOT/build/tsan" -j "$KWZ_JOBS" --target transport_tests
if (cd "$KWZ_ROOT/build/tsan" && ctest -N -L 'transport|threads' | grep -q 'Total Tests: [1-9]'); then
  TSAN_OPTIONS=halt_on_error=1:exitcode=66:second_deadlock_stack=1 \
    run_ctest "$KWZ_ROOT/build/tsan" -L 'transport|threads'
else
  echo "no transport tests yet"
fi

if [ "$fuzz_seconds" -gt 0 ]; then
  echo "== fuzzing (${fuzz_seconds}s per target) =="
  "$KWZ_ROOT/scripts/fuzz.sh" "$fuzz_seconds"
fi
echo "all test runs passed in $((SECONDS - start)) s"
