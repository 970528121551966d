"""The simulator's side of the wire, byte for byte: handshake, login, look-up, reading, writing, subscribing, alarms."""

from __future__ import annotations

import struct
import time
from collections.abc import Callable

import pytest
from conftest import Simulator
from sim_wire import (
    Address,
    Line,
    RawClient,
    advise_request,
    login_request,
    lookup_request,
    new_id,
    open_request,
    parse_registered,
    read_request,
    register_request,
    typed,
    unscramble,
    write_request,
)

Simulators = Callable[..., Simulator]

PROJECT = """
[project]
name = "泵房"
title = "第二行"
time = 2024-05-06T07:08:09Z
project_path = "/plant/泵房/"
event_path = "/plant/e/"
alarm_path = "/plant/a/"
history_path = "/plant/h/"

[[user]]
name = "operator"
password = "demo"
rights = 0x08
[[user]]
name = "观察员"
password = "geheim ü"
rights = 0x80000004

[[driver]]
name = "Line1"
[[driver.tag]]
name = "A"
type = "i4"
value = 42
[[driver.tag]]
name = "温度"
type = "r8"
value = 1.5
[[driver.tag]]
name = "Text"
type = "str"
value = "水 ü 🙂"
[[driver.tag]]
name = "Fixed"
type = "i4"
value = 7
motion = { kind = "constant" }
[[driver.tag]]
name = "Follower"
type = "i2"
period_ms = 20
motion = { kind = "echo", of = "A" }
[[driver.tag]]
name = "Nothing"
type = "empty"

[[driver]]
name = "二号线"
[[driver.tag]]
name = "A"
type = "bool"
value = true
"""

A: Address = (0, 0)
TEMPERATURE: Address = (0, 1)
TEXT: Address = (0, 2)
FIXED: Address = (0, 3)
FOLLOWER: Address = (0, 4)
NOTHING: Address = (0, 5)
SECOND_A: Address = (1, 0)


@pytest.fixture
def address(simulator: Simulators) -> tuple[str, int]:
    """Of a simulator that serves the project above."""
    return "127.0.0.1", simulator(PROJECT).port


def other(simulator: Simulators, text: str) -> tuple[str, int]:
    return "127.0.0.1", simulator(text).port


# Handshake.


def test_an_open_request_is_answered_with_its_command_byte_alone(address: tuple[str, int]) -> None:
    with Line(address) as line:
        line.send(open_request(new_id()))
        line.want(b"7")
        assert line.is_quiet()


def test_the_register_reply_names_project_title_and_directory(address: tuple[str, int]) -> None:
    ident = new_id()
    with Line(address) as ask, Line(address) as hear:
        ask.send(open_request(ident))
        ask.want(b"7")
        hear.send(register_request(ident))
        coded = hear.take_once(512)
        plain = unscramble(coded)
        directory = b"Line1" + bytes([0, 0, 0, 6, 0]) + "二号线".encode("gb2312") + bytes([0, 1, 0, 1, 0])
        moment = struct.pack(">II", 1714979289, len(directory))
        assert plain == b"8" + bytes(50) + moment + "泵房".encode("gb2312") + b"\0" + "第二行".encode("gb2312") + b"\0"
        assert hear.is_quiet()
        ask.send(login_request("operator", "demo"))
        ask.want(b"9" + bytes(4) + b"\x08\0\0\0")
        ask.send(b"4RecData/drvinfo.dat\r\nHello:Yes\r\n\r\n")
        ask.want(b"FileName:RecData/drvinfo.dat\r\nFileTime:663881D9\r\nSize:15\r\n\r\n" + directory)


def test_the_flag_of_the_register_reply_can_be_chosen(simulator: Simulators) -> None:
    with RawClient(other(simulator, "[server]\nregister_flag = 16")) as client:
        assert client.registered.record[21] == 16


def test_a_register_request_without_an_open_one_is_refused_scrambled(address: tuple[str, int]) -> None:
    with Line(address) as line:
        line.send(register_request(new_id()))
        coded = line.take(2)
        assert unscramble(coded) == b"0"
        assert line.is_quiet()


def test_a_client_registers_once(address: tuple[str, int]) -> None:
    with RawClient(address) as client, Line(address) as again:
        again.send(register_request(client.ident))
        assert unscramble(again.take(2)) == b"0"


def test_a_closed_request_connection_can_no_longer_be_registered_with(address: tuple[str, int]) -> None:
    ident = new_id()
    with Line(address) as ask:
        ask.send(open_request(ident))
        ask.want(b"7")
    RawClient(address).close()  # the simulator has seen the end by now
    with Line(address) as hear:
        hear.send(register_request(ident))
        assert unscramble(hear.take_once(512)) == b"0"


@pytest.mark.parametrize("stage", ["open", "register"])
def test_a_project_can_refuse_either_request(simulator: Simulators, stage: str) -> None:
    where = other(simulator, f'[server]\nrefuse = "{stage}"')
    ident = new_id()
    with Line(where) as ask, Line(where) as hear:
        ask.send(open_request(ident))
        ask.want(b"0" if stage == "open" else b"7")
        hear.send(register_request(ident))
        assert unscramble(hear.take(2)) == b"0"


def test_clients_with_one_identifier_are_told_apart(address: tuple[str, int]) -> None:
    # Clients that start in the same second make the same identifier.
    ident = new_id()
    asks = [Line(address) for _ in range(5)]
    hears = []
    try:
        for ask in asks:
            ask.send(open_request(ident))
        for number in range(len(asks)):
            # Only the one whose turn it is has been answered; which one that is, the server's machine decides.
            waiting = asks[number:]
            turn = Line.first_heard(waiting)
            waiting.remove(turn)
            asks[number:] = [turn, *waiting]
            turn.want(b"7")
            assert all(later.is_quiet(0.02) for later in waiting)
            hear = Line(address)
            hears.append(hear)
            hear.send(register_request(ident))
            parse_registered(hear.take_once(512))
        for number, (ask, hear) in enumerate(zip(asks, hears)):
            ask.send(login_request("operator", "demo"))
            ask.take(9)
            ask.send(advise_request([A]))
            ask.take(3 + 6)
            ask.send(write_request((A, typed(3, number))))
            hear.want(struct.pack("<HHi", *A, number))
            for earlier in range(number):  # those before hear of it too, so each has its own
                hears[earlier].want(struct.pack("<HHi", *A, number))
    finally:
        for line in asks + hears:
            line.close()


def test_a_client_that_never_registers_does_not_keep_others_of_its_identifier_out(address: tuple[str, int]) -> None:
    ident = new_id()
    with Line(address) as idle:
        idle.send(open_request(ident))
        idle.want(b"7")
        with RawClient(address, ident=ident) as client:
            assert client.read([A]) == [(3, 42)]


# Login and project paths.


def test_the_login_reply_carries_the_users_rights(address: tuple[str, int]) -> None:
    with RawClient(address) as operator, RawClient(address, "观察员", "geheim ü") as viewer:
        assert (operator.rights, viewer.rights) == (0x08, 0x80000004)


@pytest.mark.parametrize(
    ("user", "password"), [("operator", "Demo"), ("Operator", "demo"), ("", ""), ("operator", ""), ("观察员", "demo")]
)
def test_a_wrong_name_or_password_is_refused(address: tuple[str, int], user: str, password: str) -> None:
    with Line(address) as line:
        line.send(open_request(new_id()))
        line.want(b"7")
        line.send(login_request(user, password))
        line.want(b"0")
        line.send(login_request("operator", "demo"))
        line.want(b"9" + bytes(4) + b"\x08\0\0\0")


def test_without_users_everybody_may_do_everything(simulator: Simulators) -> None:
    with RawClient(other(simulator, ""), "anybody", "anything") as client:
        assert client.rights == 0xFFFFFFFF


def test_requests_before_the_login_are_refused(address: tuple[str, int]) -> None:
    with Line(address) as line, RawClient(address) as client:
        line.send(open_request(new_id()))
        line.want(b"7")
        for request in (lookup_request((0, "A")), read_request([A]), advise_request([A]), b"n", b"d" + bytes(8)):
            line.send(request)
            line.want(b"0")
        line.send(write_request((A, typed(3, 1))))
        assert line.is_quiet()
        assert client.read([A]) == [(3, 42)]


def test_the_project_paths_are_told_before_the_login(address: tuple[str, int]) -> None:
    with Line(address) as line:
        line.send(open_request(new_id()))
        line.want(b"7")
        line.send(b"3")
        line.want(b"3" + "/plant/泵房/".encode("gb2312") + b"\0/plant/e/\0/plant/a/\0/plant/h/\0")
        assert line.is_quiet()


# Look-up and release.


def test_one_name_is_looked_up(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        client.ask.send(b"L\x00\x00" + "温度".encode("gb2312") + b"\0")
        assert client.ask.take_once(16) == b"L\x01\x00\x00\x00"


def test_several_names_are_looked_up_at_once(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        client.ask.send(lookup_request((0, "Text"), (0, "no"), (1, "A"), (0, "A"), (0, "A"), (0, "a")))
        client.ask.want(b"L" + b"".join(struct.pack("<HH", position, 0) for position in (2, 0xFFFF, 0, 0, 0, 0xFFFF)))
        assert client.ask.is_quiet()


def test_a_driver_that_is_not_there_has_no_tags(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        assert client.find((2, "A")) == [0xFFFF]
        assert client.find((0xFFFF, "A")) == [0xFFFF]


def test_a_handle_is_released(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        client.ask.send(b"d" + struct.pack("<q", -2))
        client.ask.want(b"d")
        assert client.ask.is_quiet()


# Reading.


def test_values_are_read_in_the_order_of_the_request(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        client.ask.send(read_request([TEXT, A, SECOND_A, TEMPERATURE, A]))
        text = "水 ü 🙂".encode() + b"\0"
        body = b"\x08\0" + text + b"\x03\0\x2a\0\0\0" + b"\x0b\0\x01" + b"\x05\0" + struct.pack("<d", 1.5)
        body += b"\x03\0\x2a\0\0\0"
        client.ask.want(b"H\0" + struct.pack("<H", len(body)) + body)
        assert client.ask.is_quiet()


def test_what_has_no_value_is_read_as_an_empty_one(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        client.ask.send(read_request([NOTHING, (0, 6), (2, 0), (0xFFFF, 0xFFFF), SECOND_A]))
        client.ask.want(b"H\0\x0b\0" + bytes(8) + b"\x0b\0\x01")


def test_no_tags_are_answered_with_an_empty_block(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        client.ask.send(read_request([]))
        client.ask.want(b"H\0\0\0")


TYPES: list[tuple[str, int, str, float | str]] = [
    ("i2", 2, "-32768", -32768),
    ("i4", 3, "-2147483648", -2147483648),
    ("r4", 4, "0.25", 0.25),
    ("r8", 5, "-1e300", -1e300),
    ("date", 7, "2024-05-06T12:00:00", 45418.5),
    ("date", 7, "1899-12-30", 0.0),
    ("date", 7, "45418.25", 45418.25),
    ("str", 8, '"α"', "α"),
    ("str", 8, '""', ""),
    ("bool", 11, "true", 1),
    ("bool", 11, "false", 0),
    ("i1", 16, "-128", -128),
    ("ui1", 17, "255", 255),
    ("ui2", 18, "65535", 65535),
    ("ui4", 19, "0xFFFFFFFF", 0xFFFFFFFF),
    ("i8", 20, "-9223372036854775808", -(2**63)),
    ("int", 22, "-1", -1),
    ("uint", 23, "4294967295", 4294967295),
]


def test_every_type_of_value_is_read(simulator: Simulators) -> None:
    tags = "".join(
        f'[[driver.tag]]\nname = "T{number}"\ntype = "{name}"\nvalue = {text}\n'
        for number, (name, _, text, _) in enumerate(TYPES)
    )
    with RawClient(other(simulator, f'[[driver]]\nname = "D"\n{tags}')) as client:
        body = b"".join(typed(kind, value) for _, kind, _, value in TYPES)
        client.ask.send(read_request([(0, number) for number in range(len(TYPES))]))
        client.ask.want(b"H\0" + struct.pack("<H", len(body)) + body)


def test_a_tag_without_an_initial_value_starts_at_zero(simulator: Simulators) -> None:
    names = sorted({name for name, *_ in TYPES})
    tags = "".join(f'[[driver.tag]]\nname = "{name}"\ntype = "{name}"\n' for name in names)
    with RawClient(other(simulator, f'[[driver]]\nname = "D"\n{tags}')) as client:
        values = client.read([(0, number) for number in range(len(names))])
        assert [value for _, value in values] == ["" if name == "str" else 0 for name in names]


@pytest.mark.parametrize("size", [1, 7, 12, 13, 100, 4096])
def test_blocks_keep_to_their_size_and_never_cut_a_value(simulator: Simulators, size: int) -> None:
    project = f'[server]\nblock_size = {size}\n[[driver]]\nname = "D"\n' + (
        '[[driver.tag]]\nname = "R%d"\ntype = "r8"\nvalue = 2.5\ncount = 700\n'
        '[[driver.tag]]\nname = "S%d"\ntype = "str"\nvalue = "0123456789"\ncount = 300\n'
    )
    with RawClient(other(simulator, project)) as client:
        tags = [(0, number) for number in range(1000)]
        wanted: list[bytes] = [b""]
        for value in [typed(5, 2.5)] * 700 + [typed(8, "0123456789")] * 300:
            if wanted[-1] and len(wanted[-1]) + len(value) > size:
                wanted.append(b"")
            wanted[-1] += value
        assert client.read_blocks(tags) == wanted
        client.ask.send(advise_request(tags))
        client.ask.want(b"".join(b"b" + struct.pack("<H", len(block)) + block for block in wanted))
        assert client.ask.is_quiet()


# Writing.


def wait_for(client: RawClient, tag: Address, value: tuple[int, float | str | None]) -> None:
    """Until the tag has this value."""
    deadline = time.monotonic() + 20
    while (got := client.read([tag])) != [value]:
        assert time.monotonic() < deadline, f"{got}, not {value}"
        time.sleep(0.01)


def test_a_write_has_no_reply_and_changes_the_value(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        client.write((A, typed(3, -5)), (TEXT, typed(8, "阀门 open")), (SECOND_A, typed(11, 0)))
        assert client.read([A, TEXT, SECOND_A]) == [(3, -5), (8, "阀门 open"), (11, 0)]
        client.write()
        assert client.ask.is_quiet()


@pytest.mark.parametrize(
    ("tag", "kind", "value", "becomes"),
    [
        (A, 5, 12.9, (3, 12)),
        (A, 8, "17 bar", (3, 17)),
        (A, 11, 1, (3, 1)),
        (A, 20, 2**33 + 5, (3, 5)),
        (TEMPERATURE, 3, -7, (5, -7.0)),
        (TEMPERATURE, 4, 0.5, (5, 0.5)),
        (TEMPERATURE, 7, 2.25, (5, 2.25)),
        (TEMPERATURE, 8, "-1e3", (5, -1000.0)),
        (TEXT, 3, -7, (8, "-7")),
        (TEXT, 5, 0.25, (8, "0.25")),
        (TEXT, 8, "", (8, "")),
        (SECOND_A, 3, 2, (11, 1)),
        (SECOND_A, 3, 0, (11, 0)),
    ],
)
def test_a_written_value_becomes_one_of_the_tags_own_type(
    address: tuple[str, int], tag: Address, kind: int, value: float | str, becomes: tuple[int, float | str]
) -> None:
    with RawClient(address) as client:
        client.write((tag, typed(kind, value)))
        assert client.read([tag]) == [becomes]


def test_writes_that_cannot_be_are_ignored_and_the_others_done(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        client.write(
            (FIXED, typed(3, 8)),
            ((0, 6), typed(3, 8)),
            ((7, 0), typed(3, 8)),
            (NOTHING, typed(3, 8)),
            (A, typed(0)),
            (A, typed(1)),
            (TEMPERATURE, typed(3, 8)),
        )
        assert client.read([FIXED, NOTHING, A, TEMPERATURE]) == [(3, 7), (0, None), (3, 42), (5, 8.0)]


def test_without_the_right_to_write_nothing_is_written(address: tuple[str, int]) -> None:
    with RawClient(address, "观察员", "geheim ü") as client:
        client.write((A, typed(3, 1)))
        assert client.read([A]) == [(3, 42)]


def test_a_tag_follows_another(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        wait_for(client, FOLLOWER, (2, 42))
        client.write((A, typed(3, -300)))
        wait_for(client, FOLLOWER, (2, -300))


# Subscribing.


def test_a_subscription_gives_the_value_and_then_every_change(address: tuple[str, int]) -> None:
    with RawClient(address) as client, RawClient(address) as writer:
        client.ask.send(advise_request([A, TEXT, SECOND_A]))
        body = typed(3, 42) + typed(8, "水 ü 🙂") + typed(11, 1)
        client.ask.want(b"b" + struct.pack("<H", len(body)) + body)
        assert client.hear.is_quiet()
        writer.write((A, typed(3, 1)), (TEMPERATURE, typed(5, 9.0)), (TEXT, typed(8, "改")), (A, typed(3, 2)))
        writer.write((SECOND_A, typed(11, 0)), (A, typed(3, 2)), (A, typed(3, 3)))
        client.hear.want(
            b"\0\0\0\0\x01\0\0\0"
            + (b"\0\0\x02\0" + "改".encode() + b"\0")
            + b"\0\0\0\0\x02\0\0\0"
            + b"\x01\0\0\0\0"
            + b"\0\0\0\0\x03\0\0\0"
        )
        assert client.hear.is_quiet()
        assert writer.hear.is_quiet()


def test_a_client_hears_of_its_own_writes(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        client.advise([A])
        client.write((A, typed(3, 6)))
        client.hear.want(b"\0\0\0\0\x06\0\0\0")


def test_subscribing_twice_tells_each_change_once(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        assert client.advise([A, A]) == [(3, 42), (3, 42)]
        client.advise([A])
        client.write((A, typed(3, 6)))
        client.hear.want(b"\0\0\0\0\x06\0\0\0")
        assert client.hear.is_quiet()


def test_tags_without_value_are_subscribed_in_vain(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        assert client.advise([NOTHING, (0, 99), A, (9, 9)]) == [(0, None), (0, None), (3, 42), (0, None)]
        client.write((NOTHING, typed(3, 1)), ((0, 99), typed(3, 1)), (A, typed(3, 1)))
        client.hear.want(b"\0\0\0\0\x01\0\0\0")
        assert client.hear.is_quiet()


def test_a_change_does_not_overtake_the_reply_that_tells_its_type(simulator: Simulators) -> None:
    project = (
        "[server]\nsubscribe_hold_ms = 400\n"
        '[[driver]]\nname = "D"\n[[driver.tag]]\nname = "T"\ntype = "i4"\nperiod_ms = 5\n'
        'motion = { kind = "ramp", low = 0, high = 1000000000, step = 1 }\n'
    )
    with RawClient(other(simulator, project)) as client:
        started = time.monotonic()
        ((_, value),) = client.advise([(0, 0)])
        assert isinstance(value, int)
        for number in range(1, 100):  # nothing is lost meanwhile
            client.hear.want(struct.pack("<HHi", 0, 0, value + number))
        assert time.monotonic() - started >= 0.4


def test_subscriptions_outlive_the_request_connection_but_not_the_receive_connection(address: tuple[str, int]) -> None:
    with RawClient(address) as client, RawClient(address) as writer:
        client.advise([A])
        client.ask.close()
        writer.write((A, typed(3, 1)))
        client.hear.want(b"\0\0\0\0\x01\0\0\0")
        client.hear.close()
        for number in range(100):
            writer.write((A, typed(3, number)))
        assert writer.read([A]) == [(3, 99)]


def test_what_a_client_says_on_its_receive_connection_is_ignored(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        client.advise([A])
        client.hear.send(b"7 hello \0\xff" * 1000)
        client.write((A, typed(3, 6)))
        client.hear.want(b"\0\0\0\0\x06\0\0\0")
