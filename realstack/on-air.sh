#!/bin/bash
# Tests the messages of corvelkx-lights --air, and that it leaves nothing behind, in the virtual machine. Prints result
# lines like scenarios.sh.
here=$(realpath "${BASH_SOURCE%/*}")
. "$here/real.sh"
readonly light=C0:FF:EE:00:00:03
readonly nobody=(setpriv --reuid 65534 --regid 65534 --clear-groups)
as=()

result() { printf 'result\t%s\treal\t%s\t\n' "$1" "$2"; }
# refuses SENTENCE STATUS WORD...: checks that corvelkx-lights WORD... ends with that sentence and exit status.
refuses() {
    local said status
    said=$("${as[@]}" timeout 60 corvelkx-lights "${@:3}" 2>&1 >/dev/null)
    status=$?
    # shellcheck disable=SC2053 # a pattern is meant
    if [[ $said == "corvelkx-lights: "$1 && $said != *$'\n'* && $status = "$2" ]]; then
        result "says: ${1//\*/...}" passed
    else
        result "says: ${1//\*/...}" "status $status: $said"
    fi
}
# Everything that bluetoothd tells about hci1.
all_traces() {
    local interface
    for interface in Adapter1 LEAdvertisingManager1; do
        bluez /org/bluez/hci1 org.freedesktop.DBus.Properties.GetAll "string:org.bluez.$interface"
    done | grep -v "^method return"
}
traces() { all_traces; }
# leaves_nothing TITLE: checks that this is the same as at the beginning.
leaves_nothing() {
    local now
    sleep 3 # bluetoothd needs two seconds to end a link
    now=$(traces)
    [ "$now" = "$before" ] && result "$1" passed || result "$1" "$(diff <(echo "$before") <(echo "$now") | paste -s -d ' ')"
}

DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere refuses "The system bus cannot be reached: *" 1 --air -- true
refuses 'There is no adapter "hci9".' 1 --air --adapter hci9 -- true
refuses "hci1 is given twice." 1 --air --adapter hci1 --adapter hci1 \
    --light type=3 --light type=5 -- true
refuses "There are more lights (3) than adapters (1)*" 1 --air --adapter hci1 --lights "$here/lights.json" -- true
refuses "hci1 cannot be played: its advertisement does not fit: 25 bytes *" 1 \
    --air --adapter hci1 --light "manufacturer=$(printf '3c%.0s' {1..25})" -- true
refuses "hci1 cannot be played: its advertisement does not fit: a name of 30 bytes*" 1 \
    --air --adapter hci1 --light "type=3,name=$(printf 'n%.0s' {1..30})" -- true
refuses "hci1 cannot be played: bluetoothd adds *" 1 --air --adapter hci1 --light type=3,omit=00002902 -- true
refuses '"adapter" does not work for lights on a real adapter.' 1 --air --adapter hci1 -- corvelkx-lights ctl adapter off
refuses 'Nothing was changed: on a real adapter *' 1 \
    --air --adapter hci1 -- corvelkx-lights ctl set $light connect refuse
echo "advertising $light off" >/run/air
refuses "bluetoothd or the kernel refuses to play $light on hci1 *" 1 --air --adapter hci1 -- true
echo "advertising $light on" >/run/air
set_powered false hci1
refuses "The adapter hci1 is switched off." 1 --air --adapter hci1 -- true
set_powered true hci1
echo '<busconfig><policy user="nobody"><deny send_destination="org.bluez"/></policy></busconfig>' \
    >/etc/dbus-1/system-local.conf
reload_bus
as=("${nobody[@]}")
refuses "You may not use Bluetooth here: *" 1 --air --adapter hci1 -- true
as=()
rm /etc/dbus-1/system-local.conf
reload_bus
end_bluetoothd TERM
refuses "The Bluetooth service (bluetoothd) does not run." 1 --air --adapter hci1 -- true
start_bluetoothd

before=$(traces)
# play_and_end SIGNAL [WORD...]: plays a light, connects a host, and ends the light by that signal.
play_and_end() {
    "${@:2}" corvelkx-lights --air --adapter hci1 --json >/tmp/said 2>&1 &
    local lights=$! event
    until grep -qs advertised /tmp/said; do sleep 0.1; done
    corvelkx-host --timeout 60 --answer send $light 0102 >/dev/null || result "a host gets an answer" "status $?"
    corvelkx-host --timeout 60 listen $light >/tmp/heard &
    until grep -qs ready /tmp/heard; do sleep 0.1; done
    kill "-$1" $lights
    wait $lights
    kill %corvelkx-host && wait %corvelkx-host
    for event in advertised connected subscribed written; do
        grep -q "^{\"address\":\"$light\",.*\"event\":\"$event\"}" /tmp/said ||
            result "--json tells that it was $event" "$(paste -s -d ' ' /tmp/said)"
    done
}
corvelkx-lights --air --adapter hci1 -- corvelkx-host connect $light >/dev/null || result "a command's status" $?
leaves_nothing "nothing is left after the end of the command"
play_and_end TERM "${nobody[@]}"
leaves_nothing "nothing is left after an interruption, and any user may play a light"
play_and_end KILL
# After SIGKILL nobody restores the alias.
traces() { all_traces | sed '/string "Alias"/,+1d'; }
before=$(sed '/string "Alias"/,+1d' <<<"$before")
leaves_nothing "nothing but the alias is left of lights that are killed"
exit 0
