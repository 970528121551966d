"""Scripts for the scripted peers: the steps of peer.py, and whole exchanges made of them.

The request connection is called "req" and the receive connection "rcv" throughout. Every helper returns a list of
steps, so that a script reads as a sum of exchanges in the order of their time.
"""

from __future__ import annotations

import socket
from collections.abc import Iterable, Sequence

import wire
from peer import Step

Steps = list[Step]

USER, PASSWORD = "operator", "secret"
DRIVERS: tuple[tuple[str, int, int], ...] = (("Boiler", 0, 2000), ("泵站", 1, 16))
BOILER, STATION = 0, 1  # the ids of the two drivers above
FILE_TIME = 1_700_000_000


def host_name() -> bytes:
    return socket.gethostname().encode()


# Single steps.


def accept(name: str, listener: str = "server") -> Steps:
    return [("accept", name, listener)]


def want(name: str, data: bytes) -> Steps:
    return [("want", name, data)]


def send(name: str, data: bytes) -> Steps:
    return [("send", name, data)]


def send_anyway(name: str, data: bytes) -> Steps:
    return [("send_anyway", name, data)]


def trickle(name: str, data: bytes, pause: float = 0.003, piece: int = 1) -> Steps:
    return [("trickle", name, data, pause, piece)]


def flood(name: str, data: bytes) -> Steps:
    return [("flood", name, data)]


def quiet(name: str, seconds: float = 0.15) -> Steps:
    return [("quiet", name, seconds)]


def pause(seconds: float) -> Steps:
    return [("pause", seconds)]


def close(name: str) -> Steps:
    return [("close", name)]


def reset(name: str) -> Steps:
    return [("reset", name)]


def end_sending(name: str) -> Steps:
    return [("end_sending", name)]


def drain(name: str) -> Steps:
    return [("drain", name)]


def want_eof(*names: str) -> Steps:
    return [("want_eof", name) for name in names]


def tell(label: str) -> Steps:
    return [("tell", label)]


def signal_client(number: int) -> Steps:
    return [("signal_client", number)]


def wait(label: str) -> Steps:
    return [("wait", label)]


def want_open(name: str = "req", server_name: bytes | None = None) -> Steps:
    return [("want_open", name, server_name)]


def want_register(name: str = "rcv") -> Steps:
    return [("want_register", name, host_name())]


# Exchanges of a connection's start, in their order.


def opening(reply: bytes = wire.OPEN, server_name: bytes | None = None, listener: str = "server") -> Steps:
    return accept("req", listener) + want_open("req", server_name) + send("req", reply)


def registering(reply: wire.RegisterReply | bytes, listener: str = "server") -> Steps:
    answer = reply.scrambled() if isinstance(reply, wire.RegisterReply) else reply
    return accept("rcv", listener) + want_register("rcv") + send("rcv", answer)


def logging_in(user: str = USER, password: str = PASSWORD, reply: bytes | None = None) -> Steps:
    request = wire.login_request(user.encode(), password.encode())
    return want("req", request) + send("req", wire.login_reply() if reply is None else reply)


def fetching(reply: bytes, request: bytes | None = None) -> Steps:
    return want("req", wire.download_request() if request is None else request) + send("req", reply)


def up_to_login(project: str | bytes, title: bytes = b"title", file_time: int = FILE_TIME, size: int = 0) -> Steps:
    """Both connections opened and registered; the next thing is the login."""
    name = project if isinstance(project, bytes) else project.encode("gb2312")
    return opening() + registering(wire.RegisterReply(name, title, file_time, size))


def up_to_directory(project: str | bytes, body: bytes) -> Steps:
    """Logged in; the next thing is the download of a directory of that content."""
    return up_to_login(project, size=len(body)) + logging_in()


def connecting(
    project: str | bytes, drivers: Iterable[tuple[str | bytes, int, int]] = DRIVERS, rights: int = 0, user: str = USER
) -> Steps:
    """A whole Connect of a client that has no copy of the driver directory yet."""
    body = wire.directory(drivers)
    return (
        up_to_login(project, size=len(body))
        + logging_in(user, reply=wire.login_reply(rights))
        + fetching(wire.download_reply(body, FILE_TIME))
    )


# Exchanges on the request connection afterwards.


def looking_up(names: Sequence[str | bytes], positions: Iterable[int], driver: int = BOILER) -> Steps:
    """One request for these names and its reply."""
    return want("req", wire.lookup_request(driver, names)) + send("req", wire.lookup_reply(positions))


def looking_up_all(names: Sequence[str], positions: Sequence[int], driver: int = BOILER) -> Steps:
    """As many requests as the names need."""
    steps: Steps = []
    done = 0
    for group in wire.lookup_groups(names):
        steps += looking_up(group, positions[done : done + len(group)], driver)
        done += len(group)
    return steps


def reading(positions: Sequence[int], *blocks: bytes, driver: int = BOILER) -> Steps:
    """One read request for these positions and the blocks of its reply."""
    request = wire.read_request([(driver, position) for position in positions])
    return want("req", request) + send("req", b"".join(blocks))


def reading_numbers(positions: Sequence[int], numbers: Iterable[int], driver: int = BOILER) -> Steps:
    """One read request answered with 32-bit integers, in as few blocks as hold them."""
    values = [wire.typed(wire.VT_I4, number) for number in numbers]
    room = wire.BLOCK_LIMIT // len(wire.typed(wire.VT_I4, 0))
    starts = range(0, len(values), room)
    blocks = [wire.read_block(values[start : start + room], more=start != starts[-1]) for start in starts]
    return reading(positions, *blocks, driver=driver)


def sending_by_windows(data: bytes) -> Steps:
    """Sends a header and its body, waiting for the acknowledgement of each full window but the one the body ends in."""
    steps: Steps = []
    for window in wire.windows():
        steps += send("req", data[:window])
        data = data[window:]
        if not data:
            return steps
        steps += want("req", wire.acknowledgement(window))
    raise AssertionError("windows() ended")
