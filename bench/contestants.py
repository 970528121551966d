"""Who is measured: the module, a plain-Python client, and the raw client that is the limit.

A contestant is set up once, so that each measures a connection that is warm. run(count) does the work count times,
checks that every value is the right one, and returns the seconds it took.
"""

from __future__ import annotations

import collections
import itertools
import shutil
import socket
import struct
import threading
from collections.abc import Callable, Iterator
from contextlib import ExitStack, closing
from pathlib import Path
from time import perf_counter
from typing import Protocol

import plant
from plant import Steps
from programs import RawClient, Server

from RkDBAccess import DBCore, Driver

MIRRORS = Path("/tmp/rkbrowser")
CHANGE = struct.Struct("<HHd")
BUFFER = 2048  # what the module receives at once
LARGE_BUFFER = 65536
CHANGES_PATIENCE = 300.0


class Contestant(Protocol):
    """See above."""

    def run(self, count: int) -> float: ...


Factory = Callable[[ExitStack, Path, set[int]], Contestant]


def require(holds: bool, what: str) -> None:
    if not holds:
        raise RuntimeError(what)


# What they share: connections to a server of their own.


def connect_core(stack: ExitStack, server: Server) -> DBCore:
    host = f"127.0.0.1:{server.port}"
    mirror = MIRRORS / host.replace(":", "_")
    shutil.rmtree(mirror, ignore_errors=True)
    stack.callback(shutil.rmtree, mirror, ignore_errors=True)
    core = DBCore()
    require(core.Connect(host, plant.USER, plant.PASSWORD) == 0, "the module does not connect")
    return core


def connect_module(stack: ExitStack, server: Server) -> Driver:
    cores = [connect_core(stack, server)]
    stack.callback(cores.clear)  # the last reference: ends the connection
    return cores[0].GetDriver(plant.DRIVER)


def connect_plain(stack: ExitStack, server: Server) -> socket.socket:
    sock = stack.enter_context(closing(socket.create_connection(("127.0.0.1", server.port))))
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return sock


def serve(stack: ExitStack, programs: Path, steps: list[Steps], cpus: set[int]) -> Server:
    server = Server(programs, steps, cpus)
    stack.enter_context(server)
    return server


# Reads: one round trip each, for one tag or for a list.


class RawReads:
    def __init__(self, stack: ExitStack, programs: Path, cpus: set[int], tags: int) -> None:
        request, reply = plant.read_request(tags), plant.read_reply(tags)
        server = serve(stack, programs, [Steps().answer(request, reply)], cpus)
        self._client = RawClient(programs, server, request, reply)
        stack.enter_context(self._client)

    def run(self, count: int) -> float:
        return self._client.ask(count)


class ModuleReads:
    def __init__(self, stack: ExitStack, programs: Path, cpus: set[int], tags: int) -> None:
        request, receive = plant.welcome()
        names = plant.NAMES[:tags]
        plant.look_up(request, names).answer(plant.read_request(tags), plant.read_reply(tags))
        receive.answer(b"end", b"")  # never asked: the connection stays until the module ends it
        server = serve(stack, programs, [request, receive], cpus)
        self._driver = connect_module(stack, server)
        self._names = ",".join(names)
        self._wanted = plant.VALUES[:tags] if tags > 1 else plant.VALUES[0]

    def run(self, count: int) -> float:
        read, names, wanted = self._driver.GetTagValue, self._names, self._wanted
        begin = perf_counter()
        for _ in range(count):
            if read(names) != wanted:
                raise RuntimeError("the module read something else")
        return perf_counter() - begin


class PlainReads:
    """A client in plain Python that reads the same bytes: no handshake, no other types, no faults of a server."""

    def __init__(self, stack: ExitStack, programs: Path, cpus: set[int], tags: int) -> None:
        self._request = plant.read_request(tags)
        server = serve(stack, programs, [Steps().answer(self._request, plant.read_reply(tags))], cpus)
        self._sock = connect_plain(stack, server)
        self._names = ",".join(plant.NAMES[:tags])
        self._wanted = plant.VALUES[:tags]

    def _receive(self, size: int) -> bytes:
        data = self._sock.recv(size)
        while len(data) < size:
            piece = self._sock.recv(size - len(data))
            require(piece != b"", "the stream ends early")
            data += piece
        return data

    def _read(self, names: str) -> list[float]:
        addresses = [(plant.DRIVER_ID, plant.POSITIONS[name]) for name in names.split(",")]
        flat = itertools.chain.from_iterable(addresses)
        self._sock.sendall(b"H" + struct.pack(f"<H{2 * len(addresses)}H", len(addresses), *flat))
        values: list[float] = []
        more = 1
        while more:
            more, size = struct.unpack("<xBH", self._receive(4))
            values += [value for _, value in struct.iter_unpack("<Hd", self._receive(size))]
        return values

    def run(self, count: int) -> float:
        names, wanted = self._names, self._wanted
        begin = perf_counter()
        for _ in range(count):
            if self._read(names) != wanted:
                raise RuntimeError("the plain client read something else")
        return perf_counter() - begin


# Changes: the server pushes them in chunks, as many as are ordered.


class Tally:
    """The callback of a script, and what it has been told."""

    def __init__(self) -> None:
        self.begin(1)

    def begin(self, wanted: int) -> None:
        self.count, self.sum, self._wanted = 0, 0.0, wanted
        self.done = threading.Event()

    def on_change(self, _driver: str, _tag: str, value: float) -> None:
        self.count += 1
        self.sum += value
        if self.count == self._wanted:
            self.done.set()

    def check(self, chunks: int) -> None:
        count = plant.CHANGES_A_CHUNK
        require(self.count == chunks * count, f"{self.count} changes came in place of {chunks * count}")
        require(self.sum == chunks * (count * (count + 1) // 2), "changes came with other values")


class RawChanges:
    def __init__(self, stack: ExitStack, programs: Path, cpus: set[int], at_once: int) -> None:
        self._server = serve(stack, programs, [Steps().send_on_order(plant.changes_chunk())], cpus)
        self._client = RawClient(programs, self._server, b"", b"")
        stack.enter_context(self._client)
        self._at_once = at_once

    def run(self, count: int) -> float:
        self._client.begin_take(count * plant.CHANGES_A_CHUNK * CHANGE.size, self._at_once)
        self._server.order(str(count))
        return self._client.taken()


class ModuleChanges:
    def __init__(self, stack: ExitStack, programs: Path, cpus: set[int]) -> None:
        request, receive = plant.welcome()
        names = plant.NAMES[: plant.SUBSCRIBED]
        plant.look_up(request, names)
        request.want(plant.subscribe_request(len(names))).send(plant.subscribe_reply(len(names)))
        request.answer(b"end", b"")  # never asked: the connection stays until the module ends it
        receive.send_on_order(plant.changes_chunk())
        self._server = serve(stack, programs, [request, receive], cpus)
        driver = connect_module(stack, self._server)
        require(driver.ConnectTag(",".join(names)) == 1, "the module does not subscribe")
        self._tally = Tally()
        driver.SetTagNotify(self._tally.on_change)

    def run(self, count: int) -> float:
        self._tally.begin(count * plant.CHANGES_A_CHUNK)
        begin = perf_counter()
        self._server.order(str(count))
        require(self._tally.done.wait(CHANGES_PATIENCE), f"only {self._tally.count} changes came")
        seconds = perf_counter() - begin
        self._tally.check(count)
        return seconds


class PlainChanges:
    """The same stream parsed in plain Python, which knows no other tag types and no other notifications."""

    def __init__(self, stack: ExitStack, programs: Path, cpus: set[int], at_once: int) -> None:
        self._server = serve(stack, programs, [Steps().send_on_order(plant.changes_chunk())], cpus)
        self._sock = connect_plain(stack, self._server)
        self._tally = Tally()
        self._at_once = at_once

    def _changes(self, size: int) -> Iterator[tuple[int, int, float]]:
        rest = b""
        while size > 0:
            data = self._sock.recv(self._at_once)
            require(data != b"", "the stream ends early")
            size -= len(data)
            rest += data
            whole = len(rest) // CHANGE.size * CHANGE.size
            yield from CHANGE.iter_unpack(rest[:whole])
            rest = rest[whole:]

    def run(self, count: int) -> float:
        changes = count * plant.CHANGES_A_CHUNK
        self._tally.begin(changes)
        notify, names, driver = self._tally.on_change, plant.NAMES, plant.DRIVER
        begin = perf_counter()
        self._server.order(str(count))
        for _, position, value in self._changes(changes * CHANGE.size):
            notify(driver, names[position], value)
        seconds = perf_counter() - begin
        self._tally.check(count)
        return seconds


class ReadyChanges:
    """No network at all: the interpreter calls the callback with changes that are ready. Nothing that calls a
    callback for each change can be faster."""

    def __init__(self) -> None:
        self._tally = Tally()
        numbers = range(plant.CHANGES_A_CHUNK)
        self._chunk = [
            (plant.DRIVER, plant.NAMES[number % plant.SUBSCRIBED], plant.change_value(number)) for number in numbers
        ]

    def run(self, count: int) -> float:
        self._tally.begin(count * plant.CHANGES_A_CHUNK)
        begin = perf_counter()
        for _ in range(count):
            collections.deque(itertools.starmap(self._tally.on_change, self._chunk), maxlen=0)
        seconds = perf_counter() - begin
        self._tally.check(count)
        return seconds
