#!/usr/bin/python3
"""What a run makes of its verdicts."""

import json
import pathlib
import tempfile
import unittest

from mutants import Mutant
from operators import Edit
from report import Explanations, Report, Tried
from workshop import EQUIVALENT, INVALID, KILLED, SURVIVED, Verdict


def mutant(number, file="tools/korvexd/b.cpp"):
    return Mutant(number, file, number, "constant", f"int a = {number};", "int a;",
                  Edit(0, 1, "1"))


def entry(number, **more):
    return {"file": "tools/korvexd/b.cpp", "operator": "constant", "before": f"int a = {number};",
            "reason": "It is so.", **more}


class Scores(unittest.TestCase):
    def report(self, outcomes, entries=()):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "survivors.json"
            path.write_text(json.dumps(entries))
            tried = [Tried(mutant(number), Verdict(outcome, "", 1))
                     for number, outcome in enumerate(outcomes)]
            return Report(tried, Explanations(path))

    def test_leave_out_what_makes_no_difference(self):
        report = self.report([KILLED] * 9 + [SURVIVED, SURVIVED],
                             [entry(9, same=True), entry(10, same=True)])
        self.assertEqual(report.score().text(), "9 of 11 mutants killed, 81.8 %; 100.0 % of the 9 "
                                                "that make a difference")
        self.assertTrue(report.is_good())

    def test_count_what_makes_a_difference_and_is_explained(self):
        report = self.report([KILLED, SURVIVED], [entry(1)])
        self.assertEqual(report.score().percent(), 50)
        self.assertFalse(report.is_good())
        self.assertEqual(report.unexplained(), [])

    def test_are_bad_with_a_survivor_without_an_explanation(self):
        report = self.report([KILLED] * 99 + [SURVIVED])
        self.assertEqual(report.score().percent(), 99)
        self.assertFalse(report.is_good())

    def test_are_of_one_area_each(self):
        report = self.report([KILLED, SURVIVED])
        self.assertEqual(report.score(lambda file: file.startswith("src/")).total, 0)
        self.assertEqual(report.score(lambda file: file.startswith("tools/")).total, 2)

    def test_leave_out_what_does_not_compile_or_compiles_to_the_same(self):
        self.assertEqual(self.report([KILLED, EQUIVALENT, INVALID]).score().total, 1)


if __name__ == "__main__":
    unittest.main()
