#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs an example and compares its output with a file.

  output_test.py EXPECTED PROGRAM
"""
import difflib
import pathlib
import subprocess
import sys

expected = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8")
result = subprocess.run(sys.argv[2:], capture_output=True, encoding="utf-8", timeout=60, check=True)
difference = list(difflib.unified_diff(expected.splitlines(), result.stdout.splitlines(), "expected", "printed"))
print("\n".join(difference) or "the output is as expected")
sys.exit(bool(difference))
