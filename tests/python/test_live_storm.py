"""Endless streams of changes: complete, in order and correct, whatever the script does meanwhile.

RKDB_STORM is the number of changes of the longest one (300,000 if not set, fewer with sanitized code). The clients
run in processes of their own.
"""

from __future__ import annotations

import faulthandler
import os
import sys

import dialogue as d
import live_wire as w
import pytest
import wire
from conftest import Play, passes_alone
from live_peer import Cut, Mixed, Sane
from live_script import SLOWER

CHANGES = int(os.environ.get("RKDB_STORM") or 300_000 // SLOWER)
OTHERS = 10_000 // SLOWER  # rounds of the other ones
SLOWEST = 5_000 // SLOWER  # changes a second, on a loaded machine

# Arguments: host, number of rounds. Every change is compared with the one that must come next.
HEAD = """
import sys, threading, time
from client import connect, read
from live_peer import Mixed, Sane
core = connect(sys.argv[1])
boiler = core.GetDriver("Boiler")
rounds = int(sys.argv[2])
done = threading.Event()
wrong = []
"""
COMPARE = """
stream = Mixed(rounds)
names = {position: f"T{position}" for position in range(stream.PER_ROUND)}
expected = stream.all_changes()
last = rounds * stream.PER_ROUND
seen = 0

def on_change(driver, tag, value):
    global seen
    position, wanted = next(expected, (None, None))
    if value != wanted or type(value) is not type(wanted) or tag != names.get(position) or driver != "Boiler":
        wrong.append((seen, driver, tag, value, position, wanted))
    seen += 1
    if seen == last or len(wrong) > 3:
        done.set()

boiler.SetTagNotify(on_change)
assert boiler.ConnectTag(",".join(names.values())) == 1
boiler.GetTagValue("go")  # the server begins now
"""
FINISH = """
assert wrong == [], wrong[:3]
assert seen == last, (seen, last)
everything = read(boiler, ",".join(names.values()))
assert everything == [value for _, value in stream.changes(rounds - 1)], everything
print(seen)
"""


def storm(play: Play, project: str, rounds: int, meanwhile: str = "done.wait()\n", longest: int = 0) -> None:
    """longest: bytes of the longest segment, if segments are to end anywhere."""
    stream = Mixed(rounds)
    peer = play(
        d.connecting(project)
        + w.subscribing_kinds(stream.KINDS)
        + d.looking_up(["go"], [100])
        + d.reading_numbers([100], [0])
        + (w.streaming(Cut(stream, seed=longest, longest=longest), 1) if longest else w.streaming(stream))
    )
    changes = rounds * stream.PER_ROUND
    bound = 60 + changes / SLOWEST
    watch_over(bound)
    shown = passes_alone(HEAD + COMPARE + meanwhile + FINISH, peer.host, str(rounds), timeout=bound)
    assert shown == f"{changes}\n"


def watch_over(seconds: float) -> None:
    """Longer storms need a longer watchdog than the one that every test has."""
    if seconds > 80:
        faulthandler.dump_traceback_later(seconds + 60, exit=True, file=sys.__stderr__ or sys.stderr)


def test_an_endless_stream_of_mixed_changes_arrives_complete_in_order_and_correct(play: Play, project: str) -> None:
    storm(play, project, -(-CHANGES // Mixed.PER_ROUND))


@pytest.mark.parametrize("longest", [7, 50, 3000])
def test_a_stream_in_segments_that_end_anywhere_arrives_complete(play: Play, project: str, longest: int) -> None:
    storm(play, project, OTHERS // (400 // longest) if longest < 100 else OTHERS // 2, longest=longest)


def test_a_stream_beside_a_busy_script_arrives_complete(play: Play, project: str) -> None:
    storm(play, project, OTHERS, "while not done.is_set():\n    sum(range(5000))\n")


def test_a_stream_beside_a_script_that_reads_and_writes_arrives_complete(play: Play, project: str) -> None:
    # Names that are known and values in memory: no traffic, but the same slots and locks.
    meanwhile = """
everything = ",".join(names.values())
while not done.is_set():
    assert len(read(boiler, everything)) == len(names)
    assert boiler.ConnectTag(everything) == 1
    assert boiler.SetTagValue("T0", 1) == -1
    core.GetDriver("Boiler")
    time.sleep(0)
"""
    storm(play, project, OTHERS, meanwhile)


def test_a_stream_beside_other_threads_of_the_script_arrives_complete(play: Play, project: str) -> None:
    meanwhile = """
def work():
    while not done.is_set():
        read(boiler, "T1,T11,T12")
        boiler.ConnectTag("T3")
        time.sleep(0.0001)

threads = [threading.Thread(target=work) for _ in range(5)]
for thread in threads:
    thread.start()
for thread in threads:
    thread.join()
"""
    storm(play, project, OTHERS, meanwhile)


READ_SANE = """
stream = Sane(rounds)
names = ("T0", "T1", "T2")
values = {name: {stream.changes(k)[i][1] for k in range(26)} for i, name in enumerate(names)}
for name, at_first in zip(names, ("", 0.0, 0)):
    values[name].add(at_first)

def check(name, value):
    if value not in values[name]:
        wrong.append((name, value))

if sys.argv[3] == "called":
    boiler.SetTagNotify(lambda driver, tag, value: tag == "T3" or check(tag, value))
assert boiler.ConnectTag("T0,T1,T2,T3") == 1
boiler.GetTagValue("go")  # the server begins now
reads, distinct = 0, set()
while boiler.GetTagValue("T3") != 1:  # the last change of all
    for name in names:
        value = boiler.GetTagValue(name)
        check(name, value)
        distinct.add(value)
    for name, value in zip(names, boiler.GetTagValue("T0,T1,T2")):
        check(name, value)
    reads += 1
    if reads % 20 == 0:
        time.sleep(0)  # so that callbacks have their turn
assert wrong == [], wrong[:3]
assert boiler.GetTagValue("T0,T1,T2") == [value for _, value in stream.changes(rounds - 1)]
assert len(distinct) > 10, distinct
"""


@pytest.mark.parametrize("told", ["called", "stored"])
def test_a_read_during_a_storm_sees_only_values_that_were_sent(play: Play, project: str, told: str) -> None:
    stream = Sane(10 * OTHERS)
    peer = play(
        d.connecting(project)
        + w.subscribing_kinds([*stream.KINDS, wire.VT_I4])
        + d.looking_up(["go"], [100])
        + d.reading_numbers([100], [0])
        + w.streaming(stream)
        + w.push(w.change(3, wire.VT_I4, 1))
    )
    passes_alone(HEAD + READ_SANE, peer.host, str(stream.rounds), told, timeout=80)
