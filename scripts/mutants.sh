#!/usr/bin/env bash
# Plants faults one at a time into a scratch worktree of REV, rebuilds and runs
# tests; prints one line a fault, "caught (TEST)" (a test failed or timed
# out), "missed", and for generated faults also "equivalent" (listed with its
# reason in scripts/mutants-equivalent.list, not run), "invalid" (does not
# compile) and "not-applied" (its text is not in REV). A failing test is run
# once more (cores shared with other work can fail a timing bound); a fault
# is caught when a test fails twice. A fault the suite misses is then tried on
# the seed corpora of the fuzz targets that drive its file (fuzz_for below),
# replayed in a clang build of the worktree: "caught (fuzz_..._corpus)". Not
# part of CI.
#
#   scripts/mutants.sh [REV] [ID...]
#       the hand-picked faults of scripts/mutants.list against the whole plain
#       suite (REV defaults to HEAD; the list is always this checkout's).
#   scripts/mutants.sh --generated [--count N] [--sample N --seed S] [REV] [ID...]
#       the faults scripts/mutants-generate.py writes for REV's src/lib (all
#       of them, or N drawn with seed S). Each runs only the tests of the class
#       it is planted in (tests_for below), never the tool's: a fault must be
#       caught where it is. Ends with a per-file table in Markdown.
#
# Other options: --timeout S (per test, default 90), --list FILE (another
# hand-picked list). Output also lands in build/mutants-REV[-generated].txt.
# QUIL_MUTANT_DIR: the scratch worktree (default /tmp/quil-mut-REV).
# QUIL_MUTANT_SKIP: a regular expression of further tests to leave out, e.g.
# one whose timing bound the load of other builds breaks without any fault.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$PWD
list=$root/scripts/mutants.list
generated=0 count=100 sample=0 seed=1 timeout=90
while [ $# -gt 0 ]; do
    case $1 in
    --generated) generated=1 ;;
    --count) count=$2; shift ;;
    --sample) sample=$2; shift ;;
    --seed) seed=$2; shift ;;
    --timeout) timeout=$2; shift ;;
    --list) list=$(realpath "$2"); shift ;;
    -h|--help) sed -n '2,/^set /p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    -*) echo "unknown option $1" >&2; exit 2 ;;
    *) break ;;
    esac
    shift
done
rev=$(git rev-parse --short "${1:-HEAD}")
shift || true
scratch=${QUIL_MUTANT_DIR:-/tmp/quil-mut-$rev}
report=$root/build/mutants-$rev$([ $generated = 1 ] && echo -generated).txt
mkdir -p "$root/build"

[ -d "$scratch" ] || git worktree add --detach "$scratch" "$rev" >/dev/null
cd "$scratch"
# A scratch worktree left by an earlier run holds another revision.
git checkout -q --detach "$rev" || exit 1
# Tests are not relinked when only the shared library changes: a fault costs
# one compile and one library link.
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUIL_AUDIO_BUILD_BENCHMARKS=OFF \
    -DCMAKE_LINK_DEPENDS_NO_SHARED=ON >/dev/null
cmake --build build -j2 >/dev/null || { echo "baseline build failed"; exit 1; }
# The fuzz targets' seed corpora replay as tests too (tests/fuzz): a fault the
# suite misses is tried on them, in a clang build of its own.
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUIL_AUDIO_BUILD_TESTS=OFF \
    -DQUIL_AUDIO_BUILD_DOCS=OFF -DQUIL_AUDIO_BUILD_FUZZERS=ON -DQUIL_AUDIO_SANITIZE=fuzzer-no-link,address,undefined \
    -DCMAKE_LINK_DEPENDS_NO_SHARED=ON >/dev/null
cmake --build build-fuzz -j2 >/dev/null || { echo "baseline fuzz build failed"; exit 1; }
export LSAN_OPTIONS=suppressions=$scratch/tests/sanitizers/lsan.supp:print_suppressions=0

# The test executables of the class a file belongs to.
tests_for() {
    case ${1##*/} in
    AlsaInputDevice.cpp|FileInputDevice.cpp) echo capture_test ;;
    AudioInputDataProvider*|PcmRing_p.h|Synchronization_p.h) echo capture_test stress_test ;;
    AlsaOutputDevice.cpp|FileOutputDevice.cpp) echo playback_test ;;
    AlsaPcmOpen.cpp|PcmFormat_p.h) echo playback_test capture_test ;;
    AlsaMixer*|AlsaCard.cpp) echo alsa_mixer_test ;;
    *) echo capture_test playback_test alsa_mixer_test ;;   # shared by every class
    esac
}

# The fuzz targets that drive the code of a file.
fuzz_for() {
    case ${1##*/} in
    FileInputDevice.cpp) echo fuzz_file_input ;;
    AudioInputDataProvider*|PcmRing_p.h|Synchronization_p.h|CMDataTransfer.cpp) echo fuzz_provider ;;
    AlsaOutputDevice.cpp|AudioOutputDevice.cpp|AlsaPcmOpen.cpp) echo fuzz_output_device ;;
    AlsaMixer*|AlsaCard.cpp) echo fuzz_mixer ;;
    AudioFile.cpp) echo fuzz_audio_file ;;
    *Command.cpp|CommandLine.cpp) echo fuzz_command_line ;;
    AlsaInputDevice.cpp|AlsaDevices.cpp|FileOutputDevice.cpp|PcmSamples.cpp|ProgressLine.cpp|Signals.cpp|main.cpp) ;;
    *) echo fuzz_file_input fuzz_provider fuzz_output_device fuzz_mixer ;;
    esac
}

# replay_corpora LOG FILE: true when the corpora of FILE's fuzz targets all
# pass with the fault in place (or it has none).
replay_corpora() {
    local targets
    targets=$(fuzz_for "$2")
    [ -n "$targets" ] || return 0
    cmake --build build-fuzz -j2 >>"$1" 2>&1 || return 0
    (cd build-fuzz && ctest --timeout "$timeout" -R "^($(echo $targets | sed 's/\([a-z_]*\)/\1_corpus/g' | tr ' ' '|'))\$" \
        >>"$1" 2>&1)
}

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

skip="package_test|deb_package_test${QUIL_MUTANT_SKIP:+|$QUIL_MUTANT_SKIP}"
if [ $generated = 1 ]; then
    list=$root/build/mutants-generated-$rev.list
    args=(--root "$scratch" --count "$count")
    [ "$sample" -gt 0 ] && args+=(--sample "$sample" --sample-seed "$seed")
    python3 "$root/scripts/mutants-generate.py" "${args[@]}" >"$list" || exit 1
    # Each class's tests must pass without a fault, or a "caught" means nothing.
    needed=$(cut -f2 "$list" | grep -v '^#' | sort -u | while read -r f; do tests_for "$f"; done | tr ' ' '\n' | sort -u)
    (cd build && ctest --timeout "$timeout" -R "^($(echo $needed | tr ' ' '|'))\$" >"/tmp/quil-mut-$rev-baseline.log" 2>&1) \
        || { echo "the class tests fail without a fault: /tmp/quil-mut-$rev-baseline.log"; exit 1; }
fi

: >"$report"
summary=$(mktemp)
caught=0 total=0
while IFS=$'\t' read -r id file old new; do
    case $id in ''|'#'*) continue ;; esac
    if [ $# -gt 0 ] && ! printf '%s\n' "$@" | grep -qx "$id"; then continue; fi
    total=$((total + 1))
    start=$SECONDS
    log=/tmp/quil-mut-$rev-$id.log
    if [ $generated = 1 ] && grep -q "^$id	" "$root/scripts/mutants-equivalent.list"; then
        result="equivalent"
    elif ! plant "$id" "$file" "$old" "$new"; then
        result="not-applied"
    elif [ $generated = 1 ]; then
        tests=$(tests_for "$file")
        if ! cmake --build build -j2 --target quil_audio $tests >"$log" 2>&1; then
            result="invalid (build)"
        elif (cd build && ctest --timeout "$timeout" --stop-on-failure --repeat until-pass:2 \
                  -R "^($(echo $tests | tr ' ' '|'))\$" >>"$log" 2>&1) && replay_corpora "$log" "$file"; then
            result="missed"
        else
            result="caught ($(grep -m1 -oE '[0-9]+ - [a-z_]+' "$log" | sed 's/^[0-9]* - //' || true))"
        fi
    elif ! cmake --build build -j2 >/dev/null 2>&1; then
        result="caught (build)"
    elif (cd build && ctest --timeout "$timeout" --stop-on-failure --repeat until-pass:2 -E "^($skip)\$" \
              >"$log" 2>&1) && replay_corpora "$log" "$file"; then
        result="missed"
    else
        result="caught ($(grep -m1 -oE '[0-9]+ - [a-z_]+' "$log" | sed 's/^[0-9]* - //' || true))"
    fi
    git checkout -q -- "$file" 2>/dev/null
    case $result in caught*) caught=$((caught + 1)) ;; esac
    printf '%s\t%s\n' "${file##*/}" "${result%% *}" >>"$summary"
    printf '%-44s %-32s %3ds\n' "$id" "$result" $((SECONDS - start)) | tee -a "$report"
done <"$list"
cmake --build build -j2 >/dev/null 2>&1
cmake --build build-fuzz -j2 >/dev/null 2>&1
echo "caught $caught of $total" | tee -a "$report"
if [ $generated = 1 ]; then
    {
        echo
        echo "| File | Faults | Caught | Missed | Equivalent | Invalid or not applied |"
        echo "|---|---|---|---|---|---|"
        sort "$summary" | awk -F'\t' '
            !($1 in n) { order[++files] = $1 }
            { n[$1]++; c[$1] += $2 == "caught"; m[$1] += $2 == "missed"; e[$1] += $2 == "equivalent" }
            END {
                for (i = 1; i <= files; i++) {
                    f = order[i]
                    printf "| %s | %d | %d | %d | %d | %d |\n", f, n[f], c[f], m[f], e[f], n[f] - c[f] - m[f] - e[f]
                    N += n[f]; C += c[f]; M += m[f]; E += e[f]
                }
                printf "| all | %d | %d | %d | %d | %d |\n", N, C, M, E, N - C - M - E
                if (C + M > 0)
                    printf "\nCaught %d of the %d faults that are not equivalent (%.1f %%).\n", C, C + M, 100 * C / (C + M)
            }'
    } | tee -a "$report"
fi
rm -f "$summary"
