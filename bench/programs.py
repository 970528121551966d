"""The benchmark's two helper programs as Python sees them: the server, and the raw client that is the limit."""

from __future__ import annotations

import os
import subprocess
import tempfile
from pathlib import Path
from types import TracebackType
from typing import IO

from plant import Steps

PATIENCE = 120.0  # seconds a program may take to end; far above what it needs


class Program:
    """A running helper program with files of its own; ends with the scope, and must then have been content."""

    def __init__(self, path: Path, arguments: list[str], files: list[bytes], cpus: set[int]) -> None:
        self._folder = tempfile.TemporaryDirectory(prefix="rkdb_bench_")
        paths = [Path(self._folder.name, str(number)) for number in range(len(files))]
        for file, data in zip(paths, files):
            file.write_bytes(data)
        self._process = subprocess.Popen(
            [path, *arguments, *paths], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )
        os.sched_setaffinity(self._process.pid, cpus)

    def __enter__(self) -> None:
        pass

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None, _: TracebackType | None) -> None:
        if error:
            self._process.kill()
        self._pipe(self._process.stdin).close()
        code = self._process.wait(PATIENCE)
        self._pipe(self._process.stdout).close()
        self._folder.cleanup()
        if code != 0 and not error:
            raise RuntimeError(f"{self._process.args!r} ended with {code}")

    @staticmethod
    def _pipe(pipe: IO[str] | None) -> IO[str]:
        assert pipe is not None
        return pipe

    def order(self, line: str) -> None:
        pipe = self._pipe(self._process.stdin)
        pipe.write(line + "\n")
        pipe.flush()

    def answer(self) -> int:
        line = self._pipe(self._process.stdout).readline()
        if not line:
            raise RuntimeError(f"{self._process.args!r} has ended")
        return int(line)


class Server(Program):
    """Serves as many connections as there are steps, in that order."""

    def __init__(self, programs: Path, steps: list[Steps], cpus: set[int]) -> None:
        super().__init__(programs / "bench_peer", [], [one.data for one in steps], cpus)
        self.port = self.answer()


class RawClient(Program):
    """Moves the bytes and does nothing with them; gives seconds."""

    def __init__(self, programs: Path, server: Server, request: bytes, reply: bytes) -> None:
        cpus = os.sched_getaffinity(0)
        super().__init__(programs / "bench_raw_client", [str(server.port)], [request, reply], cpus)

    def ask(self, times: int) -> float:
        self.order(f"ask {times}")
        return self.answer() / 1e9

    def begin_take(self, size: int, at_once: int) -> None:
        self.order(f"take {size} {at_once}")

    def taken(self) -> float:
        return self.answer() / 1e9
