"""Signals that the script handles: handlers run during a call's waits, and one that raises ends the call."""

from __future__ import annotations

import os
import select
import signal
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import dialogue as d
import live_wire as w
import pytest
import wire
from client import FAILED, connect, has_ended, read
from conftest import Play, Serve, live_threads, settles
from dialogue import Steps

from RkDBAccess import DBCore

SHOOTER = """
import os, sys, time
try:
    while True:
        os.kill(int(sys.argv[1]), int(sys.argv[2]))
        time.sleep(0.002)
except ProcessLookupError:
    pass
"""


@contextmanager
def under_fire(number: signal.Signals) -> Iterator[list[int]]:
    """Sends this process that signal every two milliseconds; the list grows by one at every signal handled in C.

    Python's own handler runs after a call has returned only, and counts many signals as one.
    """
    hits: list[int] = []
    reader, writer = os.pipe2(os.O_NONBLOCK)
    before = signal.signal(number, lambda *_: None)
    wakeup_before = signal.set_wakeup_fd(writer, warn_on_full_buffer=False)
    shooter = subprocess.Popen([sys.executable, "-S", "-E", "-c", SHOOTER, str(os.getpid()), str(int(number))])
    try:
        assert select.select([reader], [], [], 10)[0]
        yield hits
    finally:
        shooter.kill()
        shooter.wait()
        hits.extend(arrived(reader))
        signal.set_wakeup_fd(wakeup_before)
        signal.signal(number, before)
        os.close(reader)
        os.close(writer)


def arrived(reader: int) -> bytes:
    try:
        return os.read(reader, 1 << 16)
    except BlockingIOError:
        return b""


def slowly(steps: Steps) -> Steps:
    """The same script, with a pause before every reply, and one inside of those that may come in pieces."""
    slow: Steps = []
    for verb, *arguments in steps:
        if verb == "send":
            name, data = arguments
            whole = len(data) <= 100 or name == "rcv"  # the reply on the receive connection is read at once
            pieces = [data] if whole else [data[:100], data[100:]]
            slow += [step for piece in pieces for step in [*d.pause(0.08), *d.send(name, piece)]]
        else:
            slow.append((verb, *arguments))
    return slow


HANDLED = [signal.SIGALRM, signal.SIGCHLD, signal.SIGPROF, signal.SIGUSR1, signal.SIGWINCH]


@pytest.mark.parametrize("number", HANDLED, ids=[number.name for number in HANDLED])
def test_a_whole_session_under_fire_goes_as_in_peace(play: Play, project: str, number: signal.Signals) -> None:
    body = wire.directory([*d.DRIVERS, ("x" * 300, 2, 1)])
    header = wire.download_header(Size=len(body), FileTime=d.FILE_TIME)
    steps = d.up_to_directory(project, body) + d.fetching(header) + d.send("req", body)
    steps += d.looking_up(["A", "B"], [5, 6]) + d.reading_numbers([5, 6], [7, 8])
    steps += d.reading([5], wire.read_block([wire.typed(wire.VT_STR, b"x" * 3000)]))
    peer = play(slowly(steps))
    with under_fire(number) as hits:
        core = connect(peer.host)
        boiler = core.GetDriver("Boiler")
        assert read(boiler, "A,B") == [7, 8]
        assert read(boiler, "A") == "x" * 3000
        del core
    assert len(hits) > 20


class Ring(Exception):
    pass


def rings(*_: object) -> None:
    raise Ring


@contextmanager
def on_alarm(handler: Callable[..., object]) -> Iterator[None]:
    before = signal.signal(signal.SIGALRM, handler)
    try:
        yield
    finally:
        signal.signal(signal.SIGALRM, before)


A_ASKED = d.looking_up(["A"], [5]) + d.want("req", wire.read_request([(d.BOILER, 5)]))
RUNG = d.tell("rings") + d.signal_client(signal.SIGALRM)
A_IS_7 = d.send("req", wire.read_block([wire.typed(wire.VT_I4, 7)]))


def test_a_handler_that_raises_ends_the_call_and_the_connection(serve: Serve) -> None:
    session = serve(A_ASKED + RUNG)
    with on_alarm(rings), pytest.raises(Ring):
        read(session.boiler, "A")
    assert time.monotonic() - session.peer.until("rings") < 2  # it takes 0.2 s; the time-out would take 8
    has_ended(session)


def test_a_handler_that_returns_runs_during_the_call_and_the_call_goes_on(serve: Serve) -> None:
    session = serve(A_ASKED + RUNG + d.wait("heard") + A_IS_7)
    with on_alarm(lambda *_: session.peer.go("heard")):
        assert read(session.boiler, "A") == 7


def test_a_handler_in_the_middle_of_a_request_cannot_make_another(serve: Serve) -> None:
    session = serve(A_ASKED + RUNG + d.wait("heard") + A_IS_7, d.looking_up(["B"], [6]) + d.reading_numbers([6], [8]))
    got: list[object] = []

    def ask(*_: object) -> None:
        got.append(read(session.boiler, "B"))
        got.append(session.boiler.ConnectTag("B"))
        got.append(session.core.Connect(session.peer.host, d.USER, d.PASSWORD))
        session.peer.go("heard")

    with on_alarm(ask):
        assert read(session.boiler, "A") == 7
    assert got == [None, 0, FAILED]
    assert read(session.boiler, "B") == 8


@pytest.mark.parametrize("known", [True, False], ids=["of a type that is known", "of a type that the reply says"])
def test_a_handler_that_subscribes_the_tags_under_way_leaves_their_subscription_alone(
    serve: Serve, known: bool
) -> None:
    # The change overtakes the reply, whose value is older.
    changed = w.push(w.change(5, wire.VT_I4, 3))
    asked = d.want("req", w.advise_request([5]))
    session = serve(
        d.looking_up(["A"], [5]) + (d.reading_numbers([5], [1]) if known else []),
        asked + (changed + d.pause(0.2) + RUNG + d.wait("heard") if known else RUNG + d.wait("heard") + changed),
        d.pause(0.2) + d.send("req", w.advise_block([wire.typed(wire.VT_I4, 2)])),
    )
    told: list[object] = []
    session.boiler.SetTagNotify(lambda *change: told.append(change[2]))
    if known:
        assert read(session.boiler, "A") == 1
    nested: list[object] = []

    def subscribe(*_: object) -> None:
        nested.append(session.boiler.ConnectTag("A"))
        session.peer.go("heard")

    with on_alarm(subscribe):
        assert session.boiler.ConnectTag("A") == 1
    assert nested == [0]
    assert settles(lambda: told == [3])
    assert read(session.boiler, "A") == 3


def test_a_handler_may_drop_the_client_in_the_middle_of_a_request(serve: Serve) -> None:
    session = serve(A_ASKED + RUNG)
    boiler = session.boiler

    def drop(*_: object) -> None:
        del session.core

    with on_alarm(drop):
        assert read(boiler, "A") is None
    session.peer.finish()


def test_a_handler_may_drop_the_client_while_it_connects(play: Play, project: str) -> None:
    peer = play(d.up_to_login(project) + d.logging_in(reply=b"") + RUNG + d.want_eof("req", "rcv"))
    clients = [DBCore()]

    def drop(*_: object) -> None:
        core = clients.pop()
        assert core.Connect(peer.host, d.USER, d.PASSWORD) == FAILED
        core.SetRtAlarmNotify(print, 0)
        del core
        raise Ring

    with on_alarm(drop), pytest.raises(Ring):
        clients[0].Connect(peer.host, d.USER, d.PASSWORD)


def test_another_thread_of_the_script_waits_for_a_request_under_way(serve: Serve) -> None:
    session = serve(
        A_ASKED + RUNG + d.wait("heard") + d.pause(0.1) + A_IS_7, d.looking_up(["B"], [6]) + d.reading_numbers([6], [8])
    )
    got: list[object] = []
    other = threading.Thread(target=lambda: got.append(read(session.boiler, "B")))

    def start(*_: object) -> None:
        other.start()
        time.sleep(0.2)  # it runs meanwhile, and its request has to wait
        got.append("other started")
        session.peer.go("heard")

    with on_alarm(start):
        got.append(read(session.boiler, "A"))
    other.join()
    assert got[0] == "other started"
    assert sorted(got[1:], key=str) == [7, 8]


def test_a_child_that_a_handler_forks_leaves_the_request_to_its_parent(serve: Serve) -> None:
    session = serve(A_ASKED + RUNG + d.wait("forked") + A_IS_7, w.SILENT)
    children: list[int] = []

    def fork(*_: object) -> None:
        child = os.fork()
        if child:
            children.append(child)
            session.peer.go("forked")

    parent = os.getpid()
    with on_alarm(fork):
        value = read(session.boiler, "A")
        if os.getpid() != parent:
            os._exit(0 if value is None else 1)  # the child's copy of the call has failed
    assert os.waitpid(children[0], 0)[1] == 0
    assert value == 7
    session.peer.until("silent")


WAITS = {
    "open": d.accept("req") + d.want_open() + RUNG + d.want_eof("req"),
    "register": d.opening() + d.accept("rcv") + d.want_register() + RUNG + d.want_eof("req", "rcv"),
    "login": d.up_to_login("p") + d.logging_in(reply=b"") + RUNG + d.want_eof("req", "rcv"),
    "header": d.up_to_login("p", size=100) + d.logging_in() + d.fetching(b"Si") + RUNG + d.want_eof("req", "rcv"),
    "body": d.up_to_login("p", size=100)
    + d.logging_in()
    + d.fetching(wire.download_reply(bytes(100))[:-50])
    + RUNG
    + d.want_eof("req", "rcv"),
}


@pytest.mark.parametrize("steps", WAITS.values(), ids=WAITS)
def test_every_wait_of_connect_is_ended_by_a_handler_that_raises(play: Play, steps: d.Steps) -> None:
    peer = play(steps)
    core = DBCore()
    with on_alarm(rings), pytest.raises(Ring):
        core.Connect(peer.host, d.USER, d.PASSWORD)
    assert time.monotonic() - peer.until("rings") < 2
    peer.finish()


@pytest.mark.parametrize("call", ["ConnectTag", "SetTagValue", "SetRtAlarmNotify"])
def test_every_wait_of_a_request_is_ended_by_a_handler_that_raises(serve: Serve, call: str) -> None:
    asked = d.want("req", b"n") if call == "SetRtAlarmNotify" else d.want("req", wire.lookup_request(0, ["A"]))
    session = serve(asked + RUNG, rights=8)
    calls: dict[str, Callable[[], object]] = {
        "ConnectTag": lambda: session.boiler.ConnectTag("A"),
        "SetTagValue": lambda: session.boiler.SetTagValue("A", 1),
        "SetRtAlarmNotify": lambda: session.core.SetRtAlarmNotify(print, 0),
    }
    with on_alarm(rings), pytest.raises(Ring):
        calls[call]()
    assert time.monotonic() - session.peer.until("rings") < 2
    has_ended(session)


def test_ctrl_c_ends_a_wait_in_the_main_thread(serve: Serve) -> None:
    session = serve(A_ASKED + d.tell("rings") + d.signal_client(signal.SIGINT))
    with_default = signal.signal(signal.SIGINT, signal.default_int_handler)
    try:
        with pytest.raises(KeyboardInterrupt):
            read(session.boiler, "A")
    finally:
        signal.signal(signal.SIGINT, with_default)
    assert time.monotonic() - session.peer.until("rings") < 2
    has_ended(session)


def test_the_receive_thread_takes_no_signals(serve: Serve) -> None:
    before = {path.name for path in Path("/proc/self/task").iterdir()}
    session = serve(d.tell("connected"))
    session.peer.until("connected")
    [thread] = {path.name for path in Path("/proc/self/task").iterdir()} - before
    status = Path(f"/proc/self/task/{thread}/status").read_text(encoding="ascii")
    blocked = int(status.split("SigBlk:")[1].split()[0], 16)
    taken = [
        number.name
        for number in signal.Signals
        if number not in (signal.SIGKILL, signal.SIGSTOP)
        and number
        not in (
            signal.SIGSEGV,
            signal.SIGBUS,
            signal.SIGFPE,
            signal.SIGILL,
            signal.SIGABRT,
            signal.SIGTRAP,
            signal.SIGSYS,
        )
        and number < signal.SIGRTMIN
        and not blocked >> (number - 1) & 1
    ]
    assert taken == []


def test_the_receive_connection_outlives_a_storm_of_signals(serve: Serve) -> None:
    ping = wire.system_notification(255, b"")
    session = serve(
        d.send("rcv", ping) + d.wait("storm over") + d.send("rcv", ping) + d.quiet("rcv") + d.tell("alive"),
        d.looking_up(["A"], [5]) + d.reading_numbers([5], [7]),
    )
    with under_fire(signal.SIGUSR1) as hits:
        time.sleep(0.5)
    assert len(hits) > 10
    session.peer.go("storm over")
    session.peer.until("alive")
    assert read(session.boiler, "A") == 7


def test_a_client_can_be_dropped_under_fire(play: Play, project: str) -> None:
    threads = live_threads()
    with under_fire(signal.SIGALRM):
        for _ in range(5):
            core = connect(play(d.connecting(project)).host)
            started = time.monotonic()
            del core
            assert time.monotonic() - started < 5
    assert settles(lambda: live_threads() <= threads)
