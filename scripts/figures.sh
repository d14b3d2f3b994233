#!/bin/bash
# Prints the project's published figures, each with its method in one line: the server's
# throughput and latency (native, Windows under Wine, chrony, and the ceiling of the rig), the
# client's time error against chrony, the idle cost of the server under Wine, and the fuzzing
# done so far. It prints figures and asserts nothing. The defaults take under five minutes.
#
#   scripts/figures.sh [server] [client] [clock] [idle] [fuzz]   (default: all, in this order)
#
#   ROUNDS=3 STEP_SECONDS=1    server: rounds per server, seconds per step of a sweep (as bench-server.sh)
#   QUERIES=50                 client: exchanges against chrony
#   CLOCK_SAMPLES=3            clock: the service's own clock settings (each 1-2 minutes)
#   IDLE_SECONDS=30            idle: seconds the idle server is watched
#
# Nothing here sets the clock: chrony runs with -x, the rig's tools never set it, and Wine
# refuses the service's settings (that refusal is what the clock figure reads). The servers
# answer on $BENCH_PORT (12399) of 127.0.0.1; the client and clock figures use UDP 123 of 127.0.0.5
# and 127.0.0.2.
set -eu

ROUNDS=${ROUNDS:-3}
STEP_SECONDS=${STEP_SECONDS:-1}
QUERIES=${QUERIES:-50}
CLOCK_SAMPLES=${CLOCK_SAMPLES:-3}
IDLE_SECONDS=${IDLE_SECONDS:-30}
# shellcheck source=scripts/bench-lib.sh
. "$(dirname "$0")/bench-lib.sh"

figures="$bench_root/build/figures"
idle_prefix="$figures/wineprefix"
bench_results=$(mktemp -d /tmp/norvik-figures-XXXXXX)
idle_wine=""
idle_native=""
idle_wineserver=""

cleanup() {
  for pid in $idle_wine $idle_native; do kill "$pid" 2>/dev/null || true; done
  if [ -n "$idle_wineserver" ]; then
    WINEPREFIX="$idle_prefix" /usr/lib/wine/wineserver -k 2>/dev/null || true
    wait "$idle_wineserver" 2>/dev/null || true
    rm -rf "$idle_prefix"
  fi
  rm -rf "$bench_results"
}
trap cleanup EXIT

wanted=${*:-server client clock idle fuzz}
wants() { case " $wanted " in *" $1 "*) return 0 ;; *) return 1 ;; esac; }
started=$SECONDS

chrony_version=$("$chronyd" -v 2>/dev/null | awk '{print $4}')

echo "== machine: $(nproc) cores, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)," \
     "Linux $(uname -r), $(. /etc/os-release && echo "$PRETTY_NAME"); $(date -u '+%Y-%m-%d %H:%M UTC')"

if wants server || wants client || wants idle; then
  bench_build SntpReflect SntpQuery
fi

# ---------------------------------------------------------------------------------------------
if wants server; then
  echo "== 1. server throughput and latency (as scripts/bench-server.sh)"
  bench_servers
fi

# ---------------------------------------------------------------------------------------------
if wants client; then
  echo "== 2. client time error against chrony"
  # The client's exchange speaks to UDP port 123 only, so chrony answers there, on 127.0.0.5: an
  # address that neither the service nor the tests use. Run it while no end-to-end test runs.
  echo "method: SntpQuery (native build) -n $QUERIES -i 0 against chronyd $chrony_version -x (local stratum 10)" \
       "on 127.0.0.5 UDP 123, both on this machine's clock: offset is the client's computed time error," \
       "delay the round trip on the millisecond tick"
  if true; then
    life=$((QUERIES * 6 + 30))  # each exchange gives up after at most about 5 s
    timeout -k 5 "$life" "$chronyd" -x -d -u root -f "$(chrony_conf 123 127.0.0.5)" >"$bench_results/client-chrony.log" 2>&1 &
    chrony=$!
    ready=no
    for _ in $(seq 1 "$BENCH_READY_TRIES"); do
      if "$bench_native/SntpQuery" 127.0.0.5 -n 1 -t 1000 >/dev/null 2>&1; then ready=yes; break; fi
      kill -0 "$chrony" 2>/dev/null || break
      sleep 1  # a refused probe returns at once
    done
    if [ "$ready" = yes ]; then
      "$bench_native/SntpQuery" 127.0.0.5 -n "$QUERIES" -i 0 -t 2000 >"$bench_results/query" || true
      awk -v n="$QUERIES" '
        /^[0-9]+  0 Ok / {
          for (i = 1; i < NF; i++) {
            if ($i == "offset") { o = $(i + 1) + 0; offsets[++good] = o < 0 ? -o : o }
            if ($i == "delay") delays[good] = $(i + 1) + 0
          }
        }
        function median(v, k,   i, j, t) {
          for (i = 2; i <= k; i++) for (j = i; j > 1 && v[j - 1] > v[j]; j--) { t = v[j]; v[j] = v[j - 1]; v[j - 1] = t }
          return k % 2 ? v[(k + 1) / 2] : (v[k / 2] + v[k / 2 + 1]) / 2
        }
        END {
          if (good == 0) { print "client: no exchange succeeded of " n; exit }
          printf "client: %d of %d exchanges good  |offset| median %.3f ms  max %.3f ms", good, n, median(offsets, good), offsets[good]
          printf "  delay median %.3f ms  max %.3f ms\n", median(delays, good), delays[good]
        }' "$bench_results/query"
    else
      echo "client: chronyd never answered; its last output:"
      tail -n 5 "$bench_results/client-chrony.log" | sed 's/^/  /'
    fi
    kill "$chrony" 2>/dev/null || true
    wait "$chrony" 2>/dev/null || true
  fi
fi

# ---------------------------------------------------------------------------------------------
# proc_sample PID: "CPU_TICKS RSS_KB" of a process (utime + stime from its stat, VmRSS).
proc_sample() {
  # The command name may hold spaces: the fields are counted after its closing parenthesis.
  ticks=$(sed 's/^.*) //' "/proc/$1/stat" 2>/dev/null | awk '{print $12 + $13}')
  rss=$(awk '/^VmRSS:/ {print $2}' "/proc/$1/status" 2>/dev/null || true)
  echo "${ticks:-0} ${rss:-0}"
}

# idle_line LABEL PID START_SAMPLE END_SAMPLE
idle_line() {
  awk -v label="$1" -v pid="$2" -v hz="$(getconf CLK_TCK)" -v s="$IDLE_SECONDS" -v a="$3" -v b="$4" 'BEGIN {
    split(a, x, " "); split(b, y, " ")
    cpu = (y[1] - x[1]) / hz
    printf "%s: %.2f CPU s in %d s (%.3f %% of a core), VmRSS %d kB at start, %d kB at end (pid %s)\n",
           label, cpu, s, 100 * cpu / s, x[2], y[2], pid
  }'
}

if wants idle; then
  echo "== 3. idle cost of the server"
  idle_port=$((BENCH_PORT + 1))
  if [ "$bench_kinds" = native ]; then
    echo "idle: skipped: no Wine or MinGW here"
  else
    echo "method: SntpServe idle (one probe, then no request) for $IDLE_SECONDS s on 127.0.0.1 UDP $idle_port" \
         "(wine) and $((idle_port + 1)) (native) side by side; Windows build under Wine in a fresh prefix" \
         "($idle_prefix) with its own wineserver (which also serves the prefix's own Wine processes);" \
         "CPU = utime+stime of /proc/PID/stat over the window (10 ms ticks), memory = VmRSS at its start and end"
    # The server of a prefix settles in the prefix's directory, so that must exist first.
    rm -rf "$idle_prefix"
    mkdir -p "$idle_prefix"
    export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
    # Our own wineserver in the foreground, so its process id is known and it is the prefix's.
    WINEPREFIX="$idle_prefix" /usr/lib/wine/wineserver -f -p >/dev/null 2>&1 &
    idle_wineserver=$!
    WINEPREFIX="$idle_prefix" "$bench_wine" wineboot -i >/dev/null 2>&1 || true
    life=$((IDLE_SECONDS + BENCH_READY_TRIES + 10))
    WINEPREFIX="$idle_prefix" "$bench_wine" "$bench_windows/SntpServe.exe" -p "$idle_port" -s "$life" \
      >"$bench_results/idle-wine.log" 2>&1 &
    idle_wine=$!
    "$bench_native/SntpServe" -p "$((idle_port + 1))" -s "$life" >"$bench_results/idle-native.log" 2>&1 &
    idle_native=$!
    if bench_ready "$idle_wine" "$idle_port" && bench_ready "$idle_native" "$((idle_port + 1))"; then
      # The Wine loader becomes the Windows process: same process id, named after the program.
      echo "(wine process: pid $idle_wine, $(cat "/proc/$idle_wine/comm"))"
      w0=$(proc_sample "$idle_wine"); n0=$(proc_sample "$idle_native"); s0=$(proc_sample "$idle_wineserver")
      sleep "$IDLE_SECONDS"
      for pid in "$idle_wine" "$idle_native" "$idle_wineserver"; do
        [ -d "/proc/$pid" ] || echo "idle: process $pid ended inside the window: its figures below are void"
      done
      w1=$(proc_sample "$idle_wine"); n1=$(proc_sample "$idle_native"); s1=$(proc_sample "$idle_wineserver")
      idle_line "wine (SntpServe.exe)" "$idle_wine" "$w0" "$w1"
      idle_line "wine (its wineserver)" "$idle_wineserver" "$s0" "$s1"
      idle_line "native (SntpServe)" "$idle_native" "$n0" "$n1"
    else
      echo "idle: a server never answered; last output:"
      tail -n 5 "$bench_results/idle-wine.log" "$bench_results/idle-native.log" | sed 's/^/  /'
    fi
    kill "$idle_wine" "$idle_native" 2>/dev/null || true
    wait "$idle_wine" "$idle_native" 2>/dev/null || true
    idle_wine=""
    idle_native=""
  fi
fi

# ---------------------------------------------------------------------------------------------
if wants fuzz; then
  echo "== 4. fuzzing so far"
  echo "method: sum of fuzz/hours.log, one line per target run appended by scripts/fuzz.sh" \
       "(libFuzzer with ASan+UBSan, each target from its kept corpus)"
  awk '!/^#/ && NF >= 4 {
         seconds += $3; runs += 1; executions += $4; per[$2] += $3; perx[$2] += $4
         if (NF >= 5) { cpu += $5; perc[$2] += $5 }
         if (first == "" || $1 < first) first = $1
         if ($1 > last) last = $1
       }
       END {
         if (runs == 0) { print "fuzz: no runs recorded yet"; exit }
         printf "fuzz: %.2f h (%d s) in %d target runs, %.0f executions, %s .. %s; %d CPU seconds where logged\n",
                seconds / 3600, seconds, runs, executions, first, last, cpu
         for (t in per) printf "  %s: %d s, %.0f executions, %d CPU seconds where logged\n", t, per[t], perx[t], perc[t]
       }' "$bench_root/fuzz/hours.log"
fi

echo "== figures took $((SECONDS - started)) s"
