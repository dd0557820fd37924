# shellcheck shell=bash
# A disk deleted through sysfs leaves, and a host scan brings it back, each
# announced by a uevent that a netlink socket in the guest receives.
. "$VM_DIR/guest/vmlib.sh"

serial=$(disk_field disk0 4)
sd=$(disk_by_serial "$serial") || fail "disk0 ($serial) is missing"
host=$(host_of "$sd")
hctl=$(hctl_of "$sd")
IFS=: read -r major minor < "/sys/block/$sd/dev"

events=/tmp/rescan.uevents
"$VM_UEVENT_LISTENER" > "$events" &
listener=$!
trap 'kill $listener 2>/dev/null' EXIT
wait_until 10 grep -q '^listening$' "$events" || fail "the uevent listener did not start"

# has_event ACTION MAJOR MINOR: the fields come in no fixed order.
has_event() {
    awk -v want="ACTION=$1 SUBSYSTEM=block DEVTYPE=disk MAJOR=$2 MINOR=$3" '
        { n = 0; for (i = 1; i <= NF; i++) have[$i] = NR
          split(want, w, " "); for (k in w) if (have[w[k]] == NR) n++
          if (n == 5) found = 1 }
        END { exit !found }' "$events"
}

echo 1 > "/sys/block/$sd/device/delete"
wait_until 20 test ! -e "/sys/block/$sd" || fail "/dev/$sd still exists after delete"
wait_until 10 test ! -e "/dev/$sd" || fail "/dev/$sd node left behind"
wait_until 10 has_event remove "$major" "$minor" || { cat "$events"; fail "no remove uevent for $major:$minor"; }
echo "deleted /dev/$sd ($hctl, $major:$minor): remove uevent seen"

echo "- - -" > "/sys/class/scsi_host/host$host/scan"
wait_until 30 disk_by_serial "$serial" >/dev/null || fail "host$host scan did not bring $serial back"
sd=$(disk_by_serial "$serial")
[ "$(hctl_of "$sd")" = "$hctl" ] || fail "the disk came back at $(hctl_of "$sd"), not $hctl"
IFS=: read -r major minor < "/sys/block/$sd/dev"
wait_until 10 has_event add "$major" "$minor" || { cat "$events"; fail "no add uevent for $major:$minor"; }
echo "host$host scan: /dev/$sd back at $hctl ($major:$minor), add uevent seen"
