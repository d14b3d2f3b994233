#!/bin/sh
# Benchmarks the SNTP server thread: SntpServe (the native build, and the Windows build under
# Wine) pinned to core 0, loaded by SntpLoad pinned to core 1, on loopback UDP port 12399 (off
# the service's port 123). Rounds of the two builds interleave, because figures move 5-20%
# between runs; each round is printed, then the medians. It prints figures and asserts nothing.
# The builds and the rounds are those of scripts/bench-lib.sh, shared with scripts/figures.sh.
#
#   scripts/bench-server.sh                 ROUNDS=5 ROUND_SECONDS=10 scripts/bench-server.sh
set -eu

ROUNDS=${ROUNDS:-3}
ROUND_SECONDS=${ROUND_SECONDS:-5}
# shellcheck source=scripts/bench-lib.sh
. "$(dirname "$0")/bench-lib.sh"
bench_results=$(mktemp -d /tmp/norvik-bench-XXXXXX)
trap 'rm -rf "$bench_results"' EXIT

bench_build

echo "== $ROUNDS rounds of $ROUND_SECONDS s per build, $BENCH_SOURCES sources, $BENCH_WORKERS workers, port $BENCH_PORT"
i=1
while [ "$i" -le "$ROUNDS" ]; do
  for kind in $bench_kinds; do bench_kind_round "$kind"; done
  i=$((i + 1))
done

echo "== medians"
# shellcheck disable=SC2086  # a list of words
bench_medians $bench_kinds
