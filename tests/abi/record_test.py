#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the binary interface of a built library against the one that is on record.

  record_test.py RECORD LIBRARY             compares
  record_test.py --renew RECORD LIBRARY     records anew, after a change that is meant

The records, one for each architecture, are what abidw writes: the layout of every class, the order of its virtual
operations, and every symbol.
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
        print("The binary interface is not the one on record. Where that is meant, record it anew for every architecture:\n"
              "  cmake --build --preset PRESET --target abi-record        with PRESET dev, armhf and i386", flush=True)
    return 1 if status else 0


if __name__ == "__main__":
    sys.exit(main())
