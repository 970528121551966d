"""How the host text of Connect is read, and the way through a relay centre with its redirects."""

from __future__ import annotations

import os
from pathlib import Path

import dialogue as d
import pytest
import wire
from client import CONNECTED, FAILED, connect
from conftest import CHECKOUT, Play, mirror_host, passes_alone
from dialogue import Steps

from RkDBAccess import DBCore

CENTRE = wire.RELAY_PORT


def behind_the_centre(project: str, server_name: bytes | None) -> Steps:
    """A whole Connect through a centre."""
    body = wire.directory(d.DRIVERS)
    reply = wire.RegisterReply(project.encode(), directory_time=d.FILE_TIME, directory_size=len(body))
    steps = d.opening(server_name=server_name) + d.registering(reply)
    return steps + d.logging_in() + d.fetching(wire.download_reply(body, d.FILE_TIME))


@pytest.mark.parametrize(
    "text", ["p2p({}):line 4", "P2P({}):line 4", "p2P({})):line 4", "p2p({}:line 4", "p2pxy({}):line 4"]
)
def test_a_relay_text_connects_through_its_centre(play: Play, own_address: str, project: str, text: str) -> None:
    play(behind_the_centre(project, b"line 4"), {"server": (own_address, CENTRE)})
    host = text.format(own_address)
    core = connect(host)
    assert mirror_host(host).joinpath(project, "RecData", "drvinfo.dat").is_file()
    assert core.GetDriver("Boiler")


@pytest.mark.parametrize("name", ["", "a:b", "x" * 230, "锅炉", "ö"])
def test_the_server_name_is_everything_behind_the_first_colon(
    play: Play, own_address: str, project: str, name: str
) -> None:
    play(behind_the_centre(project, name.encode()), {"server": (own_address, CENTRE)})
    host = f"p2p({own_address}):{name}"
    core = connect(host)
    # Every colon of the text is another character there, and so is what GB2312 does not have.
    assert mirror_host(host).joinpath(project).is_dir()
    assert core.GetDriver("Boiler")


def test_a_server_name_too_long_for_a_folder_fails_behind_the_registration(
    play: Play, own_address: str, project: str
) -> None:
    name = "x" * 249
    steps = d.opening(server_name=name.encode()) + d.registering(wire.RegisterReply(project.encode()))
    play(steps + d.want_eof("req", "rcv"), {"server": (own_address, CENTRE)})
    assert DBCore().Connect(f"p2p({own_address}):{name}", d.USER, d.PASSWORD) == FAILED


@pytest.mark.parametrize("size", [250, 251, 255, 256, 300, 5000])
def test_a_server_name_that_does_not_fit_is_refused_without_traffic(play: Play, own_address: str, size: int) -> None:
    play([], {"server": (own_address, CENTRE)})
    assert DBCore().Connect(f"p2p({own_address}):{'x' * size}", d.USER, d.PASSWORD) == FAILED


def test_a_relay_text_without_a_colon_is_refused_without_traffic(play: Play, own_address: str) -> None:
    play([], {"server": (own_address, CENTRE)})
    for text in (f"p2p({own_address})", "p2p", "P2P", f"p2p{own_address}"):
        assert DBCore().Connect(text, d.USER, d.PASSWORD) == FAILED


@pytest.mark.parametrize("reply", [b"0", b"8", b"lan", b"\0" + b"lan" + bytes(6)])
def test_a_centre_that_does_not_open_fails_the_connection(play: Play, own_address: str, reply: bytes) -> None:
    peer = play(d.opening(reply, b"name") + d.want_eof("req"), {"server": (own_address, CENTRE)})
    core = DBCore()
    assert core.Connect(f"p2p({own_address}):name", d.USER, d.PASSWORD) == FAILED
    peer.finish()


@pytest.mark.parametrize("reply", [b"7", b"7lax" + bytes(6), b"7" + bytes(20)])
def test_an_open_reply_that_is_no_redirect_goes_on_at_the_centre(
    play: Play, own_address: str, project: str, reply: bytes
) -> None:
    body = wire.directory(d.DRIVERS)
    steps = d.opening(reply, b"name") + d.registering(wire.RegisterReply(project.encode(), directory_size=len(body)))
    play(steps + d.logging_in() + d.fetching(wire.download_reply(body)), {"server": (own_address, CENTRE)})
    host = f"p2p({own_address}):name"
    connect(host)


@pytest.mark.parametrize("reply", [b"7L", b"7lan", b"7lan" + bytes(5)])
def test_a_redirect_that_ends_early_fails_the_connection(play: Play, own_address: str, reply: bytes) -> None:
    steps = d.opening(reply, b"name") + d.end_sending("req") + d.want_eof("req")
    peer = play(steps, {"server": (own_address, CENTRE)})
    core = DBCore()
    assert core.Connect(f"p2p({own_address}):name", d.USER, d.PASSWORD) == FAILED
    peer.finish()


def test_a_direct_address_with_the_relay_port_is_asked_like_a_centre(
    play: Play, own_address: str, project: str
) -> None:
    peer = play(behind_the_centre(project, b""), {"server": (own_address, CENTRE)})
    connect(peer.host)


CONNECT_ALONE = f"""
import sys, RkDBAccess
db = RkDBAccess.DBCore()
print(db.Connect(sys.argv[1], {d.USER!r}, {d.PASSWORD!r}))
"""


@pytest.mark.parametrize("word", [b"lan", b"LAN", b"Lan"])
def test_a_redirect_leads_to_the_server_itself_and_says_so(
    play: Play, own_address: str, project: str, word: bytes
) -> None:
    server = play(d.connecting(project))
    redirect = wire.relay_redirect("127.0.0.1", server.port, word)
    play(d.opening(redirect, b"name") + d.want_eof("req"), {"server": (own_address, CENTRE)})
    host = f"p2p({own_address}):name"
    assert passes_alone(CONNECT_ALONE, host) == f"Is same lan ...\n{CONNECTED}\n"
    # What was typed names the mirror, not where the centre led to.
    assert mirror_host(host).joinpath(project).is_dir()
    assert not mirror_host(server.host).exists()


def test_a_redirect_may_carry_more_than_it_needs(play: Play, own_address: str, project: str) -> None:
    server = play(d.connecting(project))
    redirect = wire.relay_redirect("127.0.0.1", server.port) + b"surplus"
    play(d.opening(redirect, b"name") + d.want_eof("req"), {"server": (own_address, CENTRE)})
    host = f"p2p({own_address}):name"
    assert passes_alone(CONNECT_ALONE, host).endswith(f"\n{CONNECTED}\n")


def test_a_redirect_to_a_server_that_refuses_fails_the_connection(play: Play, own_address: str) -> None:
    server = play(d.opening(b"0") + d.want_eof("req"))
    redirect = wire.relay_redirect("127.0.0.1", server.port)
    play(d.opening(redirect, b"name") + d.want_eof("req"), {"server": (own_address, CENTRE)})
    assert passes_alone(CONNECT_ALONE, f"p2p({own_address}):name").endswith(f"\n{FAILED}\n")


def chain(address: str, redirects: int) -> Steps:
    """A centre that sends its client to itself again and again."""
    steps: Steps = []
    for number in range(redirects):
        steps += d.opening(wire.relay_redirect(address, CENTRE), b"" if number else b"name") + d.want_eof("req")
    return steps


def test_eight_redirects_are_followed(play: Play, own_address: str, project: str) -> None:
    server = play(d.connecting(project))
    last = d.opening(wire.relay_redirect("127.0.0.1", server.port), b"") + d.want_eof("req")
    play(chain(own_address, 7) + last, {"server": (own_address, CENTRE)})
    host = f"p2p({own_address}):name"
    assert passes_alone(CONNECT_ALONE, host) == "Is same lan ...\n" * 8 + f"{CONNECTED}\n"


def test_a_ninth_redirect_fails_the_connection(play: Play, own_address: str) -> None:
    play(chain(own_address, 9), {"server": (own_address, CENTRE)})
    assert passes_alone(CONNECT_ALONE, f"p2p({own_address}):name").endswith(f"\n{FAILED}\n")


# Direct addresses.


@pytest.mark.parametrize("port", ["{}", "0{}", " {}", "+{}", "{}abc", "{} "])
def test_the_port_is_the_number_behind_the_last_colon(play: Play, hosts: list[str], project: str, port: str) -> None:
    peer = play(d.connecting(project))
    hosts.append("127.0.0.1:" + port.format(peer.port))
    connect(hosts[-1])


def test_a_port_number_counts_modulo_65536(play: Play, hosts: list[str], project: str) -> None:
    peer = play(d.connecting(project))
    hosts.append(f"127.0.0.1:{65536 + peer.port}")
    connect(hosts[-1])


def test_a_text_that_begins_with_its_only_colon_is_a_host(play: Play) -> None:
    # As a number behind a colon this is the peer's port; as a host name its label is too long for any name server.
    peer = play([])
    assert DBCore().Connect(":" + str(peer.port).zfill(80), d.USER, d.PASSWORD) == FAILED


PORT_80 = """
import fcntl, socket, struct, sys
sys.path[:0] = [sys.argv[1]]
with socket.socket() as any_socket:  # bring up the loopback interface of a network of our own
    if sys.argv[2] == "own network":
        fcntl.ioctl(any_socket, 0x8914, struct.pack("16sh22x", b"lo", 0x1 | 0x40))
import dialogue as d
from client import connect
from peer import Peer
for number, text in enumerate(["{}", "{}:0", "{}:", "{}:x", "{}:65536"]):
    address = f"{sys.argv[4]}.{number + 1}"
    with Peer(d.connecting(sys.argv[3]), {"server": (address, 80)}):
        connect(text.format(address))
        print(text)
"""


def may_listen_on_port_80() -> bool:
    lowest = int(Path("/proc/sys/net/ipv4/ip_unprivileged_port_start").read_text(encoding="ascii"))
    effective = Path("/proc/self/status").read_text(encoding="ascii").split("CapEff:")[1].split()[0]
    return lowest <= 80 or bool(int(effective, 16) >> 10 & 1)


def test_port_80_is_meant_where_no_port_is_given(hosts: list[str], project: str) -> None:
    texts = ["{}", "{}:0", "{}:", "{}:x", "{}:65536"]
    network = f"127.80.{os.getpid() % 250}"
    hosts.extend(text.format(f"{network}.{number + 1}") for number, text in enumerate(texts))
    arguments = (PORT_80, str(CHECKOUT / "tests" / "python"))
    if may_listen_on_port_80():
        output = passes_alone(*arguments, "this network", project, network)
    else:  # ports below 1024 are for root here: in a network of our own we are
        output = passes_alone(
            *arguments, "own network", project, network, through=("unshare", "--user", "--map-root-user", "--net")
        )
    assert output.split() == texts
