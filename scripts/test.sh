#!/bin/bash
# Sets everything up on a fresh Debian machine, builds both builds and runs every test:
# the native build (GCC, AddressSanitizer and UBSan), the concurrency tests again under
# ThreadSanitizer, and the Windows build (MinGW-w64, tests under Wine), then each fuzz target for
# a bounded time (FUZZ_SECONDS, default 60; 0 skips fuzzing).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

status=0
for preset in native tsan windows; do
  echo "=== $preset: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
done
for preset in native tsan windows; do
  echo "=== $preset: test"
  ctest --preset "$preset" || status=1
done
if [ "${FUZZ_SECONDS:-60}" -gt 0 ]; then
  echo "=== fuzz: ${FUZZ_SECONDS:-60} s per target"
  bash scripts/fuzz.sh "${FUZZ_SECONDS:-60}" || status=1
fi
exit $status
