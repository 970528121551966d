"""The notification stream: how it is walked, and put together again wherever a read of the socket ends.

Every notification's length is shown by the change that stands behind it.
"""

from __future__ import annotations

import struct
import time

import dialogue as d
import live_wire as w
import pytest
import wire
from client import connect, has_ended, read
from conftest import Play, Serve, settles
from live_wire import Alarm, change, push
from peer import Peer
from watching import I4, STR, A, Changes, arrived, watch, watched

from RkDBAccess import DBCore

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


def told_without_the_station(peer: Peer, names: str) -> tuple[DBCore, Changes]:
    """The changes of some of the boiler's tags; nobody asks for the station, the directory's other driver."""
    core = connect(peer.host)
    boiler = core.GetDriver("Boiler")
    changes: Changes = []
    boiler.SetTagNotify(lambda *one: changes.append(one))
    assert boiler.ConnectTag(names) == 1
    peer.go("watching")
    return core, changes


def test_what_cannot_be_walked_past_ends_its_receive_and_no_more(play: Play, project: str) -> None:
    pushed: d.Steps = []
    for number, note in enumerate(UNWALKABLE.values()):
        pushed += push(change(0, I4, number), note, change(0, I4, 666), change(1, STR, b"666")) + d.pause(0.06)
    peer = play(d.connecting(project) + w.subscribing_kinds([I4, STR]) + d.wait("watching") + pushed)
    _, changes = told_without_the_station(peer, "T0,T1")
    arrived(changes, [("Boiler", "T0", number) for number in range(len(UNWALKABLE))])


@pytest.mark.parametrize("note", UNWALKABLE.values(), ids=UNWALKABLE)
def test_what_cannot_be_walked_past_in_a_full_receive_ends_the_connection(
    play: Play, project: str, note: bytes
) -> None:
    # The receive ends for want of room, inside a change: from there the next ones would be read as 83886080.
    burst = push(change(0, I4, 1), note, *[change(0, I4, 1280)] * 700)
    steps = d.connecting(project) + w.subscribing_kinds([I4]) + d.wait("watching") + burst
    peer = play(steps + d.want_eof("req", "rcv"))
    core, changes = told_without_the_station(peer, "T0")
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
