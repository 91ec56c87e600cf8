#!/usr/bin/env bash
# Builds libquil_audio and runs its whole test suite: a plain build on Qt 5
# (followed by the ABI check and clang-format/clang-tidy) and one on Qt 6
# (followed by its ABI check), the whole suite on each under AddressSanitizer +
# UndefinedBehaviorSanitizer (leak detection on; the Debian packages are built
# by the plain runs only), and the threaded suites under ThreadSanitizer. Last,
# the whole suite cross-built for armhf runs under qemu-user
# (scripts/cross-test.sh). Any failure or sanitizer report fails the run.
# On a fresh Debian 12 or 13 machine run as root, it first installs the Debian
# packages it needs and unpacks ALSA's PipeWire plugins: every download is
# made there, before the first test, so that the tests run without a network.
# Usage: scripts/test.sh [--quick]   (--quick: the plain builds only)
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck source=scripts/lib/packages.sh
source scripts/lib/packages.sh

# run_suite NAME "CTEST ARGS" [CMAKE ARGS...]
run_suite() {
    local name=$1 ctest_args=$2 start=$SECONDS
    shift 2
    echo "== $name"
    cmake -S . -B "build/$name" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    cmake --build "build/$name" ${QUIL_BUILD_TARGETS:+--target $QUIL_BUILD_TARGETS}
    (cd "build/$name" && ctest --output-on-failure $ctest_args)
    echo "== $name: $((SECONDS - start)) s, build and tests"
}

install_missing_packages "${QUIL_BUILD_PACKAGES[@]}" "${QUIL_SOUND_SERVER_PACKAGES[@]}" "${QUIL_PIPEWIRE_PACKAGES[@]}" \
    "${QUIL_PACKAGING_PACKAGES[@]}" "${QUIL_TEST_PACKAGES[@]}" "${QUIL_DOCS_PACKAGES[@]}" "${QUIL_LINT_PACKAGES[@]}" \
    "${QUIL_QT6_PACKAGES[@]}"
fetch_pipewire_alsa
echo "== packages: $SECONDS s"

run_suite test "" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON
# Host programs are built against the published class layouts: hold them.
scripts/abi-check.sh build/test
# The code's format and clang-tidy's checks, on the plain build's compile commands.
lint_start=$SECONDS
scripts/lint.sh build/test
echo "== lint: $((SECONDS - lint_start)) s"
# The same source on Qt 6, with its own ABI baseline.
run_suite test-qt6 "" -DQUIL_QT_MAJOR_VERSION=6
scripts/abi-check.sh build/test-qt6
[ "${1:-}" = "--quick" ] && exit 0

for qt in 5 6; do
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    LSAN_OPTIONS=suppressions=$PWD/tests/sanitizers/lsan.supp:print_suppressions=0 \
        run_suite "asan$(qt_name_suffix $qt)" "-LE package" -DQUIL_AUDIO_SANITIZE=address,undefined \
            -DQUIL_QT_MAJOR_VERSION=$qt
done

# ignore_noninstrumented_modules: memory that QtCore and GLib handle in their
# own code (the posted-event queue, event objects) is ordered by their own
# locks, which the sanitizer cannot see; their synchronisation calls are still
# followed. The library annotates its own hand-overs (Synchronization_p.h).
# Only what the threaded suites need is built.
QUIL_BUILD_TARGETS="capture_test stress_test" \
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:ignore_noninstrumented_modules=1:suppressions=$PWD/tests/sanitizers/tsan.supp \
    run_suite tsan "-L threaded" -DQUIL_AUDIO_SANITIZE=thread

# Most devices are 32-bit ARM boards, where long, size_t and ALSA's frame
# counts have 32 bits: the whole suite once more, cross-built for armhf and
# run under qemu-user (scripts/cross-test.sh, docs/platforms.md).
scripts/cross-test.sh armhf
