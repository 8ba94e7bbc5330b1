# SPDX-License-Identifier: Apache-2.0
"""The base class of the tests that run context-host as a user does.

Each test program takes the arguments ROOT CONTEXT_HOST CONTEXT_QUERY, then those of unittest.
"""
import contextlib
import json
import os
import pathlib
import re
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = pathlib.Path(sys.argv[1])
PROGRAM, QUERY = sys.argv[2:4]
HISTORIES = ROOT / "tests/data/histories"
HEADER = "unit_id,unit_name,device_name,start_time,duration\n"
BOUND = 180  # seconds for any run; an emulator needs half a minute for the longest history


def constant(header, name):
    """The value of a constant in one of the library's headers."""
    text = (ROOT / "include" / header).read_text(encoding="utf-8")
    return re.search(rf'\b{name} = "?([^";]+)"?;', text)[1]


FOLDER = constant("ContextDatabase.h", "kDataDirectory").rstrip("/")


def history(name, count, first=0):
    return HEADER + "".join(f"{name}{index},Unit {index},device,{first + index},{1 + index % 100}\n"
                            for index in range(count))


class HostCase(unittest.TestCase):
    """Gives each test a folder and a store, both empty."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.store = self.folder / "store"

    def with_store(self, *command):
        return [str(ROOT / "scripts/with-data-directory"), str(self.store), *map(str, command)]

    def command(self, *arguments):
        return self.with_store(PROGRAM, *arguments)

    def run_host(self, *arguments, zone="UTC", status=0):
        result = subprocess.run(self.command(*arguments), capture_output=True, encoding="utf-8", timeout=BOUND,
                                stdin=subprocess.DEVNULL, env={**os.environ, "TZ": zone})
        self.assertEqual(result.returncode, status, result.stderr)
        return result

    def need_plain_program(self):
        program = pathlib.Path(PROGRAM).read_bytes()
        if program[:4] != b"\x7fELF" or b"__asan_init" in program or b"__tsan_init" in program:
            self.skipTest("an emulator or a sanitizer needs descriptors and address space of its own")

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

    def is_writing(self):
        """Whether a host that has taken the store is in the middle of a transaction."""
        journal = self.store / "usage.db.kept-journal"
        return journal.exists() and journal.stat().st_size > 0

    @contextlib.contextmanager
    def served(self, *arguments):
        """A host that serves; yields its port and its process. Afterwards, self.rest has the rest of its messages."""
        process = subprocess.Popen(self.command("--serve", 0, *arguments), stderr=subprocess.PIPE, encoding="utf-8",
                                   start_new_session=True, env={**os.environ, "TZ": "UTC"})
        try:
            yield int(re.search(r"serving at port (\d+)", process.stderr.readline())[1]), process
        finally:
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGTERM)
            self.rest = process.communicate(timeout=BOUND)[1]

    def ask(self, port, *request, status=0):
        """The JSON answer to a request, or the error message if there is no answer."""
        result = subprocess.run([QUERY, str(port), *request], capture_output=True, encoding="utf-8", timeout=BOUND)
        self.assertEqual(result.returncode, status, result.stderr)
        return json.loads(result.stdout) if result.stdout else result.stderr

    def wait_for(self, port, request, wanted):
        deadline = time.monotonic() + BOUND
        while self.ask(port, *request) != wanted:
            self.assertLess(time.monotonic(), deadline, "the answer never came")
            time.sleep(0.05)


class StoreCase(HostCase):
    """Compares the files in the data directory."""

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


def main():
    unittest.main(argv=sys.argv[:1] + sys.argv[4:], verbosity=1)
