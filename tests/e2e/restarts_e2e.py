"""Restarts at any moment, under load, in the default installation: no Vantor.dat, so the service
is the server and the minute's re-check restarts it once a minute, while clients ask without
pause and the operator's "command 128" comes at random moments: right after the service reports
running (before synchronisation has started), in the middle of another restart, and anywhere
else. After every restart the server answers again within seconds; the process's threads come
back to their resting number and its handles stay flat; no trouble but the restarts' clears
reaches the workstation; and the stop completes.

RESTART_MINUTES (default 3) sets how long the restarts go on; scripts/restarts.sh runs an hour.
"""

import os
import random
import threading
import time

import winerig
from winerig import RUNNING, SERVICE, STOPPED, report_text, resident_kb, service_pid, wait_for_server

LOAD_CLIENTS = 20
ANSWER_AGAIN_SECONDS = 10
HANDLE_SLACK = 4  # a handle or two comes and goes with the load and the re-check


def linux_counts(pid):
    return len(os.listdir(f"/proc/{pid}/task")), len(os.listdir(f"/proc/{pid}/fd"))


class RestartsUnderLoad(winerig.RigTestCase):
    prefix_name = os.environ.get("RESTART_PREFIX", "restarts-prefix")

    def resting(self):
        """(threads, handles) once a restart has settled: the same twice in a row."""
        rig = self.rig
        last = None
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline:
            now = rig.probe()
            if now is not None and now == last:
                return now
            last = now
            time.sleep(2)
        return last

    def test_control_128_at_random_moments_under_load(self):
        rig = self.rig
        minutes = float(os.environ.get("RESTART_MINUTES", "3"))
        seed = int(os.environ.get("RESTART_SEED", str(int(time.time()))))
        print(f"restarts: seed {seed}, {minutes} minutes", flush=True)
        chance = random.Random(seed)
        monitor = self.monitor()
        self.install_running()
        # Between "running" and the first start of synchronisation.
        self.assertEqual((0, "Service command performed..."), rig.norvik("command", "128"))
        wait_for_server("127.0.0.1", 20)
        load = winerig.SteadyLoad(LOAD_CLIENTS, minutes * 60 + 180)
        self.cleanups.append(load.stop)
        rest = self.resting()
        self.assertIsNotNone(rest, "the service cannot be probed")
        pid = service_pid(rig)
        start_linux = linux_counts(pid)
        start_kb = resident_kb(pid)

        restarts = overlapping = 0
        slowest = 0.0
        deadline = time.monotonic() + minutes * 60
        while time.monotonic() < deadline:
            time.sleep(chance.uniform(0.0, 5.0))
            overlap = None
            if chance.random() < 0.25:
                # A second control while the first restart is under way.
                overlap = threading.Thread(target=rig.norvik, args=("command", "128"))
                overlap.start()
                time.sleep(chance.uniform(0.1, 1.0))
                overlapping += 1
            self.assertEqual((0, "Service command performed..."), rig.norvik("command", "128"))
            restarts += 1
            if overlap is not None:
                overlap.join(timeout=60)
            began = time.monotonic()
            wait_for_server("127.0.0.1", ANSWER_AGAIN_SECONDS)
            slowest = max(slowest, time.monotonic() - began)
            self.assertEqual(RUNNING, rig.state())

        answered = load.answered
        time.sleep(2)
        self.assertGreater(load.answered, answered, "no answers after the restarts")
        end = self.resting()
        end_linux = linux_counts(pid)
        end_kb = resident_kb(pid)
        print(f"restarts: {restarts} by command 128 ({overlapping} overlapping another), plus the "
              f"minute's re-checks; slowest answer again {slowest:.1f} s; answered {load.answered} of "
              f"{load.sent} requests; threads/handles {rest} -> {end}; Linux tasks/fds {start_linux} -> "
              f"{end_linux}; VmRSS {start_kb} -> {end_kb} kB", flush=True)
        self.assertEqual(rest[0], end[0], "threads do not come back to their resting number")
        self.assertLessEqual(end[1], rest[1] + HANDLE_SLACK, "handles grow with the restarts")
        raised = [report["text"] for report in monitor.snapshot() if report["state"] == 255]
        self.assertEqual([], raised, "troubles raised by the restarts")

        began = time.monotonic()
        rig.sc("stop", SERVICE)
        rig.wait_state(STOPPED, timeout=15)
        print(f"restarts: stop completed in {time.monotonic() - began:.1f} s", flush=True)
        load.stop()


if __name__ == "__main__":
    winerig.run_tests(__doc__)
