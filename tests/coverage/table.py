#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints how much of each file the tests reach, and judges it. scripts/coverage calls it.

  table.py [--print-only] ROOT LCOV JSON

LCOV and JSON are what `llvm-cov export` writes in these formats. Exits with 1 if too little is reached. Lines that only
close a block do not count, nor do those that no test can reach, which unreachable.txt lists.
"""
import collections
import json
import pathlib
import re
import sys

LIBRARY, HOST, GUIDE = "src, include", "host", "examples/guide"
LEAST = {LIBRARY: (100, 98), HOST: (98, 95), GUIDE: (0, 0)}  # per cent of the lines, and of the branches


def read(root, lcov, exported):
    """@return for each file the counts of its lines, and of its branches by line, column and outcome."""
    files = collections.defaultdict(lambda: ({}, collections.Counter()))
    for record in lcov.read_text(encoding="utf-8").splitlines():
        kind, _, value = record.partition(":")
        if kind == "SF":
            lines = files[str(pathlib.Path(value).relative_to(root))][0]
        elif kind == "DA":
            line, count = value.split(",")[:2]
            lines[int(line)] = int(count)
    for file in json.loads(exported.read_text(encoding="utf-8"))["data"][0]["files"]:
        branches = files[str(pathlib.Path(file["filename"]).relative_to(root))][1]
        for line, column, _, _, when_true, when_false, *_ in file["branches"]:  # a template has one for each instance
            branches[line, column, True] += when_true
            branches[line, column, False] += when_false
    return files


def unreachable(root):
    """@return the lines of the list, as pairs of a file and a text."""
    text = (root / "tests/coverage/unreachable.txt").read_text(encoding="utf-8")
    entries = [line.partition(": ") for line in text.splitlines() if re.match(r"[^#\s]", line)]
    return {(name, code.strip()) for name, _, code in entries}


def without_braces(root, files):
    """Removes the lines that only close something: a compiler counts a brace after the last `return`."""
    for name, (lines, _) in files.items():
        for line, text in enumerate((root / name).read_text(encoding="utf-8").splitlines(), 1):
            if re.fullmatch(r"[\s})\];,]*(//.*)?", text):
                lines.pop(line, None)


def without_unreachable(root, files):
    """Removes what is not reached of the listed lines, and the lines not reached that follow them directly.

    @return the entries that the tests do reach, or that do not exist."""
    unused = unreachable(root)
    for name, code in unreachable(root):
        lines, branches = files[name]
        for line, text in enumerate((root / name).read_text(encoding="utf-8").splitlines(), 1):
            if text.strip() != code:
                continue
            end = line if lines.get(line) == 0 else line + 1
            while lines.get(end) == 0:
                del lines[end]
                end += 1
            missed = [branch for branch, count in branches.items() if count == 0 and line <= branch[0] < end]
            for branch in missed:
                del branches[branch]
            if missed or end > line + 1 or line not in lines:
                unused.discard((name, code))
    return unused


def per_cent(counts):
    return 100 * sum(count > 0 for count in counts) / len(counts) if counts else 100


def row(name, lines, branches):
    missed = [sum(count == 0 for count in counts) for counts in (lines, branches)]
    return (f"{name:48} {len(lines):6} {missed[0]:7} {per_cent(lines):8.2f} "
            f"{len(branches):9} {missed[1]:7} {per_cent(branches):8.2f}")


def total_of(name):
    return LIBRARY if name.startswith(("src/", "include/")) else HOST if name.startswith("host/") else GUIDE


def main():
    print_only = "--print-only" in sys.argv
    root, lcov, exported = (pathlib.Path(word).resolve() for word in sys.argv[-3:])
    files = read(root, lcov, exported)
    problems = [f"tests/coverage/unreachable.txt: reached, or no such line: {': '.join(key)}"
                for key in sorted(without_unreachable(root, files))]
    without_braces(root, files)
    totals = {total: ([], []) for total in LEAST}
    short = set()
    print(f"{'':48} {'lines':>6} {'missed':>7} {'%':>8} {'branches':>9} {'missed':>7} {'%':>8}")
    for name in sorted(files):
        lines, branches = (list(counts.values()) for counts in files[name])
        totals[total_of(name)][0].extend(lines)
        totals[total_of(name)][1].extend(branches)
        print(row(name, lines, branches))
    print()
    for total, (lines, branches) in totals.items():
        print(row(total, lines, branches))
        least_lines, least_branches = LEAST[total]
        if per_cent(lines) < least_lines or per_cent(branches) < least_branches:
            short.add(total)
            problems.append(f"{total}: the tests must reach {least_lines} % of the lines and {least_branches} % of the "
                            "branches")
    if print_only or not problems:
        return 0
    print("\n" + "\n".join(problems), file=sys.stderr)
    for name, (lines, branches) in sorted(files.items()):
        if total_of(name) in short:
            for line in sorted(line for line, count in lines.items() if count == 0):
                print(f"{name}:{line}: not reached", file=sys.stderr)
            for line, column, outcome in sorted(branch for branch, count in branches.items() if count == 0):
                print(f"{name}:{line}:{column}: never {str(outcome).lower()}", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main())
