#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Imports histories, and checks what is stored and what is refused.

  import_test.py ROOT CONTEXT_HOST CONTEXT_QUERY
"""
import csv
import os
import pathlib
import re
import select
import signal
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from host_case import BOUND, HEADER, HISTORIES, PROGRAM, HostCase, constant, main  # noqa: E402


class ImportTest(HostCase):
    def test_stores_every_record_of_a_real_history(self):
        self.run_host(HISTORIES / "tv_a.csv")
        with open(HISTORIES / "tv_a.csv", encoding="utf-8", newline="") as file:
            expected = [("usage/tv_a", row["unit_id"], row["unit_name"], row["device_name"], int(row["start_time"]),
                         int(row["duration"])) for row in csv.DictReader(file)]
        self.assertEqual(self.rows(), expected)

    def test_imports_big_endian_utf_16(self):
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

    def test_accepts_utf_8_mark_and_missing_final_newline(self):
        path = self.write("a.csv", b"\xef\xbb\xbf" + (HEADER + "x,X,d,1,2").encode())
        self.assertEqual(self.rank(path), [("x", 2.0)])

    def test_keeps_quotes_blanks_and_newlines_in_names(self):
        path = self.write("a.csv", HEADER + 'x," a, ""b""\r\nc ",  d ,-5,0\r\n')
        self.run_host(path)
        self.assertEqual(self.rows(), [("usage/a", "x", ' a, "b"\r\nc ', "  d ", -5, 0)])

    def test_stores_the_same_from_utf_8_and_utf_16(self):
        text = HEADER + 'x,"one\rtwo\r\nthree\nfour\n\r","d\r",1,2\r\n\r\ny,Y\u2028\ufeff,\U0001d11e,3,4\n'
        self.run_host("--database", "8.db", self.write("a.csv", text))
        self.run_host("--database", "16.db", self.write("a.csv", b"\xfe\xff" + text.encode("utf-16-be")))
        self.assertEqual(self.rows("16.db"), self.rows("8.db"))
        self.assertEqual(self.rows("8.db")[0][2:4], ("one\rtwo\r\nthree\nfour\n\r", "d\r"))

    def test_waits_for_a_pipe_with_a_message(self):
        pipe = self.folder / "pipe.csv"
        os.mkfifo(pipe)
        for ending in ("data", "interrupt"):
            process = subprocess.Popen(self.command("--json", pipe), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                       encoding="utf-8", start_new_session=True)
            self.addCleanup(self.end, process)
            self.assertTrue(select.select([process.stderr], [], [], BOUND)[0], "the host says nothing")
            self.assertEqual(process.stderr.readline(), f"waiting for the pipe {pipe}\n")
            if ending == "data":
                pipe.write_text(HEADER + "x,X,d,100,5\n")
                self.assertIn('"Id":"x"', process.communicate(timeout=BOUND)[0])
                self.assertEqual(process.returncode, 0)
            else:
                os.killpg(process.pid, signal.SIGINT)
                process.communicate(timeout=BOUND)
                self.assertEqual(process.returncode, 130)
        self.assertEqual(self.rows(), [("usage/pipe", "x", "X", "d", 100, 5)])

    def end(self, process):
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
            process.communicate(timeout=BOUND)

    def test_reads_a_history_from_standard_input(self):
        result = subprocess.run(self.command("--json", "/dev/stdin"), input=HEADER + "x,X,d,100,5\n", encoding="utf-8",
                                capture_output=True, timeout=BOUND)
        self.assertEqual((result.returncode, result.stderr), (0, "1 new records stored\n"))

    # Records that are stored already.

    def test_stores_nothing_when_a_file_is_imported_again(self):
        path = self.write("a.csv", HEADER + "x,X,d,100,5\ny,Y,d,101,6\n")
        self.assertIn("2 new records stored", self.run_host(path).stderr)
        before = self.rows()
        self.assertIn("0 new records stored", self.run_host(path).stderr)
        self.assertIn("0 new records stored", self.run_host(path, path).stderr)
        self.assertEqual(self.rows(), before)

    def test_adds_only_the_new_records_of_a_grown_file(self):
        path = self.write("a.csv", HEADER + "x,X,d,100,5\n")
        self.run_host(path)
        self.write("a.csv", HEADER + "x,X,d,100,5\nx,X,d,100,5\ny,Y,d,101,6\n")
        self.assertIn("2 new records stored", self.run_host(path).stderr)
        self.assertEqual(self.rank(), [("x", 10.0), ("y", 6.0)])

    def test_counts_all_equal_rows_of_one_file(self):
        path = self.write("a.csv", HEADER + "x,X,d,100,5\n" * 3 + "y,Y,d,100,5\n")
        self.assertEqual(self.rank(path), [("x", 15.0), ("y", 5.0)])
        self.assertEqual(self.rank(path), [("x", 15.0), ("y", 5.0)])

    def test_counts_equal_rows_of_two_histories(self):
        a = self.write("a.csv", HEADER + "x,X,d,100,5\n")
        b = self.write("b.csv", HEADER + "x,X,d,100,5\n")
        self.assertEqual(self.rank(a, b), [("x", 10.0)])
        self.assertEqual([row[0] for row in self.rows()], ["usage/a", "usage/b"])

    # Files that are refused.

    def test_reports_line_of_malformed_row_and_stores_none(self):
        good = self.write("good.csv", HEADER + "x,X,d,100,5\n")
        rows = {
            "too few fields": ("y,Y,d,1\n", 3, "expected 5 fields, found 4"),
            "too many fields": ("y,Y,d,1,2,3\n", 3, "expected 5 fields, found 6"),
            "no unit": (",Y,d,1,2\n", 3, "unit_id is empty"),
            "start is text": ("y,Y,d,now,2\n", 3, 'start_time is not a whole number of seconds that fits into 32 bits: '
                              '"now"'),
            "start too large": ("y,Y,d,2147483648,2\n", 3, "start_time is not a whole number"),
            "fraction": ("y,Y,d,1,2.5\n", 3, "duration is not a whole number"),
            "blank in a number": ("y,Y,d, 1,2\n", 3, "start_time is not a whole number"),
            "empty number": ("y,Y,d,1,\n", 3, "duration is not a whole number"),
            "negative duration": ("y,Y,d,1,-2\n", 3, "duration is negative"),
            "stray quote": ('y,Y"Z,d,1,2\n', 3, "misplaced quote"),
            "text after a quote": ('y,"Y"Z,d,1,2\n', 3, "misplaced quote"),
            "open quote": ('y,"Y,d,1,2\nz,Z,d,1,2\n', 3, "this row has a quote that is never closed"),
            "after a name of two lines": ('y,"Y\nY",d,1,2\nz,Z,d\n', 5, "expected 5 fields, found 3"),
            "after blank lines": ("\n\r\n\ny,Y,d,1\n", 6, "expected 5 fields, found 4"),
            "after a lone return": ("y,Y,d,1,2\rz,Z,d,1\n", 3, "expected 5 fields, found 4"),
            "both rows of a line": ("y,Y,d\rz,Z,d,1\n", 3, "expected 5 fields, found 3"),
            "blank line in a name": ('y,"Y\n\n",d,1,2\nz,Z\n', 6, "expected 5 fields, found 2"),
            "escape sequence": ("y,Y,d,\x1b[31m\u202e,2\n", 3,
                                'start_time is not a whole number of seconds that fits into 32 bits: '
                                '"\\x1B[31m\\xE2\\x80\\xAE"\n'),
            "a megabyte of digits": (f"y,Y,d,1,{'7' * 1000000}\n", 3,
                                     'duration is not a whole number of seconds that fits into 32 bits: '
                                     f'"{"7" * 60}..."\n'),
            "negative and long": (f"y,Y,d,1,-{'0' * 1000}7\n", 3, f'duration is negative: -{"0" * 59}...\n'),
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

    def test_reports_the_line_in_a_file_of_returns_alone(self):
        path = self.write("bad.csv", (HEADER + "x,X,d,1,1\n\ny,Y,d,1\n").replace("\n", "\r"))
        self.assertTrue(self.run_host(path, status=4).stderr.startswith(f"context-host: {path}:4: expected 5 fields"))
        self.run_host(self.write("good.csv", (HEADER + "x,X,d,1,1\n").replace("\n", "\r")))
        self.assertEqual(len(self.rows()), 1)

    def test_escapes_the_names_of_files_in_messages(self):
        for name in ("a\x1b[31m.csv", "b\n.csv", b"c\xff.csv".decode(errors="surrogateescape")):
            path = self.write(name, "x")
            result = self.run_host(path, status=4)
            self.assertRegex(result.stderr, r"[abc]\\x(1B\[31m|0A|FF)\.csv:1: ")
            self.assertNotIn("\x1b", result.stderr)
            self.assertEqual(result.stderr.count("\n"), 1)

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

    def test_refuses_a_file_larger_than_512_mib(self):
        self.need_plain_program()
        path = self.folder / "large.csv"
        with open(path, "wb") as file:
            file.truncate(512 * 1024 * 1024 + 1)  # without blocks on the disk
        self.assertEqual(self.run_host(path, status=3).stderr,
                         f"context-host: cannot read {path}: it is larger than 512 MiB; split it\n")

    # The store.

    def test_tells_how_to_create_the_data_directory(self):
        folder = constant("ContextDatabase.h", "kDataDirectory")
        for change, advice in {"rm -r": f'sudo install -d -o "$(id -un)" {folder}\n',
                               "mount -t tmpfs -o ro none": f"{folder}: Read-only file system\n"}.items():
            # Nothing is mounted on the new folder, so it can be removed.
            script = f'umount "$1" && mount -t tmpfs none "${{1%/*}}" && mkdir "$1" && {change} "$1" && exec "$0"'
            result = subprocess.run(self.with_store("sh", "-c", script, PROGRAM, folder.rstrip("/")),
                                    capture_output=True, encoding="utf-8", timeout=BOUND)
            self.assertEqual(result.returncode, 5, result.stderr)
            self.assertIn(advice, result.stderr)
            self.assertEqual(result.stderr.count("\n"), 1)

    def test_leaves_a_read_only_store_unchanged(self):
        history = self.write("a.csv", HEADER + "x,X,d,100,5\n")
        self.run_host(history)
        for name in ("usage.db", "usage.db.lock"):
            with self.subTest(name):
                (self.store / name).chmod(0o400)
                before = (self.store / "usage.db").read_bytes()
                # Without this capability, file modes bind root too.
                result = subprocess.run(self.with_store("setpriv", "--bounding-set", "-dac_override", PROGRAM, history),
                                        capture_output=True, encoding="utf-8", timeout=BOUND)
                self.assertEqual(result.returncode, 5, result.stderr)
                self.assertIn(f"{name}: Permission denied", result.stderr)
                self.assertEqual((self.store / "usage.db").read_bytes(), before)
                (self.store / name).chmod(0o600)

    def test_reports_a_database_that_cannot_be_opened(self):
        (self.store / "usage.db" / "occupied").mkdir(parents=True)
        self.assertIn("cannot open", self.run_host(status=5).stderr)

    def test_refuses_a_store_that_another_host_uses(self):
        with self.served() as (port, _):
            result = self.run_host("--agent", "mru", status=5)
            self.assertIn("another context-host is using the store usage.db; stop it", result.stderr)
            self.assertEqual(self.rank("--database", "other.db"), [])
            self.assertEqual(self.ask(port, "rank", "mru"), {"Size": 0})

    def test_keeps_stored_records_when_interrupted(self):
        process = subprocess.Popen(self.command(HISTORIES / "music_d.csv"), stderr=subprocess.PIPE,
                                   stdout=subprocess.PIPE, encoding="utf-8", start_new_session=True)
        deadline = time.monotonic() + BOUND
        while not self.is_writing() and process.poll() is None and time.monotonic() < deadline:
            time.sleep(0.001)
        os.killpg(process.pid, signal.SIGINT)
        _, stderr = process.communicate(timeout=BOUND)
        self.assertEqual(process.returncode, 130, stderr)
        stored = int(re.search(r"interrupted: (\d+) new records stored; run the command again", stderr)[1])
        self.assertEqual(len(self.rows()), stored)
        self.assertIn(f"{54429 - stored} new records stored", self.run_host(HISTORIES / "music_d.csv").stderr)
        self.assertEqual(len(self.rows()), 54429)


if __name__ == "__main__":
    main()
