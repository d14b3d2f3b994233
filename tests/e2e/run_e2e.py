#!/usr/bin/env python3
"""The run command's first impression (scripts/run_service.py, which scripts/run.sh runs): the
service installs, chrony's query answers, SntpQuery shows it alive at the start and every 30 s,
and the end removes it cleanly, with no complaint on the way."""

import os, re, subprocess, sys, unittest

import winerig

SCRIPT = os.path.join(winerig.SOURCE, "scripts", "run_service.py")
QUERY_LINE = (r"(?m)^== \d\d:\d\d:\d\d SntpQuery 127\.0\.0\.1: 0 Ok  server \S+ \S+ UTC  "
              r"offset [-+]\d+\.\d{3} ms  delay \d+\.\d{3} ms  stratum 1$")


class RunTest(unittest.TestCase):
    def test_run_shows_the_service_alive_and_cleans_up(self):
        result = subprocess.run([sys.executable, SCRIPT, "--build", winerig.RigTestCase.build, "--seconds", "33"],
                                capture_output=True, text=True, timeout=300)
        output = result.stdout + result.stderr
        self.assertEqual(0, result.returncode, output)
        self.assertIn("Service successfully added...", output)
        self.assertRegex(output, r"System clock wrong by -?[0-9.]+ seconds")
        self.assertEqual(2, len(re.findall(QUERY_LINE, output)), output)
        self.assertTrue(result.stdout.rstrip().endswith("Service successfully removed..."), output)
        for noise in ("Could not", "Permission denied", "Traceback", "err:", "fixme:", "no service", "no remove"):
            self.assertNotIn(noise, output)


if __name__ == "__main__":
    winerig.run_tests(__doc__)
