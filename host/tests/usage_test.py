#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares --help, the man pages and the completion of the programs.

  usage_test.py ROOT CONTEXT_HOST CONTEXT_QUERY
"""
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

FOLDER = pathlib.Path(sys.argv[1]) / "host"
PROGRAMS = {"context-host": sys.argv[2], "context-query": sys.argv[3]}
BOUND = 20


def printed(*command, folder=None):
    return subprocess.run(command, capture_output=True, encoding="utf-8", timeout=BOUND, check=True, cwd=folder).stdout


def manual(program):
    """The source of the man page, as plain text."""
    text = (FOLDER / f"{program}.1").read_text(encoding="utf-8")
    return re.sub(r"\\f.", "", text.replace("\\-", "-"))


def section(program, title):
    return re.search(rf"\n\.SH {title}\n(.*?)(?=\n\.SH |\Z)", manual(program), re.S)[1]


class UsageTest(unittest.TestCase):
    def help(self, program):
        return printed(PROGRAMS[program], "--help")

    def completed(self, *words, folder=None):
        """The completions that bash offers for the last word."""
        line = "source {}; COMP_WORDS=({}); COMP_CWORD={}; {}; printf '%s\\n' \"${{COMPREPLY[@]}}\"".format(
            FOLDER / "completion" / words[0], " ".join(f"'{word}'" for word in words), len(words) - 1,
            "_" + words[0].replace("-", "_"))
        return sorted(printed("bash", "--norc", "-c", line, folder=folder).split())

    def test_all_texts_list_the_same_options(self):
        for program in PROGRAMS:
            with self.subTest(program):
                helped = re.findall(r"^  (?:(-\w), )?(--[\w-]+)(?:=(\S+))?  ", self.help(program), re.M)
                written = re.findall(r"^\.BR? (?:(-\w) \", \" )?(--[\w-]+)(?: =(\S+))?$", section(program, "OPTIONS"),
                                     re.M)
                self.assertTrue(helped)
                self.assertEqual(helped, written)
                self.assertEqual(self.completed(program, "-"), sorted(option for _, option, _ in helped))

    def test_help_and_man_list_the_same_exit_statuses(self):
        for program in PROGRAMS:
            with self.subTest(program):
                helped = re.search(r"\nExit status:\n(.*?)(?=\n\n|\Z)", self.help(program), re.S)[1]
                numbers = re.findall(r"(?:^|  )(\d+)  ", helped, re.M)
                written = re.findall(r"^\.B (\d+)$", section(program, "EXIT STATUS"), re.M)
                self.assertEqual(sorted(numbers, key=int), written)
                self.assertGreater(len(written), 4)

    def test_all_texts_list_the_same_agents_and_requests(self):
        agents = re.findall(r"^  (m[rf]u|date) ", self.help("context-host"), re.M)
        self.assertEqual(self.completed("context-host", "--agent", ""), sorted(agents))
        self.assertEqual(self.completed("context-host", "--agent", "=", "m"), ["mfu", "mru"])
        self.assertEqual(self.completed("context-host", "-a", "d"), ["date"])
        self.assertEqual(self.completed("context-query", "7300", "rank", ""), sorted(agents))
        listed = self.help("context-query").split("Requests:")[1].split("\n\n")[0]
        requests = re.findall(r"^  ([a-z]+) .*  ", listed, re.M)
        self.assertEqual(self.completed("context-query", "7300", ""), sorted(requests))
        for request in requests:
            self.assertIn(request, section("context-query", "REQUESTS"))

    def test_completes_files_of_the_expected_type(self):
        with tempfile.TemporaryDirectory() as folder:
            for name in ("tv.csv", "week.html", "notes.txt"):
                (pathlib.Path(folder) / name).touch()
            (pathlib.Path(folder) / "histories").mkdir()
            self.assertEqual(self.completed("context-host", "", folder=folder), ["histories", "tv.csv"])
            self.assertEqual(self.completed("context-host", "--page", "", folder=folder), ["histories", "week.html"])
            self.assertEqual(self.completed("context-host", "--max", "", folder=folder), [])

    def test_help_lines_have_at_most_105_characters(self):
        for program in PROGRAMS:
            for line in self.help(program).splitlines():
                self.assertLessEqual(len(line), 105, line)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:], verbosity=1)
