#!/usr/bin/env bash
# Builds the examples as installed under PREFIX (with the -dev files) against
# the installed library through find_package(QuilAudio), and one through
# pkg-config with g++; runs them, those that need sound devices on a private
# sound server through ALSA's pulse PCM and mixer.
# Usage: example_clients.sh PREFIX SOURCE_DIR WORK_DIR
set -euo pipefail
prefix=$1 source=$2 work=$3
# A Qt 6 build's files carry its suffix (QUIL_NAME_SUFFIX, QUIL_AUDIO_PACKAGE).
suffix=${QUIL_NAME_SUFFIX:-}
libdir=$(dirname "$(find "$prefix" -name "libquil_audio$suffix.so" -print -quit)")
test -n "$libdir"
examples=$prefix/share/doc/libquil-audio$suffix-dev/examples
test -f "$examples/CMakeLists.txt"

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
cmake -S "$examples" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DQUIL_AUDIO_PACKAGE="${QUIL_AUDIO_PACKAGE:-QuilAudio}" "${cross[@]}" >/dev/null
cmake --build "$work/cmake" -j2 >/dev/null
"${emulator[@]}" "$work/cmake/quil_audio_example"

echo "== pkg-config"
# Qt is built with -reduce-relocations: its clients need -fPIC.
# shellcheck disable=SC2046 # the flags are meant to split
"${cxx[@]}" -std=c++17 -fPIC -o "$work/pc_example" "$examples/quil_audio_example.cpp" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs "quil_audio$suffix" log4cplus) -Wl,-rpath,"$libdir"
"${emulator[@]}" "$work/pc_example"

echo "== examples on a private sound server"
server=$work/sound-server
trap '"$source/scripts/lib/soundserver.sh" stop "$server"' EXIT
"$source/scripts/lib/soundserver.sh" start "$server"
set -a
# shellcheck source=/dev/null # written by the start above
source "$server/env"
set +a
scale=${QUIL_TEST_TIME_SCALE:-1}
run() {
    local example=$1
    shift
    echo "-- $example $*"
    "${emulator[@]}" "$work/cmake/$example" "$@"
}
# The first feed gets its 300 ms of pre-roll and live audio; the restarted capture's, live audio.
preroll=$(run capture_preroll pulse 1)
echo "$preroll"
awk '/^first run/ { first = $3 } /^second run/ { second = $3 } END { exit !(first > 300 && second > 0) }' <<<"$preroll"
run playback_delay pulse 1
run capture_status pulse 1
# A PCM that does not open: the listener gets the reason, the example exits 1.
if run capture_status no_such_pcm 1 2>/dev/null; then
    echo "capture_status did not report the failed open" >&2
    exit 1
fi

# The watcher reports a change that another program makes: pactl, once the
# element is watched.
run mixer_watch pulse master $((2 * scale)) >"$work/mixer_watch.out" &
watcher=$!
for ((tries = 200 * scale; tries > 0; tries--)); do
    grep -q '^watching' "$work/mixer_watch.out" && break
    sleep 0.05
done
pactl set-sink-volume @DEFAULT_SINK@ 50%
wait "$watcher"
cat "$work/mixer_watch.out"
grep -q "^changed 'Master': volume 32768" "$work/mixer_watch.out"
