#!/usr/bin/env bash
# Builds the Debian packages libquil-audio<N>, libquil-audio-dev and quil-audio
# with CPack from a Release build installed under /usr, with Debian's
# hardening flags, into OUTPUT_DIR (default build/packages).
# On a fresh Debian 12 or 13 machine run as root, it first installs the Debian
# packages it needs.
# QUIL_QT_MAJOR_VERSION=6 builds the Qt 6 packages (libquil-audio-qt6-<N> and
# libquil-audio-qt6-dev) instead.
# Usage: scripts/package.sh [OUTPUT_DIR [BUILD_DIR]]   (BUILD_DIR default build/package)
set -euo pipefail
cd "$(dirname "$0")/.."
output=$(realpath -m "${1:-build/packages}")
build=${2:-build/package}

# shellcheck source=scripts/lib/packages.sh
source scripts/lib/packages.sh
qt=${QUIL_QT_MAJOR_VERSION:-5}
install_build_packages "$qt" "${QUIL_PACKAGING_PACKAGES[@]}" "${QUIL_DOCS_PACKAGES[@]}"

# CMake reads no CPPFLAGS: the fortify level goes in with the compiler flags.
CFLAGS="$(dpkg-buildflags --get CFLAGS) $(dpkg-buildflags --get CPPFLAGS)"
CXXFLAGS="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)"
LDFLAGS=$(dpkg-buildflags --get LDFLAGS)
export CFLAGS CXXFLAGS LDFLAGS

# Installed under /usr, the tool finds the libraries without an RPATH.
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_SKIP_INSTALL_RPATH=ON -DQUIL_AUDIO_BUILD_TESTS=OFF -DQUIL_AUDIO_BUILD_DOCS=ON \
    -DQUIL_QT_MAJOR_VERSION="$qt" >/dev/null
cmake --build "$build"
mkdir -p "$output"
(cd "$build" && cpack -G DEB -B "$output" >/dev/null)
rm -rf "$output/_CPack_Packages"
ls "$output"/*.deb
