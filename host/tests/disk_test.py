#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Lets the disk fill up while context-host writes.

  disk_test.py ROOT CONTEXT_HOST CONTEXT_QUERY
"""
import pathlib
import sqlite3
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from host_case import FOLDER, StoreCase, history, main  # noqa: E402


class DiskTest(StoreCase):
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
        new = self.write("new.csv", history("new", 15000))
        stored, after = self.folder / "stored.db", self.folder / "after.db"
        self.filled(20000)
        (self.store / "usage.db").rename(stored)
        for free in range(300, 2000, 150):  # kB; some of these end in the journal, others in the store itself
            with self.subTest(free=free):
                result = self.run_script(f'mount -t tmpfs -o size=$(($(stat -c %b "$3") / 2 + {free}))k none "$1" && '
                                         'cp "$3" "$1/usage.db" && { "$0" "$2"; status=$?; cp "$1/usage.db" "$4"; } && '
                                         'exit $status', new, stored, after)
                self.assertEqual(result.returncode, 1, result.stderr)
                with sqlite3.connect(after) as connection:
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


if __name__ == "__main__":
    main()
