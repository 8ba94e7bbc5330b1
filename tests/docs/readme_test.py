#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the example in the README to the program that is built and run.

  readme_test.py ROOT
"""
import pathlib
import sys

root = pathlib.Path(sys.argv[1])
program = (root / "examples/first-ranking/first-ranking.cpp").read_text(encoding="utf-8").split("\n", 1)[1]
readme = (root / "README.md").read_text(encoding="utf-8")
lines = len(readme.splitlines())
if f"```cpp\n{program}```" not in readme:
    sys.exit("README.md does not show examples/first-ranking/first-ranking.cpp as it is")
if lines > 150:
    sys.exit(f"README.md has {lines} lines; 150 are enough")
print("the README shows the example as it is")
