#!/bin/bash
# Restarts at length: the default installation under Wine (no Vantor.dat, so the server, also
# restarted by the minute's re-check) under a steady load, with "command 128" at random moments
# for the given minutes; prints the restarts, the answers, and the service's threads, handles,
# descriptors and memory at the start and the end, then checks that the stop completes.
# Runs in a network namespace of its own, so that it may run beside anything else on port 123.
# Usage: scripts/restarts.sh [minutes, default 60]   (the test run does 3)
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-60}
bash scripts/setup.sh
cmake --preset windows >/dev/null
cmake --build --preset windows
cd build/windows
export RESTART_MINUTES="$minutes" RESTART_PREFIX=restarts-long-prefix
exec timeout $(( ${minutes%.*} * 60 + 900 )) unshare -n bash -c \
  'ip link set lo up && exec python3 ../../tests/e2e/restarts_e2e.py --build .'
