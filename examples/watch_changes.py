"""Subscribes tags of one driver and prints every change that the server sends, until Ctrl-C. Reconnects after a loss.

python examples/watch_changes.py --host 192.0.2.10 Boiler Level Pressure
"""

from __future__ import annotations

from datetime import datetime

import plant

import RkDBAccess


def show(driver: str, tag: str, value: object) -> None:
    """Called in the connection's own thread for each change; must return soon, the next change waits for it."""
    print(f"{datetime.now():%H:%M:%S.%f} {driver} {tag} = {value}", flush=True)


def main() -> None:
    parser = plant.parser(__doc__)
    parser.add_argument("--seconds", type=float, default=float("inf"), help="end after so long")
    parser.add_argument("driver")
    parser.add_argument("tags", nargs="+")
    arguments = parser.parse_args()

    def register(db: RkDBAccess.DBCore) -> None:
        driver = plant.driver(db, arguments.driver)
        driver.SetTagNotify(show)
        if driver.ConnectTag(",".join(arguments.tags)) != 1:
            raise SystemExit("the tags could not be subscribed")

    plant.listen(arguments, register)


if __name__ == "__main__":
    main()
