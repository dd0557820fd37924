# shellcheck shell=bash
# Builds the guest's initramfs (busybox, the init script and the few modules
# the test machines need) and keeps it in a cache that outlives /tmp.
# Sourced by vmrun; expects VM_DIR (tests/vm) and die().

# Drivers of every controller the bed offers, 9p for the host root, overlay
# for /etc, ext4 and loop for the tests. crc32c_generic is named because ext4
# only pulls crc32c in through a soft dependency.
VM_MODULES="virtio_pci virtio_scsi sd_mod sym53c8xx megaraid_sas vmw_pvscsi mptsas
            ahci ata_piix 9p 9pnet_virtio overlay ext4 crc32c_generic loop"

vm_cache_dir() {
    echo "${VM_CACHE_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/appliance_storage/vm}"
}

# The newest installed kernel whose modules are also installed; the guest's
# modprobe (run from the host root) needs both to match.
vm_kernel_version() {
    if [ -n "${VM_KERNEL_VERSION:-}" ]; then
        echo "$VM_KERNEL_VERSION"
        return
    fi
    local k kver
    kver=$(for k in /boot/vmlinuz-*; do
               k=${k#/boot/vmlinuz-}
               [ -d "/lib/modules/$k/kernel" ] && echo "$k"
           done | sort -V | tail -n 1)
    [ -n "$kver" ] || die "no kernel in /boot with modules in /lib/modules; install linux-image-amd64"
    echo "$kver"
}

# A dynamically linked busybox cannot run in an initramfs without libc.
vm_busybox() {
    [ -x /bin/busybox ] && ! LC_ALL=C ldd /bin/busybox >/dev/null 2>&1 \
        || die "no statically linked /bin/busybox; install busybox-static"
    echo /bin/busybox
}

# Prints the module files (relative to /) in load order, each once.
vm_module_files() {
    local kver=$1 mod out all=""
    for mod in $VM_MODULES; do
        out=$(modprobe -S "$kver" --show-depends "$mod" 2>&1) \
            || die "module $mod of kernel $kver: $out"
        all+=$out$'\n'
    done
    printf '%s' "$all" | awk '$1 == "insmod" { sub("^/", "", $2); if (!seen[$2]++) print $2 }'
}

# A subshell, so that the trap only cleans up this build.
vm_build_initramfs() (
    local kver=$1 out=$2 busybox=$3 root ko
    root=$(mktemp -d "${TMPDIR:-/tmp}/vm-initramfs.XXXXXX") || die "mktemp failed"
    trap 'rm -rf "$root"' EXIT
    mkdir -p "$root"/{bin,dev,proc,sys,etc,tmp}
    cp "$busybox" "$root/bin/busybox"
    cp "$VM_DIR/guest/init" "$root/init"
    chmod 755 "$root/init" "$root/bin/busybox"

    vm_module_files "$kver" > "$root/modules.order.boot"
    while read -r ko; do
        mkdir -p "$root/$(dirname "$ko")"
        cp "/$ko" "$root/$ko"
        # busybox insmod reads plain .ko files only.
        case $ko in
            *.xz)  xz -d "$root/$ko" ;;
            *.zst) zstd -q -d --rm "$root/$ko" ;;
            *.gz)  gzip -d "$root/$ko" ;;
        esac
    done < "$root/modules.order.boot"
    sed -i -E 's/\.ko\.(xz|zst|gz)$/.ko/' "$root/modules.order.boot"
    cp "/lib/modules/$kver/modules.order" "/lib/modules/$kver/modules.builtin" "/lib/modules/$kver/modules.builtin.modinfo" "$root/lib/modules/$kver/" 2>/dev/null
    depmod -b "$root" "$kver" || die "depmod failed"

    local cpio_cmd=(cpio --quiet -o -H newc)
    command -v cpio >/dev/null || cpio_cmd=("$busybox" cpio -o -H newc)
    (cd "$root" && find . | LC_ALL=C sort | "${cpio_cmd[@]}" | gzip -1) > "$out.tmp.$$" \
        || die "cannot pack the initramfs"
    mv "$out.tmp.$$" "$out"
    rm -rf "$root"
)

# Prints the kernel to boot: the ELF image unpacked from the bzImage when
# that works, since QEMU enters it directly (PVH) and TCG then skips the
# several seconds of emulated decompression; else the bzImage itself.
vm_kernel_image() {
    local kver=$1 bz=/boot/vmlinuz-$1 dir out magic off tool unpack
    dir=$(vm_cache_dir)
    out="$dir/vmlinux-$kver"
    if [ ! -s "$out" ] || [ "$out" -ot "$bz" ]; then
        mkdir -p "$dir" || die "cannot create the cache directory $dir"
        for magic in 'xz:\xfd\x37\x7a\x58\x5a\x00' 'zstd:\x28\xb5\x2f\xfd' 'gzip:\x1f\x8b\x08'; do
            tool=${magic%%:*}
            command -v "$tool" >/dev/null || continue
            # Data follows the compressed stream; xz stops there only when told.
            unpack=("$tool" -dc)
            [ "$tool" = xz ] && unpack+=(--single-stream)
            for off in $(LC_ALL=C grep -obUaP "${magic#*:}" "$bz" | cut -d: -f1); do
                tail -c +$((off + 1)) "$bz" | "${unpack[@]}" > "$out.tmp.$$" 2>/dev/null
                if [ "$(head -c 4 "$out.tmp.$$" | od -An -c | tr -d ' ')" = '177ELF' ]; then
                    mv "$out.tmp.$$" "$out"
                    break 2
                fi
            done
        done
        rm -f "$out.tmp.$$"
    fi
    if [ -s "$out" ]; then echo "$out"; else echo "$bz"; fi
}

# Prints the path of an initramfs for kernel $1, building it when the cache
# has none for this kernel, busybox and these inputs.
vm_initramfs() {
    local kver=$1 busybox key dir out
    busybox=$(vm_busybox)
    key=$( { cat "$VM_DIR/guest/init" "$VM_DIR/lib/initramfs.sh"; echo "$VM_MODULES";
             sha256sum "$busybox"; } | sha256sum | cut -c1-16)
    dir=$(vm_cache_dir)
    out="$dir/initramfs-$kver-$key.cpio.gz"
    if [ ! -s "$out" ]; then
        mkdir -p "$dir" || die "cannot create the cache directory $dir"
        vm_build_initramfs "$kver" "$out" "$busybox"
        # Drop images of earlier init scripts, leaving time for a run that
        # still uses one.
        find "$dir" -name "initramfs-$kver-*" ! -name "${out##*/}" -mmin +60 -delete 2>/dev/null
    fi
    echo "$out"
}
