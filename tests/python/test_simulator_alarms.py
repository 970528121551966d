"""Alarms of the simulator, and the system notifications that it mixes into what it pushes."""

from __future__ import annotations

import time
from collections.abc import Callable

from conftest import Simulator
from sim_wire import Alarm, RawClient, typed

Simulators = Callable[..., Simulator]


def other(simulator: Simulators, text: str) -> tuple[str, int]:
    return "127.0.0.1", simulator(text).port


# Alarms.

ALARMS = """
[[driver]]
name = "D"
[[driver.tag]]
name = "液位"
type = "r8"
value = 50
[[driver.tag]]
name = "Speed"
type = "i4"
value = 95
[[driver.tag]]
name = "Door"
type = "bool"

[alarm_lists]
texts = ["保留"]
tags = ["spare", "备用"]

[[alarm]]
driver = "D"
tag = "液位"
high = 80
low = 20.5
dead_band = 5
type = "越限"
group = "水箱"
level = 3
[[alarm]]
driver = "D"
tag = "Speed"
high = 90
type = "超速"
group = "水箱"
level = 255
[[alarm]]
driver = "D"
tag = "Door"
name = "门"
high = 0.5
type = "开门"
group = "保留"
"""


def test_the_alarm_lists_hold_the_given_lines_and_then_those_of_the_alarms(simulator: Simulators) -> None:
    with RawClient(other(simulator, ALARMS)) as client:
        header, texts = client.download("RecData/textlist")
        assert texts.decode("gb2312") == "保留\r\n越限\r\n水箱\r\n超速\r\n开门\r\n"
        assert int(header["Size"], 16) == len(texts)
        assert client.download("RecData/taglist")[1].decode("gb2312") == "spare\r\n备用\r\n液位\r\nSpeed\r\n门\r\n"


def test_an_alarm_is_pushed_when_a_limit_is_passed_and_again_when_it_ends(simulator: Simulators) -> None:
    with RawClient(other(simulator, ALARMS)) as client:
        before = int(time.time())
        active = client.alarms()
        assert [(one.tag, one.kind, one.group, one.level, one.status, one.event) for one in active] == [
            (3, 3, 2, 255, 1, 0)
        ]
        assert (active[0].value, active[0].limit) == (95.0, 90.0)
        assert before - 60 <= active[0].raised <= before + 1
        client.write(((0, 0), typed(5, 80.0)), ((0, 0), typed(5, 80.5)))
        assert client.hear.take(3) == b"\xff\xff\x01"
        raised = Alarm.parse(client.hear.take(32))
        assert raised == Alarm(raised.raised, 0, 2, 1, 2, 3, 1, 80.5, 80.0)
        assert before <= raised.raised <= time.time() + 1
        assert len(client.alarms()) == 2
        client.write(((0, 0), typed(5, 76.0)))  # still within the dead band
        assert client.hear.is_quiet()
        client.write(((0, 0), typed(5, 75.0)))
        assert client.hear.take(3) == b"\xff\xff\x03"
        ended = Alarm.parse(client.hear.take(32))
        assert ended == Alarm(raised.raised, ended.event, 2, 1, 2, 3, 0, 75.0, 80.0)
        assert raised.raised <= ended.event <= time.time() + 1
        assert client.alarms() == active


def test_a_value_that_goes_from_one_limit_to_the_other_ends_one_alarm_and_raises_the_next(
    simulator: Simulators,
) -> None:
    with RawClient(other(simulator, ALARMS)) as client:
        client.alarms()
        client.write(((0, 0), typed(5, 99.0)), ((0, 0), typed(5, 20.0)), ((0, 2), typed(11, 1)))
        news = []
        for _ in range(4):
            kind = client.hear.take(3)[2]
            record = Alarm.parse(client.hear.take(32))
            news.append((kind, record.tag, record.kind, record.value, record.limit, record.status))
        assert news == [
            (1, 2, 1, 99.0, 80.0, 1),
            (3, 2, 1, 20.0, 80.0, 0),
            (1, 2, 1, 20.0, 20.5, 1),
            (1, 4, 4, 1, 0.5, 1),
        ]
        assert [(one.tag, one.value) for one in client.alarms()] == [(3, 95.0), (2, 20.0), (4, 1.0)]


def test_alarms_are_pushed_to_those_who_registered_for_them_only(simulator: Simulators) -> None:
    where = other(simulator, ALARMS)
    with RawClient(where) as client, RawClient(where) as deaf:
        client.alarms()
        deaf.write(((0, 2), typed(11, 1)))
        assert client.hear.take(35)[:3] == b"\xff\xff\x01"
        assert deaf.hear.is_quiet()


# Other system notifications.


def test_system_notifications_of_every_kind_stand_between_the_changes(simulator: Simulators) -> None:
    kinds = [2, *range(4, 23), 255]
    project = (
        f"[server]\nsystem_notifications = {kinds}\nsystem_notification_ms = 30\n"
        '[[driver]]\nname = "D"\n[[driver.tag]]\nname = "O"\ntype = "i4"\n[[driver.tag]]\nname = "T"\ntype = "i4"\n'
    )
    lengths = {2: 7, 4: 43, 5: 7, 6: 20, 7: 7, 8: 5, 255: 3} | {9: 8, 14: 8, 15: 8, 22: 8}
    lengths |= dict.fromkeys(range(10, 14), 15)
    with RawClient(other(simulator, project)) as client:
        seen: list[int] = []
        client.advise([(0, 1)])
        while seen[-len(kinds) :] != kinds:
            assert client.hear.take(2) == b"\xff\xff"
            kind = client.hear.take(1)[0]
            seen.append(kind)
            if 9 <= kind <= 22:
                assert client.hear.take(4) == b"\0\0\x01\0"
            if 16 <= kind <= 21:
                while client.hear.take(1) != b"\0":
                    pass
            else:
                client.hear.take(lengths[kind] - (7 if 9 <= kind <= 22 else 3))
            assert len(seen) < 10 * len(kinds)
        client.write(((0, 1), typed(3, 0x01010101)))
        stream = b""
        while b"\0\0\x01\0\x01\x01\x01\x01" not in stream:
            stream += client.hear.take_once()


def test_notifications_that_name_a_tag_wait_for_a_subscription(simulator: Simulators) -> None:
    project = (
        "[server]\nsystem_notifications = [9, 255]\nsystem_notification_ms = 20\n"
        '[[driver]]\nname = "D"\n[[driver.tag]]\nname = "T"\ntype = "i4"\n'
    )
    with RawClient(other(simulator, project)) as client:
        client.hear.want(b"\xff\xff\xff" * 5)
