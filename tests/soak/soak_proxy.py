"""Stands between a soak's clients and the simulator and breaks what passes: pauses, splits, cuts, ends.

    python soak_proxy.py SEED UPSTREAM_PORT CLIENTS LIFE

Each client has a port of its own. A client's nth open request is its nth attempt; the register request that follows
belongs to it. The dice of an attempt say what happens to it, at bytes and times that know nothing of messages.
"""

from __future__ import annotations

import asyncio
import contextlib
import random
import socket
import sys
import time

from soak_faults import LATE, PATIENCE, SLACK, ServerReport, T, any_pause, dice, pieces, set_reset, tell

ENDS = ("fin", "reset", "cut", "stall")
WAYS = ("ask down", "ask up", "hear down", "both down")


class Attempt:
    """Both connections of one attempt of one client, and what is to happen to them."""

    def __init__(self, seed: str, worker: int, number: int, life: float) -> None:
        self.seed = f"{seed}/{worker}/{number}"
        self.rng = dice(self.seed, "proxy")
        kind, way = self.rng.choice(ENDS), self.rng.choice(WAYS)
        self.kind, self.way = kind, way
        self.ends_at = time.monotonic() + self.rng.random() ** 2 * life
        if self.rng.random() < 0.15:
            self.ends_at = float("inf")  # the client ends it by itself
        self.report = ServerReport(worker, number, f"{kind} {way}", started_at=time.monotonic())
        self.told = False
        self.lines: dict[str, Line] = {}
        self.tasks: list[asyncio.Task[None]] = []
        self._pauses: list[tuple[str, float, float]] = []

    async def pause(self, line: str, seconds: float) -> None:
        """Several pauses of one exchange count as one."""
        started = time.monotonic()
        self.report.note(f"pause of {seconds:.2f} s on {line}")
        self.note_pause(line, seconds)  # the client may end the connection in the middle of it
        await asyncio.sleep(seconds)
        self.note_pause(line, time.monotonic() - started - seconds)  # it may have been longer

    def note_pause(self, line: str, seconds: float) -> None:
        now = time.monotonic()
        self._pauses = [one for one in self._pauses if one[1] > now - 3 * T] + [(line, now, seconds)]
        self.report.pause(sum(took for name, _, took in self._pauses if name == line))

    def is_due(self) -> bool:
        """Whether it is time for the planned end, and there is what it is to happen to."""
        needed = [*self.names("down"), *self.names("up")]
        return self.report.fault_at is None and time.monotonic() > self.ends_at and all(n in self.lines for n in needed)

    def names(self, direction: str) -> list[str]:
        which, way = self.way.split()
        return [] if way != direction else ["ask", "hear"] if which == "both" else [which]

    async def watch(self) -> None:
        """Brings about the planned end of what is not in the middle of sending, and the end of all."""
        while not all(line.closed for line in self.lines.values()):
            await asyncio.sleep(0.05)
            if self.kind != "cut" and self.is_due():
                self.end()
            since = self.report.since()
            if since is not None and time.monotonic() > since + PATIENCE:
                break
        self.abort()
        for task in self.tasks:
            task.cancel()
        self.report.tell()
        self.told = True

    def abort(self) -> None:
        for line in self.lines.values():
            line.abort()

    def end(self) -> None:
        """The planned end, now."""
        kind, now = self.kind, time.monotonic()
        if kind == "stall":  # whether it ends the connection depends on where in a message this is
            self.report.may_end = True
            self.kind, self.ends_at = "fin", now + T + 6 * SLACK
        else:
            self.report.fault_at = self.report.must_end_at = now
        for name, line in self.lines.items():
            for direction in ("down", "up"):
                if name in self.names(direction):
                    line.end(direction, kind)


class Line:
    """One connection of a client and the one to the simulator that belongs to it."""

    def __init__(self, attempt: Attempt, name: str, client: Streams, server: Streams) -> None:
        self.attempt, self.name = attempt, name
        self.client, self.server = client, server
        self.closed = False  # by the client
        self.stalled_until = {"down": 0.0, "up": 0.0}
        self._ended: set[str] = set()

    def end(self, direction: str, kind: str) -> None:
        """direction: down is from the server to the client."""
        streams = self.client if direction == "down" else self.server
        if kind == "stall":
            self.stalled_until[direction] = time.monotonic() + self.attempt.rng.uniform(T + SLACK, T + 3 * SLACK)
            return
        self._ended.add(direction)
        if kind == "reset":
            with contextlib.suppress(OSError):  # the client may have closed it in this moment
                set_reset(streams[1].get_extra_info("socket"))
            streams[1].transport.abort()
        else:
            with contextlib.suppress(OSError):
                streams[1].write_eof()

    def abort(self) -> None:
        self.closed = True
        for _, writer in (self.client, self.server):
            writer.transport.abort()

    async def pump(self, direction: str) -> None:
        reader = (self.server if direction == "down" else self.client)[0]
        writer = (self.client if direction == "down" else self.server)[1]
        rng = dice(self.attempt.seed, self.name, direction)
        try:
            while data := await reader.read(65536):
                await self._pass_on(data, writer, direction, rng)
        except OSError:
            pass
        report = self.attempt.report
        if direction == "up":
            # The simulator is not told before both are closed: it would end the other one, which is the client's task.
            self.closed = True
            if report.gave_up_at is None:
                report.gave_up_at = time.monotonic()
            return
        if report.fault_at is None and report.gave_up_at is None:
            report.fault_at = report.must_end_at = time.monotonic()
            report.note(f"the simulator has ended {self.name}")
        if direction not in self._ended:
            self._ended.add(direction)
            with contextlib.suppress(OSError):
                writer.write_eof()

    async def _pass_on(self, data: bytes, writer: asyncio.StreamWriter, direction: str, rng: random.Random) -> None:
        attempt, manner = self.attempt, rng.random()
        at = rng.randrange(len(data))
        if self._ends_with(direction):
            await self._write(writer, data[:at], direction)
            attempt.end()
        elif manner < 0.02:
            await self._write(writer, data[:at], direction)
            seconds = any_pause(rng)
            await attempt.pause(self.name, seconds)
            data = data[at:]
        elif manner < 0.12:
            attempt.report.note(f"pieces {direction} on {self.name}, {data[:1]!r}")
            longest, started = rng.choice((1, 7, 200)), time.monotonic()
            for piece in pieces(data[: 100 * longest], rng, longest):
                await self._write(writer, piece, direction)
                await asyncio.sleep(rng.uniform(0, 0.002))
            data = data[100 * longest :]
            attempt.note_pause(self.name, time.monotonic() - started)
        if (left := self.stalled_until[direction] - time.monotonic()) > 0:
            await attempt.pause(self.name, left)
        await self._write(writer, data, direction)

    def _ends_with(self, direction: str) -> bool:
        attempt = self.attempt
        return attempt.kind == "cut" and self.name in attempt.names(direction) and attempt.is_due()

    async def _write(self, writer: asyncio.StreamWriter, data: bytes, direction: str) -> None:
        if data and direction not in self._ended:
            writer.write(data)
            await writer.drain()


Streams = tuple[asyncio.StreamReader, asyncio.StreamWriter]


class Proxy:
    """What one client connects to."""

    def __init__(self, seed: str, worker: int, upstream: int, life: float) -> None:
        self._seed, self._worker, self._upstream, self._life = seed, worker, upstream, life
        self._attempts: list[Attempt] = []
        self._tasks: set[asyncio.Task[None]] = set()

    async def serve(self) -> None:
        server = await asyncio.start_server(self._accept, "127.0.0.1", 0)
        tell("listening", worker=self._worker, port=server.sockets[0].getsockname()[1])

    async def _accept(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        writer.get_extra_info("socket").setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        with contextlib.suppress(OSError):
            first = await reader.read(1)
            if first == b"7":
                for attempt in self._attempts[
                    -1:
                ]:  # the client has given it up; what it wrote last is not to come late
                    attempt.abort()
                self._attempts.append(Attempt(self._seed, self._worker, len(self._attempts) + 1, self._life))
            if first in (b"7", b"8") and self._attempts:
                server = await asyncio.open_connection("127.0.0.1", self._upstream)
                server[1].write(first)
                self._join(Line(self._attempts[-1], "ask" if first == b"7" else "hear", (reader, writer), server))
                return
        writer.transport.abort()

    def _join(self, line: Line) -> None:
        attempt = line.attempt
        attempt.lines[line.name] = line
        attempt.tasks += [asyncio.ensure_future(line.pump(direction)) for direction in ("down", "up")]
        if line.name == "ask":
            task = asyncio.ensure_future(attempt.watch())
            self._tasks.add(task)
            task.add_done_callback(self._tasks.discard)

    async def finish(self) -> None:
        """The last clients are gone. What they have left in the queue of the socket is an attempt as well."""
        await asyncio.sleep(0.5)
        deadline = time.monotonic() + LATE
        while not all(attempt.told for attempt in self._attempts) and time.monotonic() < deadline:
            await asyncio.sleep(0.05)


async def main(seed: str, upstream: int, clients: int, life: float) -> None:
    proxies = [Proxy(seed, worker, upstream, life) for worker in range(clients)]
    for proxy in proxies:
        await proxy.serve()
    await asyncio.get_running_loop().run_in_executor(None, sys.stdin.read)
    await asyncio.gather(*(proxy.finish() for proxy in proxies))


if __name__ == "__main__":
    asyncio.run(main(sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), float(sys.argv[4])))
