"""Live connections in processes that fork: the copies go at once and in silence, the parent's connection goes on.

Every script runs in an interpreter of its own, so that a crash or a message is seen: it must end by itself, with
the expected status and output, and say nothing on standard error.
"""

from __future__ import annotations

import os

import dialogue as d
import live_wire as w
import pytest
from conftest import Play
from live_peer import Mixed
from live_script import (
    HEAD,
    SLOWER,
    STORM,
    SUBSCRIBE,
    SUBSCRIBED,
    TOLD,
    changes,
    forks,
    go,
    passes_unwatched,
    peer_of,
    runs,
)

FORKS = """
def child(do):
    pid = os.fork()
    if pid:
        return pid
    try:
        do()
        os._exit(0)
    except BaseException:
        import traceback
        traceback.print_exc()
        os._exit(1)

def ended(pid):
    deadline = time.monotonic() + 20
    while True:
        done, status = os.waitpid(pid, os.WNOHANG)
        if done:
            assert os.waitstatus_to_exitcode(status) == 0, status
            return
        assert time.monotonic() < deadline, "the child does not end"
        time.sleep(0.002)

def sockets():
    links = []
    for name in os.listdir("/proc/self/fd"):
        with contextlib.suppress(FileNotFoundError):  # the listing's own
            links.append(os.readlink(f"/proc/self/fd/{name}"))
    return sum(link.startswith("socket:") for link in links)
"""


def test_a_forked_copy_goes_at_once_and_the_parents_connection_goes_on(play: Play, project: str) -> None:
    script = f"""
{FORKS}
def check_dead():
    assert boiler.GetTagValue("T0") is None
    assert boiler.GetTagValue("T0,new") is None
    assert boiler.ConnectTag("T0") == 0 and boiler.ConnectTag("new") == 0
    assert boiler.SetTagValue("T0", 1) < 0
    assert boiler.SetTagNotify(print) is None

def in_child():
    before = sockets()
    check_dead()
    assert core.Connect(sys.argv[1], "operator", "secret") == -2
    assert core.SetRtAlarmNotify(print, 1) is None
    try:
        core.GetDriver("Boiler")
    except SystemError:
        seen.append("no driver")
    assert seen == ["no driver"]
    quickly(lambda: globals().pop("core"))
    assert sockets() == before - 2, (before, sockets())
    check_dead()
    del globals()["boiler"]

{TOLD}
{SUBSCRIBE}
ended(child(in_child))
boiler.GetTagValue("go1")
until(lambda: len(seen) == 2)
assert seen == [1, 2] and boiler.GetTagValue("T0") == 2
"""
    forks(play, project, script, SUBSCRIBED, go("go1"), changes(1, 2))


@pytest.mark.parametrize("ending", ["sys.exit(0)", "pass", "os._exit(0)", "os.execv('/bin/true', ['true'])"])
@pytest.mark.parametrize("first", [SUBSCRIBE, ""], ids=["subscribed", "fresh"])
def test_a_child_that_ends_leaves_the_parents_connection(play: Play, project: str, first: str, ending: str) -> None:
    script = f"""
{FORKS}
{TOLD}
{first}
pid = os.fork()
if pid == 0:
    {ending}
else:
    ended(pid)
    {SUBSCRIBE if not first else ""}
    boiler.GetTagValue("go1")
    until(lambda: len(seen) == 2)
    assert seen == [1, 2] and boiler.GetTagValue("T0") == 2
"""
    forks(play, project, script, SUBSCRIBED, go("go1"), changes(1, 2))


ROUNDS = 5000 // SLOWER
LISTEN = f"""
from live_peer import Mixed
stream = Mixed({ROUNDS})
expected = stream.all_changes()
wrong = []
count = 0
def on_change(driver, tag, value):
    global count
    position, wanted = next(expected)
    if (tag, value) != (f"T{{position}}", wanted):
        wrong.append((tag, value, position, wanted))
    count += 1

boiler.SetTagNotify(on_change)
assert boiler.ConnectTag(",".join(f"T{{position}}" for position in range(stream.PER_ROUND))) == 1
boiler.GetTagValue("go1")
"""
HEARD_ALL = f"""
until(lambda: count == {ROUNDS} * stream.PER_ROUND)
assert wrong == [], wrong[:3]
"""


def in_a_storm(play: Play, project: str, script: str) -> None:
    """Runs the script while a long stream arrives, of which nothing may be lost."""
    stream = Mixed(ROUNDS)
    steps = w.subscribing_kinds(stream.KINDS), go("go1"), w.streaming(stream, 20)
    forks(play, project, FORKS + LISTEN + script + HEARD_ALL, *steps)


IN_CHILD = {
    "drops its copies": "ended(child(lambda: [globals().pop('core'), globals().pop('boiler')].clear()))",
    "leaves": "ended(child(lambda: None))",
    "exits": "pid = os.fork()\n    if pid == 0:\n        sys.exit(0)\n    ended(pid)",
}


@pytest.mark.parametrize("in_child", IN_CHILD.values(), ids=IN_CHILD)
def test_forks_in_the_middle_of_a_storm_lose_nothing(play: Play, project: str, in_child: str) -> None:
    in_a_storm(play, project, f"for _ in range(15):\n    {in_child}\n")


def test_processes_of_multiprocessing_lose_nothing(play: Play, project: str) -> None:
    script = """
import multiprocessing
fork = multiprocessing.get_context("fork")
queue = fork.SimpleQueue()
for number in range(3):
    process = fork.Process(target=queue.put, args=(number,))
    process.start()
    assert queue.get() == number
    process.join(20)
    assert process.exitcode == 0
with fork.Pool(2) as pool:
    assert pool.map(abs, range(-20, 0)) == list(range(20, 0, -1))
"""
    in_a_storm(play, project, script)


def test_programs_started_in_a_storm_lose_nothing_and_inherit_no_socket(play: Play, project: str) -> None:
    script = """
import subprocess
for _ in range(5):
    shown = subprocess.run(["ls", "-l", "/proc/self/fd"], capture_output=True, text=True, check=True, close_fds=False)
    assert "socket:" not in shown.stdout, shown.stdout
"""
    in_a_storm(play, project, script)


def test_a_program_that_a_callback_starts_blocks_the_scripts_signals_only(play: Play, project: str) -> None:
    script = f"""
import signal, subprocess
def blocked():
    shown = subprocess.run(["grep", "SigBlk", "/proc/self/status"], capture_output=True, text=True, check=True)
    return int(shown.stdout.split()[1], 16)

def on_change(driver, tag, value):
    seen.append(blocked())

boiler.SetTagNotify(on_change)
{SUBSCRIBE}
until(lambda: len(seen) == 2)
assert blocked() == 1 << signal.SIGUSR2 - 1
assert seen == [blocked()] * 2, seen
boiler.GetTagValue("go1")
"""
    blocks = "import signal; signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGUSR2])\n"
    pushed = [*changes(1), *d.pause(0.05), *changes(2)]
    runs(play, project, script, SUBSCRIBED + pushed + go("go1"), before=blocks)


# The thread sanitizer's runtime crashes where a thread ends that has forked its process off.
IN_CALLBACK = ["os._exit(0)"] if os.environ.get("RKDB_PRESET") == "tsan" else ["os._exit(0)", "return"]


@pytest.mark.parametrize("ending", IN_CALLBACK)
def test_a_callback_may_fork(play: Play, project: str, ending: str) -> None:
    # A child that comes back from the callback must not read from its parent's connection.
    script = f"""
{FORKS}
pids = []
def on_change(driver, tag, value):
    seen.append(value)
    if value % 50 == 0:
        pid = os.fork()
        if pid == 0:
            {ending}
        pids.append(pid)

boiler.SetTagNotify(on_change)
{SUBSCRIBE}
until(lambda: len(seen) == 400)
assert seen == list(range(400))
for pid in pids:
    ended(pid)
assert len(pids) == 8
boiler.GetTagValue("go1")
"""
    pushed = [step for start in range(0, 400, 20) for step in [*changes(*range(start, start + 20)), *d.pause(0.01)]]
    forks(play, project, script, SUBSCRIBED, pushed, go("go1"))


def test_a_call_for_an_active_alarm_may_fork_in_a_storm(play: Play, project: str) -> None:
    # The child goes on in the middle of the registration, without the thread that may have held a lock.
    script = f"""
{FORKS}
parent = os.getpid()
def on_alarm(*alarm):
    for _ in range({200 // SLOWER}):
        pid = os.fork()
        if pid == 0:
            return
        ended(pid)

{SUBSCRIBE}
core.SetRtAlarmNotify(on_alarm, 1)
if os.getpid() != parent:
    os._exit(0)
del core
"""
    forks(play, project, script, SUBSCRIBED, w.registering_alarms([w.Alarm()]), STORM[len(SUBSCRIBED) :])


def test_a_child_may_make_a_connection_of_its_own(play: Play, project: str) -> None:
    childs = play(d.connecting(f"{project}b") + SUBSCRIBED + changes(7, 8))
    script = f"""
{FORKS}
def in_child():
    own = connect(sys.argv[2])
    driver = own.GetDriver("Boiler")
    heard = []
    driver.SetTagNotify(lambda *change: heard.append(change[2]))
    assert driver.ConnectTag("T0,T1") == 1
    until(lambda: len(heard) == 2)
    assert heard == [7, 8] and driver.GetTagValue("T0") == 8
    del own
    until(lambda: tasks() == 1)
    assert boiler.GetTagValue("T0") is None

{TOLD}
{SUBSCRIBE}
ended(child(in_child))
boiler.GetTagValue("go1")
until(lambda: len(seen) == 2)
assert seen == [1, 2]
"""
    peer = peer_of(play, project, SUBSCRIBED, go("go1"), changes(1, 2))
    passes_unwatched(HEAD + script, peer.host, childs.host)
    childs.finish()
