#!/bin/sh
# Benchmarks the SNTP server thread: SntpServe (the native build, and the Windows build under
# Wine) pinned to core 0, loaded by SntpLoad pinned to core 1, on loopback UDP port 12399 (off
# the service's port 123). Rounds of the two builds interleave, because figures move 5-20%
# between runs; each round is printed, then the medians. It prints figures and asserts nothing.
#
#   scripts/bench-server.sh                 ROUNDS=5 ROUND_SECONDS=10 scripts/bench-server.sh
set -eu

ROUNDS=${ROUNDS:-3}
ROUND_SECONDS=${ROUND_SECONDS:-5}
PORT=12399
SOURCES=50      # 127.0.0.2 .. 127.0.0.51: below the server's limit of 201 peers
WORKERS=4
READY_TRIES=30  # one-second probes while a server starts

root=$(cd "$(dirname "$0")/.." && pwd)
native="$root/build/bench-native"
windows="$root/build/bench-windows"
wine=/usr/lib/wine/wine64
results=$(mktemp -d /tmp/norvik-bench-XXXXXX)
trap 'rm -rf "$results"' EXIT

echo "== building (RelWithDebInfo as shipped, no sanitizers)"
cmake -S "$root" -B "$native" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNORVIK_TESTS=OFF >/dev/null
cmake --build "$native" --target SntpServe SntpLoad >/dev/null
kinds=native
if [ -x "$wine" ] && command -v x86_64-w64-mingw32-g++-posix >/dev/null 2>&1; then
  cmake -S "$root" -B "$windows" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNORVIK_TESTS=OFF \
        -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64.cmake" >/dev/null
  cmake --build "$windows" --target SntpServe >/dev/null
  export WINEPREFIX="$windows/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
  [ -d "$WINEPREFIX" ] || "$wine" wineboot -i >/dev/null 2>&1
  kinds="native wine"
else
  echo "(no Wine or MinGW: native rounds only)"
fi

# round KIND: one server run and one load run; appends "rate p50 p99" to $results/KIND.
round() {
  kind=$1
  # The server also stops by itself: the round, plus time to start, plus a margin.
  life=$((ROUND_SECONDS + READY_TRIES + 5))
  if [ "$kind" = native ]; then
    taskset -c 0 "$native/SntpServe" -p "$PORT" -s "$life" >/dev/null &
  else
    taskset -c 0 "$wine" "$windows/SntpServe.exe" -p "$PORT" -s "$life" >/dev/null &
  fi
  server=$!
  tries=0
  until "$native/SntpLoad" -p "$PORT" -s 1 -w 1 -c 1 -d 1 >/dev/null 2>&1; do
    tries=$((tries + 1))
    if [ "$tries" -ge "$READY_TRIES" ]; then
      echo "$kind: the server never answered"; wait "$server" || true; return 0
    fi
  done
  out=$(taskset -c 1 "$native/SntpLoad" -p "$PORT" -s "$SOURCES" -w "$WORKERS" -c 10000000 -d "$ROUND_SECONDS" || true)
  echo "$kind: $(echo "$out" | tr '\n' ' ')"
  echo "$out" | awk '/^sent/ {for (i = 1; i < NF; i++) if ($i == "rate") rate = $(i + 1)}
                     /^latency/ {for (i = 1; i < NF; i++) {if ($i == "p50") p50 = $(i + 1); if ($i == "p99") p99 = $(i + 1)}}
                     END {print rate, p50, p99}' >> "$results/$kind"
  # Done with it before its time limit: end it now, by its own process id.
  kill "$server" 2>/dev/null || true
  wait "$server" 2>/dev/null || true
}

echo "== $ROUNDS rounds of $ROUND_SECONDS s per build, $SOURCES sources, $WORKERS workers, port $PORT"
i=1
while [ "$i" -le "$ROUNDS" ]; do
  for kind in $kinds; do round "$kind"; done
  i=$((i + 1))
done

median() { sort -n | awk '{v[NR] = $1} END {if (NR) print v[int((NR + 1) / 2)]; else print "-"}'; }
echo "== medians"
for kind in $kinds; do
  [ -s "$results/$kind" ] || continue
  rate=$(cut -d' ' -f1 "$results/$kind" | median)
  p50=$(cut -d' ' -f2 "$results/$kind" | median)
  p99=$(cut -d' ' -f3 "$results/$kind" | median)
  echo "$kind: $rate answers/s  latency p50 $p50 us  p99 $p99 us"
done
