#!/usr/bin/env bash
# Cross-builds libquil_audio, the quil-audio tool, the tests and the benchmarks
# for an ARM architecture and runs the whole test suite with every target
# executable under qemu-user (no binfmt registration needed). The private
# sound server and the other host helpers run natively.
# The target's development packages are unpacked into a sysroot under
# /var/cache/quil-audio (scripts/lib/sysroot.sh; QUIL_SYSROOT_DIR to put it
# elsewhere), made on the first run.
# On a fresh Debian 12 or 13 machine run as root, it first installs the Debian
# packages it needs.
# Usage: scripts/cross-test.sh arm64|armhf
set -euo pipefail
cd "$(dirname "$0")/.."

arch=${1:-}
case $arch in
    arm64 | armhf) ;;
    *) echo "usage: $0 arm64|armhf" >&2; exit 2 ;;
esac

# shellcheck source=scripts/lib/packages.sh
source scripts/lib/packages.sh
# shellcheck source=scripts/lib/sysroot.sh
source scripts/lib/sysroot.sh

triplet=${QUIL_CROSS_TRIPLET[$arch]}
# Native: the build tools, moc, the sound server and what the tests run on the host.
install_missing_packages "${QUIL_BUILD_PACKAGES[@]}" "${QUIL_SOUND_SERVER_PACKAGES[@]}" \
    "${QUIL_PACKAGING_PACKAGES[@]}" "${QUIL_TEST_PACKAGES[@]}" "${QUIL_CROSS_PACKAGES[@]}" \
    "crossbuild-essential-$arch"

sysroot=$(realpath -m "${QUIL_SYSROOT_DIR:-/var/cache/quil-audio}/sysroot-$arch")
make_sysroot "$arch" "$sysroot"

build=build/cross-$arch
start=$SECONDS
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$triplet.cmake" -DCMAKE_SYSROOT="$sysroot" >/dev/null
cmake --build "$build"
echo "== built for $arch in $((SECONDS - start)) s"
file -L "$build/src/lib/libquil_audio.so" "$build/tools/quil-audio"

start=$SECONDS
# deb_package_test (label package) builds and checks the build machine's own
# Debian packages, natively: the native run covers it.
(cd "$build" && ctest --output-on-failure -LE package)
echo "== $arch suite under qemu-user: $((SECONDS - start)) s"
