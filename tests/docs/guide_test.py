#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares the documents with the code.

  guide_test.py ROOT

Fails when the guide lacks an example program or its output, or shows it with a change; when the tables of log texts
differ from what src/ logs; when the picture lacks a layer; when a link is broken; when a file names a data directory
other than the library's.
"""
import pathlib
import re
import sys

LOG_CALL = re.compile(r'LMR_LOG_(ERROR|WARNING|INFO|DEBUG)\(\s*"((?:[^"\\]|\\.)*)"')
ASSERTION = re.compile(r'LMR_ASSERT\([^;]*?"((?:[^"\\]|\\.)*)"\)')
LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)|<img [^>]*src=\"([^\"]+)\"|srcset=\"([^\"]+)\"")
FENCE = re.compile(r"(?:<!-- (\S+) -->\n+)?^```(\w*)\n(.*?)^```$", re.M | re.S)
DATA_DIRECTORY = re.compile(r'kDataDirectory = "([^"]+)/"')
MENTION = re.compile(r"/opt/usr/apps[\w./-]*")
MENTIONING = ("README.md", "CONTRIBUTING.md", "docs/**/*", "host/*.1", "debian/**/*", "scripts/**/*")
NAMES_PARENTS = ("scripts/package",)  # lists every directory that the package creates
ROW = re.compile(r"^\| `(.+?)` \| (\w+) \|", re.M)


def logged_by(root):
    """Returns the texts that src/ logs, with their priorities, and the expressions that it asserts."""
    texts = set()
    for path in sorted((root / "src").rglob("*.cpp")):
        source = path.read_text(encoding="utf-8")
        texts |= {(text, priority.lower()) for priority, text in LOG_CALL.findall(source)}
        texts |= {(text, "aborts") for text in ASSERTION.findall(source)}
    return texts


def check_programs(root, pages, problems):
    """A C++ block must be consecutive lines of the file named above it, an output block the whole file."""
    shown = set()
    for page, text in pages.items():
        for name, language, body in FENCE.findall(text):
            if language not in ("cpp", "text"):
                continue
            path = root / name
            if not name or not path.is_file():
                problems.append(f"{page}: a {language} block must follow a comment that names an existing file")
                continue
            shown.add(name)
            content = path.read_text(encoding="utf-8")
            same = content == body if language == "text" else f"\n{content}".find(f"\n{body}") >= 0
            if not same:
                problems.append(f"{page}: the block for {name} differs from the file")
    for path in sorted((root / "examples/guide").iterdir()):
        name = str(path.relative_to(root))
        if path.suffix in (".cpp", ".txt") and path.name != "CMakeLists.txt" and name not in shown:
            problems.append(f"{name}: no page of the guide shows it")


def check_logs(root, pages, problems):
    """The tables must list exactly what src/ logs. Quotations of several words must occur in src/ or include/."""
    sources = "".join(path.read_text(encoding="utf-8") for folder in ("src", "include")
                      for path in (root / folder).rglob("*.*"))
    for page, text in pages.items():
        prose = re.sub(r"^```.*?^```$|`[^`\n]*`", "", text, flags=re.M | re.S)
        for quotation in re.findall(r'"([^"]*)"', prose):
            if re.search(r"\s", quotation) and " ".join(quotation.split()) not in sources:
                problems.append(f"{page}: quotes \"{quotation}\", which is not in src/ or include/")
    listed = {}
    for page, text in pages.items():
        for section in re.findall(r"^## What it logs\n(.*?)(?=^## |\Z)", text, re.M | re.S):
            for row in ROW.findall(section):
                listed.setdefault(row, page)
    logged = logged_by(root)
    for row in sorted(set(listed) - logged):
        problems.append(f"{listed[row]}: lists \"{row[0]}\" ({row[1]}), which src/ does not log")
    for row in sorted(logged - set(listed)):
        problems.append(f"docs/guide: no page lists \"{row[0]}\" ({row[1]}), which src/ logs")
    return len(logged)


def check_picture(root, problems):
    """The picture must show every layer of the table."""
    table = (root / "docs/architecture.md").read_text(encoding="utf-8").split("<!-- layers -->")[1]
    picture = (root / "docs/architecture.svg").read_text(encoding="utf-8")
    for layer in re.findall(r"^\| ([A-Z]\w+) \|", table, re.M):
        if f">{layer}</text>" not in picture:
            problems.append(f"docs/architecture.svg: the layer {layer} is missing")


def anchors_of(path):
    """Returns the anchors that the headings of a page get."""
    titles = re.findall(r"^#+ (.+)$", path.read_text(encoding="utf-8"), re.M)
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles}


def check_links(root, problems):
    """Every relative link must lead to an existing file, and its anchor to a heading."""
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
                problems.append(f"{path.relative_to(root)}: the file of the link {link} does not exist")
            elif anchor and anchor not in anchors_of(file):
                problems.append(f"{path.relative_to(root)}: the heading of the link {link} does not exist")
    return count


def is_data_directory(mention, directory, name):
    """Tells whether a path is the data directory, a path inside it or, where allowed, one of its parents."""
    if f"{mention}/".startswith(f"{directory}/"):
        return True
    return name in NAMES_PARENTS and f"{directory}/".startswith(f"{mention}/")


def check_data_directory(root, problems):
    """Every path below /opt/usr/apps must be in the directory that include/ContextDatabase.h defines."""
    directory = DATA_DIRECTORY.search((root / "include/ContextDatabase.h").read_text(encoding="utf-8"))[1]
    count = 0
    for path in sorted({path for pattern in MENTIONING for path in root.glob(pattern) if path.is_file()}):
        name = str(path.relative_to(root))
        for number, line in enumerate(path.read_bytes().decode("utf-8", errors="replace").splitlines(), 1):
            for mention in MENTION.findall(line):
                count += 1
                if not is_data_directory(mention.rstrip("./"), directory, name):
                    problems.append(f"{name}:{number}: {mention} is not the data directory, {directory}/")
    if count == 0:
        problems.append("no file names the data directory: this check does not find the mentions")
    return count


def main(root):
    problems = []
    pages = {f"docs/guide/{path.name}": path.read_text(encoding="utf-8") for path in (root / "docs/guide").glob("*.md")}
    check_programs(root, pages, problems)
    texts = check_logs(root, pages, problems)
    check_picture(root, problems)
    links = check_links(root, problems)
    mentions = check_data_directory(root, problems)
    print("\n".join(problems) or f"{len(pages)} pages list {texts} log texts; {links} links and {mentions} mentions of "
          "the data directory are correct")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
