#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares the binary interface of a built library with its record.

  record_test.py RECORD LIBRARY             compares
  record_test.py --renew RECORD LIBRARY     writes the record, after an intended change

There is one record for each architecture, written by abidw. It lists the layout of every class, the order of its
virtual functions, and every symbol.
"""
import pathlib
import re
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
DESCRIBE = ["abidw", "--suppressions", str(HERE / "suppressions.ini"), "--headers-dir", str(ROOT / "include"),
            "--drop-private-types", "--no-corpus-path", "--no-comp-dir-path", "--no-show-locs", "--no-parameter-names"]


def describe(library, path):
    subprocess.run([*DESCRIBE, "--out-file", path, library], check=True)
    text = pathlib.Path(path).read_text(encoding="utf-8")
    pathlib.Path(path).write_text(re.sub(r"path='[^']*?/((?:src|include)/[^']*)'", r"path='\1'", text), encoding="utf-8")


def main():
    renew = sys.argv[1] == "--renew"
    record, library = sys.argv[-2:]
    if renew:
        describe(library, record)
        return 0
    with tempfile.TemporaryDirectory() as folder:
        built = pathlib.Path(folder) / "built.abi"
        describe(library, built)
        status = subprocess.run(["abidiff", "--no-show-locs", record, built], check=False).returncode
    if status:
        print("The binary interface differs from its record. If the change is intended, renew the record of every\n"
              "architecture, with PRESET dev, armhf and i386:\n"
              "  cmake --build --preset PRESET --target abi-record", flush=True)
    return 1 if status else 0


if __name__ == "__main__":
    sys.exit(main())
