#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks that README.md shows the program that is built and run, and that the page is short.

  readme_test.py ROOT
"""
import pathlib
import sys

root = pathlib.Path(sys.argv[1])
program = (root / "examples/first-ranking/first-ranking.cpp").read_text(encoding="utf-8").split("\n", 1)[1]
readme = (root / "README.md").read_text(encoding="utf-8")
lines = len(readme.splitlines())
if f"```cpp\n{program}```" not in readme:
    sys.exit("README.md must show examples/first-ranking/first-ranking.cpp, except its first line, without a change")
if lines > 150:
    sys.exit(f"README.md has {lines} lines; at most 150 are allowed")
print("README.md shows the example without a change")
