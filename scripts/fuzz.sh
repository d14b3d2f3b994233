#!/bin/bash
# Each libFuzzer target for a bounded time; appends "date target seconds executions cpu-seconds" to
# fuzz/hours.log (on a busy machine the CPU time is what the fuzzing got).
# Usage: scripts/fuzz.sh [seconds per target, default 60] [target...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60} status=0
shift || true
cmake --preset fuzz >/dev/null && cmake --build --preset fuzz -j "${NORVIK_JOBS:-2}"
[ $# -gt 0 ] || set -- $(sed -n 's/^norvik_add_fuzzer(\([a-z_]*\).*/\1/p' fuzz/CMakeLists.txt)
for target in "$@"; do
  artifacts=build/fuzz/artifacts/$target log=build/fuzz/logs/$target.log
  mkdir -p "build/fuzz/corpus/$target" "$artifacts" build/fuzz/logs
  echo "=== fuzz $target for ${seconds}s"
  started=$SECONDS
  cpu=build/fuzz/logs/$target.cpu
  TIMEFORMAT='%U %S'
  { time (cd build/fuzz && ./fuzz/$target -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
     -print_final_stats=1 -artifact_prefix="../../$artifacts/" "corpus/$target" "../../fuzz/corpus/$target" \
     >"../../$log" 2>&1) ; } 2>"$cpu" || status=1
  tail -n 12 "$log"
  executions=$(sed -n 's/^stat::number_of_executed_units: *\([0-9]*\).*/\1/p' "$log" | tail -n 1)
  cpuSeconds=$(awk '{printf "%d", $1 + $2}' "$cpu")
  printf '%s %s %d %d %d\n' "$(date -u +%Y-%m-%dT%H:%M:%SZ)" "$target" "$((SECONDS - started))" "${executions:-0}" \
    "${cpuSeconds:-0}" >>fuzz/hours.log
  failing=$(find "$artifacts" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' -o -name 'oom-*' \))
  [ -z "$failing" ] || { status=1; printf 'fuzz: %s left failing inputs (copy them into fuzz/corpus/%s):\n%s\n' \
    "$target" "$target" "$failing"; }
done
exit $status
