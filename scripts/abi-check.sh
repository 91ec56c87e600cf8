#!/usr/bin/env bash
# Compares the ABI of a built libquil_audio.so with the baseline in
# abi/libquil_audio.abi (libabigail): any change that breaks a program built
# against the baseline fails (a size, offset, base or virtual slot, a removed
# symbol); added functions pass. Only types of the public headers count.
# Usage: scripts/abi-check.sh BUILD_DIR            check
#        scripts/abi-check.sh BUILD_DIR --update   write a new baseline (docs/abi.md)
# The build must carry debug information (RelWithDebInfo or Debug).
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1
library=$build/src/lib/libquil_audio.so
baseline=abi/libquil_audio.abi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The installed set of headers, the internal ones left out.
mkdir "$work/include"
find src/lib/audio src/api/core -name '*.h' ! -name '*_p.h' -exec cp {} "$work/include/" \;

abidw --headers-dir "$work/include" --drop-private-types --no-show-locs --no-corpus-path \
    --drop-undefined-syms --out-file "$work/current.abi" "$library"
if [ "${2:-}" = "--update" ]; then
    cp "$work/current.abi" "$baseline"
    echo "ABI baseline written to $baseline"
    exit 0
fi
if abidiff --no-added-syms "$baseline" "$work/current.abi" >"$work/report.txt"; then
    echo "ABI check: no change against $baseline"
else
    cat "$work/report.txt"
    echo "ABI check: libquil_audio.so breaks programs built against $baseline (see docs/abi.md)" >&2
    exit 1
fi
