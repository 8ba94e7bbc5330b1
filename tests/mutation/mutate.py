# SPDX-License-Identifier: Apache-2.0
"""Changes the library in one place at a time and runs the tests of the changed class. scripts/mutate calls it.

  mutate.py [--list] [--every N] [FILE...]

Each worker has its own copy of src/ and include/, and its own library, which it lends to the tests through
LD_LIBRARY_PATH. The tree itself is never written to.
"""
import argparse
import collections
import concurrent.futures
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


def tests_of(path, units):
    """@return the tests of the classes that `units` define, and of the header `path`.

    The name of a test begins with the name of its class, and with no longer one's. A test whose name begins with no
    class belongs to those whose headers it includes.
    """
    stems = [source.stem for source in sources()]
    mine = {unit.stem for unit in units}
    found = []
    for test in sorted(ROOT.glob("tests/**/*Test.cpp")):
        names = includes(test)
        owner = max((stem for stem in stems if test.stem.startswith(stem)), key=len, default=None)
        owners = {owner} if owner else {name.removesuffix(".h") for name in names}
        if (mine & owners or path.name in names) and (BUILD / "tests" / test.stem).exists():
            found.append(test.stem)
    return found


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

    def notice(self, programs, library):
        """@param programs  the program of each test, by name; null if it does not compile.
        @return whether a test fails or takes too long."""
        return not all(programs[name] and self._run(name, library, 5 + 4 * self.time(name), programs[name])
                       for name in sorted(programs, key=self.time))

    def _run(self, name, library, limit, program=None):
        command = [*self._launchers[name][:-1], program or self._launchers[name][-1],
                   "--gtest_brief=1", "--gtest_fail_fast"]
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
        for source in sources():
            if first:
                shutil.copy(first._object(source), self.folder)
            else:
                self._compile_one(source)
        self._link_all()

    def _compile_headers(self):
        """Compiles the system's headers once: that is most of the time of a compilation.

        @return the header that includes them all."""
        header = self.folder / "system.h"
        names = {name for source in ROOT.glob("src/**/*") if source.is_file()
                 for name in re.findall(r"#include (<[^>]+>)", source.read_text(encoding="utf-8"))}
        header.write_text("".join(f"#include {name}\n" for name in sorted(names)), encoding="utf-8")
        some = next(command for file, command in self._compile.items() if file.startswith(f"{ROOT}/src/"))
        subprocess.run([*some, "-O2", "-x", "c++-header", header, "-o", f"{header}.gch"], check=True)
        return header

    def _object(self, source):
        return self.folder / f"{source.stem}.o"

    def _own(self, command):
        """@return the compiler call without its files, with the folders of this copy."""
        words = shlex.split(command.replace(f"{ROOT}/src", f"{self.folder}/src")
                            .replace(f"{ROOT}/include", f"{self.folder}/include"))
        words = words[next(i for i, word in enumerate(words) if word.endswith("c++")):words.index("-o")]
        return [word for word in words if word != "-Werror"] + ["-w"]

    def _compile_one(self, source):
        """@return whether the source compiles."""
        copy = self.folder / source.relative_to(ROOT)
        return subprocess.run([*self._compile[str(source)], "-O2", "-include", self._headers, "-c", copy, "-o",
                               self._object(source)], stderr=subprocess.DEVNULL).returncode == 0

    def _link_to(self, target, own_object):
        """Links a target of the build with the objects and into the file of this copy."""
        commands = subprocess.run(["ninja", "-C", BUILD, "-t", "commands", target], check=True, capture_output=True,
                                  encoding="utf-8").stdout.splitlines()
        words = shlex.split(commands[-1].removeprefix(": && ").split(" && ")[0])
        output = words.index("-o") + 1
        words[output] = str(self.folder / pathlib.Path(words[output]).name)
        words = [own_object(word) if word.endswith(".cpp.o") else word for word in words]
        subprocess.run(words, check=True, cwd=BUILD)
        return words[output]

    def _link_all(self):
        library = self._link_to((BUILD / "liblumora-common.so").resolve().name,
                                lambda word: str(self.folder / pathlib.Path(word).name.replace(".cpp", "")))
        pathlib.Path(library).replace(self.folder / "liblumora-common.so.0")

    def _programs(self, path, names):
        """@return the programs of the tests by name. Those that include a changed header themselves are compiled."""
        programs = {name: f"{BUILD}/tests/{name}" for name in names}
        for file, command in self._compile.items():
            name = pathlib.Path(file).stem
            if path.suffix == ".h" and name in programs and path.name in includes(pathlib.Path(file)):
                own = self.folder / f"{name}.o"
                compiled = subprocess.run([*command, "-c", file, "-o", own], stderr=subprocess.DEVNULL)
                programs[name] = None if compiled.returncode else self._link_to(
                    f"tests/{name}", lambda word, own=own: str(own) if word.endswith(f"/{own.stem}.cpp.o") else word)
        return programs

    def try_change(self, path, change, tests, names):
        """@param names  the tests to run, in groups: the second runs only when the first has not noticed the change.
        @return what became of a changed file. Leaves the copy as it was."""
        copy = self.folder / path.relative_to(ROOT)
        source = path.read_bytes()
        units = units_of(path)
        before = {self._object(unit): self._object(unit).read_bytes() for unit in units}
        try:
            copy.write_bytes(source[:change.begin] + change.new.encode() + source[change.end:])
            if not all(self._compile_one(unit) for unit in units):
                return BROKEN
            if all(file.read_bytes() == content for file, content in before.items()):
                return SAME
            self._link_all()
            noticed = any(tests.notice(self._programs(path, some), self.folder) for some in names)
            return KILLED if noticed else SURVIVED
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


def compile_arguments():
    commands = json.loads((BUILD / "compile_commands.json").read_text(encoding="utf-8"))
    words = shlex.split(next(entry["command"] for entry in commands if entry["file"].startswith(f"{ROOT}/src/")))
    return [word for i, word in enumerate(words) if word.startswith(("-I", "-D", "-std")) or words[i - 1] == "-isystem"
            or word == "-isystem"]


def try_file(path, found, workers, tests, known):
    """@return how often each result came up; prints what survives."""
    counts = collections.Counter()
    own = tests_of(path, units_of(path))
    classes = {unit.stem for unit in units_of(path)}
    headers = [header for header in ROOT.glob("include/**/*.h") if header.stem in classes]
    users = tests_of(path, [unit for header in headers for unit in units_of(header)])
    names = own, [name for name in users if name not in own]
    for name in own + users:
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
    workers = queue.Queue(2 * (os.cpu_count() or 1))  # most changes of a thread make its tests wait
    first = Worker(0)
    workers.put(first)
    for number in range(1, workers.maxsize):
        workers.put(Worker(number, first))
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
