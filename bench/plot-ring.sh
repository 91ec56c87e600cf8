#!/usr/bin/env bash
# Draws docs/performance-ring.png: the capture path's cost per block against
# the ring's length, before the ring stopped moving its contents
# (bench/ring-before.dat) and now (the medians of a scripts/bench.sh run).
# Needs gnuplot (Debian: gnuplot-nox); nothing else uses it.
# Usage: bench/plot-ring.sh [results.json]   (default build/bench/results.json)
set -euo pipefail
cd "$(dirname "$0")/.."

results=${1:-build/bench/results.json}
now=$(mktemp)
trap 'rm -f "$now"' EXIT
awk -f bench/ring-cost.awk "$results" | sort -n >"$now"
[ -s "$now" ] || { echo "no BM_Distribution medians in $results" >&2; exit 1; }

gnuplot <<GNUPLOT
set terminal pngcairo size 800,480 font "sans,10"
set output "docs/performance-ring.png"
set title "Capture distribution: cost per 10 ms block, 48 kHz stereo S16, one consumer"
set xlabel "ring length (s)"
set ylabel "cost per block (µs, log scale)"
set logscale y
set grid
set key top left
plot "bench/ring-before.dat" using (\$1/1000):(\$2/1000) with linespoints lw 2 pt 7 \
         title "before: the whole ring moves by one block", \
     "$now" using (\$1/1000):(\$2/1000) with linespoints lw 2 pt 5 \
         title "now: the block is written in place"
GNUPLOT
echo "wrote docs/performance-ring.png"
