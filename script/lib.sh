# shellcheck shell=bash
# What the scripts of this folder share; sourced, never run. Sets -euo pipefail, root (the checkout) and the
# folder of the Python tools, and moves to the checkout so that scripts work from everywhere.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
venv="$root/.venv"

say() { printf '\n== %s\n' "$*"; }
die() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

# Warnings are errors for those who ask for it: RKDB_WERROR=ON script/test. A compiler that is newer than ours may
# warn of more than ours does, and must build the project all the same.
werror=${RKDB_WERROR:-OFF}

# configure PRESET [CMAKE-ARGUMENT...]: quiet unless it fails.
configure() {
    local preset=$1 log="build/$1-configure.log"
    shift
    # The presets, the wheel and fresh clones compile the same files again and again; with ccache they take seconds.
    # Paths below the checkout are hashed as relative ones, so that a clone elsewhere finds them too. Asked here and
    # not at the top, where on a fresh machine script/bootstrap has not yet installed it.
    if command -v ccache >/dev/null; then
        export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR="$root" CCACHE_NOHASHDIR=1
    fi
    mkdir -p build
    if ! cmake --preset "$preset" -DPython_EXECUTABLE="$venv/bin/python" -DRKDB_WERROR="$werror" "$@" >"$log" 2>&1; then
        cat "$log" >&2
        die "cmake --preset $preset failed"
    fi
}

# build PRESET [TARGET...]: as many jobs as cores, going on after a failure so that one run shows all there is to
# mend. A terminal shows progress, a log only what went wrong.
build() {
    local preset=$1 target=() ninja=(-k 0)
    shift
    [ $# -eq 0 ] || target=(--target "$@")
    [ -t 1 ] || ninja+=(--quiet)
    cmake --build --preset "$preset" --parallel "$(nproc)" "${target[@]}" -- "${ninja[@]}" ||
        die "building $preset failed"
}

# runtime NAME: the compiler's own copy of a run-time library, by its full path.
runtime() {
    local path
    path=$(g++ -print-file-name="$1")
    [ "$path" != "$1" ] || die "g++ has no $1"
    printf '%s' "$path"
}
