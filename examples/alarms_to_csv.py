"""Writes every alarm as a line of a CSV file: first those that are active now, then each as it comes, until Ctrl-C.

After a loss it reconnects and writes (again) what is active then; an alarm that came and went meanwhile is missed.

python examples/alarms_to_csv.py --host 192.0.2.10 Boiler alarms.csv
"""

from __future__ import annotations

import csv
from pathlib import Path

import plant

COLUMNS = ["alarm time", "event time", "tag", "has event", "type", "group", "level", "value", "limit", "status"]


class AlarmFile:
    """The callable that the connection calls, with the ten columns. Times are local, of the server's clock."""

    def __init__(self, path: Path) -> None:
        self._file = path.open("w", newline="", encoding="utf-8")
        self._rows = csv.writer(self._file)
        self._rows.writerow(COLUMNS)
        self._file.flush()

    def __call__(self, *alarm: object) -> None:
        self._rows.writerow(alarm)
        self._file.flush()  # an alarm that was seen is not lost with the script

    def __del__(self) -> None:
        self._file.close()  # not before: a call may be under way in the connection's thread when that is ended


def main() -> None:
    parser = plant.parser(__doc__)
    parser.add_argument("--seconds", type=float, default=float("inf"), help="end after so long")
    parser.add_argument("driver", help="any driver of the project: tells whether the connection still stands")
    parser.add_argument("file", type=Path)
    arguments = parser.parse_args()
    alarms = AlarmFile(arguments.file)
    plant.listen(arguments, lambda db: db.SetRtAlarmNotify(alarms, 1))


if __name__ == "__main__":
    main()
