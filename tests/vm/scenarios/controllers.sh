# shellcheck shell=bash
# Each disk of the machine sits on a SCSI host whose driver is the one its
# controller kind promises, with the size and serial it was given.
. "$VM_DIR/guest/vmlib.sh"

declare -A sd_of
while read -r sd serial; do sd_of[$serial]=$sd; done < <(serials)

while read -r id kind size serial plugged _; do
    [ "$plugged" = 1 ] || continue
    want=$(proc_name_of_kind "$kind") || fail "$id: unknown kind $kind"
    sd=${sd_of[$serial]:-}
    [ -n "$sd" ] || fail "$id ($kind): no disk with serial $serial"
    hctl=$(hctl_of "$sd")
    host=${hctl%%:*}
    read -r got < "/sys/class/scsi_host/host$host/proc_name"
    [ "$got" = "$want" ] || fail "$id ($kind): /dev/$sd is on host$host, a $got, not a $want"
    read -r sectors < "/sys/block/$sd/size"
    [ $((sectors * 512)) = "$(bytes_of "$size")" ] || fail "$id: /dev/$sd has $sectors sectors, not $size"
    read -r state < "/sys/block/$sd/device/state"
    [ "$state" = running ] || fail "$id: /dev/$sd is $state"
    [ -e "/sys/block/$sd/device/scsi_disk/$hctl" ] || fail "$id: no scsi_disk entry $hctl"
    printf '%-6s %-14s /dev/%-4s %-9s host%-3s %s\n' "$id" "$kind" "$sd" "$hctl" "$host" "$got"
done < "$VM_SHARE/disks"
