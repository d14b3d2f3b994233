#!/usr/bin/env python3
"""NorvikTime.exe under Wine's real service control manager: command words, the server role against
chrony, the client role's schedule and clock setting (Wine refuses it: the host clock stays), the
role change, the stop as the manager sees it, and the takeover from W32Time."""

import itertools, re, struct, time

import winerig
from winerig import FIRST_EXCHANGE, NOT_INSTALLED, PERFORMED, RUNNING, SERVICE, STOPPED, sntp_request, wait_for_server

W32TIME = "HKLM\\System\\CurrentControlSet\\Services\\W32Time"


class ServiceEndToEnd(winerig.RigTestCase):
    def stand_in(self, name, *args):
        """A demand-start service of StandInService.exe under name, started and running."""
        binary = " ".join(f'"{word}"' for word in (winerig.STAND_IN, name, *args))
        self.assertEqual(0, self.rig.sc("create", name, "binpath=", binary, "start=", "demand").returncode)
        self.rig.sc("start", name), self.rig.wait_state(RUNNING, name)

    def w32time_start(self, data=None):
        """W32Time's start type in the registry; with data, set to it first."""
        if data is not None:
            self.rig.wine("reg", "add", W32TIME, "/v", "Start", "/t", "REG_DWORD", "/d", str(data), "/f")
        match = re.search(r"REG_DWORD\s+0x([0-9a-fA-F]+)", self.rig.wine("reg", "query", W32TIME, "/v", "Start").stdout)
        return int(match.group(1), 16) if match else None

    def test_command_words(self):
        rig = self.rig
        # With no service installed "command 128" is silent.
        self.assertEqual([(0, "Invalid command...")] * 3 + [(0, ""), (0, "no service: 1060\n")],
                         [rig.norvik(*words) for words in (("command", "127"), ("command", "256"), ("command", "abc"),
                                                           ("command", "128"), ("uninstall",))])
        self.install_running()
        self.assertEqual([(0, "no service: 1073\n")] * 2 + [PERFORMED] * 2,
                         [rig.norvik("install"), rig.norvik("INSTALL"), rig.norvik("command", "128"),
                          rig.norvik("Command", "200")])
        self.assertEqual(RUNNING, rig.state())
        rig.sc("stop", SERVICE), rig.wait_state(STOPPED)
        self.assertEqual(PERFORMED, rig.norvik("command", "128"))  # nothing sent, success still
        self.assertRegex("%d %s" % rig.norvik("Uninstall"), r"\A0 stopped : \d+\nService successfully removed\.\.\.\Z")
        rig.wait_state(NOT_INSTALLED), self.install_running()
        self.assertEqual((0, "Service successfully removed..."), rig.norvik("uninstall"))
        rig.wait_state(NOT_INSTALLED)
        # Without its number "command" starts the dispatcher, which fails silently from a console.
        self.assertEqual((0, ""), rig.norvik("command"))
        # A service that refuses the stop hears both refusals and stays installed.
        self.stand_in(SERVICE, "refuse-stop")
        self.assertEqual((0, "no service : 1052\nno remove: 1052\n"), rig.norvik("uninstall"))
        self.assertEqual(RUNNING, rig.state())

    def test_server_role_answers_version_3_only(self):
        self.install_running()  # no Vantor.dat: the server role
        wait_for_server("127.0.0.1", 20)
        answer, stamp = sntp_request("127.0.0.1", poll=10)
        receive, transmit = struct.unpack(">QQ", answer[32:48])
        self.assertEqual((48, 0x1C, 1, 10, 0xFA, b"LOCL", stamp, True, 0),
                         (len(answer), *answer[:4], answer[12:16], struct.unpack(">Q", answer[24:32])[0],
                          receive <= transmit, transmit & 3))
        self.assertLess(abs((transmit >> 32) - winerig.NTP_UNIX_OFFSET - time.time()), 5)
        self.assertEqual(0x1A, sntp_request("127.0.0.1", first_byte=0x19)[0][0])  # symmetric active
        for first_byte, length in ((0x23, 48), (0xDB, 48), (0x0B, 48), (0x1B, 47), (0x1B, 49)):
            answer, _ = sntp_request("127.0.0.1", first_byte=first_byte, length=length, timeout=1.5)
            self.assertIsNone(answer, f"answered 0x{first_byte:02X}, {length} bytes")
        code, output = winerig.chrony_query("127.0.0.1")
        self.assertEqual(0, code, output)
        self.assertRegex(output, r"System clock wrong by -?[0-9.]+ seconds")

    def test_client_role_first_exchange_then_role_change_to_server(self):
        # The server runs 5 s ahead; Wine refuses the setting and logs how far off it was. Within 2 ms
        # of the server's time, plus one for Wine's cut to whole ms and a few a loaded machine delays
        # the service's thread: -6..3. A wrong scale, sign or epoch is seconds beyond.
        self.addCleanup((server := winerig.FakeSntpServer("127.0.0.2", ahead=5.0)).close)
        settings_before = len(self.rig.clock_settings())
        self.rig.write_setting("127.0.0.2")
        monitor = self.monitor()
        started = self.install_running()
        winerig.wait_until(lambda: server.requests, FIRST_EXCHANGE[1] + 5, "a request", 1)
        arrived, request = server.requests[0]
        self.assertTrue(FIRST_EXCHANGE[0] <= arrived - started <= FIRST_EXCHANGE[1], arrived - started)
        self.assertEqual((bytes([0x1B]) + bytes(39), 48), (request[:40], len(request)))
        time.sleep(1)
        # A good answer raises nothing; the next request comes a day later.
        self.assertEqual(([], 1), (monitor.snapshot(), len(server.requests)))
        settings = self.rig.clock_settings()[settings_before:]
        self.assertEqual(1, len(settings), "one clock setting, as Wine saw it")
        # A fake that got to the request late makes the service's half round trip longer by half.
        late = server.lateness[0] * 1000 / 2
        error = settings[0] - 5000 - late
        self.assertTrue(-6 <= error <= 3, f"set {error:.1f} ms from the server's time ({late:.1f} ms late)")
        # Naming this host makes it the server within a minute; the fake's socket on 127.0.0.2:123
        # would keep the wildcard bind out, as no remote server would.
        server.close()
        self.rig.write_setting("127.0.0.1")
        wait_for_server("127.0.0.1", 75)

    def test_stop_ends_stopped_in_each_role_with_and_without_a_workstation(self):
        # As by hand: a stop 2 s after the start. The manager reads stopped, and still does once the
        # process has gone (a late report of any other state would stay on its books).
        self.addCleanup(winerig.FakeSntpServer("127.0.0.2").close)
        for setting, listening in itertools.product(("127.0.0.2", "127.0.0.1"), (False, True)):
            with self.subTest(setting=setting, workstation=listening):
                self.rig.write_setting(setting)
                monitor = winerig.Monitor(self.rig) if listening else None
                try:
                    self.install_running()
                    time.sleep(2)
                    self.rig.sc("stop", SERVICE)
                    self.rig.wait_state(STOPPED, timeout=10)
                    winerig.wait_until(lambda: winerig.service_pid(self.rig) is None, 10, "the service's process gone")
                    self.assertEqual(STOPPED, self.rig.state())
                finally:
                    if monitor is not None:
                        monitor.stop()
                    self.rig.remove_service()

    def test_windows_time_takeover(self):
        rig = self.rig
        self.addCleanup(rig.remove_service, "W32Time")
        self.stand_in("W32Time")
        self.assertEqual(3, self.w32time_start())
        self.install_running()
        rig.wait_state(STOPPED, "W32Time")
        winerig.wait_until(lambda: self.w32time_start() == 4, 15, "W32Time disabled", 0.3)
        self.assertEqual((0, ""), rig.norvik("stopWTS"))  # already disabled: nothing touched
        self.w32time_start(3)
        self.assertRegex("%d %s" % rig.norvik("StopWts"), r"\A0 \d+\nW32 Time Service successfully disabled\.\.\.\Z")
        self.assertEqual(4, self.w32time_start())
        # Disabled while running: left alone. Wine's sc cannot change the manager's copy of the start
        # type, so W32Time is made anew and the registry alone says disabled.
        rig.remove_service(), rig.remove_service("W32Time")
        self.stand_in("W32Time"), self.w32time_start(4), self.install_running()
        time.sleep(3)
        self.assertEqual(RUNNING, rig.state("W32Time"))


if __name__ == "__main__":
    winerig.run_tests(__doc__)
