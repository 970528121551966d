"""A server that answers at random: mostly right, often nearly right, sometimes rubbish, and then hangs up.

It knows the protocol well enough that a client gets far, and then mutates what it says. After a reply that is not
whole it resets the connection, so that no client has to wait for its time-out. The same seed gives the same choices
for the same requests.
"""

from __future__ import annotations

import random
import select
import socket
import struct
import time
from collections.abc import Callable

import wire
from wire import RegisterReply

HANG_UP_AFTER = 0.03  # seconds a client gets for its next request after a reply that was not right


def names_in(lookup: bytes) -> int:
    """How many names a lookup request asks for, each behind a driver id."""
    count, at = 0, 1
    while (end := lookup.find(b"\0", at + 2)) >= 0:
        count, at = count + 1, end + 1
    return count


class HostileServer:
    """Serves clients one after another until something arrives on the stop descriptor."""

    def __init__(self, listener: socket.socket, seed: int, project: bytes) -> None:
        self._listener = listener
        self._random = random.Random(seed)
        self._project = project
        self._body = wire.directory([("Boiler", 0, 2000), ("x" * 50, 1, 3)])
        self._hang_up_at: dict[socket.socket, float] = {}

    def run(self, stop: int) -> None:
        while True:
            now = time.monotonic()
            for connection in [one for one, at in self._hang_up_at.items() if at <= now]:
                self._reset(connection)
            watched: list[socket.socket | int] = [self._listener, stop, *self._hang_up_at]
            ready, _, _ = select.select(watched, [], [], 0.01)
            if stop in ready:
                break
            for one in ready:
                if one is self._listener:
                    connection, _ = self._listener.accept()
                    connection.settimeout(1)
                    self._hang_up_at[connection] = now + 3600
                elif isinstance(one, socket.socket) and one in self._hang_up_at:
                    self._serve(one)
        for connection in list(self._hang_up_at):
            self._reset(connection)

    def _serve(self, connection: socket.socket) -> None:
        try:
            request = connection.recv(65536)
            if not request:
                self._drop(connection)
                return
            self._answer(connection, request)
            for other in list(self._hang_up_at):
                if self._random.random() < 0.3:
                    other.sendall(self._push())
        except OSError:
            self._drop(connection)

    def _answer(self, connection: socket.socket, request: bytes) -> None:
        right = self._right_reply(request)
        if self._random.random() < 0.8:
            self._send(connection, right)
            return
        self._send(connection, self._mutated(right))
        self._hang_up_at[connection] = time.monotonic() + HANG_UP_AFTER
        if self._random.random() < 0.2:
            self._reset(connection)

    def _send(self, connection: socket.socket, data: bytes) -> None:
        if len(data) > 1 and self._random.random() < 0.2:
            cut = self._random.randrange(1, len(data))
            connection.sendall(data[:cut])
            time.sleep(0.003)
            data = data[cut:]
            self._hang_up_at[connection] = time.monotonic() + 3 * HANG_UP_AFTER  # a client may take half for the whole
        connection.sendall(data)

    def _right_reply(self, request: bytes) -> bytes:
        answers: dict[bytes, Callable[[], bytes]] = {
            wire.OPEN: lambda: wire.OPEN,
            wire.REGISTER: self._register_reply,
            wire.LOGIN: lambda: wire.login_reply(self._random.getrandbits(32)),
            wire.DOWNLOAD: self._file,
            wire.LOOKUP: lambda: self._positions(names_in(request)),
            wire.READ: lambda: self._values(struct.unpack_from("<H", request.ljust(3, b"\0"), 1)[0]),
        }
        return answers.get(request[:1], lambda: wire.REFUSED)()

    def _register_reply(self) -> bytes:
        size = self._random.choice([0, len(self._body), 0xFFFFFFFF])
        return RegisterReply(self._project, b"title", self._random.getrandbits(32), size).scrambled()

    def _file(self) -> bytes:
        names = [name for name in ("Append", "GZ", "Hello") if self._random.random() < 0.2]
        fields = {name: self._random.choice(["Yes", "No"]) for name in names}
        return wire.download_reply(self._body, self._random.getrandbits(32), **fields)

    def _positions(self, count: int) -> bytes:
        return wire.lookup_reply(self._random.choice([0, 1, 5, 1999, 2000, 0xFFFF]) for _ in range(count))

    def _values(self, count: int) -> bytes:
        blocks = b""
        while count > 0:
            here = self._random.randint(1, count)
            count -= here
            blocks += wire.read_block((self._value() for _ in range(here)), more=count > 0)
        return blocks

    def _value(self) -> bytes:
        kind = self._random.choice([*range(24), wire.VT_ARRAY, 8204, 0xFFFF])
        if kind == wire.VT_STR:
            return wire.typed(kind, bytes(self._random.randrange(1, 256) for _ in range(self._random.randrange(20))))
        return struct.pack("<H", kind) + self._random.randbytes(len(wire.typed(kind, 0)) - 2)

    def _mutated(self, reply: bytes) -> bytes:
        chance = self._random
        data = bytearray(reply)
        how = chance.randrange(6)
        if how == 0:
            return bytes(data[: chance.randrange(len(data) + 1)])
        if how == 1:
            return bytes(data) + chance.randbytes(chance.randrange(1, 6000))
        if how == 2:
            return chance.randbytes(chance.randrange(1, 3000))
        if how == 3:
            start = chance.randrange(len(data))
            del data[start : start + chance.randrange(1, 8)]
        elif how == 4:
            start = chance.randrange(len(data))
            data[start:start] = chance.randbytes(chance.randrange(1, 8))
        for _ in range(chance.randrange(4) if data else 0):
            data[chance.randrange(len(data))] = chance.choice([0, 1, 0x30, 0x7F, 0x80, 0xFF, chance.randrange(256)])
        return bytes(data)

    def _push(self) -> bytes:
        notes = [
            *wire.every_system_notification(self._random.randrange(3), self._random.choice([0, 1999, 2000])),
            wire.driver_notification(self._random.randrange(4), self._random.choice([0, 1, 5, 2000]), self._value()),
            self._random.randbytes(self._random.randrange(1, 50)),
        ]
        return b"".join(self._random.choices(notes, k=self._random.randrange(1, 6)))

    def _reset(self, connection: socket.socket) -> None:
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._drop(connection)

    def _drop(self, connection: socket.socket) -> None:
        self._hang_up_at.pop(connection, None)
        connection.close()
