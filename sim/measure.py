"""Measures what the simulator needs for many tags and many clients, and checks that each client gets what it should.

    PYTHONPATH=tests/python python sim/measure.py build/release/rkdbsim [--clients N] [--tags N] [--seconds N]

Every client reads and subscribes tags of its own choice; every tag changes once a second.
"""

from __future__ import annotations

import argparse
import os
import random
import resource
import selectors
import signal
import struct
import subprocess
import tempfile
import time
from pathlib import Path

from sim_wire import RawClient

CHANGE = struct.Struct("<HHi")
SUBSCRIBED = 100  # tags of each client


def project(tags: int) -> str:
    """Two drivers that share the tags; each tag counts up, so that a lost change is seen."""
    half = tags // 2
    motion = 'motion = { kind = "ramp", low = 0, high = 2000000000, step = 1 }'
    return "".join(
        f'[[driver]]\nname = "D{number}"\n[[driver.tag]]\nname = "T%05d"\ntype = "i4"\ncount = {half}\n{motion}\n'
        for number in range(2)
    )


class Used:
    """Processor time and memory of a process."""

    def __init__(self, pid: int) -> None:
        self._process = Path(f"/proc/{pid}")
        self._ticks, self._at = self._read(), time.monotonic()

    def _read(self) -> int:
        fields = (self._process / "stat").read_text().rsplit(")", 1)[1].split()
        return int(fields[11]) + int(fields[12])

    def percent(self) -> float:
        """Of one processor, since the last call."""
        ticks, now = self._read(), time.monotonic()
        used = (ticks - self._ticks) / os.sysconf("SC_CLK_TCK") / (now - self._at) * 100
        self._ticks, self._at = ticks, now
        return used

    def megabytes(self) -> float:
        return int((self._process / "statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 1e6


def follow(clients: list[RawClient], seconds: float) -> tuple[int, list[float]]:
    """Counts changes, checks that none is missing, and times a read of 1000 tags every now and then."""
    selector = selectors.DefaultSelector()
    for client in clients:
        selector.register(client.hear.fileno(), selectors.EVENT_READ, (client, bytearray(), {}))
    changes, reads, ends = 0, [], time.monotonic() + seconds
    next_read = time.monotonic()
    while (now := time.monotonic()) < ends:
        for key, _ in selector.select(0.05):
            client, rest, last = key.data
            rest += client.hear.take_once()
            whole = len(rest) // CHANGE.size * CHANGE.size
            for driver, position, value in CHANGE.iter_unpack(bytes(rest[:whole])):
                assert last.get((driver, position), value - 1) == value - 1, "a change is missing"
                last[driver, position] = value
            changes += whole // CHANGE.size
            del rest[:whole]
        if now >= next_read:
            started = time.monotonic()
            values = random.choice(clients).read([(0, number) for number in range(1000)])
            assert len(values) == 1000
            reads.append(time.monotonic() - started)
            next_read = now + 0.1
    selector.close()
    return changes, reads


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program")
    parser.add_argument("--clients", type=int, default=500)
    parser.add_argument("--tags", type=int, default=60000)
    parser.add_argument("--seconds", type=float, default=20)
    arguments = parser.parse_args()
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    with tempfile.NamedTemporaryFile("w", suffix=".toml") as file:
        file.write(project(arguments.tags))
        file.flush()
        command = [arguments.program, "--port", "0", "--quiet", file.name]
        started = time.monotonic()
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process:
            assert process.stdout is not None
            address = ("127.0.0.1", int(process.stdout.readline().rsplit(":", 1)[1]))
            print(f"{arguments.tags} tags: listening after {time.monotonic() - started:.2f} s")
            used = Used(process.pid)
            time.sleep(5)
            print(f"no client: {used.megabytes():.1f} MB, {used.percent():.1f} % of one processor")
            started = time.monotonic()
            clients = [RawClient(address) for _ in range(arguments.clients)]
            print(f"{len(clients)} clients connected in {time.monotonic() - started:.2f} s")
            for client in clients:
                tags = random.sample(range(arguments.tags // 2), SUBSCRIBED)
                client.advise([(number % 2, number) for number in tags])
            used.percent()
            changes, reads = follow(clients, arguments.seconds)
            print(
                f"each with {SUBSCRIBED} tags subscribed: {used.megabytes():.1f} MB, {used.percent():.1f} %,", end=" "
            )
            print(f"{changes / arguments.seconds:.0f} changes a second, none missing")
            reads.sort()
            print(
                f"1000 tags read in {reads[len(reads) // 2] * 1e3:.1f} ms (median), {reads[-1] * 1e3:.1f} ms (longest)"
            )
            for client in clients:
                client.close()
            process.send_signal(signal.SIGTERM)
            assert process.wait(10) == 0


if __name__ == "__main__":
    main()
