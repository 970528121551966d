"""Changes that the server pushes: what a callback gets, and how the stream is walked and put together again.

A callback runs in the receive thread, so these tests wait for what is to arrive; whatever must not arrive is followed
by something that must.
"""

from __future__ import annotations

import functools
import math
import queue
import struct
import sys
import threading
import time
from collections.abc import Callable
from typing import Any

import dialogue as d
import live_wire as w
import pytest
import wire
from client import Session, connect, has_ended, read
from conftest import Play, Serve, settles
from live_wire import Alarm, change, push

Changes = list[tuple[object, ...]]
I4, STR = wire.VT_I4, wire.VT_STR
A = d.BOILER


def watch(session: Session) -> Changes:
    """Subscribes nothing; records every change of the first driver."""
    changes: Changes = []
    session.boiler.SetTagNotify(lambda *change: changes.append(change))
    return changes


def arrived(changes: Changes, wanted: Changes) -> None:
    """These changes arrive, in this order, and no other."""
    settles(lambda: len(changes) >= len(wanted))
    assert changes == wanted


def watched(serve: Serve, *pushed: d.Steps, kinds: tuple[int, ...] = (I4, STR)) -> tuple[Session, Changes]:
    """A client that is subscribed to T0, T1, ... of these kinds and told of every change; then the server pushes."""
    names = ",".join(f"T{number}" for number in range(len(kinds)))
    session = serve(w.subscribing_kinds(kinds), d.wait("watching"), *pushed)
    changes = watch(session)
    assert session.boiler.ConnectTag(names) == 1
    session.peer.go("watching")
    return session, changes


# What a callback gets.


def test_a_change_calls_with_driver_tag_and_value(serve: Serve) -> None:
    session, changes = watched(serve, push(change(0, I4, 7)), push(change(1, STR, "泵 on".encode())))
    arrived(changes, [("Boiler", "T0", 7), ("Boiler", "T1", "泵 on")])
    assert read(session.boiler, "T0,T1") == [7, "泵 on"]


def test_names_of_any_gb2312_text_arrive_as_text(serve: Serve) -> None:
    tag = "一号泵 压力(MPa)"
    session = serve(
        w.subscribing([tag], [15], [wire.typed(STR, b"")], driver=1),
        push(change(15, STR, "运行".encode(), driver=1)),
    )
    changes: Changes = []
    session.station.SetTagNotify(lambda *one: changes.append(one))
    assert session.station.ConnectTag(tag) == 1
    arrived(changes, [("泵站", tag, "运行")])


KINDS: list[tuple[int, float | bytes, object]] = [
    (wire.VT_I2, -32768, -32768),
    (wire.VT_I4, -(2**31), -(2**31)),
    (wire.VT_INT, 2**31 - 1, 2**31 - 1),
    (wire.VT_R4, 1.5, 1.5),
    (wire.VT_R4, 0.1, struct.unpack("<f", struct.pack("<f", 0.1))[0]),
    (wire.VT_R8, 0.1, 0.1),
    (wire.VT_R8, -math.inf, -math.inf),
    (wire.VT_BOOL, 255, True),
    (wire.VT_BOOL, 0, False),
    (wire.VT_I1, -128, -128),
    (wire.VT_UI1, 255, 255),
    (wire.VT_UI2, 65535, 65535),
    (wire.VT_UI4, 2**32 - 1, 2**32 - 1),
    (wire.VT_UINT, 2**32 - 1, 2**32 - 1),
    (wire.VT_STR, b"", ""),
    (wire.VT_STR, b"text", "text"),
    (wire.VT_STR, "运行 \U0001f600".encode(), "运行 \U0001f600"),
    (wire.VT_STR, b"x" * 1500, "x" * 1500),
]


@pytest.mark.parametrize("at_once", [True, False], ids=["in one segment", "one by one"])
def test_changes_of_every_type_arrive(serve: Serve, at_once: bool) -> None:
    notes = [change(number, kind, value) for number, (kind, value, _) in enumerate(KINDS)]
    pushed = push(*notes) if at_once else [step for note in notes for step in [*push(note), *d.pause(0.002)]]
    session, changes = watched(serve, pushed, kinds=tuple(kind for kind, _, _ in KINDS))
    expected = [value for _, _, value in KINDS]
    arrived(changes, [("Boiler", f"T{number}", value) for number, value in enumerate(expected)])
    assert [type(one[2]) for one in changes] == [type(value) for value in expected]
    names = ",".join(f"T{number}" for number in range(len(KINDS)))
    assert read(session.boiler, names) == expected


def test_a_change_that_is_no_number_arrives_as_none(serve: Serve) -> None:
    _, changes = watched(serve, push(change(0, wire.VT_R8, math.nan)), kinds=(wire.VT_R8,))
    assert settles(lambda: len(changes) == 1)
    value = changes[0][2]
    assert isinstance(value, float)
    assert math.isnan(value)


@pytest.mark.parametrize(("kind", "value"), [(wire.VT_DATE, 45000.5), (wire.VT_I8, 2**40)])
def test_a_change_without_a_python_form_calls_nothing(serve: Serve, kind: int, value: float) -> None:
    pushed = push(change(0, I4, 1), change(1, kind, value), change(0, I4, 2), change(1, kind, value), change(0, I4, 3))
    session, changes = watched(serve, pushed, kinds=(I4, kind))
    arrived(changes, [("Boiler", "T0", number) for number in (1, 2, 3)])
    with pytest.raises(SystemError):
        read(session.boiler, "T1")


@pytest.mark.parametrize("kind", [wire.VT_CY, wire.VT_UI8, 0x7ABC])
def test_a_change_of_a_type_without_a_payload_ends_the_receive(serve: Serve, kind: int) -> None:
    # Nobody can tell where it ends, so what is behind it in the same receive is lost; what comes later is not.
    first = push(change(0, I4, 1), wire.driver_notification(A, 1, b""), change(0, I4, 666))
    _, changes = watched(serve, first, d.pause(0.1), push(change(0, I4, 2)), kinds=(I4, kind))
    arrived(changes, [("Boiler", "T0", 1), ("Boiler", "T0", 2)])


def test_a_text_that_is_not_utf_8_is_reported_and_the_stream_goes_on(
    serve: Serve, monkeypatch: pytest.MonkeyPatch
) -> None:
    reported: list[tuple[object, object]] = []
    monkeypatch.setattr(sys, "unraisablehook", lambda args: reported.append((args.exc_type, args.object)))
    session = serve(
        w.subscribing_kinds([STR]), d.wait("watching"), push(change(0, STR, b"\xb3\xf6"), change(0, STR, b"b"))
    )
    changes: Changes = []

    def on_change(*one: object) -> None:
        changes.append(one)

    session.boiler.SetTagNotify(on_change)
    assert session.boiler.ConnectTag("T0") == 1
    session.peer.go("watching")
    arrived(changes, [("Boiler", "T0", "b")])
    assert reported == [(UnicodeDecodeError, on_change)]


def test_a_tag_that_was_read_and_not_subscribed_has_changes_too(serve: Serve) -> None:
    session = serve(
        d.looking_up(["A"], [5]) + d.reading_numbers([5], [7]),
        d.wait("read") + push(change(5, I4, 8)),
        d.reading_numbers([5], [9]),
    )
    changes = watch(session)
    assert read(session.boiler, "A") == 7
    session.peer.go("read")
    arrived(changes, [("Boiler", "A", 8)])
    assert read(session.boiler, "A") == 9  # not subscribed, so the server is asked


def test_a_change_goes_by_the_name_that_was_looked_up_last(serve: Serve) -> None:
    session = serve(
        d.looking_up(["A"], [5]) + d.reading_numbers([5], [7]),
        d.wait("first") + push(change(5, I4, 8)),
        d.looking_up(["alias"], [5]) + d.reading_numbers([5], [7]),
        d.wait("second") + push(change(5, I4, 9), change(5, I4, 10)),
    )
    changes = watch(session)
    assert read(session.boiler, "A") == 7
    session.peer.go("first")
    arrived(changes, [("Boiler", "A", 8)])
    assert read(session.boiler, "alias") == 7
    session.peer.go("second")
    arrived(changes, [("Boiler", "A", 8), ("Boiler", "alias", 9), ("Boiler", "alias", 10)])


def test_every_driver_has_a_callback_of_its_own(serve: Serve) -> None:
    session = serve(
        w.subscribing(["A"], [5], [wire.typed(I4, 0)]),
        w.subscribing(["A"], [5], [wire.typed(STR, b"")], driver=1),
        push(*(change(5, I4, n) + change(5, STR, b"%d" % n, driver=1) for n in range(50))),
    )
    all_changes: Changes = []
    session.boiler.SetTagNotify(lambda *one: all_changes.append(("boiler's", *one)))
    session.station.SetTagNotify(lambda *one: all_changes.append(("station's", *one)))
    assert session.boiler.ConnectTag("A") == 1
    assert session.station.ConnectTag("A") == 1
    both = [[("boiler's", "Boiler", "A", n), ("station's", "泵站", "A", str(n))] for n in range(50)]
    arrived(all_changes, [one for pair in both for one in pair])


def test_a_driver_without_a_callback_stores_its_changes(serve: Serve) -> None:
    session = serve(
        w.subscribing_kinds([I4, STR]),
        d.wait("subscribed") + push(change(0, I4, 7), change(1, STR, b"seven")),
        d.looking_up(["end"], [6]) + d.pause(0.1) + d.reading_numbers([6], [0]),
    )
    assert session.boiler.ConnectTag("T0,T1") == 1
    session.peer.go("subscribed")
    assert read(session.boiler, "end") == 0
    assert read(session.boiler, "T0,T1") == [7, "seven"]


def test_a_callback_is_told_of_changes_after_its_registration(serve: Serve) -> None:
    session = serve(
        w.subscribing_kinds([I4]) + push(change(0, I4, 7)),
        d.looking_up(["end"], [6]) + d.pause(0.1) + d.reading_numbers([6], [0]),
        d.wait("watching") + push(change(0, I4, 8)),
    )
    assert session.boiler.ConnectTag("T0") == 1
    assert read(session.boiler, "end") == 0
    changes = watch(session)
    session.peer.go("watching")
    arrived(changes, [("Boiler", "T0", 8)])


def test_callbacks_run_in_one_thread_that_is_not_the_scripts(serve: Serve) -> None:
    threads = set()
    session = serve(w.subscribing_kinds([I4]), d.wait("watching"), *[push(change(0, I4, n)) for n in range(20)])
    changes: Changes = []

    def on_change(*one: object) -> None:
        threads.add(threading.get_ident())
        changes.append(one)

    session.boiler.SetTagNotify(on_change)
    assert session.boiler.ConnectTag("T0") == 1
    session.peer.go("watching")
    assert settles(lambda: len(changes) == 20)
    assert len(threads) == 1
    assert threading.get_ident() not in threads


# Registration.


def test_the_first_registration_wins(serve: Serve) -> None:
    session = serve(w.subscribing_kinds([I4]), d.wait("watching"), push(change(0, I4, 1), change(0, I4, 2)))
    first, second = watch(session), watch(session)
    session.core.GetDriver("Boiler").SetTagNotify(lambda *one: second.append(one))  # the same driver, another object
    assert session.boiler.ConnectTag("T0") == 1
    session.peer.go("watching")
    arrived(first, [("Boiler", "T0", 1), ("Boiler", "T0", 2)])
    assert second == []


def test_a_callback_must_be_callable(serve: Serve) -> None:
    session = serve(w.subscribing_kinds([I4]), d.wait("watching"), push(change(0, I4, 1)))
    register: Callable[[Any], None] = session.boiler.SetTagNotify
    for thing in (None, 42, "print", [print], object()):
        with pytest.raises(TypeError, match=r"^parameter must be callable$"):
            register(thing)
    for arguments in ((), (print, print)):
        with pytest.raises(TypeError, match="set_callback"):
            session.boiler.SetTagNotify(*arguments)
    changes = watch(session)  # none of them was registered
    assert session.boiler.ConnectTag("T0") == 1
    session.peer.go("watching")
    arrived(changes, [("Boiler", "T0", 1)])


class Recorder:
    def __init__(self, changes: Changes) -> None:
        self.changes = changes

    def __call__(self, *one: object) -> None:
        self.changes.append(one)

    def method(self, *one: object) -> None:
        self.changes.append(one)


@pytest.mark.parametrize("kind", ["function", "partial", "object", "method", "type"])
def test_anything_that_can_be_called_is_called(serve: Serve, kind: str) -> None:
    changes: Changes = []
    recorder = Recorder(changes)

    class Kept:
        def __init__(self, *one: object) -> None:
            changes.append(one)

    def function(*one: object) -> None:
        changes.append(one)

    callables: dict[str, Callable[..., object]] = {
        "function": function,
        "partial": functools.partial(recorder.method),
        "object": recorder,
        "method": recorder.method,
        "type": Kept,
    }
    session = serve(w.subscribing_kinds([I4]), d.wait("watching"), push(change(0, I4, 1), change(0, I4, 2)))
    session.boiler.SetTagNotify(callables[kind])
    assert session.boiler.ConnectTag("T0") == 1
    session.peer.go("watching")
    arrived(changes, [("Boiler", "T0", 1), ("Boiler", "T0", 2)])


def test_a_builtin_can_be_called(serve: Serve) -> None:
    drivers: queue.SimpleQueue[str] = queue.SimpleQueue()
    session = serve(w.subscribing_kinds([I4]), d.wait("watching"), push(change(0, I4, 1), change(0, I4, 2)))
    put: Any = drivers.put
    session.boiler.SetTagNotify(put)  # its second and third parameter take a text and a number too
    assert session.boiler.ConnectTag("T0") == 1
    session.peer.go("watching")
    assert settles(lambda: drivers.qsize() == 2)
    assert {drivers.get(), drivers.get()} == {"Boiler"}


# The walk: the length of every notification, shown by the change that stands behind it.

LENGTHS = {1: 35, 2: 7, 3: 35, 4: 43, 5: 7, 6: 20, 7: 7, 8: 5, 255: 3}
LENGTHS |= dict.fromkeys((9, 14, 15, 22), 8) | dict.fromkeys((10, 11, 12, 13), 15)
TEXT_KINDS = tuple(range(16, 22))


def of_tag(kind: int, rest: bytes, driver: int = A, position: int = 0) -> bytes:
    return wire.system_notification(kind, struct.pack("<HH", driver, position) + rest)


def fixed(kind: int) -> bytes:
    """A notification of that kind whose bytes would all be noticed if they were walked into."""
    size = LENGTHS[kind]
    note = (
        of_tag(kind, b"\xee" * (size - 7)) if 9 <= kind <= 22 else wire.system_notification(kind, b"\xee" * (size - 3))
    )
    assert len(note) == size
    return note


def test_every_system_notification_leads_to_the_change_behind_it(serve: Serve) -> None:
    notes = [fixed(kind) for kind in sorted(LENGTHS)]
    notes += [
        of_tag(kind, text + b"\0") for kind in TEXT_KINDS for text in (b"", b"t", "报警".encode("gb2312"), b"x" * 900)
    ]
    pushed = [push(note, change(0, I4, number)) for number, note in enumerate(notes)]
    _, changes = watched(serve, *pushed)
    arrived(changes, [("Boiler", "T0", number) for number in range(len(notes))])


def test_every_system_notification_behind_every_other_leads_on(serve: Serve) -> None:
    notes = [fixed(kind) for kind in sorted(LENGTHS)] + [of_tag(kind, b"text\0") for kind in TEXT_KINDS]
    pairs = [first + second for first in notes for second in notes]
    _, changes = watched(serve, push(*(pair + change(0, I4, number) for number, pair in enumerate(pairs))))
    arrived(changes, [("Boiler", "T0", number) for number in range(len(pairs))])


UNWALKABLE = {
    "kind 0": wire.system_notification(0, b"\xee" * 30),
    "kind 23": wire.system_notification(23, b"\xee" * 30),
    "kind 100": wire.system_notification(100, b"\xee" * 30),
    "kind 254": wire.system_notification(254, b"\xee" * 30),
    "a driver beyond the table": wire.driver_notification(2, 0, bytes(4)),
    "the last driver there can be": wire.driver_notification(0xFFFE, 0, bytes(4)),
    "a driver nobody asked for": wire.driver_notification(d.STATION, 0, bytes(4)),
    "a tag beyond the table": change(2000, I4, 666),
    "the last tag there can be": change(0xFFFF, I4, 666),
    "a tag that was never read": change(7, I4, 666),
    **{f"kind {kind} of a tag beyond the table": of_tag(kind, b"\0" * 8, position=2000) for kind in (9, 10, 16, 22)},
    **{f"kind {kind} of a driver beyond the table": of_tag(kind, b"\0" * 8, driver=2) for kind in (9, 13, 21, 14)},
    "kind 15 of a driver nobody asked for": of_tag(15, b"\0", driver=d.STATION),
}


def test_what_cannot_be_walked_past_ends_its_receive_and_no_more(play: Play, project: str) -> None:
    pushed: d.Steps = []
    for number, note in enumerate(UNWALKABLE.values()):
        pushed += push(change(0, I4, number), note, change(0, I4, 666), change(1, STR, b"666")) + d.pause(0.06)
    peer = play(d.connecting(project) + w.subscribing_kinds([I4, STR]) + d.wait("watching") + pushed)
    core = connect(peer.host)
    boiler = core.GetDriver("Boiler")  # and not the other driver
    changes: Changes = []
    boiler.SetTagNotify(lambda *one: changes.append(one))
    assert boiler.ConnectTag("T0,T1") == 1
    peer.go("watching")
    arrived(changes, [("Boiler", "T0", number) for number in range(len(UNWALKABLE))])


@pytest.mark.parametrize("note", UNWALKABLE.values(), ids=UNWALKABLE)
def test_what_cannot_be_walked_past_in_a_full_receive_ends_the_connection(
    play: Play, project: str, note: bytes
) -> None:
    # The receive ends for want of room, inside a change: from there the next ones would be read as 83886080.
    burst = push(change(0, I4, 1), note, *[change(0, I4, 1280)] * 700)
    steps = d.connecting(project) + w.subscribing_kinds([I4]) + d.wait("watching") + burst
    peer = play(steps + d.want_eof("req", "rcv"))
    core = connect(peer.host)
    boiler = core.GetDriver("Boiler")  # and not the other driver
    changes: Changes = []
    boiler.SetTagNotify(lambda *one: changes.append(one))
    assert boiler.ConnectTag("T0") == 1
    peer.go("watching")
    peer.finish()
    assert changes == [("Boiler", "T0", 1)]
    with pytest.raises(SystemError):
        core.GetDriver("Boiler")


def test_a_type_without_a_payload_in_a_full_receive_ends_the_connection(serve: Serve) -> None:
    rounds = [change(0, I4, number) + wire.driver_notification(A, 1, b"") for number in range(300)]
    session, changes = watched(serve, push(*rounds), d.want_eof("req", "rcv"), kinds=(I4, wire.VT_CY))
    has_ended(session)
    assert changes == [("Boiler", "T0", 0)]


def test_alarms_without_a_callback_are_walked_past(serve: Serve) -> None:
    alarms = [w.alarm_notification(Alarm(), kind) for kind in (1, 3)]
    _, changes = watched(serve, push(alarms[0], change(0, I4, 1), alarms[1], change(0, I4, 2)))
    arrived(changes, [("Boiler", "T0", 1), ("Boiler", "T0", 2)])


def test_a_change_of_a_tag_that_was_never_read_leaves_it_without_a_value(serve: Serve) -> None:
    session = serve(
        w.subscribing_kinds([I4]) + push(change(6, I4, 666)) + d.pause(0.1) + push(change(0, I4, 1)),
        d.looking_up(["A"], [6]) + d.reading([6], wire.read_block([])),
    )
    changes = watch(session)
    assert session.boiler.ConnectTag("T0") == 1
    arrived(changes, [("Boiler", "T0", 1)])
    with pytest.raises(SystemError):  # no value, so no type
        read(session.boiler, "A")


# Where a read of the socket ends.

STREAM_KINDS = (I4, STR, wire.VT_R8, wire.VT_BOOL)
STREAM = [
    (change(0, I4, 1), (0, 1)),
    (fixed(1), None),
    (change(1, STR, "泵 text".encode()), (1, "泵 text")),
    (of_tag(16, b"text\0"), None),
    (change(2, wire.VT_R8, 2.5), (2, 2.5)),
    (fixed(255), None),
    (change(3, wire.VT_BOOL, 1), (3, True)),
    (fixed(10), None),
    (fixed(8), None),
    (change(1, STR, b""), (1, "")),
    (fixed(4), None),
    (change(0, I4, -1), (0, -1)),
]
STREAM_BYTES = b"".join(note for note, _ in STREAM)
STREAM_CHANGES: Changes = [("Boiler", f"T{pair[0]}", pair[1]) for _, pair in STREAM if pair]


def test_a_stream_split_at_any_byte_arrives_whole(serve: Serve) -> None:
    splits = range(1, len(STREAM_BYTES))
    pushed = [
        push(STREAM_BYTES[:split]) + d.pause(0.004) + push(STREAM_BYTES[split:]) + d.pause(0.001) for split in splits
    ]
    _, changes = watched(serve, *pushed, kinds=STREAM_KINDS)
    wanted = STREAM_CHANGES * len(splits)
    assert settles(lambda: len(changes) >= len(wanted), 30)
    assert changes == wanted


@pytest.mark.parametrize("piece", [1, 2, 3, 5, 7])
def test_a_stream_in_small_pieces_arrives_whole(serve: Serve, piece: int) -> None:
    _, changes = watched(serve, d.trickle("rcv", STREAM_BYTES * 2, 0.001, piece), kinds=STREAM_KINDS)
    arrived(changes, STREAM_CHANGES * 2)


def test_a_stream_in_long_segments_arrives_whole(serve: Serve) -> None:
    _, changes = watched(serve, push(STREAM_BYTES * 2000), kinds=STREAM_KINDS)
    wanted = STREAM_CHANGES * 2000
    assert settles(lambda: len(changes) >= len(wanted), 30)
    assert changes == wanted


@pytest.mark.parametrize("size", [2030, 2043, 2044, 2048, 5000, 20_000, 60_000])
def test_a_text_longer_than_one_receive_arrives_whole(serve: Serve, size: int) -> None:
    text = bytes(65 + number % 26 for number in range(size))
    pushed = push(change(0, I4, 1), change(1, STR, text), change(0, I4, 2), change(1, STR, text[:-1]), change(0, I4, 3))
    session, changes = watched(serve, pushed)
    long, shorter = text.decode(), text[:-1].decode()
    values: Changes = [("T0", 1), ("T1", long), ("T0", 2), ("T1", shorter), ("T0", 3)]
    wanted: Changes = [("Boiler", *pair) for pair in values]
    arrived(changes, wanted)
    assert read(session.boiler, "T1") == shorter


def test_a_rest_that_is_late_is_waited_for(serve: Serve) -> None:
    note = change(1, STR, b"late text")
    _, changes = watched(serve, push(note[:6]) + d.pause(0.4) + push(note[6:], change(0, I4, 1)))
    arrived(changes, [("Boiler", "T1", "late text"), ("Boiler", "T0", 1)])


LONG = b"never finished" * 500
# Each can be told by its beginning from the others; and what a script is told of it.
NOTES = [
    change(0, I4, 666),
    change(1, STR, b"never finished"),
    change(1, STR, LONG),
    fixed(1),
    of_tag(16, b"never finished\0"),
]
TOLD: dict[bytes, list[tuple[str, str, object]]] = {
    NOTES[0]: [("Boiler", "T0", 666)],
    NOTES[1]: [("Boiler", "T1", "never finished")],
    NOTES[2]: [("Boiler", "T1", LONG.decode())],
}
CUT = {
    "a word": change(0, I4, 666)[:1],
    "an address": change(0, I4, 666)[:3],
    "no payload": change(0, I4, 666)[:4],
    "half a number": change(0, I4, 666)[:6],
    "a text": change(1, STR, b"never finished")[:-1],
    "a text longer than a receive": change(1, STR, LONG)[:-1],
    "an alarm": fixed(1)[:20],
    "a system word": fixed(1)[:2],
    "a system text": of_tag(16, b"never finished"),
}


@pytest.mark.parametrize("cut", CUT.values(), ids=CUT)
def test_a_rest_that_never_comes_ends_the_connection(serve: Serve, cut: bytes) -> None:
    # What comes after the time-out is no rest any more, and where it would begin is not known.
    session, changes = watched(serve, push(change(0, I4, 1), cut) + d.want_eof("req"))
    arrived(changes, [("Boiler", "T0", 1)])
    has_ended(session)
    assert changes == [("Boiler", "T0", 1)]
    assert read(session.boiler, "T0,T1") == [1, ""]


@pytest.mark.parametrize("cut", CUT.values(), ids=CUT)
def test_a_pause_of_retransmissions_inside_a_notification_changes_nothing(serve: Serve, cut: bytes) -> None:
    whole = {note[: len(cut)]: note for note in NOTES}[cut]
    _, changes = watched(serve, push(cut) + d.pause(1.6) + push(whole[len(cut) :], change(0, I4, 2)))
    arrived(changes, [*TOLD.get(whole, []), ("Boiler", "T0", 2)])


def test_dropping_a_client_inside_a_cut_notification_is_quick(serve: Serve) -> None:
    session, changes = watched(serve, push(change(0, I4, 1), change(0, I4, 2)[:5]))
    arrived(changes, [("Boiler", "T0", 1)])
    started = time.monotonic()
    del session.core
    assert time.monotonic() - started < 5
    session.peer.finish()


def test_changes_and_alarms_arrive_in_the_order_of_the_stream(serve: Serve) -> None:
    events: Changes = []
    notes = [
        push(change(0, I4, n), w.alarm_notification(Alarm().numbered(n), 1 + 2 * (n % 2)), change(1, STR, b"%d" % n))
        for n in range(200)
    ]
    session = serve(w.subscribing_kinds([I4, STR]), w.registering_alarms(), d.wait("watching"), *notes)
    session.boiler.SetTagNotify(lambda *one: events.append(one[1:]))
    assert session.boiler.ConnectTag("T0,T1") == 1
    session.core.SetRtAlarmNotify(lambda *alarm: events.append(("alarm", alarm[7])), 0)
    session.peer.go("watching")
    wanted: Changes = [one for n in range(200) for one in [("T0", n), ("alarm", float(n)), ("T1", str(n))]]
    arrived(events, wanted)


def test_a_slow_callback_loses_no_change(serve: Serve) -> None:
    session = serve(w.subscribing_kinds([I4]), d.wait("watching"), push(*(change(0, I4, n) for n in range(100))))
    changes: Changes = []

    def on_change(*one: object) -> None:
        time.sleep(0.003)
        changes.append(one)

    session.boiler.SetTagNotify(on_change)
    assert session.boiler.ConnectTag("T0") == 1
    session.peer.go("watching")
    arrived(changes, [("Boiler", "T0", n) for n in range(100)])


# A connection that is lost.


def test_what_arrived_before_a_loss_is_delivered_and_stays(serve: Serve) -> None:
    session, changes = watched(
        serve, push(change(0, I4, 1), change(1, STR, b"last"), change(0, I4, 2)[:6]), d.close("rcv") + d.want_eof("req")
    )
    session.peer.finish()
    arrived(changes, [("Boiler", "T0", 1), ("Boiler", "T1", "last")])
    assert read(session.boiler, "T0,T1") == [1, "last"]


def test_a_new_connection_needs_a_new_registration(serve: Serve, project: str) -> None:
    again = d.up_to_directory(project, wire.directory(d.DRIVERS))  # the copy in the mirror is current by then
    session = serve(
        w.subscribing_kinds([I4]) + push(change(0, I4, 1)),
        d.wait("lose") + d.reset("rcv") + d.want_eof("req") + d.tell("lost"),
        again + w.subscribing_kinds([STR]) + push(change(0, STR, b"silent")),
        d.looking_up(["end"], [6]) + d.pause(0.1) + d.reading_numbers([6], [0]),
        d.wait("watching") + push(change(0, STR, b"heard")),
    )
    before = watch(session)
    assert session.boiler.ConnectTag("T0") == 1
    arrived(before, [("Boiler", "T0", 1)])
    session.peer.go("lose")
    session.peer.until("lost")
    session.core.Connect(session.peer.host, d.USER, d.PASSWORD)
    old, session.boiler = session.boiler, session.core.GetDriver("Boiler")
    assert session.boiler.ConnectTag("T0") == 1
    assert read(session.boiler, "end") == 0
    after = watch(session)
    session.peer.go("watching")
    arrived(after, [("Boiler", "T0", "heard")])
    assert before == [("Boiler", "T0", 1)]
    assert read(old, "T0") == 1
