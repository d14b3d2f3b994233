#!/usr/bin/env python3
"""The operator's language under Wine: with the locale of a shipped language (LC_ALL, which Wine
turns into the thread locale of every process it starts, the service included), the troubles
reach the workstation mailslot in that language; with a locale that has no library of its own,
in English. Per locale: port 123 held, so the service raises "could not start" (code 8); the
port freed and control 128, so it clears codes 1 to 8 in order: eight of the nine texts."""

import os
import re
import shutil
import socket

import winerig
from winerig import SYSTEM_DIR, RigTestCase, wait_for_server

SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
LOCALES = [
    ("de_DE.UTF-8", 1031),
    ("fr_FR.UTF-8", 1036),
    ("es_ES.UTF-8", 3082),
    ("it_IT.UTF-8", 1040),
    ("pt_BR.UTF-8", 1046),
    ("sw_KE.UTF-8", 1033),  # Swahili: no library of its own, so English
]
MESSAGE_IDS = {1: 6204, 2: 6205, 3: 6206, 4: 6207, 5: 6208, 6: 6209, 7: 6210, 8: 6211}
REPORT_TEXT_UNITS = 81


def shipped_texts(language):
    """{message id: text} from config/res<language>.rc, the source of the library."""
    with open(os.path.join(SOURCE, "config", f"res{language}.rc"), encoding="utf-8") as file:
        return {int(m.group(1)): m.group(2).replace('""', '"')
                for m in re.finditer(r'^\s*(\d+),\s*L?"(.*)"\s*$', file.read(), re.M)}


class LanguagesTest(RigTestCase):
    prefix_name = "languages-prefix"

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.english = shipped_texts(1033)

    def restart_prefix(self, locale):
        """The prefix's processes again, started with locale: the service manager passes its
        environment to the service."""
        self.rig.shutdown()
        self.rig.env["LC_ALL"] = locale
        self.rig.boot(fresh=False)
        for _, language in LOCALES:
            name = f"res{language}.dll"
            shutil.copy(os.path.join(self.rig.build, "config", name), self.rig.host_path(SYSTEM_DIR + "\\" + name))

    def test_troubles_reach_the_workstation_in_the_locale_language(self):
        for locale, language in LOCALES:
            with self.subTest(locale=locale):
                self.restart_prefix(locale)
                texts = shipped_texts(language)
                expected = [texts[MESSAGE_IDS[code]][:REPORT_TEXT_UNITS] for code in range(1, 9)]
                if language != 1033:
                    self.assertTrue(all(texts[i] != self.english[i] for i in MESSAGE_IDS.values()))

                holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
                holder.bind(("0.0.0.0", 123))  # without SO_REUSEADDR: the service cannot bind
                monitor = winerig.Monitor(self.rig)
                try:
                    self.install_running()
                    reports = monitor.wait_for(lambda r: len(r) >= 1, 30)
                    self.assertEqual((7, 255, expected[7]), (reports[0]["code"], reports[0]["state"],
                                                             reports[0]["text"]))
                    holder.close()
                    self.assertEqual((0, "Service command performed..."), self.rig.norvik("command", "128"))
                    reports = monitor.wait_for(lambda r: sum(1 for x in r if x["state"] == 0) >= 8, 30)
                    self.assertEqual(expected, [x["text"] for x in reports if x["state"] == 0])
                    # The monitor's JSON, as a log shipper reads it.
                    for report in reports:
                        self.assertRegex(report["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
                        self.assertEqual(("SNTP", {255: "set", 0: "clear"}[report["state"]]),
                                         (report["source"], report["event"]))
                    wait_for_server("127.0.0.1", 20)
                finally:
                    holder.close()
                    monitor.stop()
                    self.rig.remove_service()


if __name__ == "__main__":
    winerig.run_tests(__doc__)
