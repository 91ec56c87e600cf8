#!/usr/bin/env bash
# Fault soak, not part of CI: bench/FaultSoak.cpp (quil-soak), a host program that captures
# (live and time-shifted feeds), plays and watches a mixer, runs against its
# own private sound server while it kills that server (SIGKILL) every 10 to
# 40 s and starts it again 0.2 to 10 s later. Three runs at once, one server
# each: PulseAudio through ALSA's pulse PCM, PipeWire through the pulse PCM
# and PipeWire through its own pipewire PCM. Each run's figures go to
# OUT/RUN.txt; a table of them is printed at the end.
# Usage: scripts/fault-soak.sh [SECONDS (600)] [OUT (build/fault-soak)] [RUN...]
# RUN: pulseaudio, pipewire_pulse, pipewire (default: all three).
set -euo pipefail
cd "$(dirname "$0")/.."

duration=${1:-600}
out=${2:-build/fault-soak}
shift $(($# > 2 ? 2 : $#))
runs=("$@")
[ ${#runs[@]} -gt 0 ] || runs=(pulseaudio pipewire_pulse pipewire)

# shellcheck source=scripts/lib/packages.sh
source scripts/lib/packages.sh
install_missing_packages "${QUIL_BUILD_PACKAGES[@]}" "${QUIL_SOUND_SERVER_PACKAGES[@]}" "${QUIL_PIPEWIRE_PACKAGES[@]}"
fetch_pipewire_alsa

cmake -S . -B build/test -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/test -j2 --target quil-soak >/dev/null
soak=$PWD/build/test/bench/quil-soak
server_script=$PWD/scripts/lib/soundserver.sh
mkdir -p "$out"
out=$(cd "$out" && pwd)

dirs=()
cleanup() {
    local dir
    for dir in "${dirs[@]}"; do
        "$server_script" stop "$dir" || true
        rm -rf "$dir"
    done
}
trap cleanup EXIT

pids=()
for run in "${runs[@]}"; do
    case $run in
    pulseaudio) server=pulseaudio pcm=pulse ;;
    pipewire_pulse) server=pipewire pcm=pulse ;;
    pipewire) server=pipewire pcm=pipewire ;;
    *) echo "unknown run '$run'" >&2; exit 2 ;;
    esac
    dir=$(mktemp -d "/tmp/quil-fault-soak-$run-XXXXXX")
    dirs+=("$dir")
    "$server_script" --server "$server" start "$dir"
    config=/usr/share/alsa/alsa.conf
    [ "$server" = pipewire ] && config=$config:$dir/alsa.conf
    (
        # shellcheck disable=SC2046
        export $(cat "$dir/env")
        export ALSA_CONFIG_PATH=$config PIPEWIRE_REMOTE=$dir/run/pipewire-0 QUIL_SOUND_SERVER_SCRIPT=$server_script
        status=0
        # A run that outlives its time by two minutes has hung.
        timeout -s KILL $((duration + 120)) "$soak" "$pcm" "$server" "$dir" "$duration" >"$out/$run.txt" \
            2>"$out/$run.stderr" || status=$?
        echo "exit $status" >>"$out/$run.txt"
    ) &
    pids+=($!)
done
wait "${pids[@]}"

# One row per figure, one column per run.
printf '%-22s' figure "${runs[@]}"
echo
for key in kills server_returns kills_resumed status_restarts open_failures host_starts new_main_feeds \
    resume_ms_median resume_ms_max capture_stalled_at_s feeds_taken delivered_mb playback_writes \
    playback_xruns playback_closes playback_reopens playback_xrun_reopens mixer_reopens mixer_changes mixer_sets error_lines \
    rss_kb fds threads first_kill_at_s longest_running_gap_s exit; do
    printf '%-22s' "$key"
    for run in "${runs[@]}"; do
        printf '%-22s' "$(awk -v k="$key" '$1 == k { $1 = ""; sub(/^ /, ""); print }' "$out/$run.txt" | tr ' ' '>')"
    done
    echo
done
