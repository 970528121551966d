"""How live connections end: dropped, replaced, and with the interpreter.

Every script runs in an interpreter of its own, so that a crash or a message is seen: it must end by itself, with
the expected status and output, and say nothing on standard error.
"""

from __future__ import annotations

import sys
import time

import dialogue as d
import pytest
import wire
from conftest import Play, passes_alone, run_alone
from live_script import (
    HEAD,
    STORM,
    SUBSCRIBE,
    SUBSCRIBED,
    TOLD,
    changes,
    go,
    peer_of,
    runs,
)
from live_wire import Alarm, alarm_notification, push, registering_alarms

# Dropping a connection.

DROP_IN_A_STORM = """
def note(*change):
    seen.append(1)

def hold():
    sys.setswitchinterval(1000)
    end = time.monotonic() + 0.05
    while time.monotonic() < end:
        pass

for number in range(8):
    if number:
        core = connect(sys.argv[1])
        boiler = core.GetDriver("Boiler")
    seen.clear()
    boiler.SetTagNotify(note)
    assert boiler.ConnectTag("T0,T1") == 1
    until(lambda: len(seen) > 100)
    if number % 2:
        hold()
    quickly(lambda: globals().pop("core"))
    count = len(seen)
    sys.setswitchinterval(0.005)
    time.sleep(0.02)
    assert len(seen) <= count + 1, (len(seen), count)  # one call may have been on its way
    assert boiler.GetTagValue("T0") is None or boiler.GetTagValue("T0") in range(500)
    until(lambda: tasks() == at_first)
"""


def test_dropping_a_client_in_a_storm_is_quick_with_the_interpreter_lock_kept(play: Play, project: str) -> None:
    # The receive thread is made to wait for the interpreter lock before the client is dropped, and until it is.
    again = d.up_to_directory(project, wire.directory(d.DRIVERS)) + STORM
    runs(play, project, DROP_IN_A_STORM, STORM, again * 7)


def test_dropping_a_client_whose_callback_sleeps_is_quick(play: Play, project: str) -> None:
    script = f"""
def on_change(*change):
    seen.append("in")
    time.sleep(1)
    seen.append("out")

boiler.SetTagNotify(on_change)
{SUBSCRIBE}
until(lambda: seen)
started = time.monotonic()
del core
assert seen == ["in"] and time.monotonic() - started < 0.9, seen  # it did not wait for the callback
until(lambda: tasks() == at_first)
assert seen == ["in", "out"]  # and no further call was made
"""
    runs(play, project, script, STORM)


DROPPERS = {
    "a change": ("boiler.SetTagNotify(on_event)\n" + SUBSCRIBE, SUBSCRIBED + changes(1, 2, 3)),
    "a change in a storm": ("boiler.SetTagNotify(on_event)\n" + SUBSCRIBE, STORM),
    "an alarm": (
        "core.SetRtAlarmNotify(on_event, 0)\nboiler.GetTagValue('go1')\n",
        registering_alarms() + go("go1") + push(*[alarm_notification(Alarm())] * 3),
    ),
    "an active alarm": ("core.SetRtAlarmNotify(on_event, 1)\n", registering_alarms([Alarm()] * 3)),
}


@pytest.mark.parametrize("with_driver", [True, False], ids=["driver too", "driver kept"])
@pytest.mark.parametrize("event", DROPPERS)
def test_the_last_reference_may_be_dropped_inside_a_callback(
    play: Play, project: str, event: str, with_driver: bool
) -> None:
    # An active alarm is delivered inside a method of the object, which so lives until the method returns.
    register, steps = DROPPERS[event]
    script = f"""
def on_event(*arguments):
    if seen:
        return seen.append("again")
    quickly(lambda: globals().pop("core"))
    if {with_driver}:
        del globals()["boiler"]
    gc.collect()
    seen.append("dropped")

{register}
until(lambda: seen)
until(lambda: tasks() == at_first)
assert seen == ["dropped"] or {event == "an active alarm"} and seen == ["dropped", "again", "again"], seen
if not {with_driver}:
    assert boiler.ConnectTag("new") == 0
"""
    runs(play, project, script, steps)


def test_a_client_in_a_cycle_may_be_collected_inside_its_callback(play: Play, project: str) -> None:
    script = f"""
class Holder:
    pass

holder = Holder()
holder.self, holder.core, holder.boiler = holder, core, boiler
def on_change(*change):
    if not seen:
        quickly(gc.collect)
        seen.append(ref() is None)

ref = weakref.ref(holder)
boiler.SetTagNotify(on_change)
gc.disable()
{SUBSCRIBE}
del core, boiler, holder
boiler_is_gone = True
until(lambda: seen)
assert seen == [True]
until(lambda: tasks() == at_first)
"""
    runs(play, project, script, SUBSCRIBED, d.pause(0.2), changes(*range(100)))


# Connecting again.


def reconnecting(project: str, *then: d.Steps) -> d.Steps:
    again = d.up_to_directory(project, wire.directory(d.DRIVERS))
    return d.want_eof("rcv", "req") + again + [step for part in then for step in part]


@pytest.mark.parametrize("event", ["change", "alarm"])
def test_a_callback_may_connect_again(play: Play, project: str, event: str) -> None:
    script = f"""
def on_new_change(driver, tag, value):
    seen.append(("new", value))

def on_event(*arguments):
    global boiler
    seen.append("old")
    assert core.Connect(sys.argv[1], "operator", "secret") == 0
    assert boiler.GetTagValue("T1") == (None if {event == "alarm"} else "")
    boiler = core.GetDriver("Boiler")
    boiler.SetTagNotify(on_new_change)
    {SUBSCRIBE}

if {event == "alarm"}:
    core.SetRtAlarmNotify(on_event, 0)
    boiler.GetTagValue("go1")
else:
    boiler.SetTagNotify(on_event)
    {SUBSCRIBE}
until(lambda: len(seen) == 3)
assert seen == ["old", ("new", 8), ("new", 9)], seen
until(lambda: tasks() == at_first + 1)  # the old connection's thread is gone
assert boiler.GetTagValue("T0") == 9
"""
    before = (
        registering_alarms() + go("go1") + push(*[alarm_notification(Alarm())] * 3)
        if event == "alarm"
        else SUBSCRIBED + changes(1, 2, 3)
    )
    runs(play, project, script, before, reconnecting(project, SUBSCRIBED, changes(8, 9)))


@pytest.mark.parametrize("told", ["told", "not told"])
def test_connecting_again_in_a_storm_is_quick_and_clean(play: Play, project: str, told: str) -> None:
    script = f"""
def on_change(driver, tag, value):
    seen.append(value)

if {told == "told"}:
    boiler.SetTagNotify(on_change)
{SUBSCRIBE}
until(lambda: (len(seen) if {told == "told"} else boiler.GetTagValue("T0")) > 100)
quickly(lambda: seen.append(core.Connect(sys.argv[1], "operator", "secret")))
assert seen[-1] == 0
del seen[:]
old, boiler = boiler, core.GetDriver("Boiler")
boiler.SetTagNotify(lambda driver, tag, value: seen.append(value))
{SUBSCRIBE}
until(lambda: len(seen) == 2)
assert seen == [1000, 1001]  # and nothing of the old stream
until(lambda: tasks() == at_first + 1)
assert old.GetTagValue("T0") < 500 and boiler.GetTagValue("T0") == 1001
"""
    again = d.up_to_directory(project, wire.directory(d.DRIVERS))
    runs(play, project, script, STORM, again, SUBSCRIBED, changes(1000, 1001))


# The interpreter's end.


def ends(play: Play, project: str, script: str, status: int = 0, errors: str = "") -> None:
    """Runs a script that ends in a storm, told of changes and alarms, with that status and these words, at once."""
    peer = peer_of(play, project, registering_alarms(), STORM)
    started = f"""
core.SetRtAlarmNotify(lambda *alarm: None, 0)
def on_change(*change):
    seen.append(1)
    meanwhile()
def meanwhile():
    pass
boiler.SetTagNotify(on_change)
def storm():
    {SUBSCRIBE}
    until(lambda: len(seen) > 0)
    time.sleep(0.05)
    print(time.time(), flush=True)
"""
    outcome = run_alone(HEAD + started + script, peer.host)
    ended = time.time()
    assert (outcome.status, outcome.errors) == (status, errors)
    [line] = outcome.output.splitlines()
    assert ended - float(line) < 8  # the time-out of a thread that does not end is twice that
    peer.finish()


ENDINGS: dict[str, tuple[str, int]] = {
    "the last line": ("storm()", 0),
    "sys.exit": ("storm()\nsys.exit(7)", 7),
    "sys.exit in a function": ("def main(core, boiler):\n    storm()\n    sys.exit(3)\nmain(core, boiler)", 3),
    "names deleted": ("storm()\nkept = [core, boiler]\ndel core, boiler", 0),
    "a cycle": ("storm()\nkept = [core, boiler]\nkept.append(kept)\ndel core, boiler", 0),
    "os._exit": ("storm()\nos._exit(4)", 4),
    "a short switch interval": ("sys.setswitchinterval(1e-6)\nstorm()", 0),
    "the interpreter lock kept": ("storm()\nsys.setswitchinterval(1000)", 0),
    "a callback that sleeps": ("def meanwhile():\n    time.sleep(60)\nstorm()\nsys.exit(5)", 5),
    "a callback that is busy": ("def meanwhile():\n    while True:\n        pass\nstorm()\nsys.exit(5)", 5),
    "a callback that sleeps often": ("def meanwhile():\n    while True:\n        time.sleep(0.0001)\nstorm()", 0),
    "a callback that waits for a lock": (
        "lock = threading.Lock()\nlock.acquire()\ndef meanwhile():\n    lock.acquire()\nstorm()",
        0,
    ),
    "a result that is slow to go": (
        "class Slow:\n    def __del__(self):\n        while True:\n            time.sleep(0.001)\n"
        "core.GetDriver('Boiler')\ndef meanwhile():\n    Slow()\nstorm()",
        0,
    ),
    "threads that read": (
        "def work():\n    while True:\n        boiler.GetTagValue('T0,T1')\n        time.sleep(0.0001)\n"
        "storm()\nfor _ in range(3):\n    threading.Thread(target=work, daemon=True).start()\ntime.sleep(0.05)",
        0,
    ),
    "an end in a thread": ("thread = threading.Thread(target=storm)\nthread.start()\nthread.join()", 0),
}


@pytest.mark.parametrize(("script", "status"), ENDINGS.values(), ids=ENDINGS)
def test_the_interpreter_ends_in_a_storm_at_once_and_in_silence(
    play: Play, project: str, script: str, status: int
) -> None:
    ends(play, project, f"{script}\n", status)


def test_the_interpreter_ends_in_a_storm_with_its_own_exception_only(play: Play, project: str) -> None:
    # From 3.13 on the interpreter shows the line of a script that was given with -c.
    shown = "    raise ValueError('the end')\n" if sys.version_info >= (3, 13) else ""
    head = 'Traceback (most recent call last):\n  File "<string>", line {line}, in <module>\n'
    words = f"{head}{shown}ValueError: the end\n"
    script = "storm()\nraise ValueError('the end')\n"
    peer = peer_of(play, project, STORM)
    whole = HEAD + TOLD + SUBSCRIBE.replace("assert", "def storm(): assert") + script
    outcome = run_alone(whole, peer.host)
    line = whole.count("\n") + 1  # the watchdog's lines come before
    assert outcome.status == 1
    assert outcome.output == ""
    assert outcome.errors.splitlines()[-1] == "ValueError: the end"
    assert outcome.errors in [words.format(line=line + more) for more in range(3)]
    peer.finish()


def test_the_interpreter_ends_with_several_connections(play: Play, project: str) -> None:
    peers = [peer_of(play, f"{project}{number}", STORM) for number in range(4)]
    script = """
hosts = sys.argv[1:]
cores = [core] + [connect(host) for host in hosts[1:]]
counts = [0] * len(cores)
def watch(number, core):
    def on_change(*change):
        counts[number] += 1
    driver = core.GetDriver("Boiler")
    driver.SetTagNotify(on_change)
    assert driver.ConnectTag("T0,T1") == 1
for number, core in enumerate(cores):
    watch(number, core)
until(lambda: min(counts) > 50)
print(time.time(), flush=True)
sys.exit(6)
"""
    outcome = run_alone(HEAD + script, *(peer.host for peer in peers))
    ended = time.time()
    assert (outcome.status, outcome.errors) == (6, "")
    assert ended - float(outcome.output) < 8
    for peer in peers:
        peer.finish()


def test_connections_end_before_the_interpreter_does(play: Play, project: str) -> None:
    # Exit functions run last first, so one from before the module was loaded finds every connection ended.
    script = """
def after():
    assert core.Connect(sys.argv[1], "operator", "secret") == -2
    assert boiler.ConnectTag("new") == 0
    assert boiler.GetTagValue("T0") in range(500)  # a stored value stays
    until(lambda: tasks() == at_first)
    print("after")

def before():
    assert boiler.GetTagValue("A") == 7
    print("before")

import atexit
atexit.register(before)
EARLIEST.append(after)
boiler.SetTagNotify(lambda *change: seen.append(change))
assert boiler.ConnectTag("T0,T1") == 1
until(lambda: len(seen) > 10)
"""
    early = "import atexit\nEARLIEST = []\natexit.register(lambda: EARLIEST[0]())\n"
    asked = d.looking_up(["A"], [5]) + d.reading_numbers([5], [7])
    pushed = [step for n in range(20) for step in changes(n)]
    peer = peer_of(play, project, SUBSCRIBED, pushed, asked)
    assert passes_alone(early + HEAD + script, peer.host) == "before\nafter\n"
    peer.finish()
