"""Streams that are too long to be written down: a peer's process makes their bytes while it sends them.

A script for a scripted peer travels to its process as a pickle. Where a step takes bytes in pieces it asks for
`len(data)` and slices of it, so an object of this file can stand for the bytes: its items are the rounds of a
stream, and a slice gives the bytes of those rounds. The test asks the same object which changes must arrive.
"""

from __future__ import annotations

import random
import struct
from collections.abc import Iterator
from dataclasses import dataclass
from functools import cached_property

import wire

Change = tuple[int, object]  # position and value


class Rounds:
    """A stream of numbered rounds; subclasses say what one round is."""

    rounds: int

    def __len__(self) -> int:
        return self.rounds

    def __getitem__(self, part: slice) -> bytes:
        return b"".join(self.sent(number) for number in range(*part.indices(self.rounds)))

    def sent(self, number: int) -> bytes:
        raise NotImplementedError

    def changes(self, number: int) -> list[Change]:
        raise NotImplementedError

    def all_changes(self) -> Iterator[Change]:
        for number in range(self.rounds):
            yield from self.changes(number)


@dataclass(frozen=True)
class Mixed(Rounds):
    """Changes of fourteen tags of every type that Python has a form for, each round with its own values, between
    them system notifications of several lengths."""

    rounds: int
    driver: int = 0

    KINDS = (
        wire.VT_I2,
        wire.VT_I4,
        wire.VT_R4,
        wire.VT_R8,
        wire.VT_BOOL,
        wire.VT_I1,
        wire.VT_UI1,
        wire.VT_UI2,
        wire.VT_UI4,
        wire.VT_INT,
        wire.VT_UINT,
        wire.VT_STR,
        wire.VT_STR,
        wire.VT_I4,
    )
    PER_ROUND = len(KINDS)
    NUMBERS = struct.Struct("<HHh HHi HHf HHd HHB HHb HHB HHH HHI HHi HHI")
    LAST = struct.Struct("<HHi")

    def sent(self, number: int) -> bytes:
        d = self.driver
        values = [value for _, value in self.changes(number)]
        (i2, i4, r4, r8, flag, i1, ui1, ui2, ui4, int_, uint, short, long, last) = values
        assert isinstance(short, str)
        assert isinstance(long, str)
        return b"".join(
            (
                self.NUMBERS.pack(
                    *(d, 0, i2, d, 1, i4, d, 2, r4, d, 3, r8, d, 4, flag, d, 5, i1),
                    *(d, 6, ui1, d, 7, ui2, d, 8, ui4, d, 9, int_, d, 10, uint),
                ),
                b"\xff\xff\x06" + bytes(17),
                struct.pack("<HH", d, 11) + short.encode() + b"\0",
                b"\xff\xff\x10" + struct.pack("<HH", d, 4) + b"x" * (number % 50) + b"\0",
                struct.pack("<HH", d, 12) + long.encode() + b"\0",
                b"\xff\xff\xff",
                self.LAST.pack(d, 13, last),
            )
        )

    def changes(self, number: int) -> list[Change]:
        n = number
        return [
            (0, (n % 65536) - 32768),
            (1, n),
            (2, float(n % 65536)),
            (3, n * 0.5),
            (4, n % 2 == 1),
            (5, n % 256 - 128),
            (6, n % 256),
            (7, n % 65536),
            (8, n * 7 % 2**32),
            (9, -n),
            (10, 2**32 - 1 - n),
            (11, f"第{n}次"),
            (12, "x" * (n % 97) + str(n)),
            (13, -n - 1),
        ]


@dataclass(frozen=True)
class Sane(Rounds):
    """Texts, numbers and flags of which a half-written one can be told: every byte of a text is the same letter, the
    letter says its length; and the bits of a number repeat."""

    rounds: int
    driver: int = 0

    KINDS = (wire.VT_STR, wire.VT_R8, wire.VT_UI4)

    def sent(self, number: int) -> bytes:
        d = self.driver
        (_, text), (_, _), (_, whole) = self.changes(number)
        assert isinstance(text, str)
        assert isinstance(whole, int)
        pattern = struct.pack("<I", whole)
        return b"".join(
            (
                struct.pack("<HH", d, 0) + text.encode() + b"\0",
                struct.pack("<HH", d, 1) + pattern * 2,
                struct.pack("<HH", d, 2) + pattern,
            )
        )

    def changes(self, number: int) -> list[Change]:
        k = number % 26
        text = "ABCDEFGHIJKLMNOPQRSTUVWXYZ"[k] * (3 + 11 * k)
        pattern = struct.pack("<HH", 0x1000 + k, 0x1000 + k)
        return [
            (0, text),
            (1, struct.unpack("<d", pattern * 2)[0]),
            (2, struct.unpack("<I", pattern)[0]),
        ]


@dataclass(frozen=True)
class Alarms(Rounds):
    """Alarms whose values are 1, 2, ..."""

    rounds: int

    def sent(self, number: int) -> bytes:
        return wire.system_notification(1, struct.pack("<IIHHHBBdd", 1_700_000_000, 0, 0, 0, 0, 1, 2, number + 1, 2.5))


@dataclass(frozen=True)
class Same(Rounds):
    """The same bytes again and again."""

    data: bytes
    rounds: int

    def sent(self, number: int) -> bytes:  # noqa: ARG002 (every round is the same)
        return self.data


@dataclass(frozen=True)
class Cut(Rounds):
    """Another stream in segments that know nothing of its notifications."""

    stream: Rounds
    seed: int
    longest: int

    @property
    def rounds(self) -> int:  # type: ignore[override]
        return len(self._ends)

    @cached_property
    def _bytes(self) -> bytes:
        return self.stream[0 : len(self.stream)]

    @cached_property
    def _ends(self) -> list[int]:
        rng = random.Random(self.seed)
        ends = [0]
        while ends[-1] < len(self._bytes):
            ends.append(ends[-1] + rng.randint(1, self.longest))
        return ends[1:]

    def sent(self, number: int) -> bytes:
        return self._bytes[self._ends[number - 1] if number else 0 : self._ends[number]]
