"""Measures how fast the module is against what the same bytes cost otherwise, and says it as ratios.

    script/bench [--rounds N] [--instructions] [--output FILE]
    script/bench --ending

Contestants take turns within each round, so that a machine that is busy for a while is busy for all of them, and a
ratio is the median of the rounds' ratios. Values are checked in the same run: a wrong one ends it. Nothing here is a
test: no figure passes or fails.
"""

from __future__ import annotations

import argparse
import gc
import os
import platform
import re
import subprocess
import sys
from contextlib import ExitStack
from dataclasses import dataclass
from datetime import datetime, timezone
from pathlib import Path
from statistics import median, quantiles

import contestants as who
import ending
import plant
from contestants import Factory

CALLGRIND = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]


@dataclass
class Race:
    """Contestants of the same work; the first is the limit. They repeat it count times a round, one may do more of it
    at once where a round would be too short for the clock."""

    name: str
    title: str
    unit: str
    units: int  # in one repetition
    count: int
    contestants: dict[str, Factory]


def races() -> list[Race]:
    many = len(plant.NAMES)

    def reads(kind: type[who.RawReads | who.ModuleReads | who.PlainReads], tags: int) -> Factory:
        return lambda stack, programs, cpus: kind(stack, programs, cpus, tags)

    def changes(kind: type[who.RawChanges | who.PlainChanges], at_once: int) -> Factory:
        return lambda stack, programs, cpus: kind(stack, programs, cpus, at_once)

    def reading(tags: int) -> dict[str, Factory]:
        return {
            "C++, bytes only (limit)": reads(who.RawReads, tags),
            "RkDBAccess: GetTagValue": reads(who.ModuleReads, tags),
            "plain Python: socket, struct": reads(who.PlainReads, tags),
        }

    return [
        Race("one", "Read one tag: a round trip a call", "call", 1, 1000, reading(1)),
        Race("list", f"Read a list of {many} tags in one call", "value", many, 50, reading(many)),
        Race(
            "changes",
            "Changes pushed by the server, a callback for each",
            "change",
            plant.CHANGES_A_CHUNK,
            20,
            {
                f"C++, bytes only, {who.BUFFER} at once (limit of the network)": changes(who.RawChanges, who.BUFFER),
                "Python, callbacks only (limit of the interpreter)": lambda *_: who.ReadyChanges(),
                "RkDBAccess: SetTagNotify": who.ModuleChanges,
                f"plain Python: socket, struct, {who.BUFFER} at once": changes(who.PlainChanges, who.BUFFER),
                f"plain Python: socket, struct, {who.LARGE_BUFFER} at once": changes(
                    who.PlainChanges, who.LARGE_BUFFER
                ),
            },
        ),
    ]


def cpus_of_both() -> tuple[set[int], set[int]]:
    """A processor for the clients and one for their servers, the same in every round."""
    available = sorted(os.sched_getaffinity(0))
    return {available[-1]}, {available[0]}


def measure(race: Race, programs: Path, rounds: int) -> dict[str, list[float]]:
    """Nanoseconds a unit of each contestant, one figure a round."""
    ours, theirs = cpus_of_both()
    os.sched_setaffinity(0, ours)
    nanoseconds: dict[str, list[float]] = {label: [] for label in race.contestants}
    with ExitStack() as stack:
        runners = {label: make(stack, programs, theirs) for label, make in race.contestants.items()}
        for number in range(-1, rounds):
            for label, runner in runners.items():
                gc.collect()
                seconds = runner.run(race.count)
                if number >= 0:  # the round before the first warms up
                    nanoseconds[label].append(seconds * 1e9 / (race.count * race.units))
    return nanoseconds


def instructions(race: Race, programs: Path) -> dict[str, float]:
    """Instructions that the client's process needs a unit: the difference of two runs of different length."""

    def total(number: int, count: int) -> int:
        only = ["--only", race.name, str(number), str(count), "--programs", str(programs)]
        command = [*CALLGRIND, sys.executable, __file__, *only]
        done = subprocess.run(command, check=True, capture_output=True, text=True)
        found = re.search(r"Collected : (\d+)", done.stderr)
        who.require(found is not None, f"no count in {done.stderr!r}")
        assert found
        return int(found[1])

    counted = {}
    for number, label in enumerate(race.contestants):
        if not label.startswith("C++"):
            few, many = (2, 6) if race.units > 1 else (200, 1200)
            counted[label] = (total(number, many) - total(number, few)) / ((many - few) * race.units)
    return counted


def table(race: Race, nanoseconds: dict[str, list[float]], counted: dict[str, float]) -> list[str]:
    limit = next(iter(nanoseconds.values()))
    module = next(times for label, times in nanoseconds.items() if label.startswith("RkDBAccess"))

    def ratio(times: list[float], to: list[float]) -> str:
        return f"{median(a / b for a, b in zip(times, to)):.2f}"

    head = ["who", f"ns a {race.unit}", "10 % to 90 %", f"{race.unit}s a second", "to limit", "to RkDBAccess"]
    rows = []
    for label, times in nanoseconds.items():
        low, *_, high = quantiles(times, n=10, method="inclusive")
        row = [label, f"{median(times):,.1f}", f"{low:,.1f} to {high:,.1f}", f"{1e9 / median(times):,.0f}"]
        rows.append([*row, ratio(times, limit), ratio(times, module)])
    if counted:
        head.append(f"instructions a {race.unit}")
        for row in rows:
            row.append(f"{counted[row[0]]:,.0f}" if row[0] in counted else "-")
    lines = ["| " + " | ".join(row) + " |" for row in [head, ["---"] + ["---:"] * (len(head) - 1), *rows]]
    return [f"## {race.title}", "", *lines, ""]


def load() -> str:
    return " ".join(Path("/proc/loadavg").read_text().split()[:3])


def machine() -> str:
    found = re.search(r"model name\s*: (.+)", Path("/proc/cpuinfo").read_text())
    cpu = found[1] if found else platform.processor()
    return f"{os.cpu_count()} x {cpu}, Linux {platform.release()}, CPython {platform.python_version()}"


def endings(options: argparse.Namespace) -> list[str]:
    print("Measuring: the end of idle connections ...", file=sys.stderr, flush=True)
    return ending.table(ending.measure(options.programs, cpus_of_both()[1]))


def report(options: argparse.Namespace) -> str:
    before = load()
    cpus = len(os.sched_getaffinity(0))
    sections: list[str] = []
    for race in races():
        print(f"Measuring: {race.title} ...", file=sys.stderr, flush=True)
        nanoseconds = measure(race, options.programs, options.rounds)
        counted = instructions(race, options.programs) if options.instructions else {}
        sections += table(race, nanoseconds, counted)
    sections += endings(options)
    head = [
        "# What script/bench measured",
        "",
        f"- Command: `{' '.join(['script/bench', *options.command])}`",
        f"- When: {datetime.now(timezone.utc):%Y-%m-%d %H:%M} UTC",
        f"- Machine: {machine()}",
        f"- Placement: client and server on {'processors of their own' if cpus > 1 else 'the one processor'}",
        f"- Load (1, 5, 15 min): {before} before, {load()} after",
        f"- Medians of {options.rounds} rounds in which contestants take turns; ratios above 1 are slower",
        "",
    ]
    return "\n".join(head + sections)


def run_only(options: argparse.Namespace) -> None:
    """One contestant, so that what it executes can be counted."""
    name, number, count = options.only
    race = next(race for race in races() if race.name == name)
    with ExitStack() as stack:
        make = list(race.contestants.values())[int(number)]
        make(stack, options.programs, cpus_of_both()[1]).run(int(count))


def main() -> None:
    here = Path(__file__).parent
    parser = argparse.ArgumentParser(prog="script/bench")
    parser.add_argument("--rounds", type=int, default=15, help="default: 15")
    parser.add_argument("--instructions", action="store_true", help="count instructions as well (needs valgrind)")
    parser.add_argument("--ending", action="store_true", help="only the ends of connections; prints, writes no file")
    parser.add_argument("--output", type=Path, default=here / "RESULTS.md", help="default: bench/RESULTS.md")
    parser.add_argument("--programs", type=Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--only", nargs=3, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.only:
        run_only(options)
        return
    if options.ending:
        print("\n".join(endings(options)))
        return
    if options.rounds < 3:
        parser.error("a median needs 3 rounds or more")
    skipped = sys.argv.index("--programs")
    options.command = sys.argv[1:skipped] + sys.argv[skipped + 2 :]
    text = report(options)
    print(text)
    options.output.write_text(text, encoding="utf-8")


if __name__ == "__main__":
    main()
