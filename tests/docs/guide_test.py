#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the documents to the code.

  guide_test.py ROOT

Fails when a program or its output stands in the guide other than it is built and run, or not at all; when the tables of
log texts differ from what src/ logs; when the picture lacks a layer; when a link leads nowhere.
"""
import pathlib
import re
import sys

LOG_CALL = re.compile(r'LMR_LOG_(ERROR|WARNING|INFO|DEBUG)\(\s*"((?:[^"\\]|\\.)*)"')
ASSERTION = re.compile(r'LMR_ASSERT\([^;]*?"((?:[^"\\]|\\.)*)"\)')
LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)|<img [^>]*src=\"([^\"]+)\"|srcset=\"([^\"]+)\"")
FENCE = re.compile(r"(?:<!-- (\S+) -->\n+)?^```(\w*)\n(.*?)^```$", re.M | re.S)
ROW = re.compile(r"^\| `(.+?)` \| (\w+) \|", re.M)


def logged_by(root):
    texts = set()
    for path in sorted((root / "src").rglob("*.cpp")):
        source = path.read_text(encoding="utf-8")
        texts |= {(text, priority.lower()) for priority, text in LOG_CALL.findall(source)}
        texts |= {(text, "aborts") for text in ASSERTION.findall(source)}
    return texts


def check_programs(root, pages, problems):
    """A fence of C++ is a run of lines of the file named above it; one of output is the whole file."""
    shown = set()
    for page, text in pages.items():
        for name, language, body in FENCE.findall(text):
            if language not in ("cpp", "text"):
                continue
            path = root / name
            if not name or not path.is_file():
                problems.append(f"{page}: a block of {language} does not say which file it shows")
                continue
            shown.add(name)
            content = path.read_text(encoding="utf-8")
            same = content == body if language == "text" else f"\n{content}".find(f"\n{body}") >= 0
            if not same:
                problems.append(f"{page}: does not show {name} as it is")
    for path in sorted((root / "examples/guide").iterdir()):
        name = str(path.relative_to(root))
        if path.suffix in (".cpp", ".txt") and path.name != "CMakeLists.txt" and name not in shown:
            problems.append(f"{name}: stands in no page of the guide")


def check_logs(root, pages, problems):
    """The tables of what is logged are what src/ logs, and other quotations of several words occur in the sources."""
    sources = "".join(path.read_text(encoding="utf-8") for folder in ("src", "include")
                      for path in (root / folder).rglob("*.*"))
    for page, text in pages.items():
        prose = re.sub(r"^```.*?^```$|`[^`\n]*`", "", text, flags=re.M | re.S)
        for quotation in re.findall(r'"([^"]*)"', prose):
            if re.search(r"\s", quotation) and " ".join(quotation.split()) not in sources:
                problems.append(f"{page}: nothing in src/ or include/ says \"{quotation}\"")
    told = {}
    for page, text in pages.items():
        for section in re.findall(r"^## What it logs\n(.*?)(?=^## |\Z)", text, re.M | re.S):
            for row in ROW.findall(section):
                told.setdefault(row, page)
    logged = logged_by(root)
    for row in sorted(set(told) - logged):
        problems.append(f"{told[row]}: nothing in src/ logs \"{row[0]}\" ({row[1]})")
    for row in sorted(logged - set(told)):
        problems.append(f"docs/guide: no page tells of \"{row[0]}\" ({row[1]})")
    return len(logged)


def check_picture(root, problems):
    table = (root / "docs/architecture.md").read_text(encoding="utf-8").split("<!-- layers -->")[1]
    picture = (root / "docs/architecture.svg").read_text(encoding="utf-8")
    for layer in re.findall(r"^\| ([A-Z]\w+) \|", table, re.M):
        if f">{layer}</text>" not in picture:
            problems.append(f"docs/architecture.svg: does not show the layer {layer}")


def anchors_of(path):
    titles = re.findall(r"^#+ (.+)$", path.read_text(encoding="utf-8"), re.M)
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles}


def check_links(root, problems):
    count = 0
    for path in sorted([*root.glob("*.md"), *(root / "docs").rglob("*.md")]):
        for match in LINK.finditer(re.sub(r"^```.*?^```$", "", path.read_text(encoding="utf-8"), flags=re.M | re.S)):
            link = next(group for group in match.groups() if group)
            if re.match(r"\w+:", link):
                continue
            count += 1
            target, _, anchor = link.partition("#")
            file = path.parent / target if target else path
            if not file.exists():
                problems.append(f"{path.relative_to(root)}: {link} leads nowhere")
            elif anchor and anchor not in anchors_of(file):
                problems.append(f"{path.relative_to(root)}: {link}: there is no such heading")
    return count


def main(root):
    problems = []
    pages = {f"docs/guide/{path.name}": path.read_text(encoding="utf-8") for path in (root / "docs/guide").glob("*.md")}
    check_programs(root, pages, problems)
    texts = check_logs(root, pages, problems)
    check_picture(root, problems)
    links = check_links(root, problems)
    print("\n".join(problems) or f"{len(pages)} pages tell of {texts} log texts; {links} links lead somewhere")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
