#!/bin/bash
# scenarios.sh stand-in|real NUMBER...: runs scenarios of scenarios.txt, with the replacement of bluetoothd or with the
# real one. Prints for each a line whose fields are separated by tabs:
#     result  TITLE  stand-in|real  passed, or what is wrong  what the host saw
# scenarios.sh list: prints all titles.
here=$(realpath "${BASH_SOURCE%/*}")
. "$here/real.sh"
readonly first=C0:FF:EE:00:00:03 second=C0:FF:EE:00:00:05 foreign=D0:0D:00:00:00:04

# --- The host, and the signals that it gets.

begin() {
    coproc plugin { corvelkx-signals "$PLUGIN" 2>>"${TMPDIR:-/tmp}/host.log"; }
    process=$plugin_PID
    echo new >>"$seen"
}
host() { echo "$*" >&"${plugin[1]}"; }
fail() {
    [ -s "$wrong" ] || echo "$*" >"$wrong"
    exit 1
}
# see TEXT [SECONDS]: waits for a line of the host that begins with TEXT, which may be a shell pattern.
see() {
    local line
    while read -r -t "${2:-30}" -u "${plugin[0]}" line; do
        echo "$line" >>"$seen"
        # shellcheck disable=SC2053 # a pattern is meant
        [[ $line != $1* ]] || return 0
    done
    fail "there was no \"$1\" within ${2:-30} s"
}
# watch SECONDS: records the host's lines for that time.
watch() {
    local line end=$((SECONDS + $1))
    while read -r -t $((end - SECONDS + 1)) -u "${plugin[0]}" line && [ $SECONDS -lt $end ]; do
        echo "$line" >>"$seen"
    done
}

find_light() { host start && see "$1 found" && host stop; }
echo_of() { host send "$1" "$2" && see "$1 says $2"; }
bring_up() { find_light "$1" && host connect "$1" && see "$1 ready" && echo_of "$1" 5a; }
disconnect() { host remove "$1" && see "$1 gone"; }
disconnect_silently() { host remove "$1" && watch 3; }
works_again() { echo_of "$1" a5 && disconnect "$1"; }
# A restarted bluetoothd remembers lights that had been connected, but not their manufacturer data, so only the second
# scan finds them.
bring_up_by_second_scan() {
    local known
    known=$(grep -c "$1 found" "$seen")
    host start
    watch 5
    host stop
    [ "$(grep -c "$1 found" "$seen")" = "$known" ] || fail "the first scan found $1"
    bring_up "$1"
}
# talk ADDRESS MODE: sends payloads, and checks the answers and what the light received.
talk() {
    local n long
    host connect "$1"
    see "$1 ready"
    for n in {16..35}; do host send "$1" "$(printf %02x "$n")"; done
    for n in {16..35}; do see "$1 says $(printf %02x "$n")"; done
    long=$(printf 'c3%.0s' {1..180})
    echo_of "$1" "$long"
    listens "$1"
    was_written "$1" request 5c
    was_written "$1" "$2" 10
    was_written "$1" "$2" "$long"
    disconnect "$1"
}
lives_again() {
    see unloaded
    watch 6
    host new
    bring_up "$first"
    works_again "$first"
}
deleted_at() {
    host unload-at "$1"
    find_light "$first"
    host connect "$first"
    lives_again
}
ends_by() {
    find_light "$first"
    find_light "$second"
    host connect "$first"
    host connect "$second"
    host "$1"
    wait "$process" || fail "the host ended with status $?"
    sleep 6
    begin
    host new
    bring_up "$first"
    works_again "$first"
}
# kept_through reported|unreported FAULT...: CorvelKX::Host reconnects the light. An unreported fault causes no
# signal, so the library notices it only by a payload that is not answered.
kept_through() {
    host unload
    host keep "$first"
    see "$first ready"
    "${@:2}"
    [ "$1" = reported ] || host tell "$first" 77
    see "$first waiting"
    mend
    see "$first ready" 90
    host tell "$first" 78
    see "$first says 78"
}
mend() { :; }

# --- The lights, the adapter and bluetoothd.

lights() { corvelkx-lights ctl "$@" || fail "corvelkx-lights ctl $* ended with status $?"; }
# was_written ADDRESS command|request HEX: bluetoothd does not tell a light the kind of write; the log of corvelkx-air
# does.
was_written() {
    local -A code=([command]=52 [request]=12)
    if [ "$place" = real ]; then
        tail -c "+$airBegin" /tmp/air.log | tr -d ' ' | grep -q "to$1:${code[$2]}....$3\$"
    else
        grep -q "$2 $3\$" <<<"$(lights written "$1")"
    fi || fail "$1 was not written $3 as a $2"
}
listens() {
    [ "$place" = stand-in ] || was_written "$1" request 0100
    grep -q "\"address\":\"$1\",[^}]*\"listening\":true" <<<"$(lights report)" || fail "the host has not subscribed to $1"
}
adapter() { if [ "$place" = real ]; then "real_adapter_$1"; else lights adapter "$1"; fi; }
daemon() { if [ "$place" = real ]; then "real_daemon_$1"; else lights daemon "$1"; fi; }
away() {
    [ "$place" = stand-in ] || { real_range "$1" out && return; }
    lights set "$1" advertising false
    lights set "$1" connect away
    corvelkx-lights ctl drop "$1" 2>/dev/null || true # where it is connected
}
back() {
    [ "$place" = stand-in ] || { real_range "$1" in && return; }
    lights set "$1" connect accept
    lights set "$1" advertising true
}

# --- Running the scenarios.

# The signals for each light, in order. Repeated discoveries are left out, because their number varies; repeated
# payloads and disconnections are counted.
summary() {
    awk '
        function flush(light) {
            if (last[light] != "")
                text[light] = text[light] (text[light] == "" ? "" : ", ") last[light] \
                    (last[light] ~ /^(says|gone)$/ && count[light] > 1 ? " ×" count[light] : "")
        }
        $1 == "new" { for (light in last) { flush(light); last[light] = "" } next }
        { light = substr($1, 16); what = $2 }
        $1 ~ /^(scan|unloaded|the)$/ { light = ""; what = $0 }
        what == last[light] { count[light]++; next }
        what == "found" && last[light] != "" && last[light] != "gone" { next }
        { flush(light); last[light] = what; count[light] = 1 }
        END {
            for (light in last) {
                flush(light)
                if (text[light] != "found")
                    print (light == "" ? "" : light ": ") text[light]
            }
        }
    ' "$seen" | sort | paste -s -d ';' | sed 's/;/; /g'
}

run() { # PLACE NUMBER, among the lights
    local title
    title=$(titles | sed -n "$2p")
    place=$1
    seen=$(mktemp) wrong=$(mktemp)
    airBegin=$(($(cat /tmp/air.log 2>/dev/null | wc -c) + 1))
    (
        begin
        host new
        eval "$(awk -v title="$title" '/^[A-Za-z]/ { on = $0 == title; next } on && !/^#/' "$here/scenarios.txt")"
    )
    local status=$?
    [ $status = 0 ] || [ -s "$wrong" ] || echo "status $status" >"$wrong"
    [ -s "$wrong" ] || echo passed >"$wrong"
    printf 'result\t%s\t%s\t%s\t%s\n' "$title" "$1" "$(cat "$wrong")" "$(summary)"
    rm "$seen" "$wrong"
}
titles() { grep '^[A-Za-z]' "$here/scenarios.txt"; }

case $1 in
list) titles ;;
run) run "$2" "$3" ;;
*)
    lights=(--realistic)
    [ "$1" = stand-in ] || lights=(--air --adapter hci1 --adapter hci2 --adapter hci3)
    for number in "${@:2}"; do
        [ "$1" = stand-in ] || real_prepare
        corvelkx-lights "${lights[@]}" --lights "$here/lights.json" -- bash "$here/scenarios.sh" run "$1" "$number" ||
            printf 'result\t%s\t%s\tcorvelkx-lights ended with status %s\n' "$(titles | sed -n "${number}p")" "$1" $?
    done
    ;;
esac
