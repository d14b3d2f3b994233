# Sourced by the benchmark scripts (bench-server.sh, figures.sh); it owns the uninstrumented
# builds of the rig's tools, Wine's environment for them, and one pinned round of load on a
# server. A server runs on core 0 and SntpLoad on core 1, so neither takes the other's time.
# The caller sets ROUND_SECONDS and creates the directory $bench_results before any round.
# shellcheck shell=sh disable=SC2034,SC2154  # variables shared with the scripts that source it

BENCH_PORT=${BENCH_PORT:-12399}  # off the service's port 123, which the end-to-end tests use
BENCH_SOURCES=50                 # 127.0.0.2 .. 127.0.0.51: below the server's limit of 201 peers
BENCH_WORKERS=4
BENCH_READY_TRIES=30             # one-second probes while a server starts

bench_root=$(cd "$(dirname "$0")/.." && pwd)
bench_native="$bench_root/build/bench-native"
bench_windows="$bench_root/build/bench-windows"
bench_wine=/usr/lib/wine/wine64
bench_jobs=${NORVIK_JOBS:-2}

# bench_build [NATIVE_TARGET...]: SntpServe and SntpLoad natively, RelWithDebInfo as shipped and
# without sanitizers, plus the native targets named; SntpServe for Windows as well when Wine and
# MinGW are here. Sets bench_kinds to "native" or "native wine", and Wine's environment.
bench_build() {
  echo "== building (RelWithDebInfo as shipped, no sanitizers)"
  cmake -S "$bench_root" -B "$bench_native" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNORVIK_TESTS=OFF >/dev/null
  cmake --build "$bench_native" -j "$bench_jobs" --target SntpServe SntpLoad "$@" >/dev/null
  bench_kinds=native
  if [ -x "$bench_wine" ] && command -v x86_64-w64-mingw32-g++-posix >/dev/null 2>&1; then
    cmake -S "$bench_root" -B "$bench_windows" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNORVIK_TESTS=OFF \
          -DCMAKE_TOOLCHAIN_FILE="$bench_root/cmake/mingw-w64.cmake" >/dev/null
    cmake --build "$bench_windows" -j "$bench_jobs" --target SntpServe SntpReflect >/dev/null
    export WINEPREFIX="$bench_windows/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
    [ -d "$WINEPREFIX" ] || "$bench_wine" wineboot -i >/dev/null 2>&1
    bench_kinds="native wine"
  else
    echo "(no Wine or MinGW: native rounds only)"
  fi
}

# The longest a server of one round may live: the round, its start, and a margin.
bench_life() { echo $((ROUND_SECONDS + BENCH_READY_TRIES + 5)); }

# bench_ready PID [PORT]: waits until something answers SntpLoad on PORT (default $BENCH_PORT):
# 0, or 1 when process PID has ended or after $BENCH_READY_TRIES probes. A silent probe takes 1 s.
bench_ready() {
  tries=0
  until "$bench_native/SntpLoad" -p "${2:-$BENCH_PORT}" -s 1 -w 1 -c 1 -d 1 >/dev/null 2>&1; do
    tries=$((tries + 1))
    if [ "$tries" -ge "$BENCH_READY_TRIES" ] || ! kill -0 "$1" 2>/dev/null; then
      return 1
    fi
  done
  return 0
}

# bench_round NAME COMMAND...: one server run and one load run. COMMAND is started pinned to core
# 0 under a time limit of the round, its start and a margin (so it stops by itself), its output to
# $bench_results/NAME.log; once it answers, SntpLoad loads it from core 1 for ROUND_SECONDS.
# Prints "NAME: <SntpLoad's two lines>" and appends "rate p50 p99 cpu" to $bench_results/NAME, cpu
# being the busy time of core 0 (user, system and interrupt work) per good answer, in us: the
# server's whole cost of an answer, its share of the kernel's and (under Wine) wineserver's included.
bench_round() {
  name=$1
  shift
  life=$(bench_life)
  # timeout passes a TERM on to the server and ends it at its limit in any case.
  taskset -c 0 timeout -k 5 "$life" "$@" >"$bench_results/$name.log" 2>&1 &
  server=$!
  if ! bench_ready "$server"; then
    echo "$name: the server never answered; its last output:"
    tail -n 5 "$bench_results/$name.log" | sed 's/^/  /'
    kill "$server" 2>/dev/null || true
    wait "$server" 2>/dev/null || true
    return 0
  fi
  busy_before=$(core0_busy)
  out=$(taskset -c 1 "$bench_native/SntpLoad" -p "$BENCH_PORT" -s "$BENCH_SOURCES" -w "$BENCH_WORKERS" \
        -c 10000000 -d "$ROUND_SECONDS" || true)
  busy=$(( $(core0_busy) - busy_before ))
  echo "$name: $(echo "$out" | tr '\n' ' ')"
  echo "$out" | awk -v busy="$busy" -v hz="$(getconf CLK_TCK)" '
    /^sent/ {for (i = 1; i < NF; i++) {if ($i == "rate") rate = $(i + 1); if ($i == "good") good = $(i + 1)}}
    /^latency/ {for (i = 1; i < NF; i++) {if ($i == "p50") p50 = $(i + 1); if ($i == "p99") p99 = $(i + 1)}}
    END {printf "%s %s %s %.1f\n", rate, p50, p99, (good > 0 ? busy * 1e6 / hz / good : 0)}' >> "$bench_results/$name"
  # Done with it before its time limit: end it now, by its own process id.
  kill "$server" 2>/dev/null || true
  wait "$server" 2>/dev/null || true
}

# core0_busy: clock ticks that core 0 has spent on anything but idling and waiting for I/O.
core0_busy() { awk '$1 == "cpu0" {print $2 + $3 + $4 + $7 + $8 + $9}' /proc/stat; }

# bench_kind_round KIND: bench_round of one of the rig's own servers: native or wine (SntpServe
# of that build), or reflect or reflect-wine (SntpReflect of that build, the ceiling).
bench_kind_round() {
  life=$(bench_life)
  case $1 in
    native)  bench_round native "$bench_native/SntpServe" -p "$BENCH_PORT" -s "$life" ;;
    wine)    bench_round wine "$bench_wine" "$bench_windows/SntpServe.exe" -p "$BENCH_PORT" -s "$life" ;;
    reflect) bench_round reflect "$bench_native/SntpReflect" -p "$BENCH_PORT" -s "$life" ;;
    reflect-wine) bench_round reflect-wine "$bench_wine" "$bench_windows/SntpReflect.exe" -p "$BENCH_PORT" -s "$life" ;;
  esac
}

bench_median() { sort -n | awk '{v[NR] = $1} END {if (NR) print v[int((NR + 1) / 2)]; else print "-"}'; }

# bench_medians NAME...: per name with rounds, "NAME: RATE answers/s  latency p50 P50 us  p99 P99 us
# cpu CPU us/answer", each the median over its rounds.
bench_medians() {
  for name in "$@"; do
    [ -s "$bench_results/$name" ] || continue
    rate=$(cut -d' ' -f1 "$bench_results/$name" | bench_median)
    p50=$(cut -d' ' -f2 "$bench_results/$name" | bench_median)
    p99=$(cut -d' ' -f3 "$bench_results/$name" | bench_median)
    cpu=$(cut -d' ' -f4 "$bench_results/$name" | bench_median)
    echo "$name: $rate answers/s  latency p50 $p50 us  p99 $p99 us  cpu $cpu us/answer"
  done
}
