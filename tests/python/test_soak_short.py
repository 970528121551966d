"""Half a minute of the soak (tests/soak): clients, servers and a network that breaks, and nothing may be wrong."""

from __future__ import annotations

import os
import re
import subprocess
import sys
from pathlib import Path

from conftest import CHECKOUT

SOAK = CHECKOUT / "tests" / "soak"


def test_half_a_minute_of_everything_that_breaks_leaves_nothing_wrong(rkdbsim_path: Path) -> None:
    path = os.pathsep.join([*(path for path in sys.path if path), str(SOAK)])
    arguments = ["0.4", "--seed", "1", "--life", "6", "--fast", "2", "--plants", "2"]
    done = subprocess.run(
        [sys.executable, str(SOAK / "soak.py"), *arguments],
        env={**os.environ, "PYTHONPATH": path, "RKDBSIM": str(rkdbsim_path)},
        capture_output=True,
        text=True,
        timeout=230,
        check=False,
    )
    shown = f"{done.stdout}\n{done.stderr}"
    assert done.returncode == 0, shown
    counted = {
        name: int(number.replace(",", "")) for name, number in re.findall(r"\| ([a-z ]+?) +\| +([\d,]+) \|", shown)
    }
    assert [counted[what] for what in ("wrong", "lost", "out of order", "ended late", "ended without cause")] == [0] * 5
    assert min(counted[what] for what in ("changes", "alarms", "reads", "writes", "drops")) > 0, shown


ENDS_OF_A_UNIT = """
from soak_stream import Unit
unit = Unit()
whole = unit.bytes_at(0, 2 * unit.size)
assert len(whole) == 2 * unit.size
for start in range(unit.size - 20, unit.size + 5):
    for end in range(start, unit.size + 20):
        assert unit.bytes_at(start, end) == whole[start:end], (start, end)
"""


def test_the_stream_can_be_cut_anywhere_near_the_end_of_a_unit() -> None:
    path = os.pathsep.join([*(path for path in sys.path if path), str(SOAK)])
    command = [sys.executable, "-c", ENDS_OF_A_UNIT]
    done = subprocess.run(
        command, env={**os.environ, "PYTHONPATH": path}, capture_output=True, text=True, timeout=60, check=False
    )
    assert (done.returncode, done.stderr) == (0, "")
