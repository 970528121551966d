"""A client that is subscribed and told of every change: what the tests of the stream begin with."""

from __future__ import annotations

import dialogue as d
import live_wire as w
import wire
from client import Session
from conftest import Serve, settles

Changes = list[tuple[object, ...]]
I4, STR = wire.VT_I4, wire.VT_STR
A = d.BOILER


def watch(session: Session) -> Changes:
    """Subscribes nothing; records every change of the first driver."""
    changes: Changes = []
    session.boiler.SetTagNotify(lambda *change: changes.append(change))
    return changes


def arrived(changes: Changes, wanted: Changes) -> None:
    """These changes arrive, in this order, and no other."""
    settles(lambda: len(changes) >= len(wanted))
    assert changes == wanted


def watched(serve: Serve, *pushed: d.Steps, kinds: tuple[int, ...] = (I4, STR)) -> tuple[Session, Changes]:
    """A client that is subscribed to T0, T1, ... of these kinds and told of every change; then the server pushes."""
    names = ",".join(f"T{number}" for number in range(len(kinds)))
    session = serve(w.subscribing_kinds(kinds), d.wait("watching"), *pushed)
    changes = watch(session)
    assert session.boiler.ConnectTag(names) == 1
    session.peer.go("watching")
    return session, changes
