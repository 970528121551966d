"""Rules of the tree that no compiler checks: which floor may include which, what the module shows to the process,
that presets, version and links say the same everywhere. Each rule is also tried on a planted violation."""

from __future__ import annotations

import json
import os
import re
import subprocess
from pathlib import Path

import pytest

import RkDBAccess

CHECKOUT = Path(__file__).resolve().parents[2]

# Folder of a floor -> the folders whose headers it may include. Keys are exact folders: src is not src/nonwin.
FLOORS: dict[str, tuple[str, ...]] = {
    "src/nonwin": ("src/nonwin",),
    "src": ("src/nonwin", "src"),
    "src/RkDBAccess": ("src/nonwin", "src", "src/RkDBAccess"),
    "sim": ("src/nonwin", "src", "sim"),
}
KNOWS_PYTHON = ("src/RkDBAccess",)
SOURCES = (".h", ".cpp")

COMMENT = re.compile(r"/\*.*?\*/|//[^\n]*", re.DOTALL)
INCLUDE = re.compile(r"^[ \t]*#[ \t]*(?:include|include_next|import)\b[ \t]*(.*)$", re.MULTILINE)
TARGET = re.compile(r'"([^"]+)"|<([^>]+)>')


def includes(text: str) -> list[str]:
    """What the include directives of a source name, with their quotes."""
    spliced = text.replace("\\\n", "")
    return [found.strip() for found in INCLUDE.findall(COMMENT.sub(" ", spliced))]


def upward_includes(root: Path) -> list[str]:
    """Every include that points to a floor which the including file may not use, or that cannot be judged."""
    headers: dict[str, str] = {}
    for floor in FLOORS:
        for path in sorted((root / floor).glob("*.h")):
            assert path.name not in headers, f"two headers named {path.name}: bare names could mean either"
            headers[path.name] = floor
    found = []
    for floor, allowed in FLOORS.items():
        for path in sorted(p for p in (root / floor).glob("*") if p.suffix in SOURCES):
            for directive in includes(path.read_text(encoding="utf-8")):
                complaint = judge(directive, floor, allowed, headers)
                if complaint:
                    found.append(f"{path.relative_to(root)}: {directive}: {complaint}")
    return found


def judge(directive: str, floor: str, allowed: tuple[str, ...], headers: dict[str, str]) -> str | None:
    """What is wrong with one include directive of a file of this floor."""
    target = TARGET.match(directive)
    if target is None:
        return 'neither "..." nor <...>, so it cannot be judged'
    quoted, angled = target.groups()
    name = Path(quoted or angled).name
    if name == "Python.h" and floor not in KNOWS_PYTHON:
        return "this floor knows no interpreter"
    if quoted and name not in headers:
        return "no header of this project"
    if quoted and quoted != name:
        return "project headers are included by their bare name"
    owner = headers.get(name)
    if owner is not None and (quoted or angled == name or angled.endswith(f"{Path(owner).name}/{name}")):
        return None if owner in allowed else f"belongs to {owner}, which is above {floor}"
    return None


def test_no_include_points_to_a_higher_floor() -> None:
    assert all(any((CHECKOUT / floor).glob("*.cpp")) for floor in FLOORS), "a floor without sources checks nothing"
    assert upward_includes(CHECKOUT) == []


@pytest.mark.parametrize(
    ("file", "line"),
    [
        ("src/nonwin/low.cpp", '#include "middle.h"'),
        ("src/nonwin/low.h", "#include <middle.h>"),
        ("src/nonwin/low.h", '  #  include "top.h"'),
        ("src/middle.cpp", '#include "RkDBAccess/top.h"'),
        ("src/middle.cpp", "#include <RkDBAccess/top.h>"),
        ("src/middle.cpp", '#include \\\n"top.h"'),
        ("src/middle.cpp", "#include <Python.h>"),
        ("src/middle.cpp", "#include HEADER"),
        ("src/middle.cpp", '#include "../sim/server.h"'),
        ("src/RkDBAccess/top.cpp", '#include "server.h"'),
        ("sim/server.cpp", '#include "top.h"'),
        ("sim/server.cpp", '#include "nowhere.h"'),
    ],
)
def test_a_planted_upward_include_is_found(tmp_path: Path, file: str, line: str) -> None:
    tree = {
        "src/nonwin/low.h": "",
        "src/nonwin/low.cpp": '#include "low.h"\n#include <vector>\n',
        "src/middle.h": "",
        "src/middle.cpp": '// #include "top.h"\n/* \n#include "top.h"\n*/\n#include "low.h"\n#include "middle.h"\n',
        "src/RkDBAccess/top.h": '#include "middle.h"\n#include <Python.h>\n',
        "src/RkDBAccess/top.cpp": '#include "low.h"\n#include "top.h"\n',
        "sim/server.h": '#include "low.h"\n#include <asio/ip/tcp.hpp>\n',
        "sim/server.cpp": '#include "middle.h"\n#include "server.h"\n',
    }
    for name, text in tree.items():
        path = tmp_path / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    assert upward_includes(tmp_path) == []
    with (tmp_path / file).open("a") as source:
        source.write(f"\n{line}\n")
    assert [complaint.split(":")[0] for complaint in upward_includes(tmp_path)] == [file]


# What the module shows to the process.

FLAT_FUNCTIONS = {
    "_DBCoreNew",
    "_DBConnect",
    "_DBGetDriver",
    "_DBSetRtAlarmNotify",
    "_DrvGetTagValue",
    "_DrvSetTagValue",
    "_DrvSetTagNotify",
    "_DrvConnectTag",
    "_DBCoreDelete",
}


def test_the_module_exports_its_entry_and_the_flat_functions_and_nothing_else() -> None:
    assert RkDBAccess.__file__ is not None
    listing = subprocess.run(
        ["nm", "--dynamic", "--defined-only", "--format=posix", RkDBAccess.__file__],
        env={name: value for name, value in os.environ.items() if name != "LD_PRELOAD"},
        capture_output=True,
        text=True,
        check=True,
    ).stdout
    assert {line.split()[0] for line in listing.splitlines()} == FLAT_FUNCTIONS | {"PyInit_RkDBAccess"}


# Build and version.


def build_folder() -> Path:
    """The build that is being tested, which the module was imported from."""
    assert RkDBAccess.__file__ is not None
    return Path(RkDBAccess.__file__).parent


def project_version() -> str:
    found = re.search(r"project\(RkDBAccess VERSION ([0-9.]+)", (CHECKOUT / "CMakeLists.txt").read_text("utf-8"))
    assert found is not None
    return found.group(1)


def test_the_simulator_names_the_projects_version(rkdbsim_path: Path) -> None:
    answer = subprocess.run([rkdbsim_path, "--version"], capture_output=True, text=True, check=True)
    assert answer.stdout.split()[-1] == project_version()
    assert answer.stderr == ""


def test_every_promised_preset_can_be_configured_and_built() -> None:
    presets = json.loads((CHECKOUT / "CMakePresets.json").read_text("utf-8"))
    promised = {"release", "debug", "asan", "tsan", "fuzz"}
    visible = {preset["name"] for preset in presets["configurePresets"] if not preset.get("hidden")}
    assert promised <= visible
    assert promised <= {preset["name"] for preset in presets["buildPresets"]}
    listed = subprocess.run(["cmake", "--list-presets"], cwd=CHECKOUT, capture_output=True, text=True, check=True)
    assert all(f'"{name}"' in listed.stdout for name in promised)


def test_the_tested_build_was_compiled_as_its_preset_promises() -> None:
    flags = {
        "release": {"-O3"},
        "debug": {"-g"},
        "asan": {"-fsanitize=address,undefined", "-fno-sanitize-recover=all"},
        "tsan": {"-fsanitize=thread"},
    }[build_folder().name]
    commands = json.loads((build_folder() / "compile_commands.json").read_text("utf-8"))
    # Warnings are errors for those who asked for it, and for nobody else.
    asked = re.search(r"^RKDB_WERROR:\w+=(ON|OFF)$", (build_folder() / "CMakeCache.txt").read_text("utf-8"), re.M)
    assert asked is not None
    assert os.environ.get("RKDB_WERROR", asked.group(1)) == asked.group(1)
    ours = [entry for entry in commands if "/src/" in entry["file"]]
    assert ours
    for entry in ours:
        words = set(entry["command"].split())
        assert flags | {"-std=c++20", "-Wall", "-Wextra", "-Wconversion"} <= words, entry["file"]
        assert ("-Werror" in words) == (asked.group(1) == "ON"), entry["file"]


def test_warnings_are_errors_for_nobody_who_did_not_ask() -> None:
    settings = (CHECKOUT / "CMakeLists.txt").read_text("utf-8")
    assert re.search(r"^option\(RKDB_WERROR .* OFF\)$", settings, re.M)
    others = ["CMakePresets.json", "pyproject.toml", "script/demo", "script/test", "script/bench"]
    assert [name for name in others if "RKDB_WERROR=ON" in (CHECKOUT / name).read_text("utf-8")] == []
    assert "export RKDB_WERROR=ON" in (CHECKOUT / ".ci" / "run").read_text("utf-8")


# Texts of the tree.


def tracked_files() -> list[Path]:
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=CHECKOUT, capture_output=True, text=True, check=True)
    return [CHECKOUT / name for name in listed.stdout.split("\0") if name and (CHECKOUT / name).is_file()]


def test_no_source_reads_the_environment() -> None:
    reads = re.compile(r"\b(?:secure_)?getenv\b|\benviron\b")
    sources = [p for p in tracked_files() if p.suffix in SOURCES and p.relative_to(CHECKOUT).parts[0] in ("src", "sim")]
    assert sources
    assert [str(p) for p in sources if reads.search(COMMENT.sub(" ", p.read_text("utf-8")))] == []


def test_no_source_file_is_too_long_to_be_seen_whole() -> None:
    files = [p for p in tracked_files() if p.suffix in (*SOURCES, ".py")]
    assert files
    long = {str(p.relative_to(CHECKOUT)): n for p in files if (n := len(p.read_text("utf-8").splitlines())) >= 600}
    assert long == {}


def test_every_link_between_the_documents_leads_somewhere() -> None:
    documents = [p for p in tracked_files() if p.suffix == ".md"]
    links = 0
    broken = []
    for path in documents:
        for target in re.findall(r"\]\(([^)#\s]+)(?:#[^)]*)?\)", path.read_text("utf-8")):
            if "://" in target:
                continue
            links += 1
            if not (path.parent / target).exists():
                broken.append(f"{path.relative_to(CHECKOUT)}: {target}")
    assert links > 0
    assert broken == []


@pytest.mark.parametrize("name", ["script/bootstrap", "script/demo", "script/test", "script/lint", ".ci/run"])
def test_every_command_of_the_readme_can_be_run(name: str) -> None:
    assert os.access(CHECKOUT / name, os.X_OK)
