#!/usr/bin/env bash
# Compares the ABI of a built libquil_audio.so with the baseline (libabigail):
# any change that breaks a program built against the baseline fails (a size,
# offset, base or virtual slot, a removed symbol); added functions pass. Only
# types of the public headers count.
#
# The baseline is the library of the revision in abi/baseline.rev (for the Qt 5
# build; abi/baseline-qt6.rev for the Qt 6 build's libquil_audio-qt6). Compilers
# and libabigail versions describe the same binary differently (GCC 14 with
# libabigail 2.6 leaves out the artificial parameter GCC 12 with 2.2 gives
# every destructor), so a description is only compared with one made by the
# same toolchain: abi/LIBRARY.TOOLCHAIN.abi, where TOOLCHAIN names the
# compiler's and libabigail's versions (docs/abi.md). For a toolchain without
# a stored description, the baseline revision is built and described at check
# time, which needs a git clone.
# Usage: scripts/abi-check.sh BUILD_DIR                     check BUILD_DIR's library
#        scripts/abi-check.sh --write-baseline [5|6]   store this toolchain's description
# The build must carry debug information (RelWithDebInfo or Debug).
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
# shellcheck source=scripts/lib/packages.sh
source scripts/lib/packages.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# toolchain_name: e.g. gcc12-abigail2.2.
toolchain_name() {
    local compiler=${CXX:-c++} abigail
    abigail=$(abidw --version | grep -oE '[0-9]+\.[0-9]+' | head -n 1)
    echo "$("$compiler" -dumpfullversion -dumpversion | sed -E 's/^([0-9]+).*/gcc\1/')-abigail$abigail"
}

# describe TREE LIBRARY OUT: the ABI of LIBRARY as TREE's public headers declare it.
describe() {
    local tree=$1 library=$2 out=$3 headers
    headers=$(mktemp -d "$work/include.XXXXXX")
    # The installed set of headers, the internal ones left out.
    find "$tree/src/lib/audio" "$tree/src/api/core" -name '*.h' ! -name '*_p.h' -exec cp {} "$headers/" \;
    abidw --headers-dir "$headers" --drop-private-types --no-show-locs --no-corpus-path \
        --drop-undefined-syms --out-file "$out" "$library"
}

# describe_baseline OUT: builds the baseline revision's library with this
# toolchain (the library alone) and describes it.
describe_baseline() {
    local out=$1 revision tree=$work/baseline
    revision=$(cat "abi/baseline$suffix.rev")
    if ! git cat-file -e "$revision^{commit}" 2>/dev/null; then
        echo "ABI check: no description of the baseline by $toolchain in abi/, and no git clone holding" \
             "the baseline revision $revision to build one from (docs/abi.md)" >&2
        exit 1
    fi
    echo "ABI check: building the baseline revision ${revision:0:7} with $toolchain"
    mkdir "$tree"
    git archive "$revision" | tar -x -C "$tree"
    cmake --no-warn-unused-cli -S "$tree" -B "$tree/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DQUIL_AUDIO_BUILD_TESTS=OFF -DQUIL_AUDIO_BUILD_DOCS=OFF -DQUIL_QT_MAJOR_VERSION="$qt" >/dev/null
    cmake --build "$tree/build" --target quil_audio >/dev/null
    describe "$tree" "$tree/build/src/lib/$library.so" "$out"
}

# The Qt of the library: a Qt 6 build's names carry -qt6.
if [ "${1:-}" = "--write-baseline" ]; then
    qt=${2:-5}
else
    build=${1:?usage: $0 BUILD_DIR | --write-baseline [5|6]}
    qt=$(sed -n 's/^QUIL_QT_MAJOR_VERSION:[A-Z]*=//p' "$build/CMakeCache.txt")
fi
suffix=$(qt_name_suffix "$qt") || exit 2
library=libquil_audio$suffix
toolchain=$(toolchain_name)
baseline=abi/$library.$toolchain.abi
if [ "${1:-}" = "--write-baseline" ]; then
    describe_baseline "$source_dir/$baseline"
    echo "ABI baseline of $toolchain written to $baseline"
    exit 0
fi

describe . "$build/src/lib/$library.so" "$work/current.abi"
if [ ! -f "$baseline" ]; then
    baseline=$work/baseline.abi
    describe_baseline "$baseline"
fi
if abidiff --no-added-syms "$baseline" "$work/current.abi" >"$work/report.txt"; then
    echo "ABI check: no change against $baseline ($toolchain)"
else
    cat "$work/report.txt"
    echo "ABI check: $library.so breaks programs built against the baseline $baseline (see docs/abi.md)" >&2
    exit 1
fi
