"""The receive connection: what the server pushes is walked past, and its loss ends the whole connection."""

from __future__ import annotations

import random
import time

import dialogue as d
import pytest
import wire
from client import CONNECTED, has_ended, read, sockets_to
from conftest import Serve, live_threads, settles
from dialogue import Steps

A_IS_7 = d.looking_up(["A"], [5]) + d.reading_numbers([5], [7])
AGAIN = d.reading_numbers([5], [8])
NOTES = wire.every_system_notification(d.BOILER, 5)
CHANGE = wire.driver_notification(d.BOILER, 5, wire.payload(wire.VT_I4, 70))


def rubbish(seed: int, size: int) -> bytes:
    return random.Random(seed).randbytes(size)


def text_without_end(kind: int) -> bytes:
    return wire.system_notification(kind, b"\0\0\5\0" + b"x" * 5000)


PUSHED: dict[str, Steps] = {
    "every system notification": [step for note in NOTES for step in [*d.send("rcv", note), *d.pause(0.002)]],
    "all of them at once": d.send("rcv", b"".join(NOTES)),
    "all of them many times over": d.send("rcv", b"".join(NOTES) * 500),
    "byte by byte": d.trickle("rcv", b"".join(NOTES), 0.001),
    "in sevens": d.trickle("rcv", b"".join(NOTES * 3), 0.001, 7),
    "an unknown kind": d.send("rcv", wire.system_notification(100, bytes(50)) + b"".join(NOTES)),
    "kind 0": d.send("rcv", wire.system_notification(0, bytes(50))),
    "a system word alone": d.send("rcv", b"\xff\xff"),
    "half a word": d.send("rcv", b"\xff"),
    "a driver without an object": d.send("rcv", wire.driver_notification(d.STATION, 3, bytes(8)) * 10),
    "a driver that is none": d.send("rcv", wire.driver_notification(2, 3, bytes(8)) * 10),
    "the last driver there can be": d.send("rcv", wire.driver_notification(0xFFFE, 0xFFFF, bytes(8))),
    "a tag beyond the table": d.send("rcv", wire.driver_notification(d.BOILER, 2000, bytes(8))),
    "a tag that was never read": d.send("rcv", wire.driver_notification(d.BOILER, 6, bytes(8))),
    "a system tag beyond the table": d.send("rcv", wire.system_notification(10, b"\0\0\xd0\x07" + bytes(8))),
    "a system tag of no driver": d.send("rcv", wire.system_notification(16, b"\x09\0\0\0text\0")),
    "a change of a tag": d.send("rcv", CHANGE),
    "a change in pieces": d.trickle("rcv", CHANGE * 3, 0.005, 3),
    "a text without an end": d.send("rcv", text_without_end(16)),
    "an alarm cut short": d.send("rcv", NOTES[0][:20]),
    "a change cut short": d.send("rcv", CHANGE[:6]),
    "ones": d.send("rcv", b"\xff" * 100_000),
    "small rubbish": [step for seed in range(200) for step in [*d.send("rcv", rubbish(seed, 9)), *d.pause(0.001)]],
}


@pytest.mark.parametrize("pushed", PUSHED.values(), ids=PUSHED)
def test_requests_go_on_beside_whatever_is_pushed(serve: Serve, pushed: Steps) -> None:
    session = serve(A_IS_7, pushed, d.pause(0.05) + d.tell("pushed"), AGAIN, d.quiet("rcv", 0.05) + d.tell("alive"))
    assert read(session.boiler, "A") == 7
    session.peer.until("pushed")
    assert read(session.boiler, "A") == 8
    session.peer.until("alive")


@pytest.mark.parametrize("pushed", [bytes(100_000), rubbish(1, 100_000)], ids=["zeroes", "rubbish"])
def test_what_cannot_be_told_apart_at_full_speed_ends_the_connection(serve: Serve, pushed: bytes) -> None:
    # A receive ends where there is no more room, so nobody knows how the next one begins.
    session = serve(A_IS_7, d.wait("read") + d.send_anyway("rcv", pushed), d.want_eof("rcv", "req"))
    assert read(session.boiler, "A") == 7
    session.peer.go("read")
    has_ended(session)


def test_notifications_may_come_before_any_driver_is_asked_for(serve: Serve) -> None:
    session = serve(d.send("rcv", b"".join(NOTES) + CHANGE * 100), d.pause(0.05) + A_IS_7 + AGAIN)
    assert [read(session.boiler, "A"), read(session.boiler, "A")] == [7, 8]


def test_a_value_is_not_changed_by_what_is_pushed_for_other_tags(serve: Serve) -> None:
    other = wire.driver_notification(d.BOILER, 6, wire.payload(wire.VT_I4, 666))
    pushed = d.send("rcv", other * 5) + d.pause(0.05) + d.tell("pushed")
    session = serve(A_IS_7, pushed, d.reading([5], wire.read_block([])))
    assert read(session.boiler, "A") == 7
    session.peer.until("pushed")
    assert read(session.boiler, "A") == 7  # the reply without a value leaves the stored one


@pytest.mark.parametrize("end", [d.end_sending("rcv"), d.close("rcv"), d.reset("rcv")], ids=["shut", "closed", "reset"])
def test_a_lost_receive_connection_ends_the_request_connection_too(serve: Serve, end: Steps) -> None:
    threads = live_threads()
    ended = d.want_eof("req") + (d.want_eof("rcv") if end[0][0] == "end_sending" else [])
    session = serve(A_IS_7, d.wait("read"), end, ended)
    assert read(session.boiler, "A") == 7
    session.peer.go("read")
    session.peer.finish()  # the client has ended its side of both, by itself
    assert settles(lambda: live_threads() <= threads)
    started = time.monotonic()
    assert [read(session.boiler, name) for name in ("A", "B", "A,B", "")] == [None] * 4
    assert session.boiler.ConnectTag("A") == 0
    assert session.boiler.SetTagValue("A", 1) < 0
    assert time.monotonic() - started < 4
    assert settles(lambda: not sockets_to(session.peer.addresses["server"]))
    with pytest.raises(SystemError):
        session.core.GetDriver("Boiler")


def test_a_receive_connection_lost_during_a_request_fails_it_and_crashes_nothing(serve: Serve) -> None:
    session = serve(
        d.want("req", wire.lookup_request(0, ["A"])) + d.reset("rcv") + d.want_eof("req"),
    )
    started = time.monotonic()
    assert read(session.boiler, "A") is None
    assert read(session.boiler, "A") is None
    assert time.monotonic() - started < 4  # the loss ends the wait for the reply


def test_a_lost_connection_can_be_made_anew(serve: Serve, project: str) -> None:
    again = d.up_to_directory(project, wire.directory(d.DRIVERS))  # the copy in the mirror is current by then
    lost = d.wait("read") + d.reset("rcv") + d.want_eof("req") + d.tell("lost")
    session = serve(A_IS_7, lost, again, A_IS_7)
    assert read(session.boiler, "A") == 7
    session.peer.go("read")
    session.peer.until("lost")
    assert session.core.Connect(session.peer.host, d.USER, d.PASSWORD) == CONNECTED
    assert read(session.boiler, "A") is None
    assert read(session.core.GetDriver("Boiler"), "A") == 7
