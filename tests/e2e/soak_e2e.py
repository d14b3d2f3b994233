#!/usr/bin/env python3
"""A soak of NorvikTime.exe as the installation's server under Wine: a steady load of version-3
requests from 20 loopback clients, and the field query tool (SntpQuery.exe, the client's own
exchange) asking every 10 s, for a set time. Samples the service process's resident memory,
threads and open file descriptors (Wine's host side of its handles to files, sockets, events)
every 30 s and prints them; at the end none may have grown beyond a page-cache margin, every
query must have succeeded and no trouble may have been reported.

Usage: soak_e2e.py --build <windows build directory> [--minutes M] [unittest arguments]
(scripts/soak.sh runs it for 30 minutes; the test run uses the short default.)
"""

import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import winerig  # noqa: E402
from winerig import RUNNING, RigTestCase  # noqa: E402

MINUTES = float(os.environ.get("NORVIK_SOAK_MINUTES", "1.5"))
LOAD_CLIENTS = 20
QUERY_EVERY_S = 10
SAMPLE_EVERY_S = 30
RSS_MARGIN_KB = 4096  # Wine maps pages lazily; growth beyond this is a leak
FD_MARGIN = 4


def process_figures(pid):
    return {"rss_kb": winerig.resident_kb(pid), "threads": len(os.listdir(f"/proc/{pid}/task")),
            "fds": len(os.listdir(f"/proc/{pid}/fd"))}


class ServiceSoak(RigTestCase):
    prefix_name = "soak-prefix"

    def test_steady_load_leaves_memory_threads_and_handles_flat(self):
        rig = self.rig
        monitor = self.start_server_role()
        pid = winerig.service_pid(rig)
        self.assertIsNotNone(pid)

        seconds = MINUTES * 60
        load = winerig.SteadyLoad(LOAD_CLIENTS, seconds + 60)
        self.cleanups.append(load.stop)
        query = winerig.find_file(rig.build, "SntpQuery.exe")
        time.sleep(5)  # past the first requests, which map the server's pages
        start = process_figures(pid)
        print(f"\nsoak: {MINUTES:g} min; start {start}", flush=True)
        samples, queries, failed = [start], 0, []
        began = time.monotonic()
        next_sample = began + SAMPLE_EVERY_S
        while time.monotonic() - began < seconds:
            result = rig.wine(query, "127.0.0.1", "-n", "1", "-t", "2000", timeout=60)
            queries += 1
            if result.returncode != 0 or " Ok " not in result.stdout:
                failed.append(result.stdout.strip())
            if time.monotonic() >= next_sample:
                samples.append(process_figures(pid))
                print(f"soak: {time.monotonic() - began:5.0f} s {samples[-1]}  load {load.answered}/{load.sent}",
                      flush=True)
                next_sample += SAMPLE_EVERY_S
            time.sleep(QUERY_EVERY_S)
        load.stop()
        end = process_figures(pid)
        print(f"soak: end {end}; {queries} queries, {len(failed)} failed; load answered "
              f"{load.answered} of {load.sent}", flush=True)

        self.assertEqual(RUNNING, rig.state())
        self.assertEqual([], failed)
        self.assertGreater(load.answered, 0.99 * load.sent)
        self.assertLess(end["rss_kb"] - start["rss_kb"], RSS_MARGIN_KB, samples)
        self.assertLessEqual(end["threads"], start["threads"], samples)
        self.assertLessEqual(end["fds"], start["fds"] + FD_MARGIN, samples)
        self.assertEqual([], monitor.snapshot())


if __name__ == "__main__":
    if "--minutes" in sys.argv:
        at = sys.argv.index("--minutes")
        MINUTES = float(sys.argv[at + 1])
        del sys.argv[at:at + 2]
    winerig.run_tests(__doc__)
