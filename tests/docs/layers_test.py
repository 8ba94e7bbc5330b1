#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks every #include of the library against the layers that docs/architecture.md lists.

  layers_test.py ROOT

Fails when a file belongs to no layer, when it includes a layer or a third-party header that the row of its layer does
not name, when a row names a layer that is not below it, and when CMakeLists.txt lists the sources in another order.
"""
import pathlib
import re
import sys

ANY_LAYER = {"LumoraApi"}  # the export macro; any layer may include it
THIRD_PARTY = {"glib.h": "glib", "json/json.h": "json", "sqlite3.h": "sqlite3"}


def layers_of(text):
    """Returns the table as {layer: (files, layers it may use, third-party headers)}, in order."""
    table = text.split("<!-- layers -->")[1].split("<!-- /layers -->")[0]
    rows = [[cell.strip() for cell in line.strip("|").split("|")] for line in table.strip().splitlines()[2:]]
    return {row[0]: [[name.strip() for name in cell.split(",") if name.strip()] for cell in row[1:]] for row in rows}


def check_order(layers, problems):
    """A layer may use only the layers listed before it."""
    order = list(layers)
    for layer, (_, uses, _) in layers.items():
        for used in uses:
            if order.index(used) >= order.index(layer):
                problems.append(f"docs/architecture.md: {layer} may use {used}, which is not below it")


def check_includes(root, path, row, layer_of, problems):
    """A file may include only what the row of its layer names; a public header, only public headers."""
    own, uses, third_parties = row
    name = str(path.relative_to(root))
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        include = re.match(r'\s*#\s*include\s*([<"])([^>"]+)[>"]', line)
        if not include:
            continue
        where = f"{name}:{number}"
        header = include[2]
        if include[1] == "<":
            if header in THIRD_PARTY and THIRD_PARTY[header] not in third_parties:
                problems.append(f"{where}: the layer {own} may not include {header}")
            continue
        used = layer_of.get(header.removesuffix(".h"))
        if used is None:
            problems.append(f"{where}: {header} belongs to no layer")
        elif used != own and used not in uses and header.removesuffix(".h") not in ANY_LAYER:
            problems.append(f"{where}: the layer {own} may not include the layer {used}")
        elif name.startswith("include/") and not any(
                (root / "include" / (header + suffix)).exists() for suffix in ("", ".in")):
            problems.append(f"{where}: a public header includes {header}, which is not public")


def check_sources(root, layers, layer_of, problems):
    """CMakeLists.txt must list the sources in the order of the layers."""
    order = list(layers)
    cmake = (root / "CMakeLists.txt").read_text(encoding="utf-8")
    sources = re.findall(r"^\s+src/(\S+)\.cpp", cmake, re.M)
    ranks = [order.index(layer_of[source]) for source in sources if source in layer_of]
    if ranks != sorted(ranks) or not sources:
        problems.append("CMakeLists.txt: the sources are not in the order of the layers")


def main(root):
    layers = layers_of((root / "docs/architecture.md").read_text(encoding="utf-8"))
    layer_of = {file: layer for layer, (files, _, _) in layers.items() for file in files}
    problems = []
    seen = set()
    check_order(layers, problems)
    paths = sorted(path for folder in ("include", "src") for path in (root / folder).rglob("*.*"))
    for path in paths:
        name = str(path.relative_to(root))
        unit = re.sub(r"\.(h|cpp)(\.in)?$", "", str(path.relative_to(root / name.split("/")[0])))
        if unit not in layer_of:
            problems.append(f"{name}: docs/architecture.md lists it in no layer")
            continue
        seen.add(unit)
        own = layer_of[unit]
        check_includes(root, path, (own, *layers[own][1:]), layer_of, problems)
    for unit in sorted(set(layer_of) - seen):
        problems.append(f"docs/architecture.md: no file exists for {unit}")
    check_sources(root, layers, layer_of, problems)
    print("\n".join(problems) or f"{len(paths)} files in {len(layers)} layers include only what their layers allow")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
