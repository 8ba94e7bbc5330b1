# SPDX-License-Identifier: Apache-2.0
"""Changes the library in one place at a time and runs the tests of the changed class. scripts/mutate calls it.

  mutate.py [--list] [--every N] [FILE...]

Each worker has its own copy of src/ and include/, and its own library, which it lends to the tests through
LD_LIBRARY_PATH. The tree itself is never written to.
"""
import argparse
import collections
import concurrent.futures
import hashlib
import itertools
import json
import os
import pathlib
import queue
import re
import shlex
import shutil
import subprocess
import sys
import time

import changes

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = ROOT / "build/mutate"
BUILD = WORK / "build"
KNOWN = ROOT / "tests/mutation/survivors.txt"
ALSO = {"CuratorAgent": ["RankingVectorsTest"], "CuratorUnit": ["RankingVectorsTest"]}
KILLED, SURVIVED, SAME, BROKEN = "killed", "survives", "same object", "does not compile"


def sources():
    return sorted(ROOT.glob("src/**/*.cpp"))


def includes(path):
    """@return the names that a file includes with quotation marks."""
    return {pathlib.Path(name).name for name in re.findall(r'#include "([^"]+)"', path.read_text(encoding="utf-8"))}


def units_of(path):
    """@return the sources that `path` is part of."""
    if path.suffix == ".cpp":
        return [path]
    headers = [header for folder in ("src", "include") for header in ROOT.glob(f"{folder}/**/*.h")]
    names = {path.name}
    while True:
        more = {header.name for header in headers if includes(header) & names} - names
        if not more:
            return [source for source in sources() if includes(source) & names]
        names |= more


def tests_of(path):
    """@return the tests of a class: their names begin with the name of its source, and with no longer one's."""
    stems = [source.stem for source in sources()]
    names = [test.stem for test in ROOT.glob("tests/**/*Test.cpp") if (BUILD / f"tests/{test.stem}").exists()]
    mine = {unit.stem for unit in units_of(path)}
    found = [name for name in names
             if max((stem for stem in stems if name.startswith(stem)), key=len, default=None) in mine]
    found += [name for stem in mine for name in ALSO.get(stem, [])]
    if path.suffix == ".h":
        found += [test.stem for test in ROOT.glob("tests/**/*Test.cpp") if path.name in includes(test)]
    return sorted(set(found) & set(names))


class Tests:
    """The test programs and how long each takes with the unchanged library."""

    def __init__(self, library):
        self._library = library
        self._times = {}
        listed = json.loads(subprocess.run(["ctest", "--test-dir", BUILD, "--show-only=json-v1"], check=True,
                                           capture_output=True, encoding="utf-8").stdout)
        self._launchers = {}
        for test in listed["tests"]:
            command = test.get("command", [])
            program = next((word for word in command if word.startswith(f"{BUILD}/tests/")), None)
            if program:
                self._launchers[pathlib.Path(program).name] = command[:command.index(program) + 1]

    def time(self, name):
        if name not in self._times:
            begin = time.monotonic()
            if not self._run(name, self._library, 600):
                raise RuntimeError(f"{name} fails with the unchanged library")
            self._times[name] = time.monotonic() - begin
        return self._times[name]

    def notice(self, names, library):
        """@return whether a test fails or takes too long."""
        return not all(self._run(name, library, 10 + 4 * self.time(name)) for name in sorted(names, key=self.time))

    def _run(self, name, library, limit):
        command = [*self._launchers[name], "--gtest_brief=1", "--gtest_fail_fast"]
        with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              start_new_session=True, env={**os.environ, "LD_LIBRARY_PATH": str(library)}) as process:
            try:
                return process.wait(limit) == 0
            except subprocess.TimeoutExpired:
                return False
            finally:
                if process.poll() is None:
                    os.killpg(process.pid, 9)


class Worker:
    """A copy of the sources, and the library that it compiles from them."""

    def __init__(self, number):
        self.folder = WORK / str(number)
        shutil.rmtree(self.folder, ignore_errors=True)
        for part in ("src", "include"):
            shutil.copytree(ROOT / part, self.folder / part)
        commands = json.loads((BUILD / "compile_commands.json").read_text(encoding="utf-8"))
        self._compile = {entry["file"]: self._own(entry["command"]) for entry in commands
                         if entry["file"].startswith(f"{ROOT}/src/")}
        link = subprocess.run(["ninja", "-C", BUILD, "-t", "commands", "liblumora-common.so"], check=True,
                              capture_output=True, encoding="utf-8").stdout
        link = next(line for line in link.splitlines() if " -shared " in line)
        self._link = shlex.split(re.sub(r"^: && | && :$", "", link).split(" && ")[0])
        self._headers = self.folder / "system.h"
        names = {name for source in ROOT.glob("src/**/*") if source.is_file()
                 for name in re.findall(r"#include (<[^>]+>)", source.read_text(encoding="utf-8"))}
        self._headers.write_text("".join(f"#include {name}\n" for name in sorted(names)), encoding="utf-8")
        some = next(iter(self._compile.values()))
        subprocess.run([*some, "-x", "c++-header", self._headers, "-o", f"{self._headers}.gch"], check=True)
        self._objects = {}
        for source in sources():
            self._compile_one(source)
        self._link_all()

    def _own(self, command):
        """@return the compiler call without its files, with the folders of this copy and optimised as delivered."""
        words = shlex.split(command.replace(f"{ROOT}/src", f"{self.folder}/src")
                            .replace(f"{ROOT}/include", f"{self.folder}/include"))
        words = words[next(i for i, word in enumerate(words) if word.endswith("c++")):words.index("-o")]
        return [word for word in words if word not in ("-Werror", "-O0")] + ["-O2", "-w"]

    def _compile_one(self, source):
        """@return whether the source compiles."""
        target = self.folder / f"{source.stem}.o"
        copy = self.folder / source.relative_to(ROOT)
        result = subprocess.run([*self._compile[str(source)], "-include", self._headers, "-c", copy, "-o", target],
                                stderr=subprocess.DEVNULL)
        self._objects[source.stem] = target
        return result.returncode == 0

    def _link_all(self):
        words = []
        for word in self._link:
            name = pathlib.Path(word).name
            if name.endswith(".cpp.o"):
                word = str(self._objects[name.removesuffix(".cpp.o")])
            elif word.startswith("liblumora-common.so"):
                word = str(self.folder / "liblumora-common.so.0")
            words.append(word)
        subprocess.run(words, check=True, cwd=BUILD)

    def _sums(self, units):
        return [hashlib.sha256(self._objects[unit.stem].read_bytes()).digest() for unit in units]

    def try_change(self, path, change, tests, names):
        """@return what became of a changed file. Leaves the copy as it was."""
        copy = self.folder / path.relative_to(ROOT)
        original = path.read_bytes()
        units = units_of(path)
        before = self._sums(units)
        try:
            copy.write_bytes(original[:change.begin] + change.new.encode() + original[change.end:])
            if not all(self._compile_one(unit) for unit in units):
                return BROKEN
            if self._sums(units) == before:
                return SAME
            self._link_all()
            return KILLED if tests.notice(names, self.folder) else SURVIVED
        finally:
            copy.write_bytes(original)
            for unit, old in zip(units, before):
                self._compile_one(unit)


class Known:
    """The survivors that were judged: nothing outside the library can tell them from the original."""

    def __init__(self):
        lines = KNOWN.read_text(encoding="utf-8").splitlines() if KNOWN.exists() else []
        self._keys = {}
        for block in lines:
            if block and not block.startswith(("#", " ")):
                self._keys[block] = 0

    def has(self, path, change):
        key = line_of(path, change)
        if key not in self._keys:
            return False
        self._keys[key] += 1
        return True


def line_of(path, change):
    return f"{path.relative_to(ROOT)} | {change.function} | {change.text}"


def compile_arguments():
    commands = json.loads((BUILD / "compile_commands.json").read_text(encoding="utf-8"))
    words = shlex.split(next(entry["command"] for entry in commands if entry["file"].startswith(f"{ROOT}/src/")))
    return [word for i, word in enumerate(words) if word.startswith(("-I", "-D", "-std")) or words[i - 1] == "-isystem"
            or word == "-isystem"]


def try_file(path, found, workers, tests, known):
    """@return how often each result came up; prints what survives."""
    counts = collections.Counter()
    names = tests_of(path)
    for name in names:
        tests.time(name)

    def one(change):
        worker = workers.get()
        try:
            return change, worker.try_change(path, change, tests, names)
        finally:
            workers.put(worker)

    with concurrent.futures.ThreadPoolExecutor(workers.maxsize) as pool:
        for number, (change, result) in enumerate(pool.map(one, found), 1):
            if result == SURVIVED and known.has(path, change):
                result = "known"
            counts[result] += 1
            if result == SURVIVED:
                print(f"{path.relative_to(ROOT)}:{change.line}:{change.column}: survives\n"
                      f"{line_of(path, change)}", flush=True)
            if sys.stderr.isatty():
                print(f"\r{path.name}: {number} of {len(found)} ", end="", file=sys.stderr, flush=True)
    tried = counts[KILLED] + counts["known"] + counts[SURVIVED]
    print(f"== {path.relative_to(ROOT)}: {tried} mutants, {counts[KILLED]} killed, {counts['known']} known, "
          f"{counts[SURVIVED]} survive ({counts[SAME]} compile to the same object, {counts[BROKEN]} not at all)",
          flush=True)
    return counts


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutate")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--every", type=int, default=1)
    parser.add_argument("file", nargs="*")
    options = parser.parse_args()
    paths = [pathlib.Path(name).resolve() for name in options.file] or sorted(
        path for folder in ("src", "include") for path in ROOT.glob(f"{folder}/**/*") if path.suffix in (".cpp", ".h"))
    arguments = compile_arguments()
    found = {path: changes.find(path, units_of(path)[0], arguments)[::options.every]
             for path in paths if units_of(path)}
    if options.list:
        for path, change in ((path, change) for path in found for change in found[path]):
            print(line_of(path, change))
        return 0
    workers = queue.Queue(os.cpu_count() or 1)
    for number in range(workers.maxsize):
        workers.put(Worker(number))
    tests, known = Tests(WORK / "0"), Known()
    total = collections.Counter()
    for path in found:
        if found[path]:
            total += try_file(path, found[path], workers, tests, known)
    print(f"== In all: {total[KILLED]} killed, {total['known']} known, {total[SURVIVED]} survive")
    return 1 if total[SURVIVED] else 0


if __name__ == "__main__":
    sys.exit(main())
