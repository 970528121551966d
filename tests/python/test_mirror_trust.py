"""What other users and other processes may do to the mirror: nothing planted is followed, believed or changed, and
no process reads what another is writing."""

from __future__ import annotations

import os
import stat
import subprocess
import sys
from collections.abc import Callable
from pathlib import Path

import dialogue as d
import pytest
import wire
from client import FAILED, connect
from conftest import Play, Simulator, mirror

from RkDBAccess import DBCore

BODY = wire.directory(d.DRIVERS)
SOMEBODY = 65534

Picture = dict[str, tuple[int, int, bytes]]


def picture(folder: Path) -> Picture:
    """Everything below a folder: mode, owner and content."""
    found: Picture = {}
    for path in [folder, *sorted(folder.rglob("*"))]:
        status = path.lstat()
        content = path.read_bytes() if stat.S_ISREG(status.st_mode) else b""
        found[str(path)] = (status.st_mode, status.st_uid, content)
    return found


def someone_elses(path: Path) -> None:
    """Gives a path away; who may not do that lets others write to it, which is the same danger."""
    if os.geteuid() == 0:
        os.chown(path, SOMEBODY, SOMEBODY)
    else:
        path.chmod(0o770)


@pytest.fixture
def elsewhere(tmp_path: Path) -> Path:
    """A folder that a planted link leads to."""
    folder = tmp_path / "elsewhere"
    for name in ("", "RecData", "inner"):
        (folder / name).mkdir()
        (folder / name).chmod(0o755)
    (folder / "RecData" / "drvinfo.dat").write_bytes(BODY)
    os.utime(folder / "RecData" / "drvinfo.dat", (d.FILE_TIME, d.FILE_TIME))
    return folder


@pytest.mark.parametrize("level", ["..", ".", "RecData", "Media", "RecData/Event"])
@pytest.mark.parametrize("kind", ["a link", "someone else's", "open to others", "a file"])
def test_a_planted_folder_fails_the_connection_before_the_login(
    play: Play, project: str, elsewhere: Path, level: str, kind: str
) -> None:
    peer = play(d.up_to_login(project, size=len(BODY)) + d.want_eof("req", "rcv"))
    home = mirror(peer.host, project)
    place = home.parent if level == ".." else home / level
    place.parent.mkdir(parents=True, exist_ok=True)
    if kind == "a link":
        place.symlink_to(elsewhere)
    elif kind == "a file":
        place.write_bytes(b"")
    else:
        place.mkdir()
        place.chmod(0o722 if kind == "open to others" else 0o755)
        if kind == "someone else's":
            someone_elses(place)
    before = picture(elsewhere), place.lstat()
    assert DBCore().Connect(peer.host, d.USER, d.PASSWORD) == FAILED
    after = picture(elsewhere), place.lstat()
    if not place.is_dir() or place.is_symlink():
        place.unlink()  # the test's own clean-up takes only folders away
    assert after[0] == before[0]
    for name in ("st_mode", "st_uid", "st_nlink"):
        assert getattr(after[1], name) == getattr(before[1], name)


def a_link(place: Path, victim: Path) -> None:
    place.symlink_to(victim)


def a_link_to_nothing(place: Path, victim: Path) -> None:
    place.symlink_to(victim.with_name("missing"))


def a_pipe(place: Path, _victim: Path) -> None:
    os.mkfifo(place, 0o600)


def a_folder(place: Path, _victim: Path) -> None:
    place.mkdir()


def someone_elses_file(place: Path, _victim: Path) -> None:
    place.write_bytes(BODY)
    os.utime(place, (d.FILE_TIME, d.FILE_TIME))
    someone_elses(place)


def a_file_open_to_others(place: Path, _victim: Path) -> None:
    place.write_bytes(BODY)
    os.utime(place, (d.FILE_TIME, d.FILE_TIME))
    place.chmod(0o606)


@pytest.mark.parametrize("name", ["drvinfo.dat", "drvinfo.dat.gz"])
@pytest.mark.parametrize(
    "plant", [a_link, a_link_to_nothing, a_pipe, a_folder, someone_elses_file, a_file_open_to_others]
)
def test_a_planted_copy_is_neither_believed_nor_written(
    play: Play, project: str, elsewhere: Path, plant: Callable[[Path, Path], None], name: str
) -> None:
    """Each is of the right time and size, so that a client which believed it would ask for nothing."""
    peer = play(d.up_to_login(project, size=len(BODY)) + d.logging_in() + d.want_eof("req", "rcv"))
    place = mirror(peer.host, project) / "RecData" / name
    place.parent.mkdir(parents=True)
    plant(place, elsewhere / "RecData" / "drvinfo.dat")
    before = picture(elsewhere), place.lstat()
    assert DBCore().Connect(peer.host, d.USER, d.PASSWORD) == FAILED
    after = picture(elsewhere), place.lstat()
    assert after[0] == before[0]
    for field in ("st_mode", "st_uid", "st_size"):
        assert getattr(after[1], field) == getattr(before[1], field)


@pytest.mark.parametrize("mask", [0, 0o777])
def test_folders_and_files_are_their_owners_alone_whatever_the_umask(play: Play, project: str, mask: int) -> None:
    peer = play(d.connecting(project))
    before = os.umask(mask)
    try:
        connect(peer.host)
    finally:
        os.umask(before)
    home = mirror(peer.host, project)
    modes = {(path.is_dir(), path.stat().st_mode & 0o7777) for path in [home.parent, home, *home.rglob("*")]}
    assert modes == {(True, 0o700), (False, 0o600)}


ROUNDS = 12
CONNECTING = """
import os, sys
from RkDBAccess import DBCore
host, copy, rounds, drivers = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
for turn in range(rounds):
    if turn % 2:
        try:
            os.unlink(copy)
        except FileNotFoundError:
            pass
    core = DBCore()
    result = core.Connect(host, "operator", "demo")
    missing = 0
    for number in range(drivers) if result == 0 else ():
        try:
            core.GetDriver(f"a driver with a long name {number}")
        except SystemError:
            missing += 1
    print(result, missing)
"""


def test_processes_that_connect_at_once_all_have_all_drivers(simulator: Callable[..., Simulator], project: str) -> None:
    drivers = 400
    text = f'[project]\nname = "{project}"\n[[user]]\nname = "operator"\npassword = "demo"\n' + "".join(
        f'[[driver]]\nname = "a driver with a long name {number}"\n' for number in range(drivers)
    )
    host = simulator(text).host
    copy = mirror(host, project) / "RecData" / "drvinfo.dat"
    command = [sys.executable, "-c", CONNECTING, host, str(copy), str(ROUNDS), str(drivers)]
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join(path for path in sys.path if path)}
    clients = [subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env=environment) for _ in range(6)]
    outputs = [client.communicate(timeout=240)[0] for client in clients]
    assert "".join(outputs).splitlines() == ["0 0"] * (6 * ROUNDS)
    assert sorted(path.name for path in copy.parent.iterdir()) == ["Alarm2", "Event", "drvinfo.dat"]
