"""A client of a soak's fast server (soak_sender.py): every change is compared with the one that must come next.

python soak_fast.py PORT WORKER SEED UNTIL LIFE
"""

from __future__ import annotations

import contextlib
import sys
import time
from collections.abc import Callable

from client import items
from soak_client import Attempt, Counts, Over, Who, is_told_to_stop, lost, settled_usage
from soak_faults import DISORDER, LATE, LOST, WRONG, tell
from soak_sender import READ_TAGS, padding
from soak_stream import ACTIVE, DRIVER, NAMES, UNIT, Told, Unit, alarm_told

OTHER = "泵站"
UNNAMED = "???"
SUBSCRIBED = ",".join(NAMES)
READ_NAMES = [f"Q{number}" for number in range(READ_TAGS)]


class Check:
    """Compares what the callbacks are told with the stream."""

    LOOK_AROUND = 3000  # how far from its place a value is looked for, to say whether it is lost or out of order

    def __init__(self, unit: Unit, complain: Callable[[str, str, int], None]) -> None:
        self.unit = unit
        self._complain = complain
        self._units = 0
        self._failed = False
        self._active = [alarm_told(alarm) for alarm in ACTIVE]  # told before the stream, the last one first
        self.alarms = 0
        self.unnamed_since: float | None = None
        self.on_change, self.on_alarm, self._position = self._callbacks()

    def _callbacks(self) -> tuple[Callable[..., None], Callable[..., None], Callable[[], int]]:
        told, unit_name, position = self.unit.told, NAMES[UNIT], 0
        last = len(told)
        told = [*told, ()]  # the unit's number is compared apart

        def on_change(driver: str, tag: str, value: object) -> None:
            nonlocal position
            if told[position] == (driver, tag, value, value.__class__):
                position += 1
            elif position == last and (driver, tag, value, type(value)) == (DRIVER, unit_name, self._units, int):
                self._units += 1
                position = 0
            else:
                self._differs(position, (driver, tag, value, type(value)))

        def on_alarm(*alarm: object) -> None:
            nonlocal position
            self.alarms += 1
            if self._active:
                if not self._is(alarm, self._active.pop()):
                    self._differs(position, alarm)
            elif self._is(alarm, told[position]):
                position += 1
            else:
                self._differs(position, alarm)

        return on_change, on_alarm, lambda: position

    def _is(self, alarm: Told, wanted: Told) -> bool:
        """A list of names that did not come leaves an alarm without them; then the connection has to end."""
        if UNNAMED in alarm and len(wanted) == len(alarm):
            self.unnamed_since = self.unnamed_since or time.monotonic()
            return all(got in (part, UNNAMED) for got, part in zip(alarm, wanted))
        return alarm == wanted

    def delivered(self) -> int:
        while True:
            units = self._units
            position = self._position()
            if units == self._units:
                return units * self.unit.count + position

    def _differs(self, position: int, got: tuple[object, ...]) -> None:
        if self._failed:
            return
        self._failed = True
        told = self.unit.told
        wanted = told[position] if position < len(told) else ("unit", self._units)
        text = f"notification {self.delivered()} of the stream: {str(got)[:200]} and not {str(wanted)[:200]}"
        later = told[position : position + self.LOOK_AROUND]
        if got in later:
            self._complain(LOST, text, later.index(got))
        elif got in told[max(0, position - self.LOOK_AROUND) : position]:
            self._complain(DISORDER, text, 1)
        elif len(got) == 4 and got[1] == NAMES[UNIT] and isinstance(got[2], int) and got[2] == self._units:
            self._complain(LOST, text, len(told) - position)
        else:
            self._complain(WRONG, text, 1)


class Fast(Attempt):
    """One connection to the fast server."""

    def run(self, check: Check, life: float) -> None:
        if self.report.connect != 0:
            raise Over
        self.stream = check
        self.boiler = self.driver(DRIVER, OTHER)
        self.driver(OTHER, DRIVER)
        self.reads = self.written = 0
        # Half of the clients end by themselves some time, the others wait for what the server does.
        end = time.monotonic() + (life * self.rng.random() if self.rng.random() < 0.3 else 2 * life + 30)
        self._begin()
        turns = [self._read_few, self._read_many, self._read_stored, self._write, self._write_and_read, self._catch_up]
        while time.monotonic() < end:
            self.check(DRIVER)
            if check.unnamed_since and time.monotonic() > check.unnamed_since + LATE:
                self.complain(WRONG, "alarms had no texts, and the connection stands")
            self.counts.tell(more={"changes": check.delivered()})
            self.rng.choice(turns)()
            time.sleep(self.rng.choice((0.0, 0.02, 0.3)) * self.rng.random())

    def _begin(self) -> None:
        check = self.stream
        self.call("SetRtAlarmNotify", lambda: self.db.SetRtAlarmNotify(check.on_alarm, True))
        self.check(DRIVER)
        self.boiler.SetTagNotify(check.on_change)
        if self.call("ConnectTag", lambda: self.boiler.ConnectTag(SUBSCRIBED)) != 1:
            self.failed(DRIVER, "ConnectTag")
        self.counts.add("subscriptions")
        self._read(READ_NAMES)

    def _read(self, names: list[str]) -> None:
        """Each reply says which read it answers and which tag it is of."""
        values = self._values(names)
        self.reads += 1
        wanted = [self.reads * 1000.0 + int(name[1:]) for name in names]
        if values != wanted:
            self.complain(WRONG, f"read {self.reads} of {names[:5]}... gave {values[:5]}... for {wanted[:5]}...")
            raise Over

    def _values(self, names: list[str]) -> list[object]:
        value = self.call("GetTagValue", lambda: self.boiler.GetTagValue(",".join(names)))
        self.counts.add("reads", len(names))
        values: list[object] = items(value) if type(value) is list else [value]
        if value is None or len(values) != len(names):
            self.failed(DRIVER, f"GetTagValue of {len(names)} names")
        return values

    def _one(self, name: str) -> object:
        value = self._values([name])[0]
        self.reads += 1
        return value

    def _read_few(self) -> None:
        self._read(self.rng.sample(READ_NAMES, self.rng.randint(1, 9)))

    def _read_many(self) -> None:
        if self.rng.random() < 0.2:
            self._read(READ_NAMES)

    def _read_stored(self) -> None:
        for _ in range(20):
            tag = self.rng.randrange(14)
            before = self.stream.delivered()
            value = self.boiler.GetTagValue(NAMES[tag])
            after = self.stream.delivered()
            self.counts.add("reads")
            allowed = list(self.stream.unit.stored(tag, before, after))
            if value not in allowed:
                text = f"{NAMES[tag]} is {str(value)[:99]} between notifications {before} and {after}"
                self.complain(WRONG, f"{text}, not one of {str(allowed[:3])[:300]}")
                raise Over
            time.sleep(0)

    def _write(self) -> bool:
        serial = self.written + 1
        text = f"{serial}:{self.stream.delivered()}:{padding(serial)}"
        result = self.call("SetTagValue", lambda: self.boiler.SetTagValue("Written,Counter", [text, serial]))
        if result != 0:
            if result in (-1, -3) and self.stands(DRIVER):
                self.complain(WRONG, f"SetTagValue gave {result}")
            self.failed(DRIVER, f"SetTagValue, {result},")
        self.written, self.text = serial, text
        self.counts.add("writes")
        return True

    def _write_and_read(self) -> None:
        self._write()
        if self.rng.random() < 0.5:
            if (text := self._one("LastWritten")) != self.text:
                self.complain(WRONG, f"wrote {self.text[:40]!r}, read {str(text)[:60]!r} back")
        elif (number := self._one("Counter")) != self.written:
            self.complain(WRONG, f"wrote {self.written}, read {number} back")

    def _catch_up(self) -> None:
        """Everything that the server has sent before it answers must be told, unless the connection ends."""
        sent = self._one("Sent")
        if type(sent) is not int:
            self.complain(WRONG, f"the number of what was sent is {sent!r}")
            raise Over
        delivered, since = self.stream.delivered(), time.monotonic()
        wrote = since
        while delivered < sent:
            self.check(DRIVER)
            time.sleep(0.01)
            now, before, delivered = time.monotonic(), delivered, self.stream.delivered()
            if delivered != before:
                since = now
            if now - since > LATE:
                lost(
                    self, f"{delivered} of {sent} notifications were told, and the connection stands", sent - delivered
                )
            if now - wrote > 0.3:
                wrote = now
                self._write()


def main(who: Who) -> None:
    unit, counts, number = Unit(), Counts(), 0
    while time.monotonic() < who.until and not is_told_to_stop():
        number += 1
        attempt = Fast(who, number, counts)
        check = Check(unit, attempt.complain)
        with contextlib.suppress(Over):
            attempt.run(check, who.life)
        attempt.close(check.delivered)
        counts.add("changes", check.delivered())
        counts.add("alarms", check.alarms)
        counts.tell()
        del attempt, check
        if number == 1:  # what is allocated once, at the first use, is there now
            tell("usage", when="start", **settled_usage())
    counts.tell(now=True)
    tell("usage", when="end", **settled_usage())
    tell("done")


if __name__ == "__main__":
    port, worker, seed, until, life = sys.argv[1:]
    main(Who(f"127.0.0.1:{port}", int(worker), seed, float(until), float(life)))
