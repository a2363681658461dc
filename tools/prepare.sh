# Sourced by ./demo, ./check and their kin: installs missing packages and builds a preset. Silent
# while all goes well, but for a line about each step and, on a terminal, ninja's own progress.

# An embedding environment may name another launcher; with one, a second build is a matter of seconds.
if [ -z "${CMAKE_CXX_COMPILER_LAUNCHER:-}" ] && command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

say() {
    printf '%s\n' "$*" >&2
}

# run_quietly LOG COMMAND...: shows the log only if the command fails.
run_quietly() {
    local log=$1
    shift
    mkdir -p "$(dirname "$log")"
    "$@" >"$log" 2>&1 && return
    local status=$?
    say "failed (exit status $status): $*"
    tail -n 60 "$log" >&2
    return "$status"
}

# missing_packages PACKAGE...: those that are not installed, one a line.
missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' ||
            echo "$package"
    done
}

# install_packages PACKAGE...
install_packages() {
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || {
            say "These packages are missing: $*. Install them, or run this as root."
            return 1
        }
        as_root=(sudo)
    fi
    say "Installing $* ..."
    run_quietly build/log/apt-update "${as_root[@]}" apt-get update -q &&
        run_quietly build/log/apt-install "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -q -y --no-install-recommends "$@"
}

# need_packages PACKAGE...: installs those that are missing (Debian and its kin). Elsewhere it names
# them and goes on: the build says what it does not find.
need_packages() {
    local missing
    command -v apt-get >/dev/null || {
        say "No apt-get here. Needed, by Debian's names: $*"
        return 0
    }
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} -eq 0 ] || install_packages "${missing[@]}"
}

# want_packages PACKAGE...: the same for what the project can do without.
want_packages() {
    need_packages "$@" || say "Going on without: $(missing_packages "$@" | paste -sd ' ')"
}

# build_directory DIRECTORY [TARGET...]: a configured one, on all processors.
build_directory() {
    local directory=$1 all=(cmake --build "$1" ${2:+--target "${@:2}"} -- -j "$(nproc)")
    if [ -t 2 ]; then
        [ "$("${all[@]}" -n 2>/dev/null | tail -n 1)" = "ninja: no work to do." ] || "${all[@]}" >&2
    else
        run_quietly "build/log/${directory#build/}-build" "${all[@]}"
    fi
}

# build_preset PRESET [TARGET...]
build_preset() {
    local preset=$1
    shift
    say "Building ($preset) ..."
    if [ ! -f "build/$preset/build.ninja" ]; then
        run_quietly "build/log/$preset-configure" cmake --preset "$preset" || return
    fi
    build_directory "build/$preset" "$@"
}
