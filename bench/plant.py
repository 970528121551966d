"""The plant that the benchmark asks: its tags, their values, and every byte of the conversations about them.

All is prepared before anything is timed; the server program (peer.cpp) only plays it.
"""

from __future__ import annotations

import struct
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent.parent / "tests" / "python"))

import wire
from dialogue import host_name

PROJECT, DRIVER, USER, PASSWORD = "bench", "Plant", "user", "secret"
DRIVER_ID = 0
NAMES = [f"T{number}" for number in range(1000)]
POSITIONS = {name: number for number, name in enumerate(NAMES)}
VALUES = [20.0 + number / 8 for number in range(len(NAMES))]
SUBSCRIBED = 400  # as many as fit one block of first values
CHANGES_A_CHUNK = 10 * SUBSCRIBED
VALUE_SIZE = 10  # type word and double


def typed_values(count: int) -> bytes:
    return b"".join(wire.typed(wire.VT_R8, value) for value in VALUES[:count])


def read_request(count: int) -> bytes:
    return wire.read_request([(DRIVER_ID, position) for position in range(count)])


def read_reply(count: int) -> bytes:
    values = typed_values(count)
    room = wire.BLOCK_LIMIT // VALUE_SIZE * VALUE_SIZE
    blocks = [values[start : start + room] for start in range(0, len(values), room)]
    return b"".join(wire.read_block(block, more=block is not blocks[-1]) for block in blocks)


def subscribe_request(count: int) -> bytes:
    addresses = (struct.pack("<HHB", DRIVER_ID, position, 0) for position in range(count))
    return b"b" + struct.pack("<H", count) + b"".join(addresses)


def subscribe_reply(count: int) -> bytes:
    values = typed_values(count)
    return b"b" + struct.pack("<H", len(values)) + values


def change_value(number: int) -> float:
    """Whole numbers: sums of them are exact, so that not one change may be missing."""
    return float(number + 1)


def changes_chunk() -> bytes:
    """Changes of every subscribed tag in turn."""
    return b"".join(
        wire.driver_notification(DRIVER_ID, number % SUBSCRIBED, struct.pack("<d", change_value(number)))
        for number in range(CHANGES_A_CHUNK)
    )


class Steps:
    """What a connection of the server plays, in the form that peer.cpp reads."""

    def __init__(self) -> None:
        self.data = b""

    @staticmethod
    def _sized(data: bytes) -> bytes:
        return struct.pack("<I", len(data)) + data

    def want(self, data: bytes) -> Steps:
        self.data += b"x" + self._sized(data)
        return self

    def want_any(self, size: int) -> Steps:
        self.data += b"n" + struct.pack("<I", size)
        return self

    def send(self, data: bytes) -> Steps:
        self.data += b"s" + self._sized(data)
        return self

    def answer(self, request: bytes, reply: bytes) -> Steps:
        """From now on, until the client ends the connection."""
        self.data += b"l" + self._sized(request) + self._sized(reply)
        return self

    def send_on_order(self, data: bytes) -> Steps:
        self.data += b"o" + self._sized(data)
        return self


def welcome() -> tuple[Steps, Steps]:
    """Request and receive connection of a client that connects and is told of the driver."""
    directory = wire.directory([(DRIVER, DRIVER_ID, len(NAMES))])
    opened = 1 + wire.scrambled_size(wire.IDENTIFIER_SIZE)
    registered = 1 + wire.scrambled_size(wire.IDENTIFIER_SIZE + len(wire.register_part(host_name())))
    request = (
        Steps()
        .want_any(opened)
        .send(wire.OPEN)
        .want(wire.login_request(USER.encode(), PASSWORD.encode()))
        .send(wire.login_reply())
        .want(wire.download_request())
        .send(wire.download_reply(directory))
    )
    receive = Steps().want_any(registered).send(wire.RegisterReply(PROJECT.encode()).scrambled())
    return request, receive


def look_up(steps: Steps, names: list[str]) -> Steps:
    for group in wire.lookup_groups(names):
        steps.want(wire.lookup_request(DRIVER_ID, group)).send(wire.lookup_reply(POSITIONS[name] for name in group))
    return steps
