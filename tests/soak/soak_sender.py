"""The fast server of a soak: a scripted peer for one client that pours out changes and breaks in every way it can.

    python soak_sender.py SEED WORKER LIFE

LIFE: seconds that a conversation lasts at most by its plan. It says where it listens, serves one client after the
other until its standard input ends, and reports each attempt (soak_faults.py).
"""

from __future__ import annotations

import contextlib
import os
import select
import socket
import struct
import sys
import threading
import time
from collections.abc import Callable

import dialogue as d
import live_wire as w
import wire
from soak_faults import (
    DISORDER,
    LATE,
    LOST,
    PATIENCE,
    SLACK,
    WRONG,
    ServerReport,
    T,
    dice,
    pieces,
    set_reset,
    short_pause,
    tell,
    violation,
)
from soak_stream import ACTIVE, KINDS, NAMES, Unit

FIRST_READ, READ_TAGS = 100, 600  # positions of the tags that are only read
WRITTEN, COUNTER, LAST_WRITTEN, SENT = 900, 901, 902, 903
POSITIONS = {name: position for position, name in enumerate(NAMES)}
POSITIONS |= {f"Q{number}": FIRST_READ + number for number in range(READ_TAGS)}
POSITIONS |= {"Written": WRITTEN, "Counter": COUNTER, "LastWritten": LAST_WRITTEN, "Sent": SENT}
PADDING = 1400  # longest padding of a written text


def padding(serial: int) -> str:
    """What makes a written text longer; follows from its number, so that a torn text is seen."""
    return "x" * (serial * 37 % PADDING)


class Gone(Exception):
    """The client, or the plan, has ended the conversation."""


STREAM_ENDS = ("stall", "fin hear", "cut hear", "reset hear", "fin ask", "reset ask", "fin both", "reset both")
REPLY_ENDS = ("stall reply", "cut reply", "reset reply", "drip reply")
START_ENDS = ("stall start", "cut start")


class Plan:
    """What is going to happen to one attempt."""

    def __init__(self, seed: str, worker: int, attempt: int, life: float) -> None:
        rng = dice(seed, worker, attempt, "plan")
        self.life = rng.uniform(0.05, 1) ** 2 * life
        kind = rng.random()
        self.end = "client"  # the client ends it by itself
        if kind < 0.12:
            self.end = rng.choice(START_ENDS)
        elif kind < 0.3:
            self.end = rng.choice(REPLY_ENDS)
        elif kind < 0.9:
            self.end = rng.choice(STREAM_ENDS)
        self.start_reply = rng.randint(0, 2)  # which of the handshake's replies
        self.reply_after = self.life * rng.random()


class Conversation:
    """Both connections of one attempt."""

    def __init__(self, unit: Unit, seed: str, worker: int, attempt: int, life: float) -> None:
        self.unit = unit
        self.plan = Plan(seed, worker, attempt, life)
        self.report = ServerReport(worker, attempt, self.plan.end, started_at=time.monotonic())
        self.over = threading.Event()
        self.seen = 0  # how many notifications the client says it was told
        self._rng = dice(seed, worker, attempt, "ask")
        self._stream_rng = dice(seed, worker, attempt, "hear")
        self._started = time.monotonic()
        self._sockets: dict[str, socket.socket] = {}
        self._open: set[str] = set()  # which the client has not closed yet
        self._subscribed = threading.Event()
        self._streaming = False
        self._buffer = b""
        self._threads: list[threading.Thread] = []
        self._replies = self._reads = self._sent_bytes = self._serial = 0
        self._last_written = ""

    # Connections.

    def adopt(self, name: str, connection: socket.socket) -> None:
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._sockets[name] = connection
        self._open.add(name)
        body = self._answer if name == "ask" else self._push
        thread = threading.Thread(target=self._run, args=(name, body), daemon=True)
        self._threads.append(thread)
        thread.start()

    def _run(self, name: str, body: Callable[[], None]) -> None:
        with contextlib.suppress(Gone, OSError):
            body()
        self._await_client(name)
        self._open.discard(name)
        if self._open:
            self.report.gave_up_at = time.monotonic()
        else:
            self.over.set()

    def _await_client(self, name: str) -> None:
        """Leaves a socket open until the client has closed it, or for as long as it may take it to notice."""
        connection = self._sockets[name]
        with contextlib.suppress(OSError):
            connection.settimeout(0.5)
            while not self._is_over():
                with contextlib.suppress(TimeoutError):
                    if not connection.recv(65536):
                        return

    def _is_over(self) -> bool:
        """Whether the client has ended both connections, or has had more than the time for it."""
        since = self.report.since()
        if since is not None and time.monotonic() > since + PATIENCE:
            self.over.set()
        return self.over.is_set()

    def close(self) -> None:
        self.over.set()
        for connection in self._sockets.values():
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)
        for thread in self._threads:
            thread.join(20)
        for connection in self._sockets.values():
            connection.close()
        self.report.sent = self.unit.count_at(self._sent_bytes)
        self.report.tell()

    def _sleep(self, seconds: float) -> None:
        started = time.monotonic()
        if seconds > 0.1:
            self.report.note(f"pause of {seconds:.2f} s")
        self.report.pause(seconds)  # the client may end the connection in the middle of it
        if self.over.wait(seconds):
            raise Gone
        self.report.pause(time.monotonic() - started)  # it may have been longer

    def _send(self, name: str, data: bytes) -> None:
        connection = self._sockets[name]
        connection.settimeout(0.5)
        view = memoryview(data)
        while view:
            if self._is_over():
                raise Gone
            with contextlib.suppress(TimeoutError):
                sent = connection.send(view)
                view = view[sent:]
                if name == "hear" and self._streaming:
                    self._sent_bytes += sent

    def _fault(self) -> None:
        """The fault that ends the connection begins now."""
        self.report.fault_at = time.monotonic()

    def _must_end(self) -> None:
        self.report.must_end_at = time.monotonic()

    def _end(self, name: str, hard: bool) -> None:
        """The server ends one of the two: its stream, or the connection in both directions at once."""
        connection = self._sockets.get(name)
        if connection is None:
            return
        if hard:
            set_reset(connection)
            # The number stays taken, by a socket without a peer: the other thread may be about to use it.
            with socket.socket() as idle:
                os.dup2(idle.fileno(), connection.fileno(), inheritable=False)
        else:
            connection.shutdown(socket.SHUT_WR)

    # Requests.

    def _fill(self) -> None:
        self._sockets["ask"].settimeout(0.5)
        while not self._is_over():
            with contextlib.suppress(TimeoutError):
                got = self._sockets["ask"].recv(65536)
                if not got:
                    raise Gone
                self._buffer += got
                return
        raise Gone

    def _take(self, size: int) -> bytes:
        while len(self._buffer) < size:
            self._fill()
        data, self._buffer = self._buffer[:size], self._buffer[size:]
        return data

    def _take_until(self, mark: bytes) -> bytes:
        while mark not in self._buffer:
            self._fill()
        return self._take(self._buffer.index(mark) + len(mark))

    def _reply(self, data: bytes, starts: bool = False) -> None:
        """A reply in a manner that the dice choose."""
        rng, number, started = self._rng, self._replies, time.monotonic()
        self._replies += 1
        at = rng.randrange(len(data))
        if starts and self.plan.end in START_ENDS and number == self.plan.start_reply:
            self._last_reply(data, at)
        if not starts and self.plan.end in REPLY_ENDS and time.monotonic() - self._started > self.plan.reply_after:
            self._last_reply(data, at)
        manner = rng.random()
        self.report.note(f"reply of {len(data)} bytes{' in pieces' if manner >= 0.75 else ''}, {data[:1]!r}")
        if manner < 0.75:
            self._send("ask", data)
        elif manner < (0.95 if starts else 0.985):
            for piece in pieces(data, rng, rng.choice((1, 9, 300)) if len(data) < 500 else 300):
                self._send("ask", piece)
                self._sleep(rng.uniform(0, 0.002))
        else:
            self._send("ask", data[:at])
            self._sleep(short_pause(rng))
            self._send("ask", data[at:])
        self.report.pause(time.monotonic() - started)  # the whole of a reply is bounded too

    def _last_reply(self, data: bytes, at: int) -> None:
        """A reply that ends the connection; what of it comes too late still comes."""
        kind = self.plan.end.split()[0]
        self._send("ask", data[:at])
        self._fault()
        self._must_end()
        if kind in ("cut", "reset"):
            self._end("ask", hard=kind == "reset")
            raise Gone
        if kind == "stall":
            self._wait_over(self._rng.uniform(T + SLACK, T + 2 * SLACK))
            self._send("ask", data[at:])
        else:  # a byte now and then, each in time; the last one never comes, or more would belong to the next reply
            for byte in data[at:-1][: int(LATE / 2)]:
                self._send("ask", bytes([byte]))
                self._wait_over(2.0)
        raise Gone

    def _wait_over(self, seconds: float) -> None:
        if self.over.wait(seconds):
            raise Gone

    def _answer(self) -> None:
        self._take(wire.scrambled_size(wire.IDENTIFIER_SIZE))  # the open request, scrambled: who the client is
        self._reply(b"7", starts=True)
        while True:
            command = self._take(1)
            handle = {b"9": self._login, b"4": self._file, b"L": self._look_up, b"b": self._subscribe}
            handle |= {b"H": self._read, b"g": self._write, b"n": self._alarms}
            if command not in handle:
                violation(WRONG, f"the server was sent a request that begins with {command!r}")
                raise Gone
            handle[command]()

    def _login(self) -> None:
        said = self._take_until(b"\0") + self._take_until(b"\0")
        if said != d.USER.encode() + b"\0" + d.PASSWORD.encode() + b"\0":
            violation(WRONG, f"the server was sent the login {said!r}")
        self._reply(wire.login_reply(w.MAY_WRITE), starts=True)

    def _file(self) -> None:
        name = self._take_until(b"\r\n\r\n").split(b"\r\n")[0].decode()
        body = {
            wire.DIRECTORY: wire.directory(d.DRIVERS),
            w.TEXT_LIST: w.list_file(w.TEXTS),
            w.TAG_LIST: w.list_file(w.TAGS),
        }[name]
        self._reply(wire.download_reply(body, d.FILE_TIME), starts=name == wire.DIRECTORY)

    def _look_up(self) -> None:
        # This request has no end of its own; the client sends it in one piece, and loopback keeps it whole.
        while not self._buffer.endswith(b"\0"):
            self._fill()
        positions = []
        while self._buffer:
            self._take(2)  # the driver
            positions.append(POSITIONS.get(self._take_until(b"\0")[:-1].decode(), wire.UNKNOWN))
        self._reply(wire.lookup_reply(positions))

    def _subscribe(self) -> None:
        count = struct.unpack("<H", self._take(2))[0]
        positions = [struct.unpack("<HHB", self._take(5))[1] for _ in range(count)]
        values = [wire.typed(KINDS[p], b"" if KINDS[p] == wire.VT_STR else 0) for p in positions]
        self._started = time.monotonic()
        self._subscribed.set()  # the changes do not wait for the reply
        if self._rng.random() < 0.5:
            self._sleep(self._rng.choice((0.3, 1.5, T - SLACK - 1)) * self._rng.random())
        self._reply(w.advise_block(values))

    def _read(self) -> None:
        count = struct.unpack("<H", self._take(2))[0]
        positions = [struct.unpack("<HH", self._take(4))[1] for _ in range(count)]
        self._reads += 1
        values = [self._value(position) for position in positions]
        blocks, block = [], b""
        for value in values:
            if len(block) + len(value) > wire.BLOCK_LIMIT:
                blocks.append(block)
                block = b""
            block += value
        blocks.append(block)
        self._reply(b"".join(wire.read_block(one, more=one is not blocks[-1]) for one in blocks))

    def _value(self, position: int) -> bytes:
        if position == SENT:
            return wire.typed(wire.VT_UI4, self.unit.count_at(self._sent_bytes))
        if position == COUNTER:
            return wire.typed(wire.VT_UI4, self._serial)
        if position == LAST_WRITTEN:
            return wire.typed(wire.VT_STR, self._last_written.encode())
        return wire.typed(wire.VT_R8, self._reads * 1000.0 + position - FIRST_READ)

    def _write(self) -> None:
        """Two values: a text that says its number and how much the client was told, and the number."""
        if self._take(2) != b"\2\0" or self._take(6) != struct.pack("<HHH", 0, WRITTEN, wire.VT_STR):
            violation(WRONG, "the server was sent a write with a wrong head")
            raise Gone
        text = self._take_until(b"\0")[:-1].decode()
        rest = self._take(10)
        serial, seen, padded = text.split(":")
        whole = padded == padding(int(serial)) and rest == struct.pack("<HHHi", 0, COUNTER, wire.VT_I4, int(serial))
        if not whole:
            violation(WRONG, f"the server was sent the write {text!r} {rest!r}")
        if int(serial) != self._serial + 1:
            violation(DISORDER, f"the server was sent write {serial} behind {self._serial}")
        self._serial, self.seen, self._last_written = int(serial), int(seen), text

    def _alarms(self) -> None:
        self._reply(w.alarm_reply(ACTIVE))

    # The stream.

    def _push(self) -> None:
        size = wire.scrambled_size(wire.IDENTIFIER_SIZE + len(wire.register_part(d.host_name())))
        self._sockets["hear"].settimeout(PATIENCE)
        while size > 0:
            size -= len(self._sockets["hear"].recv(size) or self._gone())
        directory_size = len(wire.directory(d.DRIVERS))
        reply = wire.RegisterReply(f"soak{self.report.worker}".encode(), b"title", d.FILE_TIME, directory_size)
        self._register(reply.scrambled())
        while not self._subscribed.wait(0.2):
            if self._is_over():
                raise Gone
        self._streaming = True
        rng, end = self._stream_rng, self._started + self.plan.life
        while time.monotonic() < end or self.plan.end not in STREAM_ENDS:
            self._pour(int(rng.expovariate(1 / 1.5e6)))
            self._trouble()
        self._end_stream()

    @staticmethod
    def _gone() -> bytes:
        raise Gone

    def _register(self, data: bytes) -> None:
        rng = self._stream_rng
        if rng.random() < 0.7:
            self._send("hear", data)
            return
        at = rng.randrange(1, len(data))
        self._send("hear", data[:at])
        self._sleep(rng.choice((0.003, 0.3)))
        self._send("hear", data[at:])

    def _pour(self, size: int) -> None:
        """Full speed."""
        while size > 0:
            piece = min(size, 1 << 17)
            self._send("hear", self.unit.bytes_at(self._sent_bytes, self._sent_bytes + piece))
            size -= piece

    def _pour_to(self, place: int) -> None:
        self._pour(place - self._sent_bytes)

    def _trouble(self) -> None:
        """Something that the client must live through."""
        rng, kind = self._stream_rng, self._stream_rng.random()
        self.report.note(f"trouble {kind:.3f}")
        if kind < 0.4:
            self._pour_to(self.unit.inside(self._sent_bytes, rng))
            self._sleep(short_pause(rng))
        elif kind < 0.7:
            longest = rng.choice((1, 7, 50, 3000))
            data = self.unit.bytes_at(self._sent_bytes, self._sent_bytes + 40 * longest)
            for piece in pieces(data, rng, longest):
                self._send("hear", piece)
                self._sleep(rng.uniform(0, 0.001))
        elif kind < 0.73:  # one notification that takes longer than T, its bytes never apart for so long
            self._pour_to(self.unit.inside(self._sent_bytes, rng))
            for _ in range(rng.randint(3, 25)):
                self._pour(rng.choice((1, 1, 2000)))
                self._sleep(rng.uniform(0.05, 0.8))
        elif kind < 0.735:  # about as long as the client waits: either outcome is right
            self._pour_to(self.unit.inside(self._sent_bytes, rng))
            self._sleep(rng.uniform(T - SLACK, T + SLACK))

    def _end_stream(self) -> None:
        kind, _, which = self.plan.end.partition(" ")
        if kind in ("stall", "cut"):
            self._pour_to(self.unit.inside(self._sent_bytes, self._stream_rng))
        else:
            self._pour_to(self.unit.next_boundary(self._sent_bytes))
        self._fault()
        if kind == "stall":
            self._await_seen()
            self._must_end()
            self.report.last = self.unit.count_at(self._sent_bytes)
            self._wait_over(self._stream_rng.uniform(T + SLACK, T + 3 * SLACK))
            end = time.monotonic() + LATE
            while time.monotonic() < end:
                self._pour(100_000)
                self._wait_over(0.01)
            raise Gone
        if which == "hear" and kind != "reset":
            self._end("hear", hard=False)
            self._await_seen()  # the end stands behind what the client has not read yet
            self._must_end()
            raise Gone
        self._must_end()
        for name in ("ask", "hear") if which == "both" else (which,):
            self._end(name, hard=kind == "reset")
        # A client that is told by one connection has to give up the other, whatever comes on it.
        end = time.monotonic() + LATE
        while which == "ask" and time.monotonic() < end:
            self._pour(self._stream_rng.choice((1, 100_000)))
            self._wait_over(0.01)
        raise Gone

    def _await_seen(self) -> None:
        whole, deadline = self.unit.count_at(self._sent_bytes), time.monotonic() + PATIENCE
        while self.seen < whole:
            self._wait_over(0.02)
            if select.select([self._sockets["hear"]], [], [], 0)[0]:
                raise Gone  # a client says nothing there: it has ended the connection
            if time.monotonic() > deadline:
                text = f"the client was told {self.seen} of {whole} and stands still"
                violation(LOST, f"worker {self.report.worker}, attempt {self.report.attempt}: {text}")
                raise Gone


def stop_at_end_of_input(stop: threading.Event) -> None:
    sys.stdin.read()
    stop.set()


def serve(seed: str, worker: int, life: float) -> None:
    unit = Unit()
    server = socket.create_server(("127.0.0.1", 0), backlog=64)
    server.settimeout(0.5)
    tell("listening", worker=worker, port=server.getsockname()[1])
    attempts: list[Conversation] = []
    stop = threading.Event()
    threading.Thread(target=stop_at_end_of_input, args=(stop,), daemon=True).start()
    number = 0
    while True:
        for one in [one for one in attempts if one.over.is_set()]:
            one.close()
            attempts.remove(one)
        try:
            connection, _ = server.accept()
        except TimeoutError:
            if stop.is_set():  # and whoever has connected is known
                break
            continue
        connection.settimeout(10)
        with contextlib.suppress(OSError):
            first = connection.recv(1)
            if first == b"7":
                attempts.append(Conversation(unit, seed, worker, number := number + 1, life))
                attempts[-1].adopt("ask", connection)
                connection = socket.socket()
            elif first == b"8" and attempts and attempts[-1].report.attempt == number:  # not one of before
                attempts[-1].adopt("hear", connection)
                connection = socket.socket()
        connection.close()
    for one in attempts:
        one.close()


if __name__ == "__main__":
    serve(sys.argv[1], int(sys.argv[2]), float(sys.argv[3]))
