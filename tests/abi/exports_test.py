#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares the symbols that the shared library exports with its Debian symbols file and with the public headers.

  exports_test.py ROOT LIBRARY [--nm NM] [--write]

Fails when the library exports a symbol that the file does not list, when a listed symbol is not exported, and when no
public header declares an exported class or function with LUMORA_API. --write updates the file from LIBRARY; a symbol
that is already listed keeps its version.
"""
import argparse
import pathlib
import re
import subprocess
import sys

LIST = "tests/abi/liblumora-common0.symbols"
HEAD = """liblumora-common.so.0 liblumora-common0 #MINVER#
* Build-Depends-Package: liblumora-common-dev
"""
LINE = re.compile(r' (?:\(c\+\+\))?("?)(?P<name>.+)@Base\1 (?P<version>\S+)')
MADE_FOR_A_CLASS = re.compile(r"(?:typeinfo|typeinfo name|vtable|VTT) for (.+)")
THUNK = re.compile(r"^(?:non-)?virtual thunk to ")


def exported(library, nm):
    """Returns the demangled names. The variants of a constructor or destructor share one name."""
    listing = subprocess.run([nm, "--dynamic", "--demangle", "--defined-only", "--without-symbol-versions", library],
                             capture_output=True, encoding="utf-8", timeout=60, check=True).stdout
    return {re.match(r"[0-9a-f]+ \w (.+)", line)[1] for line in listing.splitlines()}


def listed(text):
    """Returns the version of each listed symbol."""
    if not text.startswith(HEAD):
        sys.exit(f"{LIST} must start with these lines:\n{HEAD}")
    matches = [LINE.fullmatch(line) for line in text.removeprefix(HEAD).splitlines()]
    return {match["name"]: match["version"] for match in matches}


def written(names, versions, version):
    """Returns the text of the symbols file."""
    def line(name):
        plain = re.fullmatch(r"\w+", name)  # extern "C"
        return f" {name}@Base" if plain else f' (c++)"{name}@Base"'

    return HEAD + "".join(f"{line(name)} {versions.get(name, version)}\n" for name in sorted(names))


def without_arguments(name):
    """Reduces ContextData::GetValue(char const*) to ContextData::GetValue, and so on."""
    name = re.sub(r"\[abi:\w+\]", "", THUNK.sub("", name))
    while re.search(r"<[^<>]*>", name):
        name = re.sub(r"<[^<>]*>", "", name)
    return name.split("(")[0].split(" ")[-1]


def declared(name, headers):
    """Tells whether a header declares the function, or the class and its member, with LUMORA_API."""
    made_for = MADE_FOR_A_CLASS.fullmatch(name)
    *scopes, last = map(re.escape, (made_for[1] if made_for else without_arguments(name)).split("::"))
    if made_for:
        scopes.append(last)
        last = None
    for text in headers:
        if scopes:
            *outer, owner = scopes
            found = re.search(rf"\b(?:class|struct) LUMORA_API {owner}\b", text) and all(
                re.search(rf"\b(?:namespace|class|struct) (?:LUMORA_API )?{scope}\b", text) for scope in outer)
            if found and (last is None or re.search(rf"(?<!\w){last}\s*[(;=]", text)):
                return True
        elif re.search(rf"\bLUMORA_API\b[^;{{]*\b{last}(?:<\w+>)?\(", text):
            return True
    return False


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("root", type=pathlib.Path)
    parser.add_argument("library")
    parser.add_argument("--nm", default="nm")
    parser.add_argument("--write", action="store_true")
    arguments = parser.parse_args()
    root = arguments.root
    path = root / LIST
    names = exported(arguments.library, arguments.nm)
    if not names:
        sys.exit(f"{arguments.library} exports no symbols")
    if arguments.write:
        version = re.search(r"^  VERSION (\S+)", (root / "CMakeLists.txt").read_text(encoding="utf-8"), re.M)[1]
        versions = listed(path.read_text(encoding="utf-8")) if path.exists() else {}
        path.write_text(written(names, versions, version), encoding="utf-8")

    expected = listed(path.read_text(encoding="utf-8"))
    headers = [re.sub(r"//.*", "", file.read_text(encoding="utf-8")) for file in (root / "include").rglob("*.h*")]
    problems = [f"exported, but not listed in {LIST}: {name}" for name in sorted(names - expected.keys())]
    problems += [f"listed in {LIST}, but not exported: {name}" for name in sorted(expected.keys() - names)]
    problems += [f"exported, but no public header declares it with LUMORA_API: {name}"
                 for name in sorted(names) if not declared(name, headers)]
    if problems:
        problems.append("If the change is intended, update the file: "
                        f"tests/abi/exports_test.py . {arguments.library} --write")
    print("\n".join(problems) if problems else f"all {len(names)} exported symbols are listed and declared")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
