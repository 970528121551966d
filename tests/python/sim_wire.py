"""A client of the simulator in raw sockets: every byte it sends and expects is written down here, in Python alone.

The simulator shares encoders with the client (scrambling, values, alarm records), so its tests must not: what both
take from one place could be wrong in both. Nothing here imports the client, and the layouts are spelled out again.
"""

from __future__ import annotations

import itertools
import os
import select
import socket
import struct
from collections.abc import Iterable, Sequence
from contextlib import ExitStack
from dataclasses import dataclass
from types import TracebackType

PATIENCE = 20.0  # seconds to wait for bytes that must come
QUIET = 0.3  # seconds to wait for bytes that must not come
FORMATS = {2: "<h", 3: "<i", 4: "<f", 5: "<d", 7: "<d", 11: "<B", 16: "<b", 17: "<B", 18: "<H", 19: "<I", 20: "<q"}
FORMATS |= {22: "<i", 23: "<I"}
STR = 8

Address = tuple[int, int]  # driver id, tag position


def scramble(plain: bytes) -> bytes:
    """Groups of three plain bytes behind one random byte each."""
    out = bytearray()
    for at in range(0, len(plain), 3):
        u, group = os.urandom(1)[0], plain[at : at + 3]
        coded = [(group[0] + u) % 256]
        if len(group) > 1:
            coded.append((group[1] - u) % 256)
        if len(group) > 2:
            coded.append(group[2] ^ u)
        out += bytes([u, *coded])
    return bytes(out)


def unscramble(coded: bytes) -> bytes:
    out = bytearray()
    for at in range(0, len(coded), 4):
        u, *group = coded[at : at + 4]
        assert group, "a group of its random byte alone"
        out += bytes([(group[0] - u) % 256, *((b + u) % 256 for b in group[1:2]), *(b ^ u for b in group[2:3])])
    return bytes(out)


_numbers = itertools.count(1)


def new_id() -> bytes:
    """An identifier that no other client has."""
    return struct.pack("<IIQ", os.getpid(), next(_numbers), int.from_bytes(os.urandom(8), "little"))


def open_request(ident: bytes, server: str | None = None) -> bytes:
    relay = b"" if server is None else bytes(6) + server.encode("gb2312") + b"\0"
    return b"7" + scramble(ident + relay)


def register_request(ident: bytes, host: bytes = b"tester") -> bytes:
    return b"8" + scramble(ident + host + b"\0" + b"\x01\x01")


def login_request(user: str, password: str) -> bytes:
    return b"9" + user.encode() + b"\0" + password.encode() + b"\0"


def lookup_request(*names: tuple[int, str]) -> bytes:
    return b"L" + b"".join(struct.pack("<H", driver) + name.encode("gb2312") + b"\0" for driver, name in names)


def read_request(tags: Sequence[Address]) -> bytes:
    return b"H" + struct.pack("<H", len(tags)) + b"".join(struct.pack("<HH", *tag) for tag in tags)


def advise_request(tags: Sequence[Address]) -> bytes:
    return b"b" + struct.pack("<H", len(tags)) + b"".join(struct.pack("<HHB", *tag, 0) for tag in tags)


def payload(kind: int, value: float | str | None) -> bytes:
    if kind == STR:
        assert isinstance(value, str)
        return value.encode() + b"\0"
    return struct.pack(FORMATS[kind], value) if kind in FORMATS else b""


def typed(kind: int, value: float | str | None = None) -> bytes:
    return struct.pack("<H", kind) + payload(kind, value)


def write_request(*values: tuple[Address, bytes]) -> bytes:
    return b"g" + struct.pack("<H", len(values)) + b"".join(struct.pack("<HH", *tag) + value for tag, value in values)


def download_request(name: str, *lines: str) -> bytes:
    return b"4" + "\r\n".join([name, *lines, "Hello:Yes", "", ""]).encode("gb2312")


def take_value(kind: int, data: bytes) -> tuple[float | str | None, int]:
    """The value of this type at the start of data, and its size."""
    if kind == STR:
        size = data.index(0)
        return data[:size].decode(), size + 1
    if kind not in FORMATS:
        return None, 0
    return struct.unpack_from(FORMATS[kind], data)[0], struct.calcsize(FORMATS[kind])


def take_values(data: bytes) -> list[tuple[int, float | str | None]]:
    """All values, with their type words."""
    values = []
    while data:
        kind = struct.unpack_from("<H", data)[0]
        value, size = take_value(kind, data[2:])
        values.append((kind, value))
        data = data[2 + size :]
    return values


@dataclass(frozen=True)
class Alarm:
    """An alarm record, its list indexes left as they are."""

    raised: int
    event: int
    tag: int
    kind: int
    group: int
    level: int
    status: int
    value: float
    limit: float

    @staticmethod
    def parse(record: bytes) -> Alarm:
        assert len(record) == 32
        return Alarm(*struct.unpack("<IIHHHBBdd", record))


class Line:
    """One TCP connection that reads exactly what it is asked to."""

    def __init__(self, address: tuple[str, int]) -> None:
        self._socket = socket.create_connection(address, timeout=PATIENCE)
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def send(self, data: bytes) -> None:
        self._socket.sendall(data)

    def send_slowly(self, data: bytes, size: int = 1) -> None:
        """In segments of `size` bytes, each on its way before the next one is made."""
        for at in range(0, len(data), size):
            self._socket.sendall(data[at : at + size])

    def send_some(self, data: bytes) -> int:
        """As much as fits without waiting."""
        self._socket.settimeout(0)
        try:
            return self._socket.send(data)
        except BlockingIOError:
            return 0
        finally:
            self._socket.settimeout(PATIENCE)

    def take(self, size: int) -> bytes:
        data = bytearray()
        while len(data) < size:
            piece = self._socket.recv(size - len(data))
            assert piece, f"closed behind {bytes(data)!r}, {size} bytes were expected"
            data += piece
        return bytes(data)

    def take_once(self, size: int = 65536) -> bytes:
        """Whatever one receive gives."""
        return self._socket.recv(size)

    def want(self, data: bytes) -> None:
        """Exactly these bytes must come."""
        got = self.take(len(data))
        assert got == data, f"want {data.hex(' ')}, got {got.hex(' ')}"

    @staticmethod
    def first_heard(lines: Sequence[Line]) -> Line:
        """One on which something has come."""
        ready, _, _ = select.select([line._socket for line in lines], [], [], PATIENCE)
        return next(line for line in lines if line._socket in ready)

    def is_quiet(self, seconds: float = QUIET) -> bool:
        """Nothing comes, and the connection stays."""
        self._socket.settimeout(seconds)
        try:
            self._socket.recv(1, socket.MSG_PEEK)
        except TimeoutError:
            return True
        except ConnectionError:
            pass
        finally:
            self._socket.settimeout(PATIENCE)
        return False

    def is_ended(self) -> bool:
        """Nothing more comes, and the connection is gone."""
        try:
            return self._socket.recv(1) == b""
        except ConnectionError:
            return True

    def fileno(self) -> int:
        return self._socket.fileno()

    def close(self) -> None:
        self._socket.close()

    def __enter__(self) -> Line:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()


@dataclass(frozen=True)
class Registered:
    """What the register reply said."""

    record: bytes
    project: str
    title: str

    @property
    def directory_time(self) -> int:
        return int.from_bytes(self.record[50:54], "big")

    @property
    def directory_size(self) -> int:
        return int.from_bytes(self.record[54:58], "big")


def parse_registered(coded: bytes) -> Registered:
    plain = unscramble(coded)
    assert plain[:1] == b"8", plain
    project, title, rest = plain[59:].split(b"\0")
    assert rest == b""
    return Registered(plain[1:59], project.decode("gb2312"), title.decode("gb2312"))


def take_registered(line: Line) -> Registered:
    """Takes the register reply, which ends with its second text, and nothing that is pushed behind it."""
    coded = line.take(2)
    while unscramble(coded)[59:].count(0) < 2:
        coded += line.take(2 if len(coded) % 4 == 0 else 1)
    return parse_registered(coded)


class RawClient:
    """Both connections of one client, opened, registered and logged in."""

    def __init__(
        self,
        address: tuple[str, int],
        user: str = "operator",
        password: str = "demo",
        ident: bytes | None = None,
        server: str | None = None,
    ) -> None:
        self.ident = ident or new_id()
        with ExitStack() as lines:
            self.ask = lines.enter_context(Line(address))
            self.ask.send(open_request(self.ident, server))
            self.ask.want(b"7")
            self.hear = lines.enter_context(Line(address))
            self.hear.send(register_request(self.ident))
            self.registered = take_registered(self.hear)
            self.ask.send(login_request(user, password))
            reply = self.ask.take_once(256)
            assert reply[:1] == b"9", reply
            self.rights = struct.unpack_from("<I", reply, 5)[0]
            self._lines = lines.pop_all()

    def find(self, *names: tuple[int, str]) -> list[int]:
        self.ask.send(lookup_request(*names))
        reply = self.ask.take(1 + 4 * len(names))
        assert reply[:1] == b"L"
        return [position for position, _ in struct.iter_unpack("<HH", reply[1:])]

    def tag(self, driver: int, name: str) -> Address:
        return driver, self.find((driver, name))[0]

    def read_blocks(self, tags: Sequence[Address]) -> list[bytes]:
        """The payloads of the reply's blocks."""
        self.ask.send(read_request(tags))
        blocks = []
        more = 1
        while more:
            head = self.ask.take(4)
            command, more, size = struct.unpack("<cBH", head)
            assert command == b"H"
            assert more in (0, 1)
            blocks.append(self.ask.take(size))
        return blocks

    def read(self, tags: Sequence[Address]) -> list[tuple[int, float | str | None]]:
        return take_values(b"".join(self.read_blocks(tags)))

    def advise(self, tags: Sequence[Address]) -> list[tuple[int, float | str | None]]:
        self.ask.send(advise_request(tags))
        values: list[tuple[int, float | str | None]] = []
        while len(values) < len(tags):
            command, size = struct.unpack("<cH", self.ask.take(3))
            assert command == b"b"
            values += take_values(self.ask.take(size))
        assert len(values) == len(tags)
        return values

    def write(self, *values: tuple[Address, bytes]) -> None:
        self.ask.send(write_request(*values))

    def alarms(self) -> list[Alarm]:
        self.ask.send(b"n")
        command, count = struct.unpack("<cH", self.ask.take(3))
        assert command == b"n"
        return [Alarm.parse(self.ask.take(32)) for _ in range(count)]

    def pushed(self, size: int) -> bytes:
        return self.hear.take(size)

    def change(self, kinds: dict[Address, int]) -> tuple[Address, float | str | None]:
        """The next change; its type is that of the tag's value."""
        driver, position = struct.unpack("<HH", self.hear.take(4))
        kind = kinds[driver, position]
        if kind == STR:
            text = bytearray()
            while (byte := self.hear.take(1)) != b"\0":
                text += byte
            return (driver, position), text.decode()
        size = struct.calcsize(FORMATS[kind])
        return (driver, position), take_value(kind, self.hear.take(size))[0]

    def header(self, name: str, *lines: str) -> tuple[dict[str, str], int]:
        """Asks for a file; its header, and the header's length."""
        self.ask.send(download_request(name, *lines))
        text = bytearray()
        while not text.endswith(b"\r\n\r\n"):
            text += self.ask.take(1)
        rows = bytes(text).decode("gb2312").split("\r\n")[:-2]
        return dict(row.split(":", 1) for row in rows), len(text)

    def download(self, name: str, *lines: str) -> tuple[dict[str, str], bytes]:
        """A whole file without windows."""
        header, _ = self.header(name, *lines)
        assert "Hello" not in header
        return header, self.ask.take(int(header.get("Size", "0"), 16))

    def close(self) -> None:
        self._lines.close()

    def __enter__(self) -> RawClient:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()


def in_pieces(data: bytes, sizes: Iterable[int]) -> list[bytes]:
    """The data cut into pieces of these sizes, over and over."""
    pieces: list[bytes] = []
    for size in itertools.cycle(sizes):
        if not data:
            return pieces
        pieces.append(data[:size])
        data = data[size:]
    return pieces
