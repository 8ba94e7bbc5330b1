#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks what context-host prints in a pipe and on a terminal, and the page as a file.

  output_test.py ROOT CONTEXT_HOST CONTEXT_QUERY
"""
import contextlib
import fcntl
import json
import os
import pathlib
import pty
import re
import resource
import select
import signal
import sqlite3
import struct
import subprocess
import sys
import termios
import time
import unicodedata

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from host_case import BOUND, HEADER, PROGRAM, HostCase, constant, main  # noqa: E402


def columns(text):
    """The columns that a text takes on a terminal."""
    return sum(0 if unicodedata.combining(character) else 2 if unicodedata.east_asian_width(character) in "WF" else 1
               for character in text)


class OutputTest(HostCase):
    def test_help_shows_options_examples_and_statuses(self):
        text = self.run_host("--help").stdout
        for word in ("--agent", "--weekly", "--json", "Examples:", "Exit status:", "unit_id,unit_name",
                     constant("ContextDatabase.h", "kDataDirectory")):
            self.assertIn(word, text)

    def test_reports_a_wrong_command_line(self):
        for arguments in (["--nonsense"], ["--agent", "best"], ["--max", "many"], ["--max", "-1"],
                          ["--min-duration", "-1"], ["--weekly", "--agent", "mru"], ["--database", "../x"],
                          ["--evaluate", "--json"], ["--page", ""], ["--page", "-"],
                          ["--serve", "0", "--page", "a"], ["--serve", "0", "--json"], ["--serve=-1"], ["--serve=-2"],
                          ["--serve", "65536"], ["--serve", "-1"], ["--serve", "0x50"], ["--max", "0x8"],
                          ["--max", "+8"], ["--max", " 8"], ["--max", "8 "], ["--max", "-0"], ["--max", ""],
                          ["--max", "99999999999"], ["--min-duration", "1e1"], ["--max", "8", "--max", "many"],
                          ["--evaluate", "--agent", "mru"], ["--evaluate", "--max", "3"],
                          ["--serve", "0", "--agent", "mru"]):
            with self.subTest(arguments):
                result = self.run_host(*arguments, status=2)
                self.assertIn("--help", result.stderr)
                self.assertEqual(result.stderr.count("\n"), 1)
                self.assertEqual(result.stdout, "")

    def test_prints_only_json_with_json(self):
        path = self.write("a.csv", HEADER + "x,X,tv,100,5\ny,Y,,300,7\n")
        self.assertEqual(self.run_host("--json", path).stdout,
                         '{"Size":2,"list":[{"Id":"y","Score":7.0},{"Id":"x","MetaDataSrc":"tv","Score":5.0}]}\n')
        self.assertEqual(self.run_host("--json", "--max", 0).stdout, '{"Size":0}\n')

    def test_prints_a_ranking_as_a_table(self):
        path = self.write("a.csv", HEADER + "x,Ein Lied,phone,100,5400\ny,日本語,a\x1b[31mb,300,360\n")
        self.assertEqual(self.run_host(path).stdout, """Most used, of 2 records

  #  Name      Time used  Latest device
  1  Ein Lied      1.5 h  phone
  2  日本語        0.1 h  a\ufffd[31mb
""")
        self.assertIn("  1  日本語    1970-01-01 00:05:00  a", self.run_host("--agent", "mru").stdout)

    def test_reads_numbers_with_leading_zeros_as_decimal(self):
        path = self.write("a.csv", HEADER + "".join(f"u{index},X,d,{index},5\n" for index in range(12)))
        self.assertIn('{"Size":10,', self.run_host("--json", "--max", "010", path).stdout)

    def test_prints_the_time_of_a_use_before_1970(self):
        path = self.write("a.csv", HEADER + "x,X,d,-5,5\ny,Y,d,-2147483648,5\n")
        text = self.run_host("--agent", "mru", path).stdout
        self.assertIn("1969-12-31 23:59:55", text)
        self.assertIn("1901-12-13 20:45:52", text)

    def test_shows_stored_bytes_that_are_not_utf_8(self):
        self.run_host(self.write("a.csv", HEADER + "x,X,d,100,5\n" * 10))
        page = self.folder / "page.html"
        for bytes_ in (b"\xf0", b"\xe2\x82", b"\xc3", b"\x80", b"\xff\xfe", b"\xed\xa0\x80"):
            name = "a long name that is on the heap ".encode() + bytes_
            with sqlite3.connect(self.store / "usage.db") as connection:
                connection.execute("UPDATE usage SET unit_id = CAST(? AS TEXT), unit_name = CAST(? AS TEXT), "
                                   "device_name = CAST(? AS TEXT), duration = rowid", (name, name, name))
            connection.close()
            shown = name[:-len(bytes_)].decode() + "\ufffd"
            for arguments in ([], ["--weekly"], ["--agent", "mru"], ["--evaluate", "--page", page]):
                with self.subTest(bytes=bytes_, arguments=arguments):
                    text = self.run_host(*arguments).stdout
                    self.assertTrue(shown in text or "--evaluate" in arguments, text)
            self.assertIn(r"a long name that is on the heap \ufffd", page.read_text(encoding="utf-8"))
            self.assertIn(shown, json.loads(self.run_host("--json").stdout)["list"][0]["Id"])

    def test_prints_the_week_as_a_table(self):
        path = self.write("a.csv", HEADER + "x,Ein Lied,phone,1709560800,5400\n")
        lines = self.run_host("--weekly", path).stdout.splitlines()
        self.assertEqual(lines[2].split(), ["Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"])
        self.assertEqual([line[:5] for line in lines[3:]], ["%02d:00" % hour for hour in range(24)])
        self.assertEqual(lines[3].count("Ein Lied"), 7)
        self.assertIn("Nothing to rank", self.run_host("--max", 0).stdout)

    def test_names_the_hour_that_it_ranks_for(self):
        self.run_host(self.write("a.csv", HEADER + "x,X,d,100,5\n"))
        hours = [time.strftime("%a at %H:00", time.gmtime())]
        title = self.run_host("--agent", "date").stdout.splitlines()[0]
        hours.append(time.strftime("%a at %H:00", time.gmtime()))  # the hour may have changed in between
        self.assertIn(title, [f"Usual on {hour}, of 1 records" for hour in hours])

    def test_shows_that_there_is_nothing_to_rank(self):
        self.assertIn("Nothing to rank. Import a history: context-host FILE", self.run_host().stdout)
        self.assertIn("Nothing to predict: at least five records", self.run_host("--evaluate").stdout)
        self.run_host(self.write("a.csv", HEADER + "x,X,d,100,5\n"))
        self.assertIn("Nothing to rank.\n", self.run_host("--max", 0).stdout)
        lines = self.run_host("--weekly", "--max", 0).stdout.splitlines()
        self.assertEqual(lines[3].split(), ["00:00"] + ["-"] * 7)

    def test_evaluates_only_uses_that_are_long_enough(self):
        path = self.write("a.csv", HEADER + "".join(f"u,U,d,{100 * index},{index % 2}\n" for index in range(20)))
        self.assertIn(": 4 uses, the last fifth of 20 records", self.run_host("--evaluate", path).stdout)
        self.assertIn(": 2 uses, ", self.run_host("--evaluate", "--min-duration", 1).stdout)

    def test_counts_the_buffers_of_an_import(self):
        path = self.write("a.csv", HEADER + "x,X,tv,100,5\n")
        self.assertIn(f"0 blocks in use, 0 bytes; at most {path.stat().st_size} bytes at once",
                      self.run_host("--track-memory", path).stderr)

    # On a terminal and elsewhere.

    def run_on_terminal(self, *arguments, width=80, **environment):
        """The texts that the host prints to two terminals: its standard output and its standard error."""
        environment = {"TERM": "xterm", "TZ": "UTC", "PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", **environment}
        pairs = [pty.openpty(), pty.openpty()]
        for _, theirs in pairs:
            fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 24, width, 0, 0))
        process = subprocess.Popen(self.command(*arguments), stdin=subprocess.DEVNULL, stdout=pairs[0][1],
                                   stderr=pairs[1][1], env=environment)
        texts = {ours: b"" for ours, _ in pairs}
        for _, theirs in pairs:
            os.close(theirs)
        unread = set(texts)
        while unread:
            ready = select.select(unread, [], [], BOUND)[0]
            self.assertTrue(ready, "the host never ended")
            for ours in ready:
                try:
                    piece = os.read(ours, 65536)
                except OSError:  # the end of a terminal
                    piece = b""
                texts[ours] += piece
                if not piece:
                    unread.remove(ours)
                    os.close(ours)
        self.assertEqual(process.wait(timeout=BOUND), 0)
        return [text.decode().replace("\r\n", "\n") for text in texts.values()]

    def test_draws_progress_only_on_a_terminal(self):
        path = self.write("a.csv", HEADER + "x,X,d,100,5\n")
        self.assertEqual(self.run_host(path).stderr, "1 new records stored\n")
        text, drawn = self.run_on_terminal(path, "--json")
        self.assertEqual(text, '{"Size":1,"list":[{"Id":"x","MetaDataSrc":"d","Score":5.0}]}\n')
        self.assertIn("\r\033[K[########################################] storing: 1 of 1 records", drawn)
        self.assertTrue(drawn.endswith("\r\033[K0 new records stored\n"), drawn)
        self.assertIn("\r\033[Kstoring: 1 of 1 records\r", self.run_on_terminal(path, width=40)[1])
        self.assertEqual(self.run_on_terminal(path, TERM="dumb")[1], "0 new records stored\n")
        drawn = self.run_on_terminal(self.write("empty.csv", HEADER), "--json")[1]
        self.assertIn(f"[{'#' * 40}] storing: 0 of 0 records", drawn)

    NAMES = ["Ein recht langer Name eines Liedes", "日本語の名前はとても広い文字です", "Cafe\u0301 e\u0301te\u0301 " * 5, "x",
             "a\x1b[31mb\u2028c\u202ed"]

    def write_names(self):
        return self.write("a.csv", HEADER + "".join(
            f"u{index},{name},{name},{1709560800 + 4000 * index},{360000 * (index + 1)}\n"
            for index, name in enumerate(self.NAMES)))

    def test_fits_tables_to_the_terminal(self):
        self.run_host(self.write_names())
        for width in (36, 80, 400):
            for arguments, number in {("--agent", "mfu"): r"\d+\.\d h", ("--weekly",): r"\d\d:00",
                                      ("--agent", "mru"): r"2024-03-04 \d\d:\d\d:\d\d",
                                      ("--evaluate",): r"\d\.\d{3}"}.items():
                with self.subTest(width=width, arguments=arguments):
                    text = self.run_on_terminal(*arguments, width=width, NO_COLOR="1")[0]
                    lines = text.split("\n\n", 1)[1].splitlines()
                    self.assertLessEqual(max(map(columns, lines)), width)
                    rows = [line for line in lines if re.search(number, line)]
                    self.assertEqual(len(rows), {"--weekly": 24, "--evaluate": 8}.get(arguments[0], 5))
                    ends = {columns(row[:re.search(number, row).end()]) for row in rows}
                    self.assertEqual(len(ends), 1, "the columns are not aligned")
                    self.assertEqual("…" in text, width == 36 or width == 80 and "--evaluate" not in arguments)
        self.assertEqual(self.run_on_terminal(width=0, NO_COLOR="1"), self.run_on_terminal(width=80, NO_COLOR="1"))
        narrow = self.run_on_terminal(width=10, NO_COLOR="1")[0]
        self.assertEqual(len(re.findall(r" \d+\.\d h$", narrow, re.M)), 5, "a number was cut")
        wide = self.run_on_terminal(width=40, COLUMNS="300", NO_COLOR="1")[0]
        for name in self.NAMES[:4]:
            self.assertEqual(wide.count(name.strip()), 2)
        self.assertEqual(wide.count("a\ufffd[31mb\ufffdc\ufffdd"), 2)

    def test_cuts_nothing_in_a_pipe(self):
        path = self.write_names()
        for arguments in ([path], ["--weekly"], ["--evaluate"]):
            text = self.run_host(*arguments).stdout
            self.assertNotIn("…", text)
            self.assertNotIn("\033", text)
        self.assertEqual(self.run_host("--agent", "mfu").stdout.count(self.NAMES[2].strip()), 2)
        self.assertIn("a\ufffd[31mb", self.run_host("--weekly").stdout)

    def test_bolds_headings_unless_no_color_or_dumb(self):
        self.run_host(self.write("a.csv", HEADER + "x,X,d,100,5\n"))
        plain = self.run_host().stdout
        for environment in ({"NO_COLOR": "1"}, {"TERM": "dumb"}, {"TERM": ""}):
            self.assertEqual(self.run_on_terminal(**environment)[0], plain)
        for environment in ({}, {"NO_COLOR": ""}):
            bold = self.run_on_terminal(**environment)[0]
            self.assertTrue(bold.startswith("\033[1mMost used, of 1 records\033[0m\n"), bold)
            self.assertEqual(re.sub("\033\\[[01]m", "", bold), plain)
            self.assertEqual(bold.count("\033"), 4)

    def run_with_output(self, redirection, *arguments):
        return subprocess.run(self.with_store("sh", "-c", f'exec "$0" "$@" {redirection}', PROGRAM, *arguments),
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8", timeout=BOUND)

    def test_reports_output_that_cannot_be_written(self):
        self.run_host(self.write("a.csv", HEADER + "x,X,d,100,5\n"))
        for redirection, argument in ((">&-", "--json"), (">/dev/full", "--weekly"), ("<&- >&-", "--evaluate")):
            with self.subTest(redirection=redirection):
                result = self.run_with_output(redirection, argument)
                self.assertEqual(result.returncode, 8, result.stderr)
                self.assertEqual(result.stderr.count("\n"), 1)
                self.assertIn("cannot write to standard output: free some space", result.stderr)
        self.assertEqual(self.run_with_output(">&- 2>&-").returncode, 8)
        self.assertEqual((self.store / "usage.db.lock").read_bytes(), b"", "another file took its place")
        self.assertEqual(len(self.rows()), 1)

    def test_reports_a_pipe_that_is_full(self):
        self.run_host(self.write("a.csv", HEADER + "x,X,d,100,5\n"))
        ours, theirs = os.pipe()
        os.set_blocking(theirs, False)
        with contextlib.suppress(BlockingIOError):
            while True:
                os.write(theirs, bytes(4096))
        result = subprocess.run(self.command("--json"), stdout=theirs, stderr=subprocess.PIPE, encoding="utf-8",
                                timeout=BOUND)
        os.close(theirs)
        os.close(ours)
        self.assertEqual(result.returncode, 8)
        self.assertIn("cannot write to standard output", result.stderr)

    def test_ends_quietly_when_its_reader_closes_the_pipe(self):
        self.run_host(self.write("a.csv", HEADER + "".join(f"u{index},X,d,{index},5\n" for index in range(200))))
        for arguments in (["--max", 1], ["--json", "--weekly", "--max", 200]):
            ours, theirs = os.pipe()
            process = subprocess.Popen(self.command(*arguments), stdout=theirs, stderr=subprocess.PIPE)
            os.close(theirs)
            os.close(ours)
            self.assertEqual((process.communicate(timeout=BOUND)[1], process.returncode), (b"", 0))

    # The page, as a file. Its contents are tested in a browser.

    def test_writes_the_page_and_prints_the_same(self):
        path = self.write("a.csv", HEADER + "x,X,d,100,5\n" * 10)
        page = self.folder / "week.html"
        result = self.run_host("--page", page, path)
        self.assertTrue(result.stderr.endswith(f"wrote {page}; open it in a browser\n"), result.stderr)
        text = page.read_text(encoding="utf-8")
        self.assertTrue(text.startswith("<!DOCTYPE html>") and text.endswith("</html>\n"))
        self.assertEqual(re.findall(r"@[A-Z]+@", text), [])
        self.assertEqual(page.stat().st_mode & 0o777, 0o644)
        for arguments in (["--agent", "mru", "--json"], ["--weekly"], ["--evaluate"]):
            with self.subTest(arguments):
                page.unlink()
                plain = self.run_host(*arguments).stdout
                self.assertEqual(self.run_host("-p", page, *arguments).stdout, plain)
                self.assertEqual(page.read_text(encoding="utf-8"), text)
        self.assertEqual(sorted(entry.name for entry in self.folder.iterdir()), ["a.csv", "store", "week.html"])

    def test_names_the_time_zone_on_the_page(self):
        page = self.folder / "week.html"
        for zone, name in {"": "UTC", ":Europe/Paris": "Europe/Paris", "Asia/Tokyo": "Asia/Tokyo"}.items():
            with self.subTest(zone):
                self.run_host("--page", page, zone=zone)
                self.assertIn(f'{{"Records":0,"Zone":"{name}"}}', page.read_text(encoding="utf-8"))

    def test_writes_units_without_a_name_to_a_page_beside(self):
        path = self.write("a.csv", HEADER + "x,,d,100,5\ny,Y,d,200,7\n")
        subprocess.run(self.command("--evaluate", "--max", 1, "--page", "week.html", path), check=True,
                       cwd=self.folder, timeout=BOUND, capture_output=True, env={**os.environ, "TZ": "UTC"})
        text = (self.folder / "week.html").read_text(encoding="utf-8")
        self.assertIn('{"Id":"y","MetaDataSrc":"d","Name":"Y","Score":7.0}', text)
        self.assertNotIn('"Id":"x"', text)
        self.run_host("--page", self.folder / "week.html")
        text = (self.folder / "week.html").read_text(encoding="utf-8")
        self.assertIn('{"Id":"x","MetaDataSrc":"d","Score":5.0}', text)

    def test_keeps_the_old_page_when_writing_fails(self):
        self.run_host(self.write("a.csv", HEADER + "x,X,d,100,5\n"))
        page = self.folder / "week.html"
        page.write_text("older")

        def limit_file_size():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096))

        result = subprocess.run(self.command("--page", page), capture_output=True, encoding="utf-8", timeout=BOUND,
                                preexec_fn=limit_file_size)
        self.assertEqual((result.returncode, result.stdout), (7, ""), result.stderr)
        self.assertIn("context-host: cannot write the page: ", result.stderr)
        self.assertIn("free some space", result.stderr)
        self.assertEqual(page.read_text(), "older")
        self.assertEqual(sorted(entry.name for entry in self.folder.iterdir()), ["a.csv", "store", "week.html"])
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        for wrong, advice in {self.folder / "no/week.html": f"{self.folder}/no does not exist: create it",
                              self.folder: "choose another name", pipe: "choose another name"}.items():
            result = self.run_host("--page", wrong, status=7)
            self.assertIn(advice, result.stderr)
            self.assertEqual((result.stderr.count("\n"), result.stdout), (1, ""))
        self.assertTrue(pipe.is_fifo())

    def test_reports_options_that_exclude_each_other(self):
        for arguments, message in {("--evaluate", "--weekly"): "--evaluate cannot be combined",
                                   ("--serve", "0", "--evaluate"): "--serve cannot be combined",
                                   ("--serve", "0", "--weekly"): "--serve cannot be combined"}.items():
            with self.subTest(arguments):
                self.assertIn(message, self.run_host(*arguments, status=2).stderr)


if __name__ == "__main__":
    main()
