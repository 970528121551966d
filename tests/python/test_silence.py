"""Servers that do not answer: every wait ends by the time-out, and a reply that comes later is never taken.

The clients wait for eight seconds (thirteen through a relay), so all of them wait at the same time, each in a
process of its own; the tests then look at what each has told.
"""

from __future__ import annotations

import json
import os
import socket
import subprocess
import sys
import uuid
from collections.abc import Iterator
from dataclasses import dataclass, field

import dialogue as d
import pytest
import wire
from client import FAILED
from conftest import remove_mirrors
from dialogue import Steps
from peer import Peer

pytestmark = pytest.mark.xdist_group("silence")  # one process starts them all

T, T_RELAY = 8.0, 13.0
PROJECT = f"t{uuid.uuid4().hex[:10]}"
BODY = wire.directory(d.DRIVERS)

# Every call's result, its seconds and its seconds of computing.
CLIENT = f"""
import faulthandler, json, signal, sys, time
faulthandler.dump_traceback_later(150, exit=True)
from client import read
from RkDBAccess import DBCore
results = []
def timed(call, *arguments):
    started, computed = time.monotonic(), time.process_time()
    value = call(*arguments)
    results.append([value, time.monotonic() - started, time.process_time() - computed])
core = DBCore()
def connect():
    return core.Connect(sys.argv[1], {d.USER!r}, {d.PASSWORD!r})
"""
CONNECTS = "timed(connect)\n"
READS = """
assert connect() == 0
boiler = core.GetDriver("Boiler")
"""
# A timer that went on would end a process whose interpreter has already put the default handler back.
ENDS = "del core\nsignal.setitimer(signal.ITIMER_REAL, 0)\nprint(json.dumps(results))\n"

READS_A = READS + 'timed(read, boiler, "A")\n'
# Two requests at once, and two when the late reply has come.
THEN_OTHERS = """
timed(read, boiler, "B")
timed(read, boiler, "A")
time.sleep(2.5)
timed(read, boiler, "C")
timed(read, boiler, "A,B")
try:
    core.GetDriver("Boiler")
except SystemError:
    results.append(["ended", 0, 0])
"""
INTERRUPTED = """
signal.signal(signal.SIGALRM, lambda *_: None)
signal.setitimer(signal.ITIMER_REAL, 0.05, 0.05)
"""


@dataclass
class Scenario:
    """A server's script, and what a client does meanwhile."""

    steps: Steps
    calls: str
    address: tuple[str, int] = ("127.0.0.1", 0)
    host: str = ""
    run: Run | None = field(default=None, init=False)


class Run:
    """A scenario under way."""

    def __init__(self, scenario: Scenario) -> None:
        self.peer = Peer(scenario.steps, {"server": scenario.address}, patience=150)
        self.host = scenario.host or self.peer.host
        self._client = subprocess.Popen(
            [sys.executable, "-X", "faulthandler", "-c", CLIENT + scenario.calls + ENDS, self.host],
            env={**os.environ, "PYTHONPATH": os.pathsep.join(path for path in sys.path if path)},
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )

    def results(self) -> list[tuple[object, float, float]]:
        """Result, seconds and seconds of computing of each call; the server must have seen its script."""
        output, errors = self._client.communicate(timeout=200)
        assert (self._client.returncode, errors) == (0, "")
        self.peer.finish()
        return [(value, seconds, computing) for value, seconds, computing in json.loads(output)]

    def end(self) -> None:
        if self._client.poll() is None:
            self._client.kill()
        self._client.communicate()
        self.peer.kill()


def own_address(number: int) -> str:
    return f"127.200.{os.getpid() % 250}.{number}"


def late(data: bytes) -> Steps:
    """A reply that comes after the client has given up."""
    return d.pause(T + 1.5) + d.send_anyway("req", data) + d.want_eof("req")


def trickling(data: bytes, name: str = "req") -> Steps:
    """A reply of which a byte comes every five seconds: the fifth after more than twice the time-out."""
    assert len(data) >= 5
    steps: Steps = []
    for number in range(5):
        steps += d.send_anyway(name, data[number : number + 1]) + d.pause(5)
    return steps


A_ASKED = d.connecting(PROJECT) + d.want("req", wire.lookup_request(0, ["A"]))
A_READ = A_ASKED + d.send("req", wire.lookup_reply([5])) + d.want("req", wire.read_request([(0, 5)]))
A_IS_666 = wire.read_block([wire.typed(wire.VT_I4, 666)])
FETCHED = d.up_to_directory(PROJECT, BODY) + d.want("req", wire.download_request())
HALF_BODY = wire.download_reply(BODY)[:-5]
NAMED = f"p2p({own_address(2)}):name"

SCENARIOS = {
    "open": Scenario(d.accept("req") + d.want_open() + d.want_eof("req"), CONNECTS),
    "open, interrupted": Scenario(d.accept("req") + d.want_open() + d.want_eof("req"), INTERRUPTED + CONNECTS),
    "register": Scenario(d.opening() + d.accept("rcv") + d.want_register() + d.want_eof("req", "rcv"), CONNECTS),
    "login": Scenario(
        d.up_to_login(PROJECT)
        + d.want("req", wire.login_request(d.USER.encode(), d.PASSWORD.encode()))
        + d.want_eof("req", "rcv"),
        CONNECTS,
    ),
    "header": Scenario(FETCHED + d.want_eof("req", "rcv"), CONNECTS),
    "body": Scenario(FETCHED + d.send("req", HALF_BODY) + d.want_eof("req", "rcv"), CONNECTS),
    "body, closed": Scenario(
        FETCHED + d.send("req", HALF_BODY) + d.end_sending("req") + d.want_eof("req", "rcv"), CONNECTS
    ),
    "relay": Scenario(
        d.accept("req") + d.want_open("req", b"name") + d.want_eof("req"),
        CONNECTS,
        (own_address(2), wire.RELAY_PORT),
        NAMED,
    ),
    "lookup": Scenario(A_ASKED + late(wire.lookup_reply([5]) + A_IS_666), READS_A + THEN_OTHERS),
    "lookup, cut short": Scenario(
        A_ASKED + d.send("req", wire.lookup_reply([5])[:3]) + late(wire.lookup_reply([5])[3:] + A_IS_666),
        READS_A + THEN_OTHERS,
    ),
    "lookup, interrupted": Scenario(
        A_ASKED + late(wire.lookup_reply([5]) + A_IS_666),
        READS + INTERRUPTED + 'timed(read, boiler, "A")\n' + THEN_OTHERS,
    ),
    "read": Scenario(A_READ + late(A_IS_666 + wire.lookup_reply([5])), READS_A + THEN_OTHERS),
    "read, without a payload": Scenario(
        A_READ + d.send("req", A_IS_666[:4]) + late(A_IS_666[4:] + A_IS_666), READS_A + THEN_OTHERS
    ),
    "read, cut short in the payload": Scenario(
        A_READ + d.send("req", A_IS_666[:7]) + late(A_IS_666[7:] + A_IS_666), READS_A + THEN_OTHERS
    ),
    "read, without the next block": Scenario(
        A_READ + d.send("req", wire.read_block([], more=True)) + late(A_IS_666), READS_A + THEN_OTHERS
    ),
    "advise": Scenario(
        d.connecting(PROJECT)
        + d.looking_up(["A"], [5])
        + d.want("req", b"b\x01\x00\0\0\x05\0\0")
        + late(b"b\x06\x00\x03\x00\x9a\x02\0\0"),
        READS + 'timed(lambda: boiler.ConnectTag("A") or None)\n' + THEN_OTHERS,
    ),
    # Bytes that keep coming, each in time.
    "trickled login": Scenario(
        d.up_to_login(PROJECT)
        + d.want("req", wire.login_request(d.USER.encode(), d.PASSWORD.encode()))
        + trickling(wire.login_reply(0xFF)),
        CONNECTS,
    ),
    "trickled register reply": Scenario(
        d.opening() + d.accept("rcv") + d.want_register() + trickling(wire.RegisterReply(b"p").scrambled(), "rcv"),
        CONNECTS,
    ),
    "trickled header": Scenario(FETCHED + trickling(HALF_BODY), CONNECTS),
    "trickled body": Scenario(FETCHED + d.send("req", HALF_BODY) + trickling(bytes(100)), CONNECTS),
    "trickled lookup": Scenario(A_ASKED + trickling(wire.lookup_reply([5])), READS_A),
    "trickled read": Scenario(A_READ + trickling(A_IS_666), READS_A),
    "endless blocks": Scenario(A_READ + d.flood("req", wire.read_block([], more=True) * 1000), READS_A),
}


@pytest.fixture(scope="module")
def runs() -> Iterator[dict[str, Run]]:
    started = {name: Run(scenario) for name, scenario in SCENARIOS.items()}
    yield started
    remove_mirrors([run.host for run in started.values()])
    for run in started.values():
        run.end()


def waited_once(seconds: float, bound: float = T) -> bool:
    """Whether a call ended by its time-out: not before it, and long before a second one would have passed."""
    return bound - 0.2 <= seconds <= 1.75 * bound


CONNECTING = ["open", "open, interrupted", "register", "login", "header", "body"]
REQUESTING = [name for name in SCENARIOS if name.startswith(("lookup", "read", "advise"))]


@pytest.mark.parametrize("silent_at", CONNECTING)
def test_connect_fails_by_the_time_out_when_the_server_is_silent(runs: dict[str, Run], silent_at: str) -> None:
    [(value, seconds, _)] = runs[silent_at].results()
    assert value == FAILED
    assert waited_once(seconds), seconds


def test_connect_through_a_relay_waits_longer(runs: dict[str, Run]) -> None:
    [(value, seconds, _)] = runs["relay"].results()
    assert value == FAILED
    assert waited_once(seconds, T_RELAY), seconds


def test_a_body_whose_sender_has_gone_fails_by_the_time_out_and_without_spinning(runs: dict[str, Run]) -> None:
    [(value, seconds, computing)] = runs["body, closed"].results()
    assert value == FAILED
    assert seconds <= 1.75 * T
    assert computing < 1


@pytest.mark.parametrize("silent_at", REQUESTING)
def test_a_reply_that_comes_too_late_is_never_taken_and_later_requests_fail_at_once(
    runs: dict[str, Run], silent_at: str
) -> None:
    (value, seconds, computing), *later = runs[silent_at].results()
    assert value is None
    assert waited_once(seconds), seconds
    assert computing < 1
    assert [value for value, _, _ in later] == [None] * 4 + ["ended"]
    assert max(seconds for _, seconds, _ in later) < T / 2


@pytest.mark.parametrize("trickled", [name for name in SCENARIOS if name.startswith("trickled")])
def test_an_answer_that_trickles_is_given_up(runs: dict[str, Run], trickled: str) -> None:
    # A whole reply has twice the time-out; a download has to bring 4 KiB in each.
    bound = T if trickled.endswith(("header", "body")) else 2 * T
    [(value, seconds, computing)] = runs[trickled].results()
    assert value == (FAILED if SCENARIOS[trickled].calls == CONNECTS else None)
    assert bound - 0.2 <= seconds <= bound + 0.75 * T, seconds
    assert computing < 1


def test_blocks_without_an_end_are_given_up(runs: dict[str, Run]) -> None:
    [(value, seconds, _)] = runs["endless blocks"].results()
    assert value is None
    assert 2 * T - 0.2 <= seconds <= 2 * T + 0.75 * T, seconds


def test_a_host_that_never_answers_is_given_up_by_the_time_out() -> None:
    # The kernel drops connection requests while a listener's queue is full, as a host does that is not there.
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(0)
        waiting = [socket.socket() for _ in range(4)]
        for one in waiting:
            one.setblocking(False)
            one.connect_ex(listener.getsockname())
        host = f"127.0.0.1:{listener.getsockname()[1]}"
        done = subprocess.run(
            [sys.executable, "-c", CLIENT + CONNECTS + ENDS, host],
            env={**os.environ, "PYTHONPATH": os.pathsep.join(path for path in sys.path if path)},
            capture_output=True,
            text=True,
            check=True,
            timeout=200,
        )
        for one in waiting:
            one.close()
    [[value, seconds, _]] = json.loads(done.stdout)
    assert value == FAILED
    assert waited_once(seconds), seconds
