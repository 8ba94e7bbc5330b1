#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the example host as a user does and looks at what it prints, stores and returns.

  context_host_test.py ROOT PROGRAM
"""
import collections
import csv
import json
import os
import pathlib
import pty
import re
import select
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = pathlib.Path(sys.argv[1])
PROGRAM = sys.argv[2]
HISTORIES = ROOT / "tests/data/histories"
HEADER = "unit_id,unit_name,device_name,start_time,duration\n"
BOUND = 60  # seconds that any run may take


class ContextHostTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.store = self.folder / "store"

    def command(self, *arguments):
        return [str(ROOT / "scripts/with-data-directory"), str(self.store), PROGRAM, *map(str, arguments)]

    def run_host(self, *arguments, zone="UTC", status=0):
        result = subprocess.run(self.command(*arguments), capture_output=True, encoding="utf-8", timeout=BOUND,
                                stdin=subprocess.DEVNULL, env={**os.environ, "TZ": zone})
        self.assertEqual(result.returncode, status, result.stderr)
        return result

    def rank(self, *arguments, zone="UTC"):
        text = self.run_host("--json", *arguments, zone=zone).stdout
        return [(item["Id"], item["Score"]) for item in json.loads(text).get("list", [])]

    def write(self, name, content):
        path = self.folder / name
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return path

    def rows(self, database="usage.db"):
        with sqlite3.connect(self.store / database) as connection:
            return connection.execute("SELECT history, unit_id, unit_name, device_name, start_time, duration "
                                      "FROM usage ORDER BY start_time, rowid").fetchall()

    # What it is for.

    def test_stores_every_record_of_a_real_history(self):
        self.run_host(HISTORIES / "tv_a.csv")
        with open(HISTORIES / "tv_a.csv", encoding="utf-8", newline="") as file:
            expected = [("usage/tv_a", row["unit_id"], row["unit_name"], row["device_name"], int(row["start_time"]),
                         int(row["duration"])) for row in csv.DictReader(file)]
        self.assertEqual(self.rows(), expected)

    def test_ranks_a_real_history_by_total_use(self):
        totals = collections.Counter()
        with open(HISTORIES / "music_d.csv", encoding="utf-8", newline="") as file:
            for row in csv.DictReader(file):
                if int(row["duration"]) >= 30:
                    totals[row["unit_id"]] += int(row["duration"])
        ranking = self.rank("--min-duration", 30, "--max", 25, HISTORIES / "music_d.csv")
        self.assertEqual(ranking, [(unit, float(total)) for unit, total in totals.most_common(25)])

    def test_ranks_by_the_record_learnt_last(self):
        path = self.write("a.csv", HEADER + "x,X,d,100,5\ny,Y,d,300,5\nx,X,d,200,5\nz,Z,d,300,5\n")
        self.assertEqual(self.rank("--agent", "mru", path), [("y", 300.0), ("z", 300.0), ("x", 200.0)])

    def test_learns_in_the_order_of_time_and_then_of_arrival(self):
        path = self.write("a.csv", HEADER + "late,,d,9,1\nfirst,,d,5,1\nsecond,,d,5,1\n")
        self.assertEqual([unit for unit, _ in self.rank(path)], ["first", "second", "late"])

    def test_ranks_each_hour_of_the_week_in_local_time(self):
        path = self.write("a.csv", HEADER + "x,X,d,1709560800,600\n")  # Monday 2024-03-04 14:00 UTC
        grid = json.loads(self.run_host("--weekly", "--json", path, zone="Asia/Kolkata").stdout)
        self.assertEqual(grid["Size"], 7)
        scores = {(day, hour): grid[day][0][hour][0]["list"][0]["Score"] for day in grid if day != "Size"
                  for hour in grid[day][0]}
        self.assertEqual(len(scores), 168)
        self.assertEqual(max(scores, key=scores.get), ("Mon", "19"))
        self.assertAlmostEqual(scores["Mon", "19"], 600 * (0.1 + 1 + 6 + 11))
        self.assertAlmostEqual(scores["Tue", "19"], 600 * (0.1 + 1))

    def test_prints_the_json_text_and_nothing_else(self):
        path = self.write("a.csv", HEADER + "x,X,tv,100,5\ny,Y,,300,7\n")
        self.assertEqual(self.run_host("--json", path).stdout,
                         '{"Size":2,"list":[{"Id":"y","Score":7.0},{"Id":"x","MetaDataSrc":"tv","Score":5.0}]}\n')
        self.assertEqual(self.run_host("--json", "--max", 0).stdout, '{"Size":0}\n')

    def test_prints_a_table(self):
        path = self.write("a.csv", HEADER + "x,Ein Lied,phone,100,5400\ny,日本語,a\x1b[31mb,300,360\n")
        self.assertEqual(self.run_host(path).stdout, """Most used, of 2 records

  #  Name      Time used  Latest device
  1  Ein Lied      1.5 h  phone
  2  日本語        0.1 h  a\ufffd[31mb
""")
        self.assertIn("  1  日本語    1970-01-01 00:05  a", self.run_host("--agent", "mru").stdout)

    def test_prints_the_week_as_a_table(self):
        path = self.write("a.csv", HEADER + "x,Ein Lied,phone,1709560800,5400\n")
        lines = self.run_host("--weekly", path).stdout.splitlines()
        self.assertEqual(lines[2].split(), ["Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"])
        self.assertEqual([line[:5] for line in lines[3:]], ["%02d:00" % hour for hour in range(24)])
        self.assertEqual(lines[3].count("Ein Lied"), 7)
        self.assertIn("Nothing to rank", self.run_host("--max", 0).stdout)

    def test_ranks_what_is_stored_when_no_file_is_named(self):
        self.assertEqual(self.rank(), [])
        self.rank(self.write("a.csv", HEADER + "x,X,d,100,5\n"))
        self.assertEqual(self.rank(), [("x", 5.0)])
        self.assertEqual(self.rank("--database", "other.db"), [])

    # What is stored once and what counts.

    def test_stores_nothing_twice_when_a_file_is_imported_again(self):
        path = self.write("a.csv", HEADER + "x,X,d,100,5\ny,Y,d,101,6\n")
        self.assertIn("2 new records stored", self.run_host(path).stderr)
        before = self.rows()
        self.assertIn("0 new records stored", self.run_host(path).stderr)
        self.assertIn("0 new records stored", self.run_host(path, path).stderr)
        self.assertEqual(self.rows(), before)

    def test_adds_only_what_is_new_in_a_file_that_has_grown(self):
        path = self.write("a.csv", HEADER + "x,X,d,100,5\n")
        self.run_host(path)
        self.write("a.csv", HEADER + "x,X,d,100,5\nx,X,d,100,5\ny,Y,d,101,6\n")
        self.assertIn("2 new records stored", self.run_host(path).stderr)
        self.assertEqual(self.rank(), [("x", 10.0), ("y", 6.0)])

    def test_counts_all_equal_rows_of_one_file(self):
        path = self.write("a.csv", HEADER + "x,X,d,100,5\n" * 3 + "y,Y,d,100,5\n")
        self.assertEqual(self.rank(path), [("x", 15.0), ("y", 5.0)])
        self.assertEqual(self.rank(path), [("x", 15.0), ("y", 5.0)])

    def test_counts_equal_rows_of_two_devices(self):
        a = self.write("a.csv", HEADER + "x,X,d,100,5\n")
        b = self.write("b.csv", HEADER + "x,X,d,100,5\n")
        self.assertEqual(self.rank(a, b), [("x", 10.0)])
        self.assertEqual([row[0] for row in self.rows()], ["usage/a", "usage/b"])

    def test_keeps_what_the_format_allows_in_a_name(self):
        path = self.write("a.csv", HEADER + 'x," a, ""b""\r\nc ",  d ,-5,0\r\n')
        self.run_host(path)
        self.assertEqual(self.rows(), [("usage/a", "x", ' a, "b"\r\nc ', "  d ", -5, 0)])

    def test_takes_a_byte_order_mark_and_a_missing_last_line_feed(self):
        self.assertEqual(self.rank(self.write("a.csv", b"\xef\xbb\xbf" + (HEADER + "x,X,d,1,2").encode())), [("x", 2.0)])

    # What is refused.

    def test_reports_the_line_of_a_malformed_row_and_stores_nothing(self):
        good = self.write("good.csv", HEADER + "x,X,d,100,5\n")
        rows = {
            "too few fields": ("y,Y,d,1\n", 3, "4 fields where 5 are expected"),
            "too many fields": ("y,Y,d,1,2,3\n", 3, "6 fields where 5 are expected"),
            "no unit": (",Y,d,1,2\n", 3, "unit_id is empty"),
            "start is text": ("y,Y,d,now,2\n", 3, 'start_time is not a whole number of seconds that fits into 32 bits: '
                              '"now"'),
            "start too large": ("y,Y,d,2147483648,2\n", 3, "start_time is not a whole number"),
            "fraction": ("y,Y,d,1,2.5\n", 3, "duration is not a whole number"),
            "blank in a number": ("y,Y,d, 1,2\n", 3, "start_time is not a whole number"),
            "empty number": ("y,Y,d,1,\n", 3, "duration is not a whole number"),
            "negative duration": ("y,Y,d,1,-2\n", 3, "duration is negative"),
            "stray quote": ('y,Y"Z,d,1,2\n', 3, "a quote stands where none may be"),
            "text behind a quote": ('y,"Y"Z,d,1,2\n', 3, "a quote stands where none may be"),
            "open quote": ('y,"Y,d,1,2\nz,Z,d,1,2\n', 3, "the quote that opens here is never closed"),
            "behind a name of two lines": ('y,"Y\nY",d,1,2\nz,Z,d\n', 5, "3 fields"),
            "not UTF-8": (b"y,\xff,d,1,2\n", 3, "unit_name is not UTF-8"),
            "zero byte": (b"y,a\0b,d,1,2\n", 3, "unit_name is not UTF-8"),
        }
        for name, (row, line, what) in rows.items():
            with self.subTest(name):
                row = row if isinstance(row, bytes) else row.encode()
                path = self.write("bad.csv", (HEADER + "x,X,d,1,1\n").encode() + row)
                result = self.run_host(good, path, status=4)
                self.assertTrue(result.stderr.startswith(f"context-host: {path}:{line}: {what}"), result.stderr)
                self.assertEqual(result.stderr.count("\n"), 1)
                self.assertEqual(result.stdout, "")
                self.assertFalse((self.store / "usage.db").exists() and self.rows())

    def test_reports_a_wrong_header(self):
        for content in ("", "unit_id,unit_name\n", "x,X,d,1,2\n", HEADER.upper()):
            with self.subTest(content):
                path = self.write("bad.csv", content)
                self.assertIn(f"{path}:1: ", self.run_host(path, status=4).stderr)

    def test_reports_a_file_that_cannot_be_read(self):
        missing = self.folder / "missing.csv"
        for path in (missing, self.folder):
            result = self.run_host(path, status=3)
            self.assertIn(str(path), result.stderr)
            self.assertEqual(result.stderr.count("\n"), 1)

    def test_reports_a_wrong_command_line(self):
        for arguments in (["--nonsense"], ["--agent", "best"], ["--max", "many"], ["--max", "-1"],
                          ["--min-duration", "-1"], ["--weekly", "--agent", "mru"], ["--database", "../x"]):
            with self.subTest(arguments):
                result = self.run_host(*arguments, status=2)
                self.assertIn("--help", result.stderr)
                self.assertEqual(result.stderr.count("\n"), 1)
                self.assertEqual(result.stdout, "")

    def test_tells_how_to_make_the_data_directory(self):
        result = subprocess.run([str(ROOT / "scripts/with-data-directory"), str(self.store), "sh", "-c",
                                 'umount "$LUMORA_PRIVATE_DATA_DIRECTORY" && mount -t tmpfs -o ro none '
                                 '"$LUMORA_PRIVATE_DATA_DIRECTORY" && exec "$0"', PROGRAM],
                                capture_output=True, encoding="utf-8", timeout=BOUND)
        self.assertEqual(result.returncode, 5, result.stderr)
        self.assertIn("sudo install -d", result.stderr)
        self.assertEqual(result.stderr.count("\n"), 1)

    def test_says_so_when_the_database_cannot_be_opened(self):
        (self.store / "usage.db" / "occupied").mkdir(parents=True)
        self.assertIn("cannot open", self.run_host(status=5).stderr)

    def test_teaches_its_use(self):
        text = self.run_host("--help").stdout
        for word in ("--agent", "--weekly", "--json", "Examples:", "Exit status:", "unit_id,unit_name"):
            self.assertIn(word, text)

    # While it works.

    def test_loses_nothing_that_was_flushed_when_it_is_interrupted(self):
        process = subprocess.Popen(self.command(HISTORIES / "music_d.csv"), stderr=subprocess.PIPE,
                                   stdout=subprocess.PIPE, encoding="utf-8", start_new_session=True)
        journal = self.store / "usage.db-journal"
        deadline = time.monotonic() + BOUND
        while not journal.exists() and process.poll() is None and time.monotonic() < deadline:
            time.sleep(0.001)
        os.killpg(process.pid, signal.SIGINT)
        _, stderr = process.communicate(timeout=BOUND)
        self.assertEqual(process.returncode, 130, stderr)
        stored = int(re.search(r"interrupted: (\d+) new records are stored", stderr)[1])
        self.assertEqual(len(self.rows()), stored)
        self.assertIn(f"{54429 - stored} new records stored", self.run_host(HISTORIES / "music_d.csv").stderr)
        self.assertEqual(len(self.rows()), 54429)

    def test_draws_its_progress_on_a_terminal_only(self):
        path = self.write("a.csv", HEADER + "x,X,d,100,5\n")
        self.assertEqual(self.run_host(path).stderr, "1 new records stored\n")
        ours, theirs = pty.openpty()
        process = subprocess.Popen(self.command(path, "--json"), stderr=theirs, stdout=subprocess.PIPE)
        os.close(theirs)
        drawn = b""
        while select.select([ours], [], [], BOUND)[0]:
            try:
                piece = os.read(ours, 4096)
            except OSError:
                break
            if not piece:
                break
            drawn += piece
        stdout, _ = process.communicate(timeout=BOUND)
        os.close(ours)
        self.assertEqual(process.returncode, 0)
        self.assertIn(b"[########################################] storing: 1 of 1 records", drawn)
        self.assertTrue(json.loads(stdout))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:], verbosity=1)
