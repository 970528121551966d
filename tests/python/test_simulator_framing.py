"""Requests that reach the simulator in pieces, or several in one segment: the answers must not depend on it."""

from __future__ import annotations

import struct
from collections.abc import Callable

import pytest
from conftest import Simulator
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from sim_wire import (
    Line,
    RawClient,
    advise_request,
    in_pieces,
    login_request,
    lookup_request,
    new_id,
    open_request,
    parse_registered,
    read_request,
    register_request,
    typed,
    write_request,
)

Simulators = Callable[..., Simulator]

PROJECT = """
[project]
time = 2024-05-06T07:08:09Z
[[user]]
name = "operator"
password = "demo"
rights = 0x08
[[driver]]
name = "D"
[[driver.tag]]
name = "T%d"
type = "i4"
count = 1000
[[driver.tag]]
name = "Text"
type = "str"
value = "old"
[[driver]]
name = "E"
[[driver.tag]]
name = "T0"
type = "r8"
value = 0.5
"""

LOGIN = (login_request("operator", "demo"), b"9" + bytes(4) + b"\x08\0\0\0")
PATHS = (b"3", b"3/srv/demo/\0/srv/demo/RecData/Event/\0/srv/demo/RecData/Alarm2/\0/srv/demo/RecData/Hist/\0")
LOOKUP = (
    lookup_request((0, "T7"), (1, "T0"), (0, "Nobody"), (0, "T999")),
    b"L" + struct.pack("<8H", 7, 0, 0, 0, 0xFFFF, 0, 999, 0),
)
LOOKUP_ONE = (lookup_request((1, "T0")), b"L" + bytes(4))
RELEASE = (b"d" + bytes(8), b"d")
READ = (read_request([(0, 5), (1, 0)]), b"H\0\x10\0" + typed(3, 0) + typed(5, 0.5))
ADVISE = (advise_request([(0, 1000), (0, 1)]), b"b\x0c\0" + typed(8, "old") + typed(3, 0))
WRITE = (write_request(((0, 9), typed(3, 1)), ((0, 9), typed(3, 0)), ((1, 0), typed(5, 0.5))), b"")
WRITE_NONE = (write_request(), b"")
ALARMS = (b"n", b"n\0\0")
DOWNLOAD = (
    b"4RecData/taglist\r\nHello:Yes\r\n\r\n",
    b"FileName:RecData/taglist\r\nFileTime:663881D9\r\nSize:0\r\n\r\n",
)
ABSENT = (b"4no\r\nLastTime:1\r\nSize:2\r\nHello:Yes\r\n\r\n", b"Exist:No\r\n\r\n")
ALL = [LOGIN, PATHS, LOOKUP, LOOKUP_ONE, RELEASE, READ, ADVISE, WRITE, WRITE_NONE, ALARMS, DOWNLOAD, ABSENT]


@pytest.fixture
def address(simulator: Simulators) -> tuple[str, int]:
    return "127.0.0.1", simulator(PROJECT, "--quiet").port


@pytest.mark.parametrize(("request_bytes", "reply"), ALL)
@pytest.mark.parametrize("size", [1, 2, 3])
def test_every_request_may_arrive_in_pieces(
    address: tuple[str, int], request_bytes: bytes, reply: bytes, size: int
) -> None:
    with RawClient(address) as client:
        client.ask.send_slowly(request_bytes, size)
        client.ask.want(reply)
        client.ask.send(ALARMS[0])
        client.ask.want(ALARMS[1])


def test_all_requests_may_arrive_in_one_segment(address: tuple[str, int]) -> None:
    # In every order of neighbours: what follows a look-up, which has no end of its own, matters most.
    sequence = [one for first in ALL for second in ALL for one in (first, second)]
    with RawClient(address) as client:
        client.ask.send(b"".join(request for request, _ in sequence))
        client.ask.want(b"".join(reply for _, reply in sequence))
        assert client.ask.is_quiet()


@pytest.mark.bulk
@settings(max_examples=150, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(
    sequence=st.lists(st.sampled_from(ALL), min_size=1, max_size=12),
    sizes=st.lists(st.integers(1, 60), min_size=1, max_size=6),
)
def test_any_sequence_may_be_cut_anywhere(
    address: tuple[str, int], sequence: list[tuple[bytes, bytes]], sizes: list[int]
) -> None:
    with RawClient(address) as client:
        for piece in in_pieces(b"".join(request for request, _ in sequence), sizes):
            client.ask.send(piece)
        client.ask.want(b"".join(reply for _, reply in sequence))
        assert client.ask.is_quiet(0.01)


def test_a_lookup_that_pauses_between_two_names_is_answered_as_one(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        client.ask.send(lookup_request((0, "T1"), (0, "T2")))
        client.ask.want(b"L" + struct.pack("<4H", 1, 0, 2, 0))
        client.ask.send(lookup_request((0, "T3"), (1, "T0"))[1:])
        client.ask.want(struct.pack("<4H", 3, 0, 0, 0))
        client.ask.send(lookup_request((0, "T4")))
        client.ask.want(b"L" + struct.pack("<2H", 4, 0))


def test_a_lookup_waits_for_the_rest_of_a_name(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        request = lookup_request((0, "T12"), (0, "T345"))
        client.ask.send(request[:-2])
        assert client.ask.is_quiet()
        client.ask.send(request[-2:])
        client.ask.want(b"L" + struct.pack("<4H", 12, 0, 345, 0))


def test_a_lookup_may_hold_hundreds_of_names(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        assert client.find(*((0, f"T{number}") for number in range(1000))) == list(range(1000))


def test_drivers_may_have_ids_that_look_like_commands(simulator: Simulators) -> None:
    drivers = "".join(
        f'[[driver]]\nname = "D{n}"\n[[driver.tag]]\nname = "A"\n[[driver.tag]]\nname = "B"\n' for n in range(120)
    )
    with RawClient(("127.0.0.1", simulator(drivers, "--quiet").port)) as client:
        assert client.find(*((driver, name) for driver in range(120) for name in "AB")) == [0, 1] * 120
        for driver in range(120):
            assert client.find((driver, "B")) == [1]


@pytest.mark.parametrize("size", [1, 5, 1000])
def test_the_handshake_may_arrive_in_pieces_or_with_what_follows(address: tuple[str, int], size: int) -> None:
    ident = new_id()
    with Line(address) as ask, Line(address) as hear:
        ask.send_slowly(open_request(ident) + login_request("operator", "demo") + ALARMS[0], size)
        ask.want(b"7" + LOGIN[1] + ALARMS[1])
        hear.send_slowly(register_request(ident), size)
        assert parse_registered(hear.take_once(512)).project == "demo"


@pytest.mark.parametrize("length", range(1, 30))
def test_a_host_name_of_any_length_may_be_registered(address: tuple[str, int], length: int) -> None:
    # The end of the scrambled record lies at each place of its last group once.
    ident = new_id()
    with Line(address) as ask, Line(address) as hear:
        ask.send(open_request(ident))
        ask.want(b"7")
        request = register_request(ident, b"h" * length)
        hear.send(request[:-1])
        assert hear.is_quiet(0.02)
        hear.send(request[-1:])
        parse_registered(hear.take_once(512))


@pytest.mark.parametrize("pieces", [1, 5, 16])
def test_a_reply_in_pieces_begins_with_its_whole_head(simulator: Simulators, pieces: int) -> None:
    project = f"[server]\npieces = {pieces}\npiece_gap_ms = 1500\n" + PROJECT
    with RawClient(("127.0.0.1", simulator(project, "--quiet").port)) as client:
        client.ask.send(READ[0])
        assert client.ask.take_once() == READ[1][: max(4, pieces)]  # the next piece is far off
        assert client.ask.take_once() == READ[1][max(4, pieces) :][:pieces]


@pytest.mark.parametrize(("pieces", "gap_ms"), [(1, 8), (5, 40), (64, 600)])
def test_replies_and_changes_can_be_sent_in_pieces(simulator: Simulators, pieces: int, gap_ms: int) -> None:
    # The gaps add up to more than a second: only a test that stands still for so long finds all in one piece.
    project = f"[server]\npieces = {pieces}\npiece_gap_ms = {gap_ms}\nsubscribe_hold_ms = 0\n" + PROJECT
    with RawClient(("127.0.0.1", simulator(project, "--quiet").port)) as client:
        client.ask.send(READ[0])
        client.ask.want(READ[1])
        client.advise([(0, 0)])
        client.write(*(((0, 0), typed(3, number)) for number in range(1, 20)))
        stream = b"".join(struct.pack("<HHi", 0, 0, number) for number in range(1, 20))
        longest = 0
        while stream:
            got = client.hear.take_once()
            assert stream.startswith(got)
            stream = stream[len(got) :]
            longest = max(longest, len(got))
        assert longest < 19 * 8  # it was cut


def test_a_reply_can_be_late(simulator: Simulators) -> None:
    project = "[server]\nreply_delay_ms = 1500\n" + PROJECT
    with RawClient(("127.0.0.1", simulator(project).port)) as client:
        client.ask.send(ALARMS[0] + RELEASE[0])
        assert client.ask.is_quiet(0.3)
        client.ask.want(ALARMS[1])
        assert client.ask.is_quiet(0.3)
        client.ask.want(RELEASE[1])
