#!/usr/bin/env python3
"""NorvikTime.exe under Wine's service manager: command words, the client's clock setting, the stop
in each role, the W32Time takeover."""

import contextlib, re, time

import winerig
from winerig import FIRST_EXCHANGE, NOT_INSTALLED, PERFORMED, RUNNING, SERVICE, STOPPED

W32TIME = "HKLM\\System\\CurrentControlSet\\Services\\W32Time"
DISABLED = 4  # W32Time's start type


class ServiceEndToEnd(winerig.RigTestCase):
    def stand_in(self, name, *args):
        binary = " ".join(f'"{word}"' for word in (winerig.STAND_IN, name, *args))
        self.rig.sc("create", name, "binpath=", binary, "start=", "demand")
        self.rig.sc("start", name)
        self.rig.wait_state(RUNNING, name)

    # "command" alone starts the dispatcher, which fails silently from a console.
    def test_without_a_service_the_command_words_say_so(self):
        for words, expected in [(("command", "256"), (0, "Invalid command...")), (("command", "128"), (0, "")),
                                (("command",), (0, "")), (("uninstall",), (0, "no service: 1060\n"))]:
            with self.subTest(words=words):
                self.assertEqual(expected, self.rig.norvik(*words))

    def test_a_second_install_is_refused_in_either_case(self):
        self.install_running()
        self.assertEqual((0, "no service: 1073\n"), self.rig.norvik("INSTALL"))

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

    def test_uninstall_of_a_service_that_refuses_the_stop(self):
        self.stand_in(SERVICE, "refuse-stop")
        refused = self.rig.norvik("uninstall")
        self.assertEqual((0, "no service : 1052\nno remove: 1052\n"), refused)
        self.assertEqual(RUNNING, self.rig.state())

    # Wine refuses the setting and logs how far off it was: within 2 ms of the server's time, plus one
    # for Wine's cut to whole ms and a few a loaded machine delays the service's thread.
    def test_the_client_sets_the_servers_time(self):
        server = winerig.FakeSntpServer("127.0.0.2", ahead=5.0)
        self.addCleanup(server.close)
        settings_before = len(self.rig.clock_settings())
        self.rig.write_setting("127.0.0.2")
        started = self.install_running()
        winerig.wait_until(lambda: server.requests, FIRST_EXCHANGE[1] + 5, "a request", 1)
        arrived = server.requests[0][0]
        self.assertGreaterEqual(arrived - started, FIRST_EXCHANGE[0], "the first exchange after the start delay")
        self.assertLessEqual(arrived - started, FIRST_EXCHANGE[1], "the first exchange within the start delay")
        time.sleep(1)  # the setting reaches Wine's log
        settings = self.rig.clock_settings()[settings_before:]
        self.assertEqual(1, len(settings), "one clock setting, as Wine saw it")
        late = server.lateness[0] * 1000 / 2  # a fake that got to the request late lengthens the half round trip
        error = settings[0] - 5000 - late
        self.assertGreaterEqual(error, -6, f"set {error:.1f} ms from the server's time ({late:.1f} ms late)")
        self.assertLessEqual(error, 3, f"set {error:.1f} ms from the server's time ({late:.1f} ms late)")

    # As by hand, 2 s after the start. Still stopped once the process has gone: a late report of any
    # other state would stay on the manager's books.
    def test_stop_ends_stopped_in_each_role(self):
        for setting, listening in (("127.0.0.2", True), ("127.0.0.1", False)):
            with self.subTest(setting=setting, workstation=listening), contextlib.ExitStack() as scope:
                scope.callback(self.rig.remove_service)
                self.rig.write_setting(setting)
                if listening:
                    scope.callback(winerig.Monitor(self.rig).stop)
                self.install_running()
                time.sleep(2)
                self.rig.sc("stop", SERVICE)
                self.rig.wait_state(STOPPED, timeout=10)
                winerig.wait_until(lambda: winerig.service_pid(self.rig) is None, 10, "the service's process gone")
                self.assertEqual(STOPPED, self.rig.state())

    # The takeover every start makes; once disabled there is nothing left for it to touch.
    def test_stop_wts_stops_and_disables_windows_time_once(self):
        self.addCleanup(self.rig.remove_service, "W32Time")
        self.stand_in("W32Time")
        disabled = self.rig.norvik("StopWts")
        self.rig.wait_state(STOPPED, "W32Time")
        untouched = self.rig.norvik("stopWTS")
        start = re.search(r"REG_DWORD\s+0x(\w+)", self.rig.wine("reg", "query", W32TIME, "/v", "Start").stdout)
        self.assertRegex("%d %s" % disabled, r"\A0 \d+\nW32 Time Service successfully disabled\.\.\.\Z")
        self.assertEqual((0, ""), untouched)
        self.assertEqual(DISABLED, int(start.group(1), 16))


if __name__ == "__main__":
    winerig.run_tests(__doc__)
