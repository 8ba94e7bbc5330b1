#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tries to make context-host lose or harm the files in its data directory.

  store_test.py ROOT CONTEXT_HOST CONTEXT_QUERY
"""
import fcntl
import os
import pathlib
import pwd
import re
import signal
import socket
import sqlite3
import struct
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from host_case import BOUND, HEADER, HISTORIES, PROGRAM, HostCase, constant, main  # noqa: E402

FOLDER = constant("ContextDatabase.h", "kDataDirectory").rstrip("/")


def history(name, count, first=0):
    return HEADER + "".join(f"{name}{index},Unit {index},device,{first + index},{1 + index % 100}\n"
                            for index in range(count))


class StoreTest(HostCase):
    def contents(self):
        """Every file in the data directory, without locks."""
        return {path.name: os.readlink(path) if path.is_symlink() else path.is_file() and path.read_bytes()
                for path in self.store.iterdir() if path.suffix != ".lock"}

    def filled(self, count=20):
        self.run_host(self.write("old.csv", history("old", count)))
        return self.rows()

    def run_script(self, script, *arguments):
        return subprocess.run(self.with_store("sh", "-c", script, PROGRAM, FOLDER, *arguments), capture_output=True,
                              encoding="utf-8", timeout=BOUND, stdin=subprocess.DEVNULL)

    def check_refused(self, path, reason):
        before = self.contents()
        for arguments in ([], ["--serve", 0], [self.write("new.csv", history("new", 3))]):
            result = self.run_host(*arguments, status=5)
            self.assertIn(path, result.stderr)
            self.assertIn(reason, result.stderr)
            self.assertEqual((result.stderr.count("\n"), result.stdout), (1, ""))
            self.assertEqual(self.contents(), before)

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

    # Names beside a store that something else has.

    def test_refuses_what_has_the_name_of_its_journal(self):
        self.filled()
        journal = self.store / "usage.db-journal"
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(str(journal))
        self.check_refused(f"{FOLDER}/usage.db", "it cannot be read: ")
        journal.unlink()
        journal.symlink_to("nothing")
        self.check_refused(f"{FOLDER}/usage.db-journal", "Too many levels of symbolic links")

    def test_reports_folders_with_names_that_it_needs(self):
        path, kept = self.store / "usage.db", self.store / "usage.db.kept"
        self.filled()
        self.check_with_folder("usage.db.kept-journal")
        os.link(path, kept)
        self.check_with_folder("usage.db.kept-journal")
        path.unlink()
        self.check_with_folder("usage.db-journal")
        self.assertEqual(len(self.rank("--max", 50)), 20)

    def check_with_folder(self, name):
        (self.store / name).mkdir()
        result = self.run_host(status=5)
        self.assertEqual(result.stderr, f"context-host: cannot write to {FOLDER}/{name}: Is a directory\n")
        (self.store / name).rmdir()

    def test_leaves_kept_files_that_it_cannot_use_unchanged(self):
        self.filled()
        path, kept = self.store / "usage.db", self.store / "usage.db.kept"
        path.rename(kept)
        path.write_text("precious notes")
        self.check_refused(str(path).replace(str(self.store), FOLDER), "move one of the two away")
        path.unlink()
        kept.write_text("precious notes")
        self.check_refused(f"{FOLDER}/usage.db.kept", "it is not a database")

    def test_reports_a_store_on_another_file_system(self):
        before = self.filled()
        for name, change, reason in (
                ("the store", 'mount -t tmpfs none "$2" && cp "$1/usage.db" "$2" && '
                 'mount --bind "$2/usage.db" "$1/usage.db"', "usage.db.kept: Invalid cross-device link"),
                ("its second name", 'touch "$1/usage.db.kept" && mount --bind "$1/usage.db" "$1/usage.db.kept"',
                 "usage.db.kept: Device or resource busy")):
            with self.subTest(name):
                result = self.run_script(f'{change} && exec "$0"', self.folder)
                self.assertEqual(result.stderr, f"context-host: cannot write to {FOLDER}/{reason}\n")
                self.assertEqual(result.returncode, 5)
                self.assertEqual(self.rows(), before)

    def test_names_the_owner_of_a_store_it_may_not_write(self):
        if os.geteuid() != 0:
            self.skipTest("only root can give files away")
        self.filled()
        for owner, name in {1: pwd.getpwuid(1).pw_name, 4000000: "user 4000000"}.items():
            os.chown(self.store / "usage.db", owner, -1)
            (self.store / "usage.db").chmod(0o600)
            result = subprocess.run(self.with_store("setpriv", "--bounding-set", "-dac_override,-dac_read_search",
                                                    PROGRAM), capture_output=True, encoding="utf-8", timeout=BOUND)
            self.assertEqual(result.stderr, f"context-host: cannot write to {FOLDER}/usage.db: Permission denied; "
                             f"run as its owner, {name}\n")

    def test_reports_names_that_change_during_an_import(self):
        def remove():
            (self.store / "usage.db.kept").unlink()

        def replace():
            (self.store / "usage.db.kept-journal").unlink()
            (self.store / "usage.db.kept-journal").mkdir()

        self.filled()
        new = self.write("new.csv", history("new", 3))
        for change, reason in ((remove, "usage.db: No such file or directory"),
                               (replace, "usage.db.kept-journal: Is a directory")):
            with self.subTest(reason):
                other = sqlite3.connect(self.store / "usage.db", isolation_level=None)
                self.addCleanup(other.close)
                other.execute("BEGIN IMMEDIATE")  # the import waits
                with self.served(new) as (_, process):
                    change()
                    other.execute("ROLLBACK")
                    self.assertEqual(process.wait(timeout=BOUND), 5)
                self.assertIn(f"context-host: cannot write to {FOLDER}/{reason}\n", self.rest)
                self.assertTrue({row[1] for row in self.rows()} >= {f"old{index}" for index in range(20)})

    # Writes that fail.

    def test_keeps_records_when_the_disk_fills_up(self):
        old = self.write("old.csv", history("old", 500))
        new = self.write("new.csv", history("new", 30000))
        copy = self.folder / "copy.db"
        result = self.run_script('mount -t tmpfs -o size=1M none "$1" && "$0" --json "$2" && '
                                 '{ "$0" "$3"; status=$?; cp "$1/usage.db" "$4"; ls "$1"; "$0" --json; exit $status; }',
                                 old, new, copy)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn("the records could not all be stored", result.stderr)
        self.assertIn("the records stored before remain", result.stderr)
        first, *names, last = result.stdout.splitlines()
        self.assertEqual(names, ["usage.db", "usage.db.lock"])
        self.assertEqual(last, first)
        with sqlite3.connect(copy) as connection:
            self.assertEqual(connection.execute("SELECT COUNT(*), COUNT(unit_id LIKE 'old%' OR NULL) FROM usage")
                             .fetchone(), (500, 500))
            self.assertEqual(connection.execute("PRAGMA integrity_check").fetchone(), ("ok",))

    def test_reports_a_disk_too_small_for_a_new_store(self):
        sizes = range(4, 44, 4)  # kB; some end while the table is created, others after it
        result = self.run_script('folder=$1 && shift && mount -t tmpfs none "$folder" && for size; do '
                                 'mount -o remount,size=${size}k "$folder"; "$0" --json >/dev/null; '
                                 'echo $? $(ls -A "$folder"); rm -f "$folder"/*; done', *sizes)
        lines = result.stdout.splitlines()
        self.assertEqual([line[1:] for line in lines], [" usage.db usage.db.lock"] * len(sizes))
        statuses = [line[0] for line in lines]
        self.assertEqual(statuses, sorted(statuses, reverse=True))
        self.assertEqual(set(statuses), {"0", "5"})
        self.assertEqual(result.stderr.count("\n"), statuses.count("5"))
        self.assertIn(f"cannot write to {FOLDER}/usage.db: database or disk is full", result.stderr)
        self.assertIn(f"cannot open {FOLDER}/usage.db; the system log says why", result.stderr)

    def test_stores_no_later_file_when_the_disk_fills_up(self):
        new = self.write("new.csv", history("new", 30000))
        later = self.write("later.csv", history("later", 30000))
        result = self.run_script('mount -t tmpfs -o size=1M none "$1" && shift && "$0" "$@"; echo $?; '
                                 '"$0" --json --max 40000', new, later)
        status, ranking = result.stdout.splitlines()
        self.assertEqual((status, ranking), ("1", '{"Size":0}'), result.stderr)
        self.assertEqual(result.stderr.count("\n"), 1)

    def test_keeps_records_wherever_the_disk_ends(self):
        old = self.write("old.csv", history("old", 20000))
        new = self.write("new.csv", history("new", 15000))
        free = range(300, 2000, 100)  # kB; some of these end in the journal, others in the store itself
        result = self.run_script('folder=$1 new=$3 copies=$4 && mount -t tmpfs -o size=64M none "$folder" && '
                                 '"$0" "$2" >/dev/null && cp "$folder/usage.db" "$copies" && shift 4 && for free; do '
                                 'size=$(($(stat -c %b "$folder/usage.db") / 2 + free)) && '
                                 'mount -o remount,size=${size}k "$folder"; "$0" "$new" >&2; echo $?; '
                                 'mount -o remount,size=64M "$folder"; cp "$folder/usage.db" "$copies/$free.db"; '
                                 'rm "$folder"/*; cp "$copies/usage.db" "$folder"; done',
                                 old, new, self.folder, *free)
        self.assertEqual(result.stdout, "1\n" * len(free), result.stderr)
        for size in free:
            with self.subTest(free=size), sqlite3.connect(self.folder / f"{size}.db") as connection:
                self.assertEqual(connection.execute("PRAGMA integrity_check").fetchone(), ("ok",))
                self.assertEqual(connection.execute("SELECT COUNT(*), COUNT(unit_id LIKE 'old%' OR NULL) FROM usage")
                                 .fetchone(), (20000, 20000))

    def test_ranks_and_keeps_records_on_a_full_disk(self):
        old = self.write("old.csv", history("old", 500))
        new = self.write("new.csv", history("new", 3000))
        result = self.run_script('mount -t tmpfs -o size=1M none "$1" && "$0" --json "$2" && '
                                 '{ cat /dev/zero >"$1/filler" 2>"$4"; "$0" --json && "$0" "$3"; status=$?; '
                                 '"$0" --json; exit $status; }', old, new, self.folder / "message")
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn("the records stored before remain", result.stderr)
        rankings = result.stdout.splitlines()
        self.assertEqual(rankings, rankings[:1] * 3)
        self.assertIn("old", rankings[0])

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
