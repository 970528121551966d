"""A collection at every allocation that a method makes: whatever garbage it finds, the method goes on without harm.

The garbage holds the last reference to a connection, a driver or a callable, so that the collector frees them in the
middle of a method of the same connection. What is used after that is seen under the address sanitizer
(`script/test --preset asan -- tests/python/test_collector.py`); without it such a use may go unnoticed.

Until Python 3.11 an allocation itself collects, if it is one of an object that the collector looks after. Later ones
collect where Python code runs and where they look for signals. There the same scripts show that nothing goes wrong, but
the collection may come behind the method.

These methods allocate nothing that the collector looks after, so their tests say little before 3.12: ConnectTag,
GetTagValue of one name, SetTagValue, GetDriver (the exception for an unknown name is made behind it), Connect,
SetTagNotify and SetRtAlarmNotify of a callable that is no bound method, the latter if no alarm is told at once. All
others must have been collected in at least once.
"""

from __future__ import annotations

from collections.abc import Callable

import pytest
from conftest import Simulator, passes_alone

Simulators = Callable[..., Simulator]

PLANT = """
[project]
name = "collector"
[[user]]
name = "operator"
password = "secret"
rights = 8
[[driver]]
name = "Plant"
period_ms = 20
[[driver.tag]]
name = "A"
type = "i4"
motion = { kind = "ramp", low = 0, high = 1000000, step = 1 }
[[driver.tag]]
name = "B"
type = "str"
value = "text"
[[driver.tag]]
name = "Level"
type = "r8"
value = 100
motion = { kind = "cycle", values = [0, 100] }
[[driver.tag]]
name = "High"
type = "r8"
value = 100
[[alarm]]
driver = "Plant"
tag = "Level"
high = 80
type = "type"
group = "group"
[[alarm]]
driver = "Plant"
tag = "High"
high = 80
type = "type"
group = "group"
"""

HEAD = """
import functools, gc, sys, threading, time, warnings
from client import connect
from RkDBAccess import DBCore, Driver

ALLOCATING = sys.version_info < (3, 12)  # an allocation collects, whoever makes it
warnings.simplefilter("ignore")
gc.disable()
gc.collect()
freed = []  # in which phase, and in which thread
phase = "before"

class Witness:
    def __init__(self, do=None):
        self.do = do
    def __del__(self):
        freed.append((phase, threading.get_ident()))
        if self.do:
            self.do()

def garbage(*things):
    cycle = [Witness(), *things]
    cycle.append(cycle)

def until(is_so):
    deadline = time.monotonic() + 60
    while not is_so():
        assert time.monotonic() < deadline, "waited too long"
        time.sleep(0.002)

def kinds(calls):
    '''Callables of each kind, and what keeps them alive. Those in Python note their calls and allocate meanwhile.'''
    class Client:
        def method(self, *arguments):
            calls.append([arguments])
        def __call__(self, *arguments):
            calls.append([arguments])
    client = Client()
    def function(*arguments):
        calls.append([arguments])
    return {
        "function": (function, None),
        "method": (client.method, client),
        "object": (client, None),
        "partial": (functools.partial(function), None),
        "builtin": ("{}".format, None),
    }

def collect_at(number):
    '''The allocation of this number from now on collects; before 3.12 that is exact.'''
    gc.set_threshold(gc.get_count()[0] + number, 1, 1)
    gc.enable()

def at_each_allocation(method, prepare, allocates, last=5):
    '''Calls the method that prepare gives, with a collection at its first allocation, its second, ... One that
    allocates has been collected in at least once, wherever that can be told.'''
    global phase
    inside = 0
    for number in range(last):
        phase = "before"
        call, arguments, kept = prepare()
        spent = [[] for _ in range(200)]  # an interpreter keeps some freed lists; to take one of them collects nothing
        freed.clear()
        raised = False
        phase = "inside"
        collect_at(number)
        try:
            call(*arguments)
        except SystemError:  # an unknown driver; what its own making collects is behind the method
            raised = True
        phase = "after"
        gc.disable()
        inside += not raised and ("inside", threading.get_ident()) in freed
        gc.collect()
        assert freed, (method, number)
        del call, arguments, kept, spent
        gc.collect()
    assert inside > 0 or not allocates or not ALLOCATING, f"no collection was inside of {method}"
"""

# What a driver's methods are called with while the collector frees the driver's connection, and whether they allocate
# something that the collector looks after.
DRIVER_CALLS = {
    "ConnectTag": ('("A,B,Level",)', False),
    "ConnectTag of known names": ('("A",)', False),
    "GetTagValue of one": ('("A",)', False),
    "GetTagValue of new names": ('("B,Level,A",)', True),
    "GetTagValue of a list": ('("A,B",)', True),
    "SetTagValue": ('("High", 90.5)', False),
    "SetTagValue of a list": ('("High,B", [90.5, "other"])', False),
}


@pytest.fixture
def host(simulator: Simulators) -> str:
    return simulator(PLANT).host


@pytest.mark.parametrize("name", DRIVER_CALLS)
def test_a_collection_inside_of_a_drivers_request_may_free_its_connection(host: str, name: str) -> None:
    arguments, allocates = DRIVER_CALLS[name]
    script = f"""
def prepare():
    core = connect(sys.argv[1], "operator", "secret")
    driver = core.GetDriver("Plant")
    assert driver.ConnectTag("A") == 1 and len(driver.GetTagValue("A,B")) == 2
    garbage(core)
    return driver.{name.split(maxsplit=1)[0]}, {arguments}, driver

at_each_allocation({name!r}, prepare, {allocates})
"""
    passes_alone(HEAD + script, host)


@pytest.mark.parametrize("kind", ["function", "method", "object", "partial", "builtin"])
@pytest.mark.parametrize("back", ["", "back"])
def test_a_collection_inside_of_a_tag_registration_may_free_its_connection(host: str, kind: str, back: str) -> None:
    # back: a finaliser in the garbage calls the same driver again.
    script = f"""
def prepare():
    core = connect(sys.argv[1], "operator", "secret")
    driver = core.GetDriver("Plant")
    callback, owner = kinds([])[{kind!r}]
    def back():
        driver.SetTagNotify(print)
        driver.ConnectTag("A")
        driver.GetTagValue("A,B")
    garbage(core, Witness(back if {back!r} else None))
    return driver.SetTagNotify, (callback,), (driver, owner)

at_each_allocation("SetTagNotify", prepare, allocates={kind!r} == "method")
"""
    passes_alone(HEAD + script, host)


@pytest.mark.parametrize("kind", ["function", "method", "object", "partial", "builtin"])
@pytest.mark.parametrize("existing", [0, 1])
@pytest.mark.parametrize("back", ["", "back"])
def test_a_collection_inside_of_an_alarm_registration_may_free_drivers_and_callables(
    host: str, kind: str, existing: int, back: str
) -> None:
    script = f"""
def prepare():
    core = connect(sys.argv[1], "operator", "secret")
    driver = core.GetDriver("Plant")
    callback, owner = kinds([])[{kind!r}]
    other, other_owner = kinds([])[{kind!r}]
    driver.SetTagNotify(other)
    assert driver.ConnectTag("A") == 1
    def back():
        core.SetRtAlarmNotify(print, 0)
        core.GetDriver("Plant").GetTagValue("A,B")
    garbage(driver, other, other_owner, Witness(back if {back!r} else None))
    return core.SetRtAlarmNotify, (callback, {existing}), (core, owner)

at_each_allocation("SetRtAlarmNotify", prepare, allocates={kind!r} == "method" or {existing})
"""
    passes_alone(HEAD + script, host)


@pytest.mark.parametrize(
    "call",
    ['core.GetDriver, ("Plant",)', 'core.GetDriver, ("none",)', 'core.Connect, (sys.argv[1], "operator", "secret")'],
)
def test_a_collection_inside_of_a_connections_other_methods_may_free_drivers_and_another(host: str, call: str) -> None:
    script = f"""
def prepare():
    core = connect(sys.argv[1], "operator", "secret")
    driver = core.GetDriver("Plant")
    callback, owner = kinds([])["method"]
    driver.SetTagNotify(callback)
    assert driver.ConnectTag("A") == 1
    def back():
        core.GetDriver("Plant").GetTagValue("A,B")
    garbage(driver, callback, owner, connect(sys.argv[1], "operator", "secret"), Witness(back))
    return {call}, core

at_each_allocation({call!r}, prepare, allocates=False)
"""
    passes_alone(HEAD + script, host)


CALLBACKS = """
for number in range(3):
    freed.clear()
    phase = "before"
    calls = []
    callback, owner = kinds(calls)[kind]
    core = connect(sys.argv[1], "operator", "secret")
    driver = core.GetDriver("Plant")
    if what == "change":
        driver.SetTagNotify(callback)
        assert driver.ConnectTag("A,B,Level") == 1
    else:
        core.SetRtAlarmNotify(callback, number % 2)
    until(lambda: calls)
    garbage(core)
    if "owner" in held:
        garbage(callback, owner)
        owner = None
    del core, callback  # an owner stays: without one a method is not called, and nothing is allocated
    if "driver" in held:
        garbage(driver)
    driver = None
    # From here on this thread allocates nothing that the collector looks after, and the receive thread does.
    gc.set_threshold(1, 1, 1)
    gc.enable()
    for _ in range(20_000):
        if freed:
            break
        time.sleep(0.002)
    gc.disable()
    assert freed, "nothing was collected"
    if ALLOCATING:
        assert all(thread != threading.get_ident() for _, thread in freed), freed
    gc.collect()
"""


@pytest.mark.parametrize("held", ["core", "core and owner", "core and driver", "core, owner and driver"])
@pytest.mark.parametrize("kind", ["function", "method", "object"])
@pytest.mark.parametrize("what", ["change", "alarm"])
def test_a_collection_inside_of_a_callback_may_free_its_connection(host: str, what: str, kind: str, held: str) -> None:
    passes_alone(HEAD + f"what, kind, held = {what!r}, {kind!r}, {held!r}\n" + CALLBACKS, host)
