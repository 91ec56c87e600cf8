#!/usr/bin/env bash
# Builds the example client against the installed files under PREFIX, through
# find_package(QuilAudio) and through pkg-config with g++, and runs both.
# Usage: example_clients.sh PREFIX SOURCE_DIR WORK_DIR
set -euo pipefail
prefix=$1 source=$2 work=$3
libdir=$(dirname "$(find "$prefix" -name libquil_audio.so -print -quit)")
test -n "$libdir"

# A cross build (QUIL_CROSS_TOOLCHAIN) builds the clients as a device build
# does, with the toolchain file against the target root QUIL_CROSS_SYSROOT
# that the library is staged in, and runs them under QUIL_TEST_EMULATOR.
cross=() cxx=(g++)
read -ra emulator <<<"${QUIL_TEST_EMULATOR:-}"
if [ -n "${QUIL_CROSS_TOOLCHAIN:-}" ]; then
    cross=(-DCMAKE_TOOLCHAIN_FILE="$QUIL_CROSS_TOOLCHAIN" -DCMAKE_SYSROOT="$QUIL_CROSS_SYSROOT")
    # ld resolves the paths in libc.so's linker script inside the sysroot only if
    # that script's real path lies in it: the compiler gets the root the links
    # of a sysroot view lead to (the root itself, when it is none).
    cxx=("$QUIL_CROSS_CXX" --sysroot="$(realpath "$QUIL_CROSS_SYSROOT/usr/..")")
    triplet=$("$QUIL_CROSS_CXX" -dumpmachine)
    export PKG_CONFIG_SYSROOT_DIR=$QUIL_CROSS_SYSROOT
    export PKG_CONFIG_LIBDIR=$QUIL_CROSS_SYSROOT/usr/lib/$triplet/pkgconfig:$QUIL_CROSS_SYSROOT/usr/share/pkgconfig
    # The target's default directories stay implicit, as the host's do natively:
    # an explicit -L to them would have ld take libc.so's paths as host paths.
    export PKG_CONFIG_SYSTEM_LIBRARY_PATH=/usr/lib/$triplet:/lib/$triplet
    export PKG_CONFIG_SYSTEM_INCLUDE_PATH=/usr/include
fi

echo "== CMake package"
cmake -S "$source/examples" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" "${cross[@]}" >/dev/null
cmake --build "$work/cmake" -j2 >/dev/null
"${emulator[@]}" "$work/cmake/quil_audio_example"

echo "== pkg-config"
# Qt is built with -reduce-relocations: its clients need -fPIC.
# shellcheck disable=SC2046 # the flags are meant to split
"${cxx[@]}" -std=c++17 -fPIC -o "$work/pc_example" "$source/examples/quil_audio_example.cpp" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs quil_audio log4cplus) -Wl,-rpath,"$libdir"
"${emulator[@]}" "$work/pc_example"
