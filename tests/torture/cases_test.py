#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares the cases of torture-memory with the public functions of the library.

  cases_test.py ROOT [--print]

The public functions are those in the list of exported symbols, except private ones, whose names end with an underscore,
and those that the public headers define inline. Fails when a function has no case, and when a case names no function.
--print prints the functions instead.
"""
import pathlib
import re
import sys

SYMBOLS = "tests/abi/liblumora-common0.symbols"
EXPORTED = re.compile(r' (?:\(c\+\+\))?"?(.+?)@Base')
NO_FUNCTION = re.compile(r"(?:typeinfo|typeinfo name|vtable|VTT) for |(?:non-)?virtual thunk to |.*::m_\w+$|.*_\(")
CLASS = re.compile(r"^(?:class|struct) LUMORA_API (\w+)")
# A definition in a class: a name, its parameters, and a body or "= default".
INLINE = re.compile(r"^    (?:explicit |virtual |static |[\w:]+[&*]? )*(~?\w+|operator=)\(([^()]*)\)[^;{]*(?:\{|= default)")
CASE = re.compile(r'^ +\{"([^"]+)",', re.MULTILINE)


def short(name):
    """Reduces the demangled names of standard classes to those that a source uses."""
    name = name.replace("[abi:cxx11]", "").replace("double RandomBeta", "RandomBeta")
    name = name.replace("double StandardGamma", "StandardGamma")
    name = re.sub(r"std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> ?>", "std::string", name)
    name = name.replace("std::__cxx11::", "std::").replace("std::char_traits<unsigned short>, ", "")
    while True:
        shorter = re.sub(r",? std::(?:allocator|less)<(?:[^<>]|<[^<>]*>)*>", "", name)
        shorter = re.sub(r" >", ">", shorter)
        if shorter == name:
            name = name.replace("std::vector<std::pair<enum_sql_type, struct_sql_value>>", "ValueList")
            return name.replace("std::vector<std::map<std::string, std::string>>", "Rows")
        name = shorter


def exported(root):
    lines = (root / SYMBOLS).read_text(encoding="utf-8").splitlines()[2:]
    names = {short(EXPORTED.match(line)[1]) for line in lines}
    return {name for name in names if not NO_FUNCTION.match(name)}


def inline(root):
    names = set()
    for header in sorted((root / "include").rglob("*.h")):
        owner = None
        for line in header.read_text(encoding="utf-8").splitlines():
            if CLASS.match(line):
                owner = CLASS.match(line)[1]
            found = INLINE.match(line)
            if owner and found and not found[1].endswith("_"):
                types = [re.sub(r" ?\b\w+$", "", p) if " " in p else p for p in found[2].split(", ")]
                names.add(f"{owner}::{found[1]}({', '.join(types)})")
    return names


def main():
    root = pathlib.Path(sys.argv[1])
    functions = exported(root) | inline(root)
    if sys.argv[2:] == ["--print"]:
        print("\n".join(sorted(functions)))
        return 0
    sources = sorted((root / "tests/torture").glob("memory*.cpp"))
    cases = {name for source in sources for name in CASE.findall(source.read_text(encoding="utf-8"))}
    problems = [f"no case in tests/torture/memory*.cpp: {name}" for name in sorted(functions - cases)]
    problems += [f"a case names no public function: {name}" for name in sorted(cases - functions)]
    print("\n".join(problems) if problems else f"all {len(functions)} public functions have a case")
    return 1 if problems or not functions else 0


if __name__ == "__main__":
    sys.exit(main())
