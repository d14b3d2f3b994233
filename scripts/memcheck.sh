#!/bin/bash
# Runs the tests of the long-running threads (the client exchange, the server, the controller)
# under valgrind's memcheck, in a build without sanitizers (preset memcheck, build/memcheck,
# RelWithDebInfo). It finds what the sanitized native build does not: reads of uninitialised
# memory, and leaks in code that ends without returning to a leak check.
# Usage: scripts/memcheck.sh [test binary...]   (default: all three)
# Fails when valgrind reports an error or a definite leak, or a test fails or overruns.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${NORVIK_JOBS:-2}
limit=${NORVIK_MEMCHECK_TIMEOUT:-900}  # seconds per test binary

tests=("$@")
if [ ${#tests[@]} -eq 0 ]; then
  tests=(sntp_exchange_tests sntp_server_tests sntp_control_tests)
fi

# A gtest filter per binary, for tests too slow for valgrind's pace; none is needed so far.
declare -A filters=()

cmake --preset memcheck >/dev/null
cmake --build --preset memcheck -j "$jobs" --target "${tests[@]}"

logs=build/memcheck/valgrind
mkdir -p "$logs"
status=0
for test in "${tests[@]}"; do
  binary=$(find build/memcheck/tests -type f -name "$test" -perm -u+x | head -n 1)
  if [ -z "$binary" ]; then
    echo "memcheck: no binary $test"; status=1; continue
  fi
  echo "=== memcheck $test"
  started=$SECONDS
  # Detached time threads may still be sleeping at exit: their stacks are "possibly lost",
  # which is no fault, so only definite leaks count.
  if timeout "$limit" valgrind --leak-check=full --error-exitcode=1 --errors-for-leak-kinds=definite \
       --log-file="$logs/$test.log" "$binary" --gtest_filter="${filters[$test]:-*}" >"$logs/$test.out" 2>&1; then
    result=passed
  else
    result="FAILED (exit $?)"; status=1
  fi
  grep -h -E "^\[  (PASSED|FAILED)  \]" "$logs/$test.out" || true
  grep -h -E "ERROR SUMMARY|definitely lost" "$logs/$test.log" | sed 's/^==[0-9]*== */  /' || true
  echo "memcheck: $test $result in $((SECONDS - started)) s (valgrind log $logs/$test.log, test output $logs/$test.out)"
done
exit $status
