# shellcheck shell=bash disable=SC2034 # the lists are used by the scripts that source this file
# Debian packages the project needs, and their installation; sourced by the
# scripts in scripts/.

# Building the library and its tool.
QUIL_BUILD_PACKAGES=(cmake ninja-build g++ pkg-config qtbase5-dev libasound2-dev liblog4cplus-dev libsndfile1-dev help2man)
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
# Cross builds (scripts/cross-test.sh), besides crossbuild-essential-ARCH: the
# emulator the target's tests run in. The target's own libraries go to a
# sysroot, downloaded from Debian's archive with its keyring.
QUIL_CROSS_PACKAGES=(qemu-user-static debian-archive-keyring)
# A private sound server in place of a sound card, and ALSA's PCM and mixer for it.
QUIL_SOUND_SERVER_PACKAGES=(alsa-utils libasound2-plugins pulseaudio pulseaudio-utils)
# The same on PipeWire. Its ALSA plugins (pipewire-alsa) conflict with
# pulseaudio: soundserver.sh unpacks them instead.
QUIL_PIPEWIRE_PACKAGES=(pipewire pipewire-pulse wireplumber)

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
