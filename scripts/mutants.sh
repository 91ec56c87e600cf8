#!/usr/bin/env bash
# Plants each fault of scripts/mutants.list, one at a time, into a scratch
# worktree of REV, rebuilds and runs the plain suite; prints one line a fault,
# "caught" (a test failed or timed out) or "missed". Not part of CI: it takes
# a rebuild and up to a suite run per fault. A test that fails is run once
# more (cores shared with other work can fail a timing bound); a fault is
# caught when a test fails twice.
# Usage: scripts/mutants.sh [REV] [ID...]   (REV defaults to HEAD; the list
# is always this checkout's). Output also lands in build/mutants-REV.txt.
# QUIL_MUTANT_SKIP: a regular expression of further tests to leave out, e.g.
# one whose timing bound the load of other builds breaks without any fault.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$PWD
rev=$(git rev-parse --short "${1:-HEAD}")
shift || true
list=$root/scripts/mutants.list
scratch=${QUIL_MUTANT_DIR:-/tmp/quil-mut-$rev}
report=$root/build/mutants-$rev.txt
mkdir -p "$root/build"

[ -d "$scratch" ] || git worktree add --detach "$scratch" "$rev" >/dev/null
cd "$scratch"
# Tests are not relinked when only the shared library changes: a fault costs
# one compile and one library link.
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUIL_AUDIO_BUILD_BENCHMARKS=OFF \
    -DCMAKE_LINK_DEPENDS_NO_SHARED=ON >/dev/null
cmake --build build -j2 >/dev/null || { echo "baseline build failed"; exit 1; }

# plant ID FILE OLD NEW: exactly one occurrence of OLD must exist.
plant() {
    python3 - "$@" <<'PY'
import sys
path, old, new = sys.argv[2], sys.argv[3].replace("\\n", "\n"), sys.argv[4].replace("\\n", "\n")
text = open(path).read()
if text.count(old) != 1:
    sys.exit("%s: text found %d times in %s" % (sys.argv[1], text.count(old), path))
open(path, "w").write(text.replace(old, new))
PY
}

: >"$report"
caught=0 total=0
while IFS=$'\t' read -r id file old new; do
    case $id in ''|'#'*) continue ;; esac
    if [ $# -gt 0 ] && ! printf '%s\n' "$@" | grep -qx "$id"; then continue; fi
    total=$((total + 1))
    if ! plant "$id" "$file" "$old" "$new"; then
        result="not-applied"
    elif ! cmake --build build -j2 >/dev/null 2>&1; then
        result="caught (build)"
    elif (cd build && ctest --timeout 90 --stop-on-failure --repeat until-pass:2 -E "^(package_test|deb_package_test${QUIL_MUTANT_SKIP:+|$QUIL_MUTANT_SKIP})\$" \
              >"/tmp/quil-mut-$rev-$id.log" 2>&1); then
        result="missed"
    else
        result="caught ($(grep -m1 -oE '[0-9]+ - [a-z_]+' "/tmp/quil-mut-$rev-$id.log" \
            | sed 's/^[0-9]* - //' || true))"
    fi
    git checkout -q -- "$file"
    case $result in caught*) caught=$((caught + 1)) ;; esac
    printf '%-30s %s\n' "$id" "$result" | tee -a "$report"
done <"$list"
cmake --build build -j2 >/dev/null 2>&1
echo "caught $caught of $total" | tee -a "$report"
