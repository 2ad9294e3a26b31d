#!/bin/bash
# The init process of the virtual machine: starts the system bus, simulated controllers and bluetoothd, runs the
# scenarios, and switches the machine off. Logs go to the second serial port.
export PATH=/bin:/busybox LC_ALL=C.UTF-8 HOME=/tmp
/bin/busybox mkdir /busybox
/bin/busybox --install -s /busybox
trap "poweroff -f" EXIT
chrt -b -p 0 $$ # without preemption when a process wakes up; an emulated machine changes processes slowly
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
ln -s /proc/self/fd /dev/fd
mkdir -p /run/dbus /tmp /etc/dbus-1 /var/lib/bluetooth /var/lib/dbus
chmod 1777 /tmp
cat /proc/sys/kernel/random/uuid | tr -d - >/etc/machine-id
while read -r module; do
    insmod "$module"
done </modules/list
stty -F /dev/ttyS0 -onlcr
stty -F /dev/ttyS1 raw
exec >/dev/ttyS0 2>&1

ifconfig lo 127.0.0.1
dbus-daemon --system --nopidfile --fork
mkfifo /run/air
sleep infinity >/run/air &
# The first adapter is the host's; the others play the lights of lights.json.
corvelkx-air 02:00:00:00:00:01 C0:FF:EE:00:00:03 C0:FF:EE:00:00:05 D0:0D:00:00:00:04 \
    </run/air >/tmp/air.log 2>&1 &
dbus-monitor --system --profile type=error "interface='org.bluez.Device1'" "interface='org.bluez.Adapter1'" \
    "interface='org.bluez.GattCharacteristic1'" "interface='org.bluez.LEAdvertisingManager1'" \
    "member='PropertiesChanged'" >/tmp/bus.log 2>&1 &
. /test/real.sh
start_bluetoothd
export PLUGIN=/bin/libCorvelKXBleDLL.so
for name in "$@"; do
    if [ -e "/test/$name.sh" ]; then
        timeout -s KILL 1000 bash "/test/$name.sh"
        status=$?
        [ $status = 0 ] && outcome=passed || outcome="it ended with status $status"
        printf 'result\t%s\treal\t%s\t\n' "$name: to its end" "$outcome"
    else
        timeout -s KILL 1000 bash /test/scenarios.sh real "$name"
    fi
done

for log in air bluetoothd bus host; do
    echo "==== $log" && cat "/tmp/$log.log"
done | gzip >/dev/ttyS1 # the serial port is slow
