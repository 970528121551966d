"""The wire as these tests understand it: encoders and decoders of every record that client and server exchange.

Written on its own, beside the client and the simulator and without looking at either, so that a mistake in one
of them cannot hide behind the same mistake here. Plain functions from values to bytes and back; no sockets.
"""

from __future__ import annotations

import ctypes
import os
import struct
from collections.abc import Iterable, Sequence
from dataclasses import dataclass

OPEN, REGISTER, LOGIN, DOWNLOAD, REFUSED = b"7", b"8", b"9", b"4", b"0"
LOOKUP, READ = b"L", b"H"

IDENTIFIER_SIZE = 16
RELAY_PORT = 3968
LOOKUP_LIMIT = 768  # bytes of one lookup request
READ_LIMIT = 1023  # addresses of one read request
BLOCK_LIMIT = 4096  # payload bytes of one block of values
UNKNOWN = 0xFFFF  # a position that no tag has
DIRECTORY = "RecData/drvinfo.dat"


# Scrambling: three plain bytes become four, the first of them random.


def scramble(plain: bytes, noise: bytes | None = None) -> bytes:
    """Scrambles; noise gives the random byte of each group where a test wants the same bytes every time."""
    groups = (len(plain) + 2) // 3
    noise = os.urandom(groups) if noise is None else noise
    out = bytearray()
    for number in range(groups):
        group, u = plain[3 * number : 3 * number + 3], noise[number]
        out.append(u)
        out.append((group[0] + u) & 0xFF)
        if len(group) > 1:
            out.append((group[1] - u) & 0xFF)
        if len(group) > 2:
            out.append(group[2] ^ u)
    return bytes(out)


def unscramble(scrambled: bytes) -> bytes:
    out = bytearray()
    for start in range(0, len(scrambled), 4):
        group = scrambled[start : start + 4]
        if len(group) == 1:
            raise ValueError(f"{len(scrambled)} bytes are no scrambled message")
        u = group[0]
        out.append((group[1] - u) & 0xFF)
        if len(group) > 2:
            out.append((group[2] + u) & 0xFF)
        if len(group) > 3:
            out.append(group[3] ^ u)
    return bytes(out)


def scrambled_size(plain_size: int) -> int:
    return plain_size // 3 * 4 + (0, 2, 3)[plain_size % 3]


# The identifier: made of the second it was made in and of the standard generator seeded with that second.


def expected_identifier(second: int, filled_in: int) -> bytes:
    """The identifier of a client whose clock said `second` at first and `filled_in` when the last field was written."""
    libc = ctypes.CDLL(None)
    libc.srand(ctypes.c_uint(second & 0xFFFFFFFF))
    first, second_word = libc.rand() & 0xFFFF, libc.rand() & 0xFFFF
    return struct.pack("<IHHQ", second & 0xFFFFFFFF, first, second_word, filled_in)


def check_identifier(identifier: bytes, now: float) -> None:
    """Raises ValueError for an identifier that no client made in the last few seconds."""
    second = struct.unpack_from("<I", identifier)[0]
    if not -2 <= int(now) - second <= 30:
        raise ValueError(f"identifier {identifier.hex(' ')} was not made just now ({int(now)})")
    if identifier not in (expected_identifier(second, second), expected_identifier(second, second + 1)):
        raise ValueError(f"identifier {identifier.hex(' ')} does not follow from its second {second}")


# The handshake.


def relay_part(server_name: bytes) -> bytes:
    """What an open request through a relay centre carries behind the identifier: a hardware address and the name."""
    return bytes(6) + server_name + b"\0"


def register_part(host_name: bytes, login_flag: int = 1) -> bytes:
    """What a register request carries behind the identifier."""
    return host_name[:236] + b"\0" + bytes([login_flag, 1])


@dataclass(frozen=True)
class RegisterReply:
    """The server's answer to the register request; the fields without meaning hold bytes that would be noticed."""

    project: bytes
    title: bytes = b"title"
    directory_time: int = 0
    directory_size: int = 0
    flag: int = 0x5A
    command: bytes = REGISTER

    def plain(self) -> bytes:
        record = bytearray(range(0xA0, 0xA0 + 58))
        record[21] = self.flag
        struct.pack_into("<II", record, 42, 0x11223344, 0x55667788)
        struct.pack_into(">II", record, 50, self.directory_time & 0xFFFFFFFF, self.directory_size & 0xFFFFFFFF)
        return self.command + bytes(record) + self.project + b"\0" + self.title + b"\0"

    def scrambled(self) -> bytes:
        return scramble(self.plain())


def relay_redirect(address: str, port: int, word: bytes = b"lan") -> bytes:
    """A relay centre's answer to the open request: go to this server on the local network."""
    return OPEN + word + bytes(int(part) for part in address.split(".")) + struct.pack(">H", port)


# Login.


def login_request(user: bytes, password: bytes) -> bytes:
    return LOGIN + user + b"\0" + password + b"\0"


def login_reply(rights: int = 0, status: bytes = LOGIN) -> bytes:
    return status + b"\xc1\xc2\xc3\xc4" + struct.pack("<I", rights)


# Download: lines of text, then bytes.


def download_request(
    name: str = DIRECTORY, last: tuple[int, int] | None = None, compressed: tuple[int, int] | None = None
) -> bytes:
    """A request; `last` and `compressed` are time and size of the copies that the client already has."""
    lines = [f"4{name}\r\n"]
    if last:
        lines.append(f"LastTime:{last[0] & 0xFFFFFFFF:X}\r\nSize:{last[1] & 0xFFFFFFFF:X}\r\n")
    if compressed:
        lines.append(f"gzTime:{compressed[0] & 0xFFFFFFFF:X}\r\ngzSize:{compressed[1] & 0xFFFFFFFF:X}\r\n")
    return "".join([*lines, "Hello:Yes\r\n\r\n"]).encode("ascii")


def download_header(**fields: int | str) -> bytes:
    """Header lines in the order given; numbers are written in hexadecimal."""
    lines = [f"{name}:{value:X}" if isinstance(value, int) else f"{name}:{value}" for name, value in fields.items()]
    return "".join(f"{line}\r\n" for line in [*lines, ""]).encode("ascii")


def download_reply(body: bytes, file_time: int = 1_700_000_000, **fields: int | str) -> bytes:
    return download_header(Size=len(body), FileTime=file_time, **fields) + body


def acknowledgement(count: int) -> bytes:
    return b"4Hello%X\0" % count


def windows() -> Iterable[int]:
    """Bytes per acknowledgement: the window shrinks with each one and then stays."""
    window = 131072
    while True:
        yield window
        window = max(window - 10240 if window > 10240 else window, 8192)


def directory(drivers: Iterable[tuple[str | bytes, int, int]]) -> bytes:
    """The driver directory file: (name, id, number of tags) of each driver."""
    records = []
    for name, ident, tags in drivers:
        text = name if isinstance(name, bytes) else name.encode("gb2312")
        records.append(text + b"\0" + struct.pack("<HH", ident, tags))
    return b"".join(records)


# Lookup of tag names.


def lookup_request(driver: int, names: Sequence[str | bytes]) -> bytes:
    parts = [LOOKUP]
    for name in names:
        text = name if isinstance(name, bytes) else name.encode("gb2312")
        parts.append(struct.pack("<H", driver) + text + b"\0")
    return b"".join(parts)


def lookup_groups(names: Sequence[str]) -> list[list[str]]:
    """The names as they share requests: each takes a driver id and a NUL, a request holds 768 bytes."""
    groups: list[list[str]] = []
    used = LOOKUP_LIMIT
    for name in names:
        room = len(name.encode("gb2312")) + 3
        if used + room > LOOKUP_LIMIT:
            groups.append([])
            used = 1
        groups[-1].append(name)
        used += room
    return groups


def lookup_reply(positions: Iterable[int], spare: int = 0xBEEF) -> bytes:
    return LOOKUP + b"".join(struct.pack("<HH", position, spare) for position in positions)


# Values and their blocks.

VT_EMPTY, VT_NULL, VT_I2, VT_I4, VT_R4, VT_R8, VT_CY, VT_DATE, VT_STR = range(9)
VT_BOOL, VT_I1, VT_UI1, VT_UI2, VT_UI4, VT_I8, VT_UI8, VT_INT, VT_UINT = 11, 16, 17, 18, 19, 20, 21, 22, 23
VT_ARRAY = 8192

_PAYLOADS = {
    VT_I2: "<h",
    VT_I4: "<i",
    VT_R4: "<f",
    VT_R8: "<d",
    VT_DATE: "<d",
    VT_BOOL: "<B",
    VT_I1: "<b",
    VT_UI1: "<B",
    VT_UI2: "<H",
    VT_UI4: "<I",
    VT_I8: "<q",
    VT_INT: "<i",
    VT_UINT: "<I",
}


def payload(kind: int, value: float | bytes | None = None) -> bytes:
    """A value without its type word: texts are given as bytes, types without payload as None."""
    if kind == VT_STR:
        assert isinstance(value, bytes)
        return value + b"\0"
    return struct.pack(_PAYLOADS[kind], value) if kind in _PAYLOADS else b""


def typed(kind: int, value: float | bytes | None = None) -> bytes:
    return struct.pack("<H", kind) + payload(kind, value)


def read_request(addresses: Sequence[tuple[int, int]]) -> bytes:
    """A read of (driver id, position) pairs."""
    return READ + struct.pack("<H", len(addresses)) + b"".join(struct.pack("<HH", *address) for address in addresses)


def read_block(
    values: Iterable[bytes] | bytes, more: bool = False, size: int | None = None, command: bytes = READ
) -> bytes:
    """A block of values; `size` is the announced length where it is to be a lie."""
    body = values if isinstance(values, bytes) else b"".join(values)
    return command + struct.pack("<BH", more, len(body) if size is None else size) + body


# Notifications.


def driver_notification(driver: int, position: int, data: bytes) -> bytes:
    return struct.pack("<HH", driver, position) + data


def system_notification(kind: int, data: bytes) -> bytes:
    return b"\xff\xff" + bytes([kind]) + data


def every_system_notification(driver: int, position: int) -> list[bytes]:
    """One notification of each kind that has a known length, the tag of the tag-related ones being the given one."""
    sizes = {1: 35, 2: 7, 3: 35, 4: 43, 5: 7, 6: 20, 7: 7, 8: 5, 255: 3}
    found = [system_notification(kind, bytes(range(size - 3))) for kind, size in sizes.items()]
    tag = struct.pack("<HH", driver, position)
    for kind in range(9, 23):
        if 10 <= kind <= 13:
            rest = bytes(8)
        elif 16 <= kind <= 21:
            rest = b"text\0"
        else:
            rest = b"\x07"
        found.append(system_notification(kind, tag + rest))
    return found
