# Sourced by ./check: a build for another processor, tested under qemu.

# archive: where this machine's apt gets Debian from, and its release.
archive() {
    apt-get indextargets --format '$(SITE) $(CODENAME)' 'Created-By: Packages' |
        awk '$2 !~ /-/ { print; exit }'
}

sysroot_packages=qtbase5-dev,libcsv-dev,libstdc++-12-dev,libc6-dev

# make_sysroot ARCHITECTURE DIRECTORY: Debian's own libraries of that architecture.
make_sysroot() {
    local architecture=$1 root=$2 site codename triplet link
    read -r site codename < <(archive)
    rm -rf "$root" "$root.new"
    mkdir -p "$(dirname "$root")"
    say "Making the sysroot ($architecture) ..."
    run_quietly "build/log/sysroot-$architecture" mmdebstrap --variant=extract \
        --architectures="$architecture" \
        --include="$sysroot_packages" "$codename" "$root.new" \
        "deb $site $codename main" || return
    # Qt's tools run on this machine.
    ln -sfn "$(dirname "$(readlink -f /usr/lib/qt5/bin/moc)")" "$root.new/usr/lib/qt5/bin.here"
    rm -rf "$root.new/usr/lib/qt5/bin"
    mv "$root.new/usr/lib/qt5/bin.here" "$root.new/usr/lib/qt5/bin"
    # Links that begin at the root would lead to this machine's files.
    triplet=$(cd "$root.new/usr/lib" && echo *-linux-gnu*)
    find "$root.new/usr/lib/$triplet" -maxdepth 1 -lname '/*' | while read -r link; do
        ln -sfn "../../..$(readlink "$link")" "$link"
    done
    mv "$root.new" "$root"
    echo "$sysroot_packages" >"$root.holds"
}

# cross ARCHITECTURE
cross() {
    local architecture=$1 directory=build/cross-$1 root=$PWD/build/sysroot-$1
    need_packages mmdebstrap qemu-user "crossbuild-essential-$architecture" || return
    [ "$(cat "$root.holds" 2>/dev/null)" = "$sysroot_packages" ] ||
        make_sysroot "$architecture" "$root" || return
    say "Building ($architecture) ..."
    [ -f "$directory/build.ninja" ] ||
        run_quietly "build/log/cross-$architecture-configure" cmake -S . -B "$directory" -G Ninja \
            --toolchain cmake/cross.cmake -DS7200_CROSS="$architecture" -DS7200_SYSROOT="$root" \
            -DCMAKE_BUILD_TYPE=Release -DS7200_WARNINGS_AS_ERRORS=ON || return
    build_directory "$directory" || return
    # qemu-user cannot start further programs: what needs that is left out.
    run_tests "$directory" "for $architecture under qemu" -LE programs
}
