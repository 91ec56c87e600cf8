#!/usr/bin/env bash
# Proves a Debian release from scratch: makes a fresh minbase root of SUITE
# with debootstrap, puts the committed tree in it and runs the README's two
# commands there, scripts/demo.sh and then scripts/test.sh, as root, as a new
# user of that release would. Prints each command's wall time and result;
# fails if either fails.
#
# --archive tests the tree as `git archive` unpacks it (no repository, as a
# release tarball arrives), instead of a clone. --quick passes --quick on to
# scripts/test.sh. The root lives in QUIL_DISTRO_DIR (default
# /var/tmp/quil-distro) and is removed afterwards; QUIL_DEBIAN_MIRROR names
# the archive (default: the one the build machine's apt uses, or Debian's own).
# Usage: scripts/distro-test.sh [--archive] [--quick] SUITE   (trixie, bookworm, ...)
set -euo pipefail
cd "$(dirname "$0")/.."

usage="usage: $0 [--archive] [--quick] SUITE"
source_kind=clone test_args=()
while [ $# -gt 1 ]; do
    case $1 in
    --archive) source_kind=archive ;;
    --quick) test_args=(--quick) ;;
    *) echo "$usage" >&2; exit 2 ;;
    esac
    shift
done
suite=${1:-}
[[ $suite =~ ^[a-z]+$ ]] || { echo "$usage" >&2; exit 2; }
[ "$(id -u)" -eq 0 ] || { echo "$0: debootstrap and chroot need root" >&2; exit 1; }

# shellcheck source=scripts/lib/packages.sh
source scripts/lib/packages.sh
install_missing_packages "${QUIL_DISTRO_PACKAGES[@]}"

# The mirror the build machine's own apt reaches is the one known to work here.
host_mirror() {
    grep -hoE 'https?://[^ ]+/debian/?( |$)' /etc/apt/sources.list /etc/apt/sources.list.d/*.list \
        /etc/apt/sources.list.d/*.sources 2>/dev/null | head -n 1 | tr -d ' ' || true
}
mirror=${QUIL_DEBIAN_MIRROR:-$(host_mirror)}
mirror=${mirror:-http://deb.debian.org/debian}
security=${mirror%/debian*}/debian-security

root=$(realpath -m "${QUIL_DISTRO_DIR:-/var/tmp/quil-distro}/$suite")
mounts=(proc sys dev dev/pts dev/shm)

# Processes left behind inside the root (a sound server a failed test did
# not stop) would keep its mounts busy.
kill_root_processes() {
    local proc
    for proc in /proc/[0-9]*; do
        [ "$(readlink "$proc/root" 2>/dev/null)" = "$root" ] && kill -KILL "${proc#/proc/}" 2>/dev/null
    done
    return 0
}

remove_root() {
    local index
    [ -d "$root" ] || return 0
    kill_root_processes
    for ((index = ${#mounts[@]} - 1; index >= 0; index--)); do
        mountpoint -q "$root/${mounts[index]}" && umount -l "$root/${mounts[index]}"
    done
    # Never follow what is left of a mount into the host.
    rm -rf --one-file-system "$root"
}
trap remove_root EXIT

# A mirror in mid-sync fails a download now and then: up to three tries.
make_root() {
    local try
    for try in 1 2 3; do
        remove_root
        mkdir -p "$root"
        if debootstrap --variant=minbase "$suite" "$root" "$mirror" >"$root.debootstrap.log" 2>&1; then
            rm -f "$root.debootstrap.log"
            return 0
        fi
        echo "debootstrap $suite, try $try, failed: $(tail -n 1 "$root.debootstrap.log")" >&2
        sleep 10
    done
    return 1
}

start=$SECONDS
echo "== A fresh minbase $suite root in $root, from $mirror"
make_root
# As a Debian installation lists them: the release, its updates and security.
cat >"$root/etc/apt/sources.list" <<EOF_SOURCES
deb $mirror $suite main
deb $mirror $suite-updates main
deb $security $suite-security main
EOF_SOURCES
cp /etc/resolv.conf "$root/etc/resolv.conf"
for mount in "${mounts[@]}"; do
    mount --bind "/$mount" "$root/$mount"
done
tree=$root/root/libquil_audio
mkdir -p "$tree"
if ! git rev-parse -q --verify HEAD >/dev/null 2>&1; then
    source_kind="copy of an unversioned tree"
    tar --exclude=./build -c . | tar -x -C "$tree"
elif [ "$source_kind" = clone ]; then
    source_kind="clone of $(git rev-parse --short HEAD)"
    git clone -q --no-local . "$tree"
else
    source_kind="git archive of $(git rev-parse --short HEAD)"
    git archive HEAD | tar -x -C "$tree"
fi
echo "== root ready in $((SECONDS - start)) s; the tree: a $source_kind"

# in_root COMMAND...: in the tree, with a login's clean environment.
in_root() {
    chroot "$root" /usr/bin/env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
        HOME=/root LANG=C.UTF-8 TERM=dumb bash -c 'cd /root/libquil_audio && exec "$@"' in_root "$@"
}

results=() status=0
for command in scripts/demo.sh "scripts/test.sh ${test_args[*]}"; do
    echo "== $suite: $command"
    command_start=$SECONDS
    # shellcheck disable=SC2086 # the command's words
    if in_root $command </dev/null; then result=passed; else result=failed status=1; fi
    results+=("$(printf '%-24s %-6s in %4d s' "$command" "$result" $((SECONDS - command_start)))")
    kill_root_processes
done

echo "== $suite ($source_kind), fresh root and both commands in $((SECONDS - start)) s:"
printf '  %s\n' "${results[@]}"
exit $status
