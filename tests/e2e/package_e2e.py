#!/usr/bin/env python3
"""The release package under Wine: packed from the build with its CPack configuration (as
scripts/package.sh does), it holds exactly the installed layout; unpacked as C:\\Norvik in a
fresh prefix, its service installs with its own "install" command word, answers SNTP, is
checked with the packed SntpQuery as the guide says, and uninstalls."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest
import zipfile

import winerig
from winerig import RUNNING, NOT_INSTALLED, RigTestCase, wait_for_server

ROOT = "C:\\Norvik"
LAYOUT = {
    "INSTALL.txt",
    "Applications/Time/NorvikTime.exe",
    "Tools/SntpQuery.exe",
    "Tools/TroubleMonitor.exe",
} | {f"Applications/System/res{language}.dll" for language in (1033, 1031, 1036, 3082, 1040, 1046)}


def project_version(build):
    with open(os.path.join(build, "CMakeCache.txt")) as file:
        return re.search(r"^CMAKE_PROJECT_VERSION:STATIC=(.+)$", file.read(), re.M).group(1)


class PackageTest(RigTestCase):
    prefix_name = "package-prefix"

    def pack(self):
        """Packs into a scratch folder; returns the archive's path."""
        scratch = tempfile.mkdtemp(prefix="norvik-package-")
        self.cleanups.append(lambda: shutil.rmtree(scratch, ignore_errors=True))
        subprocess.run(["cpack", "--config", os.path.join(self.rig.build, "CPackConfig.cmake"), "-B", scratch],
                       cwd=self.rig.build, check=True, capture_output=True, timeout=120)
        path = os.path.join(scratch, f"NorvikTime-{project_version(self.rig.build)}-win64.zip")
        self.assertTrue(os.path.isfile(path), os.listdir(scratch))
        return path

    def test_package_installs_answers_and_uninstalls(self):
        archive = self.pack()
        with zipfile.ZipFile(archive) as package:
            self.assertEqual(LAYOUT, {name for name in package.namelist() if not name.endswith("/")})
            guide = package.read("INSTALL.txt").decode("ascii")
            for step in ("NorvikTime.exe install", "SntpQuery.exe", "NorvikTime.exe uninstall", "\r\n"):
                self.assertIn(step, guide)
            # Only what came out of the archive: the rig's own copies go.
            root = self.rig.host_path(ROOT)
            shutil.rmtree(root)
            package.extractall(root)

        exe = ROOT + "\\Applications\\Time\\NorvikTime.exe"
        result = self.rig.wine(exe, "install")
        self.assertEqual((0, "Service successfully added..."), (result.returncode, result.stdout))
        self.rig.wait_state(RUNNING)
        wait_for_server("127.0.0.1", 30)
        query = self.rig.wine(ROOT + "\\Tools\\SntpQuery.exe", "127.0.0.1", "--count", "2", "--interval", "0",
                              "--warn-ms", "1000", "--crit-ms", "5000", timeout=60)
        self.assertEqual(0, query.returncode, query.stdout)
        self.assertRegex(query.stdout, r"(?m)^SNTP OK - offset -?\d+\.\d{3} ms, delay \d+\.\d{3} ms, 2 of 2 answered")

        result = self.rig.wine(exe, "uninstall")
        self.assertEqual((0, "Service successfully removed..."), (result.returncode, result.stdout))
        self.rig.wait_state(NOT_INSTALLED, timeout=30)


if __name__ == "__main__":
    winerig.run_tests(__doc__)
