"""Judges the leak reports of a sanitized run of the Python tests.

CPython itself keeps memory at its end, and every call stack of the module has interpreter frames in it, so a
suppression by library name would hide our leaks with CPython's. This looks for the opposite: a leak counts when a
frame of its stack lies in our module, our simulator or our sources.
"""

from __future__ import annotations

import re
import sys
from pathlib import Path

OURS = re.compile(r"RkDBAccess[^/]*\.so|/rkdbsim\b|/src/(nonwin|RkDBAccess)/|/src/\w+\.(cpp|h):|/sim/\w+\.(cpp|h):")
FAULT = re.compile(r"ERROR: AddressSanitizer|: runtime error: ")
LEAK = re.compile(r"^(?:Direct|Indirect) leak of ", re.MULTILINE)


def our_leaks(report: str) -> list[str]:
    """The leak records of one report whose stack has one of our frames."""
    starts = [match.start() for match in LEAK.finditer(report)] + [len(report)]
    records = [report[a:b].split("\n\n", 1)[0] for a, b in zip(starts, starts[1:])]
    return [record for record in records if OURS.search(record)]


def main(folder: Path) -> int:
    reports = sorted(folder.iterdir())
    found: dict[str, int] = {}
    faults = 0
    for path in reports:
        text = path.read_text(errors="replace")
        if FAULT.search(text):
            faults += 1
            print(f"{path.name}:\n{text}")
        for record in our_leaks(text):
            frames = record.split("\n", 1)[-1]
            found[frames] = found.get(frames, 0) + 1
    for frames, times in found.items():
        print(f"leak, seen in {times} process(es):\n{frames}\n")
    print(f"{len(reports)} reports read, {len(found)} leaks of our code, {faults} other faults")
    return 1 if found or faults else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
