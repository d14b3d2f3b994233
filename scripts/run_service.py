#!/usr/bin/env python3
"""Runs the built service under Wine's service control manager until Ctrl-C (see run.sh)."""

import argparse
import os
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
from winerig import MONITOR, RUNNING, SERVICE, WINE, Rig, chrony_query, wait_for_server  # noqa: E402


def say(text):
    print(f"== {text}", flush=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--seconds", type=float, default=None, help="end by itself after this long")
    arguments = parser.parse_args()
    build = os.path.abspath(arguments.build)

    rig = Rig(build, os.path.join(build, "run-prefix"))
    say(f"Wine prefix {rig.prefix} with the installation under C:\\Norvik")
    rig.boot(fresh=True)
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
        say("troubles as the workstation receives them follow; Ctrl-C stops and removes the service")
        deadline = None if arguments.seconds is None else time.monotonic() + arguments.seconds
        while deadline is None or time.monotonic() < deadline:
            time.sleep(0.5)
    except KeyboardInterrupt:
        pass
    finally:
        say("stopping and removing the service")
        rig.sc("stop", SERVICE)
        code, output = rig.norvik("uninstall")
        print(output, flush=True)
        if monitor is not None:
            monitor.terminate()
        rig.shutdown()
    return 0


if __name__ == "__main__":
    sys.exit(main())
