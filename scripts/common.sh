# Shared by the scripts: configure and build one tree with Ninja.
#   kwz_build DIR [cmake options...]
# KWZ_JOBS overrides the parallelism (default: the number of cores).
KWZ_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
KWZ_JOBS=${KWZ_JOBS:-$(nproc)}

kwz_build() {
  local dir=$1; shift
  cmake -S "$KWZ_ROOT" -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j "$KWZ_JOBS"
}
