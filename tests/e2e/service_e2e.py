#!/usr/bin/env python3
"""NorvikTime.exe under Wine's real service control manager: command words, the server role against
chrony, the client role's schedule and clock setting (Wine refuses it: the host clock stays), the
role change, the stop as the manager sees it, and the takeover from W32Time."""

import itertools, re, struct, time

import winerig
from winerig import FIRST_EXCHANGE, NOT_INSTALLED, PERFORMED, RUNNING, SERVICE, STOPPED, sntp_request, wait_for_server

W32TIME = "HKLM\\System\\CurrentControlSet\\Services\\W32Time"
DEMAND, DISABLED = 3, 4  # W32Time's start types
REMOVED = (0, "Service successfully removed...")
INVALID = (0, "Invalid command...")


class ServiceEndToEnd(winerig.RigTestCase):
    def stand_in(self, name, *args):
        """A demand-start service of StandInService.exe under name, started and running."""
        binary = " ".join(f'"{word}"' for word in (winerig.STAND_IN, name, *args))
        created = self.rig.sc("create", name, "binpath=", binary, "start=", "demand")
        self.assertEqual(0, created.returncode, f"{name} created")
        self.rig.sc("start", name)
        self.rig.wait_state(RUNNING, name)

    def w32time_start(self, data=None):
        """W32Time's start type in the registry; with data, set to it first."""
        if data is not None:
            self.rig.wine("reg", "add", W32TIME, "/v", "Start", "/t", "REG_DWORD", "/d", str(data), "/f")
        match = re.search(r"REG_DWORD\s+0x([0-9a-fA-F]+)", self.rig.wine("reg", "query", W32TIME, "/v", "Start").stdout)
        return int(match.group(1), 16) if match else None

    def test_without_a_service_the_command_words_say_so(self):
        for words, expected in [(("command", "127"), INVALID), (("command", "256"), INVALID), (("command", "abc"), INVALID),
                                (("command", "128"), (0, "")), (("uninstall",), (0, "no service: 1060\n"))]:
            with self.subTest(words=words):
                self.assertEqual(expected, self.rig.norvik(*words))

    # Either case of the word; a second install is refused, a control is performed.
    def test_an_installed_service_takes_its_commands(self):
        self.install_running()
        for words, expected in [(("install",), (0, "no service: 1073\n")), (("INSTALL",), (0, "no service: 1073\n")),
                                (("command", "128"), PERFORMED), (("Command", "200"), PERFORMED)]:
            with self.subTest(words=words):
                self.assertEqual(expected, self.rig.norvik(*words))
        self.assertEqual(RUNNING, self.rig.state())

    # A control to a stopped service sends nothing and still succeeds; uninstall then only removes it.
    def test_a_stopped_service_takes_a_command_and_is_removed(self):
        self.install_running()
        self.rig.sc("stop", SERVICE)
        self.rig.wait_state(STOPPED)
        performed = self.rig.norvik("command", "128")
        removed = self.rig.norvik("Uninstall")
        self.assertEqual(PERFORMED, performed)
        self.assertRegex("%d %s" % removed, r"\A0 stopped : \d+\nService successfully removed\.\.\.\Z")
        self.rig.wait_state(NOT_INSTALLED)

    def test_uninstall_stops_and_removes_a_running_service(self):
        self.install_running()
        removed = self.rig.norvik("uninstall")
        self.assertEqual(REMOVED, removed)
        self.rig.wait_state(NOT_INSTALLED)

    # Without its number "command" starts the dispatcher, which fails silently from a console.
    def test_command_without_a_number_says_nothing(self):
        self.assertEqual((0, ""), self.rig.norvik("command"))

    # It hears both refusals and stays installed.
    def test_uninstall_of_a_service_that_refuses_the_stop(self):
        self.stand_in(SERVICE, "refuse-stop")
        refused = self.rig.norvik("uninstall")
        self.assertEqual((0, "no service : 1052\nno remove: 1052\n"), refused)
        self.assertEqual(RUNNING, self.rig.state())

    # No Vantor.dat: the server role, on port 123 under the manager. Which requests it answers and
    # each field of its answer are the server's own tests, under Wine too.
    def test_the_server_answers_from_this_hosts_clock(self):
        self.install_running()
        wait_for_server("127.0.0.1", 20)
        answer, stamp = sntp_request("127.0.0.1")
        transmit = struct.unpack(">Q", answer[40:48])[0]
        self.assertEqual({"length": 48, "header": 0x1C, "stratum": 1, "reference": b"LOCL", "originate": stamp},
                         {"length": len(answer), "header": answer[0], "stratum": answer[1], "reference": answer[12:16],
                          "originate": struct.unpack(">Q", answer[24:32])[0]})
        self.assertLess(abs((transmit >> 32) - winerig.NTP_UNIX_OFFSET - time.time()), 5, "this host's clock")

    # From the clock chrony compares it with: a wrong era, second or scale is far off.
    def test_chrony_accepts_the_servers_time(self):
        self.install_running()
        wait_for_server("127.0.0.1", 20)
        code, output = winerig.chrony_query("127.0.0.1")
        offset = re.search(r"System clock wrong by (-?[0-9.]+) seconds", output)
        self.assertEqual(0, code, output)
        self.assertIsNotNone(offset, output)
        self.assertLess(abs(float(offset.group(1))), 0.25, output)

    # The server runs 5 s ahead; Wine refuses the setting and logs how far off it was. Within 2 ms of
    # the server's time, plus one for Wine's cut to whole ms and a few a loaded machine delays the
    # service's thread: -6..3. A wrong scale, sign or epoch is seconds beyond. Then, named this host,
    # it is the server within a minute.
    def test_the_client_sets_the_servers_time_then_serves_once_named_this_host(self):
        server = winerig.FakeSntpServer("127.0.0.2", ahead=5.0)
        self.addCleanup(server.close)
        settings_before = len(self.rig.clock_settings())
        self.rig.write_setting("127.0.0.2")
        monitor = self.monitor()
        started = self.install_running()
        winerig.wait_until(lambda: server.requests, FIRST_EXCHANGE[1] + 5, "a request", 1)
        arrived, request = server.requests[0]
        self.assertGreaterEqual(arrived - started, FIRST_EXCHANGE[0], "the first exchange after the start delay")
        self.assertLessEqual(arrived - started, FIRST_EXCHANGE[1], "the first exchange within the start delay")
        self.assertEqual(bytes([0x1B]) + bytes(39), request[:40], "a version-3 client request")
        self.assertEqual(48, len(request))
        time.sleep(1)
        self.assertEqual([], monitor.snapshot(), "a good answer raises nothing")
        self.assertEqual(1, len(server.requests), "the next request comes a day later")
        settings = self.rig.clock_settings()[settings_before:]
        self.assertEqual(1, len(settings), "one clock setting, as Wine saw it")
        late = server.lateness[0] * 1000 / 2  # a fake that got to the request late lengthens the half round trip
        error = settings[0] - 5000 - late
        self.assertGreaterEqual(error, -6, f"set {error:.1f} ms from the server's time ({late:.1f} ms late)")
        self.assertLessEqual(error, 3, f"set {error:.1f} ms from the server's time ({late:.1f} ms late)")
        # The fake's socket on 127.0.0.2:123 would keep the wildcard bind out, as no remote server would.
        server.close()
        self.rig.write_setting("127.0.0.1")
        wait_for_server("127.0.0.1", 75)

    # As by hand: a stop 2 s after the start. The manager reads stopped, and still does once the
    # process has gone (a late report of any other state would stay on its books).
    def test_stop_ends_stopped_in_each_role_with_and_without_a_workstation(self):
        server = winerig.FakeSntpServer("127.0.0.2")
        self.addCleanup(server.close)
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

    # Once disabled there is nothing for stopWTS to touch; enabled again, it disables it.
    def test_windows_time_is_disabled_at_the_start_and_by_stop_wts(self):
        self.addCleanup(self.rig.remove_service, "W32Time")
        self.stand_in("W32Time")
        self.assertEqual(DEMAND, self.w32time_start())
        self.install_running()
        self.rig.wait_state(STOPPED, "W32Time")
        winerig.wait_until(lambda: self.w32time_start() == DISABLED, 15, "W32Time disabled", 0.3)
        untouched = self.rig.norvik("stopWTS")
        self.w32time_start(DEMAND)
        disabled = self.rig.norvik("StopWts")
        self.assertEqual((0, ""), untouched)
        self.assertRegex("%d %s" % disabled, r"\A0 \d+\nW32 Time Service successfully disabled\.\.\.\Z")
        self.assertEqual(DISABLED, self.w32time_start())

    # Wine's sc cannot change the manager's copy of the start type, so the registry alone says disabled.
    def test_a_disabled_windows_time_that_runs_is_left_alone(self):
        self.addCleanup(self.rig.remove_service, "W32Time")
        self.stand_in("W32Time")
        self.w32time_start(DISABLED)
        self.install_running()
        time.sleep(3)
        self.assertEqual(RUNNING, self.rig.state("W32Time"))


if __name__ == "__main__":
    winerig.run_tests(__doc__)
