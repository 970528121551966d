"""The wheel, installed where nothing else of this project is: what it holds, that it works, that its types are found
and say what the module does. The tree and its build folders play no part but for building the wheel."""

from __future__ import annotations

import ast
import os
import re
import site
import subprocess
import sys
import zipfile
from collections.abc import Iterator
from pathlib import Path

import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
STUB = CHECKOUT / "src" / "RkDBAccess" / "RkDBAccess.pyi"

# One wheel for all tests of this file, also when tests run in several processes.
pytestmark = pytest.mark.xdist_group("wheel")


def run(*command: str | Path, cwd: Path) -> str:
    """Runs a command without the build folders on any path; gives its output. It must end with status 0."""
    environment = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "MYPYPATH", "RKDBSIM", "RKDB_WHEEL")}
    done = subprocess.run(command, cwd=cwd, env=environment, capture_output=True, text=True, check=False)
    assert done.returncode == 0, f"{command}: status {done.returncode}\n{done.stdout}\n{done.stderr}"
    return done.stdout


@pytest.fixture(scope="module")
def wheel(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A wheel of the tree as it is: the one that script/test has built, or a new one."""
    if "RKDB_WHEEL" in os.environ:
        return Path(os.environ["RKDB_WHEEL"])
    folder = tmp_path_factory.mktemp("wheel")
    pip = (sys.executable, "-m", "pip", "--disable-pip-version-check", "wheel", "--no-index", "--no-deps")
    run(*pip, "--no-build-isolation", "--wheel-dir", folder, CHECKOUT, cwd=folder)
    (built,) = folder.iterdir()
    return built


@pytest.fixture(scope="module")
def environment(wheel: Path, tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A virtual environment that holds the wheel and nothing else."""
    folder = tmp_path_factory.mktemp("environment")
    run(sys.executable, "-m", "venv", "--without-pip", folder, cwd=folder)
    pip = (sys.executable, "-m", "pip", "--python", folder / "bin" / "python", "--disable-pip-version-check")
    run(*pip, "install", "--no-index", "--no-deps", wheel, cwd=folder)
    return folder


@pytest.fixture(scope="module")
def type_checker(environment: Path, tmp_path_factory: pytest.TempPathFactory) -> Iterator[tuple[Path, Path]]:
    """(interpreter, empty folder): the same environment as a mypy that runs in it sees it."""
    (packages,) = (environment / "lib").glob("python*/site-packages")
    tools = packages / "tools.pth"
    tools.write_text("\n".join(site.getsitepackages()) + "\n")
    yield environment / "bin" / "python", tmp_path_factory.mktemp("typing")
    tools.unlink()


def project_version() -> str:
    found = re.search(r"project\(RkDBAccess VERSION ([0-9.]+)", (CHECKOUT / "CMakeLists.txt").read_text("utf-8"))
    assert found is not None
    return found.group(1)


def test_the_wheel_holds_the_module_its_types_and_the_simulator_and_nothing_else(wheel: Path) -> None:
    with zipfile.ZipFile(wheel) as archive:
        names = set(archive.namelist())
        stub = STUB.read_bytes()
        assert archive.read("RkDBAccess.pyi") == stub
        assert archive.read("RkDBAccess-stubs/__init__.pyi") == stub
    prefix = f"rkdbaccess-{project_version()}"
    info = {name for name in names if name.startswith(f"{prefix}.dist-info/")}
    modules = {name for name in names if re.fullmatch(r"RkDBAccess\.cpython-\d+-[\w-]+\.so", name)}
    assert len(modules) == 1
    assert names - info - modules == {
        "RkDBAccess.pyi",
        "RkDBAccess-stubs/__init__.pyi",
        f"{prefix}.data/scripts/rkdbsim",
    }


def test_the_package_and_the_simulator_have_the_projects_version(environment: Path, tmp_path: Path) -> None:
    command = "import importlib.metadata as m; print(m.version('RkDBAccess'))"
    assert run(environment / "bin" / "python", "-I", "-c", command, cwd=tmp_path).strip() == project_version()
    assert run(environment / "bin" / "rkdbsim", "--version", cwd=tmp_path).split()[-1] == project_version()


USE = """
import re, shutil, signal, subprocess, sys
import RkDBAccess
assert RkDBAccess.__file__.startswith(sys.prefix), RkDBAccess.__file__
with subprocess.Popen([sys.prefix + "/bin/rkdbsim", "--port", "0"], stdout=subprocess.PIPE, text=True) as simulator:
    try:
        port = re.search(r":([0-9]+)$", simulator.stdout.readline().strip()).group(1)
        db = RkDBAccess.DBCore()
        print(db.Connect(f"127.0.0.1:{port}", "nobody", "wrong"), db.Connect("127.0.0.1:1", "a", "b"))
    finally:
        shutil.rmtree(f"/tmp/rkbrowser/127.0.0.1_{port}", ignore_errors=True)  # while the port is the simulator's
        simulator.send_signal(signal.SIGTERM)
print(simulator.returncode)
"""


def test_the_installed_module_talks_to_the_installed_simulator(environment: Path, tmp_path: Path) -> None:
    refused, unreachable, status = run(environment / "bin" / "python", "-I", "-c", USE, cwd=tmp_path).split()
    assert (refused, unreachable, status) == ("-1", "-2", "0")


# Types.

RESULT = "Literal[0] | Literal[-1] | Literal[-2] | Literal[-3]"
REVEALED = {
    "db": "RkDBAccess.DBCore",
    "db.Connect('h', 'u', 'p')": RESULT,
    "driver": "RkDBAccess.Driver",
    "driver.GetTagValue('A')": "int | float | str | list[Any] | None",
    "driver.SetTagValue('A', 1)": RESULT,
    "driver.SetTagValue('A,B', [1, 'x'])": RESULT,
    "driver.ConnectTag('A')": "Literal[0] | Literal[1]",
}

HEAD = """
from datetime import datetime
import RkDBAccess
def on_tag(driver: str, tag: str, value: object) -> None: ...
def on_alarm(at: datetime, event: datetime, tag: str, has_event: int, kind: str, group: str, level: int,
             value: float, limit: float, status: int) -> None: ...
db = RkDBAccess.DBCore()
driver = db.GetDriver("x")
driver.SetTagNotify(on_tag)
db.SetRtAlarmNotify(on_alarm, 1)
db.SetRtAlarmNotify(on_alarm, True)
"""

WRONG = [
    "db.Connect('h', 'u')",
    "db.Connect(host='h', user='u', password='p')",
    "db.GetDriver(b'x')",
    "db.SetRtAlarmNotify(on_tag, 1)",
    "db.SetRtAlarmNotify(42, 1)",
    "driver.SetTagNotify(on_alarm)",
    "driver.SetTagValue('A', None)",
    "driver.SetTagValue('A', b'x')",
    "driver.ConnectTag(['A'])",
    "db.Disconnect()",
    "class Mine(RkDBAccess.DBCore): ...",
]


def mypy(checker: tuple[Path, Path], text: str) -> str:
    """What mypy says about a text, as it comes."""
    python, folder = checker
    (folder / "case.py").write_text(text)
    done = subprocess.run(
        [python, "-m", "mypy", "--strict", "--no-error-summary", "--hide-error-context", "case.py"],
        cwd=folder,
        env={k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "MYPYPATH")},
        capture_output=True,
        text=True,
        check=False,
    )
    assert done.stderr == ""
    return done.stdout


def test_mypy_finds_the_installed_types_and_reveals_what_the_methods_give(type_checker: tuple[Path, Path]) -> None:
    said = mypy(type_checker, HEAD + "".join(f"reveal_type({expression})\n" for expression in REVEALED))
    assert re.findall(r'Revealed type is "(.*)"', said) == list(REVEALED.values())
    assert "error" not in said


def test_mypy_refuses_what_the_module_would_refuse(type_checker: tuple[Path, Path]) -> None:
    first = HEAD.count("\n") + 1
    said = mypy(type_checker, HEAD + "\n".join(WRONG) + "\n")
    refused = {int(line) - first for line in re.findall(r"^case\.py:(\d+): error", said, re.MULTILINE)}
    assert [WRONG[index] for index in sorted(refused)] == WRONG, said


def test_the_examples_are_well_typed_against_the_installed_types(type_checker: tuple[Path, Path]) -> None:
    python, folder = type_checker
    examples = sorted((CHECKOUT / "examples").glob("*.py"))
    assert examples
    run(python, "-m", "mypy", "--strict", *examples, cwd=folder)


def test_the_types_agree_with_the_module_in_names_and_signatures(type_checker: tuple[Path, Path]) -> None:
    python, folder = type_checker
    assert "Success: no issues found" in run(python, "-m", "mypy.stubtest", "RkDBAccess", cwd=folder)


def test_every_class_and_method_has_its_contract_in_the_types() -> None:

    module = ast.parse(STUB.read_text("utf-8"))
    assert ast.get_docstring(module)
    classes = [node for node in module.body if isinstance(node, ast.ClassDef)]
    documented = {
        f"{owner.name}.{node.name}": ast.get_docstring(node)
        for owner in classes
        for node in owner.body
        if isinstance(node, ast.FunctionDef)
    }
    assert len(documented) >= len(classes) + 7
    assert [name for name, text in documented.items() if not text] == []
    assert [owner.name for owner in classes if not ast.get_docstring(owner)] == []
