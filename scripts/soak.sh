#!/bin/bash
# The soak at length (tests/e2e/soak_e2e.py): the server under load with a client installation
# and the query tool. Usage: scripts/soak.sh [minutes, default 30]   (the test run does 1.5)
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-30}
bash scripts/setup.sh && cmake --preset windows >/dev/null && cmake --build --preset windows
SOAK_MINUTES="$minutes" exec timeout $(( ${minutes%.*} * 60 + 600 )) python3 tests/e2e/soak_e2e.py --build build/windows
