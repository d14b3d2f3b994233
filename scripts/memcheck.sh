#!/bin/bash
# The long-running threads' tests under valgrind's memcheck, built without sanitizers. Usage: scripts/memcheck.sh [test binary...]
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# -gt 0 ] || set -- sntp_exchange_tests sntp_server_tests sntp_control_tests
cmake --preset memcheck >/dev/null && cmake --build --preset memcheck -j "${NORVIK_JOBS:-2}" --target "$@"
logs=build/memcheck/valgrind status=0
mkdir -p "$logs"
for test in "$@"; do
  binary=$(find build/memcheck/tests -type f -name "$test" -perm -u+x | head -n 1)
  echo "=== memcheck $test"
  started=$SECONDS result=passed
  # Detached time threads may still sleep at exit ("possibly lost", no fault): only definite leaks count.
  timeout "${NORVIK_MEMCHECK_TIMEOUT:-900}" valgrind --leak-check=full --error-exitcode=1 --errors-for-leak-kinds=definite \
    --log-file="$logs/$test.log" "$binary" >"$logs/$test.out" 2>&1 || { result="FAILED (exit $?)"; status=1; }
  grep -h -E "^\[  (PASSED|FAILED)  \]" "$logs/$test.out" || true
  grep -h -E "ERROR SUMMARY|definitely lost" "$logs/$test.log" | sed 's/^==[0-9]*== */  /' || true
  echo "memcheck: $test $result in $((SECONDS - started)) s (logs in $logs)"
done
exit $status
