#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer (build/fuzz), replays every seed corpus once, then
# fuzzes each target for SECONDS (default 60) from its seeds, as many targets
# side by side as there are cores. Fails on any crash, leak, sanitizer report,
# broken invariant or input slower than 1 s, and prints per target the
# executions, libFuzzer's coverage (edges and features) and the findings,
# which stay in build/fuzz/findings/TARGET for the corpus (tests/fuzz/corpus).
# Inputs that found new coverage collect in build/fuzz/corpus/TARGET and seed
# the next run on this machine.
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]   (QUIL_FUZZ_BUILD: another build directory)
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/lib/packages.sh
source scripts/lib/packages.sh

seconds=${1:-60}
shift || true
install_build_packages 5 "${QUIL_FUZZ_PACKAGES[@]}" "${QUIL_SOUND_SERVER_PACKAGES[@]}"
build=${QUIL_FUZZ_BUILD:-build/fuzz}
start=$SECONDS
CC=clang CXX=clang++ cmake -S . -B $build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUIL_AUDIO_BUILD_TESTS=OFF \
    -DQUIL_AUDIO_BUILD_DOCS=OFF -DQUIL_AUDIO_BUILD_FUZZERS=ON \
    -DQUIL_AUDIO_SANITIZE=fuzzer-no-link,address,undefined >/dev/null
cmake --build $build
echo "== fuzz build: $((SECONDS - start)) s"

export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=suppressions=$PWD/tests/sanitizers/lsan.supp:print_suppressions=0
(cd $build && ctest --output-on-failure -L fuzz)

targets=("$@")
[ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(find tests/fuzz/corpus -mindepth 1 -maxdepth 1 -type d -printf '%f\n' | sort)

# fuzz TARGET: one run, its log in build/fuzz/logs/TARGET.log.
fuzz() {
    local target=$1 dict=()
    [ -f "tests/fuzz/$target.dict" ] && dict=(-dict="tests/fuzz/$target.dict")
    mkdir -p "$build/corpus/$target" "$build/findings/$target" "$build/logs"
    "$build/tests/fuzz/$target" -max_total_time="$seconds" -timeout=1 -rss_limit_mb=4096 -print_final_stats=1 \
        -close_fd_mask=3 -artifact_prefix="$build/findings/$target/" "${dict[@]}" \
        "$build/corpus/$target" "tests/fuzz/corpus/$target" >"$build/logs/$target.log" 2>&1
}
export -f fuzz
export build seconds
status=0
printf '%s\n' "${targets[@]}" | xargs -P "$(nproc)" -I{} bash -c 'fuzz {}' || status=1

printf '%-20s %12s %8s %10s %9s\n' target executions edges features findings
for target in "${targets[@]}"; do
    log=$build/logs/$target.log
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    cov=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$log" | tail -1 | awk '{print $2, $4}')
    findings=$(find "$build/findings/$target" -type f | wc -l)
    printf '%-20s %12s %8s %10s %9s\n' "$target" "${runs:-?}" ${cov:-? ?} "$findings"
    if [ "$findings" -gt 0 ] || ! grep -q '^stat::number_of_executed_units' "$log"; then
        status=1
        echo "== $target failed; its log ($log) ends:"
        tail -40 "$log"
    fi
done
echo "== fuzz: $((SECONDS - start)) s in all"
exit $status
