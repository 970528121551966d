"""Project files: what they describe, how tags move, and what is said of the mistakes in them."""

from __future__ import annotations

import re
import struct
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest
from conftest import CHECKOUT, Simulator
from sim_wire import PATIENCE, RawClient, typed

Simulators = Callable[..., Simulator]


def run(program: Path, *arguments: str | Path, expect: int) -> tuple[str, str]:
    """What it writes to its two outputs before it ends by itself."""
    done = subprocess.run(
        [program, *arguments], capture_output=True, text=True, timeout=PATIENCE, check=False, stdin=subprocess.DEVNULL
    )
    assert done.returncode == expect, done.stderr
    return done.stdout, done.stderr


def driver(*tags: str) -> str:
    return '[[driver]]\nname = "D"\n' + "".join(f"[[driver.tag]]\n{tag}\n" for tag in tags)


def moving(motion: str, kind: str = "r8") -> str:
    return driver(f'name = "T"\ntype = "{kind}"\nmotion = {{ {motion} }}')


T = 'name = "T"\ntype = "i4"'
ALARM = driver(T, 'name = "S"\ntype = "str"') + '[[alarm]]\ndriver = "D"\ntag = "T"\ntype = "t"\ngroup = "g"\n'


@pytest.mark.parametrize(
    ("text", "line", "complaint"),
    [
        ("[project\n", 1, ""),
        ("\n\nx = \n", 3, ""),
        ("a = 1\na = 2\n", 2, ""),
        ("\n[é]\n", 2, "saw 'é'"),
        ("\nx = 1 、\n", 2, "saw '、'"),
        ("\nnonsense = 1\n", 2, '"nonsense"'),
        ("[project]\nname = 5\n", 2, "name: must be a text"),
        ('[project]\nname = "🙂"\n', 2, "GB2312"),
        (f'[project]\nname = "{"n" * 201}"\n', 2, "200 bytes"),
        ('[project]\ntime = "noon"\n', 2, "2024-05-06T07:08:09Z"),
        ("[project]\ntime = 2024-05-06T07:08:09\n", 2, "2024-05-06T07:08:09Z"),
        ("[server]\nblock_size = 4097\n", 2, "from 1 to 4096"),
        ("[server]\nblock_size = 0\n", 2, "from 1 to 4096"),
        ('[server]\nrefuse = "all"\n', 2, "nothing, open, register"),
        ("[server]\nsystem_notifications = [2, 3]\n", 2, "sub-types"),
        ("server = 5\n", 1, "must be a table"),
        ("user = 5\n", 1, "[[user]]"),
        ('[[user]]\npassword = "x"\n', 1, "needs a key name"),
        ('[[user]]\nname = "x"\nrights = -1\n', 3, "rights"),
        (f'[[user]]\nname = "{"u" * 254}"\n', 1, "too long"),
        ("[[driver]]\n", 1, "needs a key name"),
        (driver() + driver(), 4, "another driver"),
        (driver(T, T), 7, "already"),
        (driver('name = "T"\ntype = "i3"'), 5, "none of: i4"),
        (driver('name = ""'), 4, "comma"),
        (driver('name = "a,b"'), 4, "comma"),
        (driver('name = " a"'), 4, "blank"),
        (driver('name = "a ß"'), 4, "GB2312"),
        (driver(f'name = "{"n" * 254}"'), 4, "253 bytes"),
        (driver(T + "\nvalue = 2.5"), 6, "whole number"),
        (driver(T + "\nvalue = 2147483648"), 6, "range"),
        (driver('name = "T"\ntype = "ui1"\nvalue = -1'), 6, "range"),
        (driver('name = "T"\ntype = "bool"\nvalue = 1'), 6, "true or false"),
        (driver('name = "T"\ntype = "r8"\nvalue = "1"'), 6, "number"),
        (driver('name = "T"\ntype = "str"\nvalue = 1'), 6, "text"),
        (driver(f'name = "T"\ntype = "str"\nvalue = "{"x" * 4001}"'), 6, "4000 bytes"),
        (driver('name = "T"\ntype = "date"\nvalue = "2024"'), 6, "date"),
        (driver('name = "T"\ntype = "empty"\nvalue = 0'), 6, "left out"),
        (driver(T + "\ncolour = 1"), 6, '"colour"'),
        (driver(T + "\ncount = 2"), 4, "%05d"),
        (driver('name = "T%d%d"\ncount = 2'), 4, "%05d"),
        (driver('name = "T%s"\ncount = 2'), 4, "%05d"),
        (driver('name = "T%d"\ncount = 65535', T), 6, "at most 65535 tags"),
        (driver(T + "\nperiod_ms = 0"), 6, "period_ms"),
        (moving('kind = "jump"'), 6, "none of: echo"),
        (moving('kind = "sine", low = 1, high = 2'), 6, "cycle_s"),
        (moving('kind = "sine", low = 2, high = 1, cycle_s = 1'), 6, "above low"),
        (moving('kind = "sine", low = 1, high = 2, cycle_s = 0'), 6, "above 0"),
        (moving('kind = "ramp", low = 1, high = nan, step = 1'), 6, "finite"),
        (moving('kind = "ramp", low = 1, high = 2, step = 1, cycle_s = 1'), 6, '"cycle_s"'),
        (moving('kind = "echo", of = "T"'), 6, "another tag"),
        (moving('kind = "echo", of = "U"'), 6, "another tag"),
        (moving('kind = "cycle", values = []'), 6, "values"),
        (moving('kind = "cycle", values = [1, "2"]'), 6, "number"),
        (moving('kind = "sine", low = 1, high = 2, cycle_s = 1', "str"), 6, "cycle"),
        (moving('kind = "cycle", values = [1]', "empty"), 6, "empty"),
        (ALARM, 9, "high or low"),
        (ALARM + "high = 1\nlow = 2\n", 14, "below low"),
        (ALARM + "high = 1\ndead_band = -1\n", 15, "negative"),
        (ALARM.replace('driver = "D"\n', 'driver = "X"\n') + "high = 1\n", 10, '"X"'),
        (ALARM.replace('tag = "T"\n', 'tag = "X"\n') + "high = 1\n", 11, '"X"'),
        (ALARM.replace('tag = "T"\n', 'tag = "S"\n') + "high = 1\n", 11, "number"),
        (ALARM.replace('type = "t"', r'type = "a\nb"') + "high = 1\n", 12, "one line"),
        ('[alarm_lists]\ntexts = ["a", ""]\n', 2, "empty"),
        ('[[file]]\nname = "x"\ntext = "a"\nhex = "00"\n', 1, "more than one"),
        ('[[file]]\nname = "x"\nhex = "0"\n', 3, "hexadecimal"),
        ('[[file]]\nname = "x"\npath = "missing.bin"\n', 3, "cannot be read"),
        ('[[relay]]\nname = "x"\ntarget = "nowhere"\n', 3, "10.0.0.5:8000"),
        ('[[relay]]\nname = "x"\nredirect = "host:1"\n', 3, "10.0.0.5:8000"),
        ('[[relay]]\nname = "x"\nredirect = "10.0.0.1:70000"\n', 3, "10.0.0.5:8000"),
        ('[[relay]]\nname = "x"\nredirect = "self"\ntarget = "self"\n', 1, "both"),
    ],
)
def test_a_mistake_in_a_project_is_said_with_file_and_line(
    rkdbsim_path: Path, tmp_path: Path, text: str, line: int, complaint: str
) -> None:
    path = tmp_path / "wrong.toml"
    path.write_text(text, encoding="utf-8")
    for arguments in (["--check"], ["--port", "0"]):
        output, errors = run(rkdbsim_path, *arguments, path, expect=2)
        assert output == ""
        assert errors.startswith(f"{path}:{line}: "), errors
        assert complaint in errors
        assert errors.count("\n") == 1


def test_a_project_of_more_tags_than_can_be_served_is_refused_with_the_numbers(
    rkdbsim_path: Path, tmp_path: Path
) -> None:
    path = tmp_path / "huge.toml"
    one = '[[driver]]\nname = "D{}"\n[[driver.tag]]\nname = "T%05d"\ncount = 65535\n'
    path.write_text("".join(one.format(number) for number in range(3000)))
    output, errors = run(rkdbsim_path, "--port", "0", path, expect=2)
    assert output == ""
    assert errors == (
        f"{path}:1: driver: the project has 196605000 tags in 3000 drivers, and 1000000 is the most that are served\n"
    )


@pytest.mark.bulk
def test_the_most_tags_that_are_served_are_counted_exactly(rkdbsim_path: Path, tmp_path: Path) -> None:
    path = tmp_path / "large.toml"
    full = '[[driver]]\nname = "D{}"\n[[driver.tag]]\nname = "T%05d"\ncount = 50000\n'
    text = "".join(full.format(number) for number in range(20))
    path.write_text(text + '[[driver]]\nname = "Last"\n[[driver.tag]]\nname = "T"\n')
    _, errors = run(rkdbsim_path, "--check", path, expect=2)
    assert "has 1000001 tags in 21 drivers" in errors
    path.write_text(text)
    # Without a limit of time: sanitizers and a busy machine make it many times slower than users have it.
    done = subprocess.run([rkdbsim_path, "--check", path], capture_output=True, text=True, check=True)
    assert "20 drivers, 1000000 tags" in done.stderr


def test_a_project_that_cannot_be_read_is_said(rkdbsim_path: Path, tmp_path: Path) -> None:
    for path in (tmp_path / "missing.toml", tmp_path):
        assert run(rkdbsim_path, path, expect=2)[1] == f"{path}: cannot be read\n"


def test_check_says_what_a_good_project_holds_and_serves_nothing(rkdbsim_path: Path) -> None:
    output, log = run(rkdbsim_path, "--check", CHECKOUT / "sim" / "demo.toml", expect=0)
    assert output == ""
    assert "2 drivers, 21 tags, 4 alarms, 2 users" in log


def test_many_tags_are_described_at_once(simulator: Simulators) -> None:
    text = driver('name = "T%05d"\ntype = "i2"\nvalue = 3\ncount = 30000\nfirst = 5', 'name = "一%d号"\ncount = 2')
    with RawClient(("127.0.0.1", simulator(text).port)) as client:
        assert client.download("RecData/drvinfo.dat")[1] == b"D\0\0\0" + struct.pack("<H", 30002)
        names = ["T00005", "T00004", "T30004", "T30005", "一0号", "一1号", "一2号"]
        assert client.find(*((0, name) for name in names)) == [0, 0xFFFF, 29999, 0xFFFF, 30000, 30001, 0xFFFF]
        assert client.read([(0, 29999)]) == [(2, 3)]


# Motions.


def follow(client: RawClient, count: int, kind: int = 5) -> list[float | str | None]:
    """The value of tag 0 and its next changes."""
    values: list[float | str | None] = [client.advise([(0, 0)])[0][1]]
    while len(values) < count:
        values.append(client.change({(0, 0): kind})[1])
    return values


def one_tag(simulator: Simulators, motion: str, kind: str = "r8", value: str = "0", *arguments: str) -> RawClient:
    text = driver(f'name = "T"\ntype = "{kind}"\nvalue = {value}\nperiod_ms = 10\nmotion = {{ {motion} }}')
    return RawClient(("127.0.0.1", simulator(text, *arguments).port))


def test_a_ramp_goes_up_and_starts_over(simulator: Simulators) -> None:
    with one_tag(simulator, 'kind = "ramp", low = 0, high = 3, step = 1', "i4") as client:
        values = follow(client, 12, 3)
        assert all((after - before) % 4 == 1 for before, after in zip(values, values[1:]))  # type: ignore[operator]


def test_a_ramp_can_turn_round(simulator: Simulators) -> None:
    with one_tag(simulator, 'kind = "ramp", low = 0, high = 3, step = 1, bounce = true', "i1") as client:
        values = follow(client, 14, 16)
        assert re.search("0,1,2,3,2,1,0,1,2", ",".join(map(str, values)))


def test_small_steps_of_a_whole_number_add_up(simulator: Simulators) -> None:
    with one_tag(simulator, 'kind = "ramp", low = 0, high = 1000, step = 0.25', "i4") as client:
        values = follow(client, 6, 3)
        assert [after - values[0] for after in values] == list(range(6))  # type: ignore[operator]


def test_a_sine_stays_between_its_ends_and_reaches_both(simulator: Simulators) -> None:
    with one_tag(simulator, 'kind = "sine", low = -5, high = 15, cycle_s = 0.5') as client:
        values = [value for value in follow(client, 100)[1:] if isinstance(value, float)]
        assert -5 <= min(values) < -4
        assert 14 < max(values) <= 15


def test_a_random_walk_is_the_same_for_the_same_seed(simulator: Simulators) -> None:
    def walk(seed: str) -> list[float | str | None]:
        motion = 'kind = "random", low = -1, high = 1, step = 0.5'
        text = "[server]\nsubscribe_hold_ms = 0\n" + driver(
            f'name = "T"\ntype = "r8"\nperiod_ms = 200\nmotion = {{ {motion} }}'
        )
        with RawClient(("127.0.0.1", simulator(text, "--seed", seed).port)) as client:
            values = follow(client, 6)
            numbers = [value for value in values if isinstance(value, float)]
            assert all(-1 <= number <= 1 for number in numbers)
            assert all(abs(after - before) <= 0.5 for before, after in zip(numbers, numbers[1:]))
            assert len(set(numbers)) == 6
            return values

    first = walk("7")
    assert set(first[1:5]) & set(walk("7"))
    assert not set(first) & set(walk("8")) - {0.0}


def test_a_text_can_go_through_a_list(simulator: Simulators) -> None:
    with one_tag(simulator, 'kind = "cycle", values = ["启动", "", "停止"]', "str", '"启动"') as client:
        values = follow(client, 10, 8)
        joined = ",".join(str(value) for value in values)
        assert re.search("启动,,停止,启动,,停止", joined), joined


def test_a_written_value_is_where_a_ramp_goes_on(simulator: Simulators) -> None:
    with one_tag(simulator, 'kind = "ramp", low = 0, high = 1000000, step = 1', "i4") as client:
        client.advise([(0, 0)])
        client.write(((0, 0), typed(3, 500000)))
        values = []
        while 500003 not in values:
            values.append(client.change({(0, 0): 3})[1])
            assert len(values) < 1000
        assert values[-4:] == [500000, 500001, 500002, 500003]


def test_a_motion_that_does_not_change_the_value_is_not_pushed(simulator: Simulators) -> None:
    with one_tag(simulator, 'kind = "cycle", values = [true, true, true]', "bool", "true") as client:
        client.advise([(0, 0)])
        assert client.hear.is_quiet()
