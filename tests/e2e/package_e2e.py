#!/usr/bin/env python3
"""The release package under Wine: packed with its CPack configuration (as scripts/package.sh
does), it holds exactly the installed layout; unpacked as C:\\Norvik in a fresh prefix, its service
installs, answers SNTP, is checked with the packed SntpQuery as the guide says, and uninstalls."""

import os, re, shutil, subprocess, tempfile, zipfile

import winerig
from winerig import NOT_INSTALLED, RUNNING

LAYOUT = {"INSTALL.txt", "Applications/Time/NorvikTime.exe", "Tools/SntpQuery.exe", "Tools/TroubleMonitor.exe"} | {
    f"Applications/System/res{language}.dll" for language in (1033, 1031, 1036, 3082, 1040, 1046)}
EXE = "C:\\Norvik\\Applications\\Time\\NorvikTime.exe"


class PackageTest(winerig.RigTestCase):
    prefix_name = "package-prefix"

    def test_package_installs_answers_and_uninstalls(self):
        rig = self.rig
        scratch = tempfile.mkdtemp(prefix="norvik-package-")
        self.addCleanup(shutil.rmtree, scratch, ignore_errors=True)
        subprocess.run(["cpack", "--config", os.path.join(rig.build, "CPackConfig.cmake"), "-B", scratch],
                       cwd=rig.build, check=True, capture_output=True, timeout=120)
        version = re.search(r"^CMAKE_PROJECT_VERSION:STATIC=(.+)$",
                            open(os.path.join(rig.build, "CMakeCache.txt")).read(), re.M).group(1)
        with zipfile.ZipFile(os.path.join(scratch, f"NorvikTime-{version}-win64.zip")) as package:
            self.assertEqual(LAYOUT, {name for name in package.namelist() if not name.endswith("/")})
            guide = package.read("INSTALL.txt").decode("ascii")
            for step in ("NorvikTime.exe install", "SntpQuery.exe", "NorvikTime.exe uninstall", "\r\n"):
                self.assertIn(step, guide)
            shutil.rmtree(rig.host_path("C:\\Norvik"))  # only what came out of the archive
            package.extractall(rig.host_path("C:\\Norvik"))
        result = rig.wine(EXE, "install")
        self.assertEqual((0, "Service successfully added..."), (result.returncode, result.stdout))
        rig.wait_state(RUNNING)
        winerig.wait_for_server("127.0.0.1", 30)
        query = rig.wine("C:\\Norvik\\Tools\\SntpQuery.exe", "127.0.0.1", "--count", "2", "--interval", "0",
                         "--warn-ms", "1000", "--crit-ms", "5000", timeout=60)
        self.assertEqual(0, query.returncode, query.stdout)
        self.assertRegex(query.stdout, r"(?m)^SNTP OK - offset -?\d+\.\d{3} ms, delay \d+\.\d{3} ms, 2 of 2 answered")
        result = rig.wine(EXE, "uninstall")
        self.assertEqual((0, "Service successfully removed..."), (result.returncode, result.stdout))
        rig.wait_state(NOT_INSTALLED)


if __name__ == "__main__":
    winerig.run_tests(__doc__)
