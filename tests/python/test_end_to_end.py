"""The client and the simulator together: what a user of both sees."""

from __future__ import annotations

import random
from collections.abc import Callable
from pathlib import Path

import pytest
import wire
from client import CONNECTED, FAILED, REFUSED, UNSET, connect, read, sockets_to
from conftest import CHECKOUT, Simulator, live_threads, mirror, settles

from RkDBAccess import DBCore

DEMO = CHECKOUT / "sim" / "demo.toml"
USER, PASSWORD = "operator", "demo"

Simulators = Callable[..., Simulator]

# What the tags of the demonstration project are: a value that stays, or the lowest and the highest that may be seen.
BOILER: dict[str, object] = {
    "Level": (5.0, 95.0),
    "Pressure": (0.79, 2.41),
    "炉膛温度": (780.0, 930.0),
    "SetPoint": 50.0,
    "SetPoint.Feedback": 50.0,
}
STATION: dict[str, object] = {
    "流量": (5.0, 20.0),
    "Pump1.Running": True,
    "Pump1.Speed": (1200, 1600),
    "I2": -12345,
    "I1": (-120, 120),
    "UI1": 200,
    "UI2": 54321,
    "UI4": 4_000_000_000,
    "INT": -7,
    "UINT": 7,
    "备注": "泵站一号",
}


def project_text(name: str, *lines: str, server: str = "") -> str:
    """A project with one user and one driver; the lines are its tags."""
    head = f'[project]\nname = "{name}"\n[server]\n{server}\n[[user]]\nname = "{USER}"\npassword = "{PASSWORD}"\n'
    return head + '[[driver]]\nname = "Plant"\n' + "\n".join(f"[[driver.tag]]\n{line}" for line in lines)


def fits(value: object, expected: object) -> bool:
    if isinstance(expected, tuple):
        lowest, highest = expected
        return type(value) is type(lowest) and lowest <= value <= highest  # type: ignore[operator]
    return type(value) is type(expected) and value == expected


def test_the_demonstration_project_is_read_tag_by_tag_and_as_a_list(simulator: Simulators) -> None:
    core = connect(simulator(DEMO).host, USER, PASSWORD)
    for driver_name, tags in (("Boiler", BOILER), ("泵站", STATION)):
        driver = core.GetDriver(driver_name)
        for _ in range(3):
            values = read(driver, ",".join(tags))
            assert isinstance(values, list)
            got = dict(zip(tags, values))
            assert [name for name in tags if not fits(got[name], tags[name])] == [], got
        for name, expected in tags.items():
            assert fits(read(driver, name), expected), name


def test_the_demonstration_project_has_values_without_a_python_form(simulator: Simulators) -> None:
    core = connect(simulator(DEMO).host, USER, PASSWORD)
    assert read(core.GetDriver("泵站"), "I8,UINT,Spare,no such tag") == [UNSET, 7, UNSET, UNSET]
    with pytest.raises(SystemError):
        core.GetDriver("Boiler").GetTagValue("StartedAt")


def test_values_move(simulator: Simulators) -> None:
    core = connect(simulator(DEMO).host, USER, PASSWORD)
    boiler = core.GetDriver("Boiler")
    first = read(boiler, "Level")
    assert settles(lambda: read(boiler, "Level") != first, 10)


def test_who_may_connect_is_decided_by_the_project(simulator: Simulators) -> None:
    host = simulator(DEMO).host
    core = DBCore()
    assert core.Connect(host, USER, "wrong") == REFUSED
    assert core.Connect(host, "nobody", PASSWORD) == REFUSED
    assert core.Connect(host, "viewer", PASSWORD) == CONNECTED
    assert core.Connect(host, USER, PASSWORD) == CONNECTED


@pytest.mark.parametrize("stage", ["open", "register"])
def test_a_server_that_refuses_fails_the_connection(simulator: Simulators, project: str, stage: str) -> None:
    host = simulator(project_text(project, 'name = "T"\ntype = "i4"', server=f'refuse = "{stage}"')).host
    assert DBCore().Connect(host, USER, PASSWORD) == FAILED


@pytest.mark.bulk
def test_sixty_thousand_tags_are_read_each_with_its_own_value(simulator: Simulators, project: str) -> None:
    letters = "ABC"
    many = [f'name = "{one}%05d"\ncount = 20000\ntype = "i4"\nvalue = {value}' for value, one in enumerate(letters)]
    core = connect(simulator(project_text(project, *many)).host, USER, PASSWORD)
    plant = core.GetDriver("Plant")
    tags = [(f"{one}{number:05}", value) for value, one in enumerate(letters) for number in range(20_000)]
    random.Random(1).shuffle(tags)
    for start in range(0, len(tags), wire.READ_LIMIT):
        part = tags[start : start + wire.READ_LIMIT]
        assert read(plant, ",".join(name for name, _ in part)) == [value for _, value in part]
    last = tags[-500:]
    assert read(plant, ",".join(name for name, _ in last)) == [value for _, value in last]


@pytest.mark.parametrize(
    "server", ["pieces = 1", "block_size = 1", "pieces = 3\nblock_size = 40", "reply_delay_ms = 30"]
)
def test_how_a_reply_is_cut_does_not_change_a_value(simulator: Simulators, project: str, server: str) -> None:
    texts = [f'name = "文本{number}"\ntype = "str"\nvalue = "值 {number}"' for number in range(30)]
    core = connect(simulator(project_text(project, *texts, server=server)).host, USER, PASSWORD)
    names = ",".join(f"文本{number}" for number in range(30))
    assert read(core.GetDriver("Plant"), names) == [f"值 {number}" for number in range(30)]


def test_a_long_directory_is_fetched_once(simulator: Simulators, project: str) -> None:
    names = [f"驱动{'x' * 200}{number}" for number in range(1200)]
    drivers = "".join(
        f'[[driver]]\nname = "{name}"\n[[driver.tag]]\nname = "T"\ntype = "i4"\nvalue = {number}\n'
        for number, name in enumerate(names)
    )
    head = f'[project]\nname = "{project}"\n[[user]]\nname = "{USER}"\npassword = "{PASSWORD}"\n'
    host = simulator(head + drivers).host
    core = connect(host, USER, PASSWORD)
    copy = mirror(host, project) / wire.DIRECTORY
    before = copy.stat()
    assert before.st_size > 131_072
    assert [read(core.GetDriver(names[number]), "T") for number in (0, 599, 1199)] == [0, 599, 1199]
    assert core.Connect(host, USER, PASSWORD) == CONNECTED
    assert copy.stat().st_ctime_ns == before.st_ctime_ns  # not written again
    assert read(core.GetDriver(names[1199]), "T") == 1199


def test_a_project_may_have_a_chinese_name(simulator: Simulators, project: str) -> None:
    host = simulator(project_text(f"{project}水厂", 'name = "T"\ntype = "i4"\nvalue = 5')).host
    assert read(connect(host, USER, PASSWORD).GetDriver("Plant"), "T") == 5
    assert mirror(host, f"{project}水厂").joinpath(wire.DIRECTORY).is_file()


@pytest.mark.usefixtures("capfd")  # a redirect is said on standard output
@pytest.mark.parametrize("name", ["demo", "demo-relayed"])
def test_the_relay_centre_leads_to_the_server(simulator: Simulators, own_address: str, name: str) -> None:
    simulator(DEMO, "--relay", "--relay-host", own_address, "--quiet")
    core = connect(f"p2p({own_address}):{name}", USER, PASSWORD)
    assert read(core.GetDriver("泵站"), "UI2,备注") == [54321, "泵站一号"]


def test_forty_clients_of_one_process_each_see_their_server(simulator: Simulators, project: str) -> None:
    threads = live_threads()
    servers = [
        simulator(project_text(f"{project}{number}", f'name = "T"\ntype = "i4"\nvalue = {number}'))
        for number in range(2)
    ]
    cores = [connect(servers[number % 2].host, USER, PASSWORD) for number in range(40)]
    drivers = [core.GetDriver("Plant") for core in cores]
    assert live_threads() == threads + 40
    assert [read(driver, "T") for driver in drivers] == [0, 1] * 20
    del cores[::2]
    assert [read(driver, "T") for driver in drivers] == [None, 1] * 20
    del cores
    assert settles(lambda: live_threads() <= threads)


def test_a_server_that_ends_takes_its_connections_with_it(simulator: Simulators, own_address: str) -> None:
    server = simulator(DEMO, address=own_address)
    core = connect(server.host, USER, PASSWORD)
    boiler = core.GetDriver("Boiler")
    assert read(boiler, "SetPoint") == 50.0
    assert server.stop()[0] == 0
    assert settles(lambda: not sockets_to((own_address, server.port)))
    assert read(boiler, "SetPoint") is None
    assert core.Connect(server.host, USER, PASSWORD) == FAILED


def test_the_mirror_survives_a_client(simulator: Simulators, project: str) -> None:
    host = simulator(project_text(project, 'name = "T"\ntype = "i4"\nvalue = 5')).host
    core = connect(host, USER, PASSWORD)
    del core
    kept: Path = mirror(host, project) / wire.DIRECTORY
    assert kept.read_bytes() == wire.directory([("Plant", 0, 1)])
