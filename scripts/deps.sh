#!/usr/bin/env bash
# Installs with apt-get whatever the chosen job needs and the machine lacks.
set -euo pipefail
build=(cmake ninja-build g++ pkg-config ccache libicu-dev libpugixml-dev libudev-dev
       libcli11-dev nlohmann-json3-dev libblkid-dev libmount-dev util-linux fdisk e2fsprogs gdisk udev coreutils)
tests=(libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev
       qemu-system-x86 linux-image-amd64 busybox-static kmod cpio xz-utils lvm2
       pybind11-dev python3-dev python3-pytest)
case "${1:-test}" in
  demo) wanted=("${build[@]}" qemu-system-x86 linux-image-amd64 busybox-static kmod xz-utils) ;;
  *) wanted=("${build[@]}" "${tests[@]}") ;;
esac
missing=()
for p in "${wanted[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
