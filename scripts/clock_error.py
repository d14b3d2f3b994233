"""The client's time error as the operating system sees it: the service itself, in the client role
under Wine, against a fake server whose clock runs 5 s ahead of this host's. Wine refuses each
setting that far off and says how far from its clock the asked time was ("difference N ms"),
so N - 5000 is the service's error at the moment of setting. One sample per exchange; "command
128" restarts the client, whose next exchange comes 59..118 s later.

  python3 scripts/clock_error.py --build build/windows [--samples 5]
"""

import argparse
import os
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import winerig  # noqa: E402

AHEAD_MS = 5000
EXCHANGE_LATEST_S = 130


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True)
    parser.add_argument("--samples", type=int, default=5)
    arguments = parser.parse_args()
    rig = winerig.Rig(arguments.build, os.path.join(os.path.abspath(arguments.build), "clock-prefix"))
    rig.boot(fresh=True)
    server = winerig.FakeSntpServer("127.0.0.2", "good", ahead=AHEAD_MS / 1000.0)
    errors = []
    try:
        rig.write_setting("127.0.0.2")
        code, output = rig.norvik("install")
        if output != "Service successfully added...":
            raise SystemExit(f"install: {output}")
        for sample in range(arguments.samples):
            deadline = time.monotonic() + EXCHANGE_LATEST_S
            while len(rig.clock_settings()) <= sample and time.monotonic() < deadline:
                time.sleep(0.5)
            settings = rig.clock_settings()
            if len(settings) <= sample:
                raise SystemExit("no clock setting within the start delay")
            errors.append(settings[sample] - AHEAD_MS)
            print(f"sample {sample + 1}: set {errors[-1]:+d} ms from the server's time", flush=True)
            rig.norvik("command", "128")
    finally:
        server.close()
        rig.remove_service()
        rig.shutdown()
    magnitudes = [abs(error) for error in errors]
    print(f"clock settings: {len(errors)}; |error| median {statistics.median(magnitudes)} ms, "
          f"max {max(magnitudes)} ms (Wine reports whole milliseconds; SetSystemTime keeps whole "
          f"milliseconds)")


if __name__ == "__main__":
    main()
