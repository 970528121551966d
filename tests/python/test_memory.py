"""What months of changes and alarms leave in memory: nothing. And what the largest files take at most.

What is to leave nothing measures itself twice, after a warm-up and at its end, in quiet moments: what the kernel has
given to the process, what malloc and the interpreter have given out, and reference counts.
RKDB_MEMORY is the number of callbacks of the longest ones (1,000,000 if not set, fewer with sanitized code).
"""

from __future__ import annotations

import os

import dialogue as d
import live_wire as w
import pytest
import wire
from conftest import Play, passes_alone
from live_peer import Mixed, Same
from live_script import HEAD, SLOWER, go, peer_of
from live_wire import Alarm, alarm_notification, registering_alarms

CALLS = int(os.environ.get("RKDB_MEMORY") or 1_000_000 // SLOWER)
FEWER = CALLS // 10
WARM_UP = 60_000 // SLOWER

MEASURE = """
from process_memory import in_use

names = ["Boiler", "T0", "T1"]
watched = [None, True, False, (), "", names, *names]

def measure():
    malloc, resident = in_use()
    return {
        "resident": resident,
        "malloc": malloc,
        "blocks": sys.getallocatedblocks(),
        "references": [sys.getrefcount(one) for one in watched],
    }

def compare(before, after, calls):
    grown = {name: after[name] - before[name] for name in ("resident", "malloc", "blocks")}
    assert grown["resident"] < 2 * 1024 * 1024, (grown, calls)
    assert grown["malloc"] < 64 * 1024 + calls // 10, (grown, calls)
    assert grown["blocks"] < 500, (grown, calls)
    moved = [b - a for a, b in zip(before["references"], after["references"])]
    assert all(abs(one) < 100 for one in moved), moved  # of as many calls
    print("grown by", grown)

count = 0
"""
RUN = """
warm_up, calls = int(sys.argv[2]), int(sys.argv[3])
def references():
    return [sys.getrefcount(one) for one in kept]

def heard(total):
    until(lambda: count == total, 300)
    until(lambda: references() == at_rest, 60)  # the last call may still be on its way out

at_rest = references()
assert boiler.ConnectTag(",".join(f"T{position}" for position in range(14))) == 1
boiler.GetTagValue("go1")
heard(warm_up)
before = measure()
boiler.GetTagValue("go2")
heard(warm_up + calls)
compare(before, measure(), calls)
"""


@pytest.fixture(autouse=True)
def without_quarantine(monkeypatch: pytest.MonkeyPatch) -> None:
    """The address sanitizer keeps what is freed for a while, which is no growth of ours."""
    options = os.environ.get("ASAN_OPTIONS", "")
    monkeypatch.setenv("ASAN_OPTIONS", f"{options}:quarantine_size_mb=1:thread_local_quarantine_size_kb=64".lstrip(":"))


def stays_flat(play: Play, project: str, script: str, calls: int, one: bytes | None = None) -> None:
    """Runs the script with a warm-up and then that many callbacks: of mixed changes, or each of the same bytes."""
    per_round = 1 if one else Mixed.PER_ROUND
    rounds = [number // per_round for number in (WARM_UP, calls)]
    streams = [w.streaming(Same(one, number) if one else Mixed(number)) for number in rounds]
    peer = peer_of(
        play,
        project,
        registering_alarms(),
        w.subscribing_kinds(Mixed.KINDS),
        go("go1"),
        streams[0],
        go("go2"),
        streams[1],
    )
    arguments = (str(number * per_round) for number in rounds)
    output = passes_alone(HEAD + MEASURE + script + RUN, peer.host, *arguments, timeout=80)
    assert output.startswith("grown by")
    print(f"{calls} callbacks:", output)  # pytest -rP shows it


COUNTS_ALARMS = """
def on_alarm(*alarm):
    global count
    count += 1

core.SetRtAlarmNotify(on_alarm, 0)
kept = [on_alarm, core, boiler]
"""
NO_ALARM = "core.SetRtAlarmNotify(print, 0)\n"


def test_a_million_change_callbacks_leave_memory_flat(play: Play, project: str) -> None:
    script = f"""
def on_change(driver, tag, value):
    global count
    count += 1

{NO_ALARM}
boiler.SetTagNotify(on_change)
kept = [on_change, core, boiler]
"""
    stays_flat(play, project, script, CALLS)


def test_a_million_alarms_leave_memory_flat(play: Play, project: str) -> None:
    alarm = Alarm(event_time=1_700_000_050, tag=1, kind=1, group=70)
    stays_flat(play, project, COUNTS_ALARMS, CALLS, alarm_notification(alarm))


def test_callbacks_of_a_method_with_results_leave_memory_flat(play: Play, project: str) -> None:
    script = f"""
class Client:
    def on_change(self, driver, tag, value):
        global count
        count += 1
        return True, None, [driver, tag, value]

{NO_ALARM}
client = Client()
boiler.SetTagNotify(client.on_change)
kept = [client, Client.on_change, core, boiler]
"""
    stays_flat(play, project, script, FEWER)


def test_callbacks_that_raise_leave_memory_flat(play: Play, project: str) -> None:
    script = f"""
sys.unraisablehook = lambda args: None
def on_change(driver, tag, value):
    global count
    count += 1
    raise ValueError(value)

{NO_ALARM}
boiler.SetTagNotify(on_change)
kept = [on_change, core, boiler, ValueError]
"""
    stays_flat(play, project, script, FEWER)


def test_calls_that_are_skipped_leave_memory_flat(play: Play, project: str) -> None:
    # Those of a method whose instance is gone. The alarm that follows each round is the one that counts.
    script = """
warnings.simplefilter("ignore")
class Client:
    def on_change(self, driver, tag, value):
        raise AssertionError

def on_alarm(*alarm):
    global count
    count += 1

core.SetRtAlarmNotify(on_alarm, 0)
boiler.SetTagNotify(Client().on_change)
kept = [on_alarm, Client, Client.on_change, core, boiler]
"""
    one = w.change(1, wire.VT_I4, 7) + w.change(11, wire.VT_STR, b"text" * 20) + alarm_notification(Alarm())
    stays_flat(play, project, script, FEWER, one)


def test_values_that_nobody_is_told_of_leave_memory_flat(play: Play, project: str) -> None:
    one = b"".join(w.change(11, wire.VT_STR, b"x" * size) for size in (5, 500, 50)) + alarm_notification(Alarm())
    stays_flat(play, project, COUNTS_ALARMS, FEWER, one)


def test_calls_that_need_no_traffic_leave_memory_flat(play: Play, project: str) -> None:
    script = """
texts = ["text", "\\ud800", "te\\0xt", "x" * 3000]
class Numbers(list):
    pass

def work(rounds):
    for _ in range(rounds):
        assert boiler.GetTagValue("T0,T1,T11") == [0, 0, ""]
        assert boiler.GetTagValue("T11") == ""
        assert boiler.ConnectTag("T0,T1,T11") == 1
        for text in texts[1:]:
            assert boiler.SetTagValue("T0", text) == -3
        assert boiler.SetTagValue("T0,T1", Numbers([1, None])) == -3
        assert boiler.SetTagValue("T0,T1", (1, 2)) == -3
        boiler.SetTagNotify(lambda *change: None)
        core.SetRtAlarmNotify(lambda *alarm: None, 1)
        core.GetDriver("Boiler")
        for wrong in (lambda: core.GetDriver("none"), lambda: boiler.SetTagNotify(5), lambda: boiler.GetTagValue()):
            try:
                wrong()
            except (SystemError, TypeError):
                continue
            raise AssertionError

core.SetRtAlarmNotify(print, 1)
assert boiler.ConnectTag(",".join(f"T{position}" for position in range(14))) == 1
rounds = int(sys.argv[2])
work(rounds)
before = measure()
work(rounds)
compare(before, measure(), rounds)
"""
    peer = play(d.connecting(project, rights=w.MAY_WRITE) + registering_alarms() + w.subscribing_kinds(Mixed.KINDS))
    passes_alone(HEAD + MEASURE + script, peer.host, str(10_000 // SLOWER), timeout=80)


LIVE_ROUND = """
def round():
    global core, boiler, count
    core = connect(sys.argv[1])
    boiler = core.GetDriver("Boiler")
    count = 0
    def on_event(*arguments):
        global count
        count += 1
        return boiler
    boiler.SetTagNotify(on_event)
    core.SetRtAlarmNotify(lambda *alarm: on_event(core.GetDriver("Boiler")), 1)
    assert count == 1
    assert boiler.ConnectTag("T0,T1") == 1
    until(lambda: count == 4)
    assert boiler.SetTagValue("T0,T1", [1, "text"]) == 0
    del core, boiler
    gc.collect()

del core, boiler
rounds = int(sys.argv[2])
samples = []
for _ in range(4):
    for _ in range(rounds):
        round()
    until(lambda: tasks() == at_first)
    samples.append(measure())
# What is kept of each round grows in each batch.
pairs = list(zip(samples, samples[1:]))
for name, limit in (("malloc", 32), ("blocks", rounds), ("resident", 2 * 1024 * 1024)):
    assert min(b[name] - a[name] for a, b in pairs) < limit, (name, samples)
for a, b in pairs:
    compare(a, b, rounds)
"""


def test_live_connections_that_come_and_go_leave_memory_flat(play: Play, project: str) -> None:
    rounds = 20
    body = wire.directory(d.DRIVERS)
    opening = d.up_to_login(project, size=len(body)) + d.logging_in(reply=wire.login_reply(w.MAY_WRITE))
    use_last = wire.download_header(UseLast="Yes")
    alarm = Alarm()
    lists = [
        step
        for name, entries in ((w.TEXT_LIST, w.TEXTS), (w.TAG_LIST, w.TAGS))
        for step in d.fetching(use_last, wire.download_request(name, (w.FILE_TIME, len(w.list_file(entries)))))
    ]
    rest = w.subscribing_kinds([wire.VT_I4, wire.VT_STR])
    rest += w.push(w.change(0, wire.VT_I4, 1), w.change(1, wire.VT_STR, b"text"), alarm_notification(alarm))
    items = w.item(0, wire.typed(wire.VT_I4, 1)), w.item(1, wire.typed(wire.VT_STR, b"text"))
    rest += d.want("req", w.write_request(*items)) + d.want_eof("rcv", "req")
    active = d.want("req", b"n") + d.send("req", w.alarm_reply([alarm]))
    first = d.connecting(project) + d.want_eof("rcv", "req")
    second = opening + active + w.fetching_lists() + rest
    peer = play(first + second + (opening + active + lists + rest) * (4 * rounds - 1))
    # Without malloc's caches of freed blocks, one for each thread, what it has given out is exact.
    sanitized = os.environ.get("RKDB_PRESET") in ("asan", "tsan")
    exact = {} if sanitized else {"GLIBC_TUNABLES": "glibc.malloc.tcache_count=0"}
    passes_alone(HEAD + MEASURE + LIVE_ROUND, peer.host, str(rounds), timeout=80, environment=exact)


# Files of a server that is not to be trusted: large, of entries that are all short or all long.

LARGE = 12 * 1024 * 1024
AT_PEAK = """
import sys
from client import connect
from process_memory import peak
from RkDBAccess import DBCore

def grown(before):
    more = (peak() - before) / 1024 / 1024
    assert more < 60, f"{more:.0f} MiB"
    print(f"{more:.0f} MiB")
"""


@pytest.mark.parametrize("width", [7, 500])
def test_a_large_directory_takes_less_than_60_mib(play: Play, project: str, width: int) -> None:
    # Blocks that differ in the first letters of their names only: made one by one, a million records take a minute
    # under a sanitizer. A client knows 65,536 drivers, which is the first block of short names.
    blocks = 16
    count = LARGE // blocks // (width + 5)
    block = wire.directory((b"@@@%0*x" % (width - 3, n), n, 1) for n in range(count))
    body = b"".join(block.replace(b"@@@", b"%03x" % number) for number in range(blocks))
    peer = play(d.up_to_directory(project, body) + d.fetching(wire.download_reply(body)))
    script = """
first, last = sys.argv[2:]
before = peak()
core = connect(sys.argv[1])
grown(before)
core.GetDriver(first)
core.GetDriver(last)
"""
    output = passes_alone(AT_PEAK + script, peer.host, f"{0:0{width}x}", f"{count - 1:0{width}x}")
    print(f"{blocks * count} names of {width} bytes:", output)


@pytest.mark.parametrize("width", [1, 190])
def test_a_large_list_of_alarm_texts_takes_less_than_60_mib(play: Play, project: str, width: int) -> None:
    texts = (b"t" * width + b"\n") * (LARGE // (width + 1))
    peer = peer_of(play, project, registering_alarms([Alarm(kind=65535, group=65536 // 2)], texts=texts))
    script = """
seen = []
core = connect(sys.argv[1])
before = peak()
core.SetRtAlarmNotify(lambda *alarm: seen.append(alarm[4:6]), 1)
grown(before)
assert seen == [("t" * int(sys.argv[2]),) * 2], seen
"""
    print(f"lines of {width} bytes:", passes_alone(AT_PEAK + script, peer.host, str(width)))
