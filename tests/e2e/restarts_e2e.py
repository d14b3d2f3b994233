#!/usr/bin/env python3
"""Control 128 at random moments under load in the default installation (the server, also restarted by
the minute's re-check). RESTART_MINUTES (default 3) sets how long; scripts/restarts.sh runs an hour."""

import os, random, re, threading, time

import winerig
from winerig import PERFORMED, SERVICE, STOPPED, linux_figures, wait_for_server


class RestartsUnderLoad(winerig.RigTestCase):
    prefix_name = os.environ.get("RESTART_PREFIX", "restarts-prefix")

    def resting(self):
        """Threads and handles as Windows counts them, once the same twice in a row."""
        now = None
        for _ in range(15):
            probe = self.rig.wine(winerig.PROBE, "NorvikTime.exe")
            match = re.search(r"threads (\d+) handles (\d+)", probe.stdout)
            last = now
            now = {"threads": int(match.group(1)), "handles": int(match.group(2))} if match else None
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
        early = rig.norvik("command", "128")  # before synchronisation starts
        self.assertEqual(PERFORMED, early)
        wait_for_server("127.0.0.1", 20)
        load = winerig.SteadyLoad(20, minutes * 60 + 180)
        self.addCleanup(load.stop)
        pid = winerig.service_pid(rig)
        rest = self.resting()
        start = linux_figures(pid)
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
            restarted = rig.wine(winerig.EXE, "command", "128")
            self.assertEqual(PERFORMED, (restarted.returncode, restarted.stdout), restarted.stderr)
            restarts += 1
            if overlap is not None:
                overlap.join(timeout=60)
            began = time.monotonic()
            wait_for_server("127.0.0.1", 10)
            slowest = max(slowest, time.monotonic() - began)
        end = self.resting()
        print(f"restarts: {restarts} by command 128 ({overlapping} overlapping another), plus the minute's "
              f"re-checks; slowest answer again {slowest:.1f} s; answered {load.answered} of {load.sent} requests; "
              f"threads/handles {rest} -> {end}; Linux {start} -> {linux_figures(pid)}", flush=True)
        self.assertEqual(rest["threads"], end["threads"], "threads come back to their resting number")
        self.assertLessEqual(end["handles"], rest["handles"] + 4, "handles stay flat")  # slack: load, re-check
        raised = [report["text"] for report in monitor.snapshot() if report["state"] == 255]
        self.assertEqual([], raised, "no trouble raised")
        rig.sc("stop", SERVICE)
        rig.wait_state(STOPPED, timeout=15)


if __name__ == "__main__":
    winerig.run_tests(__doc__)
