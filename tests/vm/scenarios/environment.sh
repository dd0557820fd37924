# shellcheck shell=bash
# The promises vmrun makes about the guest's system, which every later test
# relies on without checking.
. "$VM_DIR/guest/vmlib.sh"

# The appliance's /bin/sh is bash: dash would print "-e a" on one line.
[ "$(sh -c 'echo -e "a\nb"')" = $'a\nb' ] || fail "/bin/sh does not take echo -e"
[ "$(command -v scsi_id)" = /lib/udev/scsi_id ] || fail "scsi_id is not found through PATH"

for dir in /tmp /mnt /run /etc/Zemlora; do
    [ "$(findmnt -n -o FSTYPE --target "$dir")" = tmpfs ] || fail "$dir is not a tmpfs"
    touch "$dir/.probe" && rm "$dir/.probe" || fail "$dir is not writable"
done
mkdir /etc/appliance-probe && rmdir /etc/appliance-probe || fail "/etc is not writable"
if touch /usr/.vm-probe 2>/dev/null; then
    rm -f /usr/.vm-probe
    fail "the host's root is writable from the guest"
fi
[ -d "/lib/modules/$(uname -r)/kernel" ] || fail "no modules of the running kernel $(uname -r)"
echo "sh is bash, scsi_id in PATH, tmpfs and overlay in place, host root read-only"
