#!/usr/bin/env bash
# The code's own checks: clang-format (.clang-format) must leave every C/C++
# file as it is, and clang-tidy (.clang-tidy) must find nothing in src/,
# tools/ and bench/. Fails on the first complaint of either.
# Usage: scripts/lint.sh BUILD_DIR   (a build configured with
#        -DCMAKE_EXPORT_COMPILE_COMMANDS=ON, as scripts/test.sh configures its plain one)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1

# sources DIR...: the C/C++ files under each DIR. Found by name rather than
# by git, so that a tree unpacked from a release archive lints the same.
sources() {
    find "$@" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -print0 | sort -z
}

echo "== clang-format $(clang-format --version | grep -o '[0-9][0-9.]*' | head -n 1)"
sources src tools bench tests examples | xargs -0 clang-format --dry-run --Werror

echo "== clang-tidy $(clang-tidy --version | grep -o '[0-9][0-9.]*' | head -n 1)"
# The generated moc files are not ours; every translation unit of ours is.
sources src tools bench | grep -z '\.cpp$' \
    | xargs -0 -P"$(nproc)" -n1 clang-tidy -p "$build" --quiet 2>/dev/null
echo "== lint: clean"
