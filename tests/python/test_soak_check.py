"""The checks of the soak (tests/soak) themselves: what they are made to find is found, and told by its kind."""

from __future__ import annotations

import json
import socket
import sys
import time

import pytest
from conftest import CHECKOUT

sys.path.append(str(CHECKOUT / "tests" / "soak"))

import soak
import soak_client
import soak_fast
import soak_plant
from soak_faults import DISORDER, LATE, LATE_END, LOST, NO_CAUSE, WRONG, ClientReport, ServerReport
from soak_project import LIMIT, PERIOD_MS, PLANT
from soak_stream import ACTIVE, DRIVER, KINDS, NAMES, UNIT, Told, Unit, alarm_told

Found = list[tuple[str, int]]


@pytest.fixture(scope="module")
def unit() -> Unit:
    return Unit()


def told_of(unit: Unit, count: int) -> list[Told]:
    """What a client is told of the stream's first notifications."""
    numbers: list[Told] = [(DRIVER, NAMES[UNIT], number, int) for number in range(1 + count // unit.count)]
    return [told for number in numbers for told in (*unit.told, number)][:count]


def feed(unit: Unit, stream: list[Told]) -> tuple[Found, int]:
    """What the check of a fast client finds in this, and how much of it was right."""
    found: Found = []
    check = soak_fast.Check(unit, lambda what, _, count: found.append((what, count)))
    for alarm in reversed(ACTIVE):
        check.on_alarm(*alarm_told(alarm))
    for told in stream:
        if len(told) == 4:
            check.on_change(*told[:3])
        else:
            check.on_alarm(*told)
    return found, check.delivered()


def test_the_stream_as_it_was_sent_has_nothing_wrong(unit: Unit) -> None:
    count = 2 * unit.count + 50
    assert feed(unit, told_of(unit, count)) == ([], count)


@pytest.mark.parametrize("at", [0, 1, 500, 8429])
def test_a_change_left_out_is_lost(unit: Unit, at: int) -> None:
    stream = told_of(unit, 9000)
    assert feed(unit, stream[:at] + stream[at + 1 :]) == ([(LOST, 1)], at)
    assert feed(unit, stream[:at] + stream[at + 40 :]) == ([(LOST, 40)], at)


def test_a_whole_unit_left_out_or_twice_is_seen(unit: Unit) -> None:
    stream = told_of(unit, 3 * unit.count)
    assert feed(unit, stream[unit.count :])[0] == [(WRONG, 1)]
    assert feed(unit, stream[: unit.count] + stream[:])[0] == [(WRONG, 1)]


def test_a_change_that_comes_again_is_out_of_order(unit: Unit) -> None:
    stream = told_of(unit, 600)
    assert feed(unit, [*stream[:500], *stream[499:]])[0] == [(DISORDER, 1)]


@pytest.mark.parametrize("value", [327681, 2.8e-309, "x", True, -1.0])
def test_a_value_that_nobody_sent_is_wrong(unit: Unit, value: object) -> None:
    stream = told_of(unit, 600)
    assert feed(unit, [*stream[:500], (DRIVER, NAMES[3], value, type(value)), *stream[500:]])[0] == [(WRONG, 1)]


def test_a_value_of_the_wrong_type_is_wrong(unit: Unit) -> None:
    driver, tag, value, kind = unit.told[2]
    assert (value, kind) == (0.0, float)
    assert feed(unit, [*unit.told[:2], (driver, tag, 0, int)]) == ([(WRONG, 1)], 2)


def test_the_bytes_of_the_stream_hold_what_is_told(unit: Unit) -> None:
    start = unit.size - 30
    assert unit.bytes_at(start, start + 60) == (unit.bytes_at(0, 2 * unit.size))[start : start + 60]
    assert [unit.count_at(size) for size in (0, unit.ends[0] - 1, unit.ends[0], unit.size - 1, unit.size)] == [
        *(0, 0, 1, unit.count - 1, unit.count)
    ]
    assert len(KINDS) == len(NAMES)


@pytest.mark.parametrize(("before", "after"), [(0, 0), (20, 20), (5000, 5003), (14_030, 14_040)])
def test_a_stored_value_is_the_last_one_told_or_the_next(unit: Unit, before: int, after: int) -> None:
    stream, tag = told_of(unit, after + 1), 1
    so_far = [told[2] for told in stream[:before] if told[1] == NAMES[tag]]
    since = [told[2] for told in stream[before:] if told[1] == NAMES[tag]]
    assert set(unit.stored(tag, before, after)) == {(so_far or [0])[-1], *since}


def plant_check(found: Found) -> soak_plant.Check:
    a_minute_ago = time.monotonic() - 60
    return soak_plant.Check(lambda what, _, count: found.append((what, count)), a_minute_ago)


@pytest.mark.parametrize(
    ("values", "finds"),
    [
        ([7, 8, 9], []),
        ([7, 8, 11], [(LOST, 2)]),
        ([7, 8, 8], [(DISORDER, 1)]),
        ([7, 8, 7], [(DISORDER, 1)]),
        ([7, 8, 60_000 // PERIOD_MS * 10], [(WRONG, 1)]),
        ([7, 8, 9.0], [(WRONG, 1)]),
    ],
)
def test_a_ramp_is_told_step_by_step(values: list[object], finds: Found) -> None:
    found: Found = []
    check = plant_check(found)
    for value in values:
        check.on_plant(PLANT, "R00", value)
    assert found == finds


def test_writes_come_back_once_and_in_order() -> None:
    found: Found = []
    check = plant_check(found)
    check.own["N0"] = [1, 2, 3, 4]
    for value, finds in ((1, 0), (2, 0), (2, 1), (4, 2), (5, 3)):
        check.on_own("Own", "N0", value)
        assert len(found) == finds
    assert [what for what, _ in found] == [WRONG, LOST, WRONG]


def test_alarms_alternate() -> None:
    def alarm(value: float, status: int) -> tuple[object, ...]:
        return (None, None, "A1", 1 - status, "高", "G1", 0, value, LIMIT, status)

    found: Found = []
    check = plant_check(found)
    for told in (alarm(LIMIT + 5, 1), alarm(0.0, 0), alarm(LIMIT + 6, 1)):
        check.on_alarm(*told)
    assert found == []
    check.on_alarm(*alarm(LIMIT + 7, 1))
    check.on_alarm(*alarm(1.0, 1))
    check.on_alarm(*alarm(0.0, 0)[:2], "A2", *alarm(0.0, 0)[3:])
    assert found == [(LOST, 1), (WRONG, 1), (WRONG, 1)]


def told(judge: soak.Judge, *reports: ServerReport | ClientReport) -> dict[str, int]:
    for report in reports:
        side = "server" if isinstance(report, ServerReport) else "client"
        judge.take("sender 0" if side == "server" else "fast 0", {"kind": "attempt", "side": side, **vars(report)})
    return {what: count for what, count in judge.violations.items() if count}


@pytest.mark.parametrize(
    ("server", "client", "finds"),
    [
        ({}, {}, {}),
        ({"fault_at": 50.0, "must_end_at": 51.0}, {"ended_at": 52.0}, {}),
        ({"fault_at": 50.0, "must_end_at": 51.0}, {"ended_at": 52.0 + LATE}, {LATE_END: 1}),
        ({"fault_at": 50.0, "must_end_at": 51.0}, {"closed_at": 52.0 + LATE}, {LATE_END: 1}),
        ({"gave_up_at": 51.0}, {"closed_at": 52.0 + LATE}, {LATE_END: 1}),
        ({}, {"ended_at": 52.0}, {NO_CAUSE: 1}),
        ({"gave_up_at": 51.0}, {"ended_at": 52.0}, {NO_CAUSE: 1}),
        ({"fault_at": 55.0}, {"ended_at": 52.0}, {NO_CAUSE: 1}),
        ({"may_end": True}, {"ended_at": 52.0}, {}),
        ({"sent": 100}, {"delivered": 101}, {WRONG: 1}),
        ({"sent": 100}, {"delivered": 99}, {}),
        ({"sent": 100, "last": 90}, {"delivered": 90}, {}),
        ({"sent": 100, "last": 90}, {"delivered": 91}, {LATE_END: 1}),
        ({}, {"ended_at": 52.0, "connect": -2}, {NO_CAUSE: 1}),
        ({}, {"ended_at": 52.0, "connect": -3}, {NO_CAUSE: 1}),
        ({"fault_at": 51.0}, {"ended_at": 52.0, "connect": -2}, {}),
        ({"fault_at": 52.5}, {"ended_at": 52.0, "connect": -2}, {}),  # noted by another process in the same moment
        ({"fault_at": 55.0}, {"ended_at": 52.0, "connect": -2}, {NO_CAUSE: 1}),
        ({"may_end": True}, {"ended_at": 52.0, "connect": -2}, {}),
        ({"must_end_at": 0.0, "fault_at": 0.0}, {"ended_at": 52.0, "connect": -2}, {}),  # Connect has its own bound
        ({}, {"ended_at": 52.0, "connect": -2, "violated": True}, {}),  # counted already
        ({"started_at": 47.0}, {"started_at": 46.5, "ended_at": 52.0, "connect": -2}, {NO_CAUSE: 1}),
        ({"started_at": 47.0}, {"started_at": 40.0, "ended_at": 52.0, "connect": -2}, {}),  # nobody listened so long
        ({"started_at": 47.0}, {"started_at": 40.0, "ended_at": 52.0}, {NO_CAUSE: 1}),  # taken up all the same
        ({"started_at": 47.0}, {"started_at": 48.0, "ended_at": 52.0, "connect": -2}, {}),  # not the same attempt
        ({"started_at": 54.0}, {"ended_at": 52.0, "connect": -2}, {}),
    ],
)
def test_the_two_sides_of_an_attempt_are_compared(
    server: dict[str, float], client: dict[str, float], finds: dict[str, int]
) -> None:
    theirs, ours = ServerReport(0, 1, "fin ask"), ClientReport(0, 1, connect=0, closed_at=53.0)
    vars(theirs).update(server)
    vars(ours).update(client)
    assert told(soak.Judge(), theirs, ours) == finds


def test_an_attempt_of_one_side_alone_is_told_at_the_end() -> None:
    judge = soak.Judge()
    for attempt in range(1, 9):
        theirs = [ServerReport(0, attempt, "stall hear")] if attempt not in (4, 6) else []
        ours = [ClientReport(0, attempt, connect=0, closed_at=1.0)] if attempt != 8 else []
        assert told(judge, *ours, *theirs) == {}
    assert sorted(judge.unmatched()) == [
        "fast 0: only the client's side has reported, in 2 attempts, of which the first is 4",
        "fast 0: only the server's side has reported, in 1 attempts, of which the first is 8",
    ]


def test_sides_that_count_attempts_differently_are_told_at_the_end() -> None:
    # The server's side has missed attempt 3: what it calls so is attempt 4, in which nothing was done to the client.
    judge = soak.Judge()
    for attempt in range(1, 6):
        ours = ClientReport(0, attempt, connect=-2, started_at=10.0 * attempt, ended_at=10.0 * attempt + 9)
        ours.closed_at = 10.0 * attempt + 9
        assert told(judge, ours) == {}
    for attempt, started in enumerate((10.1, 20.1, 40.1, 50.1), start=1):
        assert told(judge, ServerReport(0, attempt, "fin ask", started_at=started, may_end=attempt < 3)) == {}
    assert sorted(judge.unmatched()) == [
        "fast 0: only the client's side has reported, in 1 attempts, of which the first is 5",
        "fast 0: the two sides did not run together, in 2 attempts, of which the first is 3",
    ]


def test_sides_that_agree_leave_nothing_unmatched() -> None:
    judge = soak.Judge()
    assert told(judge, ServerReport(0, 1, "fin ask"), ClientReport(0, 1, connect=0, closed_at=1.0)) == {}
    assert judge.unmatched() == []


def test_a_failed_connect_is_reported_with_its_time(capsys: pytest.CaptureFixture[str]) -> None:
    judge = soak.Judge()
    with socket.socket() as nobody:  # has the port and does not listen
        nobody.bind(("127.0.0.1", 0))
        host = f"127.0.0.1:{nobody.getsockname()[1]}"
        counts = soak_client.Counts()
        attempt = soak_client.Attempt(soak_client.Who(host, 0, "seed", time.monotonic(), 1.0), 1, counts)
        theirs = ServerReport(0, 1, "fin ask", started_at=attempt.report.started_at)
        attempt.close(lambda: 0)
    judge.take("fast 0", json.loads(capsys.readouterr().out))
    assert told(judge, theirs) == {NO_CAUSE: 1}
    assert f"Connect gave {attempt.report.connect}, " in capsys.readouterr().err
    assert (counts.values["connects_failed"], counts.values["drops"]) == (1, 0)
