"""Replies that are wrong, too long or come at the wrong time: no byte of one exchange is ever taken for another's.

A reply whose length is known is read to its end, and the connection goes on. Where it is not known, or bytes come that
nobody has asked for, both connections end.
"""

from __future__ import annotations

import time

import dialogue as d
import pytest
import wire
from client import FAILED, connect, has_ended, read
from conftest import Play, Serve

from RkDBAccess import DBCore

# Bytes that would be taken for the answer to the next request if they were still there when it is sent.
FALSE_VALUE = wire.read_block([wire.typed(wire.VT_I4, 666)])
FALSE_POSITION = wire.lookup_reply([66])
A_IS_7 = d.looking_up(["A"], [5]) + d.reading_numbers([5], [7])
B_IS_8 = d.looking_up(["B"], [6]) + d.reading_numbers([6], [8])


def asked(*names: str) -> d.Steps:
    return d.want("req", wire.lookup_request(0, names))


# Surplus: what nobody has asked for.


def test_surplus_behind_a_lookup_reply_is_no_value(serve: Serve) -> None:
    session = serve(asked("A") + d.send("req", wire.lookup_reply([5]) + FALSE_VALUE))
    assert read(session.boiler, "A") is None
    has_ended(session)


def test_surplus_behind_one_of_several_lookups_is_no_lookup_reply(serve: Serve) -> None:
    names = ["x" * 500, "y" * 500]
    session = serve(asked(names[0]) + d.send("req", wire.lookup_reply([5]) + FALSE_POSITION))
    assert read(session.boiler, ",".join(names)) is None
    has_ended(session)


@pytest.mark.parametrize("surplus", [FALSE_POSITION, FALSE_VALUE, b"L", b"\0", FALSE_POSITION * 10_000])
def test_surplus_behind_a_value_is_no_lookup_reply(serve: Serve, surplus: bytes) -> None:
    session = serve(
        d.looking_up(["A"], [5]),
        d.reading([5], wire.read_block([wire.typed(wire.VT_I4, 7)]) + surplus[:3]),
        d.send_anyway("req", surplus[3:]) + d.tell("sent"),
    )
    assert read(session.boiler, "A") == 7
    session.peer.until("sent")
    assert read(session.boiler, "B") is None
    has_ended(session)


def test_bytes_that_arrive_between_two_requests_end_the_connection(serve: Serve) -> None:
    session = serve(A_IS_7, d.wait("read") + d.send("req", b"\0") + d.tell("late"))
    assert read(session.boiler, "A") == 7
    session.peer.go("read")
    session.peer.until("late")
    time.sleep(0.1)
    assert read(session.boiler, "B") is None
    has_ended(session)


# Rests: what belongs to a reply that has failed.


def test_a_block_more_than_needed_is_no_value_of_the_next_read(serve: Serve) -> None:
    values = [wire.read_block([wire.typed(wire.VT_I4, number)], more=number != 667) for number in (7, 666, 667)]
    session = serve(
        d.looking_up(["A"], [5]),
        d.reading([5], values[0]) + d.pause(0.2) + d.send("req", values[1]) + d.pause(0.2) + d.send("req", values[2]),
        d.reading_numbers([5], [8]),
    )
    assert read(session.boiler, "A") == 7
    assert read(session.boiler, "A") == 8


@pytest.mark.parametrize("pause", [0.0, 0.25])
@pytest.mark.parametrize("reply", [b"X", b"H", b"l", b"\0", b"0"])
def test_a_refused_lookup_is_read_to_its_end(serve: Serve, reply: bytes, pause: float) -> None:
    rest = wire.lookup_reply([5])[1:]
    session = serve(asked("A") + d.send("req", reply) + d.pause(pause) + d.send("req", rest), B_IS_8, A_IS_7)
    assert read(session.boiler, "A") is None
    assert read(session.boiler, "B") == 8
    assert read(session.boiler, "A") == 7


def test_what_follows_a_refused_lookup_late_answers_nothing(serve: Serve) -> None:
    late = d.send("req", b"0") + d.pause(0.2) + d.send_anyway("req", FALSE_POSITION + FALSE_VALUE)
    session = serve(asked("A") + late + d.tell("sent"))
    assert read(session.boiler, "A") is None
    session.peer.until("sent")
    assert read(session.boiler, "B") is None
    has_ended(session)


@pytest.mark.parametrize("reply", [b"X", b"L", b"h", b"b", b"\0", b"0"])
@pytest.mark.parametrize("surplus", [b"", FALSE_POSITION, bytes(5000)], ids=["alone", "false position", "zeroes"])
def test_a_block_with_another_first_byte_ends_the_connection(serve: Serve, reply: bytes, surplus: bytes) -> None:
    block = wire.read_block([wire.typed(wire.VT_I4, 666)], command=reply)
    session = serve(d.looking_up(["A"], [5]) + d.reading([5]) + d.send_anyway("req", block + surplus))
    assert read(session.boiler, "A") is None
    assert read(session.boiler, "B") is None
    has_ended(session)


def test_a_refusal_of_one_byte_ends_the_read_and_the_connection(serve: Serve) -> None:
    session = serve(d.looking_up(["A"], [5]) + d.reading([5], b"0") + d.pause(0.2) + d.send_anyway("req", FALSE_VALUE))
    started = time.monotonic()
    assert read(session.boiler, "A") is None
    assert read(session.boiler, "B") is None
    assert time.monotonic() - started < 6  # not the time-out
    has_ended(session)


def test_a_second_block_with_another_first_byte_ends_the_connection(serve: Serve) -> None:
    good = wire.read_block([wire.typed(wire.VT_I4, 50)], more=True)
    bad = wire.read_block([wire.typed(wire.VT_I4, 666)], command=b"X")
    session = serve(d.looking_up(["A", "B"], [5, 6]) + d.reading([5, 6], good, bad))
    assert read(session.boiler, "A,B") is None
    has_ended(session)


@pytest.mark.parametrize("pause", [0.0, 0.25])
@pytest.mark.parametrize("size", [4097, 20_000, 65_535])
def test_a_block_that_is_too_long_is_read_to_its_end(serve: Serve, size: int, pause: float) -> None:
    block = wire.read_block((FALSE_POSITION * 15_000)[:size])
    late = d.pause(pause) + d.send("req", block[5000:])
    session = serve(d.looking_up(["A"], [5]) + d.reading([5], block[:5000]) + late, B_IS_8)
    assert read(session.boiler, "A") is None
    assert read(session.boiler, "B") == 8


def test_values_behind_one_that_does_not_fit_its_block_are_gone(serve: Serve) -> None:
    cut = wire.read_block(wire.typed(wire.VT_I4, 7)[:4], more=True)
    late = d.pause(0.2) + d.send("req", FALSE_VALUE)
    session = serve(d.looking_up(["A"], [5]) + d.reading([5], cut) + late, B_IS_8)
    assert read(session.boiler, "A") is None
    assert read(session.boiler, "B") == 8


# The start of a connection.


def fails(play: Play, steps: d.Steps) -> None:
    peer = play(steps)
    assert DBCore().Connect(peer.host, d.USER, d.PASSWORD) == FAILED
    peer.finish()


def test_surplus_behind_an_open_reply_is_no_login_reply(play: Play, project: str) -> None:
    registered = d.registering(wire.RegisterReply(project.encode()))
    fails(play, d.opening(b"7" + bytes(511) + wire.login_reply(0xFF)) + registered)


def test_an_open_reply_may_come_in_pieces(play: Play, project: str) -> None:
    body = wire.directory(d.DRIVERS)
    registered = d.send("req", bytes(300)) + d.registering(
        wire.RegisterReply(project.encode(), directory_size=len(body))
    )
    connect(play(d.opening(b"7") + registered + d.logging_in() + d.fetching(wire.download_reply(body))).host)


def test_surplus_behind_a_login_reply_is_no_header(play: Play, project: str) -> None:
    surplus = wire.login_reply() + bytes(247) + wire.download_header(Exist="No")
    fails(play, d.up_to_login(project, size=len(wire.directory(d.DRIVERS))) + d.logging_in(reply=surplus))


def test_surplus_behind_a_download_is_no_lookup_reply(play: Play, project: str) -> None:
    body = wire.directory(d.DRIVERS)
    reply = wire.download_reply(body) + b"\0" * 3000 + FALSE_POSITION * 1000
    sent = d.want("req", wire.download_request()) + d.send_anyway("req", reply)
    fails(play, d.up_to_directory(project, body) + sent)


def test_surplus_behind_a_header_without_a_body_is_no_lookup_reply(play: Play, project: str) -> None:
    body = wire.directory(d.DRIVERS)
    reply = wire.download_header(UseLast="Yes") + b"\0" * 3000 + FALSE_POSITION * 1000
    again = (
        d.want_eof("req", "rcv") + d.up_to_login(project, size=len(body), file_time=d.FILE_TIME + 100) + d.logging_in()
    )
    request = wire.download_request(last=(d.FILE_TIME, len(body)))
    peer = play(d.connecting(project) + again + d.want("req", request) + d.send_anyway("req", reply))
    core = connect(peer.host)
    assert core.Connect(peer.host, d.USER, d.PASSWORD) == FAILED


# A request connection that the server has ended. Its client may go on sending, which harms nobody.


@pytest.mark.parametrize("end", [d.end_sending("req"), d.reset("req")], ids=["closed", "reset"])
def test_after_the_server_ended_the_request_connection_every_request_fails_at_once(serve: Serve, end: d.Steps) -> None:
    gone = end + d.tell("ended") + (d.drain("req") if end[0][0] == "end_sending" else [])
    session = serve(A_IS_7, gone)
    assert read(session.boiler, "A") == 7
    session.peer.until("ended")
    started = time.monotonic()
    assert [read(session.boiler, name) for name in ("A", "B", "A,B", "C")] == [None] * 4
    assert time.monotonic() - started < 4  # none of them waited for its time-out
    assert read(session.boiler, "") is None
    has_ended(session)


@pytest.mark.parametrize("end", [d.end_sending("req"), d.reset("req")], ids=["closed", "reset"])
def test_a_script_that_only_listens_learns_of_an_ended_request_connection(serve: Serve, end: d.Steps) -> None:
    gone = end + d.want_eof("rcv") + (d.want_eof("req") if end[0][0] == "end_sending" else [])
    session = serve(A_IS_7, gone)
    assert read(session.boiler, "A") == 7
    has_ended(session)


@pytest.mark.parametrize("reply", [b"", b"L", wire.lookup_reply([5])[:-1]])
@pytest.mark.parametrize("end", [d.end_sending("req"), d.reset("req")], ids=["closed", "reset"])
def test_a_lookup_reply_that_ends_early_fails_at_once(serve: Serve, reply: bytes, end: d.Steps) -> None:
    ended = end + (d.drain("req") if end[0][0] == "end_sending" else [])
    session = serve(asked("A") + (d.send("req", reply) if reply else []) + ended)
    started = time.monotonic()
    assert [read(session.boiler, name) for name in ("A", "B", "A")] == [None] * 3
    assert time.monotonic() - started < 4


@pytest.mark.parametrize("cut", [1, 4, 5, 9])
def test_a_block_that_ends_early_fails_at_once(serve: Serve, cut: int) -> None:
    block = wire.read_block([wire.typed(wire.VT_I4, 666)])[:cut]
    session = serve(d.looking_up(["A"], [5]) + d.reading([5], block) + d.end_sending("req") + d.drain("req"))
    started = time.monotonic()
    assert [read(session.boiler, name) for name in ("A", "B", "A")] == [None] * 3
    assert time.monotonic() - started < 4
