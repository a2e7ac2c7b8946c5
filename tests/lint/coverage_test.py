#!/usr/bin/python3
"""Holds scripts/coverage to what it says of a page and of lines that were not reached."""

import importlib.machinery
import importlib.util
import sys
import unittest
from pathlib import Path

sys.dont_write_bytecode = True


def _load(path):
    loader = importlib.machinery.SourceFileLoader("coverage", str(path))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("coverage", loader))
    loader.exec_module(module)
    return module


coverage = _load(Path(__file__).resolve().parents[2] / "scripts" / "coverage")

PAGE = """
At least 97.5 % of the lines are reached.

| where | lines | why |
|---|---|---|
| `src/a.cpp` | `abort();` | never happens |
| `src/b.cpp` | `return a \\| b;`<br>`throw x;`<br>`throw x;` | no machine does so |
"""

UNREACHED = [("src/a.cpp", 7, "abort();"), ("src/b.cpp", 1, "return a | b;"), ("src/b.cpp", 2, "throw x;"),
             ("src/b.cpp", 9, "throw x;")]


class Check(unittest.TestCase):
    def find_complaints(self, unreached, percent=98.0, page=PAGE):
        return list(coverage.find_complaints(percent, unreached, *coverage.read_page(page)))

    def test_explained_lines_are_no_complaint(self):
        self.assertEqual([], self.find_complaints(UNREACHED))

    def test_a_line_that_nobody_explained_is_named(self):
        complaints = self.find_complaints([*UNREACHED, ("src/c.cpp", 5, "f();")])
        self.assertEqual(1, len(complaints), complaints)
        self.assertTrue(complaints[0].startswith("src/c.cpp:5: no test reaches this line"), complaints)
        self.assertTrue(complaints[0].endswith(": f();"), complaints)

    def test_an_explanation_holds_for_one_file_only(self):
        self.assertEqual(1, len(self.find_complaints([*UNREACHED, ("src/c.cpp", 5, "abort();")])))

    def test_the_same_text_once_more_needs_an_explanation_of_its_own(self):
        complaints = self.find_complaints([*UNREACHED, ("src/b.cpp", 12, "throw x;")])
        self.assertEqual(1, len(complaints), complaints)
        self.assertTrue(complaints[0].startswith("src/b.cpp:12: "), complaints)

    def test_an_explanation_of_a_line_that_is_reached_is_named(self):
        self.assertEqual(["coverage.md explains a line that was reached or is not there: src/b.cpp: throw x;"],
                         list(coverage.remarks(UNREACHED[:-1], coverage.read_page(PAGE)[1])))
        self.assertEqual([], list(coverage.remarks(UNREACHED, coverage.read_page(PAGE)[1])))
        self.assertEqual([], self.find_complaints(UNREACHED[:-1]))

    def test_fewer_lines_than_the_floor_are_a_complaint(self):
        self.assertEqual(["97.49 % of the lines were reached, less than the 97.5 % of coverage.md"],
                         self.find_complaints(UNREACHED, percent=97.49))

    def test_a_page_without_a_floor_is_a_failure(self):
        with self.assertRaises(coverage.Problem):
            coverage.read_page(PAGE.replace("At least", "About"))

    def test_a_line_without_a_reason_is_a_failure(self):
        with self.assertRaises(coverage.Problem):
            coverage.read_page(PAGE.replace("never happens", ""))

    def test_nearly_all_is_not_all(self):
        self.assertEqual((99.9, 100.0), (coverage._cut(coverage.percent_of(1999, 2000)), coverage._cut(100.0)))


if __name__ == "__main__":
    unittest.main()
