"""Reading of values: the bytes of the request, blocks, every type of value, and what a list looks like."""

from __future__ import annotations

import math
import struct
import sys

import dialogue as d
import pytest
import wire
from client import UNSET, Session, read
from conftest import Serve

FIRST, SECOND, THIRD = "first", "second", "third"  # at positions 5, 3 and 4


def three_tags(serve: Serve, *blocks: bytes, then: d.Steps | None = None) -> Session:
    """A server that answers one read of the three tags with these blocks."""
    return serve(d.looking_up([FIRST, SECOND, THIRD], [5, 3, 4]), d.reading([5, 3, 4], *blocks), then or [])


def one_tag(serve: Serve, *blocks: bytes) -> object:
    """What a read of one tag answered with these blocks gives."""
    session = serve(d.looking_up([FIRST], [5]), d.reading([5], *blocks))
    return read(session.boiler, FIRST)


THREE = f"{FIRST},{SECOND},{THIRD}"
NUMBERS = [wire.typed(wire.VT_I4, number) for number in (50, 30, 40)]


# Values.

F32_MAX = struct.unpack("<f", b"\xff\xff\x7f\x7f")[0]
VALUES: list[tuple[str, int, float | bytes, object]] = [
    ("VT_I2 lowest", wire.VT_I2, -32768, -32768),
    ("VT_I2 highest", wire.VT_I2, 32767, 32767),
    ("VT_I4 lowest", wire.VT_I4, -(2**31), -(2**31)),
    ("VT_I4 highest", wire.VT_I4, 2**31 - 1, 2**31 - 1),
    ("VT_I4 zero", wire.VT_I4, 0, 0),
    ("VT_INT", wire.VT_INT, -2, -2),
    ("VT_R4", wire.VT_R4, 1.5, 1.5),
    ("VT_R4 widened", wire.VT_R4, 0.1, struct.unpack("<f", struct.pack("<f", 0.1))[0]),
    ("VT_R4 largest", wire.VT_R4, F32_MAX, F32_MAX),
    ("VT_R4 infinite", wire.VT_R4, -math.inf, -math.inf),
    ("VT_R8", wire.VT_R8, 0.1, 0.1),
    ("VT_R8 largest", wire.VT_R8, sys.float_info.max, sys.float_info.max),
    ("VT_R8 smallest", wire.VT_R8, 5e-324, 5e-324),
    ("VT_BOOL 0", wire.VT_BOOL, 0, False),
    ("VT_BOOL 1", wire.VT_BOOL, 1, True),
    ("VT_BOOL 255", wire.VT_BOOL, 255, True),
    ("VT_I1 lowest", wire.VT_I1, -128, -128),
    ("VT_I1 highest", wire.VT_I1, 127, 127),
    ("VT_UI1", wire.VT_UI1, 255, 255),
    ("VT_UI2", wire.VT_UI2, 65535, 65535),
    ("VT_UI4", wire.VT_UI4, 2**32 - 1, 2**32 - 1),
    ("VT_UINT", wire.VT_UINT, 2**32 - 1, 2**32 - 1),
    ("VT_STR", wire.VT_STR, b"text", "text"),
    ("VT_STR empty", wire.VT_STR, b"", ""),
    ("VT_STR of UTF-8", wire.VT_STR, "运行 – \U0001f600".encode(), "运行 – \U0001f600"),
    ("VT_STR long", wire.VT_STR, b"x" * 4000, "x" * 4000),
]


@pytest.mark.parametrize(("kind", "sent", "value"), [row[1:] for row in VALUES], ids=[row[0] for row in VALUES])
def test_a_value_has_its_python_type(serve: Serve, kind: int, sent: float | bytes, value: object) -> None:
    got = one_tag(serve, wire.read_block(wire.typed(kind, sent)))
    assert (type(got), got) == (type(value), value)


def test_a_value_that_is_no_number_is_no_number(serve: Serve) -> None:
    for kind in (wire.VT_R4, wire.VT_R8):
        got = one_tag(serve, wire.read_block(wire.typed(kind, math.nan)))
        assert isinstance(got, float)
        assert math.isnan(got)


def test_values_of_all_types_share_a_block(serve: Serve) -> None:
    rows = [row for row in VALUES if row[0] != "VT_STR long"]
    names = [f"T{number}" for number in range(len(rows))]
    positions = list(range(len(rows)))
    block = wire.read_block(wire.typed(kind, sent) for _, kind, sent, _ in rows)
    session = serve(d.looking_up_all(names, positions), d.reading(positions, block))
    assert read(session.boiler, ",".join(names)) == [row[3] for row in rows]


FORMLESS: dict[str, tuple[int, float | None]] = {
    "VT_EMPTY": (wire.VT_EMPTY, None),
    "VT_NULL": (wire.VT_NULL, None),
    "VT_CY": (wire.VT_CY, None),
    "VT_DATE": (wire.VT_DATE, 45000.5),
    "VT_I8": (wire.VT_I8, 2**40),
    "VT_UI8": (wire.VT_UI8, None),
    "an unknown type": (0x7ABC, None),
}


@pytest.mark.parametrize(("kind", "sent"), FORMLESS.values(), ids=FORMLESS)
def test_a_value_without_a_python_form_is_an_error_of_the_interpreter(
    serve: Serve, kind: int, sent: float | None
) -> None:
    with pytest.raises(SystemError, match="without setting an exception"):
        one_tag(serve, wire.read_block(wire.typed(kind, sent)))


@pytest.mark.parametrize(("kind", "sent"), FORMLESS.values(), ids=FORMLESS)
def test_a_value_without_a_python_form_leaves_its_item_unset(serve: Serve, kind: int, sent: float | None) -> None:
    session = three_tags(serve, wire.read_block(NUMBERS[0] + wire.typed(kind, sent) + NUMBERS[2]))
    assert read(session.boiler, THREE) == [50, UNSET, 40]


def test_a_text_that_is_not_utf_8_is_an_error_and_no_crash(serve: Serve) -> None:
    text = wire.typed(wire.VT_STR, b"ok \xb3\xf6")
    session = serve(
        d.looking_up([FIRST, SECOND, THIRD], [5, 3, 4]) + d.reading([5, 3, 4], wire.read_block([text, *NUMBERS[1:]])),
        d.reading([5], wire.read_block(text)) + d.reading_numbers([5, 3, 4], [50, 30, 40]),
    )
    for names in (THREE, FIRST):
        with pytest.raises(UnicodeDecodeError):
            read(session.boiler, names)
    assert read(session.boiler, THREE) == [50, 30, 40]


def test_a_type_that_changes_is_followed(serve: Serve) -> None:
    values: list[tuple[int, float | bytes, object]] = [
        (wire.VT_I4, 7, 7),
        (wire.VT_STR, b"seven", "seven"),
        (wire.VT_BOOL, 1, True),
        (wire.VT_R8, 7.5, 7.5),
    ]
    session = serve(
        d.looking_up([FIRST], [5]),
        *(d.reading([5], wire.read_block(wire.typed(kind, sent))) for kind, sent, _ in values),
        d.reading([5], wire.read_block(wire.typed(wire.VT_NULL))),
    )
    for _, _, value in values:
        assert read(session.boiler, FIRST) == value
    with pytest.raises(SystemError):
        read(session.boiler, FIRST)


# Addresses.


def test_addresses_go_out_in_order_as_driver_id_and_position(serve: Serve) -> None:
    asked = b"H\x03\x00" + b"\x01\x00\x0f\x00" + b"\x01\x00\x00\x00" + b"\x01\x00\x0a\x00"
    session = serve(
        d.looking_up(["a", "b", "c"], [15, 0, 10], driver=1),
        d.want("req", asked) + d.send("req", wire.read_block(NUMBERS)),
    )
    assert read(session.station, "a,b,c") == [50, 30, 40]


def names_and_positions(count: int) -> tuple[list[str], list[int]]:
    return [f"T{number}" for number in range(count)], [count - 1 - number for number in range(count)]


@pytest.mark.parametrize("count", [2, 1022, 1023])
def test_up_to_1023_tags_are_read_at_once(serve: Serve, count: int) -> None:
    names, positions = names_and_positions(count)
    numbers = [7 * position for position in positions]
    session = serve(d.looking_up_all(names, positions), d.reading_numbers(positions, numbers))
    assert read(session.boiler, ",".join(names)) == numbers


def test_tags_beyond_1023_keep_the_value_they_had(serve: Serve) -> None:
    names, positions = names_and_positions(1030)
    numbers = list(range(1023))
    asked = d.reading_numbers(positions[:1023], numbers)
    session = serve(
        d.looking_up_all(names, positions),
        asked,
        d.reading(positions[1025:1027], wire.read_block(NUMBERS[:2])),
        asked,
    )
    assert read(session.boiler, ",".join(names)) == numbers + [UNSET] * 7
    assert read(session.boiler, ",".join(names[1025:1027])) == [50, 30]
    assert read(session.boiler, ",".join(names)) == [*numbers, UNSET, UNSET, 50, 30, UNSET, UNSET, UNSET]


def test_1023_tags_are_counted_without_unknown_ones(serve: Serve) -> None:
    names, positions = names_and_positions(1025)
    positions[0] = positions[500] = 0xFFFF
    known = [position for position in positions if position != 0xFFFF]
    numbers = list(range(1023))
    session = serve(d.looking_up_all(names, positions), d.reading_numbers(known, numbers))
    assert read(session.boiler, ",".join(names)) == [UNSET, *numbers[:499], UNSET, *numbers[499:]]


# Blocks.


def test_several_blocks_are_one_reply(serve: Serve) -> None:
    blocks = [wire.read_block([NUMBERS[0]], more=True), wire.read_block([NUMBERS[1]], more=True)]
    session = three_tags(serve, *blocks, wire.read_block([NUMBERS[2]]))
    assert read(session.boiler, THREE) == [50, 30, 40]


def test_blocks_may_come_in_pieces(serve: Serve) -> None:
    # A header comes in one piece, as the server sends it; what is behind it may come as it likes.
    texts = [wire.typed(wire.VT_STR, b"text %d" % number) for number in range(3)]
    blocks = [wire.read_block(texts[:2], more=True), wire.read_block(texts[2:])]
    pieces = [step for block in blocks for step in [*d.send("req", block[:4]), *d.trickle("req", block[4:])]]
    request = wire.read_request([(0, 5), (0, 3), (0, 4)])
    session = serve(d.looking_up([FIRST, SECOND, THIRD], [5, 3, 4]), d.want("req", request) + pieces)
    assert read(session.boiler, THREE) == ["text 0", "text 1", "text 2"]


def test_an_empty_block_that_goes_on_is_walked_past(serve: Serve) -> None:
    empty = wire.read_block([], more=True)
    session = three_tags(
        serve, *[empty] * 100, wire.read_block(NUMBERS[:2], more=True), empty, wire.read_block(NUMBERS[2:])
    )
    assert read(session.boiler, THREE) == [50, 30, 40]


def test_a_reply_that_ends_early_leaves_the_rest_as_it_was(serve: Serve) -> None:
    session = three_tags(
        serve,
        wire.read_block(NUMBERS),
        then=d.reading([5, 3, 4], wire.read_block([wire.typed(wire.VT_I4, 51)]))
        + d.reading([5, 3, 4], wire.read_block([])),
    )
    assert read(session.boiler, THREE) == [50, 30, 40]
    assert read(session.boiler, THREE) == [51, 30, 40]
    assert read(session.boiler, THREE) == [51, 30, 40]


def test_a_reply_without_values_leaves_tags_without_values(serve: Serve) -> None:
    session = three_tags(serve, wire.read_block([]))
    assert read(session.boiler, THREE) == [UNSET, UNSET, UNSET]


def test_values_beyond_the_requested_ones_are_for_nobody(serve: Serve) -> None:
    session = three_tags(
        serve,
        wire.read_block([*NUMBERS, wire.typed(wire.VT_I4, 666), wire.typed(wire.VT_STR, b"x" * 1000)]),
        then=d.reading_numbers([5, 3, 4], [51, 31, 41]),
    )
    assert read(session.boiler, THREE) == [50, 30, 40]
    assert read(session.boiler, THREE) == [51, 31, 41]


def test_a_block_of_4096_bytes_is_read(serve: Serve) -> None:
    block = wire.read_block(wire.typed(wire.VT_STR, b"x" * 4093))
    assert len(block) == 4 + wire.BLOCK_LIMIT
    assert one_tag(serve, block) == "x" * 4093


@pytest.mark.parametrize("size", [4097, 5000, 65535])
def test_a_block_longer_than_4096_bytes_fails_the_read(serve: Serve, size: int) -> None:
    assert one_tag(serve, wire.read_block(wire.typed(wire.VT_STR, b"x" * (size - 3)))) is None


CUT_SHORT = {
    "half a type word": b"\x03",
    "no payload": b"\x03\x00",
    "half a payload": b"\x03\x00\x07\x00",
    "one byte short": b"\x05\x00" + bytes(7),
    "a byte without its byte": b"\x0b\x00",
    "a text without an end": b"\x08\x00text",
    "a text without anything": b"\x08\x00",
    "a long text without an end": b"\x08\x00" + b"x" * 4094,
}


@pytest.mark.parametrize("cut", CUT_SHORT.values(), ids=CUT_SHORT)
def test_a_value_that_runs_past_its_block_fails_the_read(serve: Serve, cut: bytes) -> None:
    assert one_tag(serve, wire.read_block(cut)) is None


@pytest.mark.parametrize("cut", CUT_SHORT.values(), ids=CUT_SHORT)
def test_a_later_value_that_runs_past_its_block_fails_the_read(serve: Serve, cut: bytes) -> None:
    if len(cut) > 4000:
        cut = cut[:4000]
    session = three_tags(serve, wire.read_block(NUMBERS[0] + cut), then=d.reading_numbers([5, 3, 4], [51, 31, 41]))
    assert read(session.boiler, THREE) is None
    assert read(session.boiler, THREE) == [51, 31, 41]


def test_a_value_does_not_reach_into_the_next_block(serve: Serve) -> None:
    whole = wire.typed(wire.VT_I4, 7)
    assert one_tag(serve, wire.read_block(whole[:3], more=True), wire.read_block(whole[3:])) is None


def test_an_array_leaves_no_value(serve: Serve) -> None:
    # Its elements stay in the block behind its type word and are for nobody, being behind the last requested value.
    array = struct.pack("<HH", wire.VT_ARRAY, 2) + wire.typed(wire.VT_I4, 1) + wire.typed(wire.VT_I4, 2)
    with pytest.raises(SystemError):
        one_tag(serve, wire.read_block(array))
