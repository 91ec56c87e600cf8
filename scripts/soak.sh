#!/usr/bin/env bash
# Soak run, not part of CI: the quil-audio tool records with a pre-roll ring
# (the provider's live and time-shifted feeds), plays a tone and watches the
# mixer while the volume is changed from outside, all against a private
# PulseAudio server, for the given time. Every few seconds the recorder's
# resident memory, open descriptors and threads go into a CSV; a summary of
# it and the tool's own summaries are printed at the end.
# Usage: scripts/soak.sh [SECONDS (600)] [CSV (build/soak.csv)]
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/lib/soundserver.sh
source scripts/lib/soundserver.sh

duration=${1:-600}
csv=${2:-build/soak.csv}
interval=5

cmake -S . -B build/test -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/test -j2 --target quil-audio >/dev/null
tool=build/test/tools/quil-audio

dir=$(mktemp -d /tmp/quil-soak-XXXXXX)
pids=()
cleanup() {
    local pid
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
    done
    rm -rf "$dir"
}
trap cleanup EXIT

# The server, as the tests start theirs: a null sink, an anonymous socket.
start_private_sound_server "$dir" testsink 48000
pids+=("${sound_server_pids[@]}")

"$tool" play -D pulse --tone 440 -d "$duration" >"$dir/play.log" 2>&1 &
pids=("$!" "${pids[@]}")
"$tool" mixer -D pulse watch >"$dir/mixer.log" 2>&1 &
mixer=$!
pids=("$mixer" "${pids[@]}")
"$tool" record -D pulse --pre-roll-ms 2000 -d "$duration" "$dir/soak.raw" >"$dir/load.log" 2>&1 &
load=$!
pids=("$load" "${pids[@]}")

mkdir -p "$(dirname "$csv")"
echo "seconds,rss_kb,fds,threads" >"$csv"
start=$SECONDS
next=0
while kill -0 "$load" 2>/dev/null; do
    if [ $((SECONDS - start)) -ge $next ]; then
        rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$load/status" 2>/dev/null) || break
        fds=$(ls "/proc/$load/fd" 2>/dev/null | wc -l)
        threads=$(ls "/proc/$load/task" 2>/dev/null | wc -l)
        [ -n "$rss" ] && echo "$((SECONDS - start)),$rss,$fds,$threads" >>"$csv"
        next=$((next + interval))
    fi
    pactl set-sink-volume @DEFAULT_SINK@ "$((RANDOM % 100))%" >/dev/null 2>&1 || true
    sleep 0.5
done
wait "$load" || { echo "the recorder failed:"; cat "$dir/load.log"; exit 1; }
kill -INT "$mixer" 2>/dev/null || true

tail -n 1 "$dir/load.log" "$dir/play.log"
echo "mixer changes seen: $(grep -c changed "$dir/mixer.log" || true)"
# First minute excluded from the ranges: caches and pools fill up then.
awk -F, 'NR > 1 {
        n++; t[n] = $1; r[n] = $2; f[n] = $3; h[n] = $4
    }
    END {
        if (n == 0) { print "no samples"; exit 1 }
        for (i = 1; i <= n; i++) if (t[i] >= 60 || i == n) { first = i; break }
        rmin = rmax = r[first]; fmin = fmax = f[first]; hmin = hmax = h[first]
        for (i = first; i <= n; i++) {
            if (r[i] < rmin) rmin = r[i]; if (r[i] > rmax) rmax = r[i]
            if (f[i] < fmin) fmin = f[i]; if (f[i] > fmax) fmax = f[i]
            if (h[i] < hmin) hmin = h[i]; if (h[i] > hmax) hmax = h[i]
        }
        printf "%d samples over %d s; from %d s on: RSS %d..%d kB (last %d), fds %d..%d, threads %d..%d\n",
            n, t[n], t[first], rmin, rmax, r[n], fmin, fmax, hmin, hmax
    }' "$csv"
echo "CSV: $csv"
