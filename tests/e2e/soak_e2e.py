#!/usr/bin/env python3
"""A soak of NorvikTime.exe as the installation's server under Wine: a steady load of version-3
requests from 20 loopback clients, the field query tool (SntpQuery.exe, the client's own
exchange) asking every 10 s, and a second NorvikTime.exe in a prefix of its own running as that
server's client on its real schedule (first exchange 59..118 s after its start, the next a day
later), for a set time. The client names a relay on 127.0.0.99 that passes its exchanges to the
server and records them (see winerig.SntpRelay).

Samples both services' resident memory, threads and open file descriptors (Wine's host side of
their handles to files, sockets, events) every 30 s and prints them; at the end none may have
grown beyond a page-cache margin, every query must have succeeded, the client must have made
exactly its first exchange and had it answered, and neither service may have reported a trouble.

Usage: soak_e2e.py --build <windows build directory> [--minutes M] [unittest arguments]
(scripts/soak.sh runs it for 30 minutes; the test run uses the short default, lengthened where
needed to take in the client's first exchange.)
"""

import os
import struct
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import winerig  # noqa: E402
from winerig import RUNNING, RigTestCase  # noqa: E402

MINUTES = float(os.environ.get("NORVIK_SOAK_MINUTES", "1.5"))
LOAD_CLIENTS = 20  # on 127.0.0.2 .. 127.0.0.21
RELAY_ADDRESS = "127.0.0.99"
QUERY_EVERY_S = 10
SAMPLE_EVERY_S = 30
RSS_MARGIN_KB = 4096  # Wine maps pages lazily; growth beyond this is a leak
FD_MARGIN = 4
# The client's first exchange: 59..118 s after its thread starts, widened for the start itself.
FIRST_EXCHANGE_EARLIEST = 59 - 1
FIRST_EXCHANGE_LATEST = 118 + 6


def process_figures(pid):
    return {"rss_kb": winerig.resident_kb(pid), "threads": len(os.listdir(f"/proc/{pid}/task")),
            "fds": len(os.listdir(f"/proc/{pid}/fd"))}


class ServiceSoak(RigTestCase):
    prefix_name = "soak-prefix"

    def start_client_instance(self):
        """A second installation, in its own prefix, whose Vantor.dat names the relay. Returns
        its rig, its trouble monitor and the moment it reported running."""
        client = winerig.Rig(self.rig.build, os.path.join(self.rig.build, "soak-client-prefix"))
        self.cleanups.append(client.shutdown)
        self.cleanups.append(client.remove_service)
        client.boot(fresh=True)
        client.write_setting(RELAY_ADDRESS)
        monitor = winerig.Monitor(client)
        self.cleanups.append(monitor.stop)
        self.assertEqual((0, "Service successfully added..."), client.norvik("install"))
        client.wait_state(RUNNING)
        return client, monitor, time.monotonic()

    def assert_flat(self, name, start, end, samples):
        self.assertLess(end["rss_kb"] - start["rss_kb"], RSS_MARGIN_KB, f"{name}: {samples}")
        self.assertLessEqual(end["threads"], start["threads"], f"{name}: {samples}")
        self.assertLessEqual(end["fds"], start["fds"] + FD_MARGIN, f"{name}: {samples}")

    def test_steady_load_leaves_memory_threads_and_handles_flat(self):
        rig = self.rig
        monitor = self.start_server_role()
        pid = winerig.service_pid(rig)
        self.assertIsNotNone(pid)
        relay = winerig.SntpRelay(RELAY_ADDRESS, "127.0.0.1")
        self.cleanups.append(relay.close)
        client, client_monitor, client_started = self.start_client_instance()
        client_pid = winerig.service_pid(client)
        self.assertIsNotNone(client_pid)

        seconds = max(MINUTES * 60, client_started + FIRST_EXCHANGE_LATEST + 10 - time.monotonic())
        load = winerig.SteadyLoad(LOAD_CLIENTS, seconds + 60)
        self.cleanups.append(load.stop)
        query = winerig.find_file(rig.build, "SntpQuery.exe")
        time.sleep(5)  # past the first requests, which map the server's pages
        start = process_figures(pid)
        client_start = process_figures(client_pid)
        print(f"\nsoak: {seconds / 60:.1f} min; server {start}; client {client_start}", flush=True)
        samples, client_samples, queries, failed = [start], [client_start], 0, []
        began = time.monotonic()
        next_sample = began + SAMPLE_EVERY_S
        while time.monotonic() - began < seconds:
            result = rig.wine(query, "127.0.0.1", "-n", "1", "-t", "2000", timeout=60)
            queries += 1
            if result.returncode != 0 or " Ok " not in result.stdout:
                failed.append(result.stdout.strip())
            if time.monotonic() >= next_sample:
                samples.append(process_figures(pid))
                client_samples.append(process_figures(client_pid))
                print(f"soak: {time.monotonic() - began:5.0f} s server {samples[-1]} client {client_samples[-1]}"
                      f"  load {load.answered}/{load.sent}  client exchanges {len(relay.snapshot())}",
                      flush=True)
                next_sample += SAMPLE_EVERY_S
            time.sleep(QUERY_EVERY_S)
        load.stop()
        end = process_figures(pid)
        client_end = process_figures(client_pid)
        exchanges = relay.snapshot()
        print(f"soak: end server {end} client {client_end}; {queries} queries, {len(failed)} failed; "
              f"load answered {load.answered} of {load.sent}; client exchanges "
              f"{[round(arrived - client_started) for arrived, _, _ in exchanges]} s after its start",
              flush=True)

        self.assertEqual(RUNNING, rig.state())
        self.assertEqual([], failed)
        self.assertGreater(load.answered, 0.99 * load.sent)
        self.assert_flat("server", start, end, samples)
        self.assertEqual([], monitor.snapshot())

        # The client keeps its schedule: one exchange in the start-delay window, none after it
        # for a day; the server's answer satisfies it, so it reports nothing.
        self.assertEqual(1, len(exchanges), exchanges)
        arrived, request, answer = exchanges[0]
        self.assertGreaterEqual(arrived - client_started, FIRST_EXCHANGE_EARLIEST)
        self.assertLessEqual(arrived - client_started, FIRST_EXCHANGE_LATEST)
        self.assertEqual(0x1B, request[0])
        self.assertIsNotNone(answer)
        self.assertEqual((0x1C, 1, b"LOCL"), (answer[0], answer[1], answer[12:16]))
        self.assertEqual(request[40:48], answer[24:32])
        receive, transmit = struct.unpack(">QQ", answer[32:48])
        self.assertLessEqual(receive, transmit)
        self.assertEqual(RUNNING, client.state())
        self.assert_flat("client", client_start, client_end, client_samples)
        self.assertEqual([], client_monitor.snapshot())


if __name__ == "__main__":
    if "--minutes" in sys.argv:
        at = sys.argv.index("--minutes")
        MINUTES = float(sys.argv[at + 1])
        del sys.argv[at:at + 2]
    winerig.run_tests(__doc__)
