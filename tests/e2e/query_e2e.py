#!/usr/bin/env python3
"""SntpQuery.exe under Wine as a monitoring check: against chrony (answers, OK), a scripted
server whose clock runs 2 s ahead (WARNING or CRITICAL by the thresholds) and an address where
nothing answers (UNKNOWN). Each run's exchange lines, summary, status line and exit code.
Also the trouble monitor's refusal of malformed numbers. Runs in the build's test prefix; the peers use UDP port 123 on 127.0.0.5 to 127.0.0.9."""

import os
import re
import socket
import struct
import subprocess
import tempfile
import unittest

import winerig

CHRONY_ADDRESS = "127.0.0.5"
AHEAD_ADDRESS = "127.0.0.6"
SILENT_ADDRESS = "127.0.0.9"  # nothing bound there
AHEAD_SECONDS = 2

EXCHANGE = re.compile(r"^(\d+)  0 Ok  server \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} UTC  "
                      r"offset ([-+]\d+\.\d{3}) ms  delay (\d+\.\d{3}) ms  stratum (\d+)$")
SUMMARY = re.compile(r"^summary: (\d+) of (\d+) answered  offset min ([-+]\S+) median ([-+]\S+) max ([-+]\S+) ms"
                     r"  delay min \S+ median \S+ max \S+ ms$")


class AheadServer(winerig._Port123Peer):
    """A version-3 stratum-2 server whose clock is AHEAD_SECONDS ahead of this machine's."""

    def handle(self, request, peer):
        answer = bytearray(48)
        answer[0], answer[1], answer[3] = 0x1C, 2, 0xEC
        answer[12:16] = socket.inet_aton("127.0.0.1")
        answer[24:32] = request[40:48]
        now = winerig.ntp_now() + (AHEAD_SECONDS << 32)
        struct.pack_into(">QQ", answer, 32, now, now)
        self.sock.sendto(bytes(answer), peer)


class ChronyServer:
    """chronyd -x (never touches the clock) serving this machine's clock on address:123."""

    def __init__(self, address):
        self.scratch = tempfile.TemporaryDirectory(prefix="norvik-query-")
        config = os.path.join(self.scratch.name, "chrony.conf")
        with open(config, "w") as file:
            file.write(f"bindaddress {address}\nport 123\nallow 127.0.0.0/8\nlocal stratum 1\n"
                       f"pidfile {self.scratch.name}/chronyd.pid\ncmdport 0\n")
        self.process = subprocess.Popen(["timeout", "300", "chronyd", "-x", "-d", "-u", "root", "-f", config],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        winerig.wait_for_server(address, 10)

    def close(self):
        self.process.terminate()
        self.process.wait(timeout=10)
        self.scratch.cleanup()


class QueryTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        build = winerig.RigTestCase.build
        cls.rig = winerig.Rig(build, os.path.join(build, "query-prefix"))
        cls.rig.boot(fresh=True, programs=())
        cls.query = winerig.find_file(build, "SntpQuery.exe")
        cls.chrony = ChronyServer(CHRONY_ADDRESS)
        cls.ahead = AheadServer(AHEAD_ADDRESS)

    @classmethod
    def tearDownClass(cls):
        cls.chrony.close()
        cls.ahead.close()
        cls.rig.shutdown()

    def run_query(self, *args):
        result = self.rig.wine(self.query, *args, timeout=60)
        return result.returncode, result.stdout.strip().split("\n")

    def test_answered_runs_give_lines_summary_and_the_threshold_verdict(self):
        cases = [
            # address, thresholds, exit code, status word, offset range in ms
            (CHRONY_ADDRESS, ["--warn-ms", "1000", "--crit-ms", "1900"], 0, "OK", (-10, 10)),
            (AHEAD_ADDRESS, ["--warn-ms", "1000", "--crit-ms", "5000"], 1, "WARNING", (-2050, -1950)),
            (AHEAD_ADDRESS, ["--warn-ms", "100", "--crit-ms", "1900"], 2, "CRITICAL", (-2050, -1950)),
            (AHEAD_ADDRESS, [], 0, "OK", (-2050, -1950)),
        ]
        for address, thresholds, code, word, (low, high) in cases:
            with self.subTest(address=address, thresholds=thresholds):
                status, lines = self.run_query(address, "--count", "3", "--interval", "0", *thresholds)
                self.assertEqual(code, status, lines)
                self.assertEqual(5, len(lines), lines)
                for number, line in enumerate(lines[:3], start=1):
                    match = EXCHANGE.match(line)
                    self.assertIsNotNone(match, line)
                    self.assertEqual(number, int(match.group(1)))
                    self.assertTrue(low < float(match.group(2)) < high, line)
                    self.assertEqual("1" if address == CHRONY_ADDRESS else "2", match.group(4))
                summary = SUMMARY.match(lines[3])
                self.assertIsNotNone(summary, lines[3])
                self.assertEqual(("3", "3"), summary.group(1, 2))
                offsets = sorted(float(EXCHANGE.match(line).group(2)) for line in lines[:3])
                self.assertEqual([offsets[0], offsets[1], offsets[2]],
                                 [float(summary.group(g)) for g in (3, 4, 5)])
                self.assertTrue(lines[4].startswith(f"SNTP {word} - offset {offsets[1]:.3f} ms, delay "), lines[4])
                self.assertIn(", 3 of 3 answered | offset=", lines[4])

    def test_no_answer_is_unknown(self):
        status, lines = self.run_query(SILENT_ADDRESS, "-n", "2", "-i", "0", "-t", "500", "--warn-ms", "1")
        self.assertEqual(3, status, lines)
        silent = "2 The time server did not respond.  Contact your network administrator."
        self.assertEqual([f"1  {silent}", f"2  {silent}", "summary: 0 of 2 answered",
                          f"SNTP UNKNOWN - no answer from {SILENT_ADDRESS}, 0 of 2 answered: "
                          "The time server did not respond.  Contact your network administrator."], lines)

    def test_a_command_line_it_cannot_read_is_unknown(self):
        for args in (["--count", "0", CHRONY_ADDRESS], [CHRONY_ADDRESS, "--warn-ms", "5", "--crit-ms", "1"], []):
            with self.subTest(args=args):
                result = self.rig.wine(self.query, *args, timeout=60)
                self.assertEqual(3, result.returncode)
                self.assertEqual("", result.stdout)
                self.assertIn("usage: SntpQuery", result.stderr)
        monitor = winerig.find_file(winerig.RigTestCase.build, "TroubleMonitor.exe")
        for args in (["--count", "abc"], ["--seconds", "-1"], ["--count", "5x"], ["--verbose"]):
            with self.subTest(args=args):
                result = self.rig.wine(monitor, *args, timeout=60)
                self.assertEqual(2, result.returncode)
                self.assertIn("usage: TroubleMonitor", result.stderr)
        result = self.rig.wine(self.query, "--help", timeout=60)
        self.assertEqual(0, result.returncode)
        for word in ("--count", "--interval", "--warn-ms", "--crit-ms", "0 ok, 1 warning, 2 critical, 3 unknown"):
            self.assertIn(word, result.stdout)


if __name__ == "__main__":
    winerig.run_tests(__doc__)
