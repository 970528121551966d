"""How long a script waits for the end of an idle connection: the module's fixed pause of 60 ms, and what comes on top.

No race: nothing else ends a connection of the module, so there is no limit to compare it with.
"""

from __future__ import annotations

import time
from contextlib import ExitStack
from pathlib import Path
from statistics import median

import contestants as who
import plant

COUNT = 40
IDLE = 0.05  # seconds after Connect: the receive thread waits for the network by then


def measure(programs: Path, cpus: set[int]) -> list[float]:
    """Milliseconds of each del."""
    request, receive = plant.welcome()
    for steps in (request, receive):
        steps.answer(b"end", b"")  # never asked: the connection stays until the module ends it
    milliseconds = []
    with ExitStack() as stack:
        server = who.serve(stack, programs, [request, receive] * COUNT, cpus)
        for _ in range(COUNT):
            db = who.connect_core(stack, server)
            time.sleep(IDLE)
            begin = time.perf_counter()
            del db
            milliseconds.append((time.perf_counter() - begin) * 1e3)
    return milliseconds


def table(milliseconds: list[float]) -> list[str]:
    return [
        f"## End an idle connection: `del db`, {len(milliseconds)} times",
        "",
        "| best, ms | median, ms |",
        "| ---: | ---: |",
        f"| {min(milliseconds):.2f} | {median(milliseconds):.2f} |",
        "",
    ]
