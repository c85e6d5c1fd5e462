#!/usr/bin/env bash
# Builds the library and the kwz tool (release; nothing else) and runs
# `kwz demo`.  Extra arguments are passed to kwz instead:
#   scripts/demo.sh type "T|1\nA|I4"      scripts/demo.sh demo --records 20000
set -euo pipefail
source "$(dirname "$0")/common.sh"
"$KWZ_ROOT/scripts/bootstrap.sh"
dir="$KWZ_ROOT/build/release"
cmake -S "$KWZ_ROOT" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" --target kwz -j "$KWZ_JOBS"
if [ $# -eq 0 ]; then set -- demo; fi
exec "$dir/tools/kwz" "$@"
