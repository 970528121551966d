"""The client under test, as these tests use it: short ways to a connection, and lists with unset items made safe.

Processes that run one script import it too, so it imports nothing big: under a sanitizer pytest takes three seconds.
"""

from __future__ import annotations

import ctypes
import os
import socket
from collections.abc import Iterator
from contextlib import contextmanager, suppress
from pathlib import Path

from dialogue import PASSWORD, USER
from peer import Peer

from RkDBAccess import DBCore, Driver

CONNECTED, REFUSED, FAILED, PROTOCOL_ERROR = 0, -1, -2, -3


class Unset:
    """Stands for a list item that was never set: looking at such an item from Python would crash."""

    def __repr__(self) -> str:
        return "UNSET"


UNSET = Unset()

_list_item = ctypes.pythonapi.PyList_GetItem
_list_item.argtypes = [ctypes.py_object, ctypes.c_ssize_t]
_list_item.restype = ctypes.c_void_p


def items(values: object) -> list[object]:
    """A copy of a list that may have unset items, with UNSET in their places."""
    assert type(values) is list
    return [UNSET if _list_item(values, index) is None else values[index] for index in range(len(values))]


def connect(host: str, user: str = USER, password: str = PASSWORD) -> DBCore:
    """A connected client."""
    core = DBCore()
    result = core.Connect(host, user, password)
    assert result == CONNECTED
    return core


def read(driver: Driver, names: str) -> object:
    """GetTagValue, with a list's unset items made visible."""
    value = driver.GetTagValue(names)
    return items(value) if type(value) is list else value


class Session:
    """A client that is connected, with both its drivers."""

    def __init__(self, peer: Peer) -> None:
        self.peer = peer
        self.core = connect(peer.host)
        self.boiler = self.core.GetDriver("Boiler")
        self.station = self.core.GetDriver("泵站")


def has_ended(session: Session) -> None:
    """Both connections have ended, the client knows it, and the server has seen it and nothing else."""
    session.peer.finish()
    assert session.boiler.GetTagValue("a name that was never asked for") is None
    try:
        session.core.GetDriver("Boiler")
    except SystemError:
        return
    raise AssertionError("there is a driver, so the connection stands")


def sockets_to(address: tuple[str, int]) -> list[int]:
    """This process's descriptors that are connected to that address."""
    found = []
    for link in Path("/proc/self/fd").iterdir():
        with suppress(OSError):  # the listing's own descriptor is gone; a listener has no peer
            if link.readlink().name.startswith("socket:"):
                with socket.socket(fileno=os.dup(int(link.name))) as copy:
                    if copy.getpeername() == address:
                        found.append(int(link.name))
    return found


@contextmanager
def sockets_of(address: tuple[str, int]) -> Iterator[list[socket.socket]]:
    """Copies of the sockets that are connected to that address, the earlier opened first."""
    copies = [socket.socket(fileno=os.dup(number)) for number in sorted(sockets_to(address))]
    try:
        yield copies
    finally:
        for copy in copies:
            copy.close()
