#!/bin/bash
# Sets everything up on a fresh Debian machine and runs the service: builds the Windows product
# (only what it runs: the service, the trouble monitor, SntpQuery and the message texts),
# lays out an installation in a Wine prefix (C:\Norvik\Applications\Time, C:\Norvik\Data\System),
# installs and starts the service with its own "install" command word (no Vantor.dat, so it is
# the SNTP server), shows a real SNTP version-3 client's answer from it, and streams troubles
# through the trouble monitor, with one SntpQuery exchange every 30 s, until Ctrl-C, which stops
# and removes the service.
# Usage: scripts/run.sh [--seconds N]   (N: end by itself after N seconds)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake --preset windows >/dev/null
targets=(NorvikTime TroubleMonitor SntpQuery)
for rc in config/res*.rc; do
  targets+=("$(basename "$rc" .rc)")
done
cmake --build --preset windows --target "${targets[@]}"
exec python3 scripts/run_service.py --build build/windows "$@"
