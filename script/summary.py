"""Adds up the reports of ctest and pytest (JUnit XML) and fails when a test failed, was skipped or none ran."""

from __future__ import annotations

import sys
import xml.etree.ElementTree as ET
from pathlib import Path


def count(report: Path) -> tuple[int, int, int]:
    """(passed, failed, skipped) of one report."""
    suites = list(ET.parse(report).getroot().iter("testsuite"))
    tests = sum(int(suite.get("tests", 0)) for suite in suites)
    failed = sum(int(suite.get(kind, 0)) for suite in suites for kind in ("failures", "errors"))
    skipped = sum(int(suite.get(kind, 0)) for suite in suites for kind in ("skipped", "disabled"))
    return tests - failed - skipped, failed, skipped


def main(reports: list[Path]) -> int:
    total = [0, 0, 0]
    complete = True
    for report in reports:
        if not report.is_file():
            continue  # this runner was not asked for
        counts = count(report)
        print(f"{report.stem}: {counts[0]} passed, {counts[1]} failed, {counts[2]} skipped")
        complete = complete and counts[0] > 0
        total = [a + b for a, b in zip(total, counts)]
    print(f"total: {total[0]} passed, {total[1]} failed, {total[2]} skipped")
    return 0 if complete and total[0] and not total[1] and not total[2] else 1


if __name__ == "__main__":
    sys.exit(main([Path(argument) for argument in sys.argv[1:]]))
