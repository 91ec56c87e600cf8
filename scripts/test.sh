#!/usr/bin/env bash
# Builds libquil_audio and runs its whole test suite.
# On a fresh Debian 12 machine run as root, it first installs the Debian
# packages it needs. Usage: scripts/test.sh [extra ctest arguments]
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
    cmake ninja-build g++ pkg-config
    qtbase5-dev libasound2-dev liblog4cplus-dev libgtest-dev libbenchmark-dev
    alsa-utils libasound2-plugins pulseaudio pulseaudio-utils
)

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" \
        || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "Missing Debian packages: ${missing[*]}" >&2
        echo "Install them with: sudo apt-get install ${missing[*]}" >&2
        exit 1
    fi
    echo "Installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

build=build/test
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build"
cd "$build"
ctest --output-on-failure "$@"
