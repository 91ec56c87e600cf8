# shellcheck shell=bash disable=SC2034 # the lists are used by the scripts that source this file
# Debian packages the project needs, and their installation; sourced by the
# scripts in scripts/.

# Building the library and its tool.
QUIL_BUILD_PACKAGES=(cmake ninja-build g++ pkg-config qtbase5-dev libasound2-dev liblog4cplus-dev libsndfile1-dev help2man)
# A Qt 6 build (-DQUIL_QT_MAJOR_VERSION=6) needs Qt 6 besides.
QUIL_QT6_PACKAGES=(qt6-base-dev)
# The API reference (scripts/docs.sh; built by default when Doxygen is there, and for the packages).
QUIL_DOCS_PACKAGES=(doxygen graphviz)
# The test suite: GoogleTest and Google Benchmark, sox to read back the files the tool
# writes, and libabigail for the ABI check (scripts/abi-check.sh).
QUIL_TEST_PACKAGES=(libgtest-dev libbenchmark-dev sox abigail-tools)
# The code's own checks (scripts/lint.sh).
QUIL_LINT_PACKAGES=(clang-format clang-tidy)
# Debian packages of the build: CPack's DEB generator needs dpkg-shlibdeps
# (dpkg-dev) and file; lintian checks the result, man reads the manual page.
QUIL_PACKAGING_PACKAGES=(dpkg-dev file lintian man-db)
# The fuzz targets (scripts/fuzz.sh): clang with libFuzzer and the sanitizer runtimes.
QUIL_FUZZ_PACKAGES=(clang libclang-rt-dev)
# Cross builds (scripts/cross-test.sh), besides crossbuild-essential-ARCH: the
# emulator the target's tests run in. The target's own libraries go to a
# sysroot, downloaded from Debian's archive with its keyring.
QUIL_CROSS_PACKAGES=(qemu-user-static debian-archive-keyring)
# A private sound server in place of a sound card, and ALSA's PCM and mixer for it.
QUIL_SOUND_SERVER_PACKAGES=(alsa-utils libasound2-plugins pulseaudio pulseaudio-utils)
# The same on PipeWire. Its ALSA plugins (pipewire-alsa) conflict with
# pulseaudio: fetch_pipewire_alsa unpacks them instead.
QUIL_PIPEWIRE_PACKAGES=(pipewire pipewire-pulse wireplumber)
# Where fetch_pipewire_alsa unpacks them, for scripts/lib/soundserver.sh.
QUIL_PIPEWIRE_ALSA_DIR=${QUIL_PIPEWIRE_ALSA_DIR:-/var/cache/quil-audio/pipewire-alsa}
# A Debian 13 root for scripts/distro-test.sh, and the clone it tests.
QUIL_DISTRO_PACKAGES=(debootstrap debian-archive-keyring git)

# install_missing_packages PACKAGE...
# Installs the packages that are not installed yet. As another user than root
# it names them and exits, as nothing can be installed then.
install_missing_packages() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" \
            || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "Missing Debian packages: ${missing[*]}" >&2
        echo "Install them with: sudo apt-get install ${missing[*]}" >&2
        exit 1
    fi
    echo "Installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# qt_name_suffix QT: what a Qt 6 build's names carry (-qt6); nothing for Qt 5.
qt_name_suffix() {
    case $1 in
    5) ;;
    6) echo -qt6 ;;
    *) echo "Qt '$1'? 5 or 6" >&2; return 1 ;;
    esac
}

# install_build_packages QT PACKAGE...: QUIL_BUILD_PACKAGES, Qt 6 as well
# when QT is 6, and the packages named.
install_build_packages() {
    local qt=$1 qt_packages=()
    shift
    [ "$qt" = 6 ] && qt_packages=("${QUIL_QT6_PACKAGES[@]}")
    install_missing_packages "${QUIL_BUILD_PACKAGES[@]}" "${qt_packages[@]}" "$@"
}

# fetch_pipewire_alsa: unpacks the pipewire-alsa package of the installed
# PipeWire's version into QUIL_PIPEWIRE_ALSA_DIR, unless it is there already.
# Set-up does this, never a test: the tests run without a network.
fetch_pipewire_alsa() {
    local dest=$QUIL_PIPEWIRE_ALSA_DIR version work
    version=$(dpkg-query -W -f='${Version}' pipewire) || return 1
    [ "$(cat "$dest/.version" 2>/dev/null)" = "$version" ] && return 0
    if [ "$(id -u)" -ne 0 ] && ! mkdir -p "$dest" 2>/dev/null; then
        echo "Cannot unpack pipewire-alsa into $dest: run this as root once, or set QUIL_PIPEWIRE_ALSA_DIR" >&2
        exit 1
    fi
    echo "Unpacking pipewire-alsa $version into $dest"
    work=$(mktemp -d)
    # The installed version where the archive still has it; otherwise, after
    # one update of the package lists, the archive's own.
    if ! (cd "$work" && apt-get download -qq "pipewire-alsa=$version" 2>/dev/null); then
        [ "$(id -u)" -eq 0 ] && apt-get update -qq
        (cd "$work" && { apt-get download -qq "pipewire-alsa=$version" 2>/dev/null \
            || apt-get download -qq pipewire-alsa; }) || { rm -rf "$work"; return 1; }
    fi
    rm -rf "$dest" && mkdir -p "$dest" && dpkg-deb -x "$work"/pipewire-alsa_*.deb "$dest" \
        && echo "$version" >"$dest/.version"
    local status=$?
    rm -rf "$work"
    return $status
}
