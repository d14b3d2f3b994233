#!/usr/bin/env python3
"""Troubles through the workstation mailslot in the language of the locale (LC_ALL, which Wine makes
the thread locale of every process it starts, the service's too), English where it has no library.
Per locale: port 123 held, so the service raises "could not start" (code 8) and carries on, lost if
no workstation listens yet; the port freed and control 128, so it clears codes 1 to 8 in order.
Each language's library and its candidates are the message texts' own tests, under Wine too: one
translated locale and one without a library show the service's choice."""

import contextlib, re, socket, time
from pathlib import Path

import winerig
from winerig import PERFORMED, RUNNING

# Swahili has no library of its own: English. Its workstation listens only from the restart on.
LOCALES = [("de_DE", 1031, True), ("sw_KE", 1033, False)]
TRANSLATIONS = (1031, 1036, 3082, 1040, 1046)
CANNOT_START = 8
SET, CLEARED = 255, 0
# What every report carries besides its text and state, as the monitor's JSON gives it to a log shipper.
REPORT_FIELDS = {"source": "SNTP", "kind": 51, "code": 7, "header": [16, 3]}
EVENTS = {SET: "set", CLEARED: "clear"}
MONITOR_TIME = r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$"


def report_texts(language):
    """Codes 1..8 as the workstation receives them, from config/res<language>.rc: cut at 81 UTF-16 units."""
    text = Path(winerig.SOURCE, "config", f"res{language}.rc").read_text("utf-8")
    lines = dict(re.findall(r'^\s*(\d+),\s*L?"(.*)"\s*$', text, re.M))
    return [lines[str(6203 + code)].replace('""', '"')[:81] for code in range(1, CANNOT_START + 1)]


class LanguagesTest(winerig.RigTestCase):
    prefix_name = "languages-prefix"

    def test_no_translation_leaves_a_text_in_english(self):
        english = report_texts(1033)
        for language in TRANSLATIONS:  # such a text would pass for a missing library
            untranslated = [text for text, known in zip(report_texts(language), english) if text == known]
            self.assertEqual([], untranslated, f"texts of res{language}.rc still in English")

    def test_troubles_reach_the_workstation_in_the_locale_language(self):
        for locale, language, listening in LOCALES:
            with self.subTest(locale=locale):
                self.check_reports_under(locale, language, listening, report_texts(language))

    def check_reports_under(self, locale, language, listening, expected):
        self.rig.shutdown()  # the prefix again under locale, which its manager passes on to the service
        self.rig.env["LC_ALL"] = locale + ".UTF-8"
        self.rig.boot(fresh=False, languages={language for _, language, _ in LOCALES})
        with contextlib.ExitStack() as cleanup:
            cleanup.callback(self.rig.remove_service)
            holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)  # no SO_REUSEADDR: the service cannot bind
            cleanup.callback(holder.close)
            holder.bind(("0.0.0.0", 123))
            monitor = None
            if listening:
                monitor = winerig.Monitor(self.rig)
                cleanup.callback(monitor.stop)
            self.install_running()
            if listening:
                monitor.wait_for(lambda reports: reports, 30)
            time.sleep(2 if listening else 5)
            self.assertEqual(RUNNING, self.rig.state(), "the service carries on without its port")
            if listening:
                raised = [(report["text"], report["state"]) for report in monitor.snapshot()]
                self.assertEqual([(expected[CANNOT_START - 1], SET)], raised, "could not start, raised once")
            else:
                monitor = winerig.Monitor(self.rig)
                cleanup.callback(monitor.stop)
            holder.close()
            restarted = self.rig.norvik("command", "128")
            self.assertEqual(PERFORMED, restarted)
            reports = monitor.wait_for(lambda got: sum(report["state"] == CLEARED for report in got) >= 8, 30)
            # Clears go out for every code from 1 up to the highest active one, in order; a set report
            # raised with no one listening is lost.
            clears = reports[1:] if listening else reports
            self.assertEqual(([SET] if listening else []) + [CLEARED] * 8, [report["state"] for report in reports])
            self.assertEqual(expected, [report["text"] for report in clears], "the clears' texts, codes 1 to 8")
            for report in reports:
                self.assertRegex(report["time"], MONITOR_TIME)
                self.assertEqual(dict(REPORT_FIELDS, event=EVENTS[report["state"]]),
                                 {key: report[key] for key in (*REPORT_FIELDS, "event")})
            winerig.wait_for_server("127.0.0.1", 20)


if __name__ == "__main__":
    winerig.run_tests(__doc__)
