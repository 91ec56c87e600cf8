#!/usr/bin/env bash
# Builds the Debian packages (scripts/package.sh, in PACKAGE_BUILD_DIR, kept
# between runs), unpacks them into a temporary root, checks that the -dev
# package holds the reference, and builds and runs the examples it ships
# against that root; runs the unpacked tool, reads its manual page and has
# lintian check the packages.
# Usage: deb_package_test.sh SOURCE_DIR PACKAGE_BUILD_DIR
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root

"$source/scripts/package.sh" "$work/debs" "$build" >/dev/null
for deb in "$work"/debs/*.deb; do
    dpkg-deb -x "$deb" "$root"
done
# A Qt 6 build's packages carry its suffix (QUIL_NAME_SUFFIX), and the tool
# ships from the Qt 5 build alone.
suffix=${QUIL_NAME_SUFFIX:-}
doc=$root/usr/share/doc/libquil-audio$suffix-dev
test -f "$doc/html/index.html" && test -f "$doc/README.md"
# Unpacked, the libraries are outside the system's library path.
libdir=$(dirname "$(find "$root" -name "libquil_audio$suffix.so.0" -print -quit)")
export LD_LIBRARY_PATH=$libdir
bash "$(dirname "$0")/example_clients.sh" "$root/usr" "$source" "$work"

# check_tool: the unpacked tool runs, and its manual page has every command
# and option of it that --help names.
check_tool() {
    local tool=$root/usr/bin/quil-audio page commands command word missing=0
    echo "== unpacked tool and its manual page"
    "$tool" --version
    # Every command and every option of it that --help names must be in the page.
    page=$(MANWIDTH=200 LC_ALL=C.UTF-8 man --nh --nj -l "$root/usr/share/man/man1/quil-audio.1.gz")
    commands=$("$tool" --help | sed -n '/^Commands/,/^$/s/^  \([a-z]\+\)  .*/\1/p')
    for command in $commands; do
        for word in "quil-audio $command" $("$tool" "$command" --help | grep -o -- '--[a-z-]*' | sort -u); do
            grep -qF -- "$word" <<<"$page" || { echo "the manual page lacks '$word' ($command)" >&2; missing=1; }
        done
    done
    [ -n "$commands" ] && [ "$missing" -eq 0 ]
}
if [ -z "$suffix" ]; then
    check_tool
else
    test ! -e "$root/usr/bin/quil-audio"
fi

echo "== lintian"
lintian --fail-on error "$work"/debs/*.deb
