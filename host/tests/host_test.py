#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the host as a user does and looks at what it prints, stores and returns.

  host_test.py ROOT CONTEXT_HOST CONTEXT_QUERY
"""
import collections
import contextlib
import csv
import datetime
import fcntl
import json
import os
import pathlib
import pty
import re
import resource
import select
import signal
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unicodedata
import unittest
import zoneinfo

ROOT = pathlib.Path(sys.argv[1])
PROGRAM = sys.argv[2]
QUERY = sys.argv[3]
HISTORIES = ROOT / "tests/data/histories"
HEADER = "unit_id,unit_name,device_name,start_time,duration\n"
BOUND = 180  # seconds that any run may take; an emulator needs half a minute for the longest history


def columns(text):
    """The columns that a text takes on a terminal."""
    return sum(0 if unicodedata.combining(character) else 2 if unicodedata.east_asian_width(character) in "WF" else 1
               for character in text)


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

    def run_on_terminal(self, *arguments, width=80, **environment):
        """What the host shows on a terminal of that width, and on its standard error, which is another."""
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
                except OSError:  # that is how a terminal ends
                    piece = b""
                texts[ours] += piece
                if not piece:
                    unread.remove(ours)
                    os.close(ours)
        self.assertEqual(process.wait(timeout=BOUND), 0)
        return [text.decode().replace("\r\n", "\n") for text in texts.values()]

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
        self.assertIn("  1  日本語    1970-01-01 00:05:00  a", self.run_host("--agent", "mru").stdout)

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

    def test_takes_a_history_in_big_endian_utf_16(self):
        text = (HEADER + "x,Ünï ☃ 𝄞,日本,100,5\ny,,d,300,7\n").encode("utf-16-be")
        self.run_host(self.write("a.csv", b"\xfe\xff" + text))
        self.assertEqual(self.rows(), [("usage/a", "x", "Ünï ☃ 𝄞", "日本", 100, 5), ("usage/a", "y", "", "d", 300, 7)])
        crlf = self.write("c.csv", b"\xfe\xff" + (HEADER + "x,X,d,1,2\n\n").replace("\n", "\r\n").encode("utf-16-be"))
        self.assertIn("1 new records stored", self.run_host(crlf).stderr)
        for name, bytes_ in {"odd": b"\xfe\xff\0", "zero": b"\xfe\xff\0\0\0x"}.items():
            path = self.write(name + ".csv", bytes_)
            self.assertIn(f"{path}:1: is not UTF-16 text", self.run_host(path, status=4).stderr)
        half = self.write("b.csv", b"\xfe\xff" + HEADER.encode("utf-16-be") + b"\xd8\x00\x00\n")
        self.assertIn(f"{half}:2: is not UTF-16 text", self.run_host(half, status=4).stderr)

    # How well it foresees.

    def foreseen(self, name, zone):
        """The evaluation of the three rankings, by plain counting and sorting."""
        with open(HISTORIES / name, encoding="utf-8", newline="") as file:
            records = [(row["unit_id"], int(row["start_time"]), int(row["duration"])) for row in csv.DictReader(file)]
        zone = zoneinfo.ZoneInfo(zone)
        last, total, pattern = {}, collections.Counter(), collections.Counter()
        found = [[0, 0, 0, 0.0] for _ in range(3)]
        tries = len(records) // 5
        for index, (unit, start, duration) in enumerate(records):
            local = datetime.datetime.fromtimestamp(start, zone)
            day, hour = local.isoweekday() % 7, local.hour
            if index >= len(records) - tries:
                scores = [last, total, {
                    known: 0.1 * total[known] + pattern[known, hour] + 6 * pattern[known, "day", day]
                    + 11 * pattern[known, day, hour] for known in last}]
                for result, score in zip(found, scores):
                    if unit in last:
                        place = sorted(last, key=lambda known: -score[known]).index(unit) + 1
                        for column, limit in enumerate((1, 3, 5)):
                            result[column] += place <= limit
                        result[3] += 1 / place
            last[unit] = start
            left, moment = min(duration, 12000), start
            total[unit] += duration
            while left > 0:
                local = datetime.datetime.fromtimestamp(moment, zone)
                piece = min(left, 3600 - local.minute * 60 - local.second)
                day, hour = local.isoweekday() % 7, local.hour
                for key in ((unit, hour), (unit, "day", day), (unit, day, hour)):
                    pattern[key] += piece
                left -= piece
                moment += piece
        return tries, [[f"{100 * hits / tries:.1f}" for hits in row[:3]] + [f"{row[3] / tries:.3f}"] for row in found]

    def test_evaluates_how_often_the_next_use_was_foreseen(self):
        tries, expected = self.foreseen("tv_a.csv", "America/Sao_Paulo")
        text = self.run_host("--evaluate", HISTORIES / "tv_a.csv", zone="America/Sao_Paulo").stdout
        self.assertIn(f"{tries} uses, the last fifth of 2121 records", text)
        rows = [line.replace("%", "").split() for line in text.splitlines()]
        self.assertEqual([row[-4:] for row in rows if row[:1] in (["recency"], ["total"], ["week"])], expected)
        bandits = {row[0]: [float(column) for column in row[-4:]] for row in rows[9:] if row}
        self.assertEqual(list(bandits), ["epsilon-greedy", "softmax", "most", "Thompson", "Kalman"])
        best = [max(float(row[column]) for row in expected) for column in range(4)]
        for row in bandits.values():
            self.assertTrue(all(0 < column <= limit for column, limit in zip(row, best)), row)

    def test_evaluates_nothing_when_there_is_too_little(self):
        self.assertIn("Nothing to foresee", self.run_host("--evaluate").stdout)

    # What it answers.

    @contextlib.contextmanager
    def served(self, *arguments):
        process = subprocess.Popen(self.command("--serve", 0, *arguments), stderr=subprocess.PIPE, encoding="utf-8",
                                   start_new_session=True, env={**os.environ, "TZ": "UTC"})
        try:
            yield int(re.search(r"serving at port (\d+)", process.stderr.readline())[1]), process
        finally:
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGTERM)
            self.rest = process.communicate(timeout=BOUND)[1]

    def ask(self, port, *request, status=0):
        result = subprocess.run([QUERY, str(port), *request], capture_output=True, encoding="utf-8", timeout=BOUND)
        self.assertEqual(result.returncode, status, result.stderr)
        return json.loads(result.stdout) if result.stdout else result.stderr

    def wait_for(self, port, request, wanted):
        deadline = time.monotonic() + BOUND
        while self.ask(port, *request) != wanted:
            self.assertLess(time.monotonic(), deadline, "the answer never came")
            time.sleep(0.05)

    def test_answers_requests_with_the_json_text(self):
        path = self.write("a.csv", HEADER + "x,X,tv,100,5\ny,Y,,300,7\nz,Z,,200,6\n")
        with self.served(path) as (port, _):
            self.wait_for(port, ["rank", "mfu", "1"], {"Size": 1, "list": [{"Id": "y", "Score": 7.0}]})
            self.assertEqual([item["Id"] for item in self.ask(port, "rank", "mru")["list"]], ["y", "z", "x"])
            self.assertEqual([item["Id"] for item in self.ask(port, "rank", "mru", "2")["list"]], ["y", "z"])
            self.assertEqual(self.ask(port, "rank", "date", "0"), {"Size": 0})
            self.assertEqual(len(self.ask(port, "rank", "date")["list"]), 3)
            self.assertEqual(self.ask(port, "weekly")["Size"], 7)
            self.assertEqual(self.ask(port, "quit"), {"bye": True})
            for request in (["rank"], ["rank", "best"], ["rank", "mru", "-1"], ["weekly", "now"], ["nonsense"]):
                self.assertIn("error", self.ask(port, *request, status=3))
            with open("/dev/full", "wb") as full:
                self.assertEqual(subprocess.run([QUERY, str(port), "rank", "mru"], stdout=full, timeout=BOUND,
                                                stderr=subprocess.DEVNULL).returncode, 8)
        self.assertIn("no answer", self.ask(port, "rank", "mru", status=1))

    def test_says_how_to_ask(self):
        for arguments in ([], ["7300"], ["many", "rank"], ["0", "rank"], ["65536", "rank"], ["73x", "rank"], ["--no", "1"]):
            with self.subTest(arguments):
                result = subprocess.run([QUERY, *arguments], capture_output=True, encoding="utf-8", timeout=BOUND)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertIn("--help", result.stderr)
                self.assertEqual(result.stderr.count("\n"), 1)

    def test_learns_what_is_added_while_it_serves(self):
        with self.served(HISTORIES / "music_d.csv") as (port, _):
            self.assertEqual(self.ask(port, "rank", "mfu"), {"Size": 0})
            self.wait_for(port, ["rank", "mru", "1"],
                          {"Size": 1, "list": [{"Id": "artist-00232082", "MetaDataSrc": "unspecified",
                                                "Score": 1650663899.0}]})

    def test_harms_nobody_when_a_request_is_hostile_or_half_finished(self):
        path = self.write("a.csv", HEADER + "x,X,tv,100,5\n")
        with self.served(path) as (port, process):
            hostile = {
                "nothing at all": b"",
                "half a header": b"\0\0",
                "half a text": b"\0\0\0\x09rank",
                "a negative length": struct.pack(">i", -1),
                "a huge length": struct.pack(">i", 2**31 - 1) + b"x" * 1000,
                "no text": struct.pack(">i", 0),
                "no terminator": struct.pack(">i", 4) + b"rank",
                "bytes": struct.pack(">i", 200) + bytes(range(200)),
            }
            for name, sent in hostile.items():
                with self.subTest(name):
                    with socket.create_connection(("127.0.0.1", port), timeout=BOUND) as client:
                        client.sendall(sent)
                    self.wait_for(port, ["rank", "mfu"],
                                  {"Size": 1, "list": [{"Id": "x", "MetaDataSrc": "tv", "Score": 5.0}]})
            with socket.create_connection(("127.0.0.1", port), timeout=BOUND) as silent:
                silent.sendall(b"\0")
                begun = time.monotonic()
                self.assertIn("list", self.ask(port, "rank", "mfu"))
                self.assertLess(time.monotonic() - begun, 20)
                self.assertEqual(silent.recv(1), b"", "the silent client was cut off")
            self.assertIsNone(process.poll())

    def test_says_so_when_the_port_is_taken(self):
        with socket.create_server(("0.0.0.0", 0)) as taken:
            result = self.run_host("--serve", taken.getsockname()[1], status=6)
            self.assertIn(f"cannot open port {taken.getsockname()[1]}: it is taken", result.stderr)

    def test_ends_its_service_when_it_is_told_to(self):
        with self.served("--track-memory") as (port, process):
            self.assertIn("error", self.ask(port, "nonsense", status=3))
            os.killpg(process.pid, signal.SIGTERM)
            process.wait(timeout=BOUND)
        self.assertIn("the host's own buffers: 0 blocks in use with 0 bytes, at most 256 bytes at once", self.rest)

    def test_counts_the_buffers_of_an_import(self):
        path = self.write("a.csv", HEADER + "x,X,tv,100,5\n")
        self.assertIn(f"0 blocks in use with 0 bytes, at most {path.stat().st_size} bytes at once",
                      self.run_host("--track-memory", path).stderr)

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
                          ["--min-duration", "-1"], ["--weekly", "--agent", "mru"], ["--database", "../x"],
                          ["--evaluate", "--json"], ["--page", ""], ["--page", "-"], ["--serve", "0", "--page", "a"], ["--serve", "0", "--json"], ["--serve", "-2"], ["--serve", "65536"]):
            with self.subTest(arguments):
                result = self.run_host(*arguments, status=2)
                self.assertIn("--help", result.stderr)
                self.assertEqual(result.stderr.count("\n"), 1)
                self.assertEqual(result.stdout, "")

    def test_tells_how_to_make_the_data_directory(self):
        for change, advice in {"rm -r": "sudo install -d", "mount -t tmpfs -o ro none": "Read-only file system"}.items():
            # The folder is made anew, since the one that was shown there may be a mount's last.
            result = subprocess.run([str(ROOT / "scripts/with-data-directory"), str(self.store), "sh", "-c",
                                     'umount "$LUMORA_PRIVATE_DATA_DIRECTORY" && mount -t tmpfs none '
                                     '"${LUMORA_PRIVATE_DATA_DIRECTORY%/*}" && mkdir '
                                     f'"$LUMORA_PRIVATE_DATA_DIRECTORY" && {change} "$LUMORA_PRIVATE_DATA_DIRECTORY" '
                                     '&& exec "$0"', PROGRAM],
                                    capture_output=True, encoding="utf-8", timeout=BOUND)
            self.assertEqual(result.returncode, 5, result.stderr)
            self.assertIn(advice, result.stderr)
            self.assertEqual(result.stderr.count("\n"), 1)

    def test_leaves_a_store_alone_that_it_may_not_write(self):
        history = self.write("a.csv", HEADER + "x,X,d,100,5\n")
        self.run_host(history)
        for name in ("usage.db", "usage.db.lock"):
            with self.subTest(name):
                (self.store / name).chmod(0o400)
                before = (self.store / "usage.db").read_bytes()
                # Root may write whatever it likes; without this capability it may not.
                result = subprocess.run([str(ROOT / "scripts/with-data-directory"), str(self.store), "setpriv",
                                         "--bounding-set", "-dac_override", PROGRAM, str(history)],
                                        capture_output=True, encoding="utf-8", timeout=BOUND)
                self.assertEqual(result.returncode, 5, result.stderr)
                self.assertIn(f"{name}: Permission denied", result.stderr)
                self.assertEqual((self.store / "usage.db").read_bytes(), before)
                (self.store / name).chmod(0o600)

    def test_says_so_when_the_database_cannot_be_opened(self):
        (self.store / "usage.db" / "occupied").mkdir(parents=True)
        self.assertIn("cannot open", self.run_host(status=5).stderr)

    def test_keeps_a_store_to_one_host_at_a_time(self):
        with self.served() as (port, _):
            result = self.run_host("--agent", "mru", status=5)
            self.assertIn("another context-host uses the store", result.stderr)
            self.assertEqual(self.rank("--database", "other.db"), [])
            self.assertEqual(self.ask(port, "rank", "mru"), {"Size": 0})

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
        text, drawn = self.run_on_terminal(path, "--json")
        self.assertEqual(text, '{"Size":1,"list":[{"Id":"x","MetaDataSrc":"d","Score":5.0}]}\n')
        self.assertIn("\r\033[K[########################################] storing: 1 of 1 records", drawn)
        self.assertTrue(drawn.endswith("\r\033[K0 new records stored\n"), drawn)
        self.assertIn("\r\033[Kstoring: 1 of 1 records\r", self.run_on_terminal(path, width=40)[1])
        self.assertEqual(self.run_on_terminal(path, TERM="dumb")[1], "0 new records stored\n")

    # On a terminal and elsewhere.

    NAMES = ["Ein recht langer Name eines Liedes", "日本語の名前はとても広い文字です", "Cafe\u0301 e\u0301te\u0301 " * 5, "x",
             "a\x1b[31mb\u2028c\u202ed"]

    def write_names(self):
        return self.write("a.csv", HEADER + "".join(
            f"u{index},{name},{name},{1709560800 + 4000 * index},{360000 * (index + 1)}\n"
            for index, name in enumerate(self.NAMES)))

    def test_fits_its_tables_to_the_terminal(self):
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
                    self.assertEqual(len(ends), 1, "the columns stand below each other")
                    self.assertEqual("…" in text, width == 36 or width == 80 and "--evaluate" not in arguments)
        narrow = self.run_on_terminal(width=10, NO_COLOR="1")[0]
        self.assertEqual(len(re.findall(r" \d+\.\d h$", narrow, re.M)), 5, "numbers stay whole")
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

    def test_prints_headings_in_bold_where_that_is_welcome(self):
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
        return subprocess.run([str(ROOT / "scripts/with-data-directory"), str(self.store), "sh", "-c",
                               f'exec "$0" "$@" {redirection}', PROGRAM, *map(str, arguments)],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8", timeout=BOUND)

    def test_notices_when_its_output_goes_nowhere(self):
        self.run_host(self.write("a.csv", HEADER + "x,X,d,100,5\n"))
        for redirection, argument in ((">&-", "--json"), (">/dev/full", "--weekly"), ("<&- >&-", "--evaluate")):
            with self.subTest(redirection=redirection):
                result = self.run_with_output(redirection, argument)
                self.assertEqual(result.returncode, 8, result.stderr)
                self.assertEqual(result.stderr.count("\n"), 1)
                self.assertIn("standard output takes no more: make room", result.stderr)
        self.assertEqual(self.run_with_output(">&- 2>&-").returncode, 8)
        self.assertEqual((self.store / "usage.db.lock").read_bytes(), b"", "no other file took its place")
        self.assertEqual(len(self.rows()), 1)

    def test_ends_quietly_when_its_reader_goes(self):
        self.run_host(self.write("a.csv", HEADER + "".join(f"u{index},X,d,{index},5\n" for index in range(200))))
        for arguments in (["--max", 1], ["--json", "--weekly", "--max", 200]):
            ours, theirs = os.pipe()
            process = subprocess.Popen(self.command(*arguments), stdout=theirs, stderr=subprocess.PIPE)
            os.close(theirs)
            os.close(ours)
            self.assertEqual((process.communicate(timeout=BOUND)[1], process.returncode), (b"", 0))

    # The page, as a file: what it shows is tested in a browser.

    def test_writes_the_page_beside_what_it_prints(self):
        path = self.write("a.csv", HEADER + "x,X,d,100,5\n" * 10)
        page = self.folder / "week.html"
        result = self.run_host("--page", page, path)
        self.assertTrue(result.stderr.endswith(f"{page} written; open it with a browser\n"), result.stderr)
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

    def test_keeps_an_older_page_when_the_new_one_cannot_be_written(self):
        self.run_host(self.write("a.csv", HEADER + "x,X,d,100,5\n"))
        page = self.folder / "week.html"
        page.write_text("older")

        def no_room():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096))

        result = subprocess.run(self.command("--page", page), capture_output=True, encoding="utf-8", timeout=BOUND,
                                preexec_fn=no_room)
        self.assertEqual((result.returncode, result.stdout), (7, ""), result.stderr)
        self.assertIn("context-host: the page is not written: ", result.stderr)
        self.assertIn("make room there", result.stderr)
        self.assertEqual(page.read_text(), "older")
        self.assertEqual(sorted(entry.name for entry in self.folder.iterdir()), ["a.csv", "store", "week.html"])
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        for wrong, advice in {self.folder / "no/week.html": f"{self.folder}/no: make it, or choose another folder", self.folder: "another name",
                              pipe: "another name"}.items():
            result = self.run_host("--page", wrong, status=7)
            self.assertIn(advice, result.stderr)
            self.assertEqual((result.stderr.count("\n"), result.stdout), (1, ""))
        self.assertTrue(pipe.is_fifo())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:], verbosity=1)
