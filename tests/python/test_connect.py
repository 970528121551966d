"""Connect on a direct address: every byte of the handshake and the login, and what each answer leads to."""

from __future__ import annotations

import dataclasses
import fcntl
import socket

import dialogue as d
import pytest
import wire
from client import CONNECTED, FAILED, PROTOCOL_ERROR, REFUSED, connect, sockets_of, sockets_to
from conftest import Play, mirror_host, settles
from dialogue import Steps

from RkDBAccess import DBCore


def connects_to(play: Play, steps: Steps, user: str = d.USER, password: str = d.PASSWORD) -> int:
    """The result of Connect against this script, which must be over when Connect returns, connections included."""
    peer = play(steps)
    core = DBCore()
    result = core.Connect(peer.host, user, password)
    if result != CONNECTED:
        peer.finish()  # while the object that failed to connect is still there
    return result


def test_connect_sends_exactly_the_known_requests_and_gives_0(play: Play, project: str) -> None:
    assert connects_to(play, d.connecting(project)) == CONNECTED


def test_connect_is_silent_afterwards(play: Play, project: str) -> None:
    peer = play(d.connecting(project) + d.quiet("req") + d.quiet("rcv") + d.tell("silent"))
    core = connect(peer.host)
    peer.until("silent")
    del core


def test_connect_works_with_a_host_name(play: Play, hosts: list[str], project: str) -> None:
    peer = play(d.connecting(project))
    hosts.append(f"localhost:{peer.port}")
    connect(f"localhost:{peer.port}")


@pytest.mark.parametrize(
    ("user", "password"),
    [("", ""), ("u", ""), ("", "p"), ("操作员", "密码"), ("x" * 252, "y"), ("x", "y" * 252), ("é" * 100, "ab c\t\n")],
)
def test_user_and_password_travel_byte_for_byte(play: Play, project: str, user: str, password: str) -> None:
    body = wire.directory(d.DRIVERS)
    steps = (
        d.up_to_login(project, size=len(body)) + d.logging_in(user, password) + d.fetching(wire.download_reply(body))
    )
    assert connects_to(play, steps, user, password) == CONNECTED


@pytest.mark.parametrize(
    ("user", "password"), [("x" * 253, "y"), ("x", "y" * 253), ("x" * 5000, ""), ("", "y" * 254), ("é" * 127, "")]
)
def test_a_login_that_does_not_fit_its_request_is_not_sent(play: Play, project: str, user: str, password: str) -> None:
    steps = d.up_to_login(project) + d.want_eof("req", "rcv")
    assert connects_to(play, steps, user, password) == FAILED


@pytest.mark.parametrize("reply", [b"7", b"7" + bytes(511), b"77777", b"7lan", b"7" + b"lan" + bytes(8)])
def test_any_open_reply_that_begins_with_7_is_taken(play: Play, project: str, reply: bytes) -> None:
    # The last two would send a relayed client elsewhere; a direct one goes on.
    body = wire.directory(d.DRIVERS)
    steps = d.opening(reply) + d.registering(wire.RegisterReply(project.encode(), directory_size=len(body)))
    steps += d.logging_in() + d.fetching(wire.download_reply(body))
    assert connects_to(play, steps) == CONNECTED


@pytest.mark.parametrize("reply", [b"0", b"0" * 20, b"8", b"X7", b"\0", b"\xff" * 512])
def test_any_other_open_reply_fails_the_connection(play: Play, reply: bytes) -> None:
    assert connects_to(play, d.opening(reply) + d.want_eof("req")) == FAILED


def test_a_server_that_closes_instead_of_an_open_reply_fails_the_connection(play: Play) -> None:
    steps = d.accept("req") + d.want_open("req")
    assert connects_to(play, steps + d.end_sending("req") + d.want_eof("req")) == FAILED
    assert connects_to(play, steps + d.reset("req")) == FAILED
    assert connects_to(play, d.accept("req") + d.reset("req")) == FAILED


PLAIN_REPLY = wire.RegisterReply(b"plant").plain()


@pytest.mark.parametrize(
    "reply",
    [
        pytest.param(wire.scramble(b"0"), id="the refusal"),
        pytest.param(wire.scramble(b"1"), id="another single byte"),
        pytest.param(wire.scramble(b"00"), id="a refusal of two bytes"),
        pytest.param(b"0", id="a plain refusal"),
        pytest.param(PLAIN_REPLY, id="not scrambled"),
        pytest.param(wire.scramble(PLAIN_REPLY[:59]), id="one byte short of its fixed part and a name"),
        pytest.param(wire.scramble(b"8"), id="the command alone"),
        pytest.param(wire.scramble(PLAIN_REPLY[:60]) + b"x", id="a length that no scrambling gives"),
        pytest.param(wire.scramble(dataclasses.replace(wire.RegisterReply(b"p"), command=b"7").plain()), id="7"),
        pytest.param(wire.scramble(dataclasses.replace(wire.RegisterReply(b"p"), command=b"0").plain()), id="0"),
        pytest.param(bytes(512), id="zeroes"),
    ],
)
def test_any_other_register_reply_fails_the_connection(play: Play, reply: bytes) -> None:
    assert connects_to(play, d.opening() + d.registering(reply) + d.want_eof("req", "rcv")) == FAILED


def test_a_server_that_closes_instead_of_a_register_reply_fails_the_connection(play: Play) -> None:
    steps = d.opening() + d.accept("rcv") + d.want_register("rcv")
    assert connects_to(play, steps + d.end_sending("rcv") + d.want_eof("req", "rcv")) == FAILED
    assert connects_to(play, steps + d.reset("rcv") + d.want_eof("req")) == FAILED


@pytest.mark.parametrize("flag", [0, 6, 16, 255])
@pytest.mark.parametrize("title", [b"", b"t" * 300])
def test_what_else_a_register_reply_says_changes_nothing(play: Play, project: str, flag: int, title: bytes) -> None:
    body = wire.directory(d.DRIVERS)
    reply = wire.RegisterReply(project.encode(), title, d.FILE_TIME, len(body), flag)
    steps = d.opening() + d.registering(reply) + d.logging_in() + d.fetching(wire.download_reply(body))
    assert connects_to(play, steps) == CONNECTED


def test_a_server_without_a_project_is_a_protocol_error(play: Play) -> None:
    assert connects_to(play, d.up_to_login("") + d.want_eof("req", "rcv")) == PROTOCOL_ERROR


@pytest.mark.parametrize("name", [".", "..", "/", "a/b", "../x", "/etc", "x/", "./", "a/../b", "泵/站"])
def test_a_project_name_that_leaves_the_mirror_is_a_protocol_error(play: Play, name: str) -> None:
    peer = play(d.up_to_login(name) + d.want_eof("req", "rcv"))
    core = DBCore()
    assert core.Connect(peer.host, d.USER, d.PASSWORD) == PROTOCOL_ERROR
    assert not mirror_host(peer.host).exists()
    peer.finish()


@pytest.mark.parametrize("name", ["...", ".hidden", "a.b", "..x", "with blank", "泵站", "~", "-r", "C:\\plant"])
def test_every_other_project_name_is_a_directory(play: Play, name: str) -> None:
    peer = play(d.connecting(name))
    connect(peer.host)
    assert [path.name for path in mirror_host(peer.host).iterdir()] == [name]


@pytest.mark.parametrize(
    ("reply", "result"),
    [
        (b"0", REFUSED),
        (b"0" + bytes(20), REFUSED),
        (b"8" + bytes(8), PROTOCOL_ERROR),
        (b"\0", PROTOCOL_ERROR),
        (b"H" * 256, PROTOCOL_ERROR),
        (b"X9", PROTOCOL_ERROR),
    ],
)
def test_a_login_reply_decides_the_result(play: Play, project: str, reply: bytes, result: int) -> None:
    steps = d.up_to_login(project) + d.logging_in(reply=reply) + d.want_eof("req", "rcv")
    assert connects_to(play, steps) == result


@pytest.mark.parametrize("reply", [wire.login_reply(0xFFFFFFFF), wire.login_reply() + bytes(247)])
def test_a_login_reply_is_accepted_by_its_first_byte(play: Play, project: str, reply: bytes) -> None:
    body = wire.directory(d.DRIVERS)
    steps = d.up_to_login(project, size=len(body)) + d.logging_in(reply=reply) + d.fetching(wire.download_reply(body))
    assert connects_to(play, steps) == CONNECTED


@pytest.mark.parametrize("got", range(1, 9))
def test_a_login_reply_is_read_whole(play: Play, project: str, got: int) -> None:
    reply = wire.login_reply(0x08)
    steps = d.up_to_login(project) + d.logging_in(reply=reply[:got]) + d.pause(0.1)
    body = wire.directory(d.DRIVERS)
    late = d.send("req", reply[got:]) + d.fetching(wire.download_reply(body), wire.download_request())
    written = d.looking_up(["A"], [5]) + d.want("req", b"g\x01\x00\0\0\x05\0\x03\0\x01\0\0\0")
    core = connect(play(steps + late + written).host)
    assert core.GetDriver("Boiler").SetTagValue("A", 1) == 0  # so the rights of the reply are known


@pytest.mark.parametrize("got", range(1, 9))
def test_a_login_reply_that_ends_early_fails_the_connection(play: Play, project: str, got: int) -> None:
    reply = wire.login_reply(0xFF)[:got]
    steps = d.up_to_login(project) + d.logging_in(reply=reply) + d.end_sending("req") + d.want_eof("req", "rcv")
    assert connects_to(play, steps) == FAILED


def test_a_server_that_closes_instead_of_a_login_reply_fails_the_connection(play: Play, project: str) -> None:
    steps = d.up_to_login(project) + d.want("req", wire.login_request(d.USER.encode(), d.PASSWORD.encode()))
    assert connects_to(play, steps + d.end_sending("req") + d.want_eof("req", "rcv")) == FAILED
    assert connects_to(play, steps + d.reset("req") + d.want_eof("rcv")) == FAILED


def test_a_closed_port_fails_the_connection_at_once(own_address: str) -> None:
    with socket.create_server((own_address, 0)) as server:
        port = server.getsockname()[1]
    assert DBCore().Connect(f"{own_address}:{port}", d.USER, d.PASSWORD) == FAILED


def test_a_host_name_without_an_address_fails_the_connection() -> None:
    # A label of more than 63 characters is refused before any name server is asked.
    assert DBCore().Connect("x" * 70 + ":80", d.USER, d.PASSWORD) == FAILED
    assert DBCore().Connect("", d.USER, d.PASSWORD) == FAILED


def test_an_object_that_failed_to_connect_can_connect(play: Play, project: str) -> None:
    steps = d.opening(b"0") + d.want_eof("req")
    steps += d.up_to_login(project) + d.logging_in(reply=b"0") + d.want_eof("req", "rcv") + d.connecting(project)
    peer = play(steps + d.looking_up(["T"], [3]) + d.reading_numbers([3], [7]))
    core = DBCore()
    assert core.Connect(peer.host, d.USER, d.PASSWORD) == FAILED
    assert core.Connect(peer.host, d.USER, d.PASSWORD) == REFUSED
    assert core.Connect(peer.host, d.USER, d.PASSWORD) == CONNECTED
    assert core.GetDriver("Boiler").GetTagValue("T") == 7


def test_connecting_again_ends_the_connection_before(play: Play, project: str) -> None:
    body = wire.directory(d.DRIVERS)
    again = d.up_to_login(project, size=len(body)) + d.logging_in()  # the copy in the mirror is current by then
    steps = d.connecting(project) + d.looking_up(["T"], [3]) + d.reading_numbers([3], [7]) + d.want_eof("req", "rcv")
    peer = play(steps + again + d.looking_up(["T"], [4]) + d.reading_numbers([4], [8]))
    core = connect(peer.host)
    before = core.GetDriver("Boiler")
    assert before.GetTagValue("T") == 7
    assert core.Connect(peer.host, d.USER, d.PASSWORD) == CONNECTED
    assert before.GetTagValue("T") is None
    assert core.GetDriver("Boiler").GetTagValue("T") == 8
    assert before.GetTagValue("T") is None


def test_connecting_again_in_vain_leaves_no_connection(play: Play, project: str) -> None:
    peer = play(d.connecting(project) + d.want_eof("req", "rcv") + d.opening(b"0") + d.want_eof("req"))
    core = connect(peer.host)
    driver = core.GetDriver("Boiler")
    assert core.Connect(peer.host, d.USER, d.PASSWORD) == FAILED
    assert driver.GetTagValue("T") is None
    with pytest.raises(SystemError):
        core.GetDriver("Boiler")
    peer.finish()


def test_connecting_to_another_server_leaves_the_first(play: Play, project: str) -> None:
    first = play(d.connecting(project))
    second = play(d.connecting(project) + d.looking_up(["T"], [4]) + d.reading_numbers([4], [8]))
    core = connect(first.host)
    assert core.Connect(second.host, d.USER, d.PASSWORD) == CONNECTED
    first.finish()
    assert core.GetDriver("Boiler").GetTagValue("T") == 8


def test_both_sockets_close_on_exec_send_at_once_and_probe_a_silent_server(play: Play, project: str) -> None:
    peer = play(d.connecting(project))
    core = connect(peer.host)
    with sockets_of(peer.addresses["server"]) as pair:
        assert [one.getsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY) for one in pair] == [1, 1]
        assert [one.getsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE) for one in pair] == [1, 1]
    flags = [fcntl.fcntl(number, fcntl.F_GETFD) for number in sockets_to(peer.addresses["server"])]
    assert flags == [fcntl.FD_CLOEXEC] * 2
    del core
    assert settles(lambda: not sockets_to(peer.addresses["server"]))


def test_connections_of_one_process_do_not_meet(play: Play, project: str) -> None:
    steps = d.connecting(project) + d.looking_up(["T"], [3])
    peers = [play(steps + d.reading_numbers([3], [number])) for number in range(5)]
    cores = [connect(peer.host) for peer in peers]
    drivers = [core.GetDriver("Boiler") for core in cores]
    assert [driver.GetTagValue("T") for driver in drivers] == list(range(5))
