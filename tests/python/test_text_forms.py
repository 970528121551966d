"""Names with a dash or a middle dot: each has two forms in Unicode and one on the wire. Input methods type the one
form, and the C library's converter knows the other one alone."""

from __future__ import annotations

import dialogue as d
import live_wire as w
import pytest
import wire
from client import connect
from conftest import Play, settles

DASH, DOT = b"\xa1\xaa", b"\xa1\xa4"
USUAL = ("\u2014", "\u00b7")
OTHER = ("\u2015", "\u30fb")

DRIVER = b"No.1" + DASH + "锅炉".encode("gb2312")
TAG = "炉膛".encode("gb2312") + DOT + "温度".encode("gb2312") + DASH


def driver_name(form: tuple[str, str]) -> str:
    return f"No.1{form[0]}锅炉"


def tag_name(form: tuple[str, str]) -> str:
    return f"炉膛{form[1]}温度{form[0]}"


@pytest.mark.parametrize("form", [USUAL, OTHER], ids=["usual", "other"])
def test_both_forms_ask_for_the_one_name_and_the_usual_one_comes_back(
    play: Play, project: str, form: tuple[str, str]
) -> None:
    peer = play(
        d.connecting(project, drivers=[(DRIVER, 0, 16)])
        + d.looking_up([TAG], [15])
        + w.advising([15], w.advise_block([wire.typed(wire.VT_I4, 1)]))
        + w.push(w.change(15, wire.VT_I4, 7))
        + d.wait("asked")
        + w.push(w.change(15, wire.VT_I4, 8))
    )
    core = connect(peer.host)
    driver = core.GetDriver(driver_name(form))
    changes: list[tuple[object, ...]] = []
    driver.SetTagNotify(lambda *change: changes.append(change))
    assert driver.ConnectTag(tag_name(form)) == 1
    assert settles(lambda: bool(changes))
    # The other form is the same tag, and known by now: nothing is asked.
    for other in (USUAL, OTHER):
        assert core.GetDriver(driver_name(other)) is not None
        assert driver.GetTagValue(tag_name(other)) == 7
    peer.go("asked")
    assert settles(lambda: len(changes) == 2)
    assert changes == [(driver_name(USUAL), tag_name(USUAL), 7), (driver_name(USUAL), tag_name(USUAL), 8)]
