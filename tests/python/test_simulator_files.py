"""Files that the simulator serves: every header of a download, and the pace of acknowledged windows."""

from __future__ import annotations

import gzip
import os
from collections.abc import Callable
from pathlib import Path

import pytest
from conftest import Simulator
from sim_wire import RawClient

Simulators = Callable[..., Simulator]

TIME = 1714979289  # 2024-05-06T07:08:09Z

PROJECT = """
[project]
name = "files"
time = 2024-05-06T07:08:09Z
[[file]]
name = "Media/说明.txt"
text = "水 water\\n"
[[file]]
name = "Media/gb.txt"
gb2312 = "水 water\\n"
time = 2024-05-06T09:08:10+02:00
[[file]]
name = "Media/raw.bin"
hex = "00 ff 0D0a 80"
[[file]]
name = "Media/nothing"
[[file]]
name = "Media/gone"
text = "was here"
absent = true
[[file]]
name = "Media/packed"
text = "pack me "
repeat = 20000
gz = true
windows = false
[[file]]
name = "Media/log"
text = "0123456789"
append = true
[[file]]
name = "Media/always"
text = "sent every time"
use_last = false
[[file]]
name = "Media/paced"
text = "x"
windows = true
[[file]]
name = "Media/long"
hex = "00 01 02 03 04 05 06 07 08 09"
repeat = 60000
[[file]]
name = "Media/unpaced"
hex = "00 01 02 03 04 05 06 07 08 09"
repeat = 60000
windows = false
"""


@pytest.fixture
def address(simulator: Simulators) -> tuple[str, int]:
    """Of a simulator that serves the files above."""
    return "127.0.0.1", simulator(PROJECT).port


def reply(name: str, body: bytes, time: int = TIME, more: str = "") -> bytes:
    return f"FileName:{name}\r\nFileTime:{time:X}\r\nSize:{len(body):X}\r\n{more}\r\n".encode("gb2312") + body


def ask(client: RawClient, name: str, lines: str = "") -> None:
    client.ask.send(b"4" + f"{name}\r\n{lines}Hello:Yes\r\n\r\n".encode("gb2312"))


def copy(time: int, size: int, gz: bool = False) -> str:
    """What a client says of its copy."""
    return f"gzTime:{time:X}\r\ngzSize:{size:X}\r\n" if gz else f"LastTime:{time:X}\r\nSize:{size:X}\r\n"


@pytest.mark.parametrize(
    ("name", "body", "time"),
    [
        ("Media/说明.txt", "水 water\n".encode(), TIME),
        ("Media/gb.txt", "水 water\n".encode("gb2312"), TIME + 1),
        ("Media/raw.bin", b"\x00\xff\x0d\x0a\x80", TIME),
        ("Media/nothing", b"", TIME),
        ("RecData/drvinfo.dat", b"", TIME),
        ("RecData/textlist", b"", TIME),
    ],
)
def test_a_file_comes_with_its_name_time_and_size(address: tuple[str, int], name: str, body: bytes, time: int) -> None:
    with RawClient(address) as client:
        ask(client, name)
        client.ask.want(reply(name, body, time))
        assert client.ask.is_quiet()


def test_a_files_name_matches_in_either_case(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        ask(client, "MEDIA/GB.TXT")
        client.ask.want(reply("Media/gb.txt", "水 water\n".encode("gb2312"), TIME + 1))


@pytest.mark.parametrize("name", ["Media/gone", "Media/never", "", "../Media/raw.bin", "/etc/passwd", "Media/"])
def test_a_file_that_is_not_there_does_not_exist(address: tuple[str, int], name: str) -> None:
    with RawClient(address) as client:
        ask(client, name, copy(TIME, 8))
        client.ask.want(b"Exist:No\r\n\r\n")
        assert client.ask.is_quiet()


@pytest.mark.parametrize(("apart", "current"), [(-4, False), (-3, True), (0, True), (3, True), (4, False)])
def test_a_copy_of_the_same_size_and_nearly_the_same_time_is_current(
    address: tuple[str, int], apart: int, current: bool
) -> None:
    with RawClient(address) as client:
        ask(client, "Media/raw.bin", copy(TIME + apart, 5))
        client.ask.want(b"UseLast:Yes\r\n\r\n" if current else reply("Media/raw.bin", b"\x00\xff\x0d\x0a\x80"))
        assert client.ask.is_quiet()


def test_a_copy_of_another_size_is_replaced(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        for size in (4, 6, 0):
            ask(client, "Media/raw.bin", copy(TIME, size))
            client.ask.want(reply("Media/raw.bin", b"\x00\xff\x0d\x0a\x80"))


def test_a_project_can_have_a_file_sent_every_time(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        ask(client, "Media/always", copy(TIME, 15))
        client.ask.want(reply("Media/always", b"sent every time"))


def test_a_compressed_file_unpacks_to_its_content(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        header, body = client.download("Media/packed")
        assert header["GZ"] == "Yes"
        assert gzip.decompress(body) == b"pack me " * 20000
        ask(client, "Media/packed", copy(TIME, len(body), gz=True))
        client.ask.want(b"UseLast:Yes\r\n\r\n")
        ask(client, "Media/packed", copy(TIME, len(body)))  # the plain copy is another file
        client.ask.want(reply("Media/packed", body, more="GZ:Yes\r\n"))


def test_a_file_that_is_compressed_already_is_sent_as_it_is(simulator: Simulators, tmp_path: Path) -> None:
    packed = gzip.compress(os.urandom(1000))
    (tmp_path / "some.gz").write_bytes(packed)
    project = '[[file]]\nname = "Media/x"\npath = "some.gz"\ngz = true\n'
    (tmp_path / "project.toml").write_text(project)
    with RawClient(("127.0.0.1", simulator(tmp_path / "project.toml").port)) as client:
        assert client.download("Media/x")[1] == packed


@pytest.mark.parametrize("size", range(12))
def test_a_shorter_copy_of_a_growing_file_is_continued(address: tuple[str, int], size: int) -> None:
    with RawClient(address) as client:
        ask(client, "Media/log", copy(TIME - 100, size))
        continued = 0 < size < 10
        rest = b"0123456789"[size:] if continued else b"0123456789"
        client.ask.want(reply("Media/log", rest, more="Append:Yes\r\n" if continued else ""))
        assert client.ask.is_quiet()


def test_a_project_may_replace_the_files_that_follow_from_it(simulator: Simulators) -> None:
    project = '[project]\ntime = 2024-05-06T07:08:09Z\n[[file]]\nname = "RecData/drvinfo.dat"\nhex = "41 00"\n'
    with RawClient(("127.0.0.1", simulator(project).port)) as client:
        assert (client.registered.directory_time, client.registered.directory_size) == (TIME, 2)
        ask(client, "RecData/drvinfo.dat")
        client.ask.want(reply("RecData/drvinfo.dat", b"A\0"))


def windows() -> list[int]:
    """The bytes of each window, header included."""
    sizes = [131072]
    while sizes[-1] > 8192:
        sizes.append(max(sizes[-1] - 10240, 8192))
    return sizes + [8192] * 200


def take_windows(client: RawClient, name: str, body: bytes) -> None:
    """Fetches a file window by window; none may come before the one before it is acknowledged."""
    head = reply(name, body, more="Hello:Yes\r\n")
    ask(client, name)
    at = 0
    for number, size in enumerate(windows()):
        client.ask.want(head[at : at + size])
        at += size
        if at >= len(head):
            return
        if number in (0, 1, 15):
            assert client.ask.is_quiet()
        client.ask.send(b"4Hello%X\0" % size)


@pytest.mark.parametrize("acknowledged", [0, 1, 12, 13, 40])
@pytest.mark.parametrize("beyond", [-1, 0, 1])
def test_windows_shrink_and_the_last_one_is_not_acknowledged(
    simulator: Simulators, acknowledged: int, beyond: int
) -> None:
    # The header is part of the first window: the body ends just before, with, and behind the end of a window.
    total = sum(windows()[: acknowledged + 1]) + beyond
    header = len(reply("Media/b", bytes(total), more="Hello:Yes\r\n")) - total
    assert header == len(reply("Media/b", bytes(total - header), more="Hello:Yes\r\n")) - (total - header)
    project = (
        '[project]\ntime = 2024-05-06T07:08:09Z\n[[file]]\nname = "Media/b"\nhex = "5a"\nwindows = true\n'
        f"repeat = {total - header}\n"
    )
    with RawClient(("127.0.0.1", simulator(project).port)) as client:
        take_windows(client, "Media/b", b"Z" * (total - header))
        client.find((0, "the connection goes on"))


def test_long_files_are_paced_unless_the_project_or_the_client_says_otherwise(address: tuple[str, int]) -> None:
    body = bytes(range(10)) * 60000
    with RawClient(address) as client:
        ask(client, "Media/paced")
        client.ask.want(reply("Media/paced", b"x", more="Hello:Yes\r\n"))
        ask(client, "Media/unpaced")
        client.ask.want(reply("Media/unpaced", body))
        take_windows(client, "Media/long", body)
        client.ask.send(b"4Media/long\r\n\r\n")  # no offer to acknowledge
        client.ask.want(reply("Media/long", body))
        client.ask.send(b"4Media/long\r\nhello:YES\r\n\r\n")
        client.ask.want(reply("Media/long", body, more="Hello:Yes\r\n")[:131072])
        assert client.ask.is_quiet()


@pytest.mark.parametrize(
    "said",
    [b"4Hello20001\0", b"4Hello1FFFF\0", b"4Hello020000\0", b"4Hello\0", b"4hello20000\0", b"5Hello20000\0", b"H\0\0"],
)
def test_another_count_than_the_windows_ends_the_connection(address: tuple[str, int], said: bytes) -> None:
    with RawClient(address) as client:
        ask(client, "Media/long")
        client.ask.take(131072)
        client.ask.send(said)
        assert client.ask.is_ended()


def test_an_acknowledgement_may_come_in_pieces_and_early(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        ask(client, "Media/long")
        client.ask.send_slowly(b"4Hello20000\0")
        client.ask.send(b"4Hello1D800\0")
        client.ask.take(131072 + 120832 + 110592)
        assert client.ask.is_quiet()


def test_a_client_may_leave_in_the_middle_of_a_file(address: tuple[str, int]) -> None:
    with RawClient(address) as client:
        for name in ("Media/long", "Media/unpaced"):
            with RawClient(address) as leaving:
                ask(leaving, name)
                leaving.ask.take(1000)
        assert client.header("Media/raw.bin")[0]["Size"] == "5"


def test_a_file_of_many_megabytes_is_served(simulator: Simulators, tmp_path: Path) -> None:
    body = os.urandom(16 << 20)
    (tmp_path / "big.bin").write_bytes(body)
    project = '[[file]]\nname = "Media/x"\npath = "big.bin"\nwindows = false\n'
    (tmp_path / "project.toml").write_text(project)
    with RawClient(("127.0.0.1", simulator(tmp_path / "project.toml").port)) as client:
        assert client.download("Media/x")[1] == body
