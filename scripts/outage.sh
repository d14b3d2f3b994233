#!/bin/bash
# The long outage: the service under Wine as the client of chronyd (-x), which is killed before
# the first exchange and started again once "did not respond" has been raised; the trouble must
# be raised once and cleared once by the exchange 20 minutes later. About 40 minutes.
# Usage: scripts/outage.sh   (the test run does only the short outage)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset windows >/dev/null
cmake --build --preset windows
cd build/windows
exec timeout 3600 python3 ../../tests/e2e/outage_e2e.py --build . --long
