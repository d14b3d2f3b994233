#!/usr/bin/env python3
"""Runs the built service under Wine's service control manager until Ctrl-C (see run.sh); every
QUERY_EVERY_S it shows the service alive with one SntpQuery exchange (time, offset, delay)."""

import argparse
import glob
import os
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
from winerig import (CHRONY_QUIET, CHRONYD, MONITOR, NOT_INSTALLED, RUNNING, SERVICE, SYSTEM_DIR,  # noqa: E402
                     TIME_DIR, WINE, Rig, wait_for_server)

PROGRAMS = ("NorvikTime.exe", "TroubleMonitor.exe", "SntpQuery.exe")
QUERY_EVERY_S = 30


def chrony_query(address, timeout=30):
    """chrony as a version-3 client that never sets the clock."""
    with tempfile.TemporaryDirectory(prefix="norvik-chrony-") as workdir:
        result = subprocess.run([CHRONYD, "-Q", "-t", "10", "-u", "root", f"pidfile {workdir}/chronyd.pid", *CHRONY_QUIET,
                                 f"server {address} iburst version 3"], capture_output=True, text=True, timeout=timeout)
    return result.returncode, result.stdout + result.stderr


def say(text):
    print(f"== {text}", flush=True)


def show_query(rig):
    """One exchange with the service through SntpQuery; prints its line without the number."""
    result = rig.wine(TIME_DIR + "\\SntpQuery.exe", "127.0.0.1", "--timeout", "2000", timeout=60)
    lines = result.stdout.strip().split("\n")
    line = lines[0].split("  ", 1)[-1] if lines and lines[0] else f"no output (exit {result.returncode})"
    say(f"{time.strftime('%H:%M:%S')} SntpQuery 127.0.0.1: {line}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--seconds", type=float, default=None, help="end by itself after this long")
    arguments = parser.parse_args()
    build = os.path.abspath(arguments.build)

    rig = Rig(build, os.path.join(build, "run-prefix"))
    say(f"Wine prefix {rig.prefix} with the installation under C:\\Norvik")
    rig.boot(fresh=True, programs=PROGRAMS)
    for library in glob.glob(os.path.join(build, "config", "res*.dll")):
        if os.path.basename(library)[3:-4].isdigit():
            shutil.copy(library, rig.host_path(SYSTEM_DIR + "\\" + os.path.basename(library)))
    monitor = None
    try:
        monitor = subprocess.Popen([WINE, MONITOR], env=rig.env)
        time.sleep(2)
        say("NorvikTime.exe install")
        code, output = rig.norvik("install")
        print(output, flush=True)
        rig.wait_state(RUNNING)
        print(rig.sc("query", SERVICE).stdout, flush=True)
        say("waiting for the SNTP server on 127.0.0.1:123")
        wait_for_server("127.0.0.1", 30)
        say("chronyd -Q (a version-3 SNTP client that never sets the clock) asks the service")
        code, output = chrony_query("127.0.0.1")
        print(output.strip(), flush=True)
        say(f"troubles as the workstation receives them follow, and a query every {QUERY_EVERY_S} s;"
            " Ctrl-C stops and removes the service")
        show_query(rig)
        deadline = None if arguments.seconds is None else time.monotonic() + arguments.seconds
        next_query = time.monotonic() + QUERY_EVERY_S
        while deadline is None or time.monotonic() < deadline:
            time.sleep(0.5)
            if time.monotonic() >= next_query:
                show_query(rig)
                next_query += QUERY_EVERY_S
    except KeyboardInterrupt:
        pass
    finally:
        say("stopping and removing the service")
        code, output = rig.norvik("uninstall")
        print(output, flush=True)
        try:
            rig.wait_state(NOT_INSTALLED, timeout=30)
        except AssertionError as error:
            print(error, flush=True)
        if monitor is not None:
            monitor.terminate()
        rig.shutdown()
    return 0


if __name__ == "__main__":
    sys.exit(main())
