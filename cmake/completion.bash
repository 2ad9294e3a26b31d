# Commands and options are what the program's own help lists.
_corvelkx()
{
    local words
    words=$("$1" --help 2>/dev/null | grep -oE '^  ([a-z]+ |.*--[a-z]+)' | grep -oE '(--)?[a-z]+ ?$')
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$2")
}
complete -o default -F _corvelkx corvelkx-host corvelkx-single corvelkx-lights corvelkx-panel
