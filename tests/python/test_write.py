"""Writing of values: the bytes of every request, how values share and split requests, and what is refused unsent.

A peer plays its script byte for byte and fails on anything that it does not expect, so a refusal that sent a byte
is seen by the next exchange or by the peer's end.
"""

from __future__ import annotations

import enum
import math
import random
import struct
import sys
from collections.abc import Callable
from typing import Any

import dialogue as d
import live_wire as w
import pytest
import wire
from client import Session, has_ended, read
from conftest import Serve
from live_wire import MAY_WRITE, item, write_request

from RkDBAccess import Driver

SENT, NO_RIGHT, FAILED, REFUSED = 0, -1, -2, -3
AT = struct.pack("<HH", 0, 5)  # the address of tag A


def write(driver: Driver, names: str, value: Any) -> int:
    """SetTagValue, also with what its types forbid."""
    return driver.SetTagValue(names, value)


class Number(int):
    def __int__(self) -> int:
        raise AssertionError("the number's own value counts")

    __index__ = __int__


class Real(float):
    def __float__(self) -> float:
        raise AssertionError("the number's own value counts")


class Text(str):
    __slots__ = ()

    def __str__(self) -> str:
        raise AssertionError("the text's own characters count")


class Colour(enum.IntEnum):
    RED = 3


class IndexOnly:
    def __index__(self) -> int:
        return 5


class FloatOnly:
    def __float__(self) -> float:
        return 5.0


class Items(list):  # type: ignore[type-arg]
    """A list with manners of its own, which do not count either."""

    def __getitem__(self, index: object) -> object:  # type: ignore[override]
        raise AssertionError("the list's own items count")

    def __iter__(self) -> object:  # type: ignore[override]
        raise AssertionError("the list's own items count")

    def __len__(self) -> int:
        raise AssertionError("the list's own length counts")


def int32(number: int) -> bytes:
    return b"\x03\x00" + struct.pack("<I", number & 0xFFFFFFFF)


def double(number: float) -> bytes:
    return b"\x05\x00" + struct.pack("<d", number)


def text(value: str) -> bytes:
    return b"\x08\x00" + value.encode() + b"\0"


VALUES: dict[str, tuple[object, bytes]] = {
    "True": (True, b"\x0b\x00\x01"),
    "False": (False, b"\x0b\x00\x00"),
    "zero": (0, b"\x03\x00\x00\x00\x00\x00"),
    "five": (5, b"\x03\x00\x05\x00\x00\x00"),
    "minus one": (-1, b"\x03\x00\xff\xff\xff\xff"),
    "largest 32-bit": (2**31 - 1, b"\x03\x00\xff\xff\xff\x7f"),
    "lowest 32-bit": (-(2**31), b"\x03\x00\x00\x00\x00\x80"),
    "beyond 32 bits by one": (2**31, b"\x03\x00\x00\x00\x00\x80"),
    "2**32": (2**32, int32(0)),
    "2**32 + 5": (2**32 + 5, int32(5)),
    "-2**32 - 5": (-(2**32) - 5, int32(-5)),
    "largest 64-bit": (2**63 - 1, int32(0xFFFFFFFF)),
    "beyond 64 bits": (2**64 + 0x12345678, int32(0x12345678)),
    "far beyond 64 bits": (10**30 + 7, int32(10**30 + 7)),
    "far below 64 bits": (-(10**30) - 7, int32(-(10**30) - 7)),
    "a thousand digits": (3**2000, int32(3**2000)),
    "an int subclass": (Number(77), int32(77)),
    "an int subclass beyond 64 bits": (Number(2**70 + 77), int32(77)),
    "an enumeration": (Colour.RED, int32(3)),
    "5.0": (5.0, b"\x05\x00\x00\x00\x00\x00\x00\x00\x14\x40"),
    "-0.0": (-0.0, double(-0.0)),
    "infinity": (-math.inf, double(-math.inf)),
    "smallest float": (5e-324, double(5e-324)),
    "largest float": (sys.float_info.max, double(sys.float_info.max)),
    "a float subclass": (Real(2.5), double(2.5)),
    "a text": ("text", b"\x08\x00text\x00"),
    "an empty text": ("", b"\x08\x00\x00"),
    "a text of UTF-8": ("运行 é \U0001f600", text("运行 é \U0001f600")),
    "a str subclass": (Text("own"), text("own")),
    "the longest text": ("x" * 2038, text("x" * 2038)),
    "the longest text of three-byte characters": ("泵" * 679, text("泵" * 679)),
}


def test_every_value_goes_out_with_its_type(serve: Serve) -> None:
    requests = [b"g\x01\x00" + AT + sent for _, sent in VALUES.values()]
    assert max(len(request) for request in requests) <= w.WRITE_LIMIT
    wanted = [step for request in requests for step in d.want("req", request)]
    session = serve(d.looking_up(["A"], [5]), wanted, w.SILENT, rights=MAY_WRITE)
    for name, (value, _) in VALUES.items():
        assert write(session.boiler, "A", value) == SENT, name
    session.peer.until("silent")


def test_a_float_that_is_no_number_stays_none(serve: Serve) -> None:
    request = b"g\x01\x00" + AT + double(math.nan)
    session = serve(d.looking_up(["A"], [5]), d.want("req", request), rights=MAY_WRITE)
    assert write(session.boiler, "A", math.nan) == SENT


def test_addresses_are_those_of_the_driver_and_the_tag(serve: Serve) -> None:
    request = b"g\x02\x00" + b"\x01\x00\x0f\x00" + int32(1) + b"\x01\x00\x00\x00" + double(2.0)
    session = serve(d.looking_up(["一号泵", "b"], [15, 0], driver=1), d.want("req", request), rights=MAY_WRITE)
    assert write(session.station, "一号泵,b", [1, 2.0]) == SENT


def test_a_list_of_values_shares_one_request(serve: Serve) -> None:
    values = [True, -2, 2.5, "泵", ""]
    sent = [b"\x0b\x00\x01", int32(-2), double(2.5), text("泵"), text("")]
    names = ["A", "B", "C", "D", "E"]
    request = write_request(*(item(10 + i, value) for i, value in enumerate(sent)))
    session = serve(d.looking_up(names, range(10, 15)), d.want("req", request), rights=MAY_WRITE)
    assert write(session.boiler, ",".join(names), values) == SENT


def test_values_stand_in_the_order_in_which_a_read_gives_them(serve: Serve) -> None:
    # B is known and A is not, so B comes first.
    session = serve(
        d.looking_up(["B"], [6]) + d.want("req", write_request(item(6, int32(0)))),
        d.looking_up(["A", "C"], [5, 7])
        + d.want("req", write_request(item(6, int32(1)), item(5, int32(2)), item(7, int32(3)))),
        d.want("req", write_request(item(5, int32(4)), item(6, int32(5)), item(7, int32(6)))),
        rights=MAY_WRITE,
    )
    assert write(session.boiler, "B", 0) == SENT
    assert write(session.boiler, "A, B, C", [1, 2, 3]) == SENT
    assert write(session.boiler, "A, B, C", [4, 5, 6]) == SENT


def test_a_tag_may_be_written_twice_by_one_call(serve: Serve) -> None:
    request = write_request(item(5, int32(1)), item(5, int32(2)))
    session = serve(d.looking_up(["A", "A"], [5, 5]), d.want("req", request), rights=MAY_WRITE)
    assert write(session.boiler, "A,A", [1, 2]) == SENT


UNKNOWN = wire.UNKNOWN


def test_unknown_tags_skip_their_items(serve: Serve) -> None:
    # Whatever stands in such a place is not looked at.
    first = write_request(item(5, int32(1)), item(7, text("three")))
    session = serve(
        d.looking_up(["A", "X", "C"], [5, UNKNOWN, 7]) + d.want("req", first),
        d.want("req", write_request(item(7, int32(3)))),
        rights=MAY_WRITE,
    )
    assert write(session.boiler, "A,X,C", [1, None, "three"]) == SENT
    assert write(session.boiler, "X, ,C,X", [object(), b"", 3, "\ud800"]) == SENT


@pytest.mark.parametrize("position", [UNKNOWN, 2000, 40_000])
def test_a_request_without_values_is_sent_all_the_same(serve: Serve, position: int) -> None:
    session = serve(
        d.looking_up(["X", "Y"], [position, UNKNOWN]) + d.want("req", b"g\x00\x00"),
        d.want("req", b"g\x00\x00") + w.SILENT,
        rights=MAY_WRITE,
    )
    assert write(session.boiler, "X,Y", [1, 2]) == SENT
    assert write(session.boiler, "X,Y", [None, None]) == SENT
    session.peer.until("silent")


# Several requests.


def test_values_that_pass_2048_bytes_go_out_in_several_whole_requests(serve: Serve) -> None:
    count = 500  # of ten bytes each: 204 in one request
    names = [f"T{i}" for i in range(count)]
    items = [item(i, int32(3 * i)) for i in range(count)]
    requests = [write_request(*items[start : start + 204]) for start in range(0, count, 204)]
    assert [len(request) for request in requests] == [2043, 2043, 923]
    wanted = [step for request in requests for step in d.want("req", request)]
    session = serve(d.looking_up_all(names, list(range(count))), wanted, rights=MAY_WRITE)
    assert write(session.boiler, ",".join(names), [3 * i for i in range(count)]) == SENT


def test_a_request_may_be_filled_to_its_last_byte(serve: Serve) -> None:
    # Two items of 1000 and 1045 bytes fill one; a third item begins the next.
    texts = ["a" * 993, "b" * 1038, "c"]
    items = [item(5 + i, text(value)) for i, value in enumerate(texts)]
    full = write_request(*items[:2])
    assert len(full) == 2048
    session = serve(
        d.looking_up(["A", "B", "C"], [5, 6, 7]),
        d.want("req", full) + d.want("req", write_request(items[2])),
        rights=MAY_WRITE,
    )
    assert write(session.boiler, "A,B,C", texts) == SENT


def test_a_value_that_passes_the_request_by_one_byte_begins_the_next(serve: Serve) -> None:
    texts = ["a" * 993, "b" * 1039]
    items = [item(5 + i, text(value)) for i, value in enumerate(texts)]
    requests = d.want("req", write_request(items[0])) + d.want("req", write_request(items[1]))
    session = serve(d.looking_up(["A", "B"], [5, 6]), requests, rights=MAY_WRITE)
    assert write(session.boiler, "A,B", texts) == SENT


def test_random_lists_are_packed_as_they_fit(serve: Serve) -> None:
    rng = random.Random(20240305)
    names = [f"T{i}" for i in range(60)]
    lists: list[list[object]] = []
    wanted: d.Steps = []
    for _ in range(40):
        values: list[object] = []
        items: list[bytes] = []
        for position in range(len(names)):
            value, sent = rng.choice(
                [
                    (position, int32(position)),
                    (0.25, double(0.25)),
                    (True, b"\x0b\x00\x01"),
                    *[("x" * n, text("x" * n)) for n in (0, 50, rng.randrange(2039))],
                ]
            )
            values.append(value)
            items.append(item(position, sent))
        lists.append(values)
        while items:
            size, count = 3, 0
            while count < len(items) and size + len(items[count]) <= 2048:
                size, count = size + len(items[count]), count + 1
            wanted += d.want("req", write_request(*items[:count]))
            items = items[count:]
    session = serve(d.looking_up_all(names, list(range(len(names)))), wanted, rights=MAY_WRITE)
    for values in lists:
        assert write(session.boiler, ",".join(names), values) == SENT


# Refusals: nothing is sent, and the next call goes as ever.

REFUSED_VALUES: dict[str, object] = {
    "None": None,
    "bytes": b"5",
    "a list": [5],
    "a tuple": (5,),
    "a complex number": 5j,
    "an index that is no int": IndexOnly(),
    "a float that is none": FloatOnly(),
    "a type": int,
    "a lone surrogate": "a\ud800b",
    "a low surrogate": "\udfff",
    "a NUL at the start": "\0text",
    "a NUL inside": "te\0xt",
    "a NUL at the end": "text\0",
    "a text that fits no request": "x" * 2039,
    "a text far too long": "x" * 100_000,
    "characters that fit no request": "泵" * 680,
    "a str subclass with a NUL": Text("\0"),
}
GOES_ON = d.want("req", write_request(item(5, int32(1)), item(6, int32(2))))


def test_a_value_that_cannot_be_sent_is_refused(serve: Serve) -> None:
    session = serve(d.looking_up(["A"], [5]), d.looking_up(["B"], [6]) + GOES_ON, rights=MAY_WRITE)
    for name, value in REFUSED_VALUES.items():
        # A result beside a pending exception would raise SystemError here.
        assert write(session.boiler, "A", value) == REFUSED, name
    assert write(session.boiler, "A,B", [1, 2]) == SENT


def test_one_refused_item_leaves_all_of_a_list_unsent(serve: Serve) -> None:
    session = serve(d.looking_up(["A", "B"], [5, 6]) + GOES_ON, rights=MAY_WRITE)
    for name, value in REFUSED_VALUES.items():
        assert write(session.boiler, "A,B", [1, value]) == REFUSED, name
        assert write(session.boiler, "A,B", [value, 1]) == REFUSED, name
    assert write(session.boiler, "A,B", [1, 2]) == SENT


def test_a_refused_item_at_the_end_leaves_even_full_requests_unsent(serve: Serve) -> None:
    names = [f"T{i}" for i in range(500)]
    session = serve(d.looking_up_all(names, list(range(500))) + d.wait("refused") + w.SILENT, rights=MAY_WRITE)
    for refused in (None, "x" * 2039, "\ud800"):
        assert write(session.boiler, ",".join(names), [*range(499), refused]) == REFUSED
    session.peer.go("refused")
    session.peer.until("silent")


def test_an_unset_item_is_refused(serve: Serve) -> None:
    # The list that a read with an unknown tag gives, written back as it stands.
    session = serve(
        d.looking_up(["A", "X"], [5, UNKNOWN]) + d.reading_numbers([5], [7]),
        d.looking_up(["B"], [6]) + GOES_ON,
        rights=MAY_WRITE,
    )
    values = session.boiler.GetTagValue("A,X")
    assert write(session.boiler, "A,B", values) == REFUSED
    assert write(session.boiler, "A,B", [1, 2]) == SENT


NO_LISTS: dict[str, object] = {
    "a number": 1,
    "a tuple": (1, 2),
    "a text": "12",
    "a dictionary": {0: 1, 1: 2},
    "a range": range(2),
    "None": None,
    "an empty list": [],
    "a list of one": [1],
    "a list subclass that is too short": Items([1]),
}


def test_several_tags_need_a_list_that_is_long_enough(serve: Serve) -> None:
    session = serve(d.looking_up(["A", "B"], [5, 6]) + GOES_ON, rights=MAY_WRITE)
    for name, value in NO_LISTS.items():
        assert write(session.boiler, "A,B", value) == REFUSED, name
    assert write(session.boiler, "A,B", [1, 2]) == SENT


def test_the_surplus_of_a_longer_list_is_not_looked_at(serve: Serve) -> None:
    session = serve(d.looking_up(["A", "B"], [5, 6]) + GOES_ON, rights=MAY_WRITE)
    assert write(session.boiler, "A,B", [1, 2, None, b"", "\ud800", "x" * 5000]) == SENT


def test_a_list_subclass_is_a_list(serve: Serve) -> None:
    session = serve(d.looking_up(["A", "B"], [5, 6]) + GOES_ON, rights=MAY_WRITE)
    assert write(session.boiler, "A,B", Items([1, 2])) == SENT


def test_a_list_too_short_for_its_unknown_tags_is_too_short(serve: Serve) -> None:
    session = serve(d.looking_up(["A", "X"], [5, UNKNOWN]) + d.wait("refused") + w.SILENT, rights=MAY_WRITE)
    assert write(session.boiler, "A,X", [1]) == REFUSED
    session.peer.go("refused")
    session.peer.until("silent")


@pytest.mark.parametrize("names", ["X", " ", ", ,", "y" * 765])
def test_a_single_tag_that_is_none_is_refused(serve: Serve, names: str) -> None:
    looked_up = d.looking_up(["X"], [UNKNOWN]) if names == "X" else []
    session = serve(looked_up, rights=MAY_WRITE)
    for value in (1, [1], None):
        assert write(session.boiler, names, value) == REFUSED


@pytest.mark.parametrize("names", ["", ",", ",,,"])
def test_no_tags_are_written_at_once(serve: Serve, names: str) -> None:
    session = serve(rights=MAY_WRITE)
    for value in (1, [1], None):
        assert write(session.boiler, names, value) == SENT


# The right to write.


@pytest.mark.parametrize("rights", [0, 0x04, 0x10, 0xFFFFFFF7])
def test_without_the_right_nothing_is_even_looked_up(serve: Serve, rights: int) -> None:
    session = serve(d.wait("refused") + w.SILENT, rights=rights)
    for names in ("A", "X", "A,B", "", " ", "y" * 1000):
        for value in (1, None, [1, 2], "\ud800"):
            assert write(session.boiler, names, value) == NO_RIGHT
    session.peer.go("refused")
    session.peer.until("silent")


@pytest.mark.parametrize("rights", [0x08, 0xFFFFFFFF, 0x80000008])
def test_one_bit_is_the_right_to_write(serve: Serve, rights: int) -> None:
    session = serve(d.looking_up(["A", "B"], [5, 6]) + GOES_ON, rights=rights)
    assert write(session.boiler, "A,B", [1, 2]) == SENT


# Failures.


def test_a_lookup_that_fails_fails_the_write(serve: Serve) -> None:
    session = serve(
        d.want("req", wire.lookup_request(0, ["A"])) + d.send("req", b"0" + bytes(4)),
        d.looking_up(["A", "B"], [5, 6]) + GOES_ON,
        rights=MAY_WRITE,
    )
    assert write(session.boiler, "A", 1) == FAILED
    assert write(session.boiler, "A,B", [1, 2]) == SENT


@pytest.mark.parametrize("end", [d.end_sending("rcv"), d.reset("rcv")], ids=["shut", "reset"])
def test_a_lost_connection_fails_every_write(serve: Serve, end: d.Steps) -> None:
    rest = d.want_eof("rcv") if end[0][0] == "end_sending" else []
    session = serve(d.looking_up(["A", "B"], [5, 6]) + GOES_ON, end + d.want_eof("req") + rest, rights=MAY_WRITE)
    assert write(session.boiler, "A,B", [1, 2]) == SENT
    session.peer.finish()
    for names, value in (("A", 1), ("A,B", [1, 2]), ("C", 1)):
        assert write(session.boiler, names, value) == FAILED


def test_arguments_that_do_not_fit_raise(serve: Serve) -> None:
    session = serve(rights=MAY_WRITE)
    method: Callable[..., int] = session.boiler.SetTagValue
    for arguments in ((), ("A",), ("A", 1, 2), (1, 1), (None, 1), (b"A", 1)):
        with pytest.raises(TypeError):
            method(*arguments)
    for name in ("A\0", "\ud800"):
        with pytest.raises(ValueError):  # noqa: PT011 (the interpreter's own words)
            method(name, 1)


# Beside other calls.


def written_and_read(serve: Serve, *then: d.Steps) -> Session:
    session = serve(
        d.looking_up(["A"], [5]) + d.reading_numbers([5], [7]),
        d.want("req", write_request(item(5, int32(8)))),
        *then,
        rights=MAY_WRITE,
    )
    assert read(session.boiler, "A") == 7
    assert write(session.boiler, "A", 8) == SENT
    return session


def test_a_write_awaits_no_reply_and_leaves_the_stored_value(serve: Serve) -> None:
    session = written_and_read(serve, w.SILENT, d.reading([5], wire.read_block([])))
    session.peer.until("silent")
    assert read(session.boiler, "A") == 7  # a reply without a value leaves the stored one


def test_a_read_after_a_write_sees_what_the_server_says(serve: Serve) -> None:
    session = written_and_read(serve, d.reading_numbers([5], [9]))
    assert read(session.boiler, "A") == 9


def test_what_a_server_says_to_a_write_is_for_nobody(serve: Serve) -> None:
    said = wire.read_block([wire.typed(wire.VT_I4, 666)])
    session = written_and_read(serve, d.send("req", said) + d.tell("said"))
    session.peer.until("said")
    assert read(session.boiler, "A") is None
    has_ended(session)


def test_a_write_to_a_subscribed_tag_shows_with_its_change_only(serve: Serve) -> None:
    session = serve(
        w.subscribing(["A"], [5], [wire.typed(wire.VT_I4, 7)]),
        d.want("req", write_request(item(5, int32(8)))) + d.wait("looked") + w.push(w.change(5, wire.VT_I4, 8)),
        d.looking_up(["end"], [6]) + d.pause(0.1) + d.reading_numbers([6], [0]),
        rights=MAY_WRITE,
    )
    assert session.boiler.ConnectTag("A") == 1
    assert write(session.boiler, "A", 8) == SENT
    assert read(session.boiler, "A") == 7
    session.peer.go("looked")
    assert read(session.boiler, "end") == 0
    assert read(session.boiler, "A") == 8
