#!/usr/bin/env bash
# Installs the build into a temporary prefix, then builds the example client
# against it (example_clients.sh) and runs it, and the installed quil-audio.
# Usage: package_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
if find "$prefix/include" -name '*_p.h' | grep -q .; then
    echo "internal headers were installed" >&2
    exit 1
fi
bash "$(dirname "$0")/example_clients.sh" "$prefix" "$source" "$work"

echo "== installed tool"
"$prefix/bin/quil-audio" --version
