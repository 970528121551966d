"""What all tests share: scripted peers, clients, the simulator, and the checks that nothing is left behind.

Environment: RkDBAccess is imported from PYTHONPATH (build/<preset>); RKDBSIM names the simulator's program.
"""

from __future__ import annotations

import gc
import itertools
import os
import select
import shutil
import signal
import subprocess
import sys
import threading
import time
import uuid
from collections.abc import Callable, Iterator, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Protocol

import pytest
from client import Session
from dialogue import Steps, connecting
from peer import PATIENCE, Peer, Step

MIRROR_ROOT = Path("/tmp/rkbrowser")
CHECKOUT = Path(__file__).resolve().parents[2]


def mirror_host(host: str) -> Path:
    """The mirror's directory of a server that was connected to with this host text."""
    name = host.replace(":", "_")
    try:
        name.encode("gb2312")
    except UnicodeEncodeError:  # what that encoding lacks has no name of its own on the disk
        name = "".join(f"%{byte:02X}" if byte > 0x7F else chr(byte) for byte in name.encode())
    return MIRROR_ROOT / name


def mirror(host: str, project: str) -> Path:
    """The mirror's directory of one project of that server."""
    return mirror_host(host) / project


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--cases", type=int, help="run so many cases of each parametrized test at most, spread evenly")


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    """Fewer cases of the tests that have many, and none of great amounts, where each takes long.

    The cases differ in their data alone; what is done in bulk is done by other tests a few times.
    """
    most = config.getoption("--cases")
    if most is None:
        return
    cases: dict[tuple[str, str], list[pytest.Item]] = {}
    for item in items:
        if item.get_closest_marker("bulk"):
            continue
        cases.setdefault((str(item.path), item.name.split("[")[0]), []).append(item)
    kept = {
        same[number * len(same) // min(most, len(same))]
        for same in cases.values()
        for number in range(min(most, len(same)))
    }
    config.hook.pytest_deselected(items=[item for item in items if item not in kept])
    items[:] = [item for item in items if item in kept]


@pytest.hookimpl(wrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Iterator[None]:
    report = yield
    if report.when == "call":  # type: ignore[attr-defined]
        item.stash[FAILED] = report.failed  # type: ignore[attr-defined]
    return report


FAILED = pytest.StashKey[bool]()


def open_descriptors() -> int:
    return sum(1 for _ in Path("/proc/self/fd").iterdir())


def live_threads() -> int:
    return sum(1 for _ in Path("/proc/self/task").iterdir())


def settles(is_so: Callable[[], bool], seconds: float = 5.0) -> bool:
    """Waits for something that another thread or process is about to bring about."""
    deadline = time.monotonic() + seconds
    while not is_so():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.005)
    return True


@pytest.fixture(autouse=True)
def leaves_nothing_behind(request: pytest.FixtureRequest) -> Iterator[None]:
    """Fails a test after which there are more open descriptors or threads than before."""
    gc.collect()
    descriptors, threads = open_descriptors(), live_threads()
    yield
    if request.node.stash.get(FAILED, True):
        return  # its frames keep its objects alive
    gc.collect()
    if not settles(lambda: open_descriptors() <= descriptors and live_threads() <= threads):
        raise AssertionError(
            f"before: {descriptors} descriptors, {threads} threads; "
            f"after: {open_descriptors()} descriptors, {live_threads()} threads, of Python {threading.enumerate()}"
        )


@pytest.fixture
def project() -> str:
    """A project name that no other test uses, so that the mirrors of two tests never meet."""
    return f"t{uuid.uuid4().hex[:10]}"


def remove_mirrors(hosts: list[str]) -> None:
    while hosts:
        shutil.rmtree(mirror_host(hosts.pop()), ignore_errors=True)


def take_over(hosts: list[str], new: list[str]) -> None:
    """Notes host texts that are now this test's; mirrors of tests that were killed may stand under their ports."""
    remove_mirrors([host for host in new if host not in hosts])
    hosts.extend(new)


@pytest.fixture
def hosts() -> Iterator[list[str]]:
    """Host texts whose mirrors are removed at the test's end, while their ports are still taken."""
    used: list[str] = []
    yield used
    remove_mirrors(used)


Play = Callable[..., Peer]


@pytest.fixture
def play(request: pytest.FixtureRequest, hosts: list[str]) -> Iterator[Play]:
    """Starts scripted peers; when the test has passed, each must have been played to its exact end."""
    peers: list[Peer] = []

    def start(
        steps: Sequence[Step], listeners: Mapping[str, tuple[str, int]] | None = None, patience: float = PATIENCE
    ) -> Peer:
        peer = Peer(steps, listeners, patience)
        peers.append(peer)
        take_over(hosts, [f"{address}:{port}" for address, port in peer.addresses.values()])
        return peer

    complaints: list[str] = []
    yield start
    for peer in peers:
        try:
            if not request.node.stash.get(FAILED, True):
                peer.finish()
            else:
                peer.raise_complaint()
        except AssertionError as error:
            complaints.append(str(error))
    remove_mirrors(hosts)
    for peer in peers:
        peer.kill()
    assert not complaints, "; ".join(complaints)


class Serve(Protocol):
    """Gives a client connected to a peer that goes on with these exchanges."""

    def __call__(self, *exchanges: Steps, rights: int = 0) -> Session: ...


@pytest.fixture
def serve(play: Play, project: str) -> Serve:
    """Starts a peer that lets a client connect and then plays the exchanges given; gives the connected client."""

    def start(*exchanges: Steps, rights: int = 0) -> Session:
        return Session(play(connecting(project, rights=rights) + list(itertools.chain(*exchanges))))

    return start


_address_numbers = itertools.count(1)


def remove_mirrors_through(centre: str) -> None:
    for path in MIRROR_ROOT.glob(f"*({centre}*"):
        shutil.rmtree(path)


@pytest.fixture
def own_address() -> Iterator[str]:
    """A loopback address that no other test process uses.

    For the port of relay centres, which is fixed, and for ports at which nobody else may listen meanwhile.
    """
    number = (os.getpid() << 6) + next(_address_numbers)
    address = f"127.{1 + number % 250}.{number // 250 % 250}.{number // 62500 % 250}"
    remove_mirrors_through(address)
    yield address
    remove_mirrors_through(address)


# From 3.12 on the interpreter warns of every fork beside threads; what forks in a test does so to show that it works.
FORKS_QUIETLY = ("-W", "ignore:This process (pid=:DeprecationWarning")


@dataclass(frozen=True)
class Outcome:
    """What a script run in an interpreter of its own did."""

    status: int
    output: str
    errors: str


def run_alone(
    script: str,
    *arguments: str,
    timeout: float = 120.0,
    through: Sequence[str] = (),
    environment: Mapping[str, str] | None = None,
) -> Outcome:
    """Runs Python text in a process of its own, so that a crash or a hang is a failed test with a stack.

    through: a command that starts the process; environment: what differs from this process's own.
    """
    watchdog = f"import faulthandler; faulthandler.dump_traceback_later({timeout}, exit=True)\n"
    done = subprocess.run(
        [*through, sys.executable, *FORKS_QUIETLY, "-X", "faulthandler", "-c", watchdog + script, *arguments],
        env={**os.environ, "PYTHONPATH": os.pathsep.join(path for path in sys.path if path), **(environment or {})},
        capture_output=True,
        text=True,
        timeout=timeout + 30,
        check=False,
    )
    return Outcome(done.returncode, done.stdout, done.stderr)


def passes_alone(
    script: str,
    *arguments: str,
    timeout: float = 120.0,
    through: Sequence[str] = (),
    environment: Mapping[str, str] | None = None,
) -> str:
    """Runs Python text as above; it must end by itself with status 0 and complain about nothing. Gives its output."""
    outcome = run_alone(script, *arguments, timeout=timeout, through=through, environment=environment)
    assert (outcome.status, outcome.errors) == (0, ""), f"status {outcome.status}\n{outcome.output}\n{outcome.errors}"
    return outcome.output


# The simulator.


@pytest.fixture(scope="session")
def rkdbsim_path() -> Path:
    """The simulator's program."""
    path = Path(os.environ.get("RKDBSIM") or CHECKOUT / "build" / "release" / "rkdbsim")
    assert path.is_file(), f"{path} is not there: build it, or name it in RKDBSIM"
    return path


class Simulator:
    """A running simulator on a port of its own choice, or on one that another had before."""

    def __init__(self, program: Path, arguments: Sequence[str], address: str, port: int) -> None:
        greeting = f"listening on {address}:"
        self._process = subprocess.Popen(
            [str(program), *arguments, "--host", address, "--port", str(port)],
            stdout=subprocess.PIPE,
            bufsize=0,
            stdin=subprocess.DEVNULL,
        )
        assert self._process.stdout is not None
        line = b""
        while not line.endswith(b"\n"):
            ready, _, _ = select.select([self._process.stdout], [], [], PATIENCE)
            piece = os.read(self._process.stdout.fileno(), 1) if ready else b""
            if not piece:
                self._process.kill()
                self._process.wait()
                raise AssertionError(f"the simulator did not say where it listens: {line!r}")
            line += piece
        text = line.decode().rstrip("\n")
        if not text.startswith(greeting):
            self.stop()
            raise AssertionError(f"the simulator's first line: {text!r}")
        self.port = int(text.removeprefix(greeting))
        self.host = f"{address}:{self.port}"

    @property
    def pid(self) -> int:
        return self._process.pid

    def stop(self) -> tuple[int, str]:
        """Ends it with SIGTERM; gives its exit status and what it printed after the first line."""
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGTERM)
        output, _ = self._process.communicate(timeout=PATIENCE)
        return self._process.returncode, output.decode(errors="replace")


@pytest.fixture
def simulator(rkdbsim_path: Path, tmp_path: Path, hosts: list[str]) -> Iterator[Callable[..., Simulator]]:
    """Starts simulators: with a project file, or with the text of one. Each must end cleanly on SIGTERM."""
    running: list[Simulator] = []

    def start(project_file: Path | str, *arguments: str, address: str = "127.0.0.1", port: int = 0) -> Simulator:
        path = project_file
        if isinstance(path, str):
            text, path = path, tmp_path / f"project{len(running)}.toml"
            path.write_text(text, encoding="utf-8")
        started = Simulator(rkdbsim_path, [str(path), *arguments], address, port)
        running.append(started)
        take_over(hosts, [started.host])
        return started

    yield start
    remove_mirrors(hosts)
    endings = [one.stop() for one in running]
    assert [status for status, _ in endings] == [0] * len(endings), endings
