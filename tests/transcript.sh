#!/bin/bash
# transcript.sh FILE: runs each line of FILE that begins with "$ ", in a temporary directory, and compares the
# output with the lines below it. "[N]" is an exit status other than 0.
file=$(realpath "$1")
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
cd "$directory" || exit
while IFS= read -r line; do
    case $line in
    "$ "*)
        printf '%s\n' "$line"
        eval "${line#??}" </dev/null 2>&1 || echo "[$?]"
        ;;
    esac
done <"$file" | diff -u "$file" -
