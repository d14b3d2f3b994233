#!/bin/sh
# Benchmarks the SNTP server thread the way the field benchmarks NTP servers: an open-loop load
# (SntpLoad, pinned to core 1) sweeps the offered rate, doubling then bisecting, for each server's
# highest rate with at most 0.1 % of requests lost or wrong, and then times the answers at one
# rate every server sustains. The servers, each pinned to core 0 in turn on loopback UDP 12399:
# SntpServe natively and under Wine, chronyd -x, and the ceiling loop SntpReflect natively and
# under Wine. Rounds interleave, so that the noise of a shared machine hits all alike; each round
# is printed, then a table of medians with the spread and the rig's sanity checks. It prints
# figures and asserts nothing; about five minutes with the defaults.
#
#   scripts/bench-server.sh                 ROUNDS=5 STEP_SECONDS=2 scripts/bench-server.sh
set -eu

ROUNDS=${ROUNDS:-3}
STEP_SECONDS=${STEP_SECONDS:-1}
# shellcheck source=scripts/bench-lib.sh
. "$(dirname "$0")/bench-lib.sh"
bench_results=$(mktemp -d /tmp/norvik-bench-XXXXXX)
trap 'rm -rf "$bench_results"' EXIT

bench_build
bench_servers
