"""The download of the driver directory: when it is asked for, with which lines, and what each reply does."""

from __future__ import annotations

import os
from pathlib import Path

import dialogue as d
import pytest
import wire
from client import FAILED, connect
from conftest import Play, mirror, passes_alone
from dialogue import Steps
from peer import Peer

from RkDBAccess import DBCore

BODY = wire.directory(d.DRIVERS)
OTHER_BODY = wire.directory([("Mixer", 0, 3)])


def put(path: Path, content: bytes, time: int) -> None:
    """A copy in the mirror from an earlier connection."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(content)
    os.utime(path, (time, time))


def copy_of(peer: Peer, project: str, suffix: str = "") -> Path:
    return mirror(peer.host, project) / "RecData" / f"drvinfo.dat{suffix}"


def logged_in(project: str, time: int = d.FILE_TIME, size: int = len(BODY)) -> Steps:
    """Up to the download; time and size are what the server says of its directory at registration."""
    return d.up_to_login(project, file_time=time, size=size) + d.logging_in()


def result_of(peer: Peer) -> int:
    return DBCore().Connect(peer.host, d.USER, d.PASSWORD)


def drivers_in(peer: Peer) -> list[str]:
    """Which of the drivers that these tests know a connection has."""
    core, found = connect(peer.host), []
    for name in ("Boiler", "泵站", "Mixer"):
        try:
            core.GetDriver(name)
        except SystemError:
            continue
        found.append(name)
    return found


BOTH = ["Boiler", "泵站"]


# What is asked.


def test_a_first_copy_has_the_servers_bytes_and_time_and_is_for_its_owner_only(play: Play, project: str) -> None:
    peer = play(d.connecting(project))
    assert drivers_in(peer) == BOTH
    status = copy_of(peer, project).stat()
    assert copy_of(peer, project).read_bytes() == BODY
    assert (status.st_mtime, status.st_mode & 0o777) == (d.FILE_TIME, 0o600)


@pytest.mark.parametrize("difference", [-3, -1, 0, 1, 3])
def test_a_copy_of_the_same_size_and_nearly_the_same_time_is_used_without_asking(
    play: Play, project: str, difference: int
) -> None:
    peer = play(logged_in(project))
    put(copy_of(peer, project), BODY, d.FILE_TIME + difference)
    assert drivers_in(peer) == BOTH
    assert copy_of(peer, project).stat().st_mtime == d.FILE_TIME + difference


@pytest.mark.parametrize("difference", [-1_000_000, -4, 4, 1_000_000])
def test_a_copy_of_another_time_is_named_in_the_request(play: Play, project: str, difference: int) -> None:
    time = d.FILE_TIME + difference
    request = wire.download_request(last=(time, len(BODY)))
    peer = play(logged_in(project) + d.fetching(wire.download_reply(OTHER_BODY, d.FILE_TIME), request))
    put(copy_of(peer, project), BODY, time)
    assert drivers_in(peer) == ["Mixer"]
    assert copy_of(peer, project).read_bytes() == OTHER_BODY
    assert copy_of(peer, project).stat().st_mtime == d.FILE_TIME


@pytest.mark.parametrize("size", [0, 1, len(BODY) - 1, len(BODY) + 1, 0xABCDE])
def test_a_copy_of_another_size_is_named_in_the_request(play: Play, project: str, size: int) -> None:
    request = wire.download_request(last=(d.FILE_TIME, size))
    peer = play(logged_in(project) + d.fetching(wire.download_reply(BODY, d.FILE_TIME), request))
    put(copy_of(peer, project), bytes(size), d.FILE_TIME)
    assert drivers_in(peer) == BOTH
    assert copy_of(peer, project).read_bytes() == BODY


@pytest.mark.parametrize("time", [0, 10, 0xABCDEF01, 0x1_0000_000A])
def test_times_travel_as_upper_case_hexadecimal_of_32_bits(play: Play, project: str, time: int) -> None:
    request = wire.download_request(last=(time, 4))
    peer = play(logged_in(project) + d.fetching(wire.download_reply(BODY, 0xABCDEF01), request))
    put(copy_of(peer, project), b"left", time)
    assert drivers_in(peer) == BOTH
    assert copy_of(peer, project).stat().st_mtime == 0xABCDEF01


def test_a_compressed_copy_is_named_in_the_request(play: Play, project: str) -> None:
    request = wire.download_request(compressed=(1234, 5))
    peer = play(logged_in(project) + d.fetching(wire.download_reply(BODY, d.FILE_TIME), request))
    put(copy_of(peer, project, ".gz"), b"12345", 1234)
    assert drivers_in(peer) == BOTH
    assert copy_of(peer, project, ".gz").read_bytes() == b"12345"


def test_both_copies_are_named_in_the_request(play: Play, project: str) -> None:
    request = wire.download_request(last=(99, 3), compressed=(1234, 5))
    peer = play(logged_in(project) + d.fetching(wire.download_reply(BODY, d.FILE_TIME), request))
    put(copy_of(peer, project), b"old", 99)
    put(copy_of(peer, project, ".gz"), b"12345", 1234)
    assert drivers_in(peer) == BOTH


def test_a_compressed_copy_does_not_stand_for_the_file(play: Play, project: str) -> None:
    request = wire.download_request(compressed=(d.FILE_TIME, len(BODY)))
    peer = play(logged_in(project) + d.fetching(wire.download_reply(BODY, d.FILE_TIME), request))
    put(copy_of(peer, project, ".gz"), BODY, d.FILE_TIME)
    assert drivers_in(peer) == BOTH


# What the header says.


def with_old_copy(play: Play, project: str, *reply: Steps | bytes) -> Peer:
    """A server whose directory is newer than the copy, which holds BODY, and that answers like this."""
    request = wire.download_request(last=(99, len(BODY)))
    steps = logged_in(project) + d.want("req", request)
    for part in reply:
        steps += d.send("req", part) if isinstance(part, bytes) else part
    peer = play(steps)
    put(copy_of(peer, project), BODY, 99)
    return peer


@pytest.mark.parametrize(
    "header",
    [
        wire.download_header(UseLast="Yes"),
        wire.download_header(UseLast="yes", Size=100, FileTime=5),
        b"uselast : YES!\r\n\r\n",
        b"Unknown:thing\r\n  Use\tLast:Yes\n\n",
    ],
)
def test_a_current_copy_stays_as_it_is(play: Play, project: str, header: bytes) -> None:
    peer = with_old_copy(play, project, header)
    assert drivers_in(peer) == BOTH
    assert copy_of(peer, project).stat().st_mtime == 99


def test_a_file_that_the_server_lacks_is_deleted(play: Play, project: str) -> None:
    peer = with_old_copy(play, project, wire.download_header(Exist="No"))
    put(copy_of(peer, project).with_name("neighbour"), b"stays", 5)
    assert drivers_in(peer) == []
    assert sorted(path.name for path in copy_of(peer, project).parent.iterdir()) == ["Alarm2", "Event", "neighbour"]


def test_a_file_that_the_server_lacks_and_that_was_never_there_is_no_failure(play: Play, project: str) -> None:
    peer = play(logged_in(project) + d.fetching(wire.download_header(Exist="no")))
    assert drivers_in(peer) == []


def test_an_empty_file_replaces_the_copy_and_takes_the_servers_time(play: Play, project: str) -> None:
    peer = with_old_copy(play, project, wire.download_header(Size=0, FileTime=0x5000))
    assert drivers_in(peer) == []
    assert copy_of(peer, project).read_bytes() == b""
    assert copy_of(peer, project).stat().st_mtime == 0x5000


def test_a_header_of_a_body_without_a_size_fails_the_connection(play: Play, project: str) -> None:
    # Nobody can tell where the body ends.
    peer = with_old_copy(play, project, b"Hello:No\r\n\r\n", d.want_eof("req", "rcv"))
    assert result_of(peer) == FAILED
    assert copy_of(peer, project).stat().st_mtime == 99


@pytest.mark.parametrize("cut", range(1, len(wire.download_header(Size=len(OTHER_BODY), FileTime=d.FILE_TIME))))
def test_a_header_may_come_in_two_pieces(play: Play, project: str, cut: int) -> None:
    reply = wire.download_reply(OTHER_BODY)
    peer = with_old_copy(play, project, reply[:cut], d.pause(0.03), d.send("req", reply[cut:]))
    assert drivers_in(peer) == ["Mixer"]
    assert copy_of(peer, project).read_bytes() == OTHER_BODY


@pytest.mark.parametrize(
    "header", [wire.download_header(UseLast="Yes"), wire.download_header(Exist="No")], ids=["current", "missing"]
)
def test_a_header_without_a_body_may_come_byte_by_byte(play: Play, project: str, header: bytes) -> None:
    peer = with_old_copy(play, project, d.trickle("req", header))
    assert drivers_in(peer) == (BOTH if b"UseLast" in header else [])


def test_a_shorter_file_replaces_the_whole_copy(play: Play, project: str) -> None:
    peer = with_old_copy(play, project, wire.download_reply(OTHER_BODY))
    assert drivers_in(peer) == ["Mixer"]
    assert copy_of(peer, project).read_bytes() == OTHER_BODY


@pytest.mark.parametrize(
    "header",
    [
        b"Size:%x\r\nFileTime:6553f100\r\n\r\n" % len(OTHER_BODY),
        b"FILETIME: 65:53:F1:00 \r\nsize:\t0%X\r\n\r\n" % len(OTHER_BODY),
        b"FileName:RecData/drvinfo.dat\r\nExist:Yes\r\nGZ:No\r\nAppend:no\r\nUseLast:No\r\nHello:No\r\nX:\r\n"
        b"FileTime:6553F100\nSize:%X\n\n" % len(OTHER_BODY),
    ],
)
def test_header_lines_are_read_without_regard_to_case_order_and_blanks(play: Play, project: str, header: bytes) -> None:
    peer = with_old_copy(play, project, header + OTHER_BODY)
    assert drivers_in(peer) == ["Mixer"]
    assert copy_of(peer, project).read_bytes() == OTHER_BODY
    assert copy_of(peer, project).stat().st_mtime == 0x6553F100


def test_an_appended_body_goes_behind_the_copy(play: Play, project: str) -> None:
    added = wire.directory([("Mixer", 2, 3)])
    peer = with_old_copy(play, project, wire.download_reply(added, Append="Yes"))
    assert drivers_in(peer) == [*BOTH, "Mixer"]
    assert copy_of(peer, project).read_bytes() == BODY + added
    assert copy_of(peer, project).stat().st_mtime == d.FILE_TIME


def test_a_compressed_body_is_kept_beside_the_file_as_it_came(play: Play, project: str) -> None:
    # Nobody unpacks it, and the directory beside it is an older one: its drivers may be others by now.
    peer = with_old_copy(play, project, wire.download_reply(b"\x1f\x8b compressed", GZ="Yes"), d.want_eof("req", "rcv"))
    assert result_of(peer) == FAILED
    assert copy_of(peer, project, ".gz").read_bytes() == b"\x1f\x8b compressed"
    assert copy_of(peer, project, ".gz").stat().st_mtime == d.FILE_TIME
    assert copy_of(peer, project).stat().st_mtime == 99


def test_a_compressed_body_can_be_appended(play: Play, project: str) -> None:
    request = wire.download_request(compressed=(7, 3))
    fetched = d.fetching(wire.download_reply(b"def", GZ="Yes", Append="Yes"), request)
    peer = play(logged_in(project) + fetched + d.want_eof("req", "rcv"))
    put(copy_of(peer, project, ".gz"), b"abc", 7)
    assert result_of(peer) == FAILED
    assert copy_of(peer, project, ".gz").read_bytes() == b"abcdef"


def test_a_copy_that_is_said_to_be_current_but_is_not_there_fails_the_connection(play: Play, project: str) -> None:
    peer = play(logged_in(project) + d.fetching(wire.download_header(UseLast="Yes")) + d.want_eof("req", "rcv"))
    assert result_of(peer) == FAILED


# The body.


def test_a_body_may_come_behind_its_header_in_pieces(play: Play, project: str) -> None:
    header = wire.download_header(Size=len(OTHER_BODY), FileTime=d.FILE_TIME)
    peer = with_old_copy(play, project, header, d.pause(0.02), d.trickle("req", OTHER_BODY))
    assert drivers_in(peer) == ["Mixer"]


def large_directory(size: int) -> bytes:
    """A directory of exactly that size whose second driver is Mixer."""
    last = ("Mixer", 1, 3)
    return wire.directory([(b"y" * (size - 5 - len(wire.directory([last]))), 0, 1), last])


def windowed(play: Play, project: str, total: int) -> None:
    """A server that sends this many bytes, header included, and waits for acknowledgements."""
    body = large_directory(total - len(wire.download_header(Size=total, FileTime=d.FILE_TIME, Hello="Yes")))
    reply = wire.download_reply(body, d.FILE_TIME, Hello="Yes")
    assert len(reply) == total
    peer = play(
        logged_in(project, size=len(body)) + d.want("req", wire.download_request()) + d.sending_by_windows(reply)
    )
    assert drivers_in(peer) == ["Mixer"]
    assert copy_of(peer, project).read_bytes() == body


@pytest.mark.parametrize("total", [131071, 131072, 131073, 131072 + 120832, 131072 + 120832 + 1])
def test_a_full_window_is_acknowledged_when_more_is_to_come(play: Play, project: str, total: int) -> None:
    windowed(play, project, total)


def test_windows_shrink_from_one_acknowledgement_to_the_next(play: Play, project: str) -> None:
    windowed(play, project, sum(range(8192, 131073, 10240)) + 3 * 8192 + 100)


def test_without_the_servers_offer_nothing_is_acknowledged(play: Play, project: str) -> None:
    body = large_directory(300_000)
    peer = play(logged_in(project, size=len(body)) + d.fetching(wire.download_reply(body)))
    assert drivers_in(peer) == ["Mixer"]
    assert copy_of(peer, project).read_bytes() == body


SURPLUS = wire.directory([("Mixer", 2, 3)])


@pytest.mark.parametrize("together", [True, False])
def test_bytes_beyond_the_size_fail_the_connection_and_change_nothing(play: Play, project: str, together: bool) -> None:
    header = wire.download_header(Size=len(OTHER_BODY), FileTime=d.FILE_TIME)
    parts: list[Steps | bytes] = [header + OTHER_BODY + SURPLUS]
    if not together:
        parts = [header, d.pause(0.05), d.send("req", OTHER_BODY + SURPLUS)]
    peer = with_old_copy(play, project, *parts, d.want_eof("req", "rcv"))
    assert result_of(peer) == FAILED
    assert copy_of(peer, project).read_bytes() == BODY
    assert copy_of(peer, project).stat().st_mtime == 99


@pytest.mark.parametrize("size", [b"2000001", b"10000000", b"1000000000000000", b"F" * 16, b"1" + b"0" * 16, b"-1"])
def test_a_directory_that_is_too_large_is_refused_at_its_header(play: Play, project: str, size: bytes) -> None:
    header = b"Size:" + size + b"\r\nFileTime:5000\r\n\r\n"
    peer = with_old_copy(play, project, header + BODY, d.want_eof("req", "rcv"))
    assert result_of(peer) == FAILED
    assert copy_of(peer, project).read_bytes() == BODY
    assert copy_of(peer, project).stat().st_mtime == 99


@pytest.mark.parametrize("size", [len(BODY) + 1, 0x2000000])
def test_a_connection_that_breaks_in_a_body_leaves_the_part_with_the_servers_time(
    play: Play, project: str, size: int
) -> None:
    header = wire.download_header(Size=size, FileTime=0x5000)
    peer = play(logged_in(project) + d.fetching(header + BODY) + d.pause(0.2) + d.reset("req") + d.want_eof("rcv"))
    core = DBCore()
    assert core.Connect(peer.host, d.USER, d.PASSWORD) == FAILED
    assert copy_of(peer, project).read_bytes() == BODY
    assert copy_of(peer, project).stat().st_mtime == 0x5000
    peer.finish()


def test_a_part_of_a_directory_is_asked_for_again_though_its_time_and_size_fit(play: Play, project: str) -> None:
    header = wire.download_header(Size=len(BODY) + 1, FileTime=d.FILE_TIME)
    broken = d.fetching(header + BODY) + d.pause(0.2) + d.reset("req") + d.want_eof("rcv")
    request = wire.download_request(last=(d.FILE_TIME, len(BODY)))
    whole = d.fetching(wire.download_reply(OTHER_BODY, d.FILE_TIME), request)
    peer = play(logged_in(project) + broken + logged_in(project) + whole)
    assert result_of(peer) == FAILED
    assert drivers_in(peer) == ["Mixer"]


def test_a_part_of_a_directory_is_never_taken_for_the_whole(play: Play, project: str) -> None:
    header = wire.download_header(Size=len(BODY) + 1, FileTime=d.FILE_TIME)
    broken = d.fetching(header + BODY) + d.pause(0.2) + d.reset("req") + d.want_eof("rcv")
    request = wire.download_request(last=(d.FILE_TIME, len(BODY)))
    current = d.fetching(wire.download_header(UseLast="Yes"), request) + d.want_eof("req", "rcv")
    whole = d.fetching(wire.download_reply(OTHER_BODY, d.FILE_TIME))
    peer = play(logged_in(project) + broken + logged_in(project) + current + logged_in(project) + whole)
    assert result_of(peer) == FAILED
    assert result_of(peer) == FAILED
    assert drivers_in(peer) == ["Mixer"]


FULL_DISK = """
import resource, sys
from RkDBAccess import DBCore
resource.setrlimit(resource.RLIMIT_FSIZE, (20, resource.RLIM_INFINITY))
core = DBCore()
print(core.Connect(sys.argv[1], sys.argv[2], sys.argv[3]))
resource.setrlimit(resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
print(core.Connect(sys.argv[1], sys.argv[2], sys.argv[3]))
print(core.GetDriver("Mixer") is not None)
"""


def test_a_directory_that_cannot_be_written_fails_the_connection(play: Play, project: str) -> None:
    new = large_directory(5000)
    request = wire.download_request(last=(99, len(BODY)))
    once = logged_in(project) + d.fetching(wire.download_reply(new, d.FILE_TIME), request)
    peer = play(once + d.want_eof("req", "rcv") + once)
    put(copy_of(peer, project), BODY, 99)
    assert passes_alone(FULL_DISK, peer.host, d.USER, d.PASSWORD).split() == ["-2", "0", "True"]
    assert copy_of(peer, project).read_bytes() == new


def test_a_server_that_closes_instead_of_a_header_fails_the_connection(play: Play, project: str) -> None:
    steps = logged_in(project) + d.want("req", wire.download_request())
    assert result_of(play(steps + d.end_sending("req") + d.want_eof("req", "rcv"))) == FAILED
    assert result_of(play(steps + d.reset("req") + d.want_eof("rcv"))) == FAILED


def test_a_directory_that_could_not_be_fetched_leaves_no_drivers(play: Play, project: str) -> None:
    steps = logged_in(project) + d.want("req", wire.download_request()) + d.reset("req") + d.want_eof("rcv")
    peer = play(steps)
    core = DBCore()
    assert core.Connect(peer.host, d.USER, d.PASSWORD) == FAILED
    with pytest.raises(SystemError):
        core.GetDriver("Boiler")


NO_HEADERS = {
    "zeroes": bytes(2048),
    "line feeds": b"\n" * 2048,
    "empty lines": b"\r\n\r\n" * 500,
    "colons": b":" * 2000,
    "a name without end": b"x" * 2048,
    "a name and a value that are too long": b"a" * 64 + b":" + b"b" * 300 + b"\n\n",
    "a value that is too long": b"Size:" + b"0" * 256 + b"\n\n",
}


@pytest.mark.parametrize("garbage", NO_HEADERS.values(), ids=NO_HEADERS)
def test_a_reply_that_is_no_header_fails_the_connection_and_makes_no_file(
    play: Play, project: str, garbage: bytes
) -> None:
    peer = play(logged_in(project) + d.fetching(garbage) + d.want_eof("req", "rcv"))
    assert result_of(peer) == FAILED
    assert not copy_of(peer, project).exists()
