# SPDX-License-Identifier: Apache-2.0
"""Changes the library in one place at a time and runs the tests of the changed class. scripts/mutate calls it.

  mutate.py [--list] [--every N] [FILE...]

Each worker has its own copy of src/ and include/, and its own library, which it lends to the tests through
LD_LIBRARY_PATH. The tree itself is never written to. clang compiles the changes: with a precompiled header it needs a
third of gcc's time. build/mutate/results.txt tells what became of each change, and after how many seconds.
"""
import argparse
import collections
import concurrent.futures
import functools
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
RESULTS = WORK / "results.txt"
KNOWN = ROOT / "tests/mutation/survivors.txt"
# In CI the tests run under sanitizers too. These need no library at run time.
TRAPS = ("-fsanitize=undefined", "-fno-sanitize=function,vptr", "-fsanitize-trap=all")
KILLED, SURVIVED, SAME, BROKEN = "killed", "survives", "same object", "does not compile"


def sources():
    return sorted(ROOT.glob("src/**/*.cpp"))


def includes(path):
    """@return the names that a file includes with quotation marks."""
    return {pathlib.Path(name).name for name in re.findall(r'#include "([^"]+)"', path.read_text(encoding="utf-8"))}


@functools.lru_cache(maxsize=None)
def headers_of(path):
    """@return the names of the headers that a file includes, directly or not."""
    found, waiting = set(), [path]
    while waiting:
        names = includes(waiting.pop()) - found
        found |= names
        waiting += [header for folder in ("src", "include", "tests") for header in ROOT.glob(f"{folder}/**/*.h")
                    if header.name in names]
    return found


def units_of(path):
    """@return the sources that `path` is part of."""
    return [path] if path.suffix == ".cpp" else [source for source in sources() if path.name in headers_of(source)]


def tests_of(path):
    """@return the tests of the classes that `path` is part of.

    The name of a test begins with the name of its class, and with no longer one's. A test whose name begins with no
    class belongs to those whose headers it includes.
    """
    stems = [source.stem for source in sources()]
    mine = {unit.stem for unit in units_of(path)}
    found = []
    for test in sorted(ROOT.glob("tests/**/*Test.cpp")):
        names = includes(test)
        owner = max((stem for stem in stems if test.stem.startswith(stem)), key=len, default=None)
        owners = {owner} if owner else {name.removesuffix(".h") for name in names}
        if mine & owners or path.name in names:
            found.append(test.stem)
    return found


class Tests:
    """The test programs and how long each takes with the unchanged library."""

    def __init__(self, library):
        self._library = library
        self._times = {}
        self._noticed = collections.Counter()
        self._finds_leaks = {}
        self._leak_finder = subprocess.run(["g++", "-print-file-name=liblsan.so"], check=True, capture_output=True,
                                           encoding="utf-8").stdout.strip()
        listed = json.loads(subprocess.run(["ctest", "--test-dir", BUILD, "--show-only=json-v1"], check=True,
                                           capture_output=True, encoding="utf-8").stdout)
        self._launchers = {}
        for test in listed["tests"]:
            command = test.get("command", [])
            program = next((word for word in command if word.startswith(f"{BUILD}/tests/")), None)
            if program:
                self._launchers[pathlib.Path(program).name] = command[:command.index(program) + 1]

    def programs(self, path):
        """@return the programs of the tests of a file, by name."""
        return {name: self._launchers[name][-1] for name in tests_of(path) if name in self._launchers}

    def time(self, name):
        if name not in self._times:
            begin = time.monotonic()
            if not self._run(name, self._library, 600):
                raise RuntimeError(f"{name} fails with the unchanged library")
            self._times[name] = time.monotonic() - begin
        return self._times[name]

    def notice(self, programs, library):
        """Runs the tests that noticed most for their time first.

        @param programs  the program of each test, by name; null if it does not compile.
        @return the test that fails or takes too long, or null."""
        for name in sorted(programs, key=lambda name: self.time(name) / (1 + self._noticed[name])):
            if not programs[name] or not self._run(name, library, 4 + 4 * self.time(name), programs[name]):
                self._noticed[name] += 1
                return name
        return None

    def find_fault(self, programs, library):
        """Runs the tests again, under LeakSanitizer except those that fail there with the unchanged library.

        @param library  traps when its behaviour is undefined.
        @return the test that finds a leak or a trap, or null."""
        for name in programs:
            if name not in self._finds_leaks:
                self._finds_leaks[name] = self._run(name, self._library, 60, finds_leaks=True)
            if not self._run(name, library, 60, programs[name], self._finds_leaks[name]):
                return name
        return None

    def _run(self, name, library, limit, program=None, finds_leaks=False):
        command = [*self._launchers[name][:-1], program or self._launchers[name][-1], "--gtest_brief=1",
                   "--gtest_fail_fast"]
        if finds_leaks:  # the sanitizer needs more memory than some death tests leave
            command[-3:-3] = ["env", f"LD_PRELOAD={self._leak_finder}"]
            command.append("--gtest_filter=-*DeathTest.*")
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

    def __init__(self, number, first=None):
        self.folder = WORK / str(number)
        shutil.rmtree(self.folder, ignore_errors=True)
        for part in ("src", "include"):
            shutil.copytree(ROOT / part, self.folder / part)
        commands = json.loads((BUILD / "compile_commands.json").read_text(encoding="utf-8"))
        self._compile = {entry["file"]: self._own(entry["command"]) for entry in commands}
        self._headers = first._headers if first else self._compile_headers()
        self._links = first._links if first else {}
        self._optimised = first._optimised if first else {}

    def build(self, first=None):
        """Compiles the objects, or copies those of the first worker, and links the library."""
        for source in sources():
            if first:
                shutil.copy(first._object(source), self.folder)
            else:
                self._compile_one(source)
        self._link_all()

    def find_changes(self, path):
        """@return the changes of a file of the tree."""
        unit = units_of(path)[0]
        words = [word.replace(str(self.folder), str(ROOT)) for word in self._compile[str(unit)][1:]]
        return changes.find(path, unit, [*words, "-O0", "-include-pch", f"{self._headers}-O0"])

    def _compile_headers(self):
        """Compiles the system's headers once: that is most of the time of a compilation.

        @return the header that includes them all."""
        header = self.folder / "system.h"
        names = {name for source in ROOT.glob("src/**/*") if source.is_file()
                 for name in re.findall(r"#include (<[^>]+>)", source.read_text(encoding="utf-8"))}
        header.write_text("".join(f"#include {name}\n" for name in sorted(names)), encoding="utf-8")
        some = next(command for file, command in self._compile.items() if file.startswith(f"{ROOT}/src/"))
        for level in ("-O0", "-O2"):
            subprocess.run([*some, level, "-fpch-instantiate-templates", "-x", "c++-header", header, "-o",
                            f"{header}{level}"], check=True)
        return header

    def _object(self, source):
        return self.folder / f"{source.stem}.o"

    def _own(self, command):
        """@return the compiler call without its files, with the folders of this copy."""
        words = shlex.split(command.replace(f"{ROOT}/src", f"{self.folder}/src")
                            .replace(f"{ROOT}/include", f"{self.folder}/include"))
        words = words[next(i for i, word in enumerate(words) if word.endswith("c++")):words.index("-o")]
        return ["clang++", *(word for word in words[1:] if word != "-Werror"), "-w",
                f"-ffile-prefix-map={self.folder}={ROOT}"]  # each copy gives the same object

    def _compile_one(self, source, level="-O0", output=None, options=()):
        """@return whether the source compiles."""
        copy = self.folder / source.relative_to(ROOT)
        return subprocess.run([*self._compile[str(source)], level, *options, "-include-pch", f"{self._headers}{level}",
                               "-c", copy, "-o", output or self._object(source)],
                              stderr=subprocess.DEVNULL).returncode == 0

    def _optimise(self, unit):
        """@return the object of a source, as an optimiser makes it."""
        output = self.folder / "optimised.o"
        self._compile_one(unit, "-O2", output)
        return output.read_bytes()

    def _link_to(self, target, own_object):
        """Links a target of the build with the objects and into the file of this copy."""
        if target not in self._links:
            self._links[target] = subprocess.run(["ninja", "-C", BUILD, "-t", "commands", target], check=True,
                                                 capture_output=True, encoding="utf-8").stdout.splitlines()[-1]
        words = shlex.split(self._links[target].removeprefix(": && ").split(" && ")[0])
        output = words.index("-o") + 1
        words[output] = str(self.folder / pathlib.Path(words[output]).name)
        words = [own_object(word) if word.endswith(".cpp.o") else word for word in words]
        subprocess.run(words, check=True, cwd=BUILD)
        return words[output]

    def _link_all(self):
        library = self._link_to((BUILD / "liblumora-common.so").resolve().name,
                                lambda word: str(self.folder / pathlib.Path(word).name.replace(".cpp", "")))
        pathlib.Path(library).replace(self.folder / "liblumora-common.so.0")

    def _compile_tests(self, path, programs):
        """@return the programs, of which those that include a changed header are compiled with it."""
        own_programs = dict(programs)
        for file, command in self._compile.items():
            name = pathlib.Path(file).stem
            if path.suffix == ".h" and name in programs and path.name in headers_of(pathlib.Path(file)):
                own = self.folder / f"{name}.o"
                compiled = subprocess.run([*command, "-c", file, "-o", own], stderr=subprocess.DEVNULL)
                own_programs[name] = None if compiled.returncode else self._link_to(
                    str(pathlib.Path(programs[name]).relative_to(BUILD)),
                    lambda word, own=own: str(own) if word.endswith(f"/{own.stem}.cpp.o") else word)
        return own_programs

    def try_change(self, path, change, tests):
        """@return what became of a changed file, and the test that noticed. Leaves the copy as it was."""
        copy = self.folder / path.relative_to(ROOT)
        source = path.read_bytes()
        units = units_of(path)
        for unit in units:
            if unit not in self._optimised:
                self._optimised[unit] = self._optimise(unit)
        before = {self._object(unit): self._object(unit).read_bytes() for unit in units}
        try:
            copy.write_bytes(source[:change.begin] + change.new.encode() + source[change.end:])
            if not all(self._compile_one(unit) for unit in units):
                return BROKEN, None
            programs = self._compile_tests(path, tests.programs(path))
            in_tests = programs != tests.programs(path)
            if not in_tests and all(file.read_bytes() == content for file, content in before.items()):
                return SAME, None
            self._link_all()
            noticed = tests.notice(programs, self.folder)
            if not (noticed or in_tests) and all(self._optimise(unit) == self._optimised[unit] for unit in units):
                return SAME, None
            if not noticed and all(self._compile_one(unit, options=TRAPS) for unit in units):
                self._link_all()
                noticed = tests.find_fault(programs, self.folder)
            return KILLED if noticed else SURVIVED, noticed
        finally:
            copy.write_bytes(source)
            for file, content in before.items():
                file.write_bytes(content)


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


def try_file(path, found, workers, tests, known):
    """@return how often each result came up; prints what survives."""
    counts = collections.Counter()
    for name in tests.programs(path):
        tests.time(name)

    def one(change):
        worker = workers.get()
        begin = time.monotonic()
        try:
            result, noticed = worker.try_change(path, change, tests)
            return change, result, noticed, time.monotonic() - begin
        finally:
            workers.put(worker)

    with concurrent.futures.ThreadPoolExecutor(workers.maxsize) as pool, open(RESULTS, "a", encoding="utf-8") as log:
        for number, (change, result, noticed, seconds) in enumerate(pool.map(one, found), 1):
            if result == SURVIVED and known.has(path, change):
                result = "known"
            print(f"{seconds:.1f} | {result} | {noticed or '-'} | {line_of(path, change)}", file=log, flush=True)
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
    first = Worker(0)
    found = {path: first.find_changes(path)[::options.every] for path in paths if units_of(path)}
    if options.list:
        for path, change in ((path, change) for path in found for change in found[path]):
            print(line_of(path, change))
        return 0
    RESULTS.unlink(missing_ok=True)
    first.build()
    workers = queue.Queue(os.cpu_count() or 1)
    workers.put(first)
    for number in range(1, workers.maxsize):
        worker = Worker(number, first)
        worker.build(first)
        workers.put(worker)
    baseline = WORK / "baseline"
    baseline.mkdir(exist_ok=True)
    shutil.copy(first.folder / "liblumora-common.so.0", baseline)
    tests, known = Tests(baseline), Known()
    total = collections.Counter()
    for path in found:
        if found[path]:
            total += try_file(path, found[path], workers, tests, known)
    print(f"== In all: {total[KILLED]} killed, {total['known']} known, {total[SURVIVED]} survive")
    return 1 if total[SURVIVED] else 0


if __name__ == "__main__":
    sys.exit(main())
