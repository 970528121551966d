"""How a list of tag names is resolved: which names are sent, in which requests, what is remembered, in which order."""

from __future__ import annotations

import dialogue as d
import pytest
import wire
from client import UNSET, read
from conftest import Serve

NUMBER_OF_TAGS = 2000  # of the driver Boiler


def test_one_new_name_is_one_request(serve: Serve) -> None:
    session = serve(d.looking_up(["T"], [3]), d.reading_numbers([3], [7]))
    assert read(session.boiler, "T") == 7


def test_several_new_names_share_a_request_and_keep_their_order(serve: Serve) -> None:
    session = serve(d.looking_up(["A", "B", "C"], [5, 3, 4]), d.reading_numbers([5, 3, 4], [50, 30, 40]))
    assert read(session.boiler, "A,B,C") == [50, 30, 40]


def test_a_known_name_is_not_asked_again(serve: Serve) -> None:
    session = serve(
        d.looking_up(["A", "B"], [5, 3]),
        d.reading_numbers([5, 3], [50, 30]),
        d.reading_numbers([3, 5], [31, 51]),
        d.reading_numbers([5], [52]),
    )
    assert read(session.boiler, "A,B") == [50, 30]
    assert read(session.boiler, "B,A") == [31, 51]
    assert read(session.boiler, "A") == 52


@pytest.mark.parametrize("position", [0xFFFF, NUMBER_OF_TAGS, NUMBER_OF_TAGS + 1, 0x8000])
def test_an_unknown_name_is_asked_once_and_never_again(serve: Serve, position: int) -> None:
    session = serve(d.looking_up(["nothing"], [position]))
    for _ in range(3):
        assert read(session.boiler, "nothing") is None


def test_the_last_position_of_the_table_is_a_tag(serve: Serve) -> None:
    last = NUMBER_OF_TAGS - 1
    session = serve(d.looking_up(["T"], [last]), d.reading_numbers([last], [7]))
    assert read(session.boiler, "T") == 7


def test_only_the_first_two_bytes_of_an_answer_count(serve: Serve) -> None:
    reply = b"L" + b"\x03\x00\xff\xff" + b"\x04\x00\x00\x00"
    session = serve(
        d.want("req", wire.lookup_request(0, ["A", "B"])) + d.send("req", reply),
        d.reading_numbers([3, 4], [30, 40]),
    )
    assert read(session.boiler, "A,B") == [30, 40]


def test_unknown_names_leave_unset_items_and_are_not_read(serve: Serve) -> None:
    session = serve(d.looking_up(["A", "no", "B"], [5, 0xFFFF, 3]), d.reading_numbers([5, 3], [50, 30]))
    assert read(session.boiler, "A,no,B") == [50, UNSET, 30]


def test_a_list_of_unknown_names_is_a_list_of_unset_items(serve: Serve) -> None:
    session = serve(d.looking_up(["x", "y"], [0xFFFF, 0xFFFF]))
    for _ in range(2):
        assert read(session.boiler, "x,y") == [UNSET, UNSET]


@pytest.mark.parametrize("names", ["", ",", ",,,,"])
def test_no_names_are_no_value_and_no_traffic(serve: Serve, names: str) -> None:
    session = serve()
    assert read(session.boiler, names) is None


@pytest.mark.parametrize("names", [" ", "    ", ", ,", "  ,"])
def test_a_blank_is_an_entry_without_a_tag(serve: Serve, names: str) -> None:
    session = serve()
    assert read(session.boiler, names) is None


def test_several_blanks_are_a_list_of_unset_items(serve: Serve) -> None:
    session = serve()
    assert read(session.boiler, " , ,  ") == [UNSET, UNSET, UNSET]


@pytest.mark.parametrize("names", ["A,B", " A , B ", "   A,B   ", ",,A,,,B,,", "A,,B", ",A ,  B"])
def test_blanks_around_names_and_repeated_commas_do_not_count(serve: Serve, names: str) -> None:
    session = serve(d.looking_up(["A", "B"], [5, 3]), d.reading_numbers([5, 3], [50, 30]))
    assert read(session.boiler, names) == [50, 30]


@pytest.mark.parametrize("name", ["a b", "\tT", "T\t", "\nT", "a.b[1]:c", "a;b", "\u3000T"])
def test_everything_but_blanks_and_commas_belongs_to_a_name(serve: Serve, name: str) -> None:
    session = serve(d.looking_up([name], [3]), d.reading_numbers([3], [7]))
    assert read(session.boiler, f" {name} ") == 7


def test_a_blank_between_two_commas_comes_before_names_that_must_be_asked(serve: Serve) -> None:
    session = serve(
        d.looking_up(["A", "B"], [5, 3]),
        d.reading_numbers([5, 3], [50, 30]),
        d.reading_numbers([5, 3], [51, 31]),
    )
    assert read(session.boiler, "A, ,B") == [UNSET, 50, 30]
    assert read(session.boiler, "A, ,B") == [51, UNSET, 31]


def test_known_names_come_before_names_that_must_be_asked(serve: Serve) -> None:
    session = serve(
        d.looking_up(["B", "no"], [3, 0xFFFF]),
        d.reading_numbers([3], [30]),
        d.looking_up(["A", "C"], [5, 4]),
        d.reading_numbers([3, 5, 4], [31, 51, 41]),
        d.reading_numbers([5, 3, 4], [52, 32, 42]),
    )
    assert read(session.boiler, "B,no") == [30, UNSET]
    assert read(session.boiler, "A,B,no,C") == [31, UNSET, 51, 41]
    assert read(session.boiler, "A,B,no,C") == [52, 32, UNSET, 42]


def test_a_name_given_twice_is_asked_twice_and_gives_two_items(serve: Serve) -> None:
    session = serve(
        d.looking_up(["A", "A"], [5, 5]),
        d.reading_numbers([5, 5], [50, 51]),
        d.reading_numbers([5, 5], [52, 53]),
    )
    # Both items are the one tag's value, which is the last that came.
    assert read(session.boiler, "A,A") == [51, 51]
    assert read(session.boiler, "A,A") == [53, 53]


def test_two_names_may_be_one_tag(serve: Serve) -> None:
    session = serve(d.looking_up(["A", "alias"], [5, 5]), d.reading_numbers([5, 5], [50, 51]))
    assert read(session.boiler, "A,alias") == [51, 51]


def test_names_are_exact_to_the_byte(serve: Serve) -> None:
    session = serve(
        d.looking_up(["Tag"], [3]) + d.reading_numbers([3], [30]),
        d.looking_up(["tag"], [4]) + d.reading_numbers([4], [40]),
        d.looking_up(["Tag1"], [5]) + d.reading_numbers([5], [50]),
    )
    assert [read(session.boiler, name) for name in ("Tag", "tag", "Tag1")] == [30, 40, 50]


def test_each_driver_asks_and_remembers_for_itself(serve: Serve) -> None:
    session = serve(
        d.looking_up(["T"], [3]) + d.reading_numbers([3], [30]),
        d.looking_up(["T"], [9], driver=1) + d.reading_numbers([9], [90], driver=1),
        d.reading_numbers([3], [31]) + d.reading_numbers([9], [91], driver=1),
    )
    assert (read(session.boiler, "T"), read(session.station, "T")) == (30, 90)
    assert (read(session.boiler, "T"), read(session.station, "T")) == (31, 91)


def test_chinese_names_travel_in_gb2312(serve: Serve) -> None:
    asked = b"L\x01\x00\xb3\xf6\xbf\xda\xd1\xb9\xc1\xa6\x00"
    session = serve(
        d.want("req", asked) + d.send("req", wire.lookup_reply([3])),
        d.reading_numbers([3], [7], driver=1),
        d.looking_up(["1#泵，流量（m3/h）", "Ω"], [4, 5], driver=1),
        d.reading_numbers([4, 5], [8, 9], driver=1),
    )
    assert read(session.station, "出口压力") == 7
    assert read(session.station, "1#泵，流量（m3/h）, Ω") == [8, 9]


@pytest.mark.parametrize("name", ["T\U0001f600x", "Tñ", "T\u00a0", "T龘,U"])
def test_a_name_is_cut_at_a_character_that_gb2312_lacks(
    serve: Serve, capfd: pytest.CaptureFixture[str], name: str
) -> None:
    session = serve(d.looking_up(["T"], [3]), d.reading_numbers([3], [7]))
    assert read(session.boiler, name) == 7
    assert capfd.readouterr().err.startswith("FromUtf8:iconv::")


def test_new_names_share_as_few_requests_as_hold_them(serve: Serve) -> None:
    names = [f"T{number:04}" for number in range(1000)]
    positions = list(range(999, -1, -1))
    numbers = list(range(1000))
    session = serve(d.looking_up_all(names, positions), d.reading_numbers(positions, numbers))
    assert read(session.boiler, ",".join(names)) == numbers


@pytest.mark.parametrize("size", [*range(1, 12), 120, 253, 254, 381, 382, 383, 763, 764])
def test_names_of_every_size_fill_their_requests(serve: Serve, size: int) -> None:
    names = [f"{number:0{size}}" for number in range(10 if size in (1, *range(100, 765)) else 99)]
    positions = list(range(len(names)))
    session = serve(d.looking_up_all(names, positions), d.reading_numbers(positions, positions))
    assert read(session.boiler, ",".join(names)) == positions


def test_a_request_of_exactly_768_bytes_is_sent_whole(serve: Serve) -> None:
    names = ["x" * 600, "y" * (764 - 600 - 3), "z"]
    assert wire.lookup_groups(names) == [names[:2], names[2:]]
    session = serve(d.looking_up_all(names, [1, 2, 3]), d.reading_numbers([1, 2, 3], [10, 20, 30]))
    assert read(session.boiler, ",".join(names)) == [10, 20, 30]


def test_names_met_before_a_full_request_come_first(serve: Serve) -> None:
    # The full request is flushed before the known name behind it is met.
    names = ["x" * 500, "y" * 500, "z"]
    session = serve(
        d.looking_up(["K"], [9]) + d.reading_numbers([9], [90]),
        d.looking_up(names[:1], [1]) + d.looking_up(names[1:], [2, 3]),
        d.reading_numbers([1, 9, 2, 3], [10, 91, 20, 30]),
    )
    assert read(session.boiler, "K") == 90
    assert read(session.boiler, ",".join([names[0], names[1], "K", names[2]])) == [10, 91, 20, 30]


@pytest.mark.parametrize("size", [765, 766, 1000, 70_000])
def test_a_name_that_fits_no_request_is_an_entry_without_a_tag(serve: Serve, size: int) -> None:
    session = serve(
        d.looking_up(["A"], [5]) + d.reading_numbers([5], [50]),
        d.reading_numbers([5, 5], [51, 52]),
    )
    long = "x" * size
    assert read(session.boiler, long) is None
    assert read(session.boiler, "A") == 50
    assert read(session.boiler, f"A,{long},A") == [52, UNSET, 52]
    assert read(session.boiler, long) is None


def test_the_length_of_a_name_counts_in_gb2312(serve: Serve) -> None:
    fits = "泵" * 382  # 764 bytes; as UTF-8 it would not fit
    session = serve(d.looking_up([fits], [3]), d.reading_numbers([3], [7]))
    assert read(session.boiler, fits) == 7
    assert read(session.boiler, fits + "x") is None


def test_a_reply_in_pieces_is_read_whole(serve: Serve) -> None:
    names = [f"T{number}" for number in range(20)]
    asked = d.want("req", wire.lookup_request(0, names)) + d.trickle("req", wire.lookup_reply(range(20)))
    session = serve(asked, d.reading_numbers(list(range(20)), range(100, 120)))
    assert read(session.boiler, ",".join(names)) == list(range(100, 120))


def test_names_of_a_failed_lookup_are_asked_again(serve: Serve) -> None:
    names = ["x" * 500, "y" * 500]
    refused = d.want("req", wire.lookup_request(0, names[1:])) + d.send("req", b"0" + bytes(4))
    session = serve(
        d.looking_up(names[:1], [1]) + refused,
        d.looking_up(names[1:], [2]) + d.reading_numbers([1, 2], [10, 20]),
    )
    assert read(session.boiler, ",".join(names)) is None
    # What the first of the two requests told is known.
    assert read(session.boiler, ",".join(names)) == [10, 20]
