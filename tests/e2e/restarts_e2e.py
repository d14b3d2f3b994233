#!/usr/bin/env python3
"""Restarts at any moment under load in the default installation (the server, also restarted by the
minute's re-check): "command 128" right after start, amid another restart, anywhere. The server answers
again within seconds, threads come back to rest, handles stay flat, no trouble is raised, the stop
completes. RESTART_MINUTES (default 3) sets how long; scripts/restarts.sh runs an hour."""

import os, random, re, threading, time

import winerig
from winerig import PERFORMED, RUNNING, SERVICE, STOPPED, linux_figures, wait_for_server


class RestartsUnderLoad(winerig.RigTestCase):
    prefix_name = os.environ.get("RESTART_PREFIX", "restarts-prefix")

    def resting(self):
        """(threads, handles) of the service as Windows counts them, the same twice in a row or the last seen."""
        now = None
        for _ in range(15):
            match = re.search(r"threads (\d+) handles (\d+)", self.rig.wine(winerig.PROBE, "NorvikTime.exe").stdout)
            last, now = now, match and (int(match.group(1)), int(match.group(2)))
            if now is not None and now == last:
                break
            time.sleep(2)
        return now

    def test_control_128_at_random_moments_under_load(self):
        rig = self.rig
        minutes = float(os.environ.get("RESTART_MINUTES", "3"))
        seed = int(os.environ.get("RESTART_SEED", str(int(time.time()))))
        print(f"restarts: seed {seed}, {minutes} minutes", flush=True)
        chance = random.Random(seed)
        monitor = self.monitor()
        self.install_running()
        self.assertEqual(PERFORMED, rig.norvik("command", "128"))  # before synchronisation starts
        wait_for_server("127.0.0.1", 20)
        self.addCleanup((load := winerig.SteadyLoad(20, minutes * 60 + 180)).stop)
        rest, start = self.resting(), linux_figures(pid := winerig.service_pid(rig))
        restarts = overlapping = slowest = 0
        deadline = time.monotonic() + minutes * 60
        while time.monotonic() < deadline:
            time.sleep(chance.uniform(0.0, 5.0))
            overlap = None
            if chance.random() < 0.25:  # a second control while the first restart is under way
                overlap = threading.Thread(target=rig.norvik, args=("command", "128"))
                overlap.start()
                time.sleep(chance.uniform(0.1, 1.0))
                overlapping += 1
            self.assertEqual(PERFORMED, rig.norvik("command", "128"))
            restarts += 1
            if overlap is not None:
                overlap.join(timeout=60)
            began = time.monotonic()
            wait_for_server("127.0.0.1", 10)
            slowest = max(slowest, time.monotonic() - began)
            self.assertEqual(RUNNING, rig.state())
        answered = load.answered
        time.sleep(2)
        self.assertGreater(load.answered, answered, "no answers after the restarts")
        end = self.resting()
        print(f"restarts: {restarts} by command 128 ({overlapping} overlapping another), plus the minute's "
              f"re-checks; slowest answer again {slowest:.1f} s; answered {load.answered} of {load.sent} requests; "
              f"threads/handles {rest} -> {end}; Linux {start} -> {linux_figures(pid)}", flush=True)
        self.assertEqual(rest[0], end[0], "threads do not come back to their resting number")
        self.assertLessEqual(end[1], rest[1] + 4, "handles grow with the restarts")  # slack: load, re-check
        self.assertEqual([], [r["text"] for r in monitor.snapshot() if r["state"] == 255], "troubles raised")
        rig.sc("stop", SERVICE), rig.wait_state(STOPPED, timeout=15)


if __name__ == "__main__":
    winerig.run_tests(__doc__)
