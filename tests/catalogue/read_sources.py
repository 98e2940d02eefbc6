#!/usr/bin/python3
"""What the tool's sources log and print: read_sources.py COMPILE_COMMANDS SOURCE...

Follows a tag and a format from the call that writes them back to their texts: through the parameters of the functions on
the way, variables, and the fields of constant tables. A call that cannot be followed is told, never passed over.

Writes a line for each text, its fields parted by tabs, with \\n, \\t and \\\\ in them:
logged COMPONENT FILE LEVEL TAG FORMAT; printed FILE STREAM FORMAT; not-followed FILE:LINE WHY.
"""

import ast
import itertools
import json
import re
import shlex
import sys
from dataclasses import dataclass
from pathlib import Path

from clang import cindex
from clang.cindex import CursorKind as Kind

# The level of each, and which arguments are the log site and the format.
LOG_FUNCTIONS = {"log_error": ("ERROR", 0, 1), "log_info": ("INFO", 0, 1), "log_debug": ("DEBUG", 0, 1),
                 "pass_on": ("ERROR", 0, 2), "fail": ("ERROR", 0, 4)}
LOG_FACILITY = "fpd_log"  # writes what others tell it
ITS_OWN = {"fpd_log", "log_line", "log_at"}
PRINT_FUNCTIONS = {"printf": None, "fprintf": 0}  # which argument is the stream
STREAMS = {"stdout", "stderr"}
OTHER_PRINTERS = {"puts", "putchar", "perror", "psignal", "cout", "cerr", "clog", "vprintf"}


# Values: a text is a str; None is what cannot be followed.

@dataclass(frozen=True)
class Parameter:
    function: str  # by its USR
    index: int


@dataclass(frozen=True)
class Field:
    structure: str  # by its USR
    name: str


@dataclass(frozen=True)
class Site:
    component: str
    file: str
    tag: object


def inner(cursor):
    """The expression without its conversions, parentheses, and copies."""
    while True:
        children = list(cursor.get_children())
        wrapped = cursor.kind in (Kind.UNEXPOSED_EXPR, Kind.PAREN_EXPR) or \
            cursor.kind == Kind.CALL_EXPR and cursor.spelling == "LogSite"
        if not wrapped or len(children) != 1:
            return cursor
        cursor = children[0]


def refers_to(cursor, declaration):
    return cursor.referenced is not None and cursor.referenced == declaration


def value_of(cursor):
    cursor = inner(cursor)
    children = list(cursor.get_children())
    if cursor.kind == Kind.STRING_LITERAL:
        return ast.literal_eval(cursor.spelling)
    if cursor.kind in (Kind.CALL_EXPR, Kind.INIT_LIST_EXPR) and cursor.type.spelling.endswith("LogSite"):
        return site_of(children)
    if cursor.kind == Kind.MEMBER_REF_EXPR and cursor.referenced:
        return Field(cursor.referenced.semantic_parent.get_usr(), cursor.spelling)
    if cursor.kind == Kind.DECL_REF_EXPR and cursor.referenced.kind == Kind.PARM_DECL:
        function = cursor.referenced.semantic_parent
        index = [argument.hash for argument in function.get_arguments()].index(cursor.referenced.hash)
        return Parameter(function.get_usr(), index)
    if cursor.kind == Kind.DECL_REF_EXPR and cursor.referenced.kind == Kind.VAR_DECL:
        return value_of_variable(cursor.referenced)
    return None


def value_of_variable(variable):
    """Of a constant: of one that changes, the first value says nothing."""
    initial = [child for child in variable.get_children() if child.kind.is_expression()]
    return value_of(initial[-1]) if variable.type.is_const_qualified() and initial else None


def site_of(arguments):
    module = inner(arguments[0]) if arguments else None
    if module is None or module.kind != Kind.DECL_REF_EXPR or module.referenced.type.spelling != "const LogModule":
        return None
    names = module_names(module.referenced)
    tag = value_of(arguments[1])
    if len(names) != 2 or tag is None:
        return None
    component, path = names
    return Site(component, Path(path).stem, tag)


def module_names(variable):
    """The component word and the path that a module is initialised with, there or in the module that it is a copy of."""
    cursors = [cursor for child in variable.get_children() for cursor in child.walk_preorder()]
    copied = [cursor.referenced for cursor in cursors
              if cursor.kind == Kind.DECL_REF_EXPR and cursor.type.spelling == "const LogModule"]
    if copied:
        return module_names(copied[0])
    return [ast.literal_eval(cursor.spelling) for cursor in cursors if cursor.kind == Kind.STRING_LITERAL]


def parts(value):
    return parts(value.tag) if isinstance(value, Site) else value


def with_part(value, part):
    return Site(value.component, value.file, part) if isinstance(value, Site) else part


@dataclass
class Call:
    name: str
    function: str  # by its USR
    caller: str    # the same of the function around it
    arguments: list
    place: str


class Sources:
    def __init__(self):
        self.calls = []
        self.rows = {}        # of constant tables, by the USR of their structure: texts by field
        self.references = []  # to what is not called there: name, USR, place, the call that has it among its arguments
        self.followed = set()  # functions, by their USRs
        self.found = set()

    def parse(self, path, arguments, text=None):
        unsaved = [(str(path), text)] if text is not None else None
        unit = cindex.Index.create().parse(str(path), args=arguments, unsaved_files=unsaved)
        errors = [str(diagnostic) for diagnostic in unit.diagnostics if diagnostic.severity >= cindex.Diagnostic.Error]
        if errors:
            raise RuntimeError(errors[0])
        for top in unit.cursor.get_children():
            if top.location.file and top.location.file.name == str(path):
                self.walk(top, Path(path).stem, "", None)

    def walk(self, cursor, file, function, call):
        place = f"{file}:{cursor.location.line}"
        children = list(cursor.get_children())
        if cursor.kind in (Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.FUNCTION_TEMPLATE, Kind.CONSTRUCTOR):
            function = cursor.get_usr()
        if cursor.kind == Kind.INIT_LIST_EXPR:
            self.add_row(cursor, children)
        callee = None
        if cursor.kind == Kind.CALL_EXPR and cursor.referenced and children:
            call = Call(cursor.referenced.spelling, cursor.referenced.get_usr(), function, list(cursor.get_arguments()),
                        place)
            self.calls.append(call)
            callee = next((child for child in children if refers_to(inner(child), cursor.referenced)), None)
        if cursor.kind in (Kind.DECL_REF_EXPR, Kind.OVERLOADED_DECL_REF):
            usr = cursor.referenced.get_usr() if cursor.referenced else ""
            self.references.append((cursor.spelling, usr, place, call))
        for child in children:
            if callee is None or child != callee:
                self.walk(child, file, function, call)

    def add_row(self, cursor, children):
        structure = cursor.type.get_canonical().get_declaration()
        fields = [field.spelling for field in structure.type.get_fields()]
        row = {}
        for field, child in zip(fields, children):
            own = list(child.get_children())
            designated = bool(own) and own[0].kind == Kind.MEMBER_REF
            value = value_of(own[-1] if designated else child)
            if isinstance(value, str):
                row[own[0].spelling if designated else field] = value
        if fields:
            self.rows.setdefault(structure.get_usr(), []).append(row)

    # ---- following

    def resolved(self, values, place):
        """All that the values may be, in texts; None among them where that cannot be told."""
        if any(parts(value) is None for value in values):
            self.not_followed(place, "what is given there")
            return
        variable = next((parts(value) for value in values if not isinstance(parts(value), str)), None)
        if isinstance(variable, Parameter):
            self.followed.add(variable.function)
            callers = [call for call in self.calls if call.function == variable.function]
            if not callers:
                self.not_followed(place, "nobody calls what it is in")
            for call in callers:
                yield from self.resolved([self.given(value, call) for value in values], call.place)
        elif isinstance(variable, Field):
            rows = [row for row in self.rows.get(variable.structure, []) if all(
                parts(value).name in row for value in values
                if isinstance(parts(value), Field) and parts(value).structure == variable.structure)]
            if not rows:
                self.not_followed(place, f"no table has {variable.name}")
            for row in rows:
                yield from self.resolved([self.looked_up(value, variable.structure, row) for value in values], place)
        else:
            yield values

    @staticmethod
    def given(value, call):
        part = parts(value)
        if not isinstance(part, Parameter) or part.function != call.function:
            return value
        return with_part(value, value_of(call.arguments[part.index]) if part.index < len(call.arguments) else None)

    @staticmethod
    def looked_up(value, structure, row):
        part = parts(value)
        return with_part(value, row[part.name]) if isinstance(part, Field) and part.structure == structure else value

    def not_followed(self, place, why):
        self.found.add(("not-followed", place, why))

    def find_logged(self):
        for call in [call for call in self.calls if call.name in LOG_FUNCTIONS]:
            level, site_at, format_at = LOG_FUNCTIONS[call.name]
            if len(call.arguments) <= format_at:
                self.not_followed(call.place, f"a call of {call.name}")
                continue
            for site, text in self.resolved([value_of(call.arguments[site_at]), value_of(call.arguments[format_at])],
                                            call.place):
                self.found.add(("logged", site.component, site.file, level, site.tag, text))
        for call in [call for call in self.calls if call.name in ITS_OWN]:
            self.not_followed(call.place, f"logs by {call.name} itself")
        for name, usr, place, _ in self.references:
            if name in ITS_OWN or name in LOG_FUNCTIONS or usr in self.followed:
                self.not_followed(place, f"{name} may be called through a pointer")

    def find_printed(self):
        for call in [call for call in self.calls if call.name in PRINT_FUNCTIONS]:
            stream_at = PRINT_FUNCTIONS[call.name]
            stream = "stdout" if stream_at is None else inner(call.arguments[stream_at]).spelling
            format_at = 0 if stream_at is None else stream_at + 1
            text = value_of(call.arguments[format_at])
            if stream not in STREAMS or not isinstance(text, str):
                self.not_followed(call.place, f"prints by {call.name}")
                continue
            for filled in self.filled(text, call, call.arguments[format_at + 1:]):
                self.found.add(("printed", call.place.split(":")[0], stream, filled))
        for name, _, place, call in self.references:
            if name in STREAMS and (call is None or call.name not in ("fprintf", "fflush")):
                self.not_followed(place, f"prints to {name}")
            if name in OTHER_PRINTERS:
                self.not_followed(place, f"prints by {name}")
        for call in self.calls:
            if call.name in OTHER_PRINTERS:
                self.not_followed(call.place, f"prints by {call.name}")

    def filled(self, text, print_call, arguments):
        """The format as the callers of the function that prints fill it: with their texts for its parameters."""
        callers = [call for call in self.calls if call.function == print_call.caller]
        for caller in callers or [None]:
            pieces = re.split(r"(%[-+ #0-9.]*[hlz]*[a-z])", text)
            for at, argument in zip(itertools.count(1, 2), arguments):
                value = value_of(argument)
                given = self.given(value, caller) if caller and isinstance(value, Parameter) else None
                if isinstance(given, str):
                    pieces[at] = given
            yield "".join(pieces)


def arguments_of(compile_commands, path):
    for entry in json.loads(Path(compile_commands).read_text()):
        if Path(entry["file"]) == Path(path):
            return [word for word in shlex.split(entry["command"]) if re.match(r"-(I|isystem|D|std)", word)]
    raise RuntimeError(f"{path} is not compiled")


def record(fields):
    return "\t".join(re.sub(r"[\\\n\t]", lambda found: {"\\": "\\\\", "\n": "\\n", "\t": "\\t"}[found[0]], field)
                     for field in fields)


def main(compile_commands, *paths):
    sources = Sources()
    for path in paths:
        if Path(path).stem != LOG_FACILITY:
            sources.parse(path, arguments_of(compile_commands, path))
    sources.find_logged()
    sources.find_printed()
    for fields in sorted(sources.found):
        print(record(fields))


if __name__ == "__main__":
    main(*sys.argv[1:])
