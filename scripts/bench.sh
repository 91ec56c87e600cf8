#!/usr/bin/env bash
# Builds the benchmarks in Release (in build/bench) and runs every one of them
# several times, printing the median of each figure as a table. Means,
# medians and deviations go to build/bench/results.json (bench/plot-ring.sh
# draws the ring figure from it). Takes about three minutes, of which the
# memory run is one; run it on an otherwise idle machine. On a fresh Debian 12 or 13
# machine run as root, it first installs the Debian packages it needs.
# Usage: scripts/bench.sh [benchmark flags, e.g. --benchmark_filter=Distribution]
# QUIL_BENCH_REPETITIONS sets the repetitions (default 5); QUIL_QT_MAJOR_VERSION=6
# measures the Qt 6 build (in build/bench-qt6).
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck source=scripts/lib/packages.sh
source scripts/lib/packages.sh
# The benchmarks use the tests' ALSA configuration, so the tests are configured too.
qt=${QUIL_QT_MAJOR_VERSION:-5}
install_build_packages "$qt" libgtest-dev libbenchmark-dev

build=build/bench$(qt_name_suffix "$qt")
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUIL_QT_MAJOR_VERSION="$qt" >/dev/null
cmake --build "$build" --target quil_bench >/dev/null

export ALSA_CONFIG_PATH="/usr/share/alsa/alsa.conf:$PWD/$build/tests/alsa/test.conf"
echo "Qt $qt; $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) cores; load: $(cut -d' ' -f1-3 /proc/loadavg)"
# Means, standard deviations and variation coefficients stay in the JSON file.
"$build/bench/quil_bench" \
    --benchmark_repetitions="${QUIL_BENCH_REPETITIONS:-5}" \
    --benchmark_report_aggregates_only=true \
    --benchmark_out="$build/results.json" --benchmark_out_format=json \
    "$@" | grep -v -E '_(mean|stddev|cv) '
