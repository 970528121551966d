"""Writes one tag and reads it back: the server confirms no write, so only the tag itself shows the effect.

python examples/write.py --host 192.0.2.10 Boiler Setpoint 75.5
"""

from __future__ import annotations

import json
import time

import plant

import RkDBAccess

MEANINGS = {
    -1: "the user may not write",
    -2: "the connection is gone",
    -3: "there is no such tag, or it takes no such value",
}


def parsed(text: str) -> bool | int | float | str:
    """true, 5, 5.0 as what they look like; everything else as text."""
    try:
        value = json.loads(text)
    except ValueError:
        return text
    return value if isinstance(value, (bool, int, float)) else text


def wait_for(driver: RkDBAccess.Driver, tag: str, value: object, seconds: float) -> object:
    """The tag's value once it is the one wanted, or whatever it is when the time is up."""
    end = time.monotonic() + seconds
    while (seen := driver.GetTagValue(tag)) != value and time.monotonic() < end:
        time.sleep(0.05)
    return seen


def main() -> None:
    parser = plant.parser(__doc__)
    parser.add_argument("driver")
    parser.add_argument("tag")
    parser.add_argument("value", type=parsed, help="true or false, a number, or a text")
    arguments = parser.parse_args()
    db = plant.connect(arguments)
    driver = plant.driver(db, arguments.driver)
    result = driver.SetTagValue(arguments.tag, arguments.value)
    if result != 0:
        raise SystemExit(f"SetTagValue gave {result}: {MEANINGS[result]}")
    print(f"{arguments.tag} = {wait_for(driver, arguments.tag, arguments.value, 2.0)}")


if __name__ == "__main__":
    main()
