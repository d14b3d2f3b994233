#!/bin/bash
# The soak (tests/e2e/soak_e2e.py) at length. Usage: scripts/soak.sh [minutes, default 30]
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-30}
bash scripts/setup.sh && cmake --preset windows >/dev/null && cmake --build --preset windows
SOAK_MINUTES="$minutes" exec timeout $(( ${minutes%.*} * 60 + 600 )) python3 tests/e2e/soak_e2e.py --build build/windows
