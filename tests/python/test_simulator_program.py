"""The simulator as a program: command line, signals, the trace, hostile and careless clients, many clients."""

from __future__ import annotations

import random
import re
import signal
import socket
import struct
import subprocess
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from pathlib import Path

import pytest
from conftest import CHECKOUT, Simulator
from sim_wire import (
    PATIENCE,
    Line,
    RawClient,
    advise_request,
    login_request,
    new_id,
    open_request,
    read_request,
    register_request,
    typed,
    write_request,
)

Simulators = Callable[..., Simulator]

SMALL = """
[project]
name = "small"
[[user]]
name = "operator"
password = "demo"
rights = 0x08
[[driver]]
name = "D"
[[driver.tag]]
name = "T"
type = "i4"
value = 1
[[driver.tag]]
name = "文字"
type = "str"
"""


MANY = '[[driver]]\nname = "E"\n[[driver.tag]]\nname = "R%d"\ntype = "r8"\ncount = 1000\n'


def run(program: Path, *arguments: str | Path, expect: int) -> tuple[str, str]:
    """What it writes to its two outputs before it ends by itself."""
    done = subprocess.run(
        [program, *arguments], capture_output=True, text=True, timeout=PATIENCE, check=False, stdin=subprocess.DEVNULL
    )
    assert done.returncode == expect, done.stderr
    return done.stdout, done.stderr


@contextmanager
def started(program: Path, *arguments: str | Path) -> Iterator[subprocess.Popen[str]]:
    """A running simulator whose outputs can be read."""
    with subprocess.Popen(
        [program, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, stdin=subprocess.DEVNULL
    ) as process:
        try:
            yield process
        finally:
            process.kill()


def port_of(process: subprocess.Popen[str], greeting: str = "listening on 127.0.0.1:") -> int:
    assert process.stdout is not None
    line = process.stdout.readline()
    assert line.startswith(greeting), line
    return int(line.removeprefix(greeting))


# Command line.


def test_help_names_every_option_and_gives_an_example(rkdbsim_path: Path) -> None:
    text, errors = run(rkdbsim_path, "--help", expect=0)
    assert errors == ""
    options = "--host --port --relay --relay-host --check --trace --trace-bytes --seed --log-level --quiet --version"
    for word in [*options.split(), "PROJECT", "[[driver]]", "rkdbsim --port 0 plant.toml"]:
        assert word in text


@pytest.mark.parametrize(
    "arguments",
    [
        ["--port", "65536"],
        ["--port", "x"],
        ["--host", "localhost"],
        ["--nonsense"],
        ["--log-level", "loud"],
        ["a", "b"],
    ],
)
def test_a_mistake_in_the_command_line_is_said(rkdbsim_path: Path, arguments: list[str]) -> None:
    text, errors = run(rkdbsim_path, *arguments, expect=2)
    assert text == ""
    assert errors


def test_the_first_line_says_where_it_listens_and_the_log_goes_elsewhere(rkdbsim_path: Path) -> None:
    with started(rkdbsim_path, "--port", "0") as process:
        port = port_of(process)
        with RawClient(("127.0.0.1", port)):
            pass
        process.send_signal(signal.SIGTERM)
        assert process.stdout is not None
        assert process.stderr is not None
        # Not communicate: it passes over what was read together with the first line.
        assert process.stdout.read() == ""
        assert 'logged in as "operator"' in process.stderr.read()


@pytest.mark.parametrize("arguments", [[], ["--relay-host", "127.0.0.1"], ["--trace"]])
def test_without_relay_it_is_no_relay_centre(rkdbsim_path: Path, arguments: list[str]) -> None:
    with started(rkdbsim_path, "--port", "0", *arguments) as process:
        port_of(process)
        listening = [line for line in Path(f"/proc/{process.pid}/net/tcp").read_text().splitlines() if " 0A " in line]
        sockets = {str(path.readlink()) for path in Path(f"/proc/{process.pid}/fd").iterdir()}
        assert len([line for line in listening if f"socket:[{line.split()[9]}]" in sockets]) == 1
        process.send_signal(signal.SIGTERM)
        assert process.stdout is not None
        assert process.stdout.read() == ""


@pytest.mark.parametrize("value", ["65536", "-1", "x", "2x"])
def test_a_relay_port_that_is_none_is_refused(rkdbsim_path: Path, value: str) -> None:
    text, errors = run(rkdbsim_path, "--port", "0", f"--relay={value}", expect=2)
    assert text == ""
    assert "--relay" in errors


def test_a_given_port_is_taken(rkdbsim_path: Path, own_address: str) -> None:
    with socket.create_server((own_address, 0)) as probe:
        port = probe.getsockname()[1]
        _, errors = run(rkdbsim_path, "--host", own_address, "--port", str(port), expect=1)
        assert "cannot listen" in errors
    with started(rkdbsim_path, "--host", own_address, "--port", str(port)) as process:
        assert port_of(process, f"listening on {own_address}:") == port


def test_the_second_line_says_where_the_relay_centre_listens(rkdbsim_path: Path) -> None:
    with started(rkdbsim_path, "--port", "0", "--relay=0") as process:
        port = port_of(process)
        centre = port_of(process, "relay centre on 127.0.0.1:")
        assert centre != port
        with RawClient(("127.0.0.1", centre), server="demo-relayed") as client:
            assert client.registered.project == "demo"


def test_without_a_project_the_built_in_one_is_served(rkdbsim_path: Path) -> None:
    with started(rkdbsim_path, "--port", "0") as process, RawClient(("127.0.0.1", port_of(process))) as client:
        built_in = client.download("RecData/drvinfo.dat")[1]
    command = (rkdbsim_path, "--port", "0", CHECKOUT / "sim" / "demo.toml")
    with started(*command) as process, RawClient(("127.0.0.1", port_of(process))) as client:
        assert client.download("RecData/drvinfo.dat")[1] == built_in


# Signals.


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_ends_it_cleanly_with_connections_open(rkdbsim_path: Path, number: signal.Signals) -> None:
    with started(rkdbsim_path, "--port", "0") as process, ExitStack() as stack:
        address = ("127.0.0.1", port_of(process))
        clients = [stack.enter_context(RawClient(address)) for _ in range(5)]
        half = stack.enter_context(Line(address))
        half.send(b"7")
        for client in clients:
            client.advise([(0, 0)])
            client.alarms()
        process.send_signal(number)
        assert process.wait(timeout=PATIENCE) == 0
        for client in clients:
            assert client.ask.is_ended()


def test_a_restarted_simulator_gets_its_port_back(rkdbsim_path: Path) -> None:
    with started(rkdbsim_path, "--port", "0") as process:
        port = port_of(process)
        with RawClient(("127.0.0.1", port)):
            process.send_signal(signal.SIGTERM)
            assert process.wait(timeout=PATIENCE) == 0
    with started(rkdbsim_path, "--port", str(port)) as process:
        assert port_of(process) == port


# The trace.


def test_the_trace_shows_each_message_in_hex_with_its_meaning(rkdbsim_path: Path, tmp_path: Path) -> None:
    path = tmp_path / "p.toml"
    path.write_text(SMALL, encoding="utf-8")
    with started(rkdbsim_path, "--port", "0", "--trace", path) as process:
        with RawClient(("127.0.0.1", port_of(process))) as client:
            client.ask.send(b"L\0\0" + "文字".encode("gb2312") + b"\0\0\0X\x01\xff\0")
            client.ask.want(b"L\x01\0\0\0\xff\xff\0\0")
            client.advise([(0, 0)])
            client.write(((0, 0), typed(3, 258)), ((0, 1), b"\x08\0" + "好\n".encode() + b"\xe5\xa5\xff\x80\0"))
            client.hear.take(8)
            client.alarms()
            client.header("RecData/none")
        process.send_signal(signal.SIGTERM)
        _, log = process.communicate(timeout=PATIENCE)
    for line in [
        f"<- #1: open, identifier {client.ident.hex().upper()} | 37 ",
        f'<- #2: register, identifier {client.ident.hex().upper()}, host "tester", login flag 1 | 38 ',
        '<- #1: login of "operator" with password "demo" | 39 6F 70 65 72 61 74 6F 72 00 64 65 6D 6F 00\n',
        "-> #1: accepted, rights 0x08 | 39 00 00 00 00 08 00 00 00\n",
        "<- #1: where is 0/文字, 0/X\\x01\\xFF? | 4C 00 00 CE C4 D7 D6 00 00 00 58 01 FF 00\n",
        "-> #1: positions 1, 65535 | 4C 01 00 00 00 FF FF 00 00\n",
        "<- #1: subscribe D/T | 62 01 00 00 00 00 00 00\n",
        "-> #1: values 1 | 62 06 00 03 00 01 00 00 00\n",
        '<- #1: write D/T = 258, D/文字 = "好\\x0A\\xE5\\xA5\\xFF\\x80" | 67 02 00 ',
        "-> #1 push: change of D/T: 258 | 00 00 00 00 02 01 00 00\n",
        "<- #1: register for alarms | 6E\n",
        "-> #1: 0 active alarms | 6E 00 00\n",
        "<- #1: download RecData/none | 34 ",
        "-> #1: there is no such file | 45 78 69 73 74 3A 4E 6F 0D 0A 0D 0A\n",
    ]:
        assert line in log, line


def test_the_trace_can_be_cut(rkdbsim_path: Path) -> None:
    with started(rkdbsim_path, "--port", "0", "--trace", "--trace-bytes", "4") as process:
        with RawClient(("127.0.0.1", port_of(process))):
            pass
        process.send_signal(signal.SIGTERM)
        _, log = process.communicate(timeout=PATIENCE)
    assert "| 39 6F 70 65 ... and 11 more\n" in log


# Hostile and careless clients.


def good(address: tuple[str, int]) -> bool:
    """Whether an ordinary client is served."""
    with RawClient(address) as client:
        return client.read([(0, 0)])[0][0] == 3


@pytest.mark.parametrize(
    "said",
    [
        b"\0",
        b"GET / HTTP/1.0\r\n\r\n",
        b"9operator\0demo\0",
        b"8" + b"\0nnn" * 500,
    ],
)
def test_who_does_not_begin_with_a_handshake_is_dropped(simulator: Simulators, said: bytes) -> None:
    address = ("127.0.0.1", simulator(SMALL).port)
    with Line(address) as line:
        line.send(said)
        assert line.is_ended()
    assert good(address)


@pytest.mark.parametrize(
    "said",
    [
        b"\0",
        b"0",
        b"7" + bytes(22),
        b"8" + bytes(40),
        b"H\xff\xff",
        b"b\x01\x20",
        b"9" + b"u" * 5000,
        b"4" + b"f" * 5000,
        b"L\0\0" + b"n" * 5000,
        b"L\0\0n\0" + b"\0\0" + b"n" * 5000,
        b"g\x01\0\0\0\0\0\x08\0" + b"s" * 20000,
        b"g\x01\0\0\0\0\0\x00\x20\x02\0",
        b"L\0\0T\0\x05\x05",
    ],
)
def test_a_request_that_is_none_ends_its_connection_only(simulator: Simulators, said: bytes) -> None:
    address = ("127.0.0.1", simulator(SMALL).port)
    with RawClient(address) as client, Line(address) as other:
        other.send(open_request(new_id()))
        other.want(b"7")
        client.advise([(0, 0)])
        other.send(said)
        while other.take_once():
            pass
        client.write(((0, 0), typed(3, 2)))
        client.hear.want(struct.pack("<HHi", 0, 0, 2))
    assert good(address)


def test_random_bytes_never_end_the_simulator(simulator: Simulators) -> None:
    address = ("127.0.0.1", simulator(SMALL + "[server]\nblock_size = 64\n", "--log-level", "error").port)
    source = random.Random(4711)
    commands = b"3479LHbdgn"
    whole = [b"\0", b"\r\n\r\n", b"T\0", read_request([(0, 0)]), advise_request([(0, 1)])]

    def noise() -> bytes:
        parts = []
        for _ in range(source.randrange(1, 30)):
            kind = source.random()
            if kind < 0.5:
                parts.append(bytes([source.choice(commands)]))
            if kind < 0.8:
                parts.append(struct.pack("<H", source.choice([0, 1, 2, 3, 255, 256, 8192, 65535])))
            parts.append(source.randbytes(source.randrange(0, 40)))
            if kind < 0.2:
                parts.append(source.choice(whole))
        return b"".join(parts)

    for number in range(400):
        with Line(address) as line:
            if number % 4:
                line.send(open_request(new_id()))
                line.want(b"7")
            if number % 4 > 1:
                line.send(login_request("operator", "demo"))
                line.take(9)
            try:
                for _ in range(5):
                    line.send(noise())
            except ConnectionError:
                pass  # it was thrown out, which is right
    assert good(address)


def test_a_client_that_stops_reading_is_dropped_and_others_hear_all(rkdbsim_path: Path, tmp_path: Path) -> None:
    path = tmp_path / "p.toml"
    path.write_text("[server]\nsend_limit_kb = 64\n" + SMALL)
    with started(rkdbsim_path, "--port", "0", path) as process:
        address = ("127.0.0.1", port_of(process))
        with RawClient(address) as deaf, RawClient(address) as client:
            deaf.advise([(0, 1)])
            client.advise([(0, 1)])
            text = "x" * 1990
            sent = 0
            assert deaf.ask.is_quiet()
            while deaf.ask.is_quiet(0.001):
                for _ in range(20):
                    client.write(((0, 1), typed(8, f"{text}{sent % 10}")))
                    client.hear.want(b"\0\0\x01\0" + f"{text}{sent % 10}".encode() + b"\0")
                    sent += 1
                assert sent < 20000
            assert deaf.ask.is_ended()
            assert client.read([(0, 0)]) == [(3, 1)]
        process.send_signal(signal.SIGTERM)
        _, log = process.communicate(timeout=PATIENCE)
    assert process.returncode == 0
    assert re.search(r"warning #1 push: ended: the client does not read: \d+ bytes wait for it", log)


def test_a_client_that_asks_without_reading_stalls_itself_only(simulator: Simulators) -> None:
    address = ("127.0.0.1", simulator(SMALL + MANY).port)
    with RawClient(address) as other, RawClient(address) as flood:
        request = read_request([(1, number) for number in range(1000)])
        asked, moved_at = 0, time.monotonic()
        while time.monotonic() - moved_at < 1:
            if sent := flood.ask.send_some(request[asked % len(request) :] + request * 50):
                asked, moved_at = asked + sent, time.monotonic()
            else:
                time.sleep(0.01)
            assert asked < 64 << 20, "the simulator takes requests without end"
        assert other.read([(0, 0)]) == [(3, 1)]
        values = typed(5, 0.0)
        for _ in range(asked // len(request)):
            for count in (409, 409, 182):
                flood.ask.want(b"H" + struct.pack("<BH", count == 409, 10 * count) + values * count)


def test_a_connection_that_says_nothing_is_dropped(simulator: Simulators) -> None:
    address = ("127.0.0.1", simulator(SMALL).port)
    with Line(address) as silent, Line(address) as half:
        half.send(b"7" + bytes(10))
        began = time.monotonic()
        assert silent.is_ended()
        assert half.is_ended()
        assert time.monotonic() - began > 5


def test_connections_beyond_the_projects_limit_are_turned_away(simulator: Simulators) -> None:
    address = ("127.0.0.1", simulator("[server]\nmax_connections = 2\n" + SMALL).port)
    with RawClient(address), Line(address) as third:
        assert third.is_ended()
    deadline = time.monotonic() + PATIENCE
    while True:
        try:
            assert good(address)
            break
        except (AssertionError, ConnectionError):  # those before are not counted out yet
            assert time.monotonic() < deadline
            time.sleep(0.05)


# Many clients.


@pytest.mark.bulk
def test_two_hundred_clients_each_hear_every_change(simulator: Simulators) -> None:
    address = ("127.0.0.1", simulator(SMALL, "--quiet").port)
    with ExitStack() as stack:
        clients = [stack.enter_context(RawClient(address)) for _ in range(200)]
        for client in clients:
            client.ask.send(advise_request([(0, 0)]))
        for client in clients:
            client.ask.want(b"b\x06\0" + typed(3, 1))
        for number, client in enumerate(clients):
            client.ask.send(write_request(((0, 0), typed(3, 1000 + number))))
            clients[0].hear.want(struct.pack("<HHi", 0, 0, 1000 + number))
        stream = b"".join(struct.pack("<HHi", 0, 0, 1000 + number) for number in range(200))
        for client in clients[1:]:
            client.hear.want(stream)


def test_two_hundred_clients_may_come_at_once(simulator: Simulators) -> None:
    address = ("127.0.0.1", simulator(SMALL, "--quiet").port)
    with ExitStack() as stack:
        pairs = [(new_id(), stack.enter_context(Line(address)), stack.enter_context(Line(address))) for _ in range(200)]
        for ident, ask, _ in pairs:
            ask.send(open_request(ident))
        for _, ask, _ in pairs:
            ask.want(b"7")
        for ident, _, hear in pairs:
            hear.send(register_request(ident))
        for _, ask, hear in pairs:
            assert len(hear.take_once(512)) > 60
            ask.send(login_request("operator", "demo") + read_request([(0, 0)]))
        for _, ask, _ in pairs:
            ask.want(b"9" + bytes(4) + b"\x08\0\0\0" + b"H\0\x06\0" + typed(3, 1))
