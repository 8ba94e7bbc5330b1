# SPDX-License-Identifier: Apache-2.0
"""Finds the changes of a C++ file that a test should notice: one operator, constant, condition or statement each."""
import dataclasses
import re

from clang.cindex import CursorKind, Index

COMPARISONS = {"<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<"), "==": ("!=",), "!=": ("==",)}
BINARY = {**COMPARISONS, "+": ("-",), "-": ("+",), "*": ("/",), "/": ("*",), "%": ("*",), "<<": (">>",), ">>": ("<<",),
          "&": ("|",), "|": ("&",), "^": ("|",), "&&": ("||",), "||": ("&&",), "+=": ("-=",), "-=": ("+=",),
          "*=": ("/=",), "/=": ("*=",), "%=": ("*=",), "<<=": (">>=",), ">>=": ("<<=",), "&=": ("|=",), "|=": ("&=",),
          "^=": ("|=",)}
PREFIXES = {"!": "", "-": "", "~": "", "++": "--", "--": "++"}
PRIORITIES = {"LMR_LOG_DEBUG": "LMR_LOG_INFO", "LMR_LOG_INFO": "LMR_LOG_DEBUG", "LMR_LOG_WARNING": "LMR_LOG_ERROR",
              "LMR_LOG_ERROR": "LMR_LOG_WARNING"}
FUNCTIONS = {CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR, CursorKind.DESTRUCTOR,
             CursorKind.FUNCTION_TEMPLATE, CursorKind.CONVERSION_FUNCTION}
CONDITIONS = {CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.DO_STMT, CursorKind.CONDITIONAL_OPERATOR}
STATEMENTS = {CursorKind.CALL_EXPR, CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR,
              CursorKind.UNARY_OPERATOR, CursorKind.CXX_DELETE_EXPR, CursorKind.CONDITIONAL_OPERATOR,
              CursorKind.PAREN_EXPR, CursorKind.BREAK_STMT, CursorKind.CONTINUE_STMT}


@dataclasses.dataclass(frozen=True, order=True)
class Change:
    """Replaces the bytes from `begin` to `end` of a file with `new`."""
    begin: int
    end: int
    new: str
    line: int
    column: int
    function: str
    text: str  # the line, with the change in brackets


class Finder:
    def __init__(self, path, source):
        self._path = str(path)
        self._source = source
        self.found = {}

    def visit(self, cursor, parent=None, function=""):
        """Adds the changes of `cursor` and of everything inside it."""
        if cursor.kind == CursorKind.STATIC_ASSERT:
            return
        if cursor.kind in FUNCTIONS:
            function = cursor.spelling
        if cursor.location.file is not None and cursor.location.file.name == self._path:
            self._operators(cursor, function)
            self._literals(cursor, function)
            self._conditions(cursor, function)
            self._statements(cursor, parent, function)
        for child in cursor.get_children():
            if child.location.file is None or child.location.file.name == self._path:
                self.visit(child, cursor, function)

    def _operators(self, cursor, function):
        children = list(cursor.get_children())
        if cursor.kind in (CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR) and len(children) == 2:
            self._between(children[0].extent.end.offset, children[1].extent.start.offset, function)
        elif cursor.kind == CursorKind.CALL_EXPR and cursor.spelling.startswith("operator") and len(children) == 3:
            self._between(children[0].extent.end.offset, children[2].extent.start.offset, function)
        elif cursor.kind == CursorKind.UNARY_OPERATOR or cursor.spelling in ("operator++", "operator!"):
            for prefix, new in sorted(PREFIXES.items(), key=lambda item: -len(item[0])):
                if self._source.startswith(prefix.encode(), cursor.extent.start.offset):
                    begin = cursor.extent.start.offset
                    self._add(begin, begin + len(prefix), new, function)
                    return

    def _between(self, begin, end, function):
        """Changes the operator between two operands."""
        match = re.fullmatch(rb"\s*([-+*/%<>=!&|^]+)\s*", self._source[begin:end])
        if match:
            old = match[1].decode()
            for new in BINARY.get(old, ()):
                self._add(begin + match.start(1), begin + match.end(1), new, function)

    def _literals(self, cursor, function):
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        text = self._source[begin:end].decode()
        if cursor.kind == CursorKind.CXX_BOOL_LITERAL_EXPR and text in ("true", "false"):
            self._add(begin, end, "false" if text == "true" else "true", function)
        elif cursor.kind == CursorKind.INTEGER_LITERAL and re.fullmatch(r"(0x[\da-fA-F]+|\d+)[uUlL]*", text):
            digits = text.rstrip("uUlL")
            suffix = text[len(digits):]
            value = int(digits, 16 if digits.startswith("0x") else 10)
            for new in {value + 1, value - 1} if value > 0 else {1}:
                self._add(begin, end, f"{new}{suffix}", function)
        elif cursor.kind == CursorKind.FLOATING_LITERAL and re.fullmatch(r"[\d.]+(e-?\d+)?", text):
            value = float(text)
            for new in {value * 1.01, 0.0} if value not in (0.0, 1.0) else {1.0 - value, value + 1.0}:
                self._add(begin, end, repr(new), function)

    def _conditions(self, cursor, function):
        if cursor.kind not in CONDITIONS:
            return
        children = list(cursor.get_children())
        condition = children[-1 if cursor.kind == CursorKind.DO_STMT else 0]
        begin, end = condition.extent.start.offset, condition.extent.end.offset
        text = self._source[begin:end].decode()
        bare = condition.kind not in (CursorKind.BINARY_OPERATOR, CursorKind.UNARY_OPERATOR, CursorKind.DECL_STMT)
        if bare and not re.search(r"[<>=!&|]=|[<>]", text) and not text.startswith("!"):
            self._add(begin, end, f"!({text})", function)

    def _statements(self, cursor, parent, function):
        """Removes a statement that is not a declaration, a branch, a loop or the return of a value."""
        if parent is None or parent.kind not in (CursorKind.COMPOUND_STMT, CursorKind.CASE_STMT,
                                                 CursorKind.DEFAULT_STMT):
            return
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        text = self._source[begin:end].decode()
        inner = cursor
        while inner.kind == CursorKind.UNEXPOSED_EXPR and list(inner.get_children()):
            inner = list(inner.get_children())[0]
        is_return = inner.kind == CursorKind.RETURN_STMT and text == "return"
        if parent.kind == CursorKind.CASE_STMT and cursor == next(parent.get_children()):
            return  # the value of the case
        if (inner.kind in STATEMENTS or is_return) and not text.startswith(("static_cast<void>", "case ")):
            self._add(begin, end, "static_cast<void>(0)" + "\n" * text.count("\n"), function, "removed")
        for name, new in PRIORITIES.items():
            if text.startswith(name + "("):
                self._add(begin, begin + len(name), new, function)

    def _add(self, begin, end, new, function, what=None):
        start = self._source.rfind(b"\n", 0, begin) + 1
        stop = self._source.find(b"\n", end)
        old = self._source[begin:end].decode()
        shown = f"[{old} removed]" if what or not new else f"[{old} becomes {new}]"
        text = self._source[start:begin].decode() + shown + self._source[end:stop].decode()
        change = Change(begin, end, new, self._source.count(b"\n", 0, begin) + 1, begin - start + 1,
                        function or "-", re.sub(r"\s+", " ", text).strip())
        self.found[begin, end, new] = change


def find(path, source_path, arguments):
    """@return the changes of the file `path`, which the compilation of `source_path` includes or which it is."""
    unit = Index.create().parse(str(source_path), args=arguments)
    problems = [str(problem) for problem in unit.diagnostics if problem.severity >= 3]
    if problems:
        raise RuntimeError("\n".join(problems))
    finder = Finder(path, path.read_bytes())
    for cursor in unit.cursor.get_children():
        if cursor.location.file is not None and cursor.location.file.name == str(path):
            finder.visit(cursor)
    return sorted(finder.found.values())
