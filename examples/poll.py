"""Reads a list of tags again and again, in one request each time, and connects anew when the server is lost.

python examples/poll.py --host 192.0.2.10 --seconds 1 Boiler Level Pressure
"""

from __future__ import annotations

import contextlib
import time
from datetime import datetime

import plant

import RkDBAccess


def known_tags(driver: RkDBAccess.Driver, tags: list[str]) -> list[str]:
    """The tags that have a value to show. A list must not hold others, and asking for each once fixes its order."""
    known = []
    for tag in tags:
        with contextlib.suppress(SystemError):  # a date or another type without a Python form
            if driver.GetTagValue(tag) is not None:
                known.append(tag)
    return known


def main() -> None:
    parser = plant.parser(__doc__)
    parser.add_argument("--seconds", type=float, default=1.0, help="pause between two rounds")
    parser.add_argument("--rounds", type=int, default=0, help="end after so many (0: never)")
    parser.add_argument("driver")
    parser.add_argument("tags", nargs="+")
    arguments = parser.parse_args()
    db = plant.connect(arguments)
    driver = plant.driver(db, arguments.driver)
    tags = known_tags(driver, arguments.tags)
    if not tags:
        raise SystemExit("the driver has none of these tags")
    done = 0
    while arguments.rounds == 0 or done < arguments.rounds:
        values = driver.GetTagValue(",".join(tags))
        if values is None:
            db = plant.reconnect(arguments)
            driver = plant.driver(db, arguments.driver)
            continue
        row = values if isinstance(values, list) else [values]
        print(f"{datetime.now():%H:%M:%S}", *(f"{tag}={value}" for tag, value in zip(tags, row)), flush=True)
        done += 1
        time.sleep(arguments.seconds)


if __name__ == "__main__":
    main()
