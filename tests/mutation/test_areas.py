#!/usr/bin/python3
"""Every source is tried, by programs that exist; a file that moves must not be forgotten."""

import pathlib
import re
import unittest

from areas import AREAS, MOST_LIKELY, area_of
from journal import DECISIVE

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
FOLDERS = ("src", "include/korvex", "receiver", "tools")


def sources():
    return sorted(str(path.relative_to(ROOT)) for folder in FOLDERS
                  for path in (ROOT / folder).rglob("*") if path.suffix in (".cpp", ".h"))


class Areas(unittest.TestCase):
    def test_hold_every_source_once(self):
        for name in sources():
            self.assertEqual(sum(area.has(name) for area in AREAS), 1, name)

    def test_have_no_pattern_that_matches_nothing(self):
        for area in AREAS:
            for pattern in area.sources:
                self.assertTrue(any(re.fullmatch(pattern, name) for name in sources()), pattern)

    def test_name_programs_that_are_built(self):
        for area in AREAS:
            for program in area.programs():
                lists = ROOT / pathlib.PurePath(program.path).parent / "CMakeLists.txt"
                self.assertRegex(lists.read_text(), rf"NAME {program.name}\b|\b{program.name}:",
                                 program.path)

    def test_try_the_most_likely_program_first_and_then_the_others(self):
        for part, program in MOST_LIKELY:
            meant = [name for name in sources() if part in name]
            self.assertNotEqual(meant, [], part)
            for name in meant:
                tried = area_of(name).slow_for(name)
                self.assertEqual(tried[0], program, name)
                self.assertCountEqual(tried, area_of(name).slow)

    def test_know_that_their_sources_decide(self):
        for area in AREAS:
            for name in filter(area.has, sources()):
                self.assertRegex(name, area.ground)
                self.assertTrue(name.startswith(DECISIVE), name)


if __name__ == "__main__":
    unittest.main()
