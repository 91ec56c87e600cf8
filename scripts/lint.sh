#!/usr/bin/env bash
# The code's own checks: clang-format (.clang-format) must leave every C/C++
# file as it is, and clang-tidy (.clang-tidy) must find nothing in src/,
# tools/ and bench/. Fails on the first complaint of either.
# Usage: scripts/lint.sh BUILD_DIR   (a build configured with
#        -DCMAKE_EXPORT_COMPILE_COMMANDS=ON, as scripts/test.sh configures its plain one)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1

echo "== clang-format"
git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run --Werror

echo "== clang-tidy"
# The generated moc files are not ours; every translation unit of ours is.
git ls-files 'src/*.cpp' 'tools/*.cpp' 'bench/*.cpp' \
    | xargs -P"$(nproc)" -n1 clang-tidy -p "$build" --quiet 2>/dev/null
echo "== lint: clean"
