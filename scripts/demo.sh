#!/usr/bin/env bash
# Builds the library and the kwz tool (release) and runs `kwz demo`.
# Extra arguments are passed to kwz instead: scripts/demo.sh type "T|1\nA|I4".
set -euo pipefail
source "$(dirname "$0")/common.sh"
"$KWZ_ROOT/scripts/bootstrap.sh"
kwz_build "$KWZ_ROOT/build/release" -DCMAKE_BUILD_TYPE=RelWithDebInfo
if [ $# -eq 0 ]; then set -- demo; fi
exec "$KWZ_ROOT/build/release/tools/kwz" "$@"
