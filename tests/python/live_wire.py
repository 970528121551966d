"""The wire of live values: writing, subscribing, changes and alarms; and what scripts in processes of their own share.

Beside wire.py and dialogue.py, and like them written without a look at the client.
"""

from __future__ import annotations

import struct
from collections.abc import Iterable, Sequence
from dataclasses import dataclass, replace

import dialogue as d
import wire
from dialogue import BOILER, Steps
from live_peer import Rounds

ADVISE, WRITE, ALARM = b"b", b"g", b"n"
WRITE_LIMIT = 2048  # bytes of one write request
ADVISE_LIMIT = 519  # addresses of one subscription request
MAY_WRITE = 0x08
TEXT_LIST, TAG_LIST = "RecData/textlist", "RecData/taglist"
FILE_TIME = d.FILE_TIME


SILENT = d.quiet("req", 0.05) + d.tell("silent")  # the test then says until("silent")


# Writing.


def item(position: int, value: bytes, driver: int = BOILER) -> bytes:
    """One value of a write request: its address, type word and payload."""
    return struct.pack("<HH", driver, position) + value


def write_request(*items: bytes) -> bytes:
    return WRITE + struct.pack("<H", len(items)) + b"".join(items)


# Subscribing.


def advise_request(positions: Sequence[int], driver: int = BOILER) -> bytes:
    return ADVISE + struct.pack("<H", len(positions)) + b"".join(struct.pack("<HHB", driver, p, 0) for p in positions)


def advise_block(values: Iterable[bytes] | bytes, size: int | None = None, command: bytes = ADVISE) -> bytes:
    """A block of values; `size` is the announced length where it is to be a lie."""
    body = values if isinstance(values, bytes) else b"".join(values)
    return command + struct.pack("<H", len(body) if size is None else size) + body


def advising(positions: Sequence[int], *blocks: bytes, driver: int = BOILER) -> Steps:
    """One subscription request for these positions and the blocks of its reply."""
    return d.want("req", advise_request(positions, driver)) + d.send("req", b"".join(blocks))


def subscribing(names: Sequence[str], positions: Sequence[int], values: Sequence[bytes], driver: int = BOILER) -> Steps:
    """A ConnectTag of names that are new, answered in one block."""
    return d.looking_up_all(names, positions, driver) + advising(positions, advise_block(values), driver=driver)


def subscribing_kinds(kinds: Sequence[int], driver: int = BOILER) -> Steps:
    """A ConnectTag of "T0,T1,..." at positions 0, 1, ... of these types; every value is zero or empty."""
    values = [wire.typed(kind, b"" if kind == wire.VT_STR else 0) for kind in kinds]
    names = [f"T{number}" for number in range(len(kinds))]
    return subscribing(names, list(range(len(kinds))), values, driver)


# Changes.


def change(position: int, kind: int, value: float | bytes | None, driver: int = BOILER) -> bytes:
    return wire.driver_notification(driver, position, wire.payload(kind, value))


def push(*notifications: bytes) -> Steps:
    """In one segment."""
    return d.send("rcv", b"".join(notifications))


def streaming(data: Rounds, rounds_at_once: int = 200) -> Steps:
    """A long stream, made while it is sent."""
    return [("trickle", "rcv", data, 0, rounds_at_once)]


# Alarms.


@dataclass(frozen=True)
class Alarm:
    """The record of an alarm."""

    alarm_time: int = 1_700_000_000
    event_time: int = 0
    tag: int = 0
    kind: int = 0
    group: int = 0
    level: int = 1
    status: int = 2
    value: float = 1.5
    limit: float = 2.5

    def record(self) -> bytes:
        return struct.pack(
            "<IIHHHBBdd",
            *(self.alarm_time, self.event_time, self.tag, self.kind, self.group),
            *(self.level, self.status, self.value, self.limit),
        )

    def numbered(self, number: int) -> Alarm:
        return replace(self, value=float(number))


def alarm_reply(alarms: Sequence[Alarm] = (), count: int | None = None, command: bytes = ALARM) -> bytes:
    head = struct.pack("<H", len(alarms) if count is None else count)
    return command + head + b"".join(alarm.record() for alarm in alarms)


def alarm_notification(alarm: Alarm, kind: int = 1) -> bytes:
    return wire.system_notification(kind, alarm.record())


TEXTS = ["high", "泵站报警", "group A"]
TAGS = ["FIC101", "一号泵"]


def list_file(entries: Sequence[str], line_end: bytes = b"\n") -> bytes:
    return b"".join(entry.encode("gb2312") + line_end for entry in entries)


ABSENT = wire.download_header(Exist="No")


def fetching_lists(texts: bytes | None = list_file(TEXTS), tags: bytes | None = list_file(TAGS)) -> Steps:
    """The downloads of both lists by a client that has no copies; None: the server has no such file."""
    steps: Steps = []
    for name, body in ((TEXT_LIST, texts), (TAG_LIST, tags)):
        reply = ABSENT if body is None else wire.download_reply(body, FILE_TIME)
        steps += d.fetching(reply, wire.download_request(name))
    return steps


def registering_alarms(
    alarms: Sequence[Alarm] = (),
    texts: bytes | None = list_file(TEXTS),
    tags: bytes | None = list_file(TAGS),
) -> Steps:
    """A whole SetRtAlarmNotify with these alarms being active."""
    return d.want("req", ALARM) + d.send("req", alarm_reply(alarms)) + fetching_lists(texts, tags)
