"""What the examples share: where the server is, and connecting to it with a message where that fails.

python examples/read_once.py --host 192.0.2.10:80 --user operator --password secret Boiler Level
"""

from __future__ import annotations

import argparse
import contextlib
import sys
import time
from collections.abc import Callable

import RkDBAccess

RETRY_SECONDS = 5.0

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


def reconnect(arguments: argparse.Namespace) -> RkDBAccess.DBCore:
    """A new connection after a loss, tried again until the server is back.

    Nothing reconnects by itself, and drivers belong to their connection. A new object, because one that has registered
    for alarms does not do so again.
    """
    while True:
        print("the connection is lost; trying again", file=sys.stderr, flush=True)
        time.sleep(RETRY_SECONDS)
        db = RkDBAccess.DBCore()
        if db.Connect(arguments.host, arguments.user, arguments.password) == 0:
            return db


def is_connected(db: RkDBAccess.DBCore, name: str) -> bool:
    """Whether the connection stands, told by a driver that exists: once it has ended there are none any more."""
    try:
        db.GetDriver(name)
    except SystemError:
        return False
    return True


def listen(arguments: argparse.Namespace, register: Callable[[RkDBAccess.DBCore], None]) -> None:
    """Connects, registers, and lets the connection's thread do its work until the time is up or Ctrl-C ends it.

    When the connection is lost, all of it again.
    """
    end = time.monotonic() + arguments.seconds
    db = connect(arguments)
    with contextlib.suppress(KeyboardInterrupt):
        register(db)
        while (left := end - time.monotonic()) > 0:
            time.sleep(min(1.0, left))
            while not is_connected(db, arguments.driver):
                db = reconnect(arguments)
                try:
                    register(db)
                except SystemExit:
                    if is_connected(db, arguments.driver):
                        raise  # no fault of the network: what was asked for is not there any more
