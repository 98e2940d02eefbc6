"""Names of the lines of a source file that outlive changes elsewhere in it, and the reasons given for such lines."""
import collections
import re
import sys
import tomllib
from typing import NamedTuple


class Place(NamedTuple):
    file: str
    function: str  # or type or table that encloses the line; empty: none does
    text: str  # without indentation
    occurrence: int  # among the lines there that have the same text, from 1; 0: it is the only one


def header_name(line):
    """What a line without indentation begins the definition of."""
    line = re.sub(r"\[\[.*?\]\] ?|^template .*", "", line)
    found = re.match(r"(?:struct|enum(?: class)?) (\w+)", line) or re.search(r"(\w+)(?:\[\])?(?: =|\{)|([\w:~]+)\(", line)
    return next(filter(None, found.groups())) if found else ""


def places_of(path):
    """The place of each line, in order. The file is as clang-format leaves it."""
    function, lines = "", []
    for line in path.read_text().splitlines():
        if re.match(r"[A-Za-z\[]", line):
            function = header_name(line)
        lines.append((function, line.strip()))
        if line.startswith("}") or (not line.startswith(" ") and line.endswith(";")):
            function = ""
    counts, seen = collections.Counter(lines), collections.Counter()
    found = []
    for line in lines:
        seen[line] += 1
        found.append(Place(path.name, *line, seen[line] if counts[line] > 1 else 0))
    return found


class Reasons:
    """A file of reasons. Each has its `why`, its `file`, and by kind and function the texts it is about; a text that
    stands there several times has its number after it: KIND.FUNCTION = [["TEXT"], ["TEXT", 2]]."""

    def __init__(self, path):
        self.why, self.used = {}, set()
        for reason in tomllib.loads(path.read_text()).get("reason", []):
            kinds = {kind: functions for kind, functions in reason.items() if kind not in ("why", "file")}
            for kind, functions in kinds.items():
                for function, texts in functions.items():
                    for text in texts:
                        key = (kind, reason["file"], function, *text)
                        if key in self.why:
                            sys.exit(f"{path.name}: there twice: {key}")
                        self.why[key] = reason["why"]

    def of(self, kind, place, *more):
        """Why; None: no reason is given. `more` are texts that stand after the place's own."""
        key = (kind, place.file, place.function, place.text, *more, *([place.occurrence] if place.occurrence else []))
        self.used.add(key)
        return self.why.get(key)

    def unused(self):
        """What nobody asked for."""
        return [" ".join(map(str, key)) for key in self.why if key not in self.used]
