"""Signals that the script handles: they neither fail a request nor end the connection."""

from __future__ import annotations

import os
import select
import signal
import subprocess
import sys
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from types import FrameType

import dialogue as d
import pytest
import wire
from client import connect, read
from conftest import Play, Serve, live_threads, settles
from dialogue import Steps

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


def test_a_handler_that_raises_is_heard_after_the_call_and_harms_nothing(serve: Serve) -> None:
    class Alarm(Exception):
        pass

    def ring(_number: int, _frame: FrameType | None) -> None:
        raise Alarm

    rung = d.want("req", wire.read_request([(d.BOILER, 5)])) + d.signal_client(signal.SIGALRM) + d.pause(0.05)
    reply = d.send("req", wire.read_block([wire.typed(wire.VT_I4, 7)]))
    session = serve(d.looking_up(["A"], [5]) + rung + reply, d.reading_numbers([5], [8]))
    before = signal.signal(signal.SIGALRM, ring)
    try:
        with pytest.raises(Alarm):
            read(session.boiler, "A")
    finally:
        signal.signal(signal.SIGALRM, before)
    assert read(session.boiler, "A") == 8


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
