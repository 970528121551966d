"""The scripted peers and the wire they speak, tried with plain sockets: what they let pass and what they catch."""

from __future__ import annotations

import itertools
import socket
import struct
import time

import dialogue as d
import pytest
import wire
from peer import Peer, Step

SECOND = 1_700_000_000


def identifier_of_now() -> bytes:
    now = int(time.time())
    return wire.expected_identifier(now, now)


def client(peer: Peer) -> socket.socket:
    connection = socket.create_connection(peer.addresses["server"], timeout=10)
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return connection


def complaint(steps: list[Step], sent: bytes, patience: float = 5) -> str:
    """What a peer with this script over one connection says about a client that sends this and ends."""
    with Peer(d.accept("req") + steps, patience=patience) as peer, client(peer) as connection:
        connection.sendall(sent)
        connection.shutdown(socket.SHUT_WR)
        with pytest.raises(AssertionError) as caught:
            peer.finish()
    return str(caught.value)


def read_exactly(connection: socket.socket, size: int) -> bytes:
    got = b""
    while len(got) < size:
        piece = connection.recv(size - len(got))
        assert piece, f"the stream ended behind {got!r}"
        got += piece
    return got


def test_unscrambling_gives_back_every_length() -> None:
    for size in range(70):
        plain = bytes((7 * i + size) & 0xFF for i in range(size))
        scrambled = wire.scramble(plain)
        assert wire.unscramble(scrambled) == plain
        assert len(scrambled) == wire.scrambled_size(size)


def test_scrambling_is_the_known_arithmetic_on_a_group_and_both_tails() -> None:
    assert wire.scramble(b"\x01\x02\x03", b"\x10") == b"\x10\x11\xf2\x13"
    assert wire.scramble(b"\xff\x00", b"\x02") == b"\x02\x01\xfe"
    assert wire.scramble(b"\x38", b"\xc8") == b"\xc8\x00"


def test_a_scrambled_message_with_one_byte_over_is_refused() -> None:
    for size in (1, 5, 9):
        with pytest.raises(ValueError, match="no scrambled message"):
            wire.unscramble(bytes(size))


def test_an_identifier_is_recognised_by_its_second() -> None:
    identifier = wire.expected_identifier(SECOND, SECOND)
    assert identifier[:4] == struct.pack("<I", SECOND)
    assert identifier[8:] == struct.pack("<Q", SECOND)
    wire.check_identifier(identifier, SECOND + 1)
    wire.check_identifier(wire.expected_identifier(SECOND, SECOND + 1), SECOND + 1)
    with pytest.raises(ValueError, match="not made just now"):
        wire.check_identifier(identifier, SECOND + 100)
    with pytest.raises(ValueError, match="does not follow"):
        wire.check_identifier(identifier[:4] + bytes(12), SECOND)


def test_register_replies_have_their_fixed_part_and_two_texts() -> None:
    plain = wire.RegisterReply(b"plant", b"name", 0x01020304, 0x05060708).plain()
    assert plain[:1] == b"8"
    assert plain[51:59] == bytes(range(1, 9))
    assert plain[59:] == b"plant\0name\0"


def test_lookups_are_split_at_768_bytes() -> None:
    names = [f"T{number:04}" for number in range(200)]
    groups = wire.lookup_groups(names)
    assert [len(group) for group in groups] == [95, 95, 10]
    assert [name for group in groups for name in group] == names
    assert max(len(wire.lookup_request(0, group)) for group in groups) <= wire.LOOKUP_LIMIT
    assert len(wire.lookup_request(0, wire.lookup_groups(["x" * 764])[0])) == wire.LOOKUP_LIMIT


def test_windows_shrink_to_8192_and_stay() -> None:
    sizes = list(itertools.islice(wire.windows(), 15))
    assert sizes[:3] == [131072, 120832, 110592]
    assert sizes[11:] == [18432, 8192, 8192, 8192]


def test_every_system_notification_has_its_length() -> None:
    sizes = {note[2]: len(note) for note in wire.every_system_notification(0, 0)}
    assert sizes == {
        **{1: 35, 2: 7, 3: 35, 4: 43, 5: 7, 6: 20, 7: 7, 8: 5, 255: 3},
        **{9: 8, 10: 15, 11: 15, 12: 15, 13: 15, 14: 8, 15: 8, 22: 8},
        **dict.fromkeys(range(16, 22), 12),
    }


def test_a_peer_plays_a_whole_start_of_a_connection() -> None:
    body = wire.directory(d.DRIVERS)
    with Peer(d.connecting("plant") + d.send("rcv", b"pushed")) as peer, client(peer) as req:
        identifier = identifier_of_now()
        req.sendall(b"7" + wire.scramble(identifier))
        assert read_exactly(req, 1) == b"7"
        with client(peer) as rcv:
            rcv.sendall(b"8" + wire.scramble(identifier + d.host_name() + b"\0\x01\x01"))
            plain = wire.RegisterReply(b"plant", b"title", d.FILE_TIME, len(body)).plain()
            assert wire.unscramble(read_exactly(rcv, wire.scrambled_size(len(plain)))) == plain
            req.sendall(b"9operator\0secret\0")
            assert read_exactly(req, 9) == b"9\xc1\xc2\xc3\xc4\0\0\0\0"
            req.sendall(b"4RecData/drvinfo.dat\r\nHello:Yes\r\n\r\n")
            header = b"Size:%X\r\nFileTime:6553F100\r\n\r\n" % len(body)
            assert read_exactly(req, len(header) + len(body)) == header + body
            assert read_exactly(rcv, 6) == b"pushed"


def test_a_peer_checks_the_relay_part_of_an_open_request() -> None:
    record = identifier_of_now() + bytes(6) + b"line 3\0"
    steps = d.want_open("req", b"line 4")
    assert "behind the identifier" in complaint(steps, b"7" + wire.scramble(record))


def test_a_peer_catches_a_register_request_with_another_identifier() -> None:
    opened = b"7" + wire.scramble(identifier_of_now())
    other = wire.expected_identifier(SECOND, SECOND)
    registered = b"8" + wire.scramble(other + wire.register_part(d.host_name()))
    steps = d.want_open("req") + d.want_register("req")
    assert "step 2 of 3, want_register" in complaint(steps, opened + registered)


@pytest.mark.parametrize(
    ("sent", "said"),
    [
        (b"requesT", "step 1 of 2, want('req', 7 bytes [72 65 71 75 65 73 74]): wanted"),
        (b"reque", "got 5 bytes"),
        (b"X", "got 1 bytes [58]"),
        (b"", "got 0 bytes"),
        (b"requests", "after the script, on 'req': wanted the end of the stream, got 1 bytes [73]"),
    ],
)
def test_a_peer_catches_every_byte_that_differs(sent: bytes, said: str) -> None:
    assert said in complaint(d.want("req", b"request"), sent)


def test_a_peer_does_not_wait_for_bytes_that_can_no_longer_be_right() -> None:
    with Peer(d.accept("req") + d.want("req", b"request"), patience=60) as peer, client(peer) as connection:
        connection.sendall(b"rX")
        with pytest.raises(AssertionError, match="got 2 bytes"):
            peer.finish()
        assert connection.recv(1) == b""  # and lets the client go


def test_a_peer_catches_a_client_that_says_nothing() -> None:
    with (
        Peer(d.accept("req") + d.want("req", b"request"), patience=2) as peer,
        client(peer),
        pytest.raises(AssertionError, match=r"nothing more arrived in 2 s"),
    ):
        peer.finish()


def test_a_peer_catches_a_client_that_does_not_end_its_connection() -> None:
    with (
        Peer(d.accept("req"), patience=2) as peer,
        client(peer),
        pytest.raises(AssertionError, match="after the script, on 'req': nothing more"),
    ):
        peer.finish()


def test_a_peer_catches_a_connection_beyond_the_script() -> None:
    with Peer(d.accept("req")) as peer:
        with client(peer), client(peer):
            pass
        with pytest.raises(AssertionError, match="a connection to server that the script does not know"):
            peer.finish()


def test_a_peer_catches_a_missing_connection() -> None:
    with Peer(d.accept("req"), patience=2) as peer, pytest.raises(AssertionError, match=r"no connection in 2 s"):
        peer.finish()


def test_quiet_catches_bytes_and_the_end_of_the_stream() -> None:
    assert "wanted silence, got 1 bytes [78]" in complaint(d.quiet("req", 5), b"x")
    assert "wanted silence, got 0 bytes" in complaint(d.quiet("req", 5), b"")


def test_a_test_and_its_peer_can_wait_for_each_other() -> None:
    steps = d.accept("req") + d.wait("now") + d.send("req", b"late") + d.tell("sent")
    with Peer(steps) as peer, client(peer) as connection:
        connection.setblocking(False)
        with pytest.raises(BlockingIOError):
            connection.recv(1)
        peer.go("now")
        peer.until("sent")
        connection.setblocking(True)
        assert connection.recv(10) == b"late"


def test_a_peer_trickles_floods_resets_and_ends() -> None:
    steps = (
        d.accept("req")
        + d.trickle("req", b"abc")
        + d.end_sending("req")
        + d.want("req", b"seen")
        + d.want_eof("req")
        + d.accept("req")
        + d.want("req", b"here")  # a reset that came sooner could fail the connecting itself
        + d.reset("req")
        + d.accept("req")
        + d.flood("req", bytes(1000))
        + d.accept("req")
        + d.close("req")
    )
    with Peer(steps) as peer:
        with client(peer) as connection:
            assert read_exactly(connection, 3) == b"abc"
            assert connection.recv(1) == b""
            connection.sendall(b"seen")
        with client(peer) as connection:
            connection.sendall(b"here")
            with pytest.raises(ConnectionResetError):
                connection.recv(1)
        with client(peer) as connection:
            read_exactly(connection, 100_000)
        with client(peer) as connection:
            assert connection.recv(1) == b""
