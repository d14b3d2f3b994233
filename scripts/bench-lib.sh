# Sourced by the benchmark scripts (bench-server.sh, figures.sh); it owns the uninstrumented
# builds of the rig's tools, Wine's environment for them, one pinned round of load on a server,
# and the interleaved rounds of all the servers with their table. A server runs on core 0 and
# SntpLoad on core 1, so neither takes the other's time. The caller sets ROUNDS and STEP_SECONDS
# and creates the directory $bench_results before any round.
# shellcheck shell=sh disable=SC2034,SC2154  # variables shared with the scripts that source it

BENCH_PORT=${BENCH_PORT:-12399}  # off the service's port 123, which the end-to-end tests use
BENCH_SOURCES=200                # 127.0.0.2 .. 127.0.0.201: within the server's limit of 201 peers
BENCH_START_RATE=${BENCH_START_RATE:-5000}      # the sweep doubles from here (halves if unclean)
BENCH_LATENCY_RATE=${BENCH_LATENCY_RATE:-2000}  # latency compared where every server is clean
BENCH_READY_TRIES=30             # one-second probes while a server starts

bench_root=$(cd "$(dirname "$0")/.." && pwd)
bench_native="$bench_root/build/bench-native"
bench_windows="$bench_root/build/bench-windows"
bench_wine=/usr/lib/wine/wine64
bench_jobs=${NORVIK_JOBS:-2}

# bench_build [NATIVE_TARGET...]: SntpServe, SntpLoad and SntpReflect natively, RelWithDebInfo as shipped and
# without sanitizers, plus the native targets named; SntpServe for Windows as well when Wine and
# MinGW are here. Sets bench_kinds to "native" or "native wine", and Wine's environment.
bench_build() {
  echo "== building (RelWithDebInfo as shipped, no sanitizers)"
  cmake -S "$bench_root" -B "$bench_native" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNORVIK_TESTS=OFF >/dev/null
  cmake --build "$bench_native" -j "$bench_jobs" --target SntpServe SntpLoad SntpReflect "$@" >/dev/null
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

# The longest a server of one round may live: its start, a generous sweep, and a margin.
bench_life() { echo $((BENCH_READY_TRIES + 40 * STEP_SECONDS + 20)); }

# bench_ready PID [PORT]: waits until something answers SntpLoad on PORT (default $BENCH_PORT):
# 0, or 1 when process PID has ended or after $BENCH_READY_TRIES probes.
bench_ready() {
  tries=0
  until "$bench_native/SntpLoad" -p "${2:-$BENCH_PORT}" -s 1 -r 5 -c 1 -d 1 >/dev/null 2>&1; do
    tries=$((tries + 1))
    if [ "$tries" -ge "$BENCH_READY_TRIES" ] || ! kill -0 "$1" 2>/dev/null; then
      return 1
    fi
    sleep 1
  done
  return 0
}

# bench_pids PID: PID and its descendants and, under Wine, the wineserver of our prefix: every
# process whose CPU time an answer costs. Comma-separated.
bench_pids() {
  found=""
  todo=$1
  while [ -n "$todo" ]; do
    next=""
    for pid in $todo; do
      found="$found $pid"
      next="$next $(pgrep -P "$pid" | xargs)"
    done
    todo=$(echo "$next" | xargs)
  done
  for pid in $(pgrep -x wineserver || true); do
    if tr '\0' '\n' <"/proc/$pid/environ" 2>/dev/null | grep -qx "WINEPREFIX=${WINEPREFIX:-none}"; then
      found="$found $pid"
    fi
  done
  echo "$found" | xargs | tr ' ' ','
}

# bench_round NAME COMMAND...: one server run and one sweep. COMMAND is started pinned to core 0
# under a time limit (so it stops by itself), its output to $bench_results/NAME.log; once it
# answers, SntpLoad sweeps it from core 1. Prints the sweep's summary and appends
# "clean-rate p50 p99 cpu load-cpu" to $bench_results/NAME: cpu is the server's processes' CPU
# time per answer at the clean rate (wineserver's included) in us, load-cpu SntpLoad's own in %.
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
  pids=$(bench_pids "$server")
  out=$(taskset -c 1 "$bench_native/SntpLoad" -p "$BENCH_PORT" -s "$BENCH_SOURCES" -S "$BENCH_START_RATE" \
        -l "$BENCH_LATENCY_RATE" -d "$STEP_SECONDS" -P "$pids" || true)
  echo "$out" >>"$bench_results/$name.sweeps"
  echo "$name: $(echo "$out" | grep '^clean') | $(echo "$out" | grep '^latency')"
  echo "$out" | awk '
    /^clean/ {rate = $3; cpu = $7; load = $10; sub("%", "", load)}
    /^latency/ {for (i = 1; i < NF; i++) {if ($i == "p50") p50 = $(i + 1); if ($i == "p99") p99 = $(i + 1)}}
    END {if (rate != "") printf "%s %s %s %s %s\n", rate, p50, p99, cpu, load}' >>"$bench_results/$name"
  # Done with it before its time limit: end it now, by its own process id.
  kill "$server" 2>/dev/null || true
  wait "$server" 2>/dev/null || true
}

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

# chrony_conf PORT [ADDRESS]: a configuration of chronyd as the server of its own clock on
# ADDRESS:PORT (127.0.0.1 unless given), with no rate limit (none is configured). Run with -x
# it never touches the clock; without command port and socket it leaves nothing under /run.
chrony_conf() {
  cat >"$bench_results/chrony.conf" <<EOF
local stratum 10
allow 127.0.0.0/8
bindaddress ${2:-127.0.0.1}
port $1
cmdport 0
bindcmdaddress /
pidfile $bench_results/chronyd.pid
EOF
  echo "$bench_results/chrony.conf"
}
# chrony's programs as scripts/setup.sh unpacks them (its package is never installed); -u root,
# as there is no user of its own to switch to.
chronyd=$(pwd)/build/chrony/usr/sbin/chronyd

# bench_median NAME FIELD, bench_spread NAME FIELD: over NAME's rounds, the median of one field,
# and "median (lowest - highest)".
bench_median() {
  cut -d' ' -f"$2" "$bench_results/$1" | sort -n | awk '{v[NR] = $1} END {print NR ? v[int((NR + 1) / 2)] : 0}'
}
bench_spread() {
  cut -d' ' -f"$2" "$bench_results/$1" | sort -n | awk '{v[NR] = $1}
    END {if (NR) printf "%s (%s - %s)", v[int((NR + 1) / 2)], v[1], v[NR]; else printf "-"}'
}

# bench_servers: ROUNDS interleaved rounds of every server (native, wine, chrony, both ceilings),
# then the table of medians with the spread of the rounds, and the rig's sanity checks.
bench_servers() {
  servers="native chrony reflect"
  case " $bench_kinds " in *" wine "*) servers="native wine chrony reflect reflect-wine" ;; esac
  [ -x "$chronyd" ] || servers=$(echo "$servers" | sed 's/chrony //')
  echo "== $ROUNDS interleaved rounds; per server a sweep of $STEP_SECONDS s steps from $BENCH_START_RATE/s" \
       "(open loop, $BENCH_SOURCES loopback sources, clean: <= 0.1 % lost or wrong), then" \
       "$BENCH_LATENCY_RATE/s for latency; load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
  i=1
  while [ "$i" -le "$ROUNDS" ]; do
    for server in $servers; do
      if [ "$server" = chrony ]; then
        bench_round chrony "$chronyd" -x -d -u root -f "$(chrony_conf "$BENCH_PORT")"
      else
        bench_kind_round "$server"
      fi
    done
    i=$((i + 1))
  done
  echo "== medians of $ROUNDS rounds (lowest - highest); load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
  echo "| server | highest clean rate, answers/s | CPU per answer | p50 / p99 at $BENCH_LATENCY_RATE/s | load core busy |"
  echo "|---|---|---|---|---|"
  for server in $servers; do
    [ -s "$bench_results/$server" ] || continue
    case $server in
      native) label='`SntpServe`, Linux build' ;;
      wine) label="\`SntpServe.exe\`, Windows build under $("$bench_wine" --version 2>/dev/null)" ;;
      chrony) label="chrony $("$chronyd" -v 2>/dev/null | awk '{print $4}') (\`-x\`, \`local stratum 10\`)" ;;
      reflect) label='ceiling, Linux build: `SntpReflect`' ;;
      reflect-wine) label='ceiling, Windows build under Wine: `SntpReflect.exe`' ;;
    esac
    echo "| $label | $(bench_spread "$server" 1) | $(bench_median "$server" 4) us" \
         "| $(bench_median "$server" 2) / $(bench_median "$server" 3) us | $(bench_median "$server" 5) % |"
  done
  # The rig measures a server only if the simplest loop outruns it and the load has room.
  for pair in native:reflect wine:reflect-wine; do
    server=${pair%:*}
    ceiling=${pair#*:}
    if [ -s "$bench_results/$server" ] && [ -s "$bench_results/$ceiling" ] &&
       [ "$(bench_median "$ceiling" 1)" -lt "$(bench_median "$server" 1)" ]; then
      echo "WARNING: the ceiling ($ceiling) is below $server: the rig or the machine is measured, not the server"
    fi
  done
  for server in $servers; do
    if [ -s "$bench_results/$server" ] && awk '$5 >= 90 {found = 1} END {exit !found}' "$bench_results/$server"; then
      echo "WARNING: SntpLoad's core was 90 % busy or more at $server's clean rate: the load may be the limit"
    fi
  done
}
