"""Alarms that come in faster than a registration delivers them: what is kept, what is skipped, and that it returns."""

from __future__ import annotations

import dialogue as d
import live_wire as w
import pytest
import wire
from conftest import Play, passes_alone
from live_peer import Alarms
from live_script import HEAD, go, peer_of, runs
from live_wire import Alarm, alarm_notification, push, registering_alarms

HELD_MOST = 100_000
FLOODED = HELD_MOST + 20_000
# Registers with an active alarm, whose call waits until the receive thread has had all others and a change behind them.
REGISTERS_IN_A_FLOOD = f"""
numbers = []
def on_alarm(*alarm):
    numbers.append(alarm[7])
    if len(numbers) == 1:
        until(lambda: boiler.GetTagValue("A") == 1, 200)

assert boiler.ConnectTag("A") == 1
reported = []
sys.unraisablehook = lambda args: reported.append((args.exc_type, str(args.exc_value), args.object))
with warnings.catch_warnings(record=True) as told:
    warnings.simplefilter(sys.argv[2])
    core.SetRtAlarmNotify(on_alarm, 1)
    assert numbers == list(range({HELD_MOST} + 1)), len(numbers)  # one that was active, and those behind it
    assert boiler.GetTagValue("go1") == 0
    until(lambda: len(numbers) == {HELD_MOST} + 3)
    assert numbers[-2:] == [-1, -2]  # the registration stands
told = [(one.category, str(one.message)) for one in told]
"""


def flooded(play: Play, project: str, warnings: str, script: str) -> None:
    alarms = Alarms(FLOODED)
    later = push(*(alarm_notification(Alarm().numbered(number)) for number in (-1, -2)))
    peer = peer_of(
        play,
        project,
        w.subscribing(["A"], [5], [wire.typed(wire.VT_I4, 0)]),
        registering_alarms([Alarm().numbered(0)]),
        w.streaming(alarms) + push(w.change(5, wire.VT_I4, 1)),
        go("go1") + later,
    )
    passes_alone(HEAD + REGISTERS_IN_A_FLOOD + script, peer.host, warnings, timeout=400)
    peer.finish()


@pytest.mark.bulk
def test_alarms_beyond_the_bound_of_a_registration_are_skipped_with_one_warning(play: Play, project: str) -> None:
    script = f"""
[(category, message)] = told
assert category is RuntimeWarning
assert message.split()[1] == "{FLOODED - HELD_MOST}" and "skipped" in message, message
assert reported == []
"""
    flooded(play, project, "always", script)


def test_a_warning_of_skipped_alarms_that_is_an_error_leaves_the_registration(play: Play, project: str) -> None:
    script = f"""
assert told == []
[(category, message, source)] = reported
assert category is RuntimeWarning and source is on_alarm
assert message.split()[1] == "{FLOODED - HELD_MOST}", message
"""
    flooded(play, project, "error", script)


@pytest.mark.bulk
def test_a_registration_returns_while_a_flood_goes_on(play: Play, project: str) -> None:
    script = f"""
calls = 0
def on_alarm(*alarm):
    global calls
    calls += 1
    if calls % 1000 == 1:
        time.sleep(0.02)  # for more to come in than these calls have delivered

warnings.simplefilter("ignore")
core.SetRtAlarmNotify(on_alarm, 1)
assert 1000 < calls <= {HELD_MOST} + 1, calls
returned = calls
until(lambda: calls > returned + 1000, 60)
del core
"""
    flood = d.flood("rcv", alarm_notification(Alarm()) * 1000) + d.want_eof("req")
    runs(play, project, script, registering_alarms([Alarm()]), flood)
