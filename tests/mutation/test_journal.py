#!/usr/bin/python3
"""What a run may take over from an earlier one."""

import pathlib
import tempfile
import types
import unittest

from journal import Journal, Tree
from operators import Edit
from report import Tried
from workshop import EQUIVALENT, INVALID, KILLED, SURVIVED, Verdict

FILES = {"src/a.cpp": b"int a;", "tools/b.cpp": b"int b;", "docs/c.md": b"c",
         "tests/mutation/survivors.json": b"[]",
         "tests/unit/OneTest.cpp": b"TEST(One, Works) {}\nTEST_F(One, Fails) {}\n",
         "tests/unit/OtherTest.cpp": b"TEST_P(Other, Works) {}\n",
         "tests/unit/korvexd/StoreTest.cpp": b"TEST_F(Store, Works) {}\n"}
KILLED_BY_ONE = Verdict(KILLED, "korvex_unit_tests: One.Fails", 1)
KILLED_BY_OTHER = Verdict(KILLED, "korvex_unit_tests: Each/Other.Works/3", 1)
KILLED_SLOWLY = Verdict(KILLED, "korvexd_integration_tests: Daemon.Works", 1)
KILLED_BY_TIME = Verdict(KILLED, "korvex_unit_tests: no end within 16 s", 1)
ALIVE = Verdict(SURVIVED, "", 1)
SAME = Verdict(EQUIVALENT, "the same machine code with optimisation", 1)
REFUSED = Verdict(INVALID, "error: no", 1)


class Trees(unittest.TestCase):
    def kept(self, changed, file="src/a.cpp", is_explained=False):
        """Which of the verdicts hold in a tree with these other files."""
        known = vars(Tree(FILES))
        tree = Tree({**FILES, **changed})
        verdicts = (KILLED_BY_ONE, KILLED_BY_OTHER, KILLED_SLOWLY, KILLED_BY_TIME, ALIVE, SAME,
                    REFUSED)
        return [verdict for verdict in verdicts if tree.keeps(file, verdict, known, is_explained)]

    ALL = [KILLED_BY_ONE, KILLED_BY_OTHER, KILLED_SLOWLY, KILLED_BY_TIME, ALIVE, SAME, REFUSED]

    def test_that_differ_in_pages_or_explanations_only_are_the_same(self):
        self.assertEqual(self.kept({}), self.ALL)
        self.assertEqual(self.kept({"docs/c.md": b"d", "tests/mutation/survivors.json": b"[1]"}),
                         self.ALL)

    def test_with_another_library_have_nothing_in_common(self):
        self.assertEqual(self.kept({"src/a.cpp": b"int d;"}), [])
        self.assertEqual(self.kept({"tests/support/e.h": b""}), [])

    def test_with_more_tests_keep_what_was_killed_or_never_ran(self):
        expected = [KILLED_BY_ONE, KILLED_BY_OTHER, SAME, REFUSED]
        self.assertEqual(self.kept({"tests/unit/MoreTest.cpp": b"TEST(More, Works) {}"}), expected)
        self.assertEqual(self.kept({"tools/b.cpp": b"int d;"}), expected)

    def test_with_more_tests_keep_survivors_that_are_explained(self):
        more = {"tests/unit/MoreTest.cpp": b""}
        self.assertIn(ALIVE, self.kept(more, is_explained=True))
        self.assertEqual(self.kept({"src/a.cpp": b"int d;"}, is_explained=True), [])

    def test_with_a_changed_test_try_again_what_it_killed(self):
        changed = FILES["tests/unit/OneTest.cpp"] + b"// more"
        self.assertEqual(self.kept({"tests/unit/OneTest.cpp": changed}),
                         [KILLED_BY_OTHER, SAME, REFUSED])

    def test_with_more_tests_may_use_more_of_a_header(self):
        self.assertEqual(self.kept({"tests/unit/MoreTest.cpp": b""}, "src/a.h"),
                         [KILLED_BY_ONE, KILLED_BY_OTHER])


class TreesOfTheTools(unittest.TestCase):
    KILLED = Verdict(KILLED, "korvexd_unit_tests: Store.Works", 1)

    def is_kept(self, changed):
        tree = Tree({**FILES, **changed})
        return tree.keeps("tools/korvexd/b.cpp", self.KILLED, vars(Tree(FILES)), False)

    def test_with_more_tests_keep_what_was_killed(self):
        self.assertTrue(self.is_kept({"tests/unit/MoreTest.cpp": b"TEST(More, Works) {}"}))

    def test_that_differ_have_nothing_in_common(self):
        self.assertFalse(self.is_kept({"src/a.cpp": b"int d;"}))
        self.assertFalse(self.is_kept({"tools/b.cpp": b"int d;"}))
        self.assertFalse(self.is_kept({"tests/unit/SystemCalls.cpp": b""}))

    def test_with_a_changed_test_try_again_what_it_killed(self):
        self.assertFalse(self.is_kept({"tests/unit/korvexd/StoreTest.cpp": b""}))


class Journals(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = pathlib.Path(folder.name) / "new/journal.jsonl"
        self.mutants = [types.SimpleNamespace(file="src/a.cpp", edit=Edit(start, start + 1, ";"))
                        for start in (3, 4)]
        self.found = Tried(self.mutants[0], KILLED_BY_ONE)
        Journal(self.path, Tree(FILES), resume=False).note(self.found)

    def known(self, tree, resume=True):
        return Journal(self.path, tree, resume).known(self.mutants)

    def test_give_back_what_was_noted_every_time(self):
        self.assertEqual(self.known(Tree(FILES)), [self.found])
        self.assertEqual(self.known(Tree(FILES)), [self.found])

    def test_follow_the_tree(self):
        more = Tree({**FILES, "tests/unit/MoreTest.cpp": b""})
        self.assertEqual(self.known(more), [self.found])
        self.assertEqual(self.known(more), [self.found])
        self.assertEqual(self.known(Tree({"src/a.cpp": b"int d;"})), [])
        self.assertEqual(self.known(more), [], "it is gone for good")

    def test_begin_anew_unless_told_otherwise(self):
        self.assertEqual(self.known(Tree(FILES), resume=False), [])


if __name__ == "__main__":
    unittest.main()
