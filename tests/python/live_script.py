"""What the tests of live connections share whose clients run in interpreters of their own."""

from __future__ import annotations

import os
import signal
import subprocess
import sys

import dialogue as d
import live_wire as w
import wire
from conftest import FORKS_QUIETLY, Play, passes_alone
from live_wire import change, push
from peer import Peer

I4, STR = wire.VT_I4, wire.VT_STR

# How many times fewer changes sanitized code gets. The address sanitizer looks at the whole stack at each of the
# interpreter's allocations, so that leaks of the interpreter's objects are seen.
SLOWER = {"asan": 20, "tsan": 4}.get(os.environ.get("RKDB_PRESET", ""), 1)

HEAD = """
import contextlib, functools, gc, os, sys, threading, time, warnings, weakref
from pathlib import Path
from client import connect, read
from RkDBAccess import DBCore

def until(is_so, seconds=30):
    deadline = time.monotonic() + seconds
    while not is_so():
        assert time.monotonic() < deadline, "waited too long"
        time.sleep(0.002)

def tasks():
    return sum(1 for _ in Path("/proc/self/task").iterdir())

def quickly(do):
    started = time.monotonic()
    do()
    assert time.monotonic() - started < 5, "not quick"

at_first = tasks()
core = connect(sys.argv[1])
boiler = core.GetDriver("Boiler")
seen = []
"""

# Registers a callback that keeps the values in the order in which it is told of them.
TOLD = "boiler.SetTagNotify(lambda driver, tag, value: seen.append(value))\n"


def go(*labels: str) -> d.Steps:
    """Reads of tags of these names, by which a script tells the peer to go on: position 100 and up, value 0."""
    steps: d.Steps = []
    for label in labels:
        position = 100 + int(label.removeprefix("go"))
        steps += d.looking_up([label], [position]) + d.reading_numbers([position], [0])
    return steps


def changes(*values: int) -> d.Steps:
    return push(*(change(0, I4, value) for value in values))


SUBSCRIBED = w.subscribing_kinds([I4, STR])
SUBSCRIBE = 'assert boiler.ConnectTag("T0,T1") == 1\n'
FLOOD = d.flood("rcv", b"".join(change(0, I4, n) + change(1, STR, b"text %d" % n) for n in range(500)))
STORM = SUBSCRIBED + FLOOD + d.want_eof("req")


def peer_of(play: Play, project: str, *steps: d.Steps) -> Peer:
    return play(d.connecting(project) + [step for part in steps for step in part])


def runs(play: Play, project: str, script: str, *steps: d.Steps, before: str = "") -> str:
    """Runs a script against a peer that goes on like this, both to their ends; gives what the script printed.

    before: what the script does before it connects.
    """
    peer = peer_of(play, project, *steps)
    output = passes_alone(before + HEAD + script, peer.host)
    peer.finish()
    return output


def passes_unwatched(script: str, *arguments: str, timeout: float = 60.0) -> str:
    """passes_alone for scripts that fork: its watchdog is a thread that a forked copy waits for at its end.

    For a leak check there is nothing to see: a copy has its parent's memory, but not the thread whose stack leads to
    some of it.
    """
    path = os.pathsep.join(path for path in sys.path if path)
    more = {"ASAN_OPTIONS": "detect_leaks=0", "TSAN_OPTIONS": "die_after_fork=0"}
    sanitizers = {name: ":".join(filter(None, [os.environ.get(name), option])) for name, option in more.items()}
    process = subprocess.Popen(
        [sys.executable, *FORKS_QUIETLY, "-X", "faulthandler", "-c", script, *arguments],
        env={**os.environ, "PYTHONPATH": path, **sanitizers},
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        start_new_session=True,
    )
    try:
        output, errors = process.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)  # what it has forked as well
        output, errors = process.communicate()
        raise AssertionError(f"hangs\n{output}\n{errors}") from None
    assert (process.returncode, errors) == (0, ""), f"status {process.returncode}\n{output}\n{errors}"
    return output


def forks(play: Play, project: str, script: str, *steps: d.Steps) -> None:
    """Runs a script that forks against a peer that goes on like this, both to their ends."""
    peer = peer_of(play, project, *steps)
    passes_unwatched(HEAD + script, peer.host)
    peer.finish()
