"""The mirror's tree of directories, and the driver directory read from it."""

from __future__ import annotations

import dialogue as d
import pytest
import wire
from client import connect
from conftest import Play, mirror, mirror_host

from RkDBAccess import DBCore

PROJECT_TREE = [
    *["3DWnd", "CtmGph", "DBDrv", "ExtData", "Media", "RecData", "RecData/Alarm2", "RecData/Event", "Report"],
    *["ScnDrv", "SysCfg", "Window"],
]


@pytest.mark.parametrize("name", ["ascii", "水厂一期"])
def test_a_connection_makes_the_projects_tree_for_its_owner_only(play: Play, project: str, name: str) -> None:
    peer = play(d.connecting(project + name))
    connect(peer.host)
    home = mirror(peer.host, project + name)
    tree = [path for path in home.rglob("*") if path.is_dir()]
    assert sorted(str(path.relative_to(home)) for path in tree) == PROJECT_TREE
    assert {path.stat().st_mode & 0o777 for path in [*tree, home, home.parent]} == {0o700}
    assert [path.name for path in mirror_host(peer.host).iterdir()] == [project + name]
    assert home.joinpath(wire.DIRECTORY).is_file()


def test_a_tree_from_before_keeps_its_contents_and_is_closed_to_others(play: Play, project: str) -> None:
    peer = play(d.connecting(project))
    home = mirror(peer.host, project)
    for name in ("Media", "RecData/Event", "RecData/Alarm2"):
        home.joinpath(name).mkdir(parents=True)
        home.joinpath(name, "kept").write_bytes(b"content")
    opened = [home.parent, home, home / "RecData/Event", home / "RecData/Alarm2"]
    for path in opened:
        path.chmod(0o755)
    connect(peer.host)
    assert {path.stat().st_mode & 0o777 for path in opened} == {0o700}
    kept = [path.relative_to(home) for path in home.rglob("kept") if path.read_bytes() == b"content"]
    assert sorted(map(str, kept)) == ["Media/kept", "RecData/Alarm2/kept", "RecData/Event/kept"]


def with_directory(play: Play, project: str, body: bytes, *steps: d.Steps) -> DBCore:
    """A client of a server with this driver directory, which then answers as the steps say."""
    script = d.up_to_directory(project, body) + d.fetching(wire.download_reply(body))
    return connect(play(script + [step for part in steps for step in part]).host)


def has(core: DBCore, name: str) -> bool:
    try:
        core.GetDriver(name)
    except SystemError:
        return False
    return True


def test_drivers_are_asked_by_the_ids_of_the_directory(play: Play, project: str) -> None:
    core = with_directory(
        play,
        project,
        wire.directory([("A", 1, 5), ("B", 0, 10)]),
        d.looking_up(["x"], [4], driver=1) + d.reading_numbers([4], [40], driver=1),
        d.looking_up(["x"], [9], driver=0) + d.reading_numbers([9], [90], driver=0),
    )
    assert core.GetDriver("A").GetTagValue("x") == 40
    assert core.GetDriver("B").GetTagValue("x") == 90


def test_a_driver_has_as_many_tags_as_the_directory_says(play: Play, project: str) -> None:
    core = with_directory(
        play,
        project,
        wire.directory([("A", 0, 5), ("B", 1, 0), ("C", 2, 65535)]),
        d.looking_up(["x"], [5], driver=0),
        d.looking_up(["x"], [0], driver=1),
        d.looking_up(["x"], [65534], driver=2) + d.reading_numbers([65534], [1], driver=2),
        d.looking_up(["y"], [65535], driver=2),
    )
    assert core.GetDriver("A").GetTagValue("x") is None
    assert core.GetDriver("B").GetTagValue("x") is None
    assert core.GetDriver("C").GetTagValue("x") == 1
    assert core.GetDriver("C").GetTagValue("y") is None


def test_driver_names_are_exact(play: Play, project: str) -> None:
    names = ["A", "b c", "泵站", "x" * 3000, "A,B"]
    core = with_directory(play, project, wire.directory([(name, number, 1) for number, name in enumerate(names)]))
    assert [has(core, name) for name in names] == [True] * len(names)
    for name in ("a", "A ", " A", "", "B", "b", "泵", "泵站一", "x" * 2999, "x" * 3001, "A,"):
        assert not has(core, name)


@pytest.mark.parametrize("body", [b"", b"A\0\0\0", b"\0\0\0\0", b"A\0\0", b"\0\0"])
def test_a_directory_too_short_for_a_record_has_no_drivers(play: Play, project: str, body: bytes) -> None:
    core = with_directory(play, project, body)
    assert not has(core, "A")
    assert not has(core, "")


def test_the_smallest_directory_has_one_driver_without_a_name(play: Play, project: str) -> None:
    core = with_directory(
        play, project, b"\0\0\0\5\0", d.looking_up(["x"], [4], driver=0), d.reading_numbers([4], [1], driver=0)
    )
    assert core.GetDriver("").GetTagValue("x") == 1


@pytest.mark.parametrize("rest", [b"B\0\1\0\5", b"B\0\1\0", b"B\0", b"B", b"\0", b"B" * 100])
def test_a_last_record_that_is_not_whole_is_ignored(play: Play, project: str, rest: bytes) -> None:
    core = with_directory(play, project, wire.directory([("A", 0, 5)]) + rest)
    assert has(core, "A")
    assert not has(core, "B")
    assert not has(core, rest.decode("latin-1").split("\0")[0])


def test_of_two_records_of_one_name_the_later_counts(play: Play, project: str) -> None:
    core = with_directory(
        play,
        project,
        wire.directory([("A", 7, 1), ("B", 1, 1), ("A", 0, 9)]),
        d.looking_up(["x"], [8], driver=0) + d.reading_numbers([8], [1], driver=0),
    )
    assert core.GetDriver("A").GetTagValue("x") == 1


def test_a_driver_with_an_id_beyond_the_directory_is_no_driver(play: Play, project: str) -> None:
    core = with_directory(play, project, wire.directory([("A", 4, 5), ("B", 0, 5), ("C", 3, 5), ("D", 65535, 5)]))
    assert [has(core, name) for name in "ABCD"] == [False, True, True, False]


def test_asking_twice_for_a_driver_shares_what_it_knows(play: Play, project: str) -> None:
    core = with_directory(
        play,
        project,
        wire.directory([("A", 0, 5)]),
        d.looking_up(["x"], [4]) + d.reading_numbers([4], [1]) + d.reading_numbers([4], [2]),
    )
    assert core.GetDriver("A").GetTagValue("x") == 1
    assert core.GetDriver("A").GetTagValue("x") == 2


def test_three_hundred_drivers_are_all_there(play: Play, project: str) -> None:
    names = [f"driver {number}" for number in range(300)]
    core = with_directory(
        play,
        project,
        wire.directory([(name, number, 9) for number, name in enumerate(names)]),
        d.looking_up(["x"], [8], driver=299) + d.reading_numbers([8], [1], driver=299),
    )
    assert all(has(core, name) for name in names)
    assert core.GetDriver("driver 299").GetTagValue("x") == 1


def test_the_directory_of_a_later_connection_replaces_the_one_before(play: Play, project: str) -> None:
    later = wire.directory([("C", 0, 5)])
    request = wire.download_request(last=(d.FILE_TIME, len(wire.directory(d.DRIVERS))))
    peer = play(
        d.connecting(project)
        + d.want_eof("req", "rcv")
        + d.up_to_directory(project, later)
        + d.fetching(wire.download_reply(later), request)
    )
    core = connect(peer.host)
    assert has(core, "Boiler")
    assert core.Connect(peer.host, d.USER, d.PASSWORD) == 0
    assert not has(core, "Boiler")
    assert has(core, "C")
