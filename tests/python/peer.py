"""Scripted peers: a server that plays one script byte for byte and complains about everything else.

The client keeps the interpreter lock while it waits for the network, so a peer in a thread of the same process
could never answer it. A peer is therefore a process of its own: this file is both the program (run as
`python peer.py`, script on its standard input) and the handle by which a test starts and questions it.

A script is a list of steps over named connections, one time line for all of them; dialogue.py makes them. What
the client sends must be the wanted bytes exactly; after the last step every connection still open must be ended by
the client with nothing more sent, and no connection may be left that the script did not accept.
"""

from __future__ import annotations

import json
import os
import pickle
import select
import socket
import struct
import subprocess
import sys
import time
from collections.abc import Callable, Mapping, Sequence
from contextlib import suppress
from pathlib import Path
from types import TracebackType
from typing import Any

import wire
from hostile import HostileServer

Step = tuple[Any, ...]
PATIENCE = 60.0  # seconds a peer waits for any one thing; far above the client's own time-outs


class Mismatch(Exception):
    """The client did something else than the script says."""


def _hex(data: bytes) -> str:
    shown = data[:96].hex(" ")
    return f"{len(data)} bytes [{shown}{' ...' if len(data) > 96 else ''}]"


class Player:
    """Plays a script: every public method is a step of that name."""

    def __init__(self, listeners: Mapping[str, int], patience: float) -> None:
        self._listeners = {name: socket.socket(fileno=fd) for name, fd in listeners.items()}
        self._connections: dict[str, socket.socket] = {}
        self._closed: set[str] = set()
        self._identifier = b""
        self._patience = patience

    def _connection(self, name: str) -> socket.socket:
        return self._connections[name]

    def _receive(self, name: str, size: int) -> bytes:
        """One receive; nothing in time is a mismatch, a connection reset counts as ended."""
        try:
            return self._connection(name).recv(size)
        except TimeoutError:
            raise Mismatch(f"nothing more arrived in {self._patience} s") from None
        except ConnectionResetError:
            return b""

    def _read(self, name: str, size: int, is_right: Callable[[bytes], bool] = lambda _: True) -> bytes:
        """Reads size bytes; stops early where the stream ends or what has arrived can no longer be right."""
        got = b""
        while len(got) < size and is_right(got):
            try:
                piece = self._receive(name, size - len(got))
            except Mismatch as silence:
                raise Mismatch(f"{silence}, behind {_hex(got)}") from None
            if not piece:
                break
            got += piece
        return got

    # Connections.

    def accept(self, name: str, listener: str = "server") -> None:
        server = self._listeners[listener]
        server.settimeout(self._patience)
        try:
            connection, _ = server.accept()
        except TimeoutError:
            raise Mismatch(f"no connection in {self._patience} s") from None
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.settimeout(self._patience)
        self._connections[name] = connection
        self._closed.discard(name)

    def close(self, name: str) -> None:
        self._closed.add(name)
        self._connection(name).close()

    def reset(self, name: str) -> None:
        self._connection(name).setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.close(name)

    def end_sending(self, name: str) -> None:
        """The client sees the end of the stream, while what it still sends can be looked at."""
        self._connection(name).shutdown(socket.SHUT_WR)

    def want_eof(self, name: str) -> None:
        rest = self._read(name, 65536, lambda got: not got)
        if rest:
            raise Mismatch(f"wanted the end of the stream, got {_hex(rest)}")
        self.close(name)

    def drain(self, name: str) -> None:
        """Reads whatever the client still sends until it ends the connection."""
        while self._receive(name, 65536):
            pass
        self.close(name)

    def no_connection(self, listener: str = "server") -> None:
        if select.select([self._listeners[listener]], [], [], 0)[0]:
            raise Mismatch(f"a connection to {listener} that the script does not know")

    # What the client must send.

    def want(self, name: str, data: bytes) -> None:
        got = self._read(name, len(data), data.startswith)
        if got != data:
            raise Mismatch(f"wanted {_hex(data)}, got {_hex(got)}")

    def _want_record(self, name: str, command: bytes, plain_size: int) -> bytes:
        size = 1 + wire.scrambled_size(plain_size)
        got = self._read(name, size, lambda so_far: command.startswith(so_far[:1]))
        if len(got) != size or got[:1] != command:
            raise Mismatch(f"wanted {command!r} and a record of {plain_size} bytes ({size} in all), got {_hex(got)}")
        return wire.unscramble(got[1:])

    def want_open(self, name: str, server_name: bytes | None = None) -> None:
        rest = b"" if server_name is None else wire.relay_part(server_name)
        record = self._want_record(name, wire.OPEN, wire.IDENTIFIER_SIZE + len(rest))
        self._identifier = record[: wire.IDENTIFIER_SIZE]
        try:
            wire.check_identifier(self._identifier, time.time())
        except ValueError as error:
            raise Mismatch(str(error)) from None
        if record[wire.IDENTIFIER_SIZE :] != rest:
            raise Mismatch(f"behind the identifier: wanted {_hex(rest)}, got {_hex(record[wire.IDENTIFIER_SIZE :])}")

    def want_register(self, name: str, host_name: bytes) -> None:
        wanted = self._identifier + wire.register_part(host_name)
        record = self._want_record(name, wire.REGISTER, len(wanted))
        if record != wanted:
            raise Mismatch(f"wanted {_hex(wanted)}, got {_hex(record)}")

    def quiet(self, name: str, seconds: float) -> None:
        """Nothing arrives, the end of the stream neither."""
        if select.select([self._connection(name)], [], [], seconds)[0]:
            raise Mismatch(f"wanted silence, got {_hex(self._receive(name, 65536))}")

    # What the peer sends.

    def send(self, name: str, data: bytes) -> None:
        self._connection(name).sendall(data)

    def send_anyway(self, name: str, data: bytes) -> None:
        """Sends to a client that may have gone meanwhile."""
        with suppress(ConnectionResetError, BrokenPipeError):
            self.send(name, data)

    def trickle(self, name: str, data: bytes, pause: float = 0.003, piece: int = 1) -> None:
        for start in range(0, len(data), piece):
            self.send(name, data[start : start + piece])
            time.sleep(pause)

    def flood(self, name: str, data: bytes) -> None:
        """Sends the same bytes again and again until the client ends the connection."""
        deadline = time.monotonic() + self._patience
        try:
            while time.monotonic() < deadline:
                self.send(name, data)
        except (ConnectionResetError, BrokenPipeError):
            self.close(name)
            return
        except TimeoutError:
            pass
        raise Mismatch(f"the client neither ended the connection nor stopped reading it for {self._patience} s")

    def pause(self, seconds: float) -> None:
        time.sleep(seconds)

    def be_hostile(self, seed: int, project: bytes) -> None:
        """Serves any number of clients at random until the test says something."""
        HostileServer(self._listeners["server"], seed, project).run(stop=0)

    # The test.

    def tell(self, label: str) -> None:
        print(json.dumps({"tell": label, "at": time.monotonic()}), flush=True)

    def signal_client(self, number: int) -> None:
        """Sends a signal to the process of the test."""
        os.kill(os.getppid(), number)

    def wait(self, label: str) -> None:
        if (order := self._next_order()) != f"go {label}":
            raise Mismatch(f"the test said {order!r}, the script waits for {label!r}")

    def _next_order(self) -> str:
        order = sys.stdin.buffer.readline()
        if not order:
            raise SystemExit(3)  # the test is gone
        return order.decode().rstrip("\n")

    # The whole.

    def play(self, steps: Sequence[Step]) -> None:
        for number, (verb, *arguments) in enumerate(steps):
            try:
                getattr(self, verb)(*arguments)
            except (Mismatch, OSError) as error:
                shown = ", ".join(_hex(a) if isinstance(a, bytes) else repr(a) for a in arguments)
                raise Mismatch(f"step {number} of {len(steps)}, {verb}({shown}): {error}") from None

    def check_ends(self) -> None:
        for name in list(self._connections):
            if name not in self._closed:
                try:
                    self.want_eof(name)
                except Mismatch as error:
                    raise Mismatch(f"after the script, on {name!r}: {error}") from None
        for listener in self._listeners:
            self.no_connection(listener)

    def hang_up(self) -> None:
        for connection in [*self._connections.values(), *self._listeners.values()]:
            connection.close()


def main() -> None:
    order = pickle.load(sys.stdin.buffer)
    player = Player(order["listeners"], order["patience"])
    try:
        player.play(order["steps"])
        player.tell("end of script")
        player.wait("finish")
        player.check_ends()
    except Mismatch as error:
        player.hang_up()  # so that the client does not wait for a peer that has given up
        print(json.dumps({"error": str(error)}), flush=True)
        return
    print(json.dumps({"done": True}), flush=True)
    sys.stdin.buffer.read()  # the ports stay taken until the test has removed what it left under their names


class Peer:
    """A running scripted peer, as the test sees it."""

    def __init__(
        self,
        steps: Sequence[Step],
        listeners: Mapping[str, tuple[str, int]] | None = None,
        patience: float = PATIENCE,
    ) -> None:
        addresses = listeners or {"server": ("127.0.0.1", 0)}
        self._patience = patience
        self._pending = b""
        self._told: dict[str, float] = {}
        self.error: str | None = None
        self.finished = False
        servers = {name: socket.create_server(address, backlog=64) for name, address in addresses.items()}
        try:
            self.addresses = {name: server.getsockname() for name, server in servers.items()}
            self._process = subprocess.Popen(
                [sys.executable, "-S", "-E", str(Path(__file__).resolve())],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                pass_fds=[server.fileno() for server in servers.values()],
                env={"PATH": os.environ.get("PATH", "")},  # a preloaded sanitizer is for the client alone
                bufsize=0,
            )
            self._order(
                pickle.dumps(
                    {
                        "listeners": {name: server.fileno() for name, server in servers.items()},
                        "steps": list(steps),
                        "patience": patience,
                    }
                )
            )
        finally:
            for server in servers.values():
                server.close()

    @property
    def port(self) -> int:
        return int(self.addresses["server"][1])

    @property
    def host(self) -> str:
        """The text that a client connects to."""
        return f"{self.addresses['server'][0]}:{self.port}"

    def _order(self, data: bytes) -> None:
        assert self._process.stdin is not None
        view = memoryview(data)
        while view:
            view = view[os.write(self._process.stdin.fileno(), view) :]

    def _report(self) -> dict[str, Any]:
        """The peer's next line."""
        assert self._process.stdout is not None
        deadline = time.monotonic() + 2 * self._patience
        while b"\n" not in self._pending:
            left = max(0.0, deadline - time.monotonic())
            if not select.select([self._process.stdout], [], [], left)[0]:
                raise AssertionError("the scripted peer says nothing")
            piece = os.read(self._process.stdout.fileno(), 65536)
            if not piece:
                raise AssertionError(f"the scripted peer died with exit status {self._process.wait()}")
            self._pending += piece
        line, self._pending = self._pending.split(b"\n", 1)
        report: dict[str, Any] = json.loads(line)
        if "error" in report:
            self.error = report["error"]
            raise AssertionError(self.error)
        return report

    def until(self, label: str) -> float:
        """Returns when the script has come to tell(label), with that moment of the system's monotonic clock.

        Raises what the peer complains about before that.
        """
        while label not in self._told:
            report = self._report()
            self._told[report.get("tell", "")] = report.get("at", 0.0)
        return self._told[label]

    def go(self, label: str) -> None:
        """Lets the script pass its wait(label)."""
        self._order(f"go {label}\n".encode())

    def finish(self) -> None:
        """Returns when the script was played to its end, all connections have ended and nothing else came."""
        if self.finished:
            return
        self.finished = True
        if self.error is not None:
            raise AssertionError(self.error)
        self.until("end of script")
        self.go("finish")
        assert self._report() == {"done": True}

    def raise_complaint(self) -> None:
        """Raises what the peer has complained about so far, if anything, for a test that has failed already."""
        assert self._process.stdout is not None
        while self.error is None and select.select([self._process.stdout], [], [], 0.2)[0]:
            self._report()
        if self.error is not None:
            raise AssertionError(self.error)

    def kill(self) -> None:
        """Ends the process, wherever it is."""
        assert self._process.stdin is not None
        assert self._process.stdout is not None
        self._process.stdin.close()
        self._process.stdout.close()
        self._process.kill()
        self._process.wait()

    def __enter__(self) -> Peer:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        try:
            if kind is None:
                self.finish()
        finally:
            self.kill()


if __name__ == "__main__":
    main()
