#!/bin/bash
# Builds the libFuzzer targets (clang, ASan+UBSan) and runs each for a bounded time.
# Usage: scripts/fuzz.sh [seconds per target, default 60] [target...]
# Each target starts from its kept seed corpus (fuzz/corpus/<target>); new inputs go to a
# scratch corpus under build/fuzz, and any crash is left there as crash-* for a regression test.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=($(sed -n 's/^norvik_add_fuzzer(\([a-z_]*\).*/\1/p' fuzz/CMakeLists.txt))
fi
status=0
for target in "${targets[@]}"; do
  scratch=build/fuzz/corpus/$target
  mkdir -p "$scratch"
  echo "=== fuzz $target for ${seconds}s"
  if ! (cd build/fuzz && ./fuzz/$target -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 "../../$scratch" "../../fuzz/corpus/$target" 2>&1 | tail -n 12); then
    status=1
  fi
  if ls build/fuzz/crash-* build/fuzz/leak-* build/fuzz/timeout-* >/dev/null 2>&1; then
    echo "fuzz: $target left a failing input in build/fuzz"; status=1
  fi
done
exit $status
