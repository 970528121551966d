"""What the examples share: where the server is, and connecting to it with a message where that fails.

python examples/read_once.py --host 192.0.2.10:80 --user operator --password secret Boiler Level
"""

from __future__ import annotations

import argparse
import contextlib
import time

import RkDBAccess

MEANINGS = {
    -1: "the server refused the user name or the password",
    -2: "the server was not reached, or the connection broke",
    -3: "what answered does not speak this protocol",
}


def parser(description: str | None) -> argparse.ArgumentParser:
    """A parser with the three arguments that every example takes."""
    made = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    made.add_argument("--host", default="127.0.0.1", help="name or address, with :port if it is not 80")
    made.add_argument("--user", default="operator")
    made.add_argument("--password", default="demo")
    return made


def connect(arguments: argparse.Namespace) -> RkDBAccess.DBCore:
    """A connected DBCore, or the end of the script with a message."""
    db = RkDBAccess.DBCore()
    result = db.Connect(arguments.host, arguments.user, arguments.password)
    if result != 0:
        raise SystemExit(f"Connect gave {result}: {MEANINGS[result]}")
    return db


def driver(db: RkDBAccess.DBCore, name: str) -> RkDBAccess.Driver:
    """The driver of that name, or the end of the script with a message."""
    try:
        return db.GetDriver(name)
    except SystemError:
        raise SystemExit(f"the project has no driver {name}") from None


def wait(seconds: float) -> None:
    """Lets the connection's thread do its work, until the time is up or Ctrl-C ends it."""
    end = time.monotonic() + seconds
    with contextlib.suppress(KeyboardInterrupt):
        while (left := end - time.monotonic()) > 0:
            time.sleep(min(1.0, left))
