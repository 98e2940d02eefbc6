#!/usr/bin/python3 -B
"""Whether what the documents name is there, and whether the commands that they show print what they show.

    documents_test.py CARDSIM FPD_REPORT [OPTIONS OF UNITTEST]

A block that is run stands under a comment `<!-- card NAME [booted] [speed N]: SETUP -->`: NAME is a card of cardsim/cards,
SETUP (may be empty) are shell commands that bring about what the block is about. Setup and block run on a card of their
own, in one shell. In the block a line that begins with "$ " is a command, the lines after it are what it prints, and "..."
stands for any text, in a line of its own for any lines.
"""

import concurrent.futures
import itertools
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
from typing import NamedTuple

SOURCES = pathlib.Path(__file__).resolve().parent.parent
PAGES = [SOURCES / name for name in ("README.md", "CONTRIBUTING.md", "cardsim/README.md", "report/README.md")]
PAGES += sorted((SOURCES / "docs").glob("*.md"))
RUN_PAGES = ("docs/operating.md", "docs/exit_statuses.md")
CARDS = SOURCES / "cardsim/cards"
BLOCK = re.compile(r"<!-- card ([\w-]+)( booted)?(?: speed (\d+))?:\s*(.*?)\s*-->\n```console\n(.*?)^```$",
                   re.DOTALL | re.MULTILINE)
BOOT_SPEED = "60"
MARK = "--- the next command ---"
CARDSIM, FPD_REPORT = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])


class Block(NamedTuple):
    place: str
    card: str
    booted: bool
    speed: str
    setup: str
    commands: list  # of (command, what it prints)


# What the pages name ----------------------------------------------------------------------------------------------------

def prose(page):
    """The page without its code blocks."""
    text = re.sub(r"^```.*?^```$", "", page.read_text(), flags=re.DOTALL | re.MULTILINE)
    return re.sub(r"^ {4}.*$", "", text, flags=re.MULTILINE)


def anchors(page):
    """The anchors of the page's headings, as they are made of them for a browser."""
    found = set()
    for heading in re.findall(r"^#+ +(.*)$", prose(page), re.MULTILINE):
        text = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading)
        slug = re.sub(r"[^\w\- ]", "", text.lower()).replace(" ", "-")
        found.add(next(name for name in itertools.chain([slug], (f"{slug}-{n}" for n in itertools.count(1)))
                       if name not in found))
    return found


def links(page):
    text = re.sub(r"`[^`]*`", "", prose(page))
    return [target for target in re.findall(r"\]\(([^)\s]+)\)", text) if not re.match(r"\w+:", target)]


def leads_somewhere(page, target):
    path, _, anchor = target.partition("#")
    file = (page.parent / path).resolve() if path else page
    return file.exists() and (not anchor or file.suffix == ".md" and anchor in anchors(file))


def sources_of_tests():
    files = [file for part in ("tests", "platforms", "cardsim", "report") for file in (SOURCES / part).rglob("*.cpp")]
    return {file: file.read_text() for file in files if "TEST" in file.read_text()}


class Pages(unittest.TestCase):
    maxDiff = None

    def test_links_and_anchors_lead_somewhere(self):
        lost = [f"{page.name}: {target}" for page in PAGES for target in links(page) if not leads_somewhere(page, target)]
        self.assertGreater(sum(len(links(page)) for page in PAGES), 20)
        self.assertEqual(lost, [])

    def test_scripts_exist(self):
        named = {(page.name, name) for page in PAGES
                 for name in re.findall(r"(?<![\w/])script/([\w-]+(?:\.\w+)?)", page.read_text())}
        self.assertGreater(len(named), 10)
        self.assertEqual([name for name in sorted(named) if not (SOURCES / "script" / name[1]).exists()], [])

    def test_promises_name_tests_that_exist(self):
        sources = sources_of_tests()
        named = re.findall(r"`([A-Z]\w+)\.([A-Z]\w+)(?:/(\w+))?`", (SOURCES / "docs/promises.md").read_text())
        self.assertGreater(len(named), 30)
        lost = []
        for suite, name, row in named:
            test = re.compile(rf"TEST(?:_F|_P)?\({suite},\s+{name}\)")
            if not any(test.search(text) and (not row or f'"{row}"' in text) for text in sources.values()):
                lost.append(f"{suite}.{name}" + (f"/{row}" if row else ""))
        self.assertEqual(lost, [])

    def test_every_promise_names_a_test(self):
        rows = re.findall(r"^\| (.*) \|$", (SOURCES / "docs/promises.md").read_text(), re.MULTILINE)
        rows = [row for row in rows if not row.startswith(("when |", "---"))]
        self.assertGreater(len(rows), 15)
        self.assertEqual([row for row in rows if not re.search(r"`[A-Z]\w+\.[A-Z]\w+(/\w+)?`$", row)], [])


# What the pages show ----------------------------------------------------------------------------------------------------

def commands_of(text):
    commands = []
    for line in text.splitlines():
        if line.startswith("$ "):
            commands.append((line[2:], []))
        else:
            commands[-1][1].append(line)
    return commands


def blocks_of(name):
    text = (SOURCES / name).read_text()
    for match in BLOCK.finditer(text):
        card, booted, speed, setup, shown = match.groups()
        line = text.count("\n", 0, match.start()) + 1
        yield Block(f"{name}:{line}", card, bool(booted), speed or "1", setup, commands_of(shown))


def pattern_of(lines):
    """What the shown lines stand for."""
    def of_line(line):
        return "(?:.*\n)*?" if line == "..." else ".*".join(map(re.escape, line.split("..."))) + "\n"
    return re.compile("".join(map(of_line, lines)))


def on_card(block, state, options, *command):
    return subprocess.run([CARDSIM, *options, CARDS / block.card, "--state", state, *command], text=True, timeout=100,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False).stdout


def differences(block):
    """What the block's commands print that is not what it shows."""
    shell = [f"PATH={FPD_REPORT.parent}:{CARDSIM.parent}:$PATH; cd /misc/scratch", block.setup]
    for command, _ in block.commands:
        shell += [f"echo '{MARK}'", command]
    with tempfile.TemporaryDirectory(prefix="documents-") as directory:
        state = pathlib.Path(directory) / "state"
        if block.booted:
            on_card(block, state, ["boot"], "--speed", BOOT_SPEED, "--plain")
        printed = on_card(block, state, ["exec"], "--speed", block.speed, "--", "sh", "-c", "exec 2>&1\n" + "\n".join(shell))
    parts = printed.split(MARK + "\n")[1:]
    if len(parts) != len(block.commands):
        return [f"{block.place}: {printed}"]
    return [f"{block.place}: $ {command}\nshown:\n" + "\n".join(shown) + f"\nprinted:\n{part}"
            for (command, shown), part in zip(block.commands, parts) if not pattern_of(shown).fullmatch(part)]


class Commands(unittest.TestCase):
    def test_print_what_is_shown(self):
        for page in RUN_PAGES:
            blocks = list(blocks_of(page))
            self.assertEqual(len(blocks), (SOURCES / page).read_text().count("```console"), page)
            self.assertGreater(len(blocks), 2, page)
            with concurrent.futures.ThreadPoolExecutor(4) as pool:
                found = [difference for each in pool.map(differences, blocks) for difference in each]
            self.assertEqual(found, [], "\n\n" + "\n\n".join(found))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
