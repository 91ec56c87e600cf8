#!/usr/bin/env bash
# Installs the build into a temporary prefix, then builds the example client
# against it twice, through find_package(QuilAudio) and through pkg-config
# with g++, and runs both, and the installed quil-audio.
# Usage: package_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name libquil_audio.so -print -quit)")
test -n "$libdir"
if find "$prefix/include" -name '*_p.h' | grep -q .; then
    echo "internal headers were installed" >&2
    exit 1
fi

echo "== CMake package"
cmake -S "$source/examples" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" -j2 >/dev/null
"$work/cmake/quil_audio_example"

echo "== pkg-config"
# shellcheck disable=SC2046 # the flags are meant to split
g++ -std=c++17 -o "$work/pc_example" "$source/examples/quil_audio_example.cpp" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs quil_audio log4cplus) -Wl,-rpath,"$libdir"
"$work/pc_example"

echo "== installed tool"
"$prefix/bin/quil-audio" --version
