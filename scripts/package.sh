#!/bin/bash
# Builds the release package build/windows/package/NorvikTime-<version>-win64.zip: the shipped
# files only (the service, its message texts in every language, the tools) and the install
# guide, laid out as installed under the installation root.
# Usage: scripts/package.sh
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset windows >/dev/null
targets=(NorvikTime SntpQuery TroubleMonitor)
for rc in config/res*.rc; do
  name=$(basename "$rc" .rc)
  targets+=("$name")
done
cmake --build --preset windows --target "${targets[@]}"
(cd build/windows && cpack --config CPackConfig.cmake -B package >/dev/null)
ls build/windows/package/NorvikTime-*-win64.zip
