"""Types and contract of the extension module `RkDBAccess`.

The module talks to one real-time database server per `DBCore` over two TCP connections: on one it asks and the
server answers, on the other the server pushes changes and alarms, which a thread of the module's own receives.

What holds for every method:

* Failures are results (0, -1, -2, -3 or `None`), not exceptions. The exceptions are: the interpreter's `TypeError`
  for arguments that do not fit, `TypeError("parameter must be callable")`, and two calls that end in the
  interpreter's own `SystemError` ("... returned NULL without setting an exception"): `DBCore.GetDriver` with a name
  the project lacks, and `Driver.GetTagValue` of one tag whose value has no Python form.
* A call keeps the interpreter lock from its start to its end, also while it waits for the network. No other Python
  thread runs meanwhile. With T the time-out of the connection (8 seconds for a direct address, 13 seconds through a
  relay centre) the server's next bytes must come within T, a request's whole reply within 2 T, and a download must
  bring 4 KiB or its end in every T.
* Signal handlers of the script run while a call waits in the main thread. One that raises ends the call with its
  exception within 0.2 seconds, and the connection with it.
* A connection is right or it has ended: an answer that stays away, is cut short or is none, bytes that nobody asked
  for, or a change whose rest does not come, end both TCP connections.
* Driver and tag names may hold every character of GB2312 (ASCII, Chinese, ...). They cross the network in GB2312.
* All arguments are positional.

What holds for every callback:

* It is called under the interpreter lock, one at a time; while one runs, the next change or alarm waits.
* Its result is ignored. An exception goes to `sys.unraisablehook`, and the stream goes on.
* The registration keeps it alive until the `DBCore` is gone. Of a bound method only the function is kept: when its
  instance is gone the calls are skipped, with one `RuntimeWarning`.
* A lambda, nested function or partial that refers to the `DBCore`'s own client is a cycle which the collector does not
  see: `del` alone does not end that connection. Register a bound method instead.

After `os.fork` the child's copies are not connected; the parent's go on. When the interpreter ends, every connection
is ended before exit functions run that were registered before this module was imported. An import in a sub-interpreter
raises `ImportError`: the module works in the main interpreter only.
"""

from collections.abc import Callable
from datetime import datetime
from typing import Any, Literal, final

from typing_extensions import TypeAlias

# `Any` stands for what only the project on the server decides: which type a tag has.
_Value: TypeAlias = int | float | bool | str

# (alarm time, event time, tag, has event, type text, group text, level, value, limit, status)
_AlarmNotify: TypeAlias = Callable[[datetime, datetime, str, int, str, str, int, float, float, int], object]

# (driver name, tag name, value)
_TagNotify: TypeAlias = Callable[[str, str, Any], object]

@final
class DBCore:
    """One connection to one server. Starts unconnected; `Connect` connects it.

    Dropping the last reference ends the connection: both sockets are closed, the receive thread ends, and every
    `Driver` taken from it turns into one that is not connected. There is no reconnection by itself: when the server
    goes away, requests fail with the result that each method names, until `Connect` is called again and new `Driver`
    objects are asked for.
    """

    def __new__(cls, *args: object, **kwargs: object) -> DBCore:
        """Makes an unconnected object. Arguments are accepted and ignored. Nothing is sent."""

    def Connect(self, host: str, user: str, password: str, /) -> Literal[0, -1, -2, -3]:
        """Connects to a server, logs in and brings the local mirror of the project's driver directory up to date.

        host: "name", "name:port" or "a.b.c.d:port" for a direct connection (port 80 if none is given), or
            "p2p:server" and "p2p(a.b.c.d):server" for a server behind a relay centre (port 3968; the first form asks
            the centre set at build time). Taken byte for byte.
        user, password: the login, taken byte for byte as UTF-8.

        Returns (no network failure raises):
            0   connected;
            -1  the server refused the user name or the password;
            -2  not reached in time, connection refused or cut, login too long for its request, the mirror's folder
                could not be made or is not to be trusted, or the driver directory could not be fetched and kept;
            -3  the server answered something that is no part of this protocol, or named no usable project.

        Takes at most twice the time-out (8 s direct, 13 s relayed) for each answer it waits for, and for a download as
        long as 4 KiB come in each time-out. Called again on a connected object it first ends the connection, then
        connects anew.
        """

    def GetDriver(self, name: str, /) -> Driver:
        """The driver of the connected project that has this name. Sends nothing: the directory is known already.

        Each call makes a new `Driver` object; all of one name share the tags' values and subscriptions.

        Raises `SystemError` (made by the interpreter: "returned NULL without setting an exception") when the project
        has no driver of this name, and when this object is not connected.
        """

    def SetRtAlarmNotify(self, fn: _AlarmNotify, notifyExisting: int, /) -> None:
        """Registers the one callable that is called for every real-time alarm of the project.

        fn: called with ten positional arguments:
            1. alarm time: naive `datetime` in this machine's local time zone, whole seconds; the server's clock;
            2. event time: likewise, the time of the later event of this alarm; the alarm time when there is none;
            3. tag name: from the project's tag list; "???" when the list does not hold it or could not be stored;
            4. has event: 1 when the server gave an event time, else 0;
            5. alarm type: text from the project's text list, or "???";
            6. alarm group: likewise;
            7. level: `int` from 0 to 255, the server's meaning;
            8. value: `float`, the value that the server reports with the alarm, in the tag's unit;
            9. limit: `float`, the limit it is compared with, in the tag's unit;
            10. status: `int` from 0 to 255, the server's meaning.
        notifyExisting: true to be called, before this method returns and in the calling thread, for the alarms that
            are active now, the one reported last first; 0 to be called for later ones only. Those that come in while
            this method runs are delivered by it too, behind the active ones; later ones in the receive thread. It
            delivers at most 100,000 such alarms. Those that come in beyond that before it returns are skipped, and one
            `RuntimeWarning` gives their number; where warnings are errors, that goes to `sys.unraisablehook` and the
            registration stands.

        Returns None in every case. The first registration stays in force for the life of this object; a later one
        changes nothing, and after a new `Connect` the server is not asked again: make a new `DBCore`. A registration
        that the server did not answer leaves none in force, silently.
        Raises `TypeError` "parameter must be callable".
        """

@final
class Driver:
    """One driver of the connected project: a table of tags with values. Made by `DBCore.GetDriver` only.

    A `Driver` does not keep its `DBCore` alive. After the connection has ended, after its `DBCore` is gone, and when
    it was made by hand (`Driver()`), every method is safe to call and gives its failure result.

    Where a method takes tag names, several are joined by commas: "FIC101.PV,FIC101.SP". Blanks around a name are
    dropped. A name is looked up on the server once and then remembered, an unknown one as well. A value's unit is the
    tag's own, as the plant's project defines it: the module changes no value.
    """

    def __new__(cls, *args: object, **kwargs: object) -> Driver:
        """Makes an object with no driver behind it. Arguments are accepted and ignored."""

    def SetTagNotify(self, fn: _TagNotify, /) -> None:
        """Registers the one callable that is called when a tag of this driver changes.

        fn: called in the receive thread with (driver name, tag name, value): two `str` and the new value as
            `GetTagValue` would give it. Called for tags that `ConnectTag` subscribed or the server otherwise
            pushes, if they have been read or subscribed before. A change of a date or a signed 64-bit integer calls
            nothing.

        The first registration stays in force; a later one changes nothing. Nothing is sent.
        Raises `TypeError` "parameter must be callable".
        """

    def ConnectTag(self, name: str, /) -> Literal[0, 1]:
        """Subscribes tags: the server sends their values now and every change from then on.

        name: one tag name, or several joined by commas; 519 new ones a call, further ones are left out silently.
            Of type currency or unsigned 64-bit it must be none: where their changes end cannot be told, so what
            follows in the same receive is dropped, and where that hides the next beginning the connection ends.

        Returns 1 on success, also when there was nothing to subscribe (names already subscribed or unknown);
        0 when the connection failed or the server's answer did.
        """

    def GetTagValue(self, name: str, /) -> _Value | list[Any] | None:
        """The value of one tag, or a list of the values of several.

        name: one tag name, or several joined by commas. The first 1,023 of them that are not subscribed are asked
            from the server; subscribed tags give the value that the server last pushed, without any traffic.

        Returns for one name: the value, or None when there is no such tag or the request failed (a subscribed tag
        gives its last value even after the connection is lost). For several: a list with one item a name, or None
        when the request failed.

        Order of the list: that of the names when all names are new, or all have been used before. When some are new
        and some are not, those used before come first and the new ones after them, each group in the order of the
        names. Use the names once (in any call, `ConnectTag` too) and the order is the names' order.

        Items that are not there: an unknown name, and a tag whose type has no Python form, leave their place in the
        list unset. Such a place is no `None`: reading it, or looping over it, crashes the interpreter.
        `len(gc.get_referents(values)) == len(values)` is true when every place is set. Ask a doubtful name by itself
        first.

        Types, as the server's tag has them: 8 to 32-bit integers give `int`, 32 and 64-bit floating point `float`,
        text `str`, flags `bool`. Others (dates, 64-bit integers, currency, ...) have no Python form: asked for by
        itself, such a tag raises the interpreter's `SystemError`.
        """

    def SetTagValue(self, name: str, value: _Value | list[_Value], /) -> Literal[0, -1, -2, -3]:
        """Writes one tag, or several.

        name: one tag name, or several joined by commas.
        value: for one name `str`, `bool`, `int` (its low 32 bits are sent) or `float`; for several a list with one
            such value for each entry that `GetTagValue` would give, in that order (see there).

        Returns:
            0   sent (the server does not confirm; read the tag to see the effect);
            -1  the user has no right to write values;
            -2  not connected, a name could not be looked up, or sending failed;
            -3  no such tag, a value of another type, a text that has no UTF-8 form, holds a NUL or passes 2,038
                bytes, no list for several names, or a list that is too short. Nothing has been sent then.
        """
