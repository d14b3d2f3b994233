#!/usr/bin/env python3
"""Faults met by a running NorvikTime.exe under Wine's real service control manager: a flood of
malformed and oversized datagrams, a settings file that is truncated, garbled, deleted and
restored, restarts and a stop while clients keep asking, and a workstation application that is
not listening. The service must keep running (or stop when told), keep answering, and report
exactly the troubles they should. Traffic stays on 127.0.0.0/8.

Usage: faults_e2e.py --build <windows build directory> [unittest arguments]
"""

import os
import pathlib
import random
import socket
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import winerig  # noqa: E402
from winerig import (RUNNING, SERVICE, STOPPED, RigTestCase, probe_server, report_text, resident_kb,  # noqa: E402
                     service_pid, sntp_request, wait_for_server)

FLOOD_DATAGRAMS = 20000
PEER_LIMIT = 201  # distinct clients the server answers within five seconds
EXTRA_CLIENTS = 49
LOAD_CLIENTS = 4
# Growth of the service's resident memory that a flood may cause without counting as a leak:
# Wine maps pages lazily, so the first seconds of any traffic add a little.
FLOOD_RSS_GROWTH_KB = 4096


class ServiceFaults(RigTestCase):
    prefix_name = "faults-prefix"

    def test_flood_of_bad_datagrams_leaves_the_server_answering(self):
        monitor = self.start_server_role()
        pid = service_pid(self.rig)
        self.assertIsNotNone(pid)
        warm = sum(sntp_request("127.0.0.1")[0] is not None for _ in range(50))
        self.assertEqual(50, warm)
        before = resident_kb(pid)

        generator = random.Random(123)  # the same flood on every run
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
            for index in range(FLOOD_DATAGRAMS):
                kind = index % 4
                if kind == 0:  # random bytes, any length up to the largest datagram
                    size = generator.choice((0, 1, 47, 49, 512, 1472, 8192, 65507))
                    payload = bytes(generator.getrandbits(8) for _ in range(min(size, 64))) * (size // 64 + 1)
                    payload = payload[:size]
                elif kind == 1:  # a well-formed size with a version the server refuses
                    payload = bytes([generator.choice((0x03, 0x0B, 0x23, 0x2B, 0xFB))]) + bytes(47)
                elif kind == 2:  # modes other than client and symmetric-active
                    payload = bytes([0x18 | generator.choice((0, 2, 4, 5, 6, 7))]) + bytes(47)
                else:  # a request one byte too long
                    payload = bytes([0x1B]) + bytes(48)
                try:
                    sock.sendto(payload, ("127.0.0.1", 123))
                except OSError:
                    pass  # a full send buffer drops the datagram, as a network would
                if index % 500 == 499:
                    time.sleep(0.05)  # lets the server drain, so that the flood reaches it

        answer = wait_for_server("127.0.0.1", 20)
        self.assertEqual(0x1C, answer[0])
        self.assertEqual(RUNNING, self.rig.state())
        self.assertEqual(pid, service_pid(self.rig))
        after = resident_kb(pid)
        self.assertLess(after - before, FLOOD_RSS_GROWTH_KB, f"resident {before} kB -> {after} kB")
        time.sleep(1)
        self.assertEqual([], monitor.snapshot())  # bad datagrams raise nothing

    def test_more_clients_than_the_server_admits(self):
        """201 distinct clients within five seconds are served; the 202nd and later are not,
        until the earlier ones have been silent for more than five seconds."""
        self.start_server_role()
        time.sleep(8)  # the probe's address (127.0.0.1) ages out of the server's peers
        pid = service_pid(self.rig)
        before = resident_kb(pid)
        clients = []
        self.cleanups.append(lambda: [sock.close() for sock in clients])
        for host in range(2, 2 + PEER_LIMIT + EXTRA_CLIENTS):
            sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            sock.bind((f"127.0.0.{host}", 0))
            sock.setblocking(False)
            clients.append(sock)

        def round_of_requests(socks):
            """One request from each, in order (in small batches, so that none is lost to a
            full receive buffer); the indexes of those answered."""
            for index, sock in enumerate(socks):
                sock.sendto(bytes([0x1B]) + bytes(47), ("127.0.0.1", 123))
                if index % 20 == 19:
                    time.sleep(0.05)
            time.sleep(1.5)
            answered = set()
            for index, sock in enumerate(socks):
                try:
                    while sock.recv(512):
                        answered.add(index)
                except BlockingIOError:
                    pass
            return answered

        first_ones = set(range(PEER_LIMIT))
        self.assertEqual(first_ones, round_of_requests(clients))
        self.assertEqual(first_ones, round_of_requests(clients))  # still full: the same ones
        time.sleep(8)  # everyone silent for more than five seconds: all forgotten
        late = clients[PEER_LIMIT:]
        self.assertEqual(set(range(len(late))), round_of_requests(late))
        self.assertEqual(RUNNING, self.rig.state())
        after = resident_kb(pid)
        self.assertLess(after - before, FLOOD_RSS_GROWTH_KB, f"resident {before} kB -> {after} kB")

    def test_damaged_setting_keeps_the_role_and_a_restored_one_is_followed(self):
        rig = self.rig
        monitor = self.start_server_role()
        path = rig.host_path(winerig.DATA_DIR + "\\Vantor.dat")

        # Truncated, garbled, deleted: each reads as no usable address, so the address last
        # parsed stays in force and the server is never restarted: its port never closes. Slow
        # answers under a loaded machine prove nothing either way; a refusal proves a restart.
        self.wait_past_first_recheck()
        setting = pathlib.Path(path)
        damage = [lambda: setting.write_bytes(b""),
                  lambda: setting.write_bytes(bytes(range(256)) * 40 + b"\nSNTP_IP\n"),
                  setting.unlink]
        outcomes = {"answered": 0, "refused": 0, "silent": 0}
        for step in damage:
            step()
            phase_end = time.monotonic() + 22
            while time.monotonic() < phase_end:
                outcomes[probe_server("127.0.0.1")] += 1
                time.sleep(0.1)
        self.assertEqual(0, outcomes["refused"], f"the server was restarted while the file was damaged: {outcomes}")
        self.assertGreater(outcomes["answered"], 4 * outcomes["silent"], outcomes)
        self.assertEqual(RUNNING, rig.state())

        # Restored naming another machine: within about a minute the server gives way to the client.
        rig.write_setting("127.0.0.2")
        deadline = time.monotonic() + 75
        while sntp_request("127.0.0.1", timeout=0.5)[0] is not None and time.monotonic() < deadline:
            time.sleep(0.5)
        self.assertIsNone(sntp_request("127.0.0.1", timeout=1.0)[0], "still the server after 75 s")
        # And naming this host again: the server is back within about a minute.
        rig.write_setting("127.0.0.1")
        wait_for_server("127.0.0.1", 75)
        self.assertEqual(RUNNING, rig.state())
        self.assertEqual([], monitor.snapshot())  # role changes clear nothing that was not set

    def test_restarts_and_stop_while_clients_ask(self):
        rig = self.rig
        monitor = self.start_server_role()
        load = winerig.SteadyLoad(LOAD_CLIENTS, 60)
        self.cleanups.append(load.stop)
        for _ in range(5):
            self.assertEqual((0, "Service command performed..."), rig.norvik("command", "128"))
            self.assertEqual(RUNNING, rig.state())
        wait_for_server("127.0.0.1", 20)
        answered = load.answered
        time.sleep(2)
        self.assertGreater(load.answered, answered, "no answers after the restarts")
        # A second server thread left behind by a restart could not bind and would raise
        # "could not start"; none did.
        self.assertNotIn(report_text(8), [report["text"] for report in monitor.snapshot()])

        rig.sc("stop", SERVICE)
        rig.wait_state(STOPPED, timeout=15)
        load.stop()
        self.assertIsNone(sntp_request("127.0.0.1", timeout=1.0)[0], "answered after the stop")

    def test_trouble_raised_while_the_workstation_is_absent_is_lost_and_the_service_unaffected(self):
        holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        holder.bind(("0.0.0.0", 123))  # without SO_REUSEADDR: the server cannot bind
        self.cleanups.append(holder.close)
        self.rig.write_setting("127.0.0.1")
        self.install_running()
        time.sleep(5)  # "could not start" is raised and delivered to no one
        self.assertEqual(RUNNING, self.rig.state())

        monitor = self.monitor()
        holder.close()
        self.assertEqual((0, "Service command performed..."), self.rig.norvik("command", "128"))
        reports = monitor.wait_for(lambda r: len(r) >= 8, 30)
        # Only the clears of the restart arrive; the set report was lost with no one listening.
        self.assertEqual([(report_text(code), 0) for code in range(1, 9)],
                         [(report["text"], report["state"]) for report in reports])
        wait_for_server("127.0.0.1", 20)


if __name__ == "__main__":
    winerig.run_tests(__doc__)
