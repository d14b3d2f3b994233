#!/usr/bin/env python3
"""End-to-end tests of NorvikTime.exe under Wine's real service control manager: the command
words and their console texts, the server role against a real NTP implementation, troubles
through the workstation mailslot (and lost while no workstation listens), the client role's
schedule, the role change, and the takeover
from W32Time. Traffic stays on 127.0.0.0/8; Wine refuses SetSystemTime, so the host clock is
never touched.

Usage: service_e2e.py --build <windows build directory> [unittest arguments]
"""

import os
import socket
import struct
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import winerig  # noqa: E402
from winerig import (NOT_INSTALLED, RUNNING, SERVICE, STOPPED, FakeSntpServer, RigTestCase,  # noqa: E402
                     report_text, sntp_request, wait_for_server)

W32TIME_KEY = "HKLM\\System\\CurrentControlSet\\Services\\W32Time"

# The client's first exchange comes 59..118 s after its thread starts; the service itself
# needs a moment to start under Wine, so the window is widened by a few seconds at its end.
FIRST_EXCHANGE_EARLIEST = 59 - 1
FIRST_EXCHANGE_LATEST = 118 + 6


def texts(reports, state):
    return [report["text"] for report in reports if report["state"] == state]


class ServiceEndToEnd(RigTestCase):
    def test_command_words(self):
        rig = self.rig
        for word in ("127", "256", "abc"):
            self.assertEqual((0, "Invalid command..."), rig.norvik("command", word))
        self.assertEqual((0, ""), rig.norvik("command", "128"))  # no such service: silent
        self.assertEqual((0, "no service: 1060\n"), rig.norvik("uninstall"))

        self.install_running()
        self.assertIn("RUNNING", rig.sc("query", SERVICE).stdout)
        self.assertEqual((0, "no service: 1073\n"), rig.norvik("install"))
        self.assertEqual((0, "no service: 1073\n"), rig.norvik("INSTALL"))
        self.assertEqual((0, "Service command performed..."), rig.norvik("command", "128"))
        self.assertEqual((0, "Service command performed..."), rig.norvik("Command", "200"))
        self.assertEqual(RUNNING, rig.state())

        rig.sc("stop", SERVICE)
        rig.wait_state(STOPPED)
        self.assertIn("STOPPED", rig.sc("query", SERVICE).stdout)
        # A stopped service is sent nothing, and the command still reports success.
        self.assertEqual((0, "Service command performed..."), rig.norvik("command", "128"))
        code, output = rig.norvik("Uninstall")
        self.assertEqual(0, code)
        self.assertRegex(output, r"\Astopped : \d+\nService successfully removed\.\.\.\Z")
        rig.wait_state(NOT_INSTALLED)

        self.install_running()
        self.assertEqual((0, "Service successfully removed..."), rig.norvik("uninstall"))
        rig.wait_state(NOT_INSTALLED)

        # Without its number "command" starts the dispatcher, which fails silently from a console.
        self.assertEqual((0, ""), rig.norvik("command"))

        # A service that refuses the stop hears both refusals and stays installed.
        binary = f'"{winerig.STAND_IN}" "{SERVICE}" refuse-stop'
        self.assertEqual(0, rig.sc("create", SERVICE, "binpath=", binary, "start=", "demand").returncode)
        rig.sc("start", SERVICE)
        rig.wait_state(RUNNING)
        self.assertEqual((0, "no service : 1052\nno remove: 1052\n"), rig.norvik("uninstall"))
        self.assertEqual(RUNNING, rig.state())

    def test_server_role_answers_version_3_only(self):
        self.install_running()  # no Vantor.dat: the server role
        wait_for_server("127.0.0.1", 20)
        answer, stamp = sntp_request("127.0.0.1", poll=10)
        self.assertIsNotNone(answer)
        self.assertEqual(48, len(answer))
        self.assertEqual(0x1C, answer[0])
        self.assertEqual(1, answer[1])
        self.assertEqual(10, answer[2])
        self.assertEqual(0xFA, answer[3])
        self.assertEqual(b"LOCL", answer[12:16])
        self.assertEqual(stamp, struct.unpack(">Q", answer[24:32])[0])
        receive, transmit = struct.unpack(">QQ", answer[32:48])
        self.assertLessEqual(receive, transmit)
        self.assertEqual(0, transmit & 3)
        self.assertLess(abs((transmit >> 32) - winerig.NTP_UNIX_OFFSET - time.time()), 5)

        symmetric, _ = sntp_request("127.0.0.1", first_byte=0x19)
        self.assertEqual(0x1A, symmetric[0])
        for first_byte, length in ((0x23, 48), (0xDB, 48), (0x0B, 48), (0x1B, 47), (0x1B, 49)):
            answer, _ = sntp_request("127.0.0.1", first_byte=first_byte, length=length, timeout=1.5)
            self.assertIsNone(answer, f"answered 0x{first_byte:02X}, {length} bytes")

        code, output = winerig.chrony_query("127.0.0.1")
        self.assertEqual(0, code, output)
        self.assertRegex(output, r"System clock wrong by -?[0-9.]+ seconds")

    def test_port_taken_raises_trouble_8_and_control_128_clears(self):
        holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        holder.bind(("0.0.0.0", 123))  # without SO_REUSEADDR: no later wildcard bind succeeds
        self.cleanups.append(holder.close)
        monitor = self.monitor()
        self.install_running()
        reports = monitor.wait_for(lambda r: len(r) >= 1, 30)
        first = reports[0]
        self.assertEqual(("SNTP", 51, 7, 255, report_text(8)),
                         (first["source"], first["kind"], first["code"], first["state"], first["text"]))
        self.assertEqual([16, 3], first["header"])
        time.sleep(2)
        self.assertEqual(RUNNING, self.rig.state())
        self.assertEqual(1, len(monitor.snapshot()))

        holder.close()
        self.assertEqual((0, "Service command performed..."), self.rig.norvik("command", "128"))
        reports = monitor.wait_for(lambda r: len(texts(r, 0)) >= 8, 30)
        # Clears go out for every code from 1 up to the highest active one, in order.
        self.assertEqual([report_text(code) for code in range(1, 9)], texts(reports, 0))
        self.assertTrue(all(report["code"] == 7 for report in reports))
        wait_for_server("127.0.0.1", 20)

    def test_client_role_first_exchange_then_role_change_to_server(self):
        # The server's clock runs 5 s ahead of this host's, so Wine refuses the setting and says
        # how far off the asked time was: the service must ask for the server's time at the
        # moment of setting, within 2 ms. Wine cuts its figure to whole milliseconds toward zero,
        # hiding up to one more: so -3 is still a setting within 2 ms, and -1 or -2 is exact.
        server = FakeSntpServer("127.0.0.2", "good", ahead=5.0)
        settings_before = len(self.rig.clock_settings())
        self.cleanups.append(server.close)
        self.rig.write_setting("127.0.0.2")
        monitor = self.monitor()
        started = self.install_running()
        deadline = started + FIRST_EXCHANGE_LATEST + 5
        while not server.requests and time.monotonic() < deadline:
            time.sleep(0.2)
        self.assertTrue(server.requests, "no request within the start delay")
        arrived, request = server.requests[0]
        self.assertGreaterEqual(arrived - started, FIRST_EXCHANGE_EARLIEST)
        self.assertLessEqual(arrived - started, FIRST_EXCHANGE_LATEST)
        self.assertEqual(48, len(request))
        self.assertEqual(0x1B, request[0])
        self.assertEqual(bytes(39), request[1:40])
        time.sleep(1)
        self.assertEqual([], monitor.snapshot())  # a good answer raises nothing
        self.assertEqual(1, len(server.requests))  # the next one comes a day later
        settings = self.rig.clock_settings()[settings_before:]
        self.assertEqual(1, len(settings), "one clock setting, as Wine saw it")
        # A fake server that got to the request late (a loaded machine) makes the service's half
        # round trip too long by half of that: measured by the fake, taken off.
        late = server.lateness[0] * 1000 / 2
        error = settings[0] - 5000 - late
        self.assertTrue(-3 <= error <= 2, f"set {error:.1f} ms from the server's time ({late:.1f} ms late)")

        # The setting now names this host: within about a minute the service is the server.
        # The fake goes first: on Linux its port-123 socket on 127.0.0.2 would keep the
        # server's wildcard bind out, which no remote server on a real network does.
        server.close()
        self.rig.write_setting("127.0.0.1")
        wait_for_server("127.0.0.1", 75)

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

    def create_stand_in_w32time(self):
        """A demand-start W32Time that runs until stopped (the real one is not in Wine)."""
        rig = self.rig
        binary = f'"{winerig.STAND_IN}" W32Time'
        result = rig.sc("create", "W32Time", "binpath=", binary, "start=", "demand")
        self.assertEqual(0, result.returncode, result.stdout + result.stderr)
        rig.sc("start", "W32Time")
        rig.wait_state(RUNNING, name="W32Time")

    def remove_stand_in_w32time(self):
        self.rig.sc("stop", "W32Time")
        self.rig.sc("delete", "W32Time")
        self.rig.wait_state(NOT_INSTALLED, name="W32Time")

    def test_windows_time_takeover(self):
        rig = self.rig
        self.cleanups.append(self.remove_stand_in_w32time)
        self.create_stand_in_w32time()
        self.assertEqual(3, rig.registry_dword(W32TIME_KEY, "Start"))

        self.install_running()
        rig.wait_state(STOPPED, name="W32Time", timeout=30)
        deadline = time.monotonic() + 15
        while rig.registry_dword(W32TIME_KEY, "Start") != 4 and time.monotonic() < deadline:
            time.sleep(0.3)
        self.assertEqual(4, rig.registry_dword(W32TIME_KEY, "Start"))
        self.assertEqual((0, ""), rig.norvik("stopWTS"))  # already disabled: nothing touched

        rig.set_registry_dword(W32TIME_KEY, "Start", 3)
        code, output = rig.norvik("StopWts")
        self.assertEqual(0, code)
        self.assertRegex(output, r"\A\d+\nW32 Time Service successfully disabled\.\.\.\Z")
        self.assertEqual(4, rig.registry_dword(W32TIME_KEY, "Start"))

        # Disabled while running: the service leaves it alone. The manager keeps its own copy
        # of the start type and Wine's sc cannot change it, so W32Time is made anew; the
        # registry alone then marks it disabled, which is all the service reads.
        rig.remove_service()
        self.remove_stand_in_w32time()
        self.create_stand_in_w32time()
        rig.set_registry_dword(W32TIME_KEY, "Start", 4)
        self.install_running()
        time.sleep(3)
        self.assertEqual(RUNNING, rig.state("W32Time"))


if __name__ == "__main__":
    winerig.run_tests(__doc__)
