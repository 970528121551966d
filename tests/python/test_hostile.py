"""Clients of a server that answers at random: no crash, no hang, only results that the methods may give."""

from __future__ import annotations

import pytest
from conftest import Play, run_alone

SESSIONS = """
import random, sys
from client import items
from RkDBAccess import DBCore

PYTHON_FORMS = (int, float, bool, str, type(None))
chance = random.Random(int(sys.argv[2]))
NAMES = ["A", "B", "A,B", "A,B,C", ",".join(f"T{number}" for number in range(300)), "泵", " ", "A,,B", "x" * 1000]
results = {0: 0, -1: 0, -2: 0, -3: 0}
values = 0
kept = []
core = DBCore()
least = int(sys.argv[3])
# Chance answers few reads well: the sessions go on until there was such a value, so that its path is walked too.
while sum(results.values()) < least or not values:
    assert sum(results.values()) < 20 * least, results
    if chance.random() < 0.7:
        core = DBCore()  # otherwise the same object connects again
    result = core.Connect(sys.argv[1], "operator", "secret")
    results[result] += 1
    for _ in range(chance.randrange(12)):
        try:
            driver = core.GetDriver(chance.choice(["Boiler", "Boiler", "Boiler", "x" * 50, "", "none"]))
        except SystemError:
            continue
        try:
            value = driver.GetTagValue(chance.choice(NAMES))
        except (SystemError, UnicodeDecodeError):
            continue
        for one in items(value) if type(value) is list else [value]:
            assert type(one) in PYTHON_FORMS or repr(one) == "UNSET", one
            values += one is not None
        if chance.random() < 0.1:
            kept.append(driver)
    for driver in kept:
        try:
            driver.GetTagValue("A")
        except (SystemError, UnicodeDecodeError):
            continue
assert results[0] > 0, results
del core, kept
"""


@pytest.mark.parametrize("seed", range(4))
def test_a_random_server_neither_crashes_nor_hangs_a_client(play: Play, project: str, seed: int) -> None:
    peer = play([("be_hostile", seed, project.encode()), ("wait", "enough")])
    outcome = run_alone(SESSIONS, peer.host, str(seed), "40", timeout=200)
    # The one thing that may be said: a project's name was no text.
    complaints = [line for line in outcome.errors.splitlines() if not line.startswith("ToUtf8:iconv:")]
    assert (outcome.status, complaints) == (0, [])
    peer.go("enough")
