# shellcheck shell=bash
# A blank disk becomes a labelled ext4 storage with the very command line the
# appliance runs through /bin/sh, and mounts under /mnt/local_storages.
. "$VM_DIR/guest/vmlib.sh"

sd=$(disk_by_serial "$(disk_field disk3 4)") || fail "disk3 is missing"
dev=/dev/$sd
cmp -s -n 1048576 "$dev" /dev/zero || fail "$dev is not blank"

line='echo -e "n\n1\n\n\n\nw\ny" | gdisk '"$dev"
sh -c "$line" > /tmp/gdisk.out 2>&1 || { cat /tmp/gdisk.out; fail "gdisk failed"; }
wait_until 10 test -b "${dev}1" || { cat /tmp/gdisk.out; fail "${dev}1 did not appear"; }
gdisk -l "$dev" | grep -q 'GPT: present' || fail "no GPT on $dev"
part=/sys/block/$sd/${sd}1
[ "$(cat "$part/partition")" = 1 ] || fail "${sd}1 is not partition 1"
[ "$(cat "$part/start")" = 2048 ] || fail "${sd}1 starts at sector $(cat "$part/start")"
echo "gdisk: ${dev}1 from sector 2048, $(cat "$part/size") sectors"

label=ZLM0123456789AB
mke2fs -q -t ext4 "${dev}1" || fail "mke2fs failed"
e2label "${dev}1" "$label" || fail "e2label failed"
[ "$(blkid -o value -s TYPE "${dev}1")" = ext4 ] || fail "blkid does not see ext4"
[ "$(blkid -o value -s LABEL "${dev}1")" = "$label" ] || fail "blkid does not see the label"

dir=/mnt/local_storages/$label
mkdir -p "$dir"
mount "${dev}1" "$dir" || fail "mount failed"
[ "$(findmnt -n -o SOURCE "$dir")" = "${dev}1" ] || fail "$dir is not ${dev}1"
echo data > "$dir/probe" && sync || fail "cannot write to the storage"
umount "$dir" || fail "umount failed"
! findmnt "$dir" >/dev/null || fail "$dir still mounted"
echo "ext4 '$label' mounted on $dir and unmounted"
