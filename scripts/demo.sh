#!/usr/bin/env bash
# Shows libquil_audio at work through its command-line client quil-audio:
# plays a tone, records it back with a pre-roll, turns the master volume down
# while the mixer watch reports the change, and sums up what was measured.
#
# On a fresh Debian 12 or 13 machine run as root, it first installs the Debian
# packages it needs; then it builds into build/demo. Without a sound card it
# runs on a private PulseAudio null sink that it starts and stops itself
# (its monitor is what gets recorded); with a card it uses the card's default
# devices (the recording is then whatever the default input hears).
# --server pulseaudio|pipewire runs it on that private server whether or not
# there is a card: PulseAudio through ALSA's pulse PCM and mixer, PipeWire
# through its own (ALSA's pipewire PCM and mixer).
# Usage: scripts/demo.sh [--server pulseaudio|pipewire]
set -euo pipefail
cd "$(dirname "$0")/.."

server=
case "${1:-}" in
--server)
    server=${2:-}
    [ "$server" = pulseaudio ] || [ "$server" = pipewire ] || { echo "usage: $0 [--server pulseaudio|pipewire]" >&2; exit 2; }
    ;;
"") ;;
*) echo "usage: $0 [--server pulseaudio|pipewire]" >&2; exit 2 ;;
esac

# shellcheck source=scripts/lib/packages.sh
source scripts/lib/packages.sh
# shellcheck source=scripts/lib/soundserver.sh
source scripts/lib/soundserver.sh
server_packages=("${QUIL_SOUND_SERVER_PACKAGES[@]}")
[ "$server" = pipewire ] && server_packages+=("${QUIL_PIPEWIRE_PACKAGES[@]}")
install_missing_packages "${QUIL_BUILD_PACKAGES[@]}" "${server_packages[@]}"
[ "$server" = pipewire ] && fetch_pipewire_alsa

build=build/demo
echo "== Building libquil_audio and quil-audio into $build"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUIL_AUDIO_BUILD_TESTS=OFF >/dev/null
if ! cmake --build "$build" -j "$(nproc)" >"$build/build.log" 2>&1; then
    tail -n 30 "$build/build.log" >&2
    exit 1
fi
tool=$PWD/$build/tools/quil-audio

rate=48000
bytes_per_second=$((rate * 4)) # S16_LE, 2 channels: the tool's default stream
work=$(mktemp -d /tmp/quil-demo-XXXXXX)
background=()

cleanup() {
    local pid
    for pid in "${background[@]}"; do
        kill -TERM "$pid" 2>/dev/null || true
    done
    for pid in "${background[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT

has_sound_card() {
    [ -r /proc/asound/cards ] && grep -q '^ *[0-9]' /proc/asound/cards
}

# wait_until SECONDS WHAT COMMAND...
wait_until() {
    local seconds=$1 what=$2 tries
    shift 2
    for ((tries = seconds * 20; tries > 0; tries--)); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    echo "demo: gave up waiting for $what" >&2
    exit 1
}

# bytes_at SECONDS: the byte offset of that time in the recorded stream.
bytes_at() {
    awk -v s="$1" -v b="$bytes_per_second" 'BEGIN { print int(s * b) }'
}

file_has_seconds() {
    [ "$(stat -c %s "$1")" -ge "$(bytes_at "$2")" ]
}

# level FILE FROM_S TO_S: the RMS level of the S16_LE samples between those times, in dBFS.
level() {
    local from to
    from=$(bytes_at "$2")
    to=$(bytes_at "$3")
    od -An -v -td2 -w2 -j "$from" -N "$((to - from))" "$1" |
        awk '{ sum += $1 * $1; n++ } END { if (sum == 0) print "-inf"; else printf "%.1f", 10 * log(sum / n / 32768 / 32768) / log(10) }'
}

# onset FILE: seconds until the first sample clearly above silence.
onset() {
    od -An -v -td2 -w2 "$1" |
        awk -v r="$rate" '$1 > 300 || $1 < -300 { printf "%.3f", int((NR - 1) / 2) / r; found = 1; exit }
                          END { if (!found) print "never" }'
}

if [ -z "$server" ] && has_sound_card; then
    pcm=default mixer=default
    echo "== Using the sound card's default devices"
else
    server=${server:-pulseaudio}
    echo "== Starting a private $server server with a null sink"
    start_private_sound_server "$work" demosink "$rate" "$server" || exit 1
    background+=("${sound_server_pids[@]}")
    if [ "$server" = pipewire ]; then
        export ALSA_CONFIG_PATH=/usr/share/alsa/alsa.conf:$work/alsa.conf
        pcm=pipewire mixer=pipewire
    else
        pcm=pulse mixer=pulse
    fi
fi

echo "== Mixer '$mixer': the master volume to 100 %"
"$tool" mixer -D "$mixer" set Master --volume 100%
"$tool" mixer -D "$mixer" watch Master >"$work/watch.log" &
watch=$!
background+=("$watch")

echo "== Recording '$pcm' for 3 s, armed until the tone arrives, with 300 ms of pre-roll"
"$tool" record -D "$pcm" -d 3 --trigger-dbfs -50 --pre-roll-ms 300 "$work/capture.raw" 2>"$work/record.log" &
record=$!
sleep 0.5
echo "== Playing a 440 Hz tone for 4 s"
"$tool" play -D "$pcm" --tone 440 -d 4 -F 20000 -B 100000 2>"$work/play.log" &
play=$!

wait_until 10 "1.5 s of recording" file_has_seconds "$work/capture.raw" 1.5
echo "== Turning the master volume down to 50 % while recording"
"$tool" mixer -D "$mixer" set Master --volume 50%

wait "$record" || { cat "$work/record.log" >&2; exit 1; }
wait "$play" || { cat "$work/play.log" >&2; exit 1; }
kill -INT "$watch"
wait "$watch"

echo
echo "== Summary"
echo "  played:        $(tail -n 1 "$work/play.log")"
echo "  recorded:      $(tail -n 1 "$work/record.log")"
echo "  pre-roll:      the tone starts $(onset "$work/capture.raw") s into the recording"
echo "  level (RMS):   0-0.25 s $(level "$work/capture.raw" 0 0.25) dBFS," \
     "before the change 0.5-1.4 s $(level "$work/capture.raw" 0.5 1.4) dBFS," \
     "after it 2.0-3.0 s $(level "$work/capture.raw" 2.0 3.0) dBFS"
echo "  mixer watch:   $(grep -c '^changed' "$work/watch.log") change signal(s), last:" \
     "$(grep '^changed' "$work/watch.log" | tail -n 1)"
