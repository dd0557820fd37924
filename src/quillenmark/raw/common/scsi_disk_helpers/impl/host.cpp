#include "quillenmark/raw/common/scsi_disk_helpers/impl/host.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "core/common/assert.h"
#include "core/common/decimal.h"
#include "core/common/message_ids.h"
#include "core/include/file/file.h"
#include "processor/format/format_string.h"
#include "quillenmark/raw/common/scsi_disk_helpers/errors.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/utils.h"

namespace SCSI {
namespace Detail {
namespace {

// The kernel's proc_name texts (a line feed follows in the file), in lookup order. The
// values are not in table order; they are what disks carry and sort by.
const std::vector<std::pair<std::string, HostType>> kHostTypes = {
    {"mptspi", HostTypeMptSpi},           {"mptsas", HostTypeMptSas},
    {"BusLogic", HostTypeBusLogic},       {"ata_piix", HostTypeAtaPiix},
    {"vmw_pvscsi", HostTypePvScsi},       {"virtio_scsi", HostTypeVirtioScsi},
    {"ahci", HostTypeAhci},               {"sym53c8xx", HostTypeSym53c8xx},
    {"megaraid_sas", HostTypeMegaraidSas},
};

constexpr char kHostsDir[] = "/sys/class/scsi_host";

// A host that an appliance does not know is worth one report per process, not one
// per enumeration.
std::atomic<bool> gUnknownHostReported{false};

const HostType* FindHostType(const std::string& text) {
  for (const auto& entry : kHostTypes)
    if (text.size() == entry.first.size() + 1 && text.compare(0, entry.first.size(), entry.first) == 0 &&
        text.back() == '\n')
      return &entry.second;
  return nullptr;
}

}  // namespace

void EnumerateHosts(HostTable& table) {
  HostTable hosts;
  Common::Error error;
  std::unique_ptr<FileSystem::Directory> dir = FileSystem::Directory::Open(kHostsDir, &error);
  // No SCSI driver loaded: no hosts. Not being able to look is not the same.
  if (!dir && FileSystem::ErrnoOf(error) != ENOENT) throw error;
  if (dir) {
    FileSystem::Directory::Entry entry;
    while (dir->Next(entry)) {
      if (entry.kind != FileSystem::kDirectoryLink) continue;
      std::unique_ptr<FileSystem::Directory> host = dir->OpenChild(entry.name, &error);
      if (!host) {
        if (FileSystem::ErrnoOf(error) != ENOENT) throw error;
        continue;
      }

      std::string procName;
      if ((error = FileSystem::ReadFile(host->FullPath() + "/proc_name", 31, procName))) {
        if (error.GetCode() != FileSystem::kErrorOpen) continue;
        if (FileSystem::ErrnoOf(error) != ENOENT) throw error;
        AS_ASSERT_AT(!"No hostN/proc_name entry", AS_SOURCE_NAME, 121);
        continue;
      }
      const HostType* type = FindHostType(procName);
      if (type == nullptr) {
        if (!gUnknownHostReported.exchange(true)) AS_ASSERT_AT(!"Unknown scsi host type", AS_SOURCE_NAME, 115);
        continue;
      }
      uint32_t number = 0;
      if (entry.name.compare(0, 4, "host") == 0 && Common::ParseDecimal(std::string_view(entry.name).substr(4), number))
        hosts[number] = *type;
    }
    if (dir->Status() != FileSystem::kStatusEndOfDirectory)
      throw Common::Error(FileSystem::kErrorInvalidFileObject, GetTextFromMessageFile(Messages::InvalidFileObject),
                          AS_LOCATION("EnumerateHosts", 88))
          .WithCause(dir->TakeLastError());
  }
  table.swap(hosts);
}

void RefreshHost(unsigned int host) {
  const std::string scan = Core::FormatString("/sys/class/scsi_host/host{0}/scan", host);
  if (Common::Error e = WriteCommand(scan, "- - -\n"))
    throw Common::Error(kErrorDisk, GetTextFromMessageFile(Messages::InternalError), AS_LOCATION("RefreshHost", 137))
        .WithCause(e);
}

}  // namespace Detail

const char* HostTypeName(int32_t type) {
  for (const auto& entry : Detail::kHostTypes)
    if (entry.second == type) return entry.first.c_str();
  return "unknown";
}

}  // namespace SCSI
