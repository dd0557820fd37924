# shellcheck shell=bash
# The host pulls a disk out of the running machine and plugs it back, and
# plugs in one the machine booted without, through the QEMU monitor.
. "$VM_DIR/guest/vmlib.sh"

serial=$(disk_field disk1 4)
sd=$(disk_by_serial "$serial") || fail "disk1 ($serial) is missing"
vm_unplug disk1 || fail "device_del disk1 failed"
wait_until 30 test ! -e "/sys/block/$sd" || fail "/dev/$sd still there after device_del"
echo "device_del disk1: /dev/$sd gone"

vm_plug disk1 || fail "device_add disk1 failed"
wait_until 30 disk_by_serial "$serial" >/dev/null || fail "disk1 did not come back"
echo "device_add disk1: back as /dev/$(disk_by_serial "$serial")"

serial=$(disk_field disk2 4)
! disk_by_serial "$serial" >/dev/null || fail "disk2 was plugged in at boot"
vm_plug disk2 || fail "device_add disk2 failed"
wait_until 30 disk_by_serial "$serial" >/dev/null || fail "disk2 did not appear"
echo "device_add disk2: new /dev/$(disk_by_serial "$serial")"
