#!/usr/bin/env bash
# mvlog-manpages.sh MVLOG OUTDIR VERSION
# Writes OUTDIR/mvlog.1.gz and one OUTDIR/mvlog-<command>.1.gz for each
# command that `mvlog --help` lists, each made by help2man from the tool's own
# --help, so that a manual never says something the tool does not.
set -euo pipefail

if (($# != 3)); then
    echo "usage: $0 MVLOG OUTDIR VERSION" >&2
    exit 2
fi
mvlog=$(realpath "$1")
out=$2
version=$3
help2man=${HELP2MAN:-help2man}
command -v "$help2man" >/dev/null || {
    echo "$0: help2man is not installed (scripts/install-deps.sh installs it)" >&2
    exit 1
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"
rm -f "$out"/mvlog*.1.gz

# "  NAME    Description" lines after "Subcommands:" in the tool's help.
"$mvlog" --help >"$work/help"
sed -n '/^Subcommands:/,$s/^  \([a-z][a-z-]*\)  *\(.*\)$/\1\t\2/p' "$work/help" >"$work/commands"
[[ -s $work/commands ]] || {
    echo "$0: '$mvlog --help' lists no commands" >&2
    exit 1
}

# A manual's NAME line is short: the description up to its first colon or
# full stop, starting in lower case as manual pages do (but "JSON" stays).
short_name() {
    local text=${1%%: *}
    text=${text%%. *}
    if [[ ${text:1:1} == [[:lower:]] ]]; then
        text=${text,}
    fi
    echo "$text"
}

manual() {
    local program=$1 name=$2 include=$3
    "$help2man" --no-info --no-discard-stderr --version-string="$version" --section=1 \
        --source="libmarivane-logging $version" --manual="mvlog manual" \
        --name="$name" --include="$include" --output="$work/$program.1" "$work/$program"
    gzip -9n -c "$work/$program.1" >"$out/$program.1.gz"
}

see_also=""
while IFS=$'\t' read -r command description; do
    see_also+="${see_also:+,
}.BR mvlog\\-$command (1)"
    # help2man runs the program with --help: a wrapper makes each command one.
    printf '#!/bin/bash\nexec %q %q "$@"\n' "$mvlog" "$command" >"$work/mvlog-$command"
    chmod +x "$work/mvlog-$command"
done <"$work/commands"

printf '[SEE ALSO]\n.BR mvlog (1)\n' >"$work/command.h2m"
while IFS=$'\t' read -r command description; do
    manual "mvlog-$command" "$(short_name "$description")" "$work/command.h2m"
done <"$work/commands"

printf '#!/bin/bash\nexec %q "$@"\n' "$mvlog" >"$work/mvlog"
chmod +x "$work/mvlog"
printf '[SEE ALSO]\n%s\n' "$see_also" >"$work/mvlog.h2m"
manual mvlog "$(short_name "$(head -n 1 "$work/help")")" "$work/mvlog.h2m"
