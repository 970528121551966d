"""What outlives what: drivers without a connection, connections that are dropped, and that nothing piles up.

Whatever might crash runs in an interpreter of its own, which must end by itself and in silence.
"""

from __future__ import annotations

import os
import time

import dialogue as d
import pytest
import wire
from client import connect, read
from conftest import Outcome, Play, Serve, live_threads, open_descriptors, passes_alone, run_alone, settles
from dialogue import Steps

A_IS_7 = d.looking_up(["A"], [5]) + d.reading_numbers([5], [7])

# A driver that has no connection must answer all of these, again and again.
CHECK_DEAD = """
def check_dead(driver):
    for _ in range(3):
        for names in ("A", "B", "A,B", "泵", "", ",", " ", "x" * 1000):
            assert driver.GetTagValue(names) is None, [names]
            for value in (1, 1.5, True, "text", None, [1], [1, 2]):
                assert driver.SetTagValue(names, value) < 0, [names, value]
        for names in ("A", "B", "A,B", "泵"):  # the others name no tag, so there is nothing to subscribe to
            assert driver.ConnectTag(names) == 0, [names]
        assert driver.SetTagNotify(print) is None
"""
HEAD = f"""
import gc, sys
from client import connect, read
import RkDBAccess
from RkDBAccess import DBCore, Driver
{CHECK_DEAD}
"""


def test_a_driver_made_by_hand_has_no_connection() -> None:
    passes_alone(HEAD + "check_dead(Driver())\ncheck_dead(Driver(1, 2, three=4))\ncheck_dead(type(Driver())())\n")


def test_an_object_that_never_connected_has_no_drivers() -> None:
    passes_alone(
        HEAD
        + """
core = DBCore()
for name in ("", "Boiler", "泵站", "x" * 100000):
    try:
        core.GetDriver(name)
    except SystemError:
        continue
    raise AssertionError(name)
assert core.SetRtAlarmNotify(print, 1) is None
del core
"""
    )


def test_a_driver_outlives_its_connection(play: Play, project: str) -> None:
    peer = play(d.connecting(project) + A_IS_7)
    passes_alone(
        HEAD
        + """
core = connect(sys.argv[1])
driver, twin, station = core.GetDriver("Boiler"), core.GetDriver("Boiler"), core.GetDriver("泵站")
assert driver.GetTagValue("A") == 7
del core
gc.collect()
for one in (driver, twin, station):
    check_dead(one)
del driver
check_dead(twin)
del twin, station
gc.collect()
""",
        peer.host,
    )


def test_a_driver_outlives_a_connection_that_the_server_ended(play: Play, project: str) -> None:
    asked = d.want("req", wire.lookup_request(d.BOILER, ["end"]))
    peer = play(d.connecting(project) + A_IS_7 + asked + d.reset("rcv") + d.want_eof("req"))
    passes_alone(
        HEAD
        + """
core = connect(sys.argv[1])
driver, station = core.GetDriver("Boiler"), core.GetDriver("泵站")
assert driver.GetTagValue("A") == 7
assert driver.GetTagValue("end") is None
check_dead(driver)
check_dead(station)
del core
check_dead(driver)
check_dead(station)
""",
        peer.host,
    )


def test_drivers_of_an_ended_connection_stay_dead_beside_a_new_one(play: Play, project: str) -> None:
    again = d.up_to_directory(project, wire.directory(d.DRIVERS))
    peer = play(d.connecting(project) + d.want_eof("req", "rcv") + again + A_IS_7)
    passes_alone(
        HEAD
        + """
core = connect(sys.argv[1])
before = core.GetDriver("Boiler")
del core
core = connect(sys.argv[1])
check_dead(before)
driver = core.GetDriver("Boiler")
check_dead(before)
assert driver.GetTagValue("A") == 7
del before
del core, driver
""",
        peer.host,
    )


@pytest.mark.parametrize("ending", ["", "sys.exit(3)", "os._exit(3)", "raise SystemExit(3)"])
@pytest.mark.parametrize("kept", ["core", "core, driver", "driver"])
def test_the_interpreter_ends_at_once_with_a_connection(play: Play, project: str, ending: str, kept: str) -> None:
    peer = play(d.connecting(project) + d.want_eof("req", "rcv") + d.tell("ended"))
    outcome = run_alone(
        f"""
import os, sys, time
from client import connect
core = connect(sys.argv[1])
driver = core.GetDriver("Boiler")
kept = [{kept}]
kept.append(kept)  # a cycle, which only the interpreter's end breaks
del core, driver
print(time.monotonic(), flush=True)
{ending}
""",
        peer.host,
    )
    assert (outcome.status, outcome.errors) == (3 if ending else 0, "")
    assert peer.until("ended") - float(outcome.output) < 5


def goes(play: Play, project: str, steps: Steps) -> None:
    """Dropping the client of a server that goes on like this must not wait for anything that the server does."""
    threads, descriptors = live_threads(), open_descriptors()
    peer = play(d.connecting(project) + d.wait("drivers taken") + steps)
    opened = open_descriptors() - descriptors  # of the peer's handle
    core = connect(peer.host)
    driver = core.GetDriver("Boiler")
    peer.go("drivers taken")
    peer.until("ready")
    started = time.monotonic()
    del core
    assert time.monotonic() - started < 5
    assert driver.GetTagValue("A") is None
    assert settles(lambda: live_threads() <= threads and open_descriptors() <= descriptors + opened)
    peer.finish()


def test_dropping_a_client_of_a_silent_server_is_quick(play: Play, project: str) -> None:
    goes(play, project, d.tell("ready"))


def test_dropping_a_client_of_a_busy_server_is_quick(play: Play, project: str) -> None:
    notes = b"".join(wire.every_system_notification(d.BOILER, 5)) * 50
    goes(play, project, d.tell("ready") + d.flood("rcv", notes) + d.want_eof("req"))


def test_dropping_a_client_of_a_server_that_sends_replies_unasked_is_quick(play: Play, project: str) -> None:
    goes(play, project, d.tell("ready") + d.flood("req", b"L" * 10_000) + d.want_eof("rcv"))


@pytest.mark.parametrize("how", ["close", "reset"])
@pytest.mark.parametrize("what", [["req"], ["rcv"], ["req", "rcv"], ["rcv", "req"]], ids="+".join)
def test_dropping_a_client_of_a_server_that_has_gone_is_quick(
    play: Play, project: str, how: str, what: list[str]
) -> None:
    steps: Steps = [(how, name) for name in what]
    left = [name for name in ("req", "rcv") if name not in what]
    goes(play, project, steps + d.tell("ready") + d.want_eof(*left))


def test_dropping_an_object_whose_connect_failed_leaves_nothing(play: Play, project: str) -> None:
    descriptors = open_descriptors()
    peer = play(d.up_to_login(project) + d.logging_in(reply=b"0") + d.want_eof("req", "rcv"))
    opened = open_descriptors() - descriptors
    with pytest.raises(AssertionError):
        connect(peer.host)
    assert settles(lambda: open_descriptors() <= descriptors + opened)


def test_a_dropped_client_in_one_thread_leaves_the_others_alone(serve: Serve) -> None:
    session = serve(A_IS_7, d.want_eof("rcv", "req"))
    assert read(session.boiler, "A") == 7
    del session.core
    session.peer.finish()
    assert read(session.boiler, "A") is None


ROUNDS = 60
# A round holds some megabytes of tags. A sanitizer keeps a record of each call stack that it meets: 0.7 to 1.7 MB.
SANITIZED = os.environ.get("RKDB_PRESET") in ("asan", "tsan")
RESIDENT_LIMIT = 4096 * 1024 if SANITIZED else 512 * 1024
# It also keeps freed memory for a while, to see it used; that would count as kept here. So does malloc, in a cache of
# each thread: which thread frees what a core and its receive thread share is chance, so up to seven blocks of each size
# are counted as given out or not. Without that cache each round leaves exactly what the one before left.
NOTHING_SET_ASIDE = {
    "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0",
}
if not SANITIZED:  # whose malloc is another
    NOTHING_SET_ASIDE["GLIBC_TUNABLES"] = "glibc.malloc.tcache_count=0"
SMALLEST_BLOCK = 32  # of malloc
PILES_UP = """
import faulthandler, sys, time
from pathlib import Path
from client import read
from process_memory import in_use
from RkDBAccess import DBCore

def count(what):
    return sum(1 for _ in Path(f"/proc/self/{what}").iterdir())

TASKS = count("task") - 1  # without faulthandler's; the thread sanitizer has one of its own
def round():
    core = DBCore()
    result = core.Connect(sys.argv[1], "operator", "secret")
    if result == 0:
        driver = core.GetDriver("Large")
        assert read(driver, "A,B") == [7, "text"]
        assert read(driver, "nothing") is None

faulthandler.cancel_dump_traceback_later()  # a thread of its own, which is not to be counted
def rest():
    # A receive thread may be on its last instructions when the object that it served is gone.
    deadline = time.monotonic() + 60
    while count("task") > TASKS and time.monotonic() < deadline:
        time.sleep(0.01)
    return count("fd"), count("task")

rounds = int(sys.argv[2]) // 2
at_first = rest()
samples = []
for _ in range(4):
    for _ in range(rounds):
        round()
    assert rest() == at_first
    samples.append(in_use())
# What is kept of rounds grows in each batch; what a batch is the first to need, like a stack more for receive threads
# that end late, does not.
given, resident = (min(b - a for a, b in zip(one, one[1:])) for one in zip(*samples))
assert given < int(sys.argv[4]), f"malloc has given out {given} bytes more after each {rounds} rounds: {samples}"
assert resident < int(sys.argv[3]), f"{resident} bytes more are resident after {rounds} rounds"
"""


def come_and_go(play: Play, project: str, script: str) -> Outcome:
    """The outcome of a script whose rounds connect, read and end the connection."""
    body = wire.directory([("Large", 0, 60_000)])
    texts = [wire.typed(wire.VT_I4, 7), wire.typed(wire.VT_STR, b"text")]
    one = d.logging_in()
    rest = d.looking_up(["A", "B"], [5, 59_999]) + d.reading([5, 59_999], wire.read_block(texts))
    rest += d.looking_up(["nothing"], [0xFFFF]) + d.want_eof("req", "rcv")
    opened = d.up_to_login(project, size=len(body))
    first = opened + one + d.fetching(wire.download_reply(body, d.FILE_TIME)) + rest
    peer = play(first + (opened + one + rest) * (2 * ROUNDS - 1))
    return run_alone(script, peer.host, *limits(ROUNDS), environment=NOTHING_SET_ASIDE)


def limits(rounds: int) -> tuple[str, ...]:
    return str(rounds), str(RESIDENT_LIMIT), str(SMALLEST_BLOCK)


def test_connections_that_come_and_go_leave_nothing(play: Play, project: str) -> None:
    outcome = come_and_go(play, project, PILES_UP)
    assert (outcome.status, outcome.errors) == (0, ""), outcome


def test_a_planted_leak_of_a_small_block_is_seen(play: Play, project: str) -> None:
    # Of one byte in every tenth round. A sanitizer's malloc does not say what it has given out, but the kernel does.
    size = 4 * RESIDENT_LIMIT // ROUNDS * 10 if SANITIZED else 1
    planted = f"""
    rounds_done.append(1)
    if len(rounds_done) % 10 == 0:
        ctypes.memset(malloc({size}), 1, {size})
"""
    head = """
import ctypes
malloc = ctypes.CDLL(None).malloc
malloc.argtypes, malloc.restype = [ctypes.c_size_t], ctypes.c_void_p
rounds_done = []
"""
    outcome = come_and_go(play, project, head + PILES_UP.replace("\nfaulthandler.", planted + "\nfaulthandler."))
    assert outcome.status == 1
    assert "are resident after" in outcome.errors if SANITIZED else "malloc has given out" in outcome.errors, outcome


@pytest.mark.parametrize("fails_at", ["open", "register", "login", "lost"])
def test_connections_that_fail_leave_nothing(play: Play, project: str, fails_at: str) -> None:
    steps = {
        "open": d.opening(b"0") + d.want_eof("req"),
        "register": d.opening() + d.registering(wire.scramble(b"0")) + d.want_eof("req", "rcv"),
        "login": d.up_to_login(project) + d.logging_in(reply=b"0") + d.want_eof("req", "rcv"),
        "lost": d.up_to_login(project)
        + d.want("req", wire.login_request(d.USER.encode(), d.PASSWORD.encode()))
        + d.reset("req")
        + d.want_eof("rcv"),
    }
    peer = play(steps[fails_at] * 2 * 30)
    passes_alone(PILES_UP, peer.host, *limits(30), environment=NOTHING_SET_ASIDE)
