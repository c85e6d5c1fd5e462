#!/usr/bin/env bash
# The lzop program at its default level (LZO1X-1, the same compressor the
# container uses) against `kwz pack` / `kwz unpack`, on the 100 MB data set of
# bench/bench_lzop.cpp: what a user would otherwise run from the shell.
# Prints the median of 5 runs (hyperfine when installed) in MB/s.
#   scripts/bench_lzop_cli.sh [BUILD_DIR]     (default: build/bench)
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${1:-$KWZ_ROOT/build/bench}
bench=$build/bench/bench_lzop
kwz=$build/tools/kwz
for tool in "$bench" "$kwz"; do
  [ -x "$tool" ] || { echo "bench_lzop_cli: $tool not built (run scripts/bench.sh)"; exit 1; }
done
if ! command -v lzop >/dev/null; then
  echo "bench_lzop_cli: lzop not installed, skipped"
  exit 0
fi

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
echo "== lzop program vs kwz pack/unpack =="
"$bench" --write_data="$tmp/data" | sed 's/^/data: /'
size=$(stat -c %s "$tmp/data")

# median_seconds CMD...: the median wall time of 5 runs.
median_seconds() {
  if command -v hyperfine >/dev/null; then
    hyperfine -N --runs 5 --style none --export-json "$tmp/h.json" "$*" >/dev/null 2>&1
    python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["results"][0]["median"])' "$tmp/h.json"
    return
  fi
  local times=()
  for _ in 1 2 3 4 5; do
    local t0 t1
    t0=$(date +%s%N)
    bash -c "$*" >/dev/null 2>&1
    t1=$(date +%s%N)
    times+=($(( t1 - t0 )))
  done
  printf '%s\n' "${times[@]}" | sort -n | sed -n 3p | awk '{ printf "%.4f\n", $1 / 1e9 }'
}

report() {  # name seconds output-bytes
  awk -v n="$1" -v s="$2" -v size="$size" -v out="$3" \
    'BEGIN { printf "  %-22s %8.1f MB/s  %6.3f s  output %d bytes (%.3f)\n", n, size / 1048576 / s, s, out, out / size }'
}

lz_c=$(median_seconds "lzop -c -f '$tmp/data' > '$tmp/data.lzo'")
kw_c=$(median_seconds "'$kwz' pack -f '$tmp/data' -o '$tmp/data.lz2'")
lz_d=$(median_seconds "lzop -dc '$tmp/data.lzo' > /dev/null")
kw_d=$(median_seconds "'$kwz' unpack '$tmp/data.lz2' -o - > /dev/null")

report "lzop (compress)" "$lz_c" "$(stat -c %s "$tmp/data.lzo")"
report "kwz pack" "$kw_c" "$(stat -c %s "$tmp/data.lz2")"
report "lzop -d (decompress)" "$lz_d" "$size"
report "kwz unpack" "$kw_d" "$size"
awk -v a="$lz_c" -v b="$kw_c" -v c="$lz_d" -v d="$kw_d" \
  'BEGIN { printf "  kwz/lzop speed: pack %.2fx, unpack %.2fx\n", a / b, c / d }'
