"""The module's surface: names, texts, arguments, and what never raises."""

from __future__ import annotations

import inspect
import sys
import threading
import time
from typing import Any

import dialogue as d
import pytest
import wire
from client import FAILED
from conftest import Serve, passes_alone

import RkDBAccess
from RkDBAccess import DBCore, Driver

METHODS: dict[type, dict[str, str]] = {
    DBCore: {
        "Connect": "Connect DB server",
        "GetDriver": "Get DB Driver",
        "SetRtAlarmNotify": "Set Realtime Alarm Notify",
    },
    Driver: {
        "SetTagNotify": "Tag Value Change Notify Function",
        "ConnectTag": "Connect Tag",
        "GetTagValue": "Get Tag Value",
        "SetTagValue": "Set Tag Value",
    },
}


def test_the_module_has_its_two_types_and_nothing_else() -> None:
    assert RkDBAccess.__doc__ == "rkdb access."
    assert {name for name in vars(RkDBAccess) if not name.startswith("__")} == {"DBCore", "Driver"}
    assert RkDBAccess.__name__ == "rkdb"
    assert sys.modules["RkDBAccess"] is RkDBAccess


@pytest.mark.parametrize("kind", [DBCore, Driver])
def test_the_types_have_their_names_and_texts(kind: type) -> None:
    assert kind.__module__ == "RkDBAccess"
    assert kind.__name__ == kind.__qualname__
    assert kind.__doc__ == f"{kind.__name__} objects"
    assert repr(kind) == f"<class 'RkDBAccess.{kind.__name__}'>"


@pytest.mark.parametrize("kind", [DBCore, Driver])
def test_the_methods_have_their_names_order_and_texts(kind: type) -> None:
    own = {name: member.__doc__ for name, member in vars(kind).items() if inspect.ismethoddescriptor(member)}
    assert list(own.items()) == list(METHODS[kind].items())
    assert {name for name in vars(kind) if name not in own} == {"__new__", "__doc__"}


@pytest.mark.parametrize("kind", [DBCore, Driver])
def test_the_types_are_final_closed_and_small(kind: type) -> None:
    with pytest.raises(TypeError, match="not an acceptable base type"):
        type("Sub", (kind,), {})
    with pytest.raises(TypeError, match=r"immutable type|can't set attributes"):
        kind.extra = 1  # type: ignore[attr-defined]
    with pytest.raises(AttributeError):
        kind().extra = 1
    assert kind.__basicsize__ == object.__basicsize__ + 8
    assert kind.__itemsize__ == 0
    assert kind.__flags__ & (1 << 14) == 0  # no part in garbage collection


@pytest.mark.parametrize("kind", [DBCore, Driver])
def test_objects_compare_and_hash_by_identity(kind: type) -> None:
    one, other = kind(), kind()
    again = one
    assert one == again
    assert one != other
    assert len({one, other, again}) == 2
    assert repr(one).startswith(f"<RkDBAccess.{kind.__name__} object at 0x")


def test_a_new_object_takes_any_arguments() -> None:
    for kind in (DBCore, Driver):
        assert type(kind(1, "two", three=[4], **{"": None})) is kind


def test_a_driver_of_a_connection_is_a_driver(serve: Serve) -> None:
    session = serve()
    assert type(session.boiler) is Driver
    assert session.core.GetDriver("Boiler") is not session.boiler


CALLS: dict[str, list[tuple[Any, ...]]] = {
    "Connect": [(), ("h",), ("h", "u"), ("h", "u", "p", "x"), (1, "u", "p"), ("h", None, "p"), ("h", "u", b"p")],
    "GetDriver": [(), ("a", "b"), (1,), (None,), (b"Boiler",), (["Boiler"],)],
    "SetRtAlarmNotify": [(), (print,), (print, 1, 2), (print, "1"), (print, None), (print, 1.5)],
    "SetTagNotify": [(), (print, print)],
    "ConnectTag": [(), ("a", "b"), (1,), (None,), (b"A",)],
    "GetTagValue": [(), ("a", "b"), (1,), (None,), (b"A",), (["A"],)],
    "SetTagValue": [(), ("a",), ("a", 1, 2), (1, 1), (None, 1), (b"A", 1)],
}


@pytest.mark.parametrize(("name", "arguments"), [(name, call) for name, calls in CALLS.items() for call in calls])
def test_arguments_that_do_not_fit_raise_type_error(serve: Serve, name: str, arguments: tuple[Any, ...]) -> None:
    session = serve()
    target = session.core if name in METHODS[DBCore] else session.boiler
    with pytest.raises(TypeError):
        getattr(target, name)(*arguments)


@pytest.mark.parametrize("name", CALLS)
def test_arguments_have_no_names(name: str) -> None:
    target = DBCore() if name in METHODS[DBCore] else Driver()
    with pytest.raises(TypeError, match="no keyword arguments"):
        getattr(target, name)(name="A")


@pytest.mark.parametrize("text", ["a\0b", "\0", "A\0"])
def test_a_text_with_a_zero_is_refused(serve: Serve, text: str) -> None:
    session = serve()
    with pytest.raises(ValueError, match="embedded null"):
        session.boiler.GetTagValue(text)
    with pytest.raises(ValueError, match="embedded null"):
        session.core.GetDriver(text)
    with pytest.raises(ValueError, match="embedded null"):
        session.core.Connect(text, "u", "p")


def test_a_text_without_a_utf_8_form_is_refused(serve: Serve) -> None:
    session = serve()
    with pytest.raises(UnicodeEncodeError):
        session.boiler.GetTagValue("\ud800")
    with pytest.raises(UnicodeEncodeError):
        session.core.GetDriver("\udfff")


@pytest.mark.parametrize("thing", [42, None, "print", [print], object()])
def test_a_callback_must_be_callable(serve: Serve, thing: Any) -> None:
    session = serve()
    with pytest.raises(TypeError, match=r"^parameter must be callable$"):
        session.core.SetRtAlarmNotify(thing, 1)
    with pytest.raises(TypeError, match=r"^parameter must be callable$"):
        session.boiler.SetTagNotify(thing)


def test_a_tag_callback_is_registered_without_traffic(serve: Serve) -> None:
    session = serve()

    def first(*_: object) -> None: ...
    def second(*_: object) -> None: ...

    for callback in (first, second):
        result: object = session.boiler.SetTagNotify(callback)  # type: ignore[func-returns-value]
        assert result is None


@pytest.mark.parametrize("name", ["", "boiler", "Boiler ", "Boiler\n", "泵", "x" * 10_000, "😀"])
def test_an_unknown_driver_is_an_error_of_the_interpreter(serve: Serve, name: str) -> None:
    session = serve()
    with pytest.raises(SystemError, match="without setting an exception"):
        session.core.GetDriver(name)


@pytest.mark.parametrize("host", ["", ":", ":1", "p2p", "p2p(", "P2P()", "x" * 100_000, "\n", "%s%n"])
def test_connect_gives_a_number_whatever_the_host_text(host: str) -> None:
    # No name server is asked: there is no address in these, or a label is too long.
    text = host if host.lower().startswith("p2p") or len(host) > 100 else host + "y" * 70
    assert DBCore().Connect(text, "u", "p") == FAILED


def test_a_call_keeps_the_interpreter_lock_while_it_waits(serve: Serve) -> None:
    session = serve(d.want("req", wire.lookup_request(d.BOILER, ["A"])) + d.pause(0.5) + d.send("req", b"0"))
    ticks: list[float] = []
    done = threading.Event()

    def tick() -> None:
        while not done.wait(0.002):
            ticks.append(time.monotonic())

    ticking = threading.Thread(target=tick)
    ticking.start()
    try:
        time.sleep(0.1)
        started = time.monotonic()
        assert session.boiler.GetTagValue("A") is None
        ended = time.monotonic()
        time.sleep(0.1)
    finally:
        done.set()
        ticking.join()
    assert [tick for tick in ticks if tick < started]
    assert [tick for tick in ticks if tick > ended]
    assert not [tick for tick in ticks if started + 0.1 < tick < ended - 0.1]


def test_the_module_survives_reimport_and_threads() -> None:
    passes_alone(
        """
import importlib, sys, threading
import RkDBAccess
first = RkDBAccess.DBCore
del sys.modules["RkDBAccess"]
again = importlib.import_module("RkDBAccess")
assert again.DBCore is first

def use():
    for _ in range(200):
        again.DBCore(), again.Driver()

threads = [threading.Thread(target=use) for _ in range(8)]
for one in threads:
    one.start()
for one in threads:
    one.join()
"""
    )


def test_import_starts_nothing() -> None:
    passes_alone(
        """
from pathlib import Path
def count(what):
    return sum(1 for _ in Path(f"/proc/self/{what}").iterdir())
before = count("fd"), count("task")
import RkDBAccess
core, driver = RkDBAccess.DBCore(), RkDBAccess.Driver()
assert (count("fd"), count("task")) == before
"""
    )
