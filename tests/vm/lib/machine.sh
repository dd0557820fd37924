# shellcheck shell=bash
# Turns the disk descriptions of a vmrun command line into disk images and
# QEMU arguments. Sourced by vmrun; expects VM_RUN and die().
#
# A disk is [N*]KIND[#INSTANCE][:SIZE[:SERIAL]], for example "virtio-scsi:12G",
# "2*megasas:1G", "lsi#1:4G:0123456789abcdef0123456789abcdef". Disks of one
# KIND#INSTANCE share one controller; instance 0 when not given.

VM_CTRLS=()          # controller keys, KIND#INSTANCE, in order of appearance
VM_DISK_KIND=()      # per disk: controller key
VM_DISK_SIZE=()
VM_DISK_SERIAL=()
VM_DISK_PLUGGED=()   # 1: attached at boot; 0: left for a scenario to device_add

# kind -> QEMU device of the controller; "ata" kinds take ide-hd disks.
vm_controller_device() {
    case $1 in
        virtio-scsi) echo virtio-scsi-pci ;;
        lsi) echo lsi53c895a ;;
        megasas) echo megasas ;;
        pvscsi) echo pvscsi ;;
        mptsas) echo mptsas1068 ;;
        ahci) echo ich9-ahci ;;
        ide) echo "" ;;   # the pc machine's own PIIX controller
    esac
}

# Accepts QEMU's device names as well as the short ones.
vm_canonical_kind() {
    case $1 in
        virtio-scsi|virtio-scsi-pci) echo virtio-scsi ;;
        lsi|lsi53c895a) echo lsi ;;
        megasas) echo megasas ;;
        pvscsi) echo pvscsi ;;
        mptsas|mptsas1068) echo mptsas ;;
        ahci|ich9-ahci) echo ahci ;;
        ide) echo ide ;;
        *) return 1 ;;
    esac
}

vm_is_ata() { case ${1%%#*} in ahci|ide) return 0 ;; esac; return 1; }

# QEMU id of a controller: "virtio-scsi0", "megasas1".
vm_controller_id() { local k=$1; echo "${k%%#*}${k##*#}"; }

vm_add_controller() {
    local key=$1 k
    for k in "${VM_CTRLS[@]}"; do [ "$k" = "$key" ] && return; done
    VM_CTRLS+=("$key")
}

# vm_add_disk DESCRIPTION PLUGGED
vm_add_disk() {
    local desc=$1 plugged=$2 count=1 kind inst size serial i idx rest
    if [[ $desc =~ ^([0-9]+)\*(.*)$ ]]; then
        count=${BASH_REMATCH[1]}
        desc=${BASH_REMATCH[2]}
    fi
    IFS=: read -r kind size serial rest <<< "$desc"
    [ -z "$rest" ] || die "disk '$1': too many fields"
    inst=0
    if [[ $kind == *#* ]]; then
        inst=${kind##*#}
        kind=${kind%%#*}
    fi
    [[ $inst =~ ^[0-9]+$ ]] || die "disk '$1': controller instance must be a number"
    kind=$(vm_canonical_kind "$kind") || die "disk '$1': unknown controller kind"
    size=${size:-1G}
    [[ $size =~ ^[0-9]+[KMGT]?$ ]] || die "disk '$1': size must look like 512M, 12G or a byte count"
    [ -z "$serial" ] || [ "$count" = 1 ] || die "disk '$1': one serial cannot serve $count disks"
    [ "$kind" != ide ] || [ "$inst" = 0 ] || die "disk '$1': the pc machine has one IDE controller"

    vm_add_controller "$kind#$inst"
    for ((i = 0; i < count; i++)); do
        idx=${#VM_DISK_KIND[@]}
        VM_DISK_KIND+=("$kind#$inst")
        VM_DISK_SIZE+=("$size")
        # Made-up serials follow the disk's index so that captures repeat.
        if [ -n "$serial" ]; then
            VM_DISK_SERIAL+=("$serial")
        elif vm_is_ata "$kind"; then
            VM_DISK_SERIAL+=("$(printf 'd15c%016x' $((idx + 1)))")   # ATA allows 20 characters
        else
            VM_DISK_SERIAL+=("$(printf 'd15c%028x' $((idx + 1)))")
        fi
        VM_DISK_PLUGGED+=("$plugged")
    done
}

# vm_add_controller_only KIND[#INSTANCE]: a controller with no disk at boot.
vm_add_controller_only() {
    local kind=${1%%#*} inst=0
    [[ $1 == *#* ]] && inst=${1##*#}
    kind=$(vm_canonical_kind "$kind") || die "controller '$1': unknown kind"
    vm_add_controller "$kind#$inst"
}

# Fills VM_QEMU_DEVICES with the controllers and plugged disks, creates the
# sparse images, and writes the disk table the guest reads:
#   ID KIND#INSTANCE SIZE SERIAL PLUGGED DEVICE_ADD_ARGUMENTS
vm_machine_build() {
    local table=$1 key dev id i kind args ports_ahci=() ide_unit=0
    VM_QEMU_DEVICES=()
    for key in "${VM_CTRLS[@]}"; do
        dev=$(vm_controller_device "${key%%#*}")
        [ -n "$dev" ] && VM_QEMU_DEVICES+=(-device "$dev,id=$(vm_controller_id "$key")")
    done
    mkdir -p "$VM_RUN/disks"
    : > "$table"
    for i in "${!VM_DISK_KIND[@]}"; do
        key=${VM_DISK_KIND[$i]}
        kind=${key%%#*}
        id=$(vm_controller_id "$key")
        truncate -s "${VM_DISK_SIZE[$i]}" "$VM_RUN/disks/disk$i.img" || die "cannot create disk image $i"
        VM_QEMU_DEVICES+=(-blockdev "driver=raw,node-name=drive$i,file.driver=file,file.filename=$VM_RUN/disks/disk$i.img,cache.direct=off")
        case $kind in
            ahci)
                local n=${ports_ahci[${key##*#}]:-0}
                ports_ahci[${key##*#}]=$((n + 1))
                [ "$n" -lt 6 ] || die "an ICH9 AHCI controller has 6 ports"
                args="ide-hd,drive=drive$i,bus=$id.$n" ;;
            ide)
                [ $ide_unit -lt 4 ] || die "the pc machine's IDE controller takes 4 disks"
                args="ide-hd,drive=drive$i,bus=ide.$((ide_unit / 2)),unit=$((ide_unit % 2))"
                ide_unit=$((ide_unit + 1)) ;;
            mptsas)
                # The 1068 reports a disk on a phy only when it has a SAS
                # address; QEMU's default WWN of 0 leaves the disk unseen.
                args="scsi-hd,drive=drive$i,bus=$id.0,wwn=$(printf '0x50000000d15c%04x' $((i + 1)))" ;;
            *)
                args="scsi-hd,drive=drive$i,bus=$id.0" ;;
        esac
        args+=",id=disk$i,serial=${VM_DISK_SERIAL[$i]}"
        [ "${VM_DISK_PLUGGED[$i]}" = 1 ] && VM_QEMU_DEVICES+=(-device "$args")
        echo "disk$i $key ${VM_DISK_SIZE[$i]} ${VM_DISK_SERIAL[$i]} ${VM_DISK_PLUGGED[$i]} $args" >> "$table"
    done
}

vm_plugged_disks() {
    local n=0 p
    for p in "${VM_DISK_PLUGGED[@]}"; do [ "$p" = 1 ] && n=$((n + 1)); done
    echo $n
}
