"""The helpers of the scripts that decide whether a run passed, each of which must be able to say no; and what the
scripts that install things say where they cannot."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import pytest

SCRIPTS = Path(__file__).resolve().parents[2] / "script"


def run(script: str, *arguments: Path) -> tuple[int, str]:
    done = subprocess.run([sys.executable, SCRIPTS / script, *arguments], capture_output=True, text=True, check=False)
    assert done.stderr == ""
    return done.returncode, done.stdout


def report(path: Path, tests: int, failures: int = 0, errors: int = 0, skipped: int = 0) -> Path:
    path.write_text(
        f'<testsuites><testsuite tests="{tests}" failures="{failures}" errors="{errors}" skipped="{skipped}"/>'
        "</testsuites>"
    )
    return path


@pytest.mark.parametrize(
    "arguments", [["--cases"], ["--cases", "x"], ["--cases", "0"], ["--preset"], ["--preset", "none"], ["--"], ["x"]]
)
def test_a_mistake_in_the_arguments_of_a_test_run_is_said_before_anything_is_built(arguments: list[str]) -> None:
    done = subprocess.run([SCRIPTS / "test", *arguments], capture_output=True, text=True, timeout=10, check=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.startswith("test: ")
    assert done.stderr.count("\n") == 1


def test_the_summary_adds_up_the_runners(tmp_path: Path) -> None:
    status, said = run("summary.py", report(tmp_path / "ctest.xml", 40), report(tmp_path / "pytest.xml", 2))
    assert status == 0
    assert said.splitlines() == [
        "ctest: 40 passed, 0 failed, 0 skipped",
        "pytest: 2 passed, 0 failed, 0 skipped",
        "total: 42 passed, 0 failed, 0 skipped",
    ]


@pytest.mark.parametrize(
    "bad", [{"tests": 3, "failures": 1}, {"tests": 3, "errors": 1}, {"tests": 3, "skipped": 1}, {"tests": 0}]
)
def test_the_summary_refuses_failed_skipped_and_missing_tests(tmp_path: Path, bad: dict[str, int]) -> None:
    status, _ = run("summary.py", report(tmp_path / "ctest.xml", 40), report(tmp_path / "pytest.xml", **bad))
    assert status == 1


def test_the_summary_refuses_a_run_without_reports(tmp_path: Path) -> None:
    assert run("summary.py", tmp_path / "ctest.xml", tmp_path / "pytest.xml")[0] == 1


LEAK_OF_CPYTHON = """
=================================================================
==1==ERROR: LeakSanitizer: detected memory leaks

Direct leak of 8 byte(s) in 1 object(s) allocated from:
    #0 0x7f in malloc asan_malloc_linux.cpp:69
    #1 0x7f in PyObject_Malloc Objects/obmalloc.c:1

"""
LEAK_OF_OURS = """Indirect leak of 9 byte(s) in 1 object(s) allocated from:
    #0 0x7f in operator new(unsigned long) asan_new_delete.cpp:95
    #1 0x7f in CDBCore::CDBCore() /clone/src/RkDBAccess/DBCore.cpp:12
    #2 0x7f in cfunction_call Objects/methodobject.c:542

SUMMARY: AddressSanitizer: 17 byte(s) leaked in 2 allocation(s).
"""


def test_the_leak_report_passes_over_what_the_interpreter_keeps(tmp_path: Path) -> None:
    (tmp_path / "report.1").write_text(LEAK_OF_CPYTHON)
    assert run("leaks.py", tmp_path) == (0, "1 reports read, 0 leaks of our code, 0 other faults\n")


def test_the_leak_report_finds_our_leak_among_those_of_the_interpreter(tmp_path: Path) -> None:
    (tmp_path / "report.1").write_text(LEAK_OF_CPYTHON + LEAK_OF_OURS)
    (tmp_path / "report.2").write_text(LEAK_OF_CPYTHON)
    status, said = run("leaks.py", tmp_path)
    assert status == 1
    assert "CDBCore::CDBCore()" in said
    assert "PyObject_Malloc" not in said
    assert said.endswith("2 reports read, 1 leaks of our code, 0 other faults\n")


@pytest.mark.parametrize(
    "fault", ["==7==ERROR: AddressSanitizer: heap-use-after-free on address 0x1", "a.cpp:1:2: runtime error: overflow"]
)
def test_another_fault_in_a_report_file_is_not_lost(tmp_path: Path, fault: str) -> None:
    (tmp_path / "report.1").write_text(f"{fault}\n")
    status, said = run("leaks.py", tmp_path)
    assert status == 1
    assert fault in said


# Scripts that install things.


def fake(folder: Path, name: str, *lines: str) -> None:
    """A command that is found before the machine's own."""
    path = folder / name
    path.write_text("\n".join(["#!/bin/sh", *lines, ""]))
    path.chmod(0o755)


def run_as_user(folder: Path, script: str, *arguments: str) -> subprocess.CompletedProcess[str]:
    """Runs a script as one that is not root and has no terminal sees itself."""
    fake(folder, "id", "echo 1000")
    return subprocess.run(
        [SCRIPTS / script, *arguments],
        env={**os.environ, "PATH": f"{folder}:{os.environ['PATH']}"},
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=120,
        start_new_session=True,
        check=False,
    )


@pytest.fixture
def machine_without_packages(tmp_path: Path) -> Path:
    """A folder of commands: nothing is installed, and whatever would install leaves a mark."""
    fake(tmp_path, "dpkg-query", "exit 1")
    fake(tmp_path, "apt-get", f"touch {tmp_path}/installed", "exit 1")
    return tmp_path


def test_a_sudo_that_needs_a_password_without_a_terminal_gives_one_sentence(machine_without_packages: Path) -> None:
    folder = machine_without_packages
    fake(folder, "sudo", '[ "$1" = -n ] || exec sleep 600', "echo sudo: a password is required >&2", "exit 1")
    done = run_as_user(folder, "bootstrap")
    assert done.returncode == 1
    assert done.stdout == ""
    (line,) = done.stderr.splitlines()
    assert line.startswith("bootstrap: sudo needs a password and there is no terminal to ask for it: run as root; ")
    assert "g++" in line
    assert not (folder / "installed").exists()


def test_a_sudo_that_needs_no_password_installs(machine_without_packages: Path) -> None:
    folder = machine_without_packages
    fake(folder, "sudo", '[ "$1" != -n ] || shift', 'exec "$@"')
    done = run_as_user(folder, "bootstrap")
    assert (done.returncode, done.stderr.splitlines()[-1]) == (1, "bootstrap: apt-get failed")
    assert "Installing Debian packages: git g++ make" in done.stdout
    assert (folder / "installed").exists()


@pytest.mark.parametrize(
    ("arguments", "sentence"),
    [
        (["13"], "fresh: only root can make a fresh machine: it needs debootstrap, mount and chroot"),
        (["11"], "fresh: unknown Debian 11 (12 or 13)"),
        ([], "fresh: which Debian? 12 or 13"),
    ],
)
def test_a_fresh_machine_that_cannot_be_made_gives_one_sentence(
    tmp_path: Path, arguments: list[str], sentence: str
) -> None:
    done = run_as_user(tmp_path, "fresh", *arguments)
    assert (done.returncode, done.stdout, done.stderr) == (1, "", f"{sentence}\n")
