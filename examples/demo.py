"""The main job in one run, without a server: starts the simulator with its built-in project, connects, reads one tag
and a list of tags again and again, prints what came as a table, follows changes as the server sends them, writes a
set-point and sees its echo, shows two alarms, and ends everything it started.

    script/demo                                   builds what is needed and runs this
    python examples/demo.py --simulator rkdbsim   with an installed module and simulator
"""

from __future__ import annotations

import argparse
import queue
import re
import shutil
import signal
import subprocess
import sys
import time
from contextlib import ExitStack
from dataclasses import dataclass, field
from datetime import datetime
from pathlib import Path
from types import TracebackType
from typing import TYPE_CHECKING, Any

from plant import MEANINGS
from rich.console import Console
from rich.live import Live
from rich.table import Table

import RkDBAccess

USER, PASSWORD = "operator", "demo"
MIRRORS = Path("/tmp/rkbrowser")
PATIENCE = 15  # seconds; the project's slowest alarm is due sooner
if TYPE_CHECKING:
    Changes = queue.SimpleQueue[tuple[str, str, Any]]


@dataclass
class Plant:
    """What the demo reads of one driver, and the rounds of values that came."""

    driver: str
    tags: list[str]
    rounds: list[list[Any]] = field(default_factory=list)


class DemoError(Exception):
    """Something that ends the demo with a message instead of a table."""


class Simulator:
    """rkdbsim on a port of its own choice, from entering to leaving the block."""

    def __init__(self, program: str) -> None:
        self._program = program

    def __enter__(self) -> str:
        """Starts it; gives the address to connect to."""
        try:
            self._process = subprocess.Popen(
                [self._program, "--port", "0", "--quiet"], stdout=subprocess.PIPE, text=True
            )
        except OSError as error:
            raise DemoError(f"the simulator does not start: {error}") from error
        assert self._process.stdout is not None
        first_line = self._process.stdout.readline()
        found = re.fullmatch(r"listening on (\S+:\d+)\n", first_line)
        if found is None:
            self.__exit__(None, None, None)
            raise DemoError(f"the simulator does not say where it listens: {first_line!r}")
        return found.group(1)

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self._process.send_signal(signal.SIGTERM)
        self._process.communicate(timeout=10)


def connect(address: str) -> RkDBAccess.DBCore:
    """A connected DBCore."""
    db = RkDBAccess.DBCore()
    result = db.Connect(address, USER, PASSWORD)
    if result != 0:
        raise DemoError(f"Connect gave {result}: {MEANINGS.get(result, 'unknown')}")
    return db


def read_list(driver: RkDBAccess.Driver, tags: list[str]) -> list[Any]:
    """One request for all tags. Names that were used before come first, and the one that was is the list's first."""
    values = driver.GetTagValue(",".join(tags))
    if not isinstance(values, list):
        raise DemoError("the tags could not be read: the connection is gone")
    return values


def shown(value: object) -> str:
    """A value as the table shows it: numbers to four decimals, everything else as it is."""
    return f"{value:.4f}" if isinstance(value, float) else str(value)


def table(plants: list[Plant]) -> Table:
    """All rounds so far, a row for each tag."""
    rounds = len(plants[0].rounds)
    made = Table("driver", "tag", "type", title="A list of tags, read in one request each round")
    for number in range(rounds):
        made.add_column(f"round {number + 1}", justify="right")
    for plant in plants:
        for index, tag in enumerate(plant.tags):
            values = [values[index] for values in plant.rounds]
            kind = type(values[-1]).__name__ if values else ""
            made.add_row(plant.driver, tag, kind, *map(shown, values))
        made.add_section()
    return made


def show_reading(console: Console, db: RkDBAccess.DBCore, plants: list[Plant], rounds: int, seconds: float) -> None:
    """Reads one tag by itself, then every tag of the plants for some rounds."""
    drivers = [db.GetDriver(plant.driver) for plant in plants]
    first = plants[0]
    console.print(f"One tag: {first.driver} / {first.tags[0]} = {shown(drivers[0].GetTagValue(first.tags[0]))}\n")
    with Live(table(plants), console=console, auto_refresh=False) as live:
        for number in range(rounds):
            if number:
                time.sleep(seconds)
            for plant, driver in zip(plants, drivers):
                plant.rounds.append(read_list(driver, plant.tags))
            live.update(table(plants), refresh=True)


def next_of(arrivals: queue.SimpleQueue[Any], what: str) -> Any:
    """What a callback has put there. Callbacks run in the connection's own thread, so a queue is between."""
    try:
        return arrivals.get(timeout=PATIENCE)
    except queue.Empty:
        raise DemoError(f"no {what} came within {PATIENCE} seconds") from None


def show_changes(console: Console, driver: RkDBAccess.Driver, tags: list[str], count: int) -> Changes:
    """Subscribes the tags and prints the first changes that the server sends; the rest goes on into the queue."""
    changes: Changes = queue.SimpleQueue()
    driver.SetTagNotify(lambda name, tag, value: changes.put((name, tag, value)))
    if driver.ConnectTag(",".join(tags)) != 1:
        raise DemoError("the tags could not be subscribed")
    console.print(f"\nChanges of {', '.join(tags)}, as the server sends them:")
    for _ in range(count):
        show_change(console, *next_of(changes, "change"))
    return changes


def show_change(console: Console, driver: str, tag: str, value: object) -> None:
    console.print(f"  {datetime.now():%H:%M:%S.%f}  {driver} / {tag} = {shown(value)}")


def show_writing(console: Console, driver: RkDBAccess.Driver, changes: Changes, value: float) -> None:
    """Writes the set-point. The server confirms no write: what the plant made of it comes back as a change."""
    result = driver.SetTagValue("SetPoint", value)
    if result != 0:
        raise DemoError(f"SetTagValue gave {result}")
    console.print(f"\nWrote SetPoint = {value}; its echo:")
    while True:
        change = next_of(changes, "echo")
        if change[1:] == ("SetPoint.Feedback", value):
            show_change(console, *change)
            return


def show_alarms(console: Console, alarms: queue.SimpleQueue[Any], count: int) -> None:
    """Prints alarms with their local times; those that came while the demo did other things are waiting already."""
    console.print("\nAlarms:")
    for _ in range(count):
        alarm_time, event_time, tag, has_event, kind, group, level, value, limit, status = next_of(alarms, "alarm")
        ended = f", over at {event_time:%H:%M:%S}" if has_event else ""
        console.print(
            f"  {alarm_time:%Y-%m-%d %H:%M:%S}  {group} / {tag}: {kind}, value {shown(value)}, limit {shown(limit)}, "
            f"level {level}, status {status}{ended}"
        )


def demo(console: Console, arguments: argparse.Namespace) -> None:
    # Every tag of the project whose type Python has a form for; a date, say, would leave a hole in the list.
    plants = [
        Plant("Boiler", ["Level", "Pressure", "炉膛温度", "SetPoint", "SetPoint.Feedback", "状态", "Burner.On"]),
        Plant("泵站", ["流量", "Pump1.Running", "Pump1.Speed", "I1", "I2", "UI1", "UI2", "UI4", "INT", "UINT", "备注"]),
    ]
    with ExitStack() as stack:
        address = stack.enter_context(Simulator(arguments.simulator))
        console.print(f"The simulator listens on {address}.")
        db = connect(address)
        console.print(f"Connected as {USER}.")
        alarms: queue.SimpleQueue[Any] = queue.SimpleQueue()
        db.SetRtAlarmNotify(lambda *alarm: alarms.put(alarm), 1)
        show_reading(console, db, plants, arguments.rounds, arguments.seconds)
        boiler = db.GetDriver("Boiler")
        changes = show_changes(console, boiler, ["Level", "炉膛温度", "状态", "SetPoint.Feedback"], 6)
        show_writing(console, boiler, changes, 62.5)
        show_alarms(console, alarms, 2)
        del db  # ends the connection before the simulator ends
        # The client's copies of the project's files; a server would be met again, this simulator will not.
        shutil.rmtree(MIRRORS / address.replace(":", "_"), ignore_errors=True)
    console.print("\nConnection and simulator ended.")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--simulator", default="rkdbsim", metavar="PROGRAM", help="the simulator (default: from PATH)")
    parser.add_argument("--rounds", type=int, default=5, help="how often the list is read (default: 5)")
    parser.add_argument("--seconds", type=float, default=0.5, help="pause between two rounds (default: 0.5)")
    # A log or a pipe has no width of its own; the table needs this much.
    console = Console(width=None if sys.stdout.isatty() else 110, highlight=False)
    try:
        demo(console, parser.parse_args())
    except DemoError as error:
        print(f"demo: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130
    return 0


if __name__ == "__main__":
    sys.exit(main())
