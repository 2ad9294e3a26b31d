# Functions that break and repair the real stack: adapter, bluetoothd, range.

bluez() { dbus-send --system --print-reply --dest=org.bluez "$@" 2>>"${TMPDIR:-/tmp}/host.log"; }

is_powered() {
    bluez "/org/bluez/$1" org.freedesktop.DBus.Properties.Get \
        string:org.bluez.Adapter1 string:Powered | grep -q true
}
set_powered() {
    bluez "/org/bluez/${2:-hci0}" org.freedesktop.DBus.Properties.Set \
        string:org.bluez.Adapter1 string:Powered "variant:boolean:$1" >/dev/null
}
start_bluetoothd() {
    local adapter
    # By its full path, because Qt runs that file to learn its version. Without the variable, because corvelkx-lights
    # ends all processes that have it when it ends.
    env -u CORVELKX_LIGHTS_BUS /bin/bluetoothd -n -d "src/a*:src/device.c" >>/tmp/bluetoothd.log 2>&1 &
    echo $! >/run/bluetoothd.pid
    for adapter in hci{0..3}; do
        until is_powered $adapter; do sleep 0.1; done
    done
}
end_bluetoothd() {
    kill "-$1" "$(cat /run/bluetoothd.pid)"
    while kill -0 "$(cat /run/bluetoothd.pid)" 2>/dev/null; do sleep 0.1; done
}

reload_bus() {
    dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.ReloadConfig >/dev/null
}

real_adapter_off() { set_powered false; }
real_adapter_on() { set_powered true; }
real_daemon_leave() { end_bluetoothd TERM; }
real_daemon_kill() { end_bluetoothd KILL; }
real_daemon_return() { start_bluetoothd; }
real_range() { echo "range $1 $2" >/run/air; }

# Restores everything, also after a scenario that failed.
real_prepare() {
    local light device
    for light in C0:FF:EE:00:00:0{3,5}; do
        real_range $light in
    done
    kill -0 "$(cat /run/bluetoothd.pid)" 2>/dev/null || start_bluetoothd
    set_powered true
    sleep 3 # bluetoothd needs two seconds to end links
    for device in $(bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects |
        grep -o '/org/bluez/hci0/dev_[0-9A-F_]*' | sort -u); do
        bluez /org/bluez/hci0 org.bluez.Adapter1.RemoveDevice "objpath:$device" >/dev/null
    done
}
