#!/bin/bash
# The soak at length: the service as the installation's server under Wine, with a second
# installation as its client on the real schedule, under a steady load and the query tool; both
# processes' memory, threads and descriptors are sampled every 30 s.
# Usage: scripts/soak.sh [minutes, default 30]   (the test run does 1.5 minutes)
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-30}
bash scripts/setup.sh
cmake --preset windows >/dev/null
cmake --build --preset windows
cd build/windows
exec timeout $(( ${minutes%.*} * 60 + 600 )) python3 ../../tests/e2e/soak_e2e.py --build . --minutes "$minutes"
