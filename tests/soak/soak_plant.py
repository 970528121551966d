"""A client of the simulator behind a proxy that breaks connections (soak_proxy.py): ramps, texts, writes and alarms.

    python soak_plant.py PORT WORKER SEED UNTIL LIFE PLANT_START

What the simulator's tags do is known (soak_project.py): so each change has one right value, each read a few.
"""

from __future__ import annotations

import contextlib
import sys
import time
from collections.abc import Callable

from client import items
from soak_client import Attempt, Counts, Over, Who, is_told_to_stop, settled_usage
from soak_faults import DISORDER, LATE, LATE_END, LOST, WRONG, tell
from soak_project import LIMIT, OTHER, PERIOD_MS, PLANT, RAMP_NAMES, READ_NAMES, TEXTS
from soak_sender import padding


class Check:
    """Compares what the callbacks are told with what comes next."""

    def __init__(self, complain: Callable[[str, str, int], None], plant_start: float) -> None:
        self._complain = complain
        self._plant_start = plant_start
        self.changes = self.alarms = 0
        self.last: dict[str, int] = {}  # a ramp's value, a text's place in its cycle
        self.own: dict[str, list[object]] = {}  # what was written to a tag of the client's own and is to come back
        self.states: dict[str, tuple[int, float]] = {}  # of an alarm: status, and the last value that raised it
        self.unnamed: float | None = None  # when an alarm without its texts was told

    def newest(self) -> float:
        """What no ramp can have passed yet."""
        return (time.monotonic() - self._plant_start) * 1000 / PERIOD_MS + 2

    def on_plant(self, driver: str, tag: str, value: object) -> None:
        self.changes += 1
        before = self.last.get(tag)
        if tag == "Text":
            now = TEXTS.index(value) if value in TEXTS else -1
            expected = None if before is None else (before + 1) % len(TEXTS)
        else:
            now = value if type(value) is int else -1
            expected = None if before is None else before + 1
        if now < 0 or driver != PLANT:
            self._complain(WRONG, f"{driver}/{tag} is {str(value)[:99]}", 1)
        elif expected is not None and now != expected:
            text = f"{driver}/{tag} is {str(value)[:99]} behind number {before}"
            if tag == "Text":  # each comes again soon: which it is cannot be told
                self._complain(LOST, text, 1)
            elif now > self.newest():
                self._complain(WRONG, text, 1)
            else:
                self._complain(LOST if now > expected else DISORDER, text, max(1, now - expected))
        self.last[tag] = now

    def on_own(self, driver: str, tag: str, value: object) -> None:
        self.changes += 1
        waiting = self.own.setdefault(tag, [])
        if waiting and waiting[0] == value:
            del waiting[0]
        elif value in waiting:
            self._complain(LOST, f"{driver}/{tag}: {waiting.index(value)} writes before {str(value)[:60]}", 1)
        else:
            self._complain(WRONG, f"{driver}/{tag} is {str(value)[:60]}, written was {str(waiting[:2])[:99]}", 1)

    def on_alarm(self, *alarm: object) -> None:
        self.alarms += 1
        _, _, tag, has_event, kind, group, level, value, limit, status = alarm
        if "???" in (tag, kind, group):
            self.unnamed = self.unnamed or time.monotonic()
            return
        name = str(tag)
        right = (
            kind == "高"
            and group == f"G{name[1:]}"
            and (level, limit) == (0, LIMIT)
            and has_event == 1 - int(str(status))
        )
        if not right or not isinstance(value, float) or (value > LIMIT) != (status == 1):
            self._complain(WRONG, f"the alarm {alarm}", 1)
            return
        before, raised = self.states.get(name, (1 - int(str(status)), 0.0))
        if before == status:
            self._complain(LOST, f"the alarm {alarm} behind one of the same status", 1)
        if status == 1 and value <= raised:
            self._complain(DISORDER, f"the alarm {alarm} behind one of {raised}", 1)
        self.states[name] = (int(str(status)), value if status == 1 else raised)


class Serials:
    """Numbers that no two writes of this client share, over all its attempts."""

    def __init__(self) -> None:
        self.last = 0

    def next(self) -> int:
        self.last += 1
        return self.last


class Plant(Attempt):
    """One connection to the simulator."""

    def run(self, check: Check, who: Who, serials: Serials) -> None:
        if self.report.connect != 0:
            raise Over
        self.seen, self.serials = check, serials
        self.text, self.number, self.alarm = f"T{who.worker}", f"N{who.worker}", f"A{who.worker}"
        self.plant, self.own = self.driver(PLANT, OTHER), self.driver(OTHER, PLANT)
        end = time.monotonic() + (who.life * self.rng.random() if self.rng.random() < 0.3 else 2 * who.life + 30)
        self._begin()
        turns = [self._read_stored, self._read_ramps, self._write_number, self._write_text, self._raise, self._settle]
        while time.monotonic() < end:
            self.check(OTHER)
            if check.unnamed is not None and time.monotonic() > check.unnamed + LATE:
                self.complain(WRONG, "an alarm had no texts, and the connection stands")
            self.counts.tell(more={"changes": check.changes})
            self.rng.choice(turns)()
            time.sleep(self.rng.choice((0.0, 0.02, 0.3)) * self.rng.random())

    def _begin(self) -> None:
        check = self.seen
        self._write(self.alarm, 0.0)
        self.call("SetRtAlarmNotify", lambda: self.db.SetRtAlarmNotify(check.on_alarm, True))
        self.check(OTHER)
        self.plant.SetTagNotify(check.on_plant)
        self.own.SetTagNotify(check.on_own)
        if self.call("ConnectTag", lambda: self.plant.ConnectTag(",".join([*RAMP_NAMES, "Text"]))) != 1:
            self.failed(OTHER, "ConnectTag of the ramps")
        # What an earlier connection has written may still be on its way, so these begin with a value of their own:
        # written and read back before they are subscribed.
        for name, value in ((self.number, self.serials.next()), (self.text, self._text())):
            self._write(name, value)
            if (got := self._read(self.own, [name])[0]) != value:
                self.complain(WRONG, f"wrote {str(value)[:60]} to {name}, read {str(got)[:60]} back")
                raise Over
        if self.call("ConnectTag", lambda: self.own.ConnectTag(f"{self.number},{self.text}")) != 1:
            self.failed(OTHER, "ConnectTag of the own tags")
        self.counts.add("subscriptions", 2)

    def _text(self) -> str:
        serial = self.serials.next()
        return f"{serial}:{padding(serial)}"

    def _read(self, driver: object, names: list[str]) -> list[object]:
        value = self.call("GetTagValue", lambda: driver.GetTagValue(",".join(names)))  # type: ignore[attr-defined]
        self.counts.add("reads", len(names))
        values = items(value) if type(value) is list else [value]
        if value is None or len(values) != len(names):
            self.failed(OTHER, f"GetTagValue of {len(names)} names")
        return values

    def _write(self, name: str, value: float | str) -> None:
        result = self.call("SetTagValue", lambda: self.own.SetTagValue(name, value))
        if result != 0:
            if result in (-1, -3) and self.stands(OTHER):
                self.complain(WRONG, f"SetTagValue gave {result}")
            self.failed(OTHER, f"SetTagValue, {result},")
        self.counts.add("writes")

    def _write_number(self) -> None:
        for _ in range(self.rng.choice((1, 1, 20))):
            self._write_own(self.number, self.serials.next())

    def _write_text(self) -> None:
        self._write_own(self.text, self._text())

    def _write_own(self, name: str, value: float | str) -> None:
        """A value that is to come back as a change; noted before, because that may be quick."""
        self.seen.own.setdefault(name, []).append(value)
        self._write(name, value)

    def _raise(self) -> None:
        self._write(self.alarm, LIMIT + self.serials.next())
        self._write(self.alarm, 0.0)
        if (value := self._read(self.own, [self.alarm])[0]) != 0.0:
            self.complain(WRONG, f"wrote 0 to {self.alarm}, read {value} back")

    def _read_stored(self) -> None:
        """What is in memory is what was told last, or is told next."""
        name = self.rng.choice(RAMP_NAMES)
        before = self.seen.last.get(name)
        value = self.plant.GetTagValue(name)
        after = self.seen.last.get(name)
        self.counts.add("reads")
        if before is not None and after is not None and value not in range(before, after + 2):
            self.complain(WRONG, f"{name} is {value}, told was {before} before and {after} after")

    def _read_ramps(self) -> None:
        """All ramps are in step: what is read is not older than what was told before the call, nor from the future."""
        names = self.rng.sample(READ_NAMES, self.rng.choice((1, 5, 550)))
        told = self.seen.last.get(RAMP_NAMES[-1], 0)
        values = self._read(self.plant, names)
        newest = self.seen.newest()
        if any(type(value) is not int or not told - 1 <= value <= newest for value in values):
            self.complain(WRONG, f"{names[:3]}... are {values[:3]}..., at least {told}, at most {newest:.0f}")
        if max(values) != min(values):  # type: ignore[type-var]
            self.complain(WRONG, f"ramps that are in step were read as {min(values)} to {max(values)}")  # type: ignore[type-var]

    def _settle(self) -> None:
        """Everything that was written comes back, unless the connection ends."""
        waiting = [name for name, values in self.seen.own.items() if values]
        if not waiting or self.rng.random() < 0.7:
            return
        count = {name: len(self.seen.own[name]) for name in waiting}
        # Changes come in the order of their making, so what was written stands before the next of every ramp.
        behind = self._read(self.plant, READ_NAMES[:1])[0] + 1  # type: ignore[operator]
        last, since = None, time.monotonic()
        while any(self.seen.own.values()):
            self.check(OTHER)
            told = self.seen.last.get(RAMP_NAMES[0], 0)
            if told > behind and any(self.seen.own.values()):
                self.complain(LOST, f"writes did not come back before {told}: {count}", sum(count.values()))
            self._read_stored()
            time.sleep(0.02)
            if told != last:
                last, since = told, time.monotonic()
            elif time.monotonic() > since + LATE:
                self._read(self.own, [self.alarm])  # a request: the other connection may be the one that has ended
                self.complain(LATE_END, "nothing comes, and the connection stands")


def main(who: Who, plant_start: float) -> None:
    counts, serials, number = Counts(), Serials(), 0
    while time.monotonic() < who.until and not is_told_to_stop():
        number += 1
        attempt = Plant(who, number, counts)
        check = Check(attempt.complain, plant_start)
        with contextlib.suppress(Over):
            attempt.run(check, who, serials)
        attempt.close(lambda check=check: check.changes)  # type: ignore[misc]
        counts.add("changes", check.changes)
        counts.add("alarms", check.alarms)
        counts.tell()
        del attempt, check
        if number == 1:  # what is allocated once, at the first use, is there now
            tell("usage", when="start", **settled_usage())
    counts.tell(now=True)
    tell("usage", when="end", **settled_usage())
    tell("done")


if __name__ == "__main__":
    port, worker, seed, until, life, plant_start = sys.argv[1:]
    main(Who(f"127.0.0.1:{port}", int(worker), seed, float(until), float(life)), float(plant_start))
