# shellcheck shell=bash
# A target root file system for cross builds: the development packages of
# another architecture, from the Debian release the build machine runs (its
# cross compiler and the target's C++ runtime must match), unpacked (not
# installed) into a directory.
# Installing them through dpkg multiarch would replace or conflict with the
# native ones (qtbase5-dev-tools, libgtest-dev and others are not co-installable),
# so apt works on a private state of its own and nothing on the host changes.
# Sourced by scripts/cross-test.sh.

# Debian architecture names and GNU triplets.
declare -A QUIL_CROSS_TRIPLET=([arm64]=aarch64-linux-gnu [armhf]=arm-linux-gnueabihf)

# What the library, the tool, the tests and the benchmarks build against, and
# the sound stack of a device the tests play through: ALSA's pulse plugin, and
# pulseaudio for its ALSA configuration (default PCM and mixer on the server).
# libstdc++-N-dev is added for the cross compiler's N (make_sysroot).
QUIL_SYSROOT_PACKAGES=(libc6-dev qtbase5-dev libasound2-dev liblog4cplus-dev
                       libsndfile1-dev libgtest-dev libbenchmark-dev libasound2-plugins libasound2-data
                       pulseaudio)
# PipeWire's own ALSA plugins, for the tests' pipewire variant. The package
# conflicts with pulseaudio: it is downloaded on its own and unpacked into
# DIR/pipewire-alsa, which scripts/lib/soundserver.sh is pointed at.
QUIL_SYSROOT_PIPEWIRE_ALSA=pipewire-alsa

# sysroot_suite: the build machine's Debian release (bookworm, trixie, ...).
sysroot_suite() {
    (. /etc/os-release && echo "${VERSION_CODENAME:?/etc/os-release names no release}")
}

# make_sysroot ARCH DIR
# Unpacks QUIL_SYSROOT_PACKAGES and everything they depend on for ARCH into
# DIR, from the build machine's own release, with the C++ library of ARCH's
# cross compiler (which must be installed). Skipped when DIR is complete and
# was made from the same release and list; an interrupted run starts over.
make_sysroot() {
    local arch=$1 root=${2%/} state deb suite gcc_major
    case $root in
        /?*) ;;
        *) echo "make_sysroot: an absolute directory other than / is needed, not '$2'" >&2; return 1 ;;
    esac
    suite=$(sysroot_suite) || return 1
    gcc_major=$("${QUIL_CROSS_TRIPLET[$arch]}-g++" -dumpversion) || return 1
    local packages=("${QUIL_SYSROOT_PACKAGES[@]}" "libstdc++-${gcc_major%%.*}-dev")
    local list="$suite: ${packages[*]} $QUIL_SYSROOT_PIPEWIRE_ALSA"
    [ "$(cat "$root/.complete" 2>/dev/null)" = "$list" ] && return 0
    state=$root.apt
    rm -rf "$root" "$state"
    mkdir -p "$state/lists/partial" "$state/cache/archives/partial" "$state/parts" "$root/usr/lib"
    touch "$state/status"
    # Debian's own archive only, whatever else the host lists.
    local keyring=/usr/share/keyrings/debian-archive-keyring.gpg
    cat >"$state/sources.list" <<EOF_SOURCES
deb [signed-by=$keyring] http://deb.debian.org/debian $suite main
deb [signed-by=$keyring] http://deb.debian.org/debian $suite-updates main
deb [signed-by=$keyring] http://deb.debian.org/debian-security $suite-security main
EOF_SOURCES
    local apt=(apt-get -qq -o "APT::Architecture=$arch" -o "APT::Architectures=$arch"
               -o "Dir::State=$state" -o "Dir::State::status=$state/status"
               -o "Dir::Cache=$state/cache" -o "Dir::Etc::SourceList=$state/sources.list"
               -o "Dir::Etc::SourceParts=$state/parts" -o "Dir::Etc::Preferences=/dev/null"
               -o "Dir::Etc::PreferencesParts=$state/parts" -o "Debug::NoLocking=1")
    echo "Downloading the $suite $arch packages of the sysroot $root"
    # A mirror in mid-sync fails an index now and then: try again, then go on
    # with what came (the download below fails if that is not enough).
    "${apt[@]}" update || "${apt[@]}" update || echo "warning: some $arch package lists did not update" >&2
    "${apt[@]}" install -y --download-only --no-install-recommends "${packages[@]}" >/dev/null
    # Nothing counts as installed, so the conflicting package resolves alone.
    "${apt[@]}" install -y --download-only --no-install-recommends "$QUIL_SYSROOT_PIPEWIRE_ALSA" >/dev/null
    mkdir -p "$root/pipewire-alsa"
    for deb in "$state"/cache/archives/"${QUIL_SYSROOT_PIPEWIRE_ALSA}"_*.deb; do
        dpkg-deb -x "$deb" "$root/pipewire-alsa"
        rm "$deb"
    done

    # Debian 12 and later are merged-/usr: /lib is /usr/lib, and so it is here.
    ln -s usr/lib "$root/lib"
    for deb in "$state"/cache/archives/*.deb; do
        dpkg-deb --fsys-tarfile "$deb" | tar -x --keep-directory-symlink -C "$root"
    done
    # Absolute links point into the host; make them relative to the sysroot.
    local link target
    while IFS= read -r -d '' link; do
        target=$(readlink "$link")
        ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$root$target")" "$link"
    done < <(find "$root" -type l -lname '/*' -print0)
    # No target executables: programs the tests start by name (pulseaudio, sh)
    # must be the host's, and qemu's file name lookup would find these first.
    rm -rf "${root:?}/usr/bin" "${root:?}/usr/sbin" "${root:?}/bin" "${root:?}/sbin"
    # Qt's build tools (moc, rcc) run on the build machine: the host's own.
    local tool
    for tool in "$root/usr/lib/${QUIL_CROSS_TRIPLET[$arch]}/qt5/bin"/* "$root"/usr/lib/qt5/bin/*; do
        rm -f "$tool"
        if [ -e "/usr/lib/qt5/bin/${tool##*/}" ]; then
            ln -s "/usr/lib/qt5/bin/${tool##*/}" "$tool"
        fi
    done
    rm -rf "$state"
    echo "$list" >"$root/.complete"
}
