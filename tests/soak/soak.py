"""Lets clients, servers and a network that breaks in every way run for minutes, and counts what is wrong.

    script/soak MINUTES [--preset P] [--seed S] [--fast N] [--plants N]

Two kinds of clients, each in a process of its own because the module holds the interpreter lock while it waits:

    fast     soak_fast.py    one scripted server each (soak_sender.py), which pours out changes and breaks
    plants   soak_plant.py   one simulator for all, each behind a proxy that breaks (soak_proxy.py)

What was done to each attempt to connect and what its client saw of it are compared here. Ends with a table, and with
status 1 if a value was wrong, lost or out of order, if a connection that had to end stood, or ended without cause, and
if one side has an attempt that the other does not have.
"""

from __future__ import annotations

import argparse
import json
import os
import queue
import random
import shutil
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path
from typing import Any

import soak_project
from soak_faults import LATE, LATE_END, MIRROR_ROOT, NO_CAUSE, PATIENCE, SLACK, VIOLATIONS, WRONG, T

HERE = Path(__file__).resolve().parent
Message = dict[str, Any]


class Child:
    """A process of the soak. What it says goes to one queue, with its name."""

    def __init__(
        self, name: str, command: list[str], said: queue.Queue[tuple[str, Message]], preload: str = ""
    ) -> None:
        self.name = name
        more = {"LD_PRELOAD": preload, "PYTHONMALLOC": "malloc"} if preload else {}
        pipe = subprocess.PIPE
        self.process = subprocess.Popen(command, stdin=pipe, stdout=pipe, text=True, env={**os.environ, **more})
        self._said = said
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self) -> None:
        assert self.process.stdout is not None
        for line in self.process.stdout:
            if line.startswith("{"):
                self._said.put((self.name, json.loads(line)))
        self._said.put((self.name, {"kind": "silent"}))

    def finish(self, seconds: float) -> bool:
        """Ends its input, by which it ends. False: it had to be killed, or said by its status that it failed."""
        assert self.process.stdin is not None
        if not self.process.stdin.closed:
            self.process.stdin.close()
        try:
            status = self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.process.kill()
            status = self.process.wait()
        self._reader.join(10)
        return status == 0


class Judge:
    """Gathers what all say, and compares the two sides of each attempt."""

    SHOWN = 20

    def __init__(self) -> None:
        self.violations = dict.fromkeys(VIOLATIONS, 0)
        self.counts: dict[str, dict[str, int]] = {}
        self.usage: dict[tuple[str, str], dict[str, int]] = {}
        self.ends: dict[str, int] = {}
        self.done: set[str] = set()
        self._apart: dict[str, list[int]] = {}  # attempts whose two sides did not run at the same time
        self._halves: dict[tuple[str, int], dict[str, Message]] = {}
        self._shown = 0

    def take(self, name: str, message: Message) -> None:
        kind = message["kind"]
        if kind == "violation":
            self.violate(message["what"], f"{name}: {message['text']}", message["count"])
        elif kind == "counts":
            self.counts[name] = {key: value for key, value in message.items() if key not in ("kind", "at")}
        elif kind == "usage":
            self.usage[name, message["when"]] = message
        elif kind == "done":
            self.done.add(name)
        elif kind == "attempt":
            group = "plant" if name in ("proxy",) or name.startswith("plant") else "fast"
            halves = self._halves.setdefault((f"{group} {message['worker']}", message["attempt"]), {})
            halves[message["side"]] = message
            if len(halves) == 2:
                self._compare(*self._halves_of(group, message), halves["server"], halves["client"])

    def _halves_of(self, group: str, message: Message) -> tuple[str, int]:
        key = (f"{group} {message['worker']}", message["attempt"])
        del self._halves[key]
        return key

    def _compare(self, who: str, attempt: int, server: Message, client: Message) -> None:
        name = f"{who}, attempt {attempt} ({server['end']})"
        if client["violated"]:
            print(f"{name}: done was {'; '.join(server['notes'])}", file=sys.stderr, flush=True)
        if not client["started_at"] <= server["started_at"] <= client["closed_at"]:
            self._apart.setdefault(who, []).append(attempt)  # one of them is not of this attempt, or was away too long
            return
        if client["violated"]:
            return
        ended, fault = client["ended_at"], server["fault_at"]
        if ended is not None and not self._may_end(server, client) and (fault is None or ended < fault - 1):
            notes = "; ".join(server["notes"])
            self.violate(NO_CAUSE, f"{name}, at {ended:.2f}: {client['why']}; done was, until {fault}: {notes}")
        if client["connect"] != 0:
            return
        if ended is not None:
            self.ends[server["end"]] = self.ends.get(server["end"], 0) + 1
        since = [at for at in (server["must_end_at"], server["gave_up_at"]) if at is not None]
        late = (client["closed_at"] if ended is None else ended) - min(since, default=float("inf"))
        if late > LATE:
            notes = "; ".join(server["notes"])
            self.violate(LATE_END, f"{name}: {late:.1f} s after it had to: {client['why']}; done was {notes}")
        if server["last"] is not None and client["delivered"] > server["last"]:
            self.violate(LATE_END, f"{name}: it went on behind a pause, {server['last']}, {client['delivered']}")
        if server["sent"] is not None and client["delivered"] > server["sent"]:
            self.violate(WRONG, f"{name}: {client['delivered']} notifications were told of {server['sent']}")

    @staticmethod
    def _may_end(server: Message, client: Message) -> bool:
        """Whether the client may have waited too long: for what was sent, or until it was listened to at all."""
        taken_up_late = client["connect"] != 0 and server["started_at"] - client["started_at"] > T - SLACK
        return bool(server["may_end"]) or taken_up_late

    def unmatched(self) -> list[str]:
        """What the two sides disagree on. To be asked when all have ended: until then a report may be on its way."""
        found = {f"{who}: the two sides did not run together": attempts for who, attempts in self._apart.items()}
        for (who, attempt), halves in self._halves.items():
            found.setdefault(f"{who}: only the {next(iter(halves))}'s side has reported", []).append(attempt)
        return [
            f"{text}, in {len(attempts)} attempts, of which the first is {min(attempts)}"
            for text, attempts in found.items()
        ]

    def violate(self, what: str, text: str, count: int = 1) -> None:
        self.violations[what] += count
        self._shown += 1
        if self._shown <= self.SHOWN:
            print(f"{what}: {text}", file=sys.stderr, flush=True)

    def total(self, name: str) -> int:
        return sum(counts.get(name, 0) for counts in self.counts.values())

    def used(self, when: str, what: str) -> int:
        return sum(usage[what] for (_, at), usage in self.usage.items() if at == when)

    def progress(self, seconds: float) -> str:
        wrong = ", ".join(f"{count} {what}" for what, count in self.violations.items())
        return f"{seconds:6.0f} s: {self.total('changes'):,} changes, {self.total('drops'):,} drops, {wrong}"


class Soak:
    """One run, from the first process to the last."""

    GRACE = 120.0  # seconds that a client may take to end after its time: its last call may wait

    def __init__(self, arguments: argparse.Namespace) -> None:
        self.arguments = arguments
        self.seconds = arguments.minutes * 60
        self.life = arguments.life or min(15.0, max(4.0, self.seconds / 8))
        self.judge = Judge()
        self.failed: list[str] = []
        self._said: queue.Queue[tuple[str, Message]] = queue.Queue()
        self._clients: list[Child] = []
        self._servers: list[Child] = []
        self._ports: list[int] = []
        self._simulator: subprocess.Popen[str] | None = None

    def run(self) -> None:
        with tempfile.TemporaryDirectory(prefix="soak") as folder:
            try:
                self._start(Path(folder))
                self._follow()
            finally:
                self._stop()

    def _start(self, folder: Path) -> None:
        arguments = self.arguments
        self.started = time.monotonic()
        until = self.started + self.seconds
        for worker in range(arguments.fast):
            port = self._server(f"sender {worker}", "soak_sender.py", arguments.seed, worker, self.life)[worker]
            self._client(f"fast {worker}", "soak_fast.py", port, worker, arguments.seed, until, self.life)
        if arguments.plants:
            plant_start = time.monotonic()
            upstream = self._simulate(folder)
            name, rest = "soak_proxy.py", (arguments.seed, upstream, arguments.plants, self.life)
            ports = self._server("proxy", name, *rest, count=arguments.plants)
            for worker, port in sorted(ports.items()):
                where = (port, worker, arguments.seed, until, self.life, plant_start)
                self._client(f"plant {worker}", "soak_plant.py", *where)

    def _child(self, name: str, program: str, *arguments: object, preload: str = "") -> Child:
        return Child(name, [sys.executable, str(HERE / program), *map(str, arguments)], self._said, preload)

    def _client(self, *arguments: Any) -> None:
        self._clients.append(self._child(*arguments, preload=self.arguments.preload))

    def _server(self, *arguments: Any, count: int = 1) -> dict[int, int]:
        """Starts one and waits until it says where it listens: the port of each worker."""
        child = self._child(*arguments)
        self._servers.append(child)
        ports: dict[int, int] = {}
        while len(ports) < count:
            name, message = self._said.get(timeout=60)
            if message["kind"] == "listening":
                ports[message["worker"]] = message["port"]
            elif name == child.name:
                raise SystemExit(f"{name} did not start")
            else:
                self.judge.take(name, message)
        self._ports += ports.values()
        return ports

    def _simulate(self, folder: Path) -> int:
        project = folder / "soak.toml"
        project.write_text(soak_project.project_file(self.arguments.plants), encoding="utf-8")
        command = [self.arguments.simulator, "--quiet", "--port", "0", str(project)]
        self._simulator = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        assert self._simulator.stdout is not None
        return int(self._simulator.stdout.readline().rsplit(":", 1)[1])

    def _follow(self) -> None:
        shown = self.started
        names = {child.name for child in self._clients}
        silent: set[str] = set()
        deadline = self.started + self.seconds + self.GRACE
        while not names <= silent and time.monotonic() < deadline:
            try:
                name, message = self._said.get(timeout=1)
            except queue.Empty:
                continue
            if message["kind"] == "silent":
                silent.add(name)
                if name not in names:
                    self.failed.append(f"{name} ended before the clients did")
                    return
            self.judge.take(name, message)
            if sys.stdout.isatty() and time.monotonic() > shown + 30:
                shown = time.monotonic()
                print(self.judge.progress(shown - self.started), flush=True)

    def _stop(self) -> None:
        """Clients first: a server that goes would end their connections."""
        for child in self._clients:
            if not child.finish(30) or child.name not in self._told():
                self.failed.append(f"{child.name} did not end as it should, status {child.process.returncode}")
        for port in self._ports:  # which nobody else can have yet
            shutil.rmtree(MIRROR_ROOT / f"127.0.0.1_{port}", ignore_errors=True)
        for child in self._servers:
            if not child.finish(PATIENCE):
                self.failed.append(f"{child.name} did not end as it should, status {child.process.returncode}")
        if self._simulator:
            if self._simulator.poll() is not None:
                self.failed.append(f"the simulator ended by itself, status {self._simulator.returncode}")
            self._simulator.terminate()
            self._simulator.wait(20)
        self._told()
        self.failed += self.judge.unmatched()

    def _told(self) -> set[str]:
        while not self._said.empty():
            self.judge.take(*self._said.get())
        return self.judge.done

    def table(self) -> bool:
        """Prints what was counted. True: nothing was wrong."""
        judge, took = self.judge, time.monotonic() - self.started
        numbers = f"{self.arguments.fast} fast clients, {self.arguments.plants} plants"
        print(f"seed {self.arguments.seed}, {took:.0f} s, {numbers}")
        rows = [(name, f"{judge.total(name):,}") for name in ("changes", "alarms", "reads", "writes", "subscriptions")]
        rows += [
            ("connected", f"{judge.total('connects'):,}"),
            ("Connect failed", f"{judge.total('connects_failed'):,}"),
        ]
        rows += [("drops", f"{judge.total('drops'):,}")]
        rows += [(what, f"{count:,}") for what, count in judge.violations.items()]
        for what, unit in (("rss", 1024), ("malloc", 1024), ("descriptors", 1), ("threads", 1)):
            first, last = judge.used("start", what), judge.used("end", what)
            label = f"{what}, KiB" if unit > 1 else what
            rows.append((f"{label}, all clients, start / end", f"{first // unit:,} / {last // unit:,}"))
            if unit == 1 and last > first:
                self.failed.append(f"{last - first} {what} are left over")
        for label, text in rows:
            print(f"| {label:<44} | {text:>24} |")
        for text in self.failed:
            print(f"failed: {text}", file=sys.stderr)
        return not self.failed and not any(judge.violations.values()) and judge.total("changes") > 0


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("minutes", type=float)
    parser.add_argument("--seed", default=f"{random.SystemRandom().randrange(10**9)}", help="repeats a schedule")
    parser.add_argument("--fast", type=int, default=3, help="clients of fast servers (3)")
    parser.add_argument("--plants", type=int, default=3, help="clients of the simulator (3)")
    parser.add_argument("--life", type=float, default=0.0, help="seconds that a connection lasts at most (15)")
    parser.add_argument("--preload", default="", help="libraries that the clients load first: a sanitizer's")
    parser.add_argument("--simulator", default=os.environ.get("RKDBSIM", "rkdbsim"))
    arguments = parser.parse_args()
    if arguments.minutes <= 0 or arguments.fast + arguments.plants < 1:
        parser.error("there is nothing to do")
    print(f"seed {arguments.seed}", flush=True)
    soak = Soak(arguments)
    soak.run()
    return 0 if soak.table() else 1


if __name__ == "__main__":
    sys.exit(main())
