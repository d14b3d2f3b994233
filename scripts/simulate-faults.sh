#!/bin/bash
# The oracle can fail: each fault of sim/faults/ (six faults this service once had) is applied in
# turn to a scratch copy of this tree (build/faults/tree), the simulator is built there and run,
# and the run must fail, naming its seed and simulated date. Exit 0 when every fault was caught.
# About 2 minutes for the first build, then some seconds a fault.
set -euo pipefail
cd "$(dirname "$0")/.."

scratch=build/faults/tree
logs=build/faults
rm -rf "$scratch"
mkdir -p "$scratch"
# The working tree as it is, committed or not: tracked and new files, never build products.
git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$scratch"
(cd "$scratch" && cmake --preset sim) >"$logs/configure.log"

# Each fault's run: years, seed and options. A run stops at the first broken promise.
declare -A runs=(
  [1-late-clock-after-socket-teardown]="1 11"
  [2-1900-after-the-era-wrap]="0.2 12 --from 2036-01-20"
  [3-stop-lost-before-the-thread-ran]="3 13"
  [4-socket-kept-at-failed-bind]="3 14"
  [5-silence-cleared-twice]="3 15"
  [6-day-counted-in-one-second-sleeps]="1 16"
)

status=0
for patch in sim/faults/*.patch; do
  name=$(basename "$patch" .patch)
  patch -d "$scratch" -p1 --quiet --forward <"$patch"
  if ! cmake --build "$scratch/build/sim" --target NorvikSim >"$logs/$name.build.log" 2>&1; then
    echo "$name: the patched simulator does not build (see $logs/$name.build.log)"
    status=1
  else
    # shellcheck disable=SC2086  # the run's words are meant to split
    if "$scratch/build/sim/sim/NorvikSim" ${runs[$name]} >"$logs/$name.log" 2>&1; then
      echo "$name: NOT CAUGHT (${runs[$name]})"
      status=1
    elif grep -q "SIMULATION FAILED" "$logs/$name.log"; then
      echo "$name: caught"
      grep -A1 "SIMULATION FAILED" "$logs/$name.log" | sed 's/^/    /'
    else
      echo "$name: the simulator ended without a verdict (see $logs/$name.log)"
      status=1
    fi
  fi
  patch -d "$scratch" -p1 --quiet --reverse <"$patch"
done
exit $status
