#!/usr/bin/env bash
# Installs the build into a temporary prefix, then builds the example client
# against it (example_clients.sh) and runs it, and the installed quil-audio.
# Usage: package_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
# A cross build (QUIL_CROSS_SYSROOT) is staged as a device build stages it:
# into the target's root, here a view of the sysroot made of links to its
# top directories, so that the sysroot itself stays untouched.
if [ -n "${QUIL_CROSS_SYSROOT:-}" ]; then
    mkdir "$work/sysroot"
    ln -s "$QUIL_CROSS_SYSROOT"/* "$work/sysroot/"
    # The clients' run paths point into the target root: the emulator's root is the view.
    export QUIL_TEST_EMULATOR=${QUIL_TEST_EMULATOR//"$QUIL_CROSS_SYSROOT"/"$work/sysroot"}
    export QUIL_CROSS_SYSROOT=$work/sysroot
    prefix=$QUIL_CROSS_SYSROOT/quil-staging
fi
# Target programs run through the emulator of a cross build, if any.
read -ra emulator <<<"${QUIL_TEST_EMULATOR:-}"

cmake --install "$build" --prefix "$prefix" >/dev/null
if find "$prefix/include" -name '*_p.h' | grep -q .; then
    echo "internal headers were installed" >&2
    exit 1
fi
bash "$(dirname "$0")/example_clients.sh" "$prefix" "$source" "$work"

# The tool installs from the Qt 5 build alone (QUIL_NAME_SUFFIX is a Qt 6 build's).
if [ -z "${QUIL_NAME_SUFFIX:-}" ]; then
    echo "== installed tool"
    "${emulator[@]}" "$prefix/bin/quil-audio" --version
else
    test ! -e "$prefix/bin/quil-audio"
fi
