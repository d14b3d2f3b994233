#!/usr/bin/env python3
"""SntpQuery.exe under Wine against chrony, a server 2 s ahead and a silent address; what it and the
trouble monitor refuse. The summary, the verdict and the status line are the query report's tests,
the exchange line's form the run command's (package_e2e)."""

import re, subprocess

import winerig

CHRONY, AHEAD, SILENT = "127.0.0.5", "127.0.0.6", "127.0.0.9"  # nothing bound on SILENT
NO_ANSWER = "The time server did not respond.  Contact your network administrator."
OK, CRITICAL, UNKNOWN = 0, 2, 3  # the exit codes a monitoring system reads
USAGE = 2  # the trouble monitor's


class QueryTest(winerig.RigTestCase):
    prefix_name = "query-prefix"

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # chronyd -x never touches the clock.
        chrony = subprocess.Popen(["timeout", "300", winerig.CHRONYD, "-x", "-d", "-u", "root", f"bindaddress {CHRONY}",
                                   "port 123", "allow 127.0.0.0/8", "local stratum 1", f"pidfile {cls.rig.prefix}/chronyd.pid",
                                   *winerig.CHRONY_QUIET], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        cls.addClassCleanup(chrony.wait, timeout=10)
        cls.addClassCleanup(chrony.terminate)
        winerig.wait_for_server(CHRONY, 10)
        ahead = winerig.FakeSntpServer(AHEAD, ahead=2)
        cls.addClassCleanup(ahead.close)

    def run_query(self, *args, program=winerig.QUERY):
        result = self.rig.wine(program, *args, timeout=60)
        return result.returncode, result.stdout.strip().split("\n"), result

    # This host's offset from each server, as measured: about 0 from chrony, -2000 ms from AHEAD.
    def test_answered_runs_give_each_exchange_and_the_verdict(self):
        for address, code, stratum, (low, high) in [(CHRONY, OK, "1", (-10, 10)), (AHEAD, CRITICAL, "2", (-2050, -1950))]:
            with self.subTest(address=address):
                status, lines, _ = self.run_query(address, "-n", "3", "-i", "0", "--warn-ms", "100", "--crit-ms", "1900")
                self.assertEqual(code, status, lines)
                output = "\n".join(lines)
                self.assertEqual([stratum] * 3, re.findall(r"  stratum (\d+)$", output, re.M), "each exchange's stratum")
                offsets = sorted(float(n) for n in re.findall(r"  offset ([-+]\d+\.\d{3}) ms", output))
                self.assertGreater(offsets[0], low, lines)
                self.assertLess(offsets[2], high, lines)

    def test_no_answer_is_unknown(self):
        status, lines, _ = self.run_query(SILENT, "-n", "2", "-i", "0", "-t", "500", "--warn-ms", "1")
        self.assertEqual(UNKNOWN, status, lines)
        self.assertEqual([f"1  2 {NO_ANSWER}", f"2  2 {NO_ANSWER}", "summary: 0 of 2 answered",
                          f"SNTP UNKNOWN - no answer from {SILENT}, 0 of 2 answered: {NO_ANSWER}"], lines)

    # SntpQuery's refusals are its option reader's tests'; the monitor's use the same number reader.
    def test_a_command_line_it_cannot_read_gets_the_usage(self):
        for program, args, code in [(winerig.QUERY, ["--count", "0", CHRONY], UNKNOWN),
                                    (winerig.MONITOR, ["--seconds", "-1"], USAGE)]:
            with self.subTest(program=program, args=args):
                status, _, result = self.run_query(*args, program=program)
                self.assertEqual(code, status)
                self.assertEqual("", result.stdout, "nothing on standard output")
                self.assertIn("usage: " + program.split("\\")[-1][:-4], result.stderr)


if __name__ == "__main__":
    winerig.run_tests(__doc__)
