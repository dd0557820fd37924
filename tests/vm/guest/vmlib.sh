# shellcheck shell=bash
# Helpers for commands running inside the VM (bash). Source it:
#   . "$VM_DIR/guest/vmlib.sh"
# The run share /run/vm holds the disk table that vmrun wrote:
#   ID KIND#INSTANCE SIZE SERIAL PLUGGED DEVICE_ADD_ARGUMENTS

VM_SHARE=/run/vm

fail() { echo "FAIL: $*" >&2; exit 1; }

# wait_until SECONDS COMMAND...: polls COMMAND until it succeeds.
wait_until() {
    local limit=$1 end
    shift
    end=$(($(date +%s) + limit))
    until "$@"; do
        [ "$(date +%s)" -lt $end ] || return 1
        sleep 0.1
    done
}

# The kernel driver's proc_name for a controller kind of vmrun.
proc_name_of_kind() {
    case ${1%%#*} in
        virtio-scsi) echo virtio_scsi ;;
        lsi) echo sym53c8xx ;;
        megasas) echo megaraid_sas ;;
        pvscsi) echo vmw_pvscsi ;;
        mptsas) echo mptsas ;;
        ahci) echo ahci ;;
        ide) echo ata_piix ;;
        *) return 1 ;;
    esac
}

# bytes_of 12G: a size of vmrun's disk descriptions in bytes.
bytes_of() {
    local n=${1%[KMGT]}
    case $1 in
        *K) echo $((n << 10)) ;; *M) echo $((n << 20)) ;;
        *G) echo $((n << 30)) ;; *T) echo $((n << 40)) ;; *) echo "$n" ;;
    esac
}

# disk_field ID COLUMN: a column (2 kind, 3 size, 4 serial, 6 device_add
# arguments) of the disk table.
disk_field() { awk -v id="$1" -v c="$2" '$1 == id { print $c }' "$VM_SHARE/disks"; }
disk_ids() { awk '{ print $1 }' "$VM_SHARE/disks"; }

# Each program started costs about 0.1 s under TCG: helpers use builtins
# where they can.

# The serial as the guest reads it (VPD page 0x80), for sdX.
serial_of() {
    local k v
    while IFS='=' read -r k v; do
        [ "$k" = ID_SCSI_SERIAL ] && echo "$v"
    done < <(/lib/udev/scsi_id --whitelisted --export --device="/dev/$1" 2>/dev/null)
}

# "sdX SERIAL" for every disk.
serials() {
    local d
    for d in /sys/block/sd*; do
        [ -e "$d" ] && echo "${d##*/} $(serial_of "${d##*/}")"
    done
}

# disk_by_serial SERIAL: prints sdX, or fails when no disk carries it.
disk_by_serial() { serials | awk -v s="$1" '$2 == s { print $1; found = 1 } END { exit !found }'; }

# H:C:T:L of sdX, and the host number alone.
hctl_of() { (cd -P "/sys/block/$1/device" && echo "${PWD##*/}"); }
host_of() { local a; a=$(hctl_of "$1"); echo "${a%%:*}"; }

# vm_monitor 'HMP COMMAND': has the host run a QEMU monitor command, prints
# QEMU's answer, returns its status.
vm_monitor() {
    local dir=$VM_SHARE/monitor n rep rc
    n=$(date +%s%N)
    printf '%s\n' "$*" > "$dir/req.$n.tmp" && mv "$dir/req.$n.tmp" "$dir/req.$n" || return 1
    rep=$dir/rep.$n
    wait_until 60 test -e "$rep" || { echo "vm_monitor: the host did not answer '$*'" >&2; return 1; }
    rc=$(head -n 1 "$rep")
    tail -n +2 "$rep" | grep -v '^$'
    rm -f "$rep"
    return "$rc"
}

# Hot-unplug and plug disks of the table by their ID (disk0, disk1, ...).
vm_unplug() { vm_monitor "device_del $1"; }
vm_plug() { vm_monitor "device_add $(disk_field "$1" 6)"; }
