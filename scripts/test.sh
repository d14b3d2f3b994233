#!/bin/bash
# Sets everything up on a fresh Debian machine, builds and runs every test: the native build
# (ASan, UBSan), the concurrency tests under ThreadSanitizer, the Windows build under Wine, each
# fuzz target for FUZZ_SECONDS (default 60; 0 skips), and in the simulator a year of the whole
# service (a fixed seed and one drawn and printed) and the check that it catches its six known
# faults. The Windows tests mostly wait on the service's timers, so the native, ThreadSanitizer and
# fuzz runs go beside them, in a network namespace of their own and at the lowest CPU priority,
# never delaying the service whose clock setting they measure; the simulator, which would load the
# second core, runs after the Windows tests, beside the fuzzing.
set -euo pipefail
cd "$(dirname "$0")/.."

started=$SECONDS
stamp() { printf '=== %s (%d s)\n' "$1" $((SECONDS - started)); }

bash scripts/setup.sh
stamp "setup done"

for preset in native tsan windows fuzz sim; do
  stamp "$preset: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
done
stamp "builds done"

mkdir -p build/logs
beside() {
  local status=0
  ctest --preset native || status=1
  stamp "native tests done"
  ctest --preset tsan || status=1
  stamp "tsan tests done"
  if [ "${FUZZ_SECONDS:-60}" -gt 0 ]; then
    bash scripts/fuzz.sh "${FUZZ_SECONDS:-60}" || status=1
    stamp "fuzzing done"
  fi
  return $status
}
export -f beside stamp
export started
unshare -n bash -c 'ip link set lo up && exec nice -n 19 bash -c beside' >build/logs/beside.log 2>&1 &
beside_pid=$!

status=0
ctest --preset windows || status=1
stamp "windows tests done"
# The simulator once nothing that measures time runs any more, beside the fuzzing: a core each.
bash scripts/simulate.sh 1 20261201 || status=1
bash scripts/simulate.sh 1 || status=1
stamp "simulated years done"
bash scripts/simulate-faults.sh || status=1
stamp "the simulator's known faults caught"
wait $beside_pid || status=1
cat build/logs/beside.log
stamp "all done, status $status"
exit $status
