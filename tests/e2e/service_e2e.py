#!/usr/bin/env python3
"""NorvikTime.exe under Wine's service manager: command words, both roles, the stop, W32Time."""

import re, time

import winerig
from winerig import FIRST_EXCHANGE, NOT_INSTALLED, PERFORMED, RUNNING, SERVICE, STOPPED, wait_for_server

W32TIME = "HKLM\\System\\CurrentControlSet\\Services\\W32Time"
DEMAND, DISABLED = 3, 4  # W32Time's start types


class ServiceEndToEnd(winerig.RigTestCase):
    def stand_in(self, name, *args):
        binary = " ".join(f'"{word}"' for word in (winerig.STAND_IN, name, *args))
        self.rig.sc("create", name, "binpath=", binary, "start=", "demand")
        self.rig.sc("start", name)
        self.rig.wait_state(RUNNING, name)

    def w32time_start(self, data=None):
        """W32Time's start type in the registry, set to data first if given."""
        if data is not None:
            self.rig.wine("reg", "add", W32TIME, "/v", "Start", "/t", "REG_DWORD", "/d", str(data), "/f")
        match = re.search(r"REG_DWORD\s+0x([0-9a-fA-F]+)", self.rig.wine("reg", "query", W32TIME, "/v", "Start").stdout)
        return int(match.group(1), 16) if match else None

    # Which numbers may be sent is the command line's test; "command" alone starts the dispatcher,
    # which fails silently from a console.
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

    # It hears both refusals and stays installed.
    def test_uninstall_of_a_service_that_refuses_the_stop(self):
        self.stand_in(SERVICE, "refuse-stop")
        refused = self.rig.norvik("uninstall")
        self.assertEqual((0, "no service : 1052\nno remove: 1052\n"), refused)
        self.assertEqual(RUNNING, self.rig.state())

    # No Vantor.dat: the server role. Each field of its answer is the server's own tests' (under Wine
    # too); chrony compares its time with this host's clock: a wrong era, second or scale is far off.
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
        started = self.install_running()
        winerig.wait_until(lambda: server.requests, FIRST_EXCHANGE[1] + 5, "a request", 1)
        arrived, request = server.requests[0]
        self.assertGreaterEqual(arrived - started, FIRST_EXCHANGE[0], "the first exchange after the start delay")
        self.assertLessEqual(arrived - started, FIRST_EXCHANGE[1], "the first exchange within the start delay")
        self.assertEqual(bytes([0x1B]) + bytes(39), request[:40], "a version-3 client request")
        time.sleep(1)  # the setting reaches Wine's log
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
    # process has gone (a late report of any other state would stay on its books). Each role, one
    # with a workstation listening (the restarts suite stops a listened-to server under load).
    def test_stop_ends_stopped_in_each_role(self):
        for setting, listening in (("127.0.0.2", True), ("127.0.0.1", False)):
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

    # Once disabled there is nothing for stopWTS to touch (nor for a start: the same takeover);
    # enabled again, it disables it.
    def test_windows_time_is_disabled_at_the_start_and_by_stop_wts(self):
        self.addCleanup(self.rig.remove_service, "W32Time")
        self.stand_in("W32Time")
        self.install_running()
        self.rig.wait_state(STOPPED, "W32Time")
        winerig.wait_until(lambda: self.w32time_start() == DISABLED, 15, "W32Time disabled", 0.3)
        untouched = self.rig.norvik("stopWTS")
        self.w32time_start(DEMAND)
        disabled = self.rig.norvik("StopWts")
        self.assertEqual((0, ""), untouched)
        self.assertRegex("%d %s" % disabled, r"\A0 \d+\nW32 Time Service successfully disabled\.\.\.\Z")
        self.assertEqual(DISABLED, self.w32time_start())


if __name__ == "__main__":
    winerig.run_tests(__doc__)
