#!/bin/bash
# The whole service in the deterministic simulator: [years] (default 10) of simulated time from
# 2026-12-01 (whole years run on to the next 1 January, so 10 ends on 2037-01-01), with [seed]
# (default: one is drawn and printed). Further arguments go to the simulator: --from YYYY-MM-DD,
# --until YYYY-MM-DD, --request-interval SECONDS. Builds the "sim" preset first (scripts/setup.sh
# installs what it needs). Exit 0 when every promise held; 1, with the seed, the simulated date and
# the last events, when one broke: the same seed replays the run exactly.
set -euo pipefail
cd "$(dirname "$0")/.."

years=${1:-10}
seed=${2:-}
mkdir -p build
if ! { cmake --preset sim && cmake --build --preset sim; } >build/sim-build.log 2>&1; then
  cat build/sim-build.log
  exit 2
fi
exec build/sim/sim/NorvikSim "$years" ${seed:+"$seed"} "${@:3}"
