#!/usr/bin/env python3
"""Troubles through the workstation mailslot in the language of the locale (LC_ALL, which Wine makes
the thread locale of every process it starts, the service's too), English where it has no library.
Per locale: port 123 held, so the service raises "could not start" (code 8) and carries on, lost if
no workstation listens yet; the port freed and control 128, so it clears codes 1 to 8 in order."""

import re, socket, time
from pathlib import Path

import winerig
from winerig import PERFORMED, RUNNING

# Swahili has no library of its own: English. Its workstation listens only from the restart on.
LOCALES = [("de_DE", 1031, True), ("fr_FR", 1036, True), ("es_ES", 3082, True), ("it_IT", 1040, True),
           ("pt_BR", 1046, True), ("en_US", 1033, True), ("sw_KE", 1033, False)]


def report_texts(language):
    """Codes 1..8 as the workstation receives them, from config/res<language>.rc: cut at 81 UTF-16 units."""
    text = Path(winerig.SOURCE, "config", f"res{language}.rc").read_text("utf-8")
    lines = dict(re.findall(r'^\s*(\d+),\s*L?"(.*)"\s*$', text, re.M))
    return [lines[str(6203 + code)].replace('""', '"')[:81] for code in range(1, 9)]


class LanguagesTest(winerig.RigTestCase):
    prefix_name = "languages-prefix"

    def test_troubles_reach_the_workstation_in_the_locale_language(self):
        english = report_texts(1033)
        for locale, language, listening in LOCALES:
            with self.subTest(locale=locale):
                self.rig.shutdown()  # the prefix again under locale, which its manager passes on to the service
                self.rig.env["LC_ALL"] = locale + ".UTF-8"
                self.rig.boot(fresh=False, languages={language for _, language, _ in LOCALES})
                expected = report_texts(language)
                if language != 1033:  # a text left in English would pass for a missing library
                    self.assertEqual([], [text for text, known in zip(expected, english) if text == known])
                holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)  # no SO_REUSEADDR: the service cannot bind
                holder.bind(("0.0.0.0", 123))
                monitor = winerig.Monitor(self.rig) if listening else None
                try:
                    self.install_running()
                    if listening:
                        monitor.wait_for(lambda r: r, 30)
                    time.sleep(2 if listening else 5)
                    self.assertEqual(RUNNING, self.rig.state())
                    if listening:
                        self.assertEqual([(expected[7], 255)], [(r["text"], r["state"]) for r in monitor.snapshot()])
                    monitor = monitor or winerig.Monitor(self.rig)
                    holder.close()
                    self.assertEqual(PERFORMED, self.rig.norvik("command", "128"))
                    reports = monitor.wait_for(lambda r: sum(x["state"] == 0 for x in r) >= 8, 30)
                    # Clears go out for every code from 1 up to the highest active one, in order; a set
                    # report raised with no one listening is lost.
                    self.assertEqual([255] * listening + [0] * 8, [r["state"] for r in reports])
                    self.assertEqual(expected, [r["text"] for r in reports[listening:]])
                    for report in reports:  # the monitor's JSON, as a log shipper reads it
                        self.assertRegex(report["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
                        self.assertEqual(("SNTP", 51, 7, [16, 3], {255: "set", 0: "clear"}[report["state"]]),
                                         (report["source"], report["kind"], report["code"], report["header"],
                                          report["event"]))
                    winerig.wait_for_server("127.0.0.1", 20)
                finally:
                    holder.close(), monitor and monitor.stop(), self.rig.remove_service()


if __name__ == "__main__":
    winerig.run_tests(__doc__)
