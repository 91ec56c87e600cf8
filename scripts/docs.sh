#!/usr/bin/env bash
# Builds the API reference (Doxygen over the public headers, docs/host-guide.md
# as its main page) into build/docs/html; a public member without documentation fails it.
# On a fresh Debian 12 or 13 machine run as root, it first installs the Debian
# packages it needs.
# Usage: scripts/docs.sh
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck source=scripts/lib/packages.sh
source scripts/lib/packages.sh
install_missing_packages "${QUIL_BUILD_PACKAGES[@]}" "${QUIL_DOCS_PACKAGES[@]}"

# Only the reference is built: the library itself is not compiled.
cmake -S . -B build/docs -G Ninja -DQUIL_AUDIO_BUILD_TESTS=OFF -DQUIL_AUDIO_BUILD_DOCS=ON >/dev/null
cmake --build build/docs --target docs
echo "Open it with: xdg-open $PWD/build/docs/html/index.html"
