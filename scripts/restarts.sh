#!/bin/bash
# The restarts (tests/e2e/restarts_e2e.py) at length. Usage: scripts/restarts.sh [minutes, default 60]
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-60}
bash scripts/setup.sh && cmake --preset windows >/dev/null && cmake --build --preset windows
RESTART_MINUTES="$minutes" RESTART_PREFIX=restarts-long-prefix exec timeout $(( ${minutes%.*} * 60 + 900 )) \
  unshare -n bash -c 'ip link set lo up && exec python3 tests/e2e/restarts_e2e.py --build build/windows'
