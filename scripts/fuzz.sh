#!/bin/bash
# Builds the libFuzzer targets (clang, ASan+UBSan) and runs each for a bounded time.
# Usage: scripts/fuzz.sh [seconds per target, default 60] [target...]
# Each target starts from its kept seed corpus (fuzz/corpus/<target>); new inputs go to a
# scratch corpus under build/fuzz, and a failing input (crash-*, leak-*, timeout-*, oom-*) to
# build/fuzz/artifacts/<target>. Copy such an input into fuzz/corpus/<target>: the native and
# Windows test runs replay that directory (ctest fuzz_replay_<target>), so it stays fixed.
# Every target run appends "date target seconds executions" to fuzz/hours.log, kept in the
# repository, so that the fuzzing done so far can be totalled (scripts/figures.sh does).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
jobs=${NORVIK_JOBS:-2}
hours=fuzz/hours.log
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$jobs"
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=($(sed -n 's/^norvik_add_fuzzer(\([a-z_]*\).*/\1/p' fuzz/CMakeLists.txt))
fi
status=0
for target in "${targets[@]}"; do
  scratch=build/fuzz/corpus/$target
  artifacts=build/fuzz/artifacts/$target
  log=build/fuzz/logs/$target.log
  mkdir -p "$scratch" "$artifacts" build/fuzz/logs
  echo "=== fuzz $target for ${seconds}s"
  started=$SECONDS
  if ! (cd build/fuzz && ./fuzz/$target -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="../../$artifacts/" "../../$scratch" "../../fuzz/corpus/$target" \
        >"../../$log" 2>&1); then
    status=1
  fi
  tail -n 12 "$log"
  # A run that failed still fuzzed for as long as it ran; its executions are in its final stats.
  executions=$(sed -n 's/^stat::number_of_executed_units: *\([0-9]*\).*/\1/p' "$log" | tail -n 1)
  printf '%s %s %d %d\n' "$(date -u +%Y-%m-%dT%H:%M:%SZ)" "$target" "$((SECONDS - started))" "${executions:-0}" \
    >>"$hours"
  failing=$(find "$artifacts" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
             -o -name 'oom-*' \))
  if [ -n "$failing" ]; then
    echo "fuzz: $target left failing inputs:"
    echo "$failing"
    echo "fuzz: copy each into fuzz/corpus/$target/ (a name saying what it hits); the ctest" \
         "fuzz_replay_$target then replays it in the native and Windows builds until it is fixed," \
         "and ever after. Replay one now with: build/native/fuzz/${target}_replay <file>"
    status=1
  fi
done
exit $status
