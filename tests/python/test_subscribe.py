"""Subscribing: the bytes of the request, the blocks of its reply, and what a subscribed tag spares afterwards."""

from __future__ import annotations

import math
import time

import dialogue as d
import live_wire as w
import pytest
import wire
from client import UNSET, Session, has_ended, read
from conftest import Serve, settles
from live_wire import advise_block, advise_request, advising

UNKNOWN = wire.UNKNOWN
VALUES = [wire.typed(wire.VT_I4, 50), wire.typed(wire.VT_STR, "三十".encode()), wire.typed(wire.VT_R8, 40.5)]
THREE = "first,second,third"
LOOKED_UP = d.looking_up(["first", "second", "third"], [5, 3, 4])
ASKED = d.want("req", b"b\x03\x00" + b"\0\0\x05\0\0" + b"\0\0\x03\0\0" + b"\0\0\x04\0\0")


def replied(*blocks: bytes) -> d.Steps:
    return LOOKED_UP + ASKED + d.send("req", b"".join(blocks))


def test_a_subscription_gives_values_that_later_reads_take_from_memory(serve: Serve) -> None:
    session = serve(replied(advise_block(VALUES)), w.SILENT)
    assert session.boiler.ConnectTag(THREE) == 1
    for _ in range(3):
        assert read(session.boiler, THREE) == [50, "三十", 40.5]
        assert read(session.boiler, "second") == "三十"
    session.peer.until("silent")


def test_subscribing_again_sends_nothing(serve: Serve) -> None:
    session = serve(replied(advise_block(VALUES)), w.SILENT)
    for _ in range(3):
        assert session.boiler.ConnectTag(THREE) == 1
        assert session.boiler.ConnectTag("third, first") == 1
    session.peer.until("silent")


def test_addresses_are_those_of_the_driver(serve: Serve) -> None:
    request = b"b\x02\x00" + b"\x01\x00\x0f\x00\x00" + b"\x01\x00\x00\x00\x00"
    session = serve(
        d.looking_up(["一号泵", "b"], [15, 0], driver=1)
        + d.want("req", request)
        + d.send("req", advise_block(VALUES[:2]))
    )
    assert session.station.ConnectTag("一号泵,b") == 1
    assert read(session.station, "b,一号泵") == ["三十", 50]


def test_only_tags_that_are_known_and_not_subscribed_are_asked_for(serve: Serve) -> None:
    session = serve(
        d.looking_up(["first", "X"], [5, UNKNOWN]) + advising([5], advise_block(VALUES[:1])),
        d.looking_up(["second", "Y", "third"], [3, 4000, 4]) + advising([3, 4], advise_block(VALUES[1:])),
        w.SILENT,
    )
    assert session.boiler.ConnectTag("first,X") == 1
    assert session.boiler.ConnectTag("second,Y,first,X, ,third") == 1
    assert session.boiler.ConnectTag("X,Y,first,second,third, ") == 1
    session.peer.until("silent")
    assert read(session.boiler, THREE) == [50, "三十", 40.5]


@pytest.mark.parametrize("names", ["", ",", " ", ", ,", "y" * 765])
def test_nothing_to_subscribe_is_done_at_once(serve: Serve, names: str) -> None:
    session = serve(w.SILENT)
    assert session.boiler.ConnectTag(names) == 1
    session.peer.until("silent")


def test_unknown_tags_alone_are_looked_up_and_nothing_more(serve: Serve) -> None:
    session = serve(d.looking_up(["X", "Y"], [UNKNOWN, 2000]), w.SILENT)
    assert session.boiler.ConnectTag("X,Y") == 1
    assert session.boiler.ConnectTag("Y,X") == 1
    session.peer.until("silent")


def test_a_tag_named_twice_is_asked_for_twice(serve: Serve) -> None:
    session = serve(d.looking_up(["A", "A"], [5, 5]) + advising([5, 5], advise_block(VALUES[:1] * 2)))
    assert session.boiler.ConnectTag("A,A") == 1
    assert read(session.boiler, "A") == 50


def test_of_a_mix_only_the_tags_that_are_not_subscribed_are_read(serve: Serve) -> None:
    session = serve(
        w.subscribing(["first"], [5], VALUES[:1]),
        d.looking_up(["second", "third"], [3, 4]) + d.reading([3, 4], wire.read_block(VALUES[1:])),
        d.reading([3, 4], wire.read_block([wire.typed(wire.VT_I4, 31), wire.typed(wire.VT_I4, 41)])),
    )
    assert session.boiler.ConnectTag("first") == 1
    assert read(session.boiler, THREE) == [50, "三十", 40.5]
    assert read(session.boiler, THREE) == [50, 31, 41]


# 519 at once.


@pytest.mark.parametrize("count", [518, 519])
def test_up_to_519_tags_are_subscribed_by_one_call(serve: Serve, count: int) -> None:
    names, positions = [f"T{i}" for i in range(count)], [count - 1 - i for i in range(count)]
    values = [wire.typed(wire.VT_I4, 7 * position) for position in positions]
    session = serve(w.subscribing(names, positions, values), w.SILENT)
    assert session.boiler.ConnectTag(",".join(names)) == 1
    assert read(session.boiler, ",".join(names)) == [7 * position for position in positions]
    session.peer.until("silent")


def test_tags_beyond_519_are_left_out_until_the_next_call(serve: Serve) -> None:
    names, positions = [f"T{i}" for i in range(1200)], list(range(1200))
    values = [wire.typed(wire.VT_I2, position) for position in positions]
    session = serve(
        d.looking_up_all(names, positions) + advising(positions[:519], advise_block(values[:519])),
        d.reading([519, 600], wire.read_block([wire.typed(wire.VT_I4, -1), wire.typed(wire.VT_I4, -2)])),
        advising(positions[519:1038], advise_block(values[519:1038])),
        advising(positions[1038:], advise_block(values[1038:])),
        w.SILENT,
    )
    assert len(advise_request(positions[:519])) == 2598
    everything = ",".join(names)
    assert session.boiler.ConnectTag(everything) == 1
    assert read(session.boiler, "T518,T519,T600") == [518, -1, -2]
    for _ in range(3):
        assert session.boiler.ConnectTag(everything) == 1
    assert read(session.boiler, everything) == positions
    session.peer.until("silent")


def test_519_tags_are_counted_without_unknown_and_subscribed_ones(serve: Serve) -> None:
    names, positions = [f"T{i}" for i in range(525)], list(range(525))
    positions[3] = positions[500] = UNKNOWN
    asked = [position for position in positions if position not in (7, UNKNOWN)][:519]
    values = [wire.typed(wire.VT_I4, position) for position in asked]
    session = serve(
        d.looking_up(["T7"], [7]) + advising([7], advise_block([wire.typed(wire.VT_I4, 7)])),
        d.looking_up_all(names[:7] + names[8:], positions[:7] + positions[8:]),
        advising(asked, advise_block(values)),
        d.reading_numbers([522, 523, 524], [-1, -2, -3]),
    )
    assert session.boiler.ConnectTag("T7") == 1
    assert session.boiler.ConnectTag(",".join(names)) == 1
    expected = [UNSET if position == UNKNOWN else position for position in positions]
    assert read(session.boiler, ",".join(names)) == [*expected[:-3], -1, -2, -3]


# Blocks.


def test_a_reply_may_come_in_as_many_blocks_as_it_has_values(serve: Serve) -> None:
    session = serve(replied(*(advise_block([value]) for value in VALUES)))
    assert session.boiler.ConnectTag(THREE) == 1
    assert read(session.boiler, THREE) == [50, "三十", 40.5]


def test_a_reply_may_come_in_two_blocks(serve: Serve) -> None:
    session = serve(replied(advise_block(VALUES[:2]), advise_block(VALUES[2:])))
    assert session.boiler.ConnectTag(THREE) == 1
    assert read(session.boiler, THREE) == [50, "三十", 40.5]


def test_the_payload_of_a_block_may_come_in_pieces(serve: Serve) -> None:
    blocks = [advise_block(VALUES[:2]), advise_block(VALUES[2:])]
    pieces = [step for block in blocks for step in [*d.send("req", block[:3]), *d.trickle("req", block[3:])]]
    session = serve(LOOKED_UP + ASKED + pieces)
    assert session.boiler.ConnectTag(THREE) == 1
    assert read(session.boiler, THREE) == [50, "三十", 40.5]


def test_a_block_of_4096_bytes_is_read(serve: Serve) -> None:
    text = wire.typed(wire.VT_STR, b"x" * 4093)
    session = serve(replied(advise_block([text]), advise_block([text]), advise_block([VALUES[0]])))
    assert session.boiler.ConnectTag(THREE) == 1
    assert read(session.boiler, THREE) == ["x" * 4093, "x" * 4093, 50]


def test_values_beyond_the_requested_ones_are_for_nobody(serve: Serve) -> None:
    more = wire.typed(wire.VT_I4, 666)
    session = serve(replied(advise_block([*VALUES, more])), d.looking_up(["A"], [6]) + d.reading_numbers([6], [7]))
    assert session.boiler.ConnectTag(THREE) == 1
    assert read(session.boiler, "A") == 7
    assert read(session.boiler, THREE) == [50, "三十", 40.5]


def test_a_block_more_than_needed_is_no_answer_to_the_next_request(serve: Serve) -> None:
    surplus = advise_block([wire.typed(wire.VT_I4, 666)])
    session = serve(replied(advise_block(VALUES), surplus) + d.tell("sent"))
    assert session.boiler.ConnectTag(THREE) == 1
    session.peer.until("sent")
    assert session.boiler.ConnectTag("A") == 0
    assert read(session.boiler, THREE) == [50, "三十", 40.5]
    has_ended(session)


# Values.

KINDS: list[tuple[int, float | bytes, object]] = [
    (wire.VT_I2, -32768, -32768),
    (wire.VT_I4, -(2**31), -(2**31)),
    (wire.VT_INT, -2, -2),
    (wire.VT_R4, 1.5, 1.5),
    (wire.VT_R8, math.inf, math.inf),
    (wire.VT_BOOL, 255, True),
    (wire.VT_BOOL, 0, False),
    (wire.VT_I1, -128, -128),
    (wire.VT_UI1, 255, 255),
    (wire.VT_UI2, 65535, 65535),
    (wire.VT_UI4, 2**32 - 1, 2**32 - 1),
    (wire.VT_UINT, 2**32 - 1, 2**32 - 1),
    (wire.VT_STR, b"", ""),
    (wire.VT_STR, "运行 \U0001f600".encode(), "运行 \U0001f600"),
]
FORMLESS: list[tuple[int, float | None]] = [
    (wire.VT_EMPTY, None),
    (wire.VT_NULL, None),
    (wire.VT_CY, None),
    (wire.VT_DATE, 45000.5),
    (wire.VT_I8, 2**40),
    (wire.VT_UI8, None),
    (0x7ABC, None),
]


def test_values_of_every_type_share_a_block(serve: Serve) -> None:
    count = len(KINDS) + len(FORMLESS)
    names, positions = [f"T{i}" for i in range(count)], list(range(count))
    sent = [wire.typed(kind, value) for kind, value, _ in KINDS] + [wire.typed(*pair) for pair in FORMLESS]
    session = serve(w.subscribing(names, positions, sent), w.SILENT)
    assert session.boiler.ConnectTag(",".join(names)) == 1
    got = read(session.boiler, ",".join(names))
    assert got == [value for _, _, value in KINDS] + [UNSET] * len(FORMLESS)
    for name, (_, _, value) in zip(names, KINDS):
        one = read(session.boiler, name)
        assert (type(one), one) == (type(value), value)
    # Tags without a form are subscribed as well: nothing is asked for any of them.
    for name in names[len(KINDS) :]:
        with pytest.raises(SystemError, match="without setting an exception"):
            read(session.boiler, name)
    assert session.boiler.ConnectTag(",".join(names)) == 1
    session.peer.until("silent")


def test_a_subscription_may_change_the_type_that_a_read_found(serve: Serve) -> None:
    session = serve(
        d.looking_up(["A"], [5]) + d.reading_numbers([5], [7]),
        advising([5], advise_block([wire.typed(wire.VT_STR, b"seven")])),
    )
    assert read(session.boiler, "A") == 7
    assert session.boiler.ConnectTag("A") == 1
    assert read(session.boiler, "A") == "seven"


# Replies that are wrong: the connection ends. Tags in front of the fault keep their values.


def failed_at_first(serve: Serve, *sent: bytes) -> None:
    session = serve(LOOKED_UP + ASKED + d.send_anyway("req", b"".join(sent)))
    started = time.monotonic()
    assert session.boiler.ConnectTag(THREE) == 0
    assert time.monotonic() - started < 6  # not the time-out
    assert read(session.boiler, THREE) is None
    has_ended(session)


def failed_at_second(serve: Serve, *sent: bytes) -> None:
    session = serve(LOOKED_UP + ASKED + d.send_anyway("req", b"".join(sent)))
    assert session.boiler.ConnectTag(THREE) == 0
    assert read(session.boiler, "first") == 50  # from memory
    assert [read(session.boiler, name) for name in ("second", "third")] == [None] * 2
    has_ended(session)


@pytest.mark.parametrize("marker", [b"0", b"H", b"B", b"\0", b"\xff"])
def test_a_block_with_another_first_byte_fails(serve: Serve, marker: bytes) -> None:
    failed_at_first(serve, advise_block(VALUES, command=marker))


def test_a_refusal_of_one_byte_fails_at_once(serve: Serve) -> None:
    failed_at_first(serve, b"0")


@pytest.mark.parametrize("marker", [b"0", b"H"])
def test_a_second_block_with_another_first_byte_fails(serve: Serve, marker: bytes) -> None:
    failed_at_second(serve, advise_block(VALUES[:1]), advise_block(VALUES[1:], command=marker))


def test_an_empty_block_fails(serve: Serve) -> None:
    failed_at_first(serve, advise_block([]))


def test_an_empty_block_behind_a_full_one_gives_no_value_of_its_bytes(serve: Serve) -> None:
    # The buffer still holds a whole value where the empty block's would begin.
    failed_at_second(serve, advise_block(VALUES[:1]), advise_block([]), advise_block(VALUES[1:]))


def test_a_short_block_behind_a_longer_one_gives_no_value_of_its_bytes(serve: Serve) -> None:
    failed_at_second(serve, advise_block(VALUES[:1]), advise_block(VALUES[0][:3]))


@pytest.mark.parametrize("size", [4097, 20_000, 65_535])
def test_a_block_longer_than_4096_bytes_fails(serve: Serve, size: int) -> None:
    failed_at_first(serve, advise_block([wire.typed(wire.VT_STR, b"b" * (size - 3))]))


CUT_SHORT = [
    b"\x03",
    b"\x03\x00",
    b"\x03\x00\x07\x00",
    b"\x05\x00" + bytes(7),
    b"\x0b\x00",
    b"\x08\x00text",
    b"\x08\x00",
    b"\x08\x00" + b"x" * 4000,
]


@pytest.mark.parametrize("cut", CUT_SHORT, ids=range(len(CUT_SHORT)))
def test_a_value_that_runs_past_its_block_fails(serve: Serve, cut: bytes) -> None:
    failed_at_first(serve, advise_block(cut))


def test_later_values_that_run_past_their_block_fail(serve: Serve) -> None:
    for cut in (CUT_SHORT[0], CUT_SHORT[2], CUT_SHORT[5]):
        failed_at_second(serve, advise_block(VALUES[0] + cut))


def test_a_value_does_not_reach_into_the_next_block(serve: Serve) -> None:
    failed_at_second(serve, advise_block(VALUES[0] + VALUES[1][:5]), advise_block(VALUES[1][5:] + VALUES[2]))


@pytest.mark.parametrize("end", [d.end_sending("req"), d.reset("req")], ids=["closed", "reset"])
@pytest.mark.parametrize("got", [0, 1, 2, 3, 7])
def test_a_reply_that_ends_early_fails_at_once(serve: Serve, got: int, end: d.Steps) -> None:
    sent = advise_block(VALUES)[:got]
    ended = end + (d.drain("req") if end[0][0] == "end_sending" else [])
    session = serve(LOOKED_UP + ASKED + (d.send("req", sent) if sent else []) + ended)
    started = time.monotonic()
    assert session.boiler.ConnectTag(THREE) == 0
    assert session.boiler.ConnectTag(THREE) == 0
    assert session.boiler.ConnectTag("A") == 0
    assert time.monotonic() - started < 6


def test_a_lookup_that_fails_fails_the_subscription(serve: Serve) -> None:
    refused = d.want("req", wire.lookup_request(0, ["first", "second", "third"])) + d.send("req", b"0" + bytes(12))
    session = serve(refused, replied(advise_block(VALUES)))
    assert session.boiler.ConnectTag(THREE) == 0
    assert session.boiler.ConnectTag(THREE) == 1


def lost(serve: Serve, *before: d.Steps) -> Session:
    return serve(*before, d.wait("lose"), d.reset("rcv") + d.want_eof("req"))


def test_after_a_loss_only_what_needs_no_traffic_succeeds(serve: Serve) -> None:
    session = lost(
        serve,
        replied(advise_block(VALUES)) + d.looking_up(["X", "known"], [UNKNOWN, 6]) + d.reading_numbers([6], [7]),
    )
    assert session.boiler.ConnectTag(THREE) == 1
    assert read(session.boiler, "X,known") == [UNSET, 7]
    session.peer.go("lose")
    session.peer.finish()
    for _ in range(2):
        assert session.boiler.ConnectTag(THREE) == 1
        assert session.boiler.ConnectTag("first,X") == 1
        assert session.boiler.ConnectTag("X") == 1
        assert session.boiler.ConnectTag("known") == 0
        assert session.boiler.ConnectTag("first,known") == 0
        assert session.boiler.ConnectTag("new") == 0
        assert read(session.boiler, THREE) == [50, "三十", 40.5]
        assert read(session.boiler, "second") == "三十"
        assert read(session.boiler, "X") is None
        assert read(session.boiler, "known") is None
        assert read(session.boiler, "first,known") is None
        assert read(session.boiler, "new") is None


# A change may overtake the reply to the subscription, which comes by the other connection.


def test_a_change_that_overtakes_the_reply_is_not_undone_by_it(serve: Serve) -> None:
    # The tag has a type from an earlier read, but the reply may bring another: the change is stored behind it.
    session = serve(
        d.looking_up(["A"], [5]) + d.reading_numbers([5], [7]),
        d.want("req", advise_request([5])) + w.push(w.change(5, wire.VT_I4, 9)),
        d.pause(0.1) + d.send("req", advise_block([wire.typed(wire.VT_I4, 8)])),
    )
    assert read(session.boiler, "A") == 7
    assert session.boiler.ConnectTag("A") == 1
    assert settles(lambda: read(session.boiler, "A") == 9)


def test_a_change_that_overtakes_the_reply_is_decoded_by_the_type_in_it(serve: Serve) -> None:
    session = serve(
        d.looking_up(["A"], [5]) + d.reading_numbers([5], [7]),
        d.want("req", advise_request([5])) + w.push(w.change(5, wire.VT_R8, 2.5), w.change(5, wire.VT_R8, 3.5)),
        d.pause(0.1) + d.send("req", advise_block([wire.typed(wire.VT_R8, 1.5)])),
    )
    told: list[object] = []
    session.boiler.SetTagNotify(lambda *change: told.append(change[2]))
    assert read(session.boiler, "A") == 7
    assert session.boiler.ConnectTag("A") == 1
    assert settles(lambda: told == [2.5, 3.5])
    assert read(session.boiler, "A") == 3.5


def test_a_first_change_that_overtakes_the_reply_is_not_lost(serve: Serve) -> None:
    # Without the reply nobody knows the type, so the change awaits it.
    session = serve(
        d.looking_up(["A", "B"], [5, 6]) + d.want("req", advise_request([5, 6])),
        w.push(w.change(6, wire.VT_STR, b"later"), w.change(5, wire.VT_R8, 2.5)),
        d.pause(0.1) + d.send("req", advise_block([wire.typed(wire.VT_R8, 1.5), wire.typed(wire.VT_STR, b"first")])),
        d.looking_up(["end"], [7]) + d.pause(0.1) + d.reading_numbers([7], [0]),
    )
    assert session.boiler.ConnectTag("A,B") == 1
    assert read(session.boiler, "end") == 0
    assert read(session.boiler, "A,B") == [2.5, "later"]


def test_subscriptions_of_any_size_arrive(serve: Serve) -> None:
    names = [f"T{i}" for i in range(300)]
    expected: list[object] = [[i, "x" * (i % 40), bool(i & 1)][i % 3] for i in range(300)]
    values = [
        [
            wire.typed(wire.VT_I4, i),
            wire.typed(wire.VT_STR, b"x" * (i % 40)),
            wire.typed(wire.VT_BOOL, i & 1),
        ][i % 3]
        for i in range(300)
    ]
    steps: d.Steps = []
    done, size = 0, 1
    while done < 300:
        part = values[done : done + size]
        half = len(part) // 2
        blocks = [advise_block(part[:half]), advise_block(part[half:])] if half else [advise_block(part)]
        positions = list(range(done, done + len(part)))
        steps += d.looking_up(names[done : done + len(part)], positions) + advising(positions, *blocks)
        done, size = done + len(part), size + 3
    session = serve(steps)
    done, size = 0, 1
    while done < 300:
        assert session.boiler.ConnectTag(",".join(names[done : done + size])) == 1
        done, size = done + size, size + 3
    assert read(session.boiler, ",".join(names)) == expected
