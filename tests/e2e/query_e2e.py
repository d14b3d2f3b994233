#!/usr/bin/env python3
"""SntpQuery.exe under Wine against chrony; what its report says is the query report's tests'."""

import re, subprocess

import winerig

CHRONY = "127.0.0.5"
OK = 0  # the exit code a monitoring system reads


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

    # Both clocks are this host's: each offset about 0.
    def test_an_answered_run_gives_each_exchange(self):
        result = self.rig.wine(winerig.QUERY, CHRONY, "-n", "3", "-i", "0", "--warn-ms", "100")
        offsets = [float(n) for n in re.findall(r"  offset ([-+]\d+\.\d{3}) ms", result.stdout)]
        self.assertEqual(OK, result.returncode, result.stdout)
        self.assertEqual(["1"] * 3, re.findall(r"  stratum (\d+)$", result.stdout, re.M), "each exchange's stratum")
        self.assertLess(max(map(abs, offsets)), 10, result.stdout)


if __name__ == "__main__":
    winerig.run_tests(__doc__)
