"""What all processes of a soak share: the client's time-out, how the server's side and the clients report, and dice.

A soak asks one thing of the client: a value is right, or there is none and the connection has ended. So both sides
report each attempt to connect, by its number, and the program that started them compares the two:

    server's side   what it did to the attempt: whether it may have ended, whether it must have, and when
    client's side   what Connect gave, what arrived, and when the connection was seen to have ended
"""

from __future__ import annotations

import json
import random
import socket
import struct
import sys
import threading
import time
from collections.abc import Iterable
from dataclasses import asdict, dataclass, field
from pathlib import Path

T = 8.0  # seconds that the client waits for a server's next bytes
SLACK = 2.0  # a pause this near to T decides nothing: either outcome is right
LATE = 2 * T + 10.0  # a connection that must end is seen as ended within this time, on a busy machine too
PATIENCE = LATE + 10.0  # the server's side leaves an ended conversation open for so long, to see who ends it

MIRROR_ROOT = Path("/tmp/rkbrowser")  # where the module keeps its copies of files, as it is built here
WRONG, LOST, DISORDER, LATE_END, NO_CAUSE = "wrong", "lost", "out of order", "ended late", "ended without cause"
VIOLATIONS = (WRONG, LOST, DISORDER, LATE_END, NO_CAUSE)

_print_lock = threading.Lock()


def tell(kind: str, **fields: object) -> None:
    """One line to the program that started this process."""
    line = json.dumps({"kind": kind, "at": time.monotonic(), **fields}) + "\n"
    with _print_lock:
        sys.stdout.write(line)
        sys.stdout.flush()


def violation(what: str, text: str, count: int = 1) -> None:
    tell("violation", what=what, text=text, count=count)


@dataclass
class ServerReport:
    """What the server's side did to one attempt."""

    worker: int
    attempt: int
    end: str  # what was planned, for people
    started_at: float = 0.0  # when the open request was there
    may_end: bool = False  # a pause about as long as the client waits
    fault_at: float | None = None  # when the fault began that ends the connection
    must_end_at: float | None = None  # from when on the connection has to end
    gave_up_at: float | None = None  # when the client had closed one of the two connections
    sent: int | None = None  # changes and alarms that went out whole
    last: int | None = None  # how many of them may be told: behind them stood a pause that ends the connection
    notes: list[str] = field(default_factory=list)  # what was done last, for people

    def note(self, text: str) -> None:
        self.notes = [*self.notes[-7:], f"{time.monotonic():.2f} {text}"]

    def tell(self) -> None:
        tell("attempt", side="server", **asdict(self))

    def since(self) -> float | None:
        """From when on the client had to end, or to end the rest of, the connection."""
        return self.must_end_at if self.must_end_at is not None else self.gave_up_at

    def pause(self, seconds: float) -> None:
        if seconds > T - SLACK:
            self.may_end = True


@dataclass
class ClientReport:
    """What the client saw of one attempt."""

    worker: int
    attempt: int
    connect: int
    started_at: float = 0.0  # before Connect
    delivered: int = 0
    why: str = ""  # by what it was seen
    ended_at: float | None = None  # when Connect failed, or the end was seen; None: the client ended the connection
    closed_at: float = 0.0
    violated: bool = False

    def tell(self) -> None:
        tell("attempt", side="client", **asdict(self))


def dice(*names: object) -> random.Random:
    """Dice of their own for each use, so that one schedule does not depend on how far another has come."""
    return random.Random("/".join(str(name) for name in names))


def short_pause(rng: random.Random) -> float:
    """Seconds: most of them short, none that may end a connection."""
    kind = rng.random()
    if kind < 0.6:
        return rng.uniform(0, 0.05)
    if kind < 0.85:
        return rng.uniform(0.05, 1.2)
    return rng.uniform(1.2, T - SLACK - 0.5)


def any_pause(rng: random.Random) -> float:
    """Seconds, now and then beyond the client's time-out."""
    return rng.uniform(T - SLACK, 12.0) if rng.random() < 0.04 else short_pause(rng)


def pieces(data: bytes, rng: random.Random, longest: int) -> Iterable[bytes]:
    """The data in segments that end anywhere."""
    at = 0
    while at < len(data):
        size = rng.randint(1, longest)
        yield data[at : at + size]
        at += size


def set_reset(connection: socket.socket) -> None:
    """Closing it then resets the connection."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
