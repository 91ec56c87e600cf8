#!/usr/bin/env bash
# Whole-process CPU (task clock: user + sys) of quil-audio record and play
# against arecord and aplay on the same stream: 600 s of S16_LE stereo at 48 kHz through ALSA
# PCMs that run as fast as the process can go (capture from ALSA's file
# plugin, playback into null), and the start-up cost on a 0.1 s stream.
# Builds the tool in Release (in build/bench-tools), runs each command and its
# counterpart alternately, and prints the medians and their ratios.
# Usage: scripts/bench-tools.sh   (QUIL_BENCH_RUNS sets the runs per command, default 7)
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck source=scripts/lib/packages.sh
source scripts/lib/packages.sh
install_missing_packages "${QUIL_BUILD_PACKAGES[@]}" alsa-utils linux-perf

build=build/bench-tools
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DQUIL_AUDIO_BUILD_TESTS=OFF -DQUIL_AUDIO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" --target quil-audio >/dev/null
tool="$PWD/$build/tools/quil-audio"
runs=${QUIL_BENCH_RUNS:-7}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
head -c $((600 * 48000 * 4)) /dev/urandom >long.raw
head -c $((4800 * 4)) long.raw >short.raw
cat >test.conf <<EOF
pcm.cap_long { type file slave.pcm "null" file "/dev/null" infile "$work/long.raw" format "raw" }
pcm.cap_short { type file slave.pcm "null" file "/dev/null" infile "$work/short.raw" format "raw" }
EOF
export ALSA_CONFIG_PATH="/usr/share/alsa/alsa.conf:$work/test.conf"
# No sound server for either side: ALSA's pulse hook then only probes.
unset PULSE_SERVER
export XDG_RUNTIME_DIR="$work/run"
mkdir -m 700 "$XDG_RUNTIME_DIR"

# cpu_ms COMMAND...: the command's task clock (CPU time, user + sys) in
# milliseconds, from perf stat: the shell's time counts whole milliseconds,
# 5 % of a 20 ms run.
cpu_ms() {
    rm -f out.raw
    perf stat -x, -e task-clock -o task-clock.csv -- "$@" >/dev/null 2>&1
    awk -F, '/task-clock/ { printf "%.2f\n", $1 }' task-clock.csv
}

median() {
    sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# compare NAME TARGET "QUIL COMMAND" "ALSA COMMAND": alternating runs, then one table row.
compare() {
    local name=$1 target=$2 quil=$3 alsa=$4 q=() a=() i qm am
    for ((i = 0; i < runs; i++)); do
        # shellcheck disable=SC2086 # the commands are word lists
        q+=("$(cpu_ms $quil)")
        # shellcheck disable=SC2086
        a+=("$(cpu_ms $alsa)")
    done
    qm=$(printf '%s\n' "${q[@]}" | median)
    am=$(printf '%s\n' "${a[@]}" | median)
    printf '| %-33s | %10s | %9s | %5s | %4s |\n' "$name" "$qm" "$am" \
        "$(awk -v q="$qm" -v a="$am" 'BEGIN { printf "%.2f", q / a }')" "$target"
}

# The recorded data must be the input, or the figures mean nothing.
"$tool" record -D cap_long -r 48000 -c 2 -f S16_LE -d 600 out.raw 2>/dev/null
cmp -s out.raw long.raw || { echo "record did not reproduce its input" >&2; exit 1; }

echo "$(lscpu | sed -n 's/^Model name: *//p'), $(nproc) cores; load before: $(cut -d' ' -f1-3 /proc/loadavg); $runs runs each"
echo "Median whole-process CPU in ms (perf stat task clock: user + sys); ratio = quil-audio / ALSA utility"
echo
echo "| Stream                            | quil-audio | ALSA util | Ratio | Goal |"
echo "|-----------------------------------|-----------:|----------:|------:|-----:|"
compare "record" 1.2 \
    "$tool record -D cap_long -r 48000 -c 2 -f S16_LE -d 600 out.raw" \
    "arecord -q -D cap_long -r 48000 -c 2 -f S16_LE -d 600 -t raw out.raw"
# Each period costs ALSA's file plugin a read and a write: both sides at short
# periods show the cost of the path where it is run most often.
compare "record, both at 20 ms periods" - \
    "$tool record -D cap_long -r 48000 -c 2 -f S16_LE -d 600 -F 20000 -B 100000 out.raw" \
    "arecord -q -D cap_long -r 48000 -c 2 -f S16_LE -d 600 -F 20000 -B 100000 -t raw out.raw"
compare "play" 1.2 \
    "$tool play -D null -r 48000 -c 2 -f S16_LE long.raw" \
    "aplay -q -D null -r 48000 -c 2 -f S16_LE -t raw long.raw"
compare "record 0.1 s" 2 \
    "$tool record -D cap_short -r 48000 -c 2 -f S16_LE -d 0.1 out.raw" \
    "arecord -q -D cap_short -r 48000 -c 2 -f S16_LE -s 4800 -t raw out.raw"
compare "play 0.1 s" 2 \
    "$tool play -D null -r 48000 -c 2 -f S16_LE short.raw" \
    "aplay -q -D null -r 48000 -c 2 -f S16_LE -t raw short.raw"
echo
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
