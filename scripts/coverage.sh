#!/usr/bin/env bash
# Line coverage of src/ by the whole test suite: a gcov build of its own
# (build/coverage, --coverage given through the cache), one ctest run, and
# gcovr's report (Debian package gcovr) with every line left uncovered.
# Usage: scripts/coverage.sh   (fails when a test fails or coverage of src/
#                               falls below 90 %)
set -euo pipefail
cd "$(dirname "$0")/.."

command -v gcovr >/dev/null || { echo "gcovr is missing: apt-get install gcovr" >&2; exit 1; }
dir=build/coverage
# Atomic counters: the threaded suites would otherwise race on them and
# leave counts gcov cannot read.
flags="--coverage -fprofile-update=atomic"
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
    -DCMAKE_MODULE_LINKER_FLAGS=--coverage >/dev/null
cmake --build "$dir" -j2
find "$dir" -name '*.gcda' -delete
# Not the Debian package test: it builds the project anew, uninstrumented.
(cd "$dir" && ctest --output-on-failure -LE package)

# The test-only mixer plugin lives under tests/ and is not counted.
gcovr --root . --filter 'src/' --txt --print-summary --fail-under-line 90 \
    --html-details "$dir/coverage.html" "$dir"
echo "HTML report: $dir/coverage.html"
