"""The endless stream of changes and alarms of the fast part of a soak, and what a client must be told of it.

The stream is one unit again and again; a unit ends with a change that says its number, so that a unit lost or sent
twice is seen. Within a unit every value follows from its place, texts and numbers of which a torn one can be told
among them. Between the notifications that a client is told of stand others that it has to walk past.
"""

from __future__ import annotations

import bisect
import random
import struct
from collections.abc import Iterator
from datetime import datetime

import live_wire as w
import wire
from live_peer import Mixed

Told = tuple[object, ...]  # driver, tag, value, type; or the arguments of an alarm

DRIVER = "Boiler"
KINDS = (*Mixed.KINDS, wire.VT_STR, wire.VT_R8, wire.VT_UI4)  # types of T0, T1, ...
LONG, TORN, UNIT = 14, 15, 16  # positions of a very long text, of patterned numbers, of the unit's number
NAMES = [f"T{position}" for position in range(len(KINDS))]
FIRST: list[object] = ["" if kind == wire.VT_STR else False if kind == wire.VT_BOOL else 0 for kind in KINDS]
ACTIVE = [w.Alarm(alarm_time=1_600_000_000, tag=1, level=7, value=-1.0), w.Alarm(alarm_time=1_600_000_001, value=-2.0)]


def alarm_told(alarm: w.Alarm) -> Told:
    """What a callback is given for this alarm."""
    at = datetime.fromtimestamp(alarm.alarm_time)
    texts = (w.TAGS[alarm.tag], 0, w.TEXTS[alarm.kind], w.TEXTS[alarm.group])
    return (at, at, *texts, alarm.level, alarm.value, alarm.limit, alarm.status)


class Unit:
    """One unit: its bytes without the number at the end, and what is told of it."""

    ROUNDS = 1000
    LONG_TEXT = 70_000

    def __init__(self) -> None:
        self._data = bytearray()
        self.told: list[Told] = []
        self.ends: list[int] = []  # where in the bytes each of them ends
        mixed = Mixed(self.ROUNDS)
        for number in range(self.ROUNDS):
            for position, value in mixed.changes(number):
                self._change(position, value)
                self._walked_past(number * mixed.PER_ROUND + position)
            if number % 50 == 7:
                self._change(TORN, struct.unpack("<d", struct.pack("<H", 0x1000 + number) * 4)[0])
            if number % 250 == 100:
                self._alarm(number)
            if number == 600:
                self._change(LONG, "".join(f"{n:06d}" for n in range(self.LONG_TEXT // 6)))
        self.data = bytes(self._data)
        self.size = len(self.data) + 8
        self.count = len(self.told) + 1

    def _note(self, told: Told, data: bytes) -> None:
        self._data += data
        self.told.append(told)
        self.ends.append(len(self._data))

    def _change(self, position: int, value: object) -> None:
        sent = value.encode() if isinstance(value, str) else value
        data = w.change(position, KINDS[position], sent)  # type: ignore[arg-type]
        self._note((DRIVER, NAMES[position], value, type(value)), data)

    def _alarm(self, number: int) -> None:
        alarm = w.Alarm(alarm_time=1_700_000_000 + number, tag=number // 250 % 2, kind=1, group=2, level=number % 256)
        self._note(alarm_told(alarm.numbered(number)), w.alarm_notification(alarm.numbered(number)))

    def _walked_past(self, number: int) -> None:
        """Now and then a system notification that nobody is told of."""
        if number % 14 == 3:
            self._data += b"\xff\xff\x06" + bytes(17)
        elif number % 70 == 11:
            self._data += b"\xff\xff\x10" + struct.pack("<HH", 0, 4) + b"x" * (number % 50) + b"\0"
        elif number % 14 == 9:
            self._data += b"\xff\xff\xff"

    def bytes_at(self, start: int, end: int) -> bytes:
        """These bytes of the endless stream."""
        parts = []
        while start < end:
            number, at = divmod(start, self.size)
            if at < len(self.data):
                parts.append(self.data[at : at + end - start])
            else:
                at -= len(self.data)
                parts.append(w.change(UNIT, wire.VT_UI4, number)[at : at + end - start])
            start += len(parts[-1])
        return b"".join(parts)

    def count_at(self, size: int) -> int:
        """How many notifications are whole in that many first bytes of the stream."""
        number, at = divmod(size, self.size)
        return number * self.count + bisect.bisect_right(self.ends, at)

    def next_boundary(self, size: int) -> int:
        """The next place at which a notification is known to end."""
        number, at = divmod(size, self.size)
        index = bisect.bisect_left(self.ends, at)
        return number * self.size + (self.ends[index] if index < len(self.ends) else self.size)

    def inside(self, size: int, rng: random.Random) -> int:
        """A place behind this one that lies inside a notification."""
        number, at = divmod(size, self.size)
        if rng.random() < 0.1:  # inside the very long text
            end = next(end for end, told in zip(self.ends, self.told) if told[1] == NAMES[LONG])
            return (number + (at > end - self.LONG_TEXT)) * self.size + end - rng.randint(1, self.LONG_TEXT - 10)
        return self.next_boundary(size + 5) - rng.randint(1, 4)  # the shortest has five bytes

    def stored(self, tag: int, before: int, after: int) -> Iterator[object]:
        """The values that a tag may have for a client that was told `before` notifications when it began to read and
        `after` when it had read. One more may be stored: it is told next."""
        for index in range(after, -1, -1):
            number, at = divmod(index, self.count)
            if at == self.count - 1:
                position, value = NAMES[UNIT], number
            else:
                told = self.told[at]
                if told[0] != DRIVER:
                    continue
                position, value = str(told[1]), told[2]  # type: ignore[assignment]
            if position == NAMES[tag]:
                yield value
                if index < before:
                    return
        yield FIRST[tag]
