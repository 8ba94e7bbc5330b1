#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compiles log calls with right and with wrong arguments: the compiler must check every call.

  log_arguments_test.py ROOT BUILD COMPILER [FLAG...]
"""
import subprocess
import sys
import unittest

ROOT, BUILD, *COMPILER = sys.argv[1:]
WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Werror"]


def compiled(call):
    """Returns the errors of the compiler for one call; empty if it accepts the call."""
    source = f'#include "Log.h"\nvoid Call() {{ {call}; }}\n'
    result = subprocess.run([*COMPILER, "-std=c++17", *WARNINGS, "-fsyntax-only", f"-I{ROOT}/src", f"-I{ROOT}/include",
                             f"-I{BUILD}/include", "-x", "c++", "-"],
                            input=source, capture_output=True, encoding="utf-8", timeout=60)
    assert (result.returncode == 0) == (result.stderr == ""), result.stderr
    return result.stderr


class LogArgumentsTest(unittest.TestCase):
    def test_accepts_up_to_eight_arguments(self):
        for count in range(9):
            with self.subTest(count):
                self.assertEqual(compiled(f'LMR_LOG_ERROR("{"%d" * count}"{", 1" * count})'), "")

    def test_accepts_every_priority(self):
        for priority in ("DEBUG", "INFO", "WARNING", "ERROR"):
            with self.subTest(priority):
                self.assertEqual(compiled(f'LMR_LOG_{priority}("%s %d", "text", 1)'), "")

    def test_rejects_wrong_arguments(self):
        calls = {
            "a long for an int": 'LMR_LOG_ERROR("%d", 1L)',
            "64 bits for an int": 'LMR_LOG_INFO("%d", 1LL)',
            "a number for a text": 'LMR_LOG_WARNING("%s", 1)',
            "a missing argument": 'LMR_LOG_DEBUG("%d %d", 1)',
            "no argument": 'LMR_LOG_ERROR("%s")',
            "an argument too many": 'LMR_LOG_ERROR("%d", 1, 2)',
        }
        for name, call in calls.items():
            with self.subTest(name):
                self.assertIn("format", compiled(call))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
