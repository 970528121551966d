"""Real-time alarms: the registration and its downloads byte for byte, the ten arguments, and the list files."""

from __future__ import annotations

import math
import os
import struct
import sys
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import replace
from datetime import datetime
from typing import Any

import dialogue as d
import live_wire as w
import pytest
import wire
from client import Session, connect, has_ended, read
from conftest import Play, Serve, mirror, passes_alone, settles
from live_script import SLOWER
from live_wire import TAGS, TEXTS, Alarm, alarm_notification, alarm_reply, list_file, push, registering_alarms

Calls = list[tuple[Any, ...]]
GOES_ON = d.looking_up(["A"], [5]) + d.reading_numbers([5], [7])
NO_LISTS = w.fetching_lists(None, None)


def register(session: Session, existing: int = 0) -> Calls:
    calls: Calls = []
    session.core.SetRtAlarmNotify(lambda *alarm: calls.append(alarm), existing)
    return calls


def told(serve: Serve, *alarms: Alarm, kind: int = 1) -> Calls:
    """What the callback gets for these alarms, pushed one behind the other."""
    session = serve(
        registering_alarms(), d.wait("registered"), push(*(alarm_notification(one, kind) for one in alarms))
    )
    calls = register(session)
    session.peer.go("registered")
    assert settles(lambda: len(calls) == len(alarms))
    return calls


def still_works(session: Session) -> None:
    assert read(session.boiler, "A") == 7


@contextmanager
def time_zone(name: str) -> Iterator[None]:
    before = os.environ.get("TZ")
    os.environ["TZ"] = name
    time.tzset()
    try:
        yield
    finally:
        del os.environ["TZ"]
        if before is not None:
            os.environ["TZ"] = before
        time.tzset()


# The ten arguments.

FULL = Alarm(1_700_000_000, 1_700_000_061, tag=1, kind=0, group=2, level=200, status=255, value=1.25, limit=-0.5)


def test_an_alarm_calls_with_ten_arguments(serve: Serve) -> None:
    [call] = told(serve, FULL)
    alarm_time, event_time, *rest = call
    assert rest == ["一号泵", 1, "high", "group A", 200, 1.25, -0.5, 255]
    assert [type(one) for one in call] == [datetime, datetime, str, int, str, str, int, float, float, int]
    assert alarm_time == datetime.fromtimestamp(1_700_000_000)
    assert event_time == datetime.fromtimestamp(1_700_000_061)
    for moment in (alarm_time, event_time):
        assert moment.tzinfo is None
        assert moment.microsecond == 0
        assert moment.fold == 0


def test_without_a_later_event_its_time_is_the_alarms(serve: Serve) -> None:
    [call] = told(serve, replace(FULL, event_time=0))
    assert call[1] == call[0] == datetime.fromtimestamp(1_700_000_000)
    assert call[3] == 0


def test_an_event_may_be_earlier_than_its_alarm(serve: Serve) -> None:
    [call] = told(serve, replace(FULL, event_time=1))
    assert call[1] == datetime.fromtimestamp(1)
    assert call[3] == 1


@pytest.mark.parametrize("kind", [1, 3])
def test_both_kinds_of_notification_are_alarms(serve: Serve, kind: int) -> None:
    calls = told(serve, FULL, FULL.numbered(2), kind=kind)
    assert [call[7] for call in calls] == [1.25, 2.0]


def test_indices_beyond_their_list_give_question_marks(serve: Serve) -> None:
    cases = {
        (0, 0, 2): ("FIC101", "high", "group A"),
        (1, 1, 1): ("一号泵", "泵站报警", "泵站报警"),
        (2, 0, 0): ("???", "high", "high"),  # a list has two tags and three texts
        (0, 3, 0): ("FIC101", "???", "high"),
        (0, 0, 3): ("FIC101", "high", "???"),
        (65535, 65535, 65535): ("???", "???", "???"),
    }
    calls = told(serve, *(Alarm(tag=tag, kind=kind, group=group) for tag, kind, group in cases))
    assert [(call[2], call[4], call[5]) for call in calls] == list(cases.values())


def test_numbers_pass_through_at_their_ends(serve: Serve) -> None:
    values = [0.0, -0.0, math.inf, -math.inf, 5e-324, sys.float_info.max]
    alarms = [
        Alarm(value=value, limit=-value, level=number, status=255 - number) for number, value in enumerate(values)
    ]
    calls = told(serve, *alarms, Alarm(value=math.nan, limit=math.nan, level=0, status=0))
    got = [(call[6], struct.pack("<dd", call[7], call[8]), call[9]) for call in calls[:-1]]
    assert got == [(n, struct.pack("<dd", value, -value), 255 - n) for n, value in enumerate(values)]
    assert math.isnan(calls[-1][7])
    assert math.isnan(calls[-1][8])


# Local times. The expected ones are written down, so that no library's idea of a zone is asked twice.

MOMENTS = (0, 1_700_000_000, 2**31 - 1, 2**31, 2**32 - 1, 1_711_846_799, 1_711_846_800)
ZONES: dict[str, list[str]] = {
    "UTC0": [
        "1970-01-01 00:00:00",
        "2023-11-14 22:13:20",
        "2038-01-19 03:14:07",
        "2038-01-19 03:14:08",
        "2106-02-07 06:28:15",
        "2024-03-31 00:59:59",
        "2024-03-31 01:00:00",
    ],
    "CST-8": [
        "1970-01-01 08:00:00",
        "2023-11-15 06:13:20",
        "2038-01-19 11:14:07",
        "2038-01-19 11:14:08",
        "2106-02-07 14:28:15",
        "2024-03-31 08:59:59",
        "2024-03-31 09:00:00",
    ],
    # One hour is left out when the last moment but one has passed.
    "CET-1CEST,M3.5.0,M10.5.0/3": [
        "1970-01-01 01:00:00",
        "2023-11-14 23:13:20",
        "2038-01-19 04:14:07",
        "2038-01-19 04:14:08",
        "2106-02-07 07:28:15",
        "2024-03-31 01:59:59",
        "2024-03-31 03:00:00",
    ],
    "NST3:30": [
        "1969-12-31 20:30:00",
        "2023-11-14 18:43:20",
        "2038-01-18 23:44:07",
        "2038-01-18 23:44:08",
        "2106-02-07 02:58:15",
        "2024-03-30 21:29:59",
        "2024-03-30 21:30:00",
    ],
    "<+14>-14": [
        "1970-01-01 14:00:00",
        "2023-11-15 12:13:20",
        "2038-01-19 17:14:07",
        "2038-01-19 17:14:08",
        "2106-02-07 20:28:15",
        "2024-03-31 14:59:59",
        "2024-03-31 15:00:00",
    ],
}
SHOW_TIMES = """
import sys, time
from client import connect
core = connect(sys.argv[1])
seen = []
core.SetRtAlarmNotify(lambda *alarm: seen.append(alarm), 1)
core.GetDriver("Boiler").GetTagValue("A")  # the server pushes the rest now
while len(seen) < int(sys.argv[2]):
    time.sleep(0.002)
for alarm in seen:
    print(alarm[0], alarm[1])
"""


@pytest.mark.parametrize(("zone", "wanted"), ZONES.items(), ids=ZONES)
def test_times_are_those_of_the_machines_zone(
    play: Play, project: str, monkeypatch: pytest.MonkeyPatch, zone: str, wanted: list[str]
) -> None:
    existing = [Alarm(moment, MOMENTS[-1 - number]) for number, moment in enumerate(MOMENTS)]
    notes = push(*(alarm_notification(Alarm(moment, 0)) for moment in MOMENTS))
    peer = play(d.connecting(project) + registering_alarms(existing[::-1]) + GOES_ON + notes)
    monkeypatch.setenv("TZ", zone)
    shown = passes_alone(SHOW_TIMES, peer.host, str(2 * len(MOMENTS))).splitlines()
    # An event time of 0 stands for none.
    events = [first if moment == 0 else event for first, event, moment in zip(wanted, wanted[::-1], MOMENTS[::-1])]
    assert shown == [f"{a} {e}" for a, e in zip(wanted, events)] + [f"{a} {a}" for a in wanted]


def test_an_hour_that_comes_twice_is_no_error(serve: Serve) -> None:
    with time_zone("CET-1CEST,M3.5.0,M10.5.0/3"):
        first = 1_729_987_200  # 2024-10-27 02:00 in summer
        calls = told(serve, Alarm(first), Alarm(first + 3600))
    assert [call[0] for call in calls] == [datetime(2024, 10, 27, 2), datetime(2024, 10, 27, 2)]


# Alarms that are active at the registration.

ACTIVE = [Alarm().numbered(number) for number in range(1, 4)]


def test_alarms_pushed_while_the_registration_is_under_way_come_after_it(serve: Serve) -> None:
    session = serve(
        d.want("req", w.ALARM) + push(alarm_notification(FULL.numbered(2))),
        d.send("req", alarm_reply([FULL.numbered(1)])) + push(alarm_notification(FULL.numbered(3))),
        w.fetching_lists() + push(alarm_notification(FULL.numbered(4))),
    )
    calls = register(session, existing=1)
    assert settles(lambda: len(calls) == 4)
    assert [(call[7], call[2]) for call in calls] == [(number, "一号泵") for number in (1.0, 2.0, 3.0, 4.0)]


@pytest.mark.bulk
def test_a_server_may_push_any_amount_before_it_lets_the_lists_be_fetched(serve: Serve) -> None:
    # More than the sockets hold: it could not go on to the lists if the stream were not read meanwhile.
    many = [w.change(5, wire.VT_I4, number) for number in range(1_000_000)]
    session = serve(
        w.subscribing(["A"], [5], [wire.typed(wire.VT_I4, 0)]),
        d.want("req", w.ALARM) + d.send("req", alarm_reply()) + push(alarm_notification(FULL), *many),
        w.fetching_lists() + push(alarm_notification(FULL.numbered(2))),
    )
    assert session.boiler.ConnectTag("A") == 1
    calls = register(session)
    assert settles(lambda: len(calls) == 2, 30)
    assert [(call[7], call[2]) for call in calls] == [(1.25, "一号泵"), (2.0, "一号泵")]
    assert read(session.boiler, "A") == 999_999


def test_active_alarms_come_last_first_before_the_registration_returns(serve: Serve) -> None:
    session = serve(registering_alarms(ACTIVE), GOES_ON)
    calls: Calls = []
    threads = set()

    def on_alarm(*alarm: object) -> None:
        threads.add(threading.get_ident())
        calls.append(alarm)

    session.core.SetRtAlarmNotify(on_alarm, 1)
    assert [call[7] for call in calls] == [3.0, 2.0, 1.0]
    assert calls[0][2:6] == ("FIC101", 0, "high", "high")  # the lists are there by then
    assert threads == {threading.get_ident()}
    still_works(session)
    assert len(calls) == 3


def test_active_alarms_are_read_and_dropped_when_nobody_wants_them(serve: Serve) -> None:
    session = serve(registering_alarms(ACTIVE), d.wait("registered"), push(alarm_notification(FULL)), GOES_ON)
    calls = register(session, existing=0)
    assert calls == []
    session.peer.go("registered")
    assert settles(lambda: len(calls) == 1)
    assert calls[0][7] == 1.25
    still_works(session)


@pytest.mark.parametrize("existing", [1, -1, 2, True])
def test_any_number_but_zero_wants_active_alarms(serve: Serve, existing: int) -> None:
    assert len(register(serve(registering_alarms(ACTIVE)), existing)) == 3


def test_as_many_active_alarms_as_can_be_announced_are_read(serve: Serve) -> None:
    session = serve(registering_alarms([FULL] * 65_535), GOES_ON)
    assert register(session, 0) == []
    still_works(session)


def test_many_active_alarms_are_delivered(serve: Serve) -> None:
    count = 20_000 // SLOWER
    session = serve(registering_alarms([Alarm().numbered(number) for number in range(count)]), GOES_ON)
    calls = register(session, 1)
    assert [call[7] for call in calls] == [float(number) for number in range(count - 1, -1, -1)]
    still_works(session)


def test_records_of_active_alarms_may_come_in_pieces(serve: Serve) -> None:
    reply = alarm_reply(ACTIVE)
    pieces = d.send("req", reply[:3]) + d.trickle("req", reply[3:], 0.001)
    session = serve(d.want("req", b"n") + pieces + w.fetching_lists(), GOES_ON)
    assert [call[7] for call in register(session, 1)] == [3.0, 2.0, 1.0]
    still_works(session)


# Registration.


def test_the_request_is_one_byte_and_the_lists_follow(serve: Serve) -> None:
    request = b"n"
    textlist = b"4RecData/textlist\r\nHello:Yes\r\n\r\n"
    taglist = b"4RecData/taglist\r\nHello:Yes\r\n\r\n"
    session = serve(
        d.want("req", request) + d.send("req", b"n\0\0"),
        d.want("req", textlist) + d.send("req", wire.download_reply(list_file(TEXTS), w.FILE_TIME)),
        d.want("req", taglist) + d.send("req", wire.download_reply(list_file(TAGS), w.FILE_TIME)),
        GOES_ON,
    )
    register(session)
    still_works(session)


def test_downloaded_lists_stay_in_the_mirror(serve: Serve, project: str) -> None:
    session = serve(registering_alarms())
    register(session)
    folder = mirror(session.peer.host, project) / "RecData"
    assert (folder / "textlist").read_bytes() == list_file(TEXTS)
    assert (folder / "taglist").read_bytes() == list_file(TAGS)
    assert (folder / "textlist").stat().st_mtime == w.FILE_TIME


def test_copies_of_an_earlier_session_are_offered_and_used(play: Play, project: str) -> None:
    body = wire.directory(d.DRIVERS)
    use_last = wire.download_header(UseLast="Yes")
    last = [(w.FILE_TIME, len(list_file(entries))) for entries in (TEXTS, TAGS)]
    changed = list_file(["other", *TAGS])
    peer = play(
        d.connecting(project)
        + registering_alarms()
        + d.want_eof("req", "rcv")
        + d.up_to_directory(project, body)
        + d.want("req", b"n")
        + d.send("req", alarm_reply([FULL]))
        + d.fetching(use_last, wire.download_request(w.TEXT_LIST, last[0]))
        + d.fetching(wire.download_reply(changed, w.FILE_TIME + 9), wire.download_request(w.TAG_LIST, last[1]))
    )
    calls: Calls = []
    core = connect(peer.host)
    core.SetRtAlarmNotify(print, 0)
    del core
    core = connect(peer.host)
    core.SetRtAlarmNotify(lambda *alarm: calls.append(alarm), 1)
    assert [call[2:6] for call in calls] == [("FIC101", 1, "high", "group A")]


def test_the_first_registration_wins_and_a_second_sends_nothing(serve: Serve) -> None:
    session = serve(registering_alarms(), w.SILENT, push(alarm_notification(FULL), alarm_notification(FULL)))
    first = register(session)
    second = register(session, 1)
    third = register(session, 0)
    session.peer.until("silent")
    assert settles(lambda: len(first) == 2)
    assert second == third == []


def test_a_callback_must_be_callable(serve: Serve) -> None:
    session = serve(w.SILENT, registering_alarms(ACTIVE))
    method: Callable[..., None] = session.core.SetRtAlarmNotify
    for thing in (None, 42, "print", [print], object()):
        with pytest.raises(TypeError, match=r"^parameter must be callable$"):
            method(thing, 1)
    for arguments in ((), (print,), (print, "1"), (print, 1.0), (print, None), (print, 1, 2)):
        with pytest.raises(TypeError):
            method(*arguments)
    with pytest.raises(OverflowError):
        method(print, 2**40)
    session.peer.until("silent")
    assert len(register(session, 1)) == 3  # none of them was registered


def failed(serve: Serve, *said: d.Steps) -> None:
    """A registration answered like this fails in silence and ends the connection."""
    session = serve(d.want("req", b"n"), *said)
    started = time.monotonic()
    assert register(session, 1) == []
    assert time.monotonic() - started < 6  # not the time-out
    assert register(session, 1) == []
    has_ended(session)


@pytest.mark.parametrize("command", [b"0", b"N", b"b", b"\0"])
def test_a_reply_with_another_first_byte_fails(serve: Serve, command: bytes) -> None:
    failed(serve, d.send("req", alarm_reply(ACTIVE, command=command)))


def test_a_refusal_of_one_byte_fails_at_once(serve: Serve) -> None:
    failed(serve, d.send("req", b"0"))


@pytest.mark.parametrize("end", [d.end_sending("req"), d.reset("req")], ids=["closed", "reset"])
@pytest.mark.parametrize("got", [0, 1, 2, 3, 4, 34, 35, 98])
def test_a_reply_that_ends_early_fails(serve: Serve, got: int, end: d.Steps) -> None:
    sent = alarm_reply(ACTIVE)[:got]
    ended = end + (d.drain("req") if end[0][0] == "end_sending" else [])
    failed(serve, (d.send("req", sent) if sent else []) + ended)


def test_a_failed_registration_leaves_alarms_to_nobody(serve: Serve, project: str) -> None:
    again = d.up_to_directory(project, wire.directory(d.DRIVERS))  # the copy in the mirror is current by then
    session = serve(
        d.want("req", b"n") + push(alarm_notification(FULL)) + d.pause(0.05) + d.send("req", b"0"),
        d.want_eof("req", "rcv"),
        again + registering_alarms(),
        d.wait("registered") + push(alarm_notification(FULL.numbered(2))),
    )
    refused = register(session)
    assert session.core.Connect(session.peer.host, d.USER, d.PASSWORD) == 0
    calls = register(session)
    session.peer.go("registered")
    assert settles(lambda: len(calls) == 1)
    assert calls[0][7] == 2.0
    assert refused == []


def test_without_a_connection_nothing_is_registered(serve: Serve) -> None:
    session = serve(d.wait("connected") + d.reset("rcv") + d.want_eof("req"))
    session.peer.go("connected")
    session.peer.finish()
    assert register(session, 1) == []


FULL_DISK = """
import resource, sys
from client import connect
def texts():
    calls = []
    core = connect(sys.argv[1])
    core.SetRtAlarmNotify(lambda *alarm: calls.append((alarm[2], alarm[4])), 1)
    return calls
assert texts() == [("FIC101", "high")]
resource.setrlimit(resource.RLIMIT_FSIZE, (100, resource.RLIM_INFINITY))
assert texts() == [("FIC101", "???")]
"""


def test_a_list_that_cannot_be_written_gives_question_marks_and_not_the_old_texts(play: Play, project: str) -> None:
    tag_list = list_file(TAGS)
    once = d.want("req", w.ALARM) + d.send("req", alarm_reply([Alarm(kind=0)]))
    new = list_file([f"{n:050d}" for n in range(10)])
    again = d.up_to_login(project, size=len(wire.directory(d.DRIVERS))) + d.logging_in() + once
    again += d.fetching(
        wire.download_reply(new, w.FILE_TIME + 9),
        wire.download_request(w.TEXT_LIST, last=(w.FILE_TIME, len(list_file(TEXTS)))),
    )
    again += d.fetching(
        wire.download_header(UseLast="Yes"), wire.download_request(w.TAG_LIST, last=(w.FILE_TIME, len(tag_list)))
    )
    peer = play(d.connecting(project) + once + w.fetching_lists() + d.want_eof("req", "rcv") + again)
    passes_alone(FULL_DISK, peer.host)


def test_surplus_behind_the_records_is_no_list(serve: Serve) -> None:
    surplus = wire.download_reply(list_file(["false"] * 3), w.FILE_TIME)
    failed(serve, d.send("req", alarm_reply([FULL]) + surplus))


def test_lists_are_loaded_once_and_a_registration_survives_a_loss(serve: Serve, project: str) -> None:
    again = d.up_to_directory(project, wire.directory(d.DRIVERS))  # the copy in the mirror is current by then
    session = serve(
        registering_alarms() + d.wait("registered") + push(alarm_notification(FULL)),
        d.wait("lose") + d.reset("rcv") + d.want_eof("req") + d.tell("lost"),
        again + w.SILENT + push(alarm_notification(FULL.numbered(2))),
    )
    calls = register(session)
    session.peer.go("registered")
    assert settles(lambda: len(calls) == 1)
    session.peer.go("lose")
    session.peer.until("lost")
    assert session.core.Connect(session.peer.host, d.USER, d.PASSWORD) == 0
    later = register(session, 1)  # there is a receiver already, so nothing is sent
    session.peer.until("silent")
    assert settles(lambda: len(calls) == 2)
    assert calls[1][2:8] == ("一号泵", 1, "high", "group A", 200, 2.0)
    assert later == []


# List files.

LISTS: dict[str, tuple[bytes, list[str]]] = {
    "line feeds": (b"a\nb\nc\n", ["a", "b", "c"]),
    "no line end at the end": (b"a\nb", ["a", "b"]),
    "CR LF": (b"a\r\nb\r\n", ["a", "b"]),
    "a CR at the end": (b"a\nb\r", ["a", "b"]),
    "empty lines": (b"\n\na\n\nb\r\n\r\nc", ["a", "b", "c"]),
    "CRs inside": (b"a\rb\nc\r\r\n", ["a\rb", "c\r"]),
    "blanks": (b" a \n \n\t\n", [" a ", " ", "\t"]),
    "GB2312": ("泵站\n一号泵,压力\r\nmixed 报警".encode("gb2312"), ["泵站", "一号泵,压力", "mixed 报警"]),
    "the longest line": (b"x" * 255 + b"\n" + b"y", ["x" * 255, "y"]),
    "a line too long": (b"x" * 256 + b"\r\n" + b"z" * 3000 + b"\ny", ["x" * 255, "z" * 255, "y"]),
    "a NUL": (b"a\0b\n\0c\nd", ["a", "d"]),
    "nothing": (b"", []),
    "line ends alone": (b"\r\n\n\r\n\r", []),
    "many": (b"".join(b"entry %d\n" % number for number in range(5000)), [f"entry {number}" for number in range(5000)]),
}


@pytest.mark.parametrize(("file", "entries"), LISTS.values(), ids=LISTS)
def test_a_list_has_the_entries_of_its_lines(serve: Serve, file: bytes, entries: list[str]) -> None:
    shown = [*range(min(len(entries), 10)), *range(max(len(entries) - 3, 0), len(entries) + 2), 65535]
    active = [Alarm(tag=number, kind=number, group=number) for number in shown]
    session = serve(registering_alarms(active[::-1], file, file), GOES_ON)
    wanted = [entries[number] if number < len(entries) else "???" for number in shown]
    assert [(call[2], call[4], call[5]) for call in register(session, 1)] == [(one, one, one) for one in wanted]
    still_works(session)


@pytest.mark.parametrize("missing", ["texts", "tags", "both"])
def test_a_list_that_the_server_lacks_gives_question_marks(serve: Serve, missing: str) -> None:
    texts = list_file(TEXTS) if missing == "tags" else None
    tags = list_file(TAGS) if missing == "texts" else None
    session = serve(registering_alarms([FULL], texts, tags), GOES_ON, push(alarm_notification(FULL)))
    calls = register(session, 1)
    wanted = ("一号泵" if tags else "???", 1, "high" if texts else "???", "group A" if texts else "???")
    assert [call[2:6] for call in calls] == [wanted]
    still_works(session)
    assert settles(lambda: len(calls) == 2)
    assert calls[1][2:6] == wanted


def test_a_connection_that_ends_while_its_lists_are_fetched_registers_nobody(serve: Serve, project: str) -> None:
    again = d.up_to_directory(project, wire.directory(d.DRIVERS))  # the copy in the mirror is current by then
    session = serve(
        d.want("req", b"n") + d.send("req", alarm_reply([FULL])),
        d.want("req", wire.download_request(w.TEXT_LIST)) + d.end_sending("req") + d.want_eof("req", "rcv"),
        again + registering_alarms([FULL]),
    )
    assert register(session, 1) == []
    assert session.core.Connect(session.peer.host, d.USER, d.PASSWORD) == 0
    assert [call[2:6] for call in register(session, 1)] == [("一号泵", 1, "high", "group A")]


def test_lists_come_with_flow_control_too(serve: Serve) -> None:
    texts = [f"text {number} " + "x" * 200 for number in range(1500)]
    body = list_file(texts)
    assert len(body) > 2 * 131072
    header = wire.download_header(Size=len(body), FileTime=w.FILE_TIME, Hello="Yes")
    session = serve(
        d.want("req", b"n") + d.send("req", alarm_reply([Alarm(kind=1499)])),
        d.want("req", wire.download_request(w.TEXT_LIST)) + d.sending_by_windows(header + body),
        d.fetching(w.ABSENT, wire.download_request(w.TAG_LIST)),
        GOES_ON,
    )
    assert [call[4] for call in register(session, 1)] == [texts[1499]]
    still_works(session)
