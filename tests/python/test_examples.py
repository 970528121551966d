"""The example scripts as a user runs them: each in a process of its own, against the simulator."""

from __future__ import annotations

import argparse
import csv
import importlib
import os
import signal
import subprocess
import sys
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from client import connect
from conftest import CHECKOUT, Simulator, settles
from peer import PATIENCE

from RkDBAccess import Driver

Simulators = Callable[..., Simulator]

USER, PASSWORD = "operator", "demo"
PROJECT = """
[project]
name = "{name}"
[[user]]
name = "operator"
password = "demo"
rights = 0x08
[[user]]
name = "viewer"
password = "demo"
rights = 0
[[driver]]
name = "Boiler"
[[driver.tag]]
name = "炉膛温度"
type = "r8"
value = 50.0
[[driver.tag]]
name = "Count"
type = "i4"
value = 7
[[driver.tag]]
name = "Started"
type = "date"
value = 2024-05-06T07:08:09
[[alarm]]
driver = "Boiler"
tag = "炉膛温度"
high = 80
type = "超温报警"
group = "锅炉"
level = 4
"""


class Example:
    """A running example and the lines that it has printed."""

    def __init__(self, script: str, host: str, *arguments: str) -> None:
        # What a shell starts in the background ignores Ctrl-C, and so would this.
        self._process = subprocess.Popen(
            ["env", "--default-signal=INT", sys.executable, CHECKOUT / "examples" / script, "--host", host, *arguments],
            env={**os.environ, "PYTHONPATH": os.pathsep.join(path for path in sys.path if path)},
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            encoding="utf-8",
        )
        self.lines: list[str] = []
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def _read(self) -> None:
        assert self._process.stdout is not None
        with self._process.stdout as lines:
            self.lines.extend(line.rstrip("\n") for line in lines)

    def shows(self, text: str, times: int = 1) -> bool:
        return settles(lambda: sum(text in line for line in list(self.lines)) >= times, PATIENCE)

    def end(self) -> int:
        """Ctrl-C; gives the status."""
        self._process.send_signal(signal.SIGINT)
        return self.wait()

    def wait(self) -> int:
        try:
            return self._process.wait(PATIENCE)
        finally:
            self._process.kill()
            self._process.wait()
            self._reader.join()


@contextmanager
def running(script: str, host: str, *arguments: str) -> Iterator[Example]:
    example = Example(script, host, *arguments)
    try:
        yield example
    finally:
        example.end()


def run(script: str, host: str, *arguments: str) -> tuple[int, list[str]]:
    example = Example(script, host, *arguments)
    return example.wait(), example.lines


@pytest.fixture
def plant(simulator: Simulators, own_address: str, project: str) -> Simulator:
    return simulator(PROJECT.format(name=project), address=own_address)


def boiler(plant: Simulator) -> tuple[object, Driver]:
    core = connect(plant.host, USER, PASSWORD)
    return core, core.GetDriver("Boiler")


def restart(simulator: Simulators, plant: Simulator, project: str) -> None:
    plant.stop()
    address, port = plant.host.split(":")
    simulator(PROJECT.format(name=project), address=address, port=int(port))


def test_read_once_shows_every_tag_or_why_not(plant: Simulator) -> None:
    assert run("read_once.py", plant.host, "Boiler", "炉膛温度", "Nobody", "Count", "Started") == (
        0,
        ["炉膛温度 = 50.0", "Nobody = None", "Count = 7", "Started = (a date or another type without a Python form)"],
    )


def test_a_wrong_password_driver_or_address_ends_with_a_message(plant: Simulator) -> None:
    refused = run("read_once.py", plant.host, "--password", "wrong", "Boiler", "Count")
    assert refused == (1, ["Connect gave -1: the server refused the user name or the password"])
    assert run("read_once.py", plant.host, "Nothing", "Count") == (1, ["the project has no driver Nothing"])
    plant.stop()
    gone = run("read_once.py", plant.host, "Boiler", "Count")
    assert gone == (1, ["Connect gave -2: the server was not reached, or the connection broke"])


def test_write_shows_the_effect_or_the_reason(plant: Simulator) -> None:
    assert run("write.py", plant.host, "Boiler", "Count", "12") == (0, ["Count = 12"])
    assert run("write.py", plant.host, "Boiler", "Nobody", "12") == (
        1,
        ["SetTagValue gave -3: there is no such tag, or it takes no such value"],
    )
    assert run("write.py", plant.host, "--user", "viewer", "Boiler", "Count", "1") == (
        1,
        ["SetTagValue gave -1: the user may not write"],
    )


def test_poll_goes_on_after_a_loss(simulator: Simulators, plant: Simulator, project: str) -> None:
    tags = ("Boiler", "Count", "Nobody", "Started", "炉膛温度")
    with running("poll.py", plant.host, "--seconds", "0.1", *tags) as poll:
        assert poll.shows("Count=7 炉膛温度=50.0", 3)
        restart(simulator, plant, project)
        assert poll.shows("the connection is lost; trying again")
        before = len(poll.lines)
        assert settles(lambda: any("Count=7 炉膛温度=50.0" in line for line in poll.lines[before:]), PATIENCE)


def watched(plant: Simulator, watch: Example, value: float) -> None:
    """A write by another client is shown."""
    core, driver = boiler(plant)
    # Only its own output tells whether the example has subscribed by now: something changes until it shows that.
    assert settles(lambda: write_other(driver) and any("Count = " in line for line in watch.lines), PATIENCE)
    assert driver.SetTagValue("炉膛温度", value) == 0
    assert watch.shows(f"Boiler 炉膛温度 = {value}")
    del core


def write_other(driver: Driver) -> bool:
    """Another value than before."""
    value = driver.GetTagValue("Count")
    assert isinstance(value, int)
    return driver.SetTagValue("Count", value + 1) == 0


def test_watch_changes_shows_each_change_and_goes_on_after_a_loss(
    simulator: Simulators, plant: Simulator, project: str
) -> None:
    with running("watch_changes.py", plant.host, "Boiler", "Count", "炉膛温度") as watch:
        watched(plant, watch, 61.0)
        restart(simulator, plant, project)
        assert watch.shows("the connection is lost; trying again")
        watch.lines.clear()
        watched(plant, watch, 62.0)
        assert watch.end() == 0


def rows(path: Path) -> list[list[str]]:
    return list(csv.reader(path.read_text(encoding="utf-8").splitlines())) if path.exists() else []


def noted(plant: Simulator, path: Path, value: float) -> None:
    """A value beyond the limit is in the file."""
    core, driver = boiler(plant)
    assert driver.SetTagValue("炉膛温度", value) == 0
    assert settles(lambda: any(str(value) in row for row in rows(path)[1:]), PATIENCE), rows(path)
    del core


def test_alarms_to_csv_writes_active_and_new_alarms_and_goes_on_after_a_loss(
    simulator: Simulators, plant: Simulator, project: str, tmp_path: Path
) -> None:
    path = tmp_path / "alarms.csv"
    with running("alarms_to_csv.py", plant.host, "Boiler", str(path)) as alarms:
        noted(plant, path, 91.0)
        restart(simulator, plant, project)
        assert alarms.shows("the connection is lost; trying again")
        noted(plant, path, 92.0)
        assert alarms.end() == 0
    assert rows(path)[0][:3] == ["alarm time", "event time", "tag"]
    assert {tuple(row[4:7]) for row in rows(path)[1:]} == {("超温报警", "锅炉", "4")}
    assert alarms.lines == ["the connection is lost; trying again"]


class Flapping:
    """A connection that ends when it is told to, in the order of its making."""

    def __init__(self) -> None:
        self.stands = True

    def GetDriver(self, _name: str) -> None:  # noqa: N802 (as the module calls it)
        if not self.stands:
            raise SystemError


@pytest.mark.parametrize("network", [True, False], ids=["lost once more", "tags gone"])
def test_a_registration_that_fails_after_a_loss_ends_the_script_only_if_the_connection_stands(
    monkeypatch: pytest.MonkeyPatch, network: bool
) -> None:
    monkeypatch.syspath_prepend(CHECKOUT / "examples")
    plant = importlib.import_module("plant")
    made: list[Flapping] = []

    def connected(_: argparse.Namespace) -> Flapping:
        made.append(Flapping())
        return made[-1]

    def register(db: Flapping) -> None:
        if len(made) == 2:
            db.stands = not network
            raise SystemExit("not registered")
        db.stands = len(made) > 1  # the first one is lost

    monkeypatch.setattr(plant, "connect", connected)
    monkeypatch.setattr(plant, "reconnect", connected)
    arguments = argparse.Namespace(seconds=1.5, driver="Boiler")
    if network:
        plant.listen(arguments, register)
        assert [db.stands for db in made] == [False, False, True]
    else:
        with pytest.raises(SystemExit, match="not registered"):
            plant.listen(arguments, register)
