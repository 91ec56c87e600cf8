#!/usr/bin/env bash
# Writes the manual page quil-audio(1) from the tool's own --help texts:
# help2man formats the top-level help, and each command's help, formatted by
# help2man too, becomes a subsection of COMMANDS through an include file.
# Usage: quil-audio-man.sh TOOL OUTPUT [HELP2MAN]
set -euo pipefail
tool=$1 output=$2 help2man=${3:-help2man}
# The commands as the tool declares them, so that a new one gets its section.
mapfile -t commands < <("$tool" --commands)
if [ ${#commands[@]} -eq 0 ]; then
    echo "quil-audio-man.sh: '$tool --commands' names no command" >&2
    exit 1
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The body of one command's page (its description and options), with its
# headings turned into paragraphs so that they sit inside a subsection.
command_section() {
    local command=$1 usage
    usage=$("$tool" "$command" --help | sed -n '1s/^Usage: //p')
    printf '.SS "%s"\n' "${usage//-/\\-}"
    "$help2man" --no-info --version-string=unused "$tool $command" \
        | sed -e '1,/^\.SH DESCRIPTION/d' \
              -e 's/^\.SH OPTIONS$/.PP\nOptions:/' \
              -e 's/^\.SS "\(.*\)"$/.PP\n\1/'
}

{
    echo '[COMMANDS]'
    for command in "${commands[@]}"; do
        command_section "$command"
    done
    cat <<'ROFF'
[EXIT STATUS]
0 on success, also when Ctrl\-C or SIGTERM ends a command; 1 when a device,
file or mixer element cannot be used; 2 when the command line is wrong. Every
failure is reported as one line on standard error.
[SEE ALSO]
.BR aplay (1),
.BR arecord (1),
.BR amixer (1)
ROFF
} >"$work/commands.h2m"

"$help2man" --no-info --include="$work/commands.h2m" \
    --name="capture, play and control audio on ALSA devices" --output="$output" "$tool"
