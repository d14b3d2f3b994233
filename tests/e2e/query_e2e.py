#!/usr/bin/env python3
"""SntpQuery.exe under Wine as a monitoring check against chrony (OK), a server 2 s ahead (CRITICAL
beyond the threshold) and a silent address (UNKNOWN); what it and the trouble monitor refuse. The
verdict on each threshold is the query report's own test."""

import re, subprocess

import winerig

CHRONY, AHEAD, SILENT = "127.0.0.5", "127.0.0.6", "127.0.0.9"  # nothing bound on SILENT
EXCHANGE = re.compile(r"^(\d+)  0 Ok  server \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} UTC  "
                      r"offset ([-+]\d+\.\d{3}) ms  delay (\d+\.\d{3}) ms  stratum (\d+)$")
SUMMARY = re.compile(r"^summary: 3 of 3 answered  offset min ([-+]\S+) median ([-+]\S+) max ([-+]\S+) ms"
                     r"  delay min \S+ median \S+ max \S+ ms$")
NO_ANSWER = "The time server did not respond.  Contact your network administrator."
OK, CRITICAL, UNKNOWN = 0, 2, 3  # the exit codes a monitoring system reads
USAGE = 2  # the trouble monitor's, for a command line it cannot read
AHEAD_MS = (-2050, -1950)  # this host's offset from the server 2 s ahead, as it is measured


class QueryTest(winerig.RigTestCase):
    prefix_name = "query-prefix"

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # chronyd -x never touches the clock; directives on its command line replace its configuration.
        chrony = subprocess.Popen(["timeout", "300", winerig.CHRONYD, "-x", "-d", "-u", "root", f"bindaddress {CHRONY}",
                                   "port 123", "allow 127.0.0.0/8", "local stratum 1", f"pidfile {cls.rig.prefix}/chronyd.pid",
                                   *winerig.CHRONY_QUIET], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        cls.addClassCleanup(chrony.wait, timeout=10)
        cls.addClassCleanup(chrony.terminate)
        winerig.wait_for_server(CHRONY, 10)
        ahead = winerig.FakeSntpServer(AHEAD, ahead=2)
        cls.addClassCleanup(ahead.close)

    def run_query(self, *args, program=winerig.QUERY):
        """(exit code, output lines, the whole result)."""
        result = self.rig.wine(program, *args, timeout=60)
        return result.returncode, result.stdout.strip().split("\n"), result

    def test_answered_runs_give_lines_summary_and_the_threshold_verdict(self):
        for address, thresholds, code, word, stratum, (low, high) in [
                (CHRONY, ["--warn-ms", "1000", "--crit-ms", "1900"], OK, "OK", "1", (-10, 10)),
                (AHEAD, ["--warn-ms", "100", "--crit-ms", "1900"], CRITICAL, "CRITICAL", "2", AHEAD_MS)]:
            with self.subTest(address=address, thresholds=thresholds):
                status, lines, _ = self.run_query(address, "--count", "3", "--interval", "0", *thresholds)
                self.assertEqual(code, status, lines)
                self.assertEqual(5, len(lines), "three exchanges, the summary and the status line")
                matches = [EXCHANGE.match(line) for line in lines[:3]]
                numbered = [match.group(1, 4) if match else line for match, line in zip(matches, lines)]
                self.assertEqual([(str(n), stratum) for n in (1, 2, 3)], numbered, "exchange number and stratum")
                offsets = sorted(float(match.group(2)) for match in matches)
                self.assertGreater(offsets[0], low, lines)
                self.assertLess(offsets[2], high, lines)
                summary = SUMMARY.match(lines[3])
                self.assertEqual(offsets, [float(value) for value in summary.groups()] if summary else lines[3])
                self.assertTrue(lines[4].startswith(f"SNTP {word} - offset {offsets[1]:.3f} ms, delay "), lines[4])
                self.assertIn(", 3 of 3 answered | offset=", lines[4])

    def test_no_answer_is_unknown(self):
        status, lines, _ = self.run_query(SILENT, "-n", "2", "-i", "0", "-t", "500", "--warn-ms", "1")
        self.assertEqual(UNKNOWN, status, lines)
        self.assertEqual([f"1  2 {NO_ANSWER}", f"2  2 {NO_ANSWER}", "summary: 0 of 2 answered",
                          f"SNTP UNKNOWN - no answer from {SILENT}, 0 of 2 answered: {NO_ANSWER}"], lines)

    # SntpQuery's refusals are its option reader's (the native tests): one shows the exit and usage.
    def test_a_command_line_it_cannot_read_gets_the_usage(self):
        for program, args, code in [(winerig.QUERY, ["--count", "0", CHRONY], UNKNOWN),
                                    (winerig.MONITOR, ["--count", "abc"], USAGE),
                                    (winerig.MONITOR, ["--seconds", "-1"], USAGE), (winerig.MONITOR, ["--verbose"], USAGE)]:
            with self.subTest(program=program, args=args):
                status, _, result = self.run_query(*args, program=program)
                self.assertEqual(code, status)
                self.assertEqual("", result.stdout, "nothing on standard output")
                self.assertIn("usage: " + program.split("\\")[-1][:-4], result.stderr)

    def test_help_names_the_options_and_exit_codes(self):
        status, _, result = self.run_query("--help")
        self.assertEqual(OK, status)
        for word in ("--count", "--interval", "--warn-ms", "--crit-ms", "0 ok, 1 warning, 2 critical, 3 unknown"):
            self.assertIn(word, result.stdout)


if __name__ == "__main__":
    winerig.run_tests(__doc__)
