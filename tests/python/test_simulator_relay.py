"""The simulator as a relay centre: server names, redirects to the local network, pipes to servers behind it."""

from __future__ import annotations

import socket
import struct
from collections.abc import Callable

import pytest
from conftest import Simulator
from sim_wire import Line, RawClient, new_id, open_request, register_request, scramble, typed, unscramble

Simulators = Callable[..., Simulator]
CENTRE = 3968

PROJECT = """
[project]
name = "{name}"
[[driver]]
name = "D"
[[driver.tag]]
name = "T"
type = "i4"
value = {value}
"""


def relay(name: str, *lines: str) -> str:
    return "\n".join(["[[relay]]", f'name = "{name}"', *lines, ""])


def server_text(name: str, value: int) -> str:
    return PROJECT.format(name=name, value=value)


@pytest.fixture
def centre(simulator: Simulators, own_address: str) -> tuple[Simulator, tuple[str, int], int]:
    """A centre, where it listens, and the port of a server behind it."""
    behind = simulator(server_text("behind", 2))
    names = [
        relay("here"),
        relay("本机", 'target = "self"'),
        relay("behind", f'target = "127.0.0.1:{behind.port}"'),
        relay("nowhere", 'target = "127.0.0.1:1"'),
        relay("back", 'redirect = "self"'),
        relay("away", 'redirect = "192.168.1.10:3000"'),
    ]
    started = simulator(server_text("centre", 1) + "\n".join(names), "--relay", "--relay-host", own_address)
    return started, (own_address, CENTRE), behind.port


Centre = tuple[Simulator, tuple[str, int], int]


@pytest.mark.parametrize("name", ["here", "本机", ""])
def test_a_name_can_lead_to_the_simulator_itself(centre: Centre, name: str) -> None:
    with RawClient(centre[1], server=name) as client:
        assert client.registered.project == "centre"
        assert client.read([(0, 0)]) == [(3, 1)]


def test_a_name_can_lead_to_a_server_behind_the_centre(centre: Centre) -> None:
    with RawClient(centre[1], server="behind") as client, RawClient(("127.0.0.1", centre[2])) as direct:
        assert client.registered.project == "behind"
        assert client.advise([(0, 0)]) == [(3, 2)]
        direct.write(((0, 0), typed(3, 3)))
        client.hear.want(struct.pack("<HHi", 0, 0, 3))
        client.write(((0, 0), typed(3, 4)))
        client.hear.want(struct.pack("<HHi", 0, 0, 4))
        assert direct.read([(0, 0)]) == [(3, 4)]
        assert client.header("RecData/drvinfo.dat")[0]["Size"] == "6"


def test_a_server_behind_the_centre_sees_an_ordinary_client(simulator: Simulators, own_address: str) -> None:
    with socket.create_server(("127.0.0.1", 0)) as listener:
        text = relay("s", f'target = "127.0.0.1:{listener.getsockname()[1]}"')
        simulator(text, "--relay", "--relay-host", own_address)
        ident = new_id()
        listener.settimeout(20)
        with Line((own_address, CENTRE)) as ask, Line((own_address, CENTRE)) as hear:
            ask.send(open_request(ident, "s") + b"and more")
            with listener.accept()[0] as server:
                got = bytearray()
                while len(got) < 23 + 8:
                    got += server.recv(100)
                assert got[:1] == b"7"
                assert unscramble(bytes(got[1:23])) == ident
                assert got[23:] == b"and more"
                server.sendall(b"7 hello")
                ask.want(b"7 hello")
                request = register_request(ident)
                hear.send(request + b"tail")
                with listener.accept()[0] as other:
                    got = bytearray()
                    while len(got) < len(request) + 4:
                        got += other.recv(100)
                    assert got == request + b"tail"
                    other.sendall(scramble(b"0"))
                    assert unscramble(hear.take(2)) == b"0"
                assert hear.is_ended()
                ask.close()
                assert server.recv(1) == b""


def test_an_unknown_name_is_refused(centre: Centre) -> None:
    with Line(centre[1]) as line:
        line.send(open_request(new_id(), "nobody"))
        line.want(b"0")


def test_a_server_that_cannot_be_reached_ends_the_connection(centre: Centre) -> None:
    with Line(centre[1]) as line:
        line.send(open_request(new_id(), "nowhere"))
        assert line.is_ended()


def test_a_redirect_names_an_address_in_network_order(centre: Centre) -> None:
    with Line(centre[1]) as line:
        line.send(open_request(new_id(), "away"))
        line.want(b"7lan" + bytes([192, 168, 1, 10]) + b"\x0b\xb8")
        assert line.is_quiet()


def test_a_redirect_can_lead_to_the_simulators_own_port(centre: Centre) -> None:
    with Line(centre[1]) as line:
        line.send(open_request(new_id(), "back"))
        reply = line.take(10)
        assert reply[:4] == b"7lan"
    target = (socket.inet_ntoa(reply[4:8]), struct.unpack(">H", reply[8:])[0])
    assert target == ("127.0.0.1", centre[0].port)
    with RawClient(target) as client:
        assert client.registered.project == "centre"


def test_the_direct_port_knows_no_server_names(centre: Centre) -> None:
    with RawClient(("127.0.0.1", centre[0].port)) as client:
        assert client.registered.project == "centre"


@pytest.mark.parametrize("length", [1, 2, 3, 4, 5, 249])
def test_server_names_of_every_length_are_found(simulator: Simulators, own_address: str, length: int) -> None:
    simulator(relay("n" * length), "--relay", "--relay-host", own_address)
    with Line((own_address, CENTRE)) as line:
        request = open_request(new_id(), "n" * length)
        line.send(request[:-1])
        assert line.is_quiet(0.05)
        line.send(request[-1:])
        line.want(b"7")


def test_a_name_without_an_end_is_no_request(centre: Centre) -> None:
    with Line(centre[1]) as line:
        line.send(b"7" + scramble(new_id() + bytes(6) + b"n" * 400))
        assert line.is_ended()
