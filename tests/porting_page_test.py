#!/usr/bin/python3 -B
"""Whether docs/porting.md has a section for each function of the closed libraries and for no other, and whether
check-libraries looks for the same ones."""

import pathlib
import re
import unittest

FPD = "platforms/common/brd-intf/fpd/include"
HEADERS = ("brd_platform_access", "fpd_description", "fpd_utility", "fpd_upgrade_cookie")
SOURCES = pathlib.Path(__file__).resolve().parent.parent


def found(file, pattern):
    return re.findall(pattern, (SOURCES / file).read_text(), re.MULTILINE)


def declared():
    names = [name for header in HEADERS for name in found(f"{FPD}/{header}.h", r"^(?:int|uint32_t) (\w+)\(")]
    assert len(names) == len(set(names)) > 20, names
    return sorted(names)


class PortingPage(unittest.TestCase):
    maxDiff = None

    def test_has_a_section_for_each_closed_function(self):
        self.assertEqual(sorted(found("docs/porting.md", r"^### `(\w+)`$")), declared())

    def test_names_no_other_function(self):
        named = found("docs/porting.md", r"`((?:brd|get_fpd|check_and|exec)_\w+)`")
        self.assertEqual(sorted(set(named)), declared())

    def test_links_lead_somewhere(self):
        for target in found("docs/porting.md", r"\]\(([^)#]+)"):
            self.assertTrue((SOURCES / "docs" / target).exists(), target)

    def test_has_the_programs_and_files_of_the_tool(self):
        page = (SOURCES / "docs/porting.md").read_text()
        texts = "".join(source.read_text() for source in sorted((SOURCES / FPD).parent.glob("src/*.cpp")))
        paths = set(re.findall(r'"(?:timeout \w+ )?(/(?:usr|misc|mnt|dev|var|pkg)/[^" ]+)', texts)) - {"/dev/null"}
        self.assertGreater(len(paths), 5)
        self.assertEqual([path for path in sorted(paths) if path.rsplit("/", 1)[1] not in page], [])


class CheckLibraries(unittest.TestCase):
    def test_looks_for_each_closed_function(self):
        table = "cardsim/src/model/closed_functions.h"
        self.assertEqual(sorted(found(table, r'^    "(\w+)",$')), declared())


if __name__ == "__main__":
    unittest.main()
