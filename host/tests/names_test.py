#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Gives names that context-host needs beside a store to something else.

  names_test.py ROOT CONTEXT_HOST CONTEXT_QUERY
"""
import os
import pathlib
import pwd
import socket
import sqlite3
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from host_case import BOUND, FOLDER, PROGRAM, StoreCase, history, main  # noqa: E402


class NamesTest(StoreCase):
    def test_refuses_what_has_the_name_of_its_journal(self):
        self.filled()
        journal = self.store / "usage.db-journal"
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(str(journal))
        self.check_refused(f"{FOLDER}/usage.db", "it cannot be read: ")
        journal.unlink()
        journal.symlink_to("nothing")
        self.check_refused(f"{FOLDER}/usage.db-journal", "Too many levels of symbolic links")

    def test_opens_no_fifo_beside_the_store(self):
        self.filled()
        store = self.store / "usage.db"
        for suffix in ("-journal", "-wal", "-shm"):
            with self.subTest(suffix):
                fifo = self.store / f"usage.db{suffix}"
                os.mkfifo(fifo)  # opened for reading, it would block without end
                self.check_refused(f"{FOLDER}/usage.db", f"{FOLDER}/usage.db{suffix} is not a regular file")
                store.rename(self.store / "elsewhere")
                self.check_refused(f"{FOLDER}/usage.db", f"{FOLDER}/usage.db{suffix} is not a regular file")
                (self.store / "elsewhere").rename(store)
                fifo.unlink()
        self.assertEqual(len(self.rank("--max", 50)), 20)

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

    def test_removes_a_kept_journal_without_a_store(self):
        self.filled()
        (self.store / "usage.db.kept-journal").write_bytes(b"of an earlier run")
        self.assertEqual(len(self.rank("--max", 50)), 20)
        self.assertEqual(set(self.contents()), {"usage.db"})

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


if __name__ == "__main__":
    main()
