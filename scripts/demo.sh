#!/usr/bin/env bash
# The main job: build the library and storagectl, boot the appliance VM with four blank
# disks on different controllers and run a short storagectl session inside it.
set -euo pipefail
cd "$(dirname "$0")/.."
export CCACHE_DIR=${CCACHE_DIR:-$HOME/.cache/ccache}
echo "== Building the library and storagectl (build/demo)"
scripts/build.sh demo -DAS_BUILD_TESTS=OFF -DAS_BUILD_BENCH=OFF >/dev/null
cmake --build build/demo -j "$(nproc)" --target storagectl | tail -1
echo "== Booting the appliance VM: QEMU without KVM, four blank 12 GiB disks on virtio-scsi,"
echo "   megasas, pvscsi and lsi53c895a controllers (about 20 s before the session starts)"
serial=5a4c4d0000000000000000000000d0
exec tests/vm/vmrun --share "$PWD/build/demo" \
  --disk virtio-scsi:12G:${serial}01 --disk megasas:12G:${serial}02 \
  --disk pvscsi:12G:${serial}03 --disk lsi53c895a:12G:${serial}04 \
  -- scripts/demo_session.sh "$PWD/build/demo/tools/storagectl/storagectl"
