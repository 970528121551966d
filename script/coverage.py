"""Says for each file how many of its lines were reached, and which were not.

python script/coverage.py LINES ROOT     LINES: as llvm-cov exports them (lcov)
"""

from __future__ import annotations

import sys
from pathlib import Path


def counts_of(lines: str) -> dict[str, dict[int, int]]:
    """The number of times that each line of each file was reached."""
    files: dict[str, dict[int, int]] = {}
    counts: dict[int, int] = {}
    for line in lines.splitlines():
        key, _, value = line.partition(":")
        if key == "SF":
            counts = files.setdefault(value, {})
        elif key == "DA":
            number, count = (int(part) for part in value.split(",")[:2])
            counts[number] = counts.get(number, 0) + count
    return files


def ranges(numbers: list[int]) -> str:
    parts: list[tuple[int, int]] = []
    for number in numbers:
        if parts and parts[-1][1] == number - 1:
            parts[-1] = (parts[-1][0], number)
        else:
            parts.append((number, number))
    return " ".join(str(first) if first == last else f"{first}-{last}" for first, last in parts)


def main(lines: Path, root: Path) -> int:
    files = counts_of(lines.read_text())
    if not files:
        print("no coverage at all", file=sys.stderr)
        return 1
    reached_of_all = lines_of_all = 0
    for name, counts in sorted(files.items()):
        missed = sorted(number for number, count in counts.items() if count == 0)
        reached = len(counts) - len(missed)
        reached_of_all += reached
        lines_of_all += len(counts)
        print(f"{Path(name).relative_to(root)!s:36} {reached:5} of {len(counts):5} {reached / len(counts):7.1%}")
        if missed:
            print(f"    not reached: {ranges(missed)}")
    print(f"{'all':36} {reached_of_all:5} of {lines_of_all:5} {reached_of_all / lines_of_all:7.1%}")
    return 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]), Path(sys.argv[2])))
