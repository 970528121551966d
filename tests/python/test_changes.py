"""Changes that the server pushes: what a callback gets, and when.

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
from collections.abc import Callable
from typing import Any

import dialogue as d
import live_wire as w
import pytest
import wire
from client import read
from conftest import Serve, settles
from live_wire import change, push
from watching import I4, STR, A, Changes, arrived, watch, watched

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
