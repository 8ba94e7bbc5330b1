#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Installs the library and builds another project against the installed tree.

  install_test.py BUILD GCC CLANG

Works in a temporary directory. The project is built twice: where the tree was installed, and from a copy elsewhere.
"""
import concurrent.futures
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import unittest

BUILD, GCC, CLANG = sys.argv[1:4]
COMPILERS = {"gcc": GCC, "clang": CLANG}
STANDARDS = ("17", "20")
HERE = pathlib.Path(__file__).parent
INCLUDE = HERE.parent.parent / "include"
WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror"]
BOUND = 120  # seconds for each command


def run(*command, **environment):
    """Returns the output of a command that must succeed."""
    result = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            encoding="utf-8", timeout=BOUND, stdin=subprocess.DEVNULL,
                            env={**os.environ, **{name: str(value) for name, value in environment.items()}})
    if result.returncode != 0:
        raise AssertionError(f"exit status {result.returncode}: {' '.join(map(str, command))}\n{result.stdout}")
    return result.stdout


def in_parallel(function, *arguments):
    """Calls the function with every tuple of arguments, in parallel on all processors."""
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        return list(pool.map(function, *zip(*arguments)))


class Tree:
    """An installed tree."""

    def __init__(self, prefix):
        self.prefix = prefix
        [self.library] = [path.parent for path in prefix.rglob("liblumora-common.so")]
        self.headers = prefix / "include/lumora-common"

    def pkg_config(self, *arguments):
        return shlex.split(run("pkg-config", *arguments, "lumora-common", PKG_CONFIG_PATH=self.library / "pkgconfig"))


class InstallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="lumora-install-")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        first = cls.folder / "first"
        run("cmake", "--install", BUILD, "--prefix", first)
        second = cls.folder / "second place/with a longer name"
        shutil.copytree(first, second, symlinks=True)
        cls.expected = (HERE / "host/expected.txt").read_text(encoding="utf-8")
        cls.installed = Tree(first)
        cls.moved = Tree(second)

    def hide_other(self, tree):
        """Renames the other tree for one test, so that a path that still points there does not exist."""
        other = self.installed if tree is self.moved else self.moved
        hidden = other.prefix.with_name(other.prefix.name + " hidden")
        other.prefix.rename(hidden)
        self.addCleanup(hidden.rename, other.prefix)

    def use_with_find_package(self, tree):
        def build(compiler):
            folder = pathlib.Path(tempfile.mkdtemp(dir=self.folder))
            run("cmake", "-S", HERE / "host", "-B", folder, "-DCMAKE_BUILD_TYPE=Debug",
                f"-DCMAKE_CXX_COMPILER={COMPILERS[compiler]}", f"-DCMAKE_PREFIX_PATH={tree.prefix}")
            run("cmake", "--build", folder)
            return [run(folder / f"host-{standard}") for standard in STANDARDS]

        self.assertEqual(in_parallel(build, *[(compiler,) for compiler in COMPILERS]),
                         [[self.expected] * len(STANDARDS)] * len(COMPILERS))

    def use_with_pkg_config(self, tree):
        flags = tree.pkg_config("--cflags", "--libs")

        def build(compiler, standard):
            program = pathlib.Path(tempfile.mkdtemp(dir=self.folder)) / "host"
            run(COMPILERS[compiler], f"-std=c++{standard}", *WARNINGS, HERE / "host/host.cpp", "-o", program, *flags)
            return run(program, LD_LIBRARY_PATH=tree.library)

        ways = [(compiler, standard) for compiler in COMPILERS for standard in STANDARDS]
        self.assertEqual(in_parallel(build, *ways), [self.expected] * len(ways))

    def test_find_package_works_where_installed(self):
        self.hide_other(self.installed)
        self.use_with_find_package(self.installed)

    def test_find_package_works_after_tree_moved(self):
        self.hide_other(self.moved)
        self.use_with_find_package(self.moved)

    def test_pkg_config_works_where_installed(self):
        self.hide_other(self.installed)
        self.use_with_pkg_config(self.installed)

    def test_pkg_config_works_after_tree_moved(self):
        self.hide_other(self.moved)
        self.use_with_pkg_config(self.moved)

    def test_installs_exactly_the_public_headers(self):
        installed = {str(path.relative_to(self.installed.headers)) for path in self.installed.headers.rglob("*.*")}
        self.assertEqual(installed, {re.sub(r"\.in$", "", str(path.relative_to(INCLUDE)))
                                     for path in INCLUDE.rglob("*.*")})

    def test_every_installed_header_compiles_by_itself(self):
        flags = self.installed.pkg_config("--cflags")

        def check(header, compiler, standard):
            run(COMPILERS[compiler], f"-std=c++{standard}", *WARNINGS, "-fsyntax-only", "-x", "c++", "-include",
                header, "/dev/null", *flags)

        headers = [path.relative_to(self.installed.headers) for path in self.installed.headers.rglob("*.h")]
        self.assertGreater(len(headers), 20)
        in_parallel(check, *[(header, "gcc", "17") for header in headers])
        everything = self.folder / "everything.h"
        everything.write_text("".join(f"#include <{header}>\n" for header in headers), encoding="utf-8")
        in_parallel(check, *[(everything, compiler, standard) for compiler in COMPILERS for standard in STANDARDS])

    def test_installed_files_contain_no_build_path(self):
        files = [path for path in self.installed.prefix.rglob("*") if path.is_file() and not path.is_symlink()]
        for path in files:
            if path.suffix in (".cmake", ".pc"):
                self.assertNotIn(str(HERE.parent.parent), path.read_text(encoding="utf-8"), path)
                self.assertNotIn(str(self.folder), path.read_text(encoding="utf-8"), path)
            elif path.suffix != ".h" and path.read_bytes()[:4] == b"\x7fELF":
                self.assertNotRegex(run("readelf", "--dynamic", path), r"R(UN)?PATH", path)

    def test_version_is_the_same_everywhere(self):
        version = re.search(r"^version (\S+)$", self.expected, re.M)[1]
        self.assertEqual(self.installed.pkg_config("--modversion"), [version])
        changelog = (HERE.parent.parent / "debian/changelog").read_text(encoding="utf-8")
        self.assertEqual(re.match(r"liblumora-common \((.+?)\)", changelog)[1], version)
        library = (self.installed.library / "liblumora-common.so").resolve()
        self.assertEqual(library.name, f"liblumora-common.so.{version}")
        self.assertIn(f"soname: [liblumora-common.so.{version.split('.')[0]}]", run("readelf", "--dynamic", library))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
