#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tries to make context-host lose or harm the files in its data directory.

  store_test.py ROOT CONTEXT_HOST CONTEXT_QUERY
"""
import fcntl
import os
import pathlib
import signal
import sqlite3
import struct
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from host_case import BOUND, FOLDER, HEADER, HISTORIES, PROGRAM, StoreCase, history, main  # noqa: E402


class StoreTest(StoreCase):
    # Files that are no store.

    def test_refuses_names_of_files_beside_a_store(self):
        before = self.filled()
        for name in ("usage.db-journal", "usage.db-wal", "usage.db-shm", "usage.db.lock", "usage.db.kept", "", ".",
                     "..", "a/b", "x" * 201):
            with self.subTest(name):
                result = self.run_host("--database", name, status=2)
                self.assertIn("--database takes a file name", result.stderr)
                self.assertEqual(result.stderr.count("\n"), 1)
        self.assertEqual(sorted(path.name for path in self.store.iterdir()), ["usage.db", "usage.db.lock"])
        self.assertEqual(self.rows(), before)
        self.assertEqual(self.rank("--database", "x" * 200), [])

    def test_leaves_files_that_are_no_store_unchanged(self):
        self.filled()
        store = (self.store / "usage.db").read_bytes()
        path = self.store / "usage.db"

        def make(*statements):
            path.unlink()
            connection = sqlite3.connect(path)
            for statement in statements:
                connection.execute(statement)
            connection.commit()
            connection.close()

        def write_ahead():
            path.write_bytes(store)
            connection = sqlite3.connect(path)
            connection.execute("PRAGMA journal_mode = wal")
            connection.close()

        files = {
            "text": (lambda: path.write_text("precious notes\n" * 100), "it is not a database"),
            "one byte": (lambda: path.write_text("x"), "it is not a database"),
            "another table": (lambda: make("CREATE TABLE notes (text)"), "a database of another program"),
            "another schema": (lambda: make("CREATE TABLE usage (text)"), "a database of another program"),
            "a column more": (lambda: (path.write_bytes(store), make("CREATE TABLE usage (history TEXT, x)")),
                              "a database of another program"),
            "write-ahead log": (write_ahead, "another program has made it"),
        }
        for name, (create, reason) in files.items():
            with self.subTest(name):
                create()
                self.check_refused(f"{FOLDER}/usage.db", reason)

    def test_refuses_a_symbolic_link_at_its_path(self):
        self.filled()
        (self.store / "usage.db").rename(self.store / "target.db")
        (self.store / "usage.db").symlink_to("target.db")
        self.check_refused(f"{FOLDER}/usage.db", "it is a symbolic link")

    def test_leaves_a_damaged_store_unchanged(self):
        self.filled(2000)
        path = self.store / "usage.db"
        sound = path.read_bytes()
        middle = len(sound) // 2
        for name, damaged in {"a page of zeros": sound[:middle] + bytes(4096) + sound[middle + 4096:],
                              "half a file": sound[:middle],
                              "a wrong page size": sound[:16] + b"\x12\x34" + sound[18:],
                              "garbage in the schema": sound[:100] + b"\xff" * 50 + sound[150:]}.items():
            with self.subTest(name):
                path.write_bytes(damaged)
                self.check_refused(f"{FOLDER}/usage.db", "it is ")
        path.write_bytes(sound)
        self.assertEqual(len(self.rank("--max", 3000)), 2000)

    def test_rolls_back_the_interrupted_write_of_a_store(self):
        before = self.filled(2000)
        path = self.store / "usage.db"
        script = ("import os, sqlite3, sys; connection = sqlite3.connect(sys.argv[1]);"
                  "connection.execute('PRAGMA cache_size = 1');"
                  "connection.execute(\"UPDATE usage SET unit_id = 'lost', start_time = start_time + 5000\");"
                  "os._exit(0)")
        subprocess.run([sys.executable, "-c", script, str(path)], check=True, timeout=BOUND)
        self.assertTrue((self.store / "usage.db-journal").stat().st_size > 0)
        self.assertNotIn("lost", [unit for unit, _ in self.rank("--max", 3000)])
        self.assertEqual(self.rows(), before)

    def test_begins_again_after_an_interrupted_first_write(self):
        self.filled()
        path = self.store / "usage.db"
        path.write_bytes(path.read_bytes()[:4096])
        header = bytes.fromhex("d9d505f920a163d7") + struct.pack(">5I", 0, 0, 0, 512, 4096)  # of no page before
        (self.store / "usage.db-journal").write_bytes(header.ljust(512, b"\0"))
        self.assertEqual(self.rank(), [])
        self.assertIn("3 new records stored", self.run_host(self.write("new.csv", history("new", 3))).stderr)

    # A store that cannot be written.

    def test_keeps_a_store_that_another_program_locks(self):
        before = self.filled()
        new = self.write("new.csv", history("new", 3))
        other = sqlite3.connect(self.store / "usage.db", isolation_level=None)
        self.addCleanup(other.close)
        other.execute("BEGIN EXCLUSIVE")
        for arguments in ([], [new]):
            self.assertIn("another program has locked it", self.run_host(*arguments, status=5).stderr)
        other.execute("ROLLBACK")
        other.execute("BEGIN IMMEDIATE")
        self.assertEqual(len(self.rank("--max", 50)), 20)
        self.assertIn("the records stored before remain", self.run_host(new, status=1).stderr)
        other.execute("ROLLBACK")
        self.assertEqual(self.rows(), before)
        self.assertIn("3 new records stored", self.run_host(new).stderr)

    def test_keeps_the_store_with_too_few_descriptors(self):
        self.need_plain_program()
        before = self.filled()
        new = self.write("new.csv", history("new", 3))
        statuses = set()
        for limit in range(3, 14):
            result = self.run_script('ulimit -n "$2" && exec "$0" "$3"', limit, new)
            statuses.add(result.returncode)
            self.assertTrue(set(before) <= set(self.rows()), f"with {limit} descriptors: {result.stderr}")
            if result.returncode != 0:
                self.assertEqual(result.stderr.count("\n"), 1, result.stderr)
        self.assertIn(0, statuses)
        self.assertTrue(statuses & {1, 5}, statuses)
        self.assertEqual(len(self.rows()), 23)

    # Runs that are cut short.

    def test_puts_back_a_store_that_a_killed_run_left(self):
        before = self.filled()
        path, kept = self.store / "usage.db", self.store / "usage.db.kept"
        os.link(path, kept)
        self.assertEqual(len(self.rank("--max", 50)), 20)
        self.assertFalse(kept.exists())
        wiped = sqlite3.connect(self.store / "wiped.db")
        wiped.execute(sqlite3.connect(path).execute("SELECT sql FROM sqlite_master").fetchone()[0])
        wiped.commit()
        wiped.close()
        for replacement in (lambda: (self.store / "wiped.db").rename(path), lambda: path.touch(), lambda: None):
            path.rename(kept)
            replacement()
            (self.store / "usage.db-journal").write_bytes(b"of the replacement")
            self.assertEqual(len(self.rank("--max", 50)), 20)
            self.assertEqual(self.rows(), before)
            self.assertFalse(kept.exists())

    def test_keeps_both_stores_when_both_have_records(self):
        self.filled()
        (self.store / "usage.db").rename(self.store / "usage.db.kept")
        os.link(self.store / "usage.db.kept", self.store / "other.db")
        self.run_host("--database", "third.db", self.write("new.csv", history("new", 3)))
        (self.store / "third.db").rename(self.store / "usage.db")
        self.check_refused(f"{FOLDER}/usage.db.kept", "move one of the two away")

    def start(self, *arguments):
        """Starts the host; returns its process and the number of the host's own process."""
        number = self.folder / "number"
        number.unlink(missing_ok=True)
        process = subprocess.Popen(self.with_store("sh", "-c", 'echo $$ >"$1.new" && mv "$1.new" "$1" && shift && '
                                                   'exec "$0" "$@"', PROGRAM, number, *arguments),
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8",
                                   start_new_session=True)
        self.wait_until(number.exists, process)
        return process, int(number.read_text())

    def wait_until(self, condition, process):
        deadline = time.monotonic() + BOUND
        while not condition():
            self.assertIsNone(process.poll(), "the host ended")
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.001)

    def is_locked(self):
        with open(self.store / "usage.db.lock", "rb") as file:
            try:
                fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                return True
            return False

    def test_keeps_stored_records_when_killed(self):
        before = self.filled()
        process, number = self.start(HISTORIES / "music_d.csv")
        self.wait_until(self.is_writing, process)
        os.kill(number, signal.SIGKILL)
        process.communicate(timeout=BOUND)
        self.assertEqual(process.returncode, 128 + signal.SIGKILL)
        self.assertGreaterEqual(len(self.rank("--max", 100000)), 20)
        self.assertTrue(set(before) <= set(self.rows()))
        self.assertFalse((self.store / "usage.db.kept").exists())

    def test_ends_at_once_when_interrupted_without_an_import(self):
        self.run_host(HISTORIES / "music_d.csv")
        for arguments in (["--evaluate"], ["--page", self.folder / "week.html"]):
            for number in (signal.SIGINT, signal.SIGTERM):
                with self.subTest(arguments=arguments, number=number):
                    process, identity = self.start(*arguments)
                    self.wait_until(self.is_locked, process)
                    os.kill(identity, number)
                    output = process.communicate(timeout=BOUND)
                    self.assertEqual((process.returncode, output[0]), (128 + number, ""), output)
        self.assertFalse(list(self.folder.glob("*.html*")))
        self.assertEqual(len(self.rows()), 54429)

    def test_reports_that_memory_runs_out(self):
        self.need_plain_program()
        before = self.filled()
        large = self.write("large.csv", HEADER + "x,X,d,1,2\n" * 3000000)
        result = self.run_script('ulimit -v 100000 && exec "$0" "$2"', large)
        self.assertEqual(result.returncode, 9, result.stderr)
        self.assertEqual(result.stderr, "context-host: out of memory; the stored records remain\n")
        self.assertEqual(self.rows(), before)


if __name__ == "__main__":
    main()
