# Sourced by ./check: the Debian packages, from a fresh minimal Debian to a host that runs.
. tools/cross.sh

# make_root DIRECTORY PACKAGES: a minimal Debian with these packages.
make_root() {
    local site codename
    read -r site codename < <(archive)
    rm -rf "$1"
    run_quietly "build/log/${1##*/}" mmdebstrap --variant=minbase --include="$2" "$codename" "$1" \
        "deb $site $codename main"
}

# in_root DIRECTORY COMMAND...
in_root() {
    local root=$1
    shift
    chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive "$@"
}

build_packages() {
    local root=$1
    make_root "$root" \
        g++,cmake,ninja-build,pkg-config,qtbase5-dev,libcsv-dev,file,dpkg-dev || return
    mkdir "$root/source"
    git ls-files -z -co --exclude-standard | xargs -0 tar -c | tar -x -C "$root/source"
    run_quietly build/log/package-build in_root "$root" sh -c \
        "cd source && cmake --preset package -DS7200_COMMIT=$(git describe --always --dirty) &&
         cmake --build --preset package && cd build/package && cpack" || return
    rm -rf build/packages
    mkdir -p build/packages
    cp "$root"/source/build/package/*.deb build/packages
}

use_packages() {
    local root=$1
    make_root "$root" g++,cmake,make,pkg-config || return
    mkdir "$root/try"
    cp -r build/packages examples packaging docs README.md "$root/try"
    in_root "$root" sh -c 'apt-get update -q && apt-get install -q -y --no-install-recommends \
        /try/packages/*.deb' >build/log/package-install 2>&1 || {
        tail build/log/package-install >&2
        return 1
    }
    in_root "$root" /try/packaging/try-hosts /usr >&2
}

remove_packages() {
    local root=$1 left packages
    packages=$(for file in build/packages/*.deb; do dpkg-deb -f "$file" Package; done)
    run_quietly build/log/package-remove in_root "$root" apt-get purge -q -y $packages || return
    left=$(find "$root/usr" "$root/etc" -iname '*s7200*' -o -iname '*cp243*')
    [ -z "$left" ] || {
        say "Left behind by the packages: $left"
        return 1
    }
}

package() {
    [ "$(id -u)" -eq 0 ] || {
        say "check: --package makes scratch roots and needs to be root"
        return 1
    }
    need_packages mmdebstrap lintian || return
    say "Building packages in a minimal Debian ..."
    build_packages build/root-build || return
    say "Looking at them (lintian) ..."
    run_quietly build/log/lintian lintian --allow-root --fail-on error build/packages/*.deb || return
    say "Installing, using and removing them in another ..."
    use_packages build/root-use && remove_packages build/root-use || return
    rm -rf build/root-build build/root-use
    tested+=("$(ls build/packages | wc -l) packages: built, installed, used by two hosts, removed")
}
