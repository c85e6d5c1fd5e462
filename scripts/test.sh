#!/usr/bin/env bash
# Builds and runs the whole test suite:
#   1. plain build (RelWithDebInfo), every test;
#   2. AddressSanitizer + UndefinedBehaviorSanitizer build, every test, leaks fatal;
#   3. ThreadSanitizer build, the transport tests;
#   4. clang libFuzzer build, every fuzz target for a bounded time.
# KWZ_FUZZ_SECONDS sets the time per fuzz target (default 10; 0 skips step 4).
set -euo pipefail
source "$(dirname "$0")/common.sh"
"$KWZ_ROOT/scripts/bootstrap.sh"
fuzz_seconds=${KWZ_FUZZ_SECONDS:-10}
start=$SECONDS

run_ctest() {  # DIR [ctest options...]
  local dir=$1; shift
  (cd "$dir" && ctest --output-on-failure -j "$KWZ_JOBS" "$@")
}

echo "== 1/4 plain build =="
kwz_build "$KWZ_ROOT/build/release" -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_ctest "$KWZ_ROOT/build/release"

echo "== 2/4 address + undefined sanitizers =="
kwz_build "$KWZ_ROOT/build/asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKWZ_SANITIZE=address,undefined
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_ctest "$KWZ_ROOT/build/asan"

echo "== 3/4 thread sanitizer (transport and other threaded tests) =="
cmake -S "$KWZ_ROOT" -B "$KWZ_ROOT/build/tsan" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKWZ_SANITIZE=thread -DKWZ_BUILD_TOOLS=OFF >/dev/null
cmake --build "$KWZ_ROOT/build/tsan" -j "$KWZ_JOBS" --target transport_tests
if (cd "$KWZ_ROOT/build/tsan" && ctest -N -L 'transport|threads' | grep -q 'Total Tests: [1-9]'); then
  TSAN_OPTIONS=halt_on_error=1:exitcode=66:second_deadlock_stack=1 \
    run_ctest "$KWZ_ROOT/build/tsan" -L 'transport|threads'
else
  echo "no transport tests yet"
fi

if [ "$fuzz_seconds" -gt 0 ]; then
  echo "== 4/4 fuzzing (${fuzz_seconds}s per target) =="
  CC=clang CXX=clang++ kwz_build "$KWZ_ROOT/build/fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKWZ_BUILD_FUZZERS=ON -DKWZ_BUILD_TESTS=OFF -DKWZ_BUILD_TOOLS=OFF -DKWZ_SANITIZE=address,undefined
  "$KWZ_ROOT/scripts/fuzz.sh" "$fuzz_seconds"
fi
echo "all test runs passed in $((SECONDS - start)) s"
