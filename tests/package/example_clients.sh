#!/usr/bin/env bash
# Builds the example client against the installed files under PREFIX, through
# find_package(QuilAudio) and through pkg-config with g++, and runs both.
# Usage: example_clients.sh PREFIX SOURCE_DIR WORK_DIR
set -euo pipefail
prefix=$1 source=$2 work=$3
libdir=$(dirname "$(find "$prefix" -name libquil_audio.so -print -quit)")
test -n "$libdir"

echo "== CMake package"
cmake -S "$source/examples" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" -j2 >/dev/null
"$work/cmake/quil_audio_example"

echo "== pkg-config"
# Qt is built with -reduce-relocations: its clients need -fPIC.
# shellcheck disable=SC2046 # the flags are meant to split
g++ -std=c++17 -fPIC -o "$work/pc_example" "$source/examples/quil_audio_example.cpp" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs quil_audio log4cplus) -Wl,-rpath,"$libdir"
"$work/pc_example"
