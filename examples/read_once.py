"""Reads tags of one driver and prints a line for each. An unknown tag gives None.

python examples/read_once.py --host 192.0.2.10 Boiler Level Pressure
"""

from __future__ import annotations

import plant

import RkDBAccess


def shown(driver: RkDBAccess.Driver, tag: str) -> object:
    """The tag's value, or what stands for one that Python cannot show."""
    try:
        return driver.GetTagValue(tag)
    except SystemError:
        return "(a date or another type without a Python form)"


def main() -> None:
    parser = plant.parser(__doc__)
    parser.add_argument("driver")
    parser.add_argument("tags", nargs="+")
    arguments = parser.parse_args()
    db = plant.connect(arguments)
    driver = plant.driver(db, arguments.driver)
    # One name a call: a list would leave the places of unknown names unset, which no script may touch.
    for tag in arguments.tags:
        print(f"{tag} = {shown(driver, tag)}")


if __name__ == "__main__":
    main()
