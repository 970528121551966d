"""What both kinds of client of a soak share: connecting, asking whether the connection stands, and bounds of calls."""

from __future__ import annotations

import contextlib
import select
import shutil
import sys
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import TypeVar

from dialogue import PASSWORD, USER
from process_memory import in_use
from soak_faults import LATE, LATE_END, LOST, MIRROR_ROOT, WRONG, ClientReport, T, dice, tell, violation

from RkDBAccess import DBCore, Driver

CALL_BOUND = 2 * T + 10.0  # seconds that one exchange may take, on a busy machine too
Result = TypeVar("Result")


class Over(Exception):
    """This attempt is over: the connection has ended, or its check has failed."""


class Counts:
    """What this process has done; the program that started it is told from time to time."""

    def __init__(self) -> None:
        self.values = dict.fromkeys(
            ("changes", "alarms", "reads", "writes", "connects", "connects_failed", "subscriptions", "drops"), 0
        )
        self._told = 0.0

    def add(self, name: str, count: int = 1) -> None:
        self.values[name] += count

    def tell(self, now: bool = False, more: dict[str, int] | None = None) -> None:
        if now or time.monotonic() - self._told > 1:
            self._told = time.monotonic()
            tell("counts", **{name: count + (more or {}).get(name, 0) for name, count in self.values.items()})


def own(what: str) -> int:
    """How many entries this process has there."""
    return sum(1 for _ in Path("/proc/self", what).iterdir())


def settled_usage() -> dict[str, int]:
    """What this process has of everything, once the threads of ended connections have left."""
    deadline = time.monotonic() + 20
    while own("task") > threading.active_count() and time.monotonic() < deadline:
        time.sleep(0.05)
    given, resident = in_use()
    return {"rss": resident, "malloc": given, "descriptors": own("fd") - 1, "threads": own("task")}


@dataclass(frozen=True)
class Who:
    """Which client this is, and until when it goes on."""

    host: str
    worker: int
    seed: str
    until: float
    life: float  # seconds that a connection lasts at most by the plan of the server's side


class Attempt:
    """One connection of a client, from Connect to its end."""

    def __init__(self, who: Who, number: int, counts: Counts) -> None:
        self.rng, self.counts = dice(who.seed, who.worker, number, "client"), counts
        self._until = who.until
        self._took = 0.0  # by the last call, in seconds
        self.report = ClientReport(who.worker, number, connect=1)
        self.db: DBCore = DBCore()
        folder = MIRROR_ROOT / who.host.replace(":", "_")
        if self.rng.random() < 0.4:
            shutil.rmtree(folder, ignore_errors=True)  # so that the next Connect fetches everything
        self.report.started_at = started = time.monotonic()
        self.report.connect = self.db.Connect(who.host, USER, PASSWORD)
        took = time.monotonic() - started
        counts.add("connects" if self.report.connect == 0 else "connects_failed")
        if self.report.connect != 0:
            self._ended(f"Connect gave {self.report.connect}, {took:.2f} s")
        if took > 3 * CALL_BOUND:
            self.complain(LATE_END, f"Connect took {took:.1f} s")
        if self.report.connect == -1:
            self.complain(WRONG, "Connect says that the server refused the login, which it never does")

    def complain(self, what: str, text: str, count: int = 1) -> None:
        """The check of this attempt has failed; what comes of it later would not say more."""
        if not self.report.violated:
            self.report.violated = True
            violation(what, f"worker {self.report.worker}, attempt {self.report.attempt}: {text}", count)

    def driver(self, name: str, other: str) -> Driver:
        """A driver that the project has. other: another one, to tell a lost connection from a wrong directory."""
        with contextlib.suppress(SystemError):
            return self.db.GetDriver(name)
        if self.stands(other):
            self.complain(WRONG, f"Connect gave 0, there is {other} but no {name}")
        self._ended(f"there is no {name}")
        raise Over

    def _ended(self, why: str) -> None:
        self.report.ended_at, self.report.why = time.monotonic(), why

    def stands(self, name: str) -> bool:
        """Whether the connection stands, as the documents say to ask."""
        try:
            self.db.GetDriver(name)
        except SystemError:
            return False
        return True

    def check(self, name: str) -> None:
        """Goes on as long as the connection stands, nothing wrong was seen and there is time."""
        if self.report.violated:
            raise Over
        if not self.stands(name):
            self._ended("it was asked")
            raise Over
        if time.monotonic() > self._until or is_told_to_stop():
            raise Over

    def call(self, what: str, do: Callable[[], Result]) -> Result:
        """A call of the module, which must come back in time."""
        started = time.monotonic()
        result = do()
        self._took = time.monotonic() - started
        if self._took > CALL_BOUND:
            self.complain(LATE_END, f"{what} took {self._took:.1f} s")
        return result

    def failed(self, name: str, what: str) -> None:
        """A call gave no result: then the connection has ended."""
        deadline = time.monotonic() + LATE
        while self.stands(name):
            if time.monotonic() > deadline:
                self.complain(LATE_END, f"{what} gave nothing, and the connection stands")
                raise Over
            time.sleep(0.01)
        self._ended(f"{what} gave nothing, {self._took:.2f} s")
        raise Over

    def close(self, delivered: Callable[[], int]) -> None:
        """Gives up the connection and says what became of it."""
        self.report.closed_at = time.monotonic()
        if self.report.connect == 0 and self.report.ended_at is not None:
            self.counts.add("drops")
        del self.db
        self.report.delivered = delivered()
        self.report.tell()


def is_told_to_stop() -> bool:
    """The program that started this one has ended its standard input."""
    return bool(select.select([sys.stdin], [], [], 0)[0])


def lost(attempt: Attempt, text: str, count: int) -> None:
    attempt.complain(LOST, text, count)
    raise Over
