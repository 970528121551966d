"""The simulator's log where nobody reads it: a pipe that is full stops the log, and nothing and nobody else."""

from __future__ import annotations

import os
import re
import signal
import subprocess
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from sim_wire import PATIENCE, RawClient, typed

TAGS = 1000
PROJECT = f"""
[[driver]]
name = "D"
[[driver.tag]]
name = "T%04d"
count = {TAGS}
value = 1
"""
# A traced read of all tags makes three lines, of the request and of two blocks: some 30,000 characters.
READ = [(0, number) for number in range(TAGS)]
QUEUE = 4 << 20  # characters that wait in the simulator, beside those in the pipe
READS = 2 * QUEUE // 30000


@contextmanager
def unread(program: Path, folder: Path, *arguments: str) -> Iterator[tuple[subprocess.Popen[str], int, int]]:
    """A running simulator whose log goes into a pipe that nobody reads; its port, and the end of the pipe."""
    path = folder / "p.toml"
    path.write_text(PROJECT)
    reading, writing = os.pipe()
    command: list[str | Path] = [program, "--port", "0", *arguments, path]
    try:
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=writing, text=True) as process:
            os.close(writing)
            assert process.stdout is not None
            try:
                yield process, int(process.stdout.readline().removeprefix("listening on 127.0.0.1:")), reading
            finally:
                process.kill()
    finally:
        os.close(reading)


def read_all_often(client: RawClient) -> None:
    for _ in range(READS):
        assert client.read(READ) == [(3, 1)] * TAGS


def test_clients_are_served_and_the_lines_that_were_dropped_are_counted(rkdbsim_path: Path, tmp_path: Path) -> None:
    with unread(rkdbsim_path, tmp_path, "--trace", "--trace-bytes", "0") as (process, port, reading):
        with RawClient(("127.0.0.1", port)) as client, RawClient(("127.0.0.1", port)) as other:
            read_all_often(client)
            other.advise([(0, 0)])
            client.write(((0, 0), typed(3, 5)))
            other.hear.want(b"\0\0\0\0\5\0\0\0")
            log = b""
            while b" were dropped" not in log:
                log += os.read(reading, 1 << 20)
            # Now that somebody reads, the log goes on.
            client.read([(0, 7)])
            while b"read D/T0007" not in log:
                log += os.read(reading, 1 << 20)
        process.send_signal(signal.SIGTERM)
        while piece := os.read(reading, 1 << 20):
            log += piece
        assert process.wait(timeout=PATIENCE) == 0
    lines = log.decode().splitlines()
    (dropped,) = [int(found[1]) for line in lines if (found := re.search(r" warning (\d+) lines of the log", line))]
    assert dropped > READS // 4
    # Every line is there or counted: three of each read, two of the subscription, the write, the change.
    (note,) = [number for number, line in enumerate(lines) if "lines of the log" in line]
    first = next(number for number, line in enumerate(lines) if "read D/T0000, " in line)
    assert note - first + dropped == 3 * READS + 4
    assert lines[-1].endswith("info ended")


def test_a_full_pipe_does_not_keep_it_from_ending(rkdbsim_path: Path, tmp_path: Path) -> None:
    with unread(rkdbsim_path, tmp_path, "--trace", "--trace-bytes", "0") as (process, port, _):
        with RawClient(("127.0.0.1", port)) as client:
            read_all_often(client)
        process.send_signal(signal.SIGTERM)
        assert process.wait(timeout=PATIENCE) == 0


def test_a_reader_of_the_log_that_goes_away_ends_the_log_only(rkdbsim_path: Path, tmp_path: Path) -> None:
    with unread(rkdbsim_path, tmp_path, "--trace") as (process, port, reading):
        nothing = os.open(os.devnull, os.O_RDONLY)
        os.dup2(nothing, reading)
        os.close(nothing)
        for _ in range(3):
            with RawClient(("127.0.0.1", port)) as client:
                assert client.read([(0, 0)]) == [(3, 1)]
        process.send_signal(signal.SIGTERM)
        assert process.wait(timeout=PATIENCE) == 0


def test_all_lines_are_written_before_it_ends(rkdbsim_path: Path, tmp_path: Path) -> None:
    path, log = tmp_path / "p.toml", tmp_path / "log"
    path.write_text(PROJECT)
    with log.open("w") as file:
        process = subprocess.Popen([rkdbsim_path, "--port", "0", "--trace", path], stdout=subprocess.PIPE, stderr=file)
        with process:
            assert process.stdout is not None
            port = int(process.stdout.readline().removeprefix(b"listening on 127.0.0.1:"))
            with RawClient(("127.0.0.1", port)) as client:
                for number in range(TAGS):
                    client.read([(0, number)])
            process.send_signal(signal.SIGTERM)
    assert process.returncode == 0
    lines = log.read_text().splitlines()
    read = [int(found[1]) for line in lines if (found := re.search(r"<- #1: read D/T(\d+) \|", line))]
    assert read == list(range(TAGS))
    assert lines[-1].endswith("info ended")
