#!/bin/bash
# Measures Qt Bluetooth alone and the plugin alternately, in the virtual machine. Prints result lines like scenarios.sh,
# and lines that begin with "measured".
here=$(realpath "${BASH_SOURCE%/*}")
. "$here/real.sh"
readonly rounds=10
readonly most=105 # percent

corvelkx-lights --air --adapter hci2 --light type=5,layout=a002 >/dev/null &
mkfifo /tmp/bare /tmp/bare.out /tmp/plugin /tmp/plugin.out
corvelkx-rounds bare </tmp/bare >/tmp/bare.out 2>/dev/null &
corvelkx-rounds plugin "$PLUGIN" </tmp/plugin >/tmp/plugin.out 2>/dev/null &
exec 3>/tmp/bare 4</tmp/bare.out 5>/tmp/plugin 6</tmp/plugin.out
for ((round = 0; round < rounds; ++round)); do
    real_prepare
    echo >&3 && read -r -t 60 -u 4 bare && echo "$bare" >>/tmp/bare.times
    real_prepare
    echo >&5 && read -r -t 60 -u 6 plugin && echo "$plugin" >>/tmp/plugin.times
done

median() { # FILE COLUMN
    cut -d ' ' -f "$2" "$1" | sort -n | sed -n "$(((rounds + 1) / 2))p"
}
column=0
for what in "from start() until the light is ready" "five payloads and their answers, one after the other"; do
    column=$((column + 1))
    bare=$(median /tmp/bare.times $column) plugin=$(median /tmp/plugin.times $column)
    printf 'measured\t%s\t%s\t%s\t%s\n' "$what" "$plugin" "$bare" "$(echo "$plugin $bare" | awk '{ printf "%.3f", $1 / $2 }')"
    [ $((plugin * 100)) -le $((bare * most)) ] && outcome=passed || outcome="$plugin ms instead of $bare ms"
    printf 'result\tmeasured: %s\treal\t%s\t\n' "$what" "$outcome"
done
kill %1
wait %1
exit 0
