"""Two threads of a script and one connection: a signal handler of a call that waits lets another thread run.

That thread's request waits for its turn. When it has it, much may have changed.
"""

from __future__ import annotations

import signal
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager

import dialogue as d
import live_wire as w
import pytest
import wire
from client import connect, read
from conftest import Play, Serve, settles

from RkDBAccess import Driver

ASKED = d.want("req", wire.read_request([(d.BOILER, 5)]))
RUNG = d.signal_client(signal.SIGALRM)


class Stop(Exception):
    """What a handler raises to end the call."""


@contextmanager
def handled(handler: Callable[[], object]) -> Iterator[None]:
    before = signal.signal(signal.SIGALRM, lambda *_: handler())
    try:
        yield
    finally:
        signal.signal(signal.SIGALRM, before)


class Other:
    """A thread that makes one call when it is let go."""

    def __init__(self, call: Callable[[], object]) -> None:
        self.results: list[object] = []
        self._go = threading.Event()
        self._thread = threading.Thread(target=self._run, args=(call,))
        self._thread.start()

    def _run(self, call: Callable[[], object]) -> None:
        self._go.wait()
        self.results.append(call())

    def go(self) -> None:
        """Returns when the call waits for its turn: the interpreter runs nobody else meanwhile."""
        self._go.set()
        time.sleep(0.3)

    def join(self) -> list[object]:
        self._go.set()
        self._thread.join()
        return self.results


CALLS: list[tuple[Callable[[Driver], object], object]] = [
    (lambda driver: driver.GetTagValue("A"), None),
    (lambda driver: driver.SetTagValue("A", 1), -2),
    (lambda driver: driver.ConnectTag("A"), 0),
    (lambda driver: driver.GetTagValue("new"), None),
]


@pytest.mark.parametrize(("call", "failed"), CALLS, ids=["read", "write", "subscription", "look-up"])
def test_a_request_that_waited_is_not_sent_on_the_next_connection(
    play: Play, project: str, call: Callable[[Driver], object], failed: object
) -> None:
    known = d.looking_up(["A"], [5]) + d.reading_numbers([5], [7])
    first = play(d.connecting(project, rights=w.MAY_WRITE) + known + ASKED + RUNG + d.want_eof("req", "rcv"))
    second = play(d.connecting(project + "2", rights=w.MAY_WRITE) + d.quiet("req", 0.5) + d.tell("silent"))
    core = connect(first.host)
    boiler = core.GetDriver("Boiler")
    assert read(boiler, "A") == 7
    other = Other(lambda: call(boiler))

    def stop() -> None:
        other.go()
        raise Stop

    with handled(stop):
        try:
            boiler.GetTagValue("A")
        except Stop:  # the interpreter lock is kept from here to the end of Connect
            result = core.Connect(second.host, d.USER, d.PASSWORD)
    assert result == 0
    assert other.join() == [failed]
    first.finish()
    second.until("silent")
    assert core.GetDriver("Boiler") is not None
    del core
    second.finish()


def test_a_read_that_waited_for_a_subscription_of_its_tag_changes_nothing(serve: Serve) -> None:
    session = serve(
        d.looking_up(["A"], [5]) + d.reading_numbers([5], [7]) + d.want("req", w.advise_request([5])) + RUNG,
        d.wait("asked") + d.send("req", w.advise_block([wire.typed(wire.VT_I4, 1)])) + ASKED,
        w.push(w.change(5, wire.VT_I4, 2)) + d.pause(0.3),  # newer than the answer, which comes behind it
        d.send("req", wire.read_block([wire.typed(wire.VT_I4, 1)])),
    )
    boiler = session.boiler
    told: list[object] = []
    assert read(boiler, "A") == 7
    boiler.SetTagNotify(lambda *change: told.append(change[2]))
    other = Other(lambda: read(boiler, "A"))

    def ask() -> None:
        other.go()
        session.peer.go("asked")

    with handled(ask):
        assert boiler.ConnectTag("A") == 1
    assert other.join() == [2]
    assert settles(lambda: told == [2])
    assert read(boiler, "A") == 2


def test_a_handler_that_waits_for_a_thread_that_waits_for_its_turn_goes_on(serve: Serve) -> None:
    # The thread's turn would come when the handler is through. It gives up after twice the time-out.
    session = serve(
        d.looking_up(["A"], [5]) + d.reading_numbers([5], [7]) + ASKED + RUNG,
        d.wait("joined") + d.send("req", wire.read_block([wire.typed(wire.VT_I4, 8)])),
    )
    assert read(session.boiler, "A") == 7
    other = Other(lambda: session.boiler.GetTagValue("A"))
    joined: list[object] = []

    def join() -> None:
        joined.extend(other.join())
        session.peer.go("joined")

    with handled(join):
        session.boiler.GetTagValue("A")  # late by now: it may have its answer or not
    assert joined == [None]
