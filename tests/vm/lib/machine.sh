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

# vm_kind NAME: "KIND QEMU_DEVICE" for a controller kind given by its short or
# QEMU name; the IDE kind is the pc machine's own controller, no device.
vm_kind() {
    case $1 in
        virtio-scsi|virtio-scsi-pci) echo virtio-scsi virtio-scsi-pci ;;
        lsi|lsi53c895a) echo lsi lsi53c895a ;;
        megasas|pvscsi) echo "$1 $1" ;;
        mptsas|mptsas1068) echo mptsas mptsas1068 ;;
        ahci|ich9-ahci) echo ahci ich9-ahci ;;
        ide) echo ide ;;
        *) return 1 ;;
    esac
}

# QEMU id of a controller: "virtio-scsi0", "megasas1".
vm_controller_id() { local k=$1; echo "${k%%#*}${k##*#}"; }

vm_add_controller() {
    local key=$1 k
    for k in "${VM_CTRLS[@]}"; do [ "$k" = "$key" ] && return; done
    VM_CTRLS+=("$key")
}

# vm_add_disk DESCRIPTION
vm_add_disk() {
    local desc=$1 count=1 kind inst size serial i idx rest
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
    kind=$(vm_kind "$kind") || die "disk '$1': unknown controller kind"
    kind=${kind%% *}
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
        elif [[ $kind == ahci || $kind == ide ]]; then
            VM_DISK_SERIAL+=("$(printf 'd15c%016x' $((idx + 1)))")   # ATA allows 20 characters
        else
            VM_DISK_SERIAL+=("$(printf 'd15c%028x' $((idx + 1)))")
        fi
    done
}

# Fills VM_QEMU_DEVICES with the controllers and disks and creates the sparse
# images.
vm_machine_build() {
    local key dev id i kind args ports_ahci=() ide_unit=0
    VM_QEMU_DEVICES=()
    for key in "${VM_CTRLS[@]}"; do
        dev=$(vm_kind "${key%%#*}")
        [ "$dev" != ide ] && VM_QEMU_DEVICES+=(-device "${dev#* },id=$(vm_controller_id "$key")")
    done
    mkdir -p "$VM_RUN/disks"
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
        VM_QEMU_DEVICES+=(-device "$args,id=disk$i,serial=${VM_DISK_SERIAL[$i]}")
    done
}
