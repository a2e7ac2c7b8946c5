#!/usr/bin/python3
"""Holds scripts/coverage to what it says of a page and of lines that were not reached."""

import importlib.machinery
import importlib.util
import sys
import unittest
from pathlib import Path

sys.dont_write_bytecode = True


def _Load(path):
    loader = importlib.machinery.SourceFileLoader("coverage", str(path))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("coverage", loader))
    loader.exec_module(module)
    return module


coverage = _Load(Path(__file__).resolve().parents[2] / "scripts" / "coverage")

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
    def Complaints(self, unreached, percent=98.0, page=PAGE):
        return list(coverage.Complaints(percent, unreached, *coverage.ReadPage(page)))

    def testExplainedLinesAreNoComplaint(self):
        self.assertEqual([], self.Complaints(UNREACHED))

    def testALineThatNobodyExplainedIsNamed(self):
        complaints = self.Complaints([*UNREACHED, ("src/c.cpp", 5, "f();")])
        self.assertEqual(1, len(complaints), complaints)
        self.assertTrue(complaints[0].startswith("src/c.cpp:5: no test reaches this line"), complaints)
        self.assertTrue(complaints[0].endswith(": f();"), complaints)

    def testAnExplanationHoldsForOneFileOnly(self):
        self.assertEqual(1, len(self.Complaints([*UNREACHED, ("src/c.cpp", 5, "abort();")])))

    def testTheSameTextOnceMoreNeedsAnExplanationOfItsOwn(self):
        complaints = self.Complaints([*UNREACHED, ("src/b.cpp", 12, "throw x;")])
        self.assertEqual(1, len(complaints), complaints)
        self.assertTrue(complaints[0].startswith("src/b.cpp:12: "), complaints)

    def testAnExplanationOfALineThatIsReachedIsNamed(self):
        self.assertEqual(["coverage.md explains a line that was reached or is not there: src/b.cpp: throw x;"],
                         list(coverage.Remarks(UNREACHED[:-1], coverage.ReadPage(PAGE)[1])))
        self.assertEqual([], list(coverage.Remarks(UNREACHED, coverage.ReadPage(PAGE)[1])))
        self.assertEqual([], self.Complaints(UNREACHED[:-1]))

    def testFewerLinesThanTheFloorAreAComplaint(self):
        self.assertEqual(["97.49 % of the lines were reached, less than the 97.5 % of coverage.md"],
                         self.Complaints(UNREACHED, percent=97.49))

    def testAPageWithoutAFloorIsAFailure(self):
        with self.assertRaises(coverage.Problem):
            coverage.ReadPage(PAGE.replace("At least", "About"))

    def testALineWithoutAReasonIsAFailure(self):
        with self.assertRaises(coverage.Problem):
            coverage.ReadPage(PAGE.replace("never happens", ""))

    def testNearlyAllIsNotAll(self):
        self.assertEqual((99.9, 100.0), (coverage._Cut(coverage.Percent(1999, 2000)), coverage._Cut(100.0)))


if __name__ == "__main__":
    unittest.main()
