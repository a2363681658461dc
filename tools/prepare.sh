# Sourced by ./demo and ./check: installs missing packages and builds a preset, in silence while all
# goes well.

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

# need_packages PACKAGE...: installs those that are missing (Debian and its kin).
need_packages() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || {
            say "These packages are missing: ${missing[*]}. Install them, or run this as root."
            return 1
        }
        as_root=(sudo)
    fi
    say "Installing ${missing[*]} ..."
    run_quietly build/log/apt-update "${as_root[@]}" apt-get update -q &&
        run_quietly build/log/apt-install "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -q -y --no-install-recommends "${missing[@]}"
}

# build_preset PRESET [TARGET...]
build_preset() {
    local preset=$1
    shift
    say "Building ($preset) ..."
    if [ ! -f "build/$preset/build.ninja" ]; then
        run_quietly "build/log/$preset-configure" cmake --preset "$preset" || return
    fi
    run_quietly "build/log/$preset-build" cmake --build --preset "$preset" \
        ${1:+--target "$@"} -- -j "$(nproc)"
}
