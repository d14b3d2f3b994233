#!/usr/bin/env python3
"""The release package under Wine: the installed layout, installed as its guide says; the run command
(scripts/run.sh) shows the service alive, chrony's verdict on its time, and removes it without
complaint."""

import glob, os, re, shutil, subprocess, sys, tempfile, zipfile

import winerig

LAYOUT = {"INSTALL.txt", "Applications/Time/NorvikTime.exe", "Tools/SntpQuery.exe", "Tools/TroubleMonitor.exe"} | {
    f"Applications/System/res{language}.dll" for language in (1033, 1031, 1036, 3082, 1040, 1046)}
QUERY_LINE = (r"(?m)^== \d\d:\d\d:\d\d SntpQuery 127\.0\.0\.1: 0 Ok  server \S+ \S+ UTC  "
              r"offset [-+]\d+\.\d{3} ms  delay \d+\.\d{3} ms  stratum 1$")


class PackageTest(winerig.RigTestCase):
    prefix_name = "package-prefix"

    def test_the_packed_service_installs_and_answers(self):
        rig = self.rig
        scratch = tempfile.mkdtemp(prefix="norvik-package-")
        self.addCleanup(shutil.rmtree, scratch, ignore_errors=True)
        subprocess.run(["cpack", "--config", os.path.join(rig.build, "CPackConfig.cmake"), "-B", scratch],
                       cwd=rig.build, check=True, capture_output=True, timeout=120)
        with zipfile.ZipFile(glob.glob(os.path.join(scratch, "NorvikTime-*-win64.zip"))[0]) as package:
            self.assertEqual(LAYOUT, {name for name in package.namelist() if not name.endswith("/")})
            guide = package.read("INSTALL.txt").decode("ascii")
            for step in ("NorvikTime.exe install", "SntpQuery.exe", "NorvikTime.exe uninstall", "\r\n"):
                self.assertIn(step, guide)
            shutil.rmtree(rig.host_path("C:\\Norvik"))  # only what came out of the archive
            package.extractall(rig.host_path("C:\\Norvik"))
        self.install_running()  # the packed NorvikTime.exe, where the rig's copy was
        winerig.wait_for_server("127.0.0.1", 30)

    def test_run_shows_the_service_alive_and_cleans_up(self):
        result = subprocess.run([sys.executable, os.path.join(winerig.SOURCE, "scripts", "run_service.py"), "--build",
                                 self.rig.build, "--seconds", "33"], capture_output=True, text=True, timeout=300)
        output = result.stdout + result.stderr
        self.assertEqual(0, result.returncode, f"the run command succeeds: {output}")
        # No Vantor.dat: the server. Each field of its answer is the server's own tests' (under Wine
        # too); chrony compares its time with this host's clock: a wrong era, second or scale is far off.
        offset = re.search(r"System clock wrong by (-?[0-9.]+) seconds", output)
        self.assertIsNotNone(offset, output)
        self.assertLess(abs(float(offset.group(1))), 0.25, output)
        self.assertEqual(2, len(re.findall(QUERY_LINE, output)), f"SntpQuery at the start and 30 s later: {output}")
        self.assertTrue(result.stdout.rstrip().endswith("Service successfully removed..."), f"removed last: {output}")
        for noise in ("Could not", "Permission denied", "Traceback", "err:", "fixme:", "no service", "no remove"):
            self.assertNotIn(noise, output)


if __name__ == "__main__":
    winerig.run_tests(__doc__)
