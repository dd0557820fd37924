#pragma once
// The SCSI hosts of the machine and the kind of adapter driving each. Only hosts
// whose driver is known take part: their disks are listed and they are scanned.
#include <map>

#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"

namespace SCSI {
namespace Detail {

using HostTable = std::map<unsigned int, HostType>;

// Replaces `table` with the hosts of /sys/class/scsi_host by number. Throws.
void EnumerateHosts(HostTable& table);

// Asks host `host` to scan all its channels, targets and LUNs. Throws.
void RefreshHost(unsigned int host);

}  // namespace Detail
}  // namespace SCSI
