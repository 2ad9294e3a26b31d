#!/bin/bash
# transcript.sh FILE: runs each line of FILE that begins with "$ ", in a temporary directory, and compares the
# output with the lines below it. "[N]" is an exit status other than 0.
# CORVELKX_SLOWNESS is how many times slower than others an emulated machine is: all times are longer then.
slower() { perl -pe 's/((?:--for|--timeout|scan) )(\d[\d.]*)(?![\d.>])/$1 . $2 * $ENV{CORVELKX_SLOWNESS}/ge' <<<"$1"; }
file=$(realpath "$1")
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
cd "$directory" || exit
while IFS= read -r line; do
    case $line in
    "$ "*)
        printf '%s\n' "$line"
        command=${line#??}
        [ -z "${CORVELKX_SLOWNESS:-}" ] || command=$(slower "$command")
        eval "$command" </dev/null 2>&1 || echo "[$?]"
        ;;
    esac
done <"$file" | diff -u "$file" -
