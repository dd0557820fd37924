#!/bin/bash
# The storagectl session of the demo, run inside the appliance VM as root.
set -u
ctl=$1
run() {
  printf '\n\033[1m# storagectl %s\033[0m\n' "$*"
  "$ctl" "$@" || echo "(exit status $?)"
}
run doctor
run devices
# The first disk that the library offers becomes a storage.
disk=$("$ctl" --json devices | grep -o '"name": "sd[a-z]*"' | head -1 | cut -d'"' -f4)
run prepare "$disk" --yes
run mount "${disk}1" backups
run list
run label "${disk}1" weekly
run unmount "${disk}1"
run --json list
cat <<TEXT

What was shown: on a real Linux kernel with four blank SCSI disks, the library checked
the appliance's needs (doctor), offered every disk of at least 10 GiB (devices), made
/dev/$disk one storage (zeroed first sector, one GPT partition, ext4, label "ZLM"),
mounted it as /mnt/local_storages/backups, listed it, relabelled it "ZLMweekly",
unmounted it and removed its directory, after which the list is empty again.
TEXT
