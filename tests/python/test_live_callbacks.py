"""What holds for every callback: what keeps it, what its exceptions do, what it may do itself.

Every script runs in an interpreter of its own, so that a crash or a message is seen: it must end by itself, with
the expected status and output, and say nothing on standard error.
"""

from __future__ import annotations

import dialogue as d
import live_wire as w
import pytest
import wire
from conftest import Play, passes_alone
from live_script import HEAD, I4, STORM, STR, SUBSCRIBE, SUBSCRIBED, changes, go, runs
from live_wire import Alarm, alarm_notification, change, push, registering_alarms

# Callables are kept.

MADE = {
    "lambda": "lambda *change: seen.append(change[2])",
    "function": "make_function()",
    "partial": "functools.partial(note, 'driver')",
    "object": "Callable()",
    "class": "type('Kept', (), {'__init__': lambda self, *change: seen.append(change[2])})",
    "method without weak references": "Slotted().method",
    "static method": "Callable.static",
    "class method": "Callable.of_class",
}
MAKERS = """
def make_function():
    def on_change(*change):
        seen.append(change[2])
    return on_change

def note(first, *change):
    assert first == "driver"
    seen.append(change[2])

class Callable:
    def __call__(self, *change):
        seen.append(change[2])
    @staticmethod
    def static(*change):
        seen.append(change[2])
    @classmethod
    def of_class(cls, *change):
        assert cls is Callable
        seen.append(change[2])

class Slotted:
    __slots__ = ()
    def method(self, *change):
        seen.append(change[2])
"""


@pytest.mark.parametrize("made", MADE.values(), ids=MADE)
def test_a_callable_is_kept_alive_by_its_registration(play: Play, project: str, made: str) -> None:
    script = f"""
{MAKERS}
boiler.SetTagNotify({made})
gc.collect()
{SUBSCRIBE}
del boiler  # the registration is the connection's, not that object's
gc.collect()
until(lambda: len(seen) == 3)
assert seen == [1, 2, 3]
"""
    runs(play, project, script, SUBSCRIBED, changes(1), changes(2, 3))


def test_an_alarm_callable_is_kept_alive_by_its_registration(play: Play, project: str) -> None:
    script = """
core.SetRtAlarmNotify(lambda *alarm: seen.append(alarm[7]), 0)
gc.collect()
boiler.GetTagValue("go1")
until(lambda: len(seen) == 2)
assert seen == [1.0, 2.0]
"""
    alarms = push(*(alarm_notification(Alarm().numbered(number)) for number in (1, 2)))
    runs(play, project, script, registering_alarms(), go("go1"), alarms)


@pytest.mark.parametrize("kept", ["boiler, station", ""], ids=["drivers kept", "nothing kept"])
def test_callables_go_with_the_owner_of_the_connection(play: Play, project: str, kept: str) -> None:
    # Also one that refers to a Driver object, and even if a script keeps such an object for longer.
    script = f"""
{MAKERS}
def refer():
    kept = boiler
    return lambda *change: kept

station = core.GetDriver("泵站")
made = [refer(), functools.partial(note, "driver"), Callable()]
refs = [weakref.ref(one) for one in made]
boiler.SetTagNotify(made[0])
station.SetTagNotify(made[1])
core.SetRtAlarmNotify(made[2], 0)
del made
gc.collect()
assert all(one() is not None for one in refs)
kept = [{kept}]
del core, boiler, station
gc.collect()
assert all(one() is None for one in refs), [one() for one in refs]
"""
    runs(play, project, script, registering_alarms())


def test_callables_of_a_lost_connection_stay_until_its_owner_goes(play: Play, project: str) -> None:
    script = f"""
{MAKERS}
made = [make_function(), Callable()]
refs = [weakref.ref(one) for one in made]
boiler.SetTagNotify(made[0])
core.SetRtAlarmNotify(made[1], 0)
del made
boiler.GetTagValue("go1")
until(lambda: tasks() == at_first)
gc.collect()
assert all(one() is not None for one in refs)
del core
gc.collect()
assert all(one() is None for one in refs), [one() for one in refs]
"""
    runs(play, project, script, registering_alarms(), go("go1"), d.reset("rcv") + d.want_eof("req"))


# Bound methods.

CLIENT = """
class Client:
    def __init__(self):
        self.calls = []
    def on_change(self, *change):
        seen.append(change[2])
    def on_alarm(self, *alarm):
        seen.append(alarm[7])

told = []
warnings.simplefilter("always")
warnings.showwarning = lambda message, category, *rest: told.append((category, str(message)))
"""


def test_a_bound_method_is_called_while_its_instance_lives(play: Play, project: str) -> None:
    script = f"""
{CLIENT}
client = Client()
boiler.SetTagNotify(client.on_change)
gc.collect()
{SUBSCRIBE}
until(lambda: len(seen) == 2)
assert seen == [1, 2] and told == []
"""
    runs(play, project, script, SUBSCRIBED, changes(1), changes(2))


def test_calls_of_a_method_whose_instance_is_gone_are_skipped_with_one_warning(play: Play, project: str) -> None:
    script = f"""
{CLIENT}
client = Client()
ref = weakref.ref(client)
boiler.SetTagNotify(client.on_change)
{SUBSCRIBE}
until(lambda: len(seen) == 1)
del client
assert ref() is None  # at once, without the collector
boiler.GetTagValue("go1")
until(lambda: boiler.GetTagValue("T1") == "end")
assert boiler.GetTagValue("T0") == 2000  # the values go on
assert seen == [1]
until(lambda: told)
[(category, message)] = told
assert category is RuntimeWarning
assert "on_change" in message and "instance" in message and "gone" in message, message
"""
    later = push(*(change(0, I4, n) for n in range(2, 2001)), change(1, STR, b"end"))
    runs(play, project, script, SUBSCRIBED, changes(1), go("go1"), changes(2), later)


def test_an_alarm_method_whose_instance_is_gone_warns_once_too(play: Play, project: str) -> None:
    script = f"""
{CLIENT}
client = Client()
core.SetRtAlarmNotify(client.on_alarm, 1)
assert seen == [7.0]
del client
{SUBSCRIBE}
until(lambda: boiler.GetTagValue("T0") == 1)
assert seen == [7.0]
[(category, message)] = told
assert category is RuntimeWarning and "on_alarm" in message
"""
    alarm = Alarm().numbered(7)
    pushed = push(*[alarm_notification(alarm)] * 20, change(0, I4, 1))
    runs(play, project, script, registering_alarms([alarm]), SUBSCRIBED, pushed)


def test_a_warning_that_is_an_error_is_reported_and_the_stream_goes_on(play: Play, project: str) -> None:
    script = f"""
{CLIENT}
reported = []
sys.unraisablehook = lambda args: reported.append((args.exc_type, args.object))
warnings.simplefilter("error")
method = Client.on_change
boiler.SetTagNotify(Client().on_change)
{SUBSCRIBE}
until(lambda: boiler.GetTagValue("T0") == 3)
assert seen == [] and reported == [(RuntimeWarning, method)], reported
"""
    runs(play, project, script, SUBSCRIBED, changes(1), changes(2, 3))


def test_a_client_object_is_not_kept_alive_by_its_own_subscription(play: Play, project: str) -> None:
    script = """
class Plant:
    def __init__(self, core, boiler):
        self.core, self.boiler = core, boiler
        boiler.SetTagNotify(self.on_change)
        core.SetRtAlarmNotify(self.on_alarm, 0)
        assert boiler.ConnectTag("T0,T1") == 1
    def on_change(self, *change):
        seen.append(self)
        seen.clear()
    def on_alarm(self, *alarm):
        pass

plant = Plant(core, boiler)
ref = weakref.ref(plant)
del core, boiler
quickly(lambda: globals().pop("plant"))
until(lambda: ref() is None)  # a call that runs right now may still hold it
until(lambda: tasks() == at_first)
"""
    runs(play, project, script, registering_alarms(), STORM)


# Exceptions of callbacks.

REPORTED = """
reported = []
sys.unraisablehook = lambda args: reported.append((args.exc_type, str(args.exc_value), args.object))
"""


def test_an_exception_is_reported_with_its_callable_and_the_stream_goes_on(play: Play, project: str) -> None:
    script = f"""
{REPORTED}
def on_change(driver, tag, value):
    if value % 3 == 0:
        raise ValueError(f"no {{value}}")
    seen.append(value)

boiler.SetTagNotify(on_change)
{SUBSCRIBE}
until(lambda: boiler.GetTagValue("T0") == 100)
until(lambda: len(seen) == 67)
assert seen == [n for n in range(1, 101) if n % 3]
assert reported == [(ValueError, f"no {{n}}", on_change) for n in range(3, 101, 3)]
assert boiler.ConnectTag("T0") == 1
boiler.GetTagValue("go1")
"""
    runs(play, project, script, SUBSCRIBED, changes(*range(1, 101)), go("go1"))


def test_an_exception_of_a_method_is_reported_with_the_method(play: Play, project: str) -> None:
    script = f"""
{REPORTED}
class Client:
    def on_change(self, *change):
        raise KeyError("x")

client = Client()
boiler.SetTagNotify(client.on_change)
{SUBSCRIBE}
until(lambda: reported)
assert reported == [(KeyError, "'x'", client.on_change)]
"""
    runs(play, project, script, SUBSCRIBED, changes(1))


def test_the_interpreters_own_report_names_the_callable(play: Play, project: str) -> None:
    script = f"""
import io
sys.stderr = io.StringIO()
def broken_callback(*change):
    raise ValueError("broken value")

boiler.SetTagNotify(broken_callback)
{SUBSCRIBE}
until(lambda: "broken value" in sys.stderr.getvalue())
assert "broken_callback" in sys.stderr.getvalue()
sys.stderr = sys.__stderr__
"""
    runs(play, project, script, SUBSCRIBED, changes(1))


@pytest.mark.parametrize("raised", ["SystemExit", "KeyboardInterrupt", "GeneratorExit", "MemoryError"])
def test_no_exception_of_a_callback_ends_the_process(play: Play, project: str, raised: str) -> None:
    script = f"""
{REPORTED}
def on_change(driver, tag, value):
    seen.append(value)
    raise {raised}(5)

def on_alarm(*alarm):
    seen.append(alarm[7])
    raise {raised}(5)

boiler.SetTagNotify(on_change)
core.SetRtAlarmNotify(on_alarm, 1)
assert seen == [3.0, 2.0]
{SUBSCRIBE}
until(lambda: len(seen) == 6)
assert seen == [3.0, 2.0, 1, 4.0, 5, 6.0]
until(lambda: len(reported) == 6)
assert [one[2] for one in reported] == [on_alarm] * 2 + [on_change, on_alarm] * 2
assert {{one[0] for one in reported}} == {{{raised}}}
"""
    alarms = [Alarm().numbered(number) for number in range(2, 7)]
    pushed = push(change(0, I4, 1), alarm_notification(alarms[2]), change(0, I4, 5), alarm_notification(alarms[4]))
    runs(play, project, script, registering_alarms(alarms[:2]), SUBSCRIBED, pushed)


def test_an_exception_of_an_active_alarm_is_reported_and_the_others_are_delivered(play: Play, project: str) -> None:
    script = f"""
{REPORTED}
def on_alarm(*alarm):
    seen.append(alarm[7])
    if alarm[7] != 2:
        raise ValueError(alarm[7])

assert core.SetRtAlarmNotify(on_alarm, 1) is None  # and nothing is raised here
assert seen == [3.0, 2.0, 1.0]
assert reported == [(ValueError, "3.0", on_alarm), (ValueError, "1.0", on_alarm)]
boiler.GetTagValue("go1")
until(lambda: len(seen) == 5)
assert seen[3:] == [4.0, 5.0]
until(lambda: len(reported) == 4)
"""
    alarms = [Alarm().numbered(number) for number in range(1, 6)]
    pushed = push(*(alarm_notification(alarm) for alarm in alarms[3:]))
    runs(play, project, script, registering_alarms(alarms[:3]), go("go1"), pushed)


def test_a_hook_that_raises_itself_harms_nothing(play: Play, project: str) -> None:
    script = f"""
import io
def hook(args):
    raise RuntimeError("in the hook")
sys.unraisablehook = hook
sys.stderr = io.StringIO()  # where the interpreter then says so
def on_change(driver, tag, value):
    seen.append(value)
    raise ValueError
boiler.SetTagNotify(on_change)
{SUBSCRIBE}
until(lambda: len(seen) == 3)
until(lambda: boiler.GetTagValue("T0") == 3)
sys.stderr = sys.__stderr__
sys.unraisablehook = sys.__unraisablehook__
"""
    runs(play, project, script, SUBSCRIBED, changes(1), changes(2, 3))


def test_results_of_callbacks_are_released(play: Play, project: str) -> None:
    script = f"""
class Result:
    alive = 0
    def __init__(self):
        Result.alive += 1
        seen.append(Result.alive)
    def __del__(self):
        Result.alive -= 1

boiler.SetTagNotify(lambda *change: Result())
core.SetRtAlarmNotify(lambda *alarm: Result(), 1)
{SUBSCRIBE}
until(lambda: len(seen) == 204)
until(lambda: Result.alive == 0)
assert set(seen) == {{1}}, set(seen)
"""
    alarm = Alarm()
    pushed = push(*[change(0, I4, 1) + alarm_notification(alarm)] * 100)
    runs(play, project, script, registering_alarms([alarm] * 4), SUBSCRIBED, pushed)


# What a callback may do.


def test_a_callback_may_use_its_own_driver(play: Play, project: str) -> None:
    script = f"""
def on_change(driver, tag, value):
    if tag != "T0":
        return seen.append((tag, value))
    assert boiler.GetTagValue("T0") == value  # it is stored before the call
    assert boiler.GetTagValue("A") == 70
    assert boiler.SetTagValue("A,T0", [7, "text"]) == 0
    assert boiler.ConnectTag("B,T1") == 1
    assert boiler.GetTagValue("B") == 2.5
    assert core.GetDriver("泵站").GetTagValue("C") == 80
    boiler.SetTagNotify(print)  # it is late for that
    core.SetRtAlarmNotify(lambda *alarm: seen.append(alarm[7]), 1)

boiler.SetTagNotify(on_change)
{SUBSCRIBE}
until(lambda: len(seen) == 3)
assert seen == [7.0, ("T1", "t"), ("B", 3.5)], seen
"""
    address = w.item(50, wire.typed(I4, 7)) + w.item(0, wire.typed(STR, b"text"))
    in_callback = (
        d.looking_up(["A"], [50])
        + d.reading_numbers([50], [70])
        + d.want("req", b"g\x02\x00" + address)
        + w.subscribing(["B"], [51], [wire.typed(wire.VT_R8, 2.5)])
        + d.looking_up(["C"], [15], driver=1)
        + d.reading_numbers([15], [80], driver=1)
        + registering_alarms([Alarm().numbered(7)])
    )
    pushed = push(change(0, I4, 1), change(1, STR, b"t"), change(51, wire.VT_R8, 3.5))
    peer = play(d.connecting(project, rights=w.MAY_WRITE) + SUBSCRIBED + pushed + in_callback)
    passes_alone(HEAD + script, peer.host)


def test_a_callback_that_makes_requests_and_the_script_take_turns(play: Play, project: str) -> None:
    # Both ask for the same tag again and again, so the server need not care who asks.
    script = f"""
asked = [0, 0]
def on_change(driver, tag, value):
    if tag == "T0":
        assert boiler.GetTagValue("A") == 70
        asked[0] += 1

boiler.SetTagNotify(on_change)
assert boiler.GetTagValue("A") == 70
{SUBSCRIBE}
while sum(asked) < 600:
    assert boiler.GetTagValue("A") == 70
    asked[1] += 1
    time.sleep(0.0005)
assert min(asked) > 10, asked
os._exit(0)  # the server awaits some more
"""
    reads = d.reading_numbers([50], [70])
    steps = d.looking_up(["A"], [50]) + reads + SUBSCRIBED + push(*[change(0, I4, 1)] * 300) + reads * 600
    peer = play(d.connecting(project) + steps + [("drain", "req"), ("drain", "rcv")])
    passes_alone(HEAD + script, peer.host)


def test_threads_of_the_script_make_requests_while_notifications_pour_in(play: Play, project: str) -> None:
    script = f"""
boiler.SetTagNotify(lambda *change: seen.append(change[2]))
assert boiler.GetTagValue("A,B") == [7, 8]
{SUBSCRIBE}
failed = []
def work():
    try:
        for _ in range(100):
            assert boiler.GetTagValue("A,B") == [7, 8]
            assert boiler.ConnectTag("T0,A"[:2]) == 1
    except BaseException as error:
        failed.append(error)

threads = [threading.Thread(target=work) for _ in range(4)]
for thread in threads:
    thread.start()
for thread in threads:
    thread.join()
assert failed == []
until(lambda: len(seen) == 400 * 40)
assert seen == [n % 40 for n in range(400 * 40)]
"""
    reads = d.reading_numbers([5, 6], [7, 8])
    ask, answer = reads[:1], reads[1:]
    busy = (ask + changes(*range(20)) + answer + changes(*range(20, 40))) * 400
    runs(play, project, script, d.looking_up(["A", "B"], [5, 6]), reads, SUBSCRIBED, busy)


def test_one_thread_state_serves_all_calls(play: Play, project: str) -> None:
    script = f"""
mine = threading.local()
def on_change(driver, tag, value):
    mine.calls = getattr(mine, "calls", 0) + 1
    seen.append((mine.calls, threading.get_ident(), len(sys._current_frames())))

boiler.SetTagNotify(on_change)
core.SetRtAlarmNotify(on_change_of_alarm := lambda *alarm: on_change(0, 0, 0), 0)
{SUBSCRIBE}
until(lambda: len(seen) == 60)
assert [one[0] for one in seen] == list(range(1, 61))
assert len({{one[1] for one in seen}}) == 1
assert {{one[2] for one in seen}} == {{2}}
"""
    pushed = [step for n in range(30) for step in [*changes(n), *d.pause(0.004), *push(alarm_notification(Alarm()))]]
    runs(play, project, script, registering_alarms(), SUBSCRIBED, pushed)


def test_changes_without_a_callback_are_stored_while_the_interpreter_lock_is_kept(play: Play, project: str) -> None:
    script = f"""
{SUBSCRIBE}
boiler.GetTagValue("go1")
sys.setswitchinterval(1000)
deadline = time.monotonic() + 20
while boiler.GetTagValue("T0") != 9999:  # no other Python thread would get a turn meanwhile
    assert time.monotonic() < deadline
assert boiler.GetTagValue("T1") == "end"
"""
    pushed = push(*(change(0, I4, n) for n in range(9999)), change(1, STR, b"end"), change(0, I4, 9999))
    runs(play, project, script, SUBSCRIBED, go("go1"), pushed)


def test_a_callback_may_collect_garbage_start_threads_and_import(play: Play, project: str) -> None:
    script = f"""
def on_change(driver, tag, value):
    gc.collect()
    thread = threading.Thread(target=seen.append, args=(value,))
    thread.start()
    thread.join()
    import decimal, subprocess
    seen.append(int(decimal.Decimal(value)))

boiler.SetTagNotify(on_change)
{SUBSCRIBE}
until(lambda: len(seen) == 10)
assert seen == [1, 1, 2, 2, 3, 3, 4, 4, 5, 5], seen
"""
    runs(play, project, script, SUBSCRIBED, changes(*range(1, 6)))


# Signals.


def test_signals_during_callbacks_are_handled_and_lose_nothing(play: Play, project: str) -> None:
    script = f"""
import signal
handled = []
def handle(number, frame):
    assert threading.current_thread() is threading.main_thread()
    handled.append(number)
for number in (signal.SIGALRM, signal.SIGUSR1, signal.SIGCHLD):
    signal.signal(number, handle)
def on_change(driver, tag, value):
    seen.append(value)
    if value % 100 == 0:
        os.kill(os.getpid(), signal.SIGUSR1)
        time.sleep(0.001)  # interrupted, if signals came here

boiler.SetTagNotify(on_change)
signal.setitimer(signal.ITIMER_REAL, 0.0005, 0.0005)
{SUBSCRIBE}
until(lambda: len(seen) == 20000)
signal.setitimer(signal.ITIMER_REAL, 0)
assert seen == list(range(20000))
assert handled.count(signal.SIGALRM) > 5 and handled.count(signal.SIGUSR1) > 5, len(handled)
"""
    runs(play, project, script, SUBSCRIBED, changes(*range(20000)))


def test_a_keyboard_interrupt_goes_to_the_script_and_the_stream_goes_on(play: Play, project: str) -> None:
    script = f"""
import signal
signal.signal(signal.SIGINT, signal.default_int_handler)  # ignored where a shell has started all this in the background
def on_change(driver, tag, value):
    if value == 1000:
        os.kill(os.getpid(), signal.SIGINT)
    seen.append(value)

boiler.SetTagNotify(on_change)
caught = 0
try:
    {SUBSCRIBE}
    for _ in range(3000):  # one long sleep would not notice a signal that came just before it
        time.sleep(0.01)
except KeyboardInterrupt:
    caught += 1
until(lambda: len(seen) == 20000)
assert caught == 1 and seen == list(range(20000))
"""
    runs(play, project, script, SUBSCRIBED, changes(*range(20000)))
