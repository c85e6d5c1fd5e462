#!/usr/bin/env bash
# Builds the benchmarks with their peer libraries (installing them first) and
# runs them; then the transport soak test.  Pass a benchmark name to run only
# that one: scripts/bench.sh bench_record
# Ends by writing bench/results.md (each figure beside its peer's, with the
# ratio) and one bar chart per subsystem, bench/bench_<name>.svg, from the
# JSON of the latest run of each benchmark (build/bench/json/).
set -euo pipefail
source "$(dirname "$0")/common.sh"
"$KWZ_ROOT/scripts/bootstrap.sh" --bench
kwz_build "$KWZ_ROOT/build/bench" -DCMAKE_BUILD_TYPE=Release -DKWZ_BUILD_BENCHMARKS=ON -DKWZ_BUILD_TESTS=OFF
only=${1:-}
json="$KWZ_ROOT/build/bench/json"
mkdir -p "$json"
cd "$KWZ_ROOT/build/bench/bench"
for b in bench_*; do
  [ -x "$b" ] || continue
  [ -n "$only" ] && [ "$only" != "$b" ] && continue
  echo "== $b =="
  # Repetitions of all cases run in a shuffled order, so that a slow spell of
  # the machine lands on ours and on the peer alike instead of on one of them.
  ./"$b" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
         --benchmark_enable_random_interleaving=true \
         --benchmark_min_time=0.2 --benchmark_out="$json/$b.json" --benchmark_out_format=json "${@:2}"
done
if [ -z "$only" ] || [ "$only" = sock_soak ]; then
  [ -x ./sock_soak ] && { echo "== sock_soak =="; ./sock_soak; }
fi
[ -z "$only" ] && [ -x "$KWZ_ROOT/scripts/bench_lzop_cli.sh" ] && "$KWZ_ROOT/scripts/bench_lzop_cli.sh" || true
python3 "$KWZ_ROOT/scripts/bench_report.py" "$json" "$KWZ_ROOT/bench/results.md" "$KWZ_ROOT/bench"
