#!/usr/bin/env python3
"""Troubles at the workstation mailslot in the locale's language (LC_ALL, which Wine makes every
process's thread locale). Each library, its candidates and the English fallback are the message
texts' tests'."""

import os, re, socket, time
from pathlib import Path

import winerig
from winerig import RUNNING

LOCALE, LANGUAGE = "de_DE", 1031
CANNOT_START = 8
SET, CLEARED = 255, 0


def report_texts(language):
    """Codes 1..8 from config/res<language>.rc, cut at 81 UTF-16 units as the workstation gets them."""
    text = Path(winerig.SOURCE, "config", f"res{language}.rc").read_text("utf-8")
    lines = dict(re.findall(r'^\s*(\d+),\s*L?"(.*)"\s*$', text, re.M))
    return [lines[str(6203 + code)].replace('""', '"')[:81] for code in range(1, CANNOT_START + 1)]


class LanguagesTest(winerig.RigTestCase):
    prefix_name = "languages-prefix"

    def test_troubles_reach_the_workstation_in_the_locale_language(self):
        expected = report_texts(LANGUAGE)
        holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)  # no SO_REUSEADDR: the service cannot bind
        self.addCleanup(holder.close)
        holder.bind(("0.0.0.0", 123))
        monitor = self.monitor()
        self.install_running()
        monitor.wait_for(lambda reports: reports, 30)
        time.sleep(2)
        self.assertEqual(RUNNING, self.rig.state(), "the service carries on without its port")
        raised = [(report["text"], report["state"]) for report in monitor.snapshot()]
        self.assertEqual([(expected[CANNOT_START - 1], SET)], raised, "could not start, raised once")
        holder.close()
        self.rig.norvik("command", "128")
        reports = monitor.wait_for(lambda got: len(got) >= 1 + CANNOT_START, 30)
        # Clears go out for every code from 1 up to the highest active one, in order.
        self.assertEqual([SET] + [CLEARED] * CANNOT_START, [report["state"] for report in reports])
        self.assertEqual(expected, [report["text"] for report in reports[1:]], "the clears' texts, codes 1 to 8")
        winerig.wait_for_server("127.0.0.1", 20)


if __name__ == "__main__":
    os.environ["LC_ALL"] = LOCALE + ".UTF-8"  # before the prefix boots: its manager passes it on to the service
    winerig.run_tests(__doc__)
