"""Sub-interpreters: the module belongs to the process and is refused in each of them, whoever was first to import it.

One that ends ends the connections of the process, so none may have the module. Every script runs in an interpreter of
its own; its last import is the main interpreter's, which must then be able to connect.
"""

from __future__ import annotations

import dialogue as d
import pytest
from conftest import Play, passes_alone

# Interpreters of both kinds: those that share what an extension module keeps for the process, and the others. Each
# tries twice: what a first import has left behind must not help a second.
HEAD = """
import importlib, sys
from client import connect, read

try:
    import _interpreters as interpreters
    KINDS = [lambda: interpreters.create("legacy"), lambda: interpreters.create("isolated")]
except ImportError:
    import _xxsubinterpreters as interpreters
    KINDS = [lambda: interpreters.create(isolated=False), lambda: interpreters.create(isolated=True)]

TRIES = '''
import sys
sys.path[:] = {path!r}
for _ in range(2):
    try:
        import RkDBAccess
    except ImportError as error:
        text = str(error)
        assert "RkDBAccess" in text and "interpreter" in text, text
        assert "RkDBAccess" not in sys.modules
        print("refused", flush=True)
    else:
        print("imported", flush=True)
'''

def in_sub_interpreters():
    for create in KINDS:
        one = create()
        failure = interpreters.run_string(one, TRIES.format(path=sys.path))
        assert failure is None, failure
        interpreters.destroy(one)

def in_main():
    sys.modules.pop("RkDBAccess", None)
    module = importlib.import_module("RkDBAccess")
    assert module.__name__ == "rkdb" and module.__doc__ == "rkdb access."
    return module.DBCore
"""


def refusals(script: str, *arguments: str) -> None:
    output = passes_alone(HEAD.replace("from client import connect, read\n", "") + script, *arguments)
    assert set(output.split()) == {"refused"}
    assert len(output.split()) == 4 * script.count("in_sub_interpreters()")


def test_an_import_before_the_main_one_is_refused() -> None:
    refusals("in_sub_interpreters()\nin_main()\n")


def test_an_import_after_the_main_one_is_refused() -> None:
    refusals("in_main()\nin_sub_interpreters()\n")


def test_imports_in_any_order_are_refused_and_the_types_stay_the_same() -> None:
    refusals(
        """
in_sub_interpreters()
first = in_main()
in_sub_interpreters()
assert in_main() is first
in_sub_interpreters()
"""
    )


@pytest.mark.parametrize("order", ["in_sub_interpreters()\n", "in_main()\nin_sub_interpreters()\n"])
def test_the_end_of_a_sub_interpreter_ends_no_connection(play: Play, project: str, order: str) -> None:
    peer = play(
        d.connecting(project) + d.looking_up(["A"], [5]) + d.reading_numbers([5], [7]) + d.want_eof("rcv", "req")
    )
    output = passes_alone(
        HEAD
        + order
        + """
core = connect(sys.argv[1])
driver = core.GetDriver("Boiler")
in_sub_interpreters()
assert driver.GetTagValue("A") == 7
del core
""",
        peer.host,
    )
    assert set(output.split()) == {"refused"}
