#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "core/common/decimal.h"
#include "core/common/message_ids.h"
#include "core/common/shared_mutex.h"
#include "core/common/unicode.h"
#include "core/include/file/descriptor.h"
#include "core/include/file/file.h"
#include "core/linex/run_tool.h"
#include "core/trace/trace_tools.h"
#include "dsk_supp.h"
#include "processor/format/format_message.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "quillenmark/raw/common/scsi_disk_helpers/errors.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/disk_text.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/host.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/notification.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/unit_serial.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/utils.h"

namespace SCSI {

bool operator<(const Disk& a, const Disk& b) {
  if (a.type != b.type) return a.type < b.type;
  if (a.host != b.host) return a.host < b.host;
  return a.target < b.target;
}

DiskSubsystem::~DiskSubsystem() = default;

namespace {

constexpr uint32_t kChangeTimeoutMs = 600000;  // ten minutes
constexpr char kSerialKey[] = "ID_SCSI_SERIAL=";
constexpr size_t kInquiryBytes = 254;  // scsi_id's buffer: what it sees of a page

// Built once, at load.
const std::string kRunning = "running";
const std::string kOffline = "offline";
const std::string kDevPrefix = "/dev/";

// Traces how long an operation took, but only when it is left by an exception; a
// normal exit is not worth a line.
class OperationTimer {
 public:
  explicit OperationTimer(const char* name)
      : name_(name), start_(std::chrono::steady_clock::now()), exceptions_(std::uncaught_exceptions()) {}
  ~OperationTimer() {
    if (std::uncaught_exceptions() <= exceptions_) return;
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_);
    char text[32];
    std::snprintf(text, sizeof text, "%lld ms", static_cast<long long>(elapsed.count()));
    TraceTools::DbgTraceInfo(kTraceCode, GetTextFromMessageFile(Messages::OperationTime), name_, text);
  }

 private:
  const char* name_;
  std::chrono::steady_clock::time_point start_;
  int exceptions_;
};

// Traces an error object at the given level, with no context line of its own.
void TraceErrorObject(Common::EventLevel level, const Common::Error& error) {
  TraceTools::Trace(level, kTraceCode, "{0}", error);
}

Common::Error InvalidWalk(const Common::ErrorLocation& where, FileSystem::Directory& dir) {
  return Common::Error(FileSystem::kErrorInvalidFileObject, GetTextFromMessageFile(Messages::InvalidFileObject), where)
      .WithCause(dir.TakeLastError());
}

// A directory of the walk below `parent` (or `path` itself); null when it does not
// exist: a disk leaving, a block device that is no SCSI disk. Any other failure is
// thrown, since a disk that could not be read would pass for an absent one.
std::unique_ptr<FileSystem::Directory> OpenIfPresent(const FileSystem::Directory* parent, const std::string& path) {
  Common::Error error;
  auto dir = parent ? parent->OpenChild(path, &error) : FileSystem::Directory::Open(path, &error);
  if (!dir && FileSystem::ErrnoOf(error) != ENOENT) throw error;
  return dir;
}

// The unit serial number page of the disk at `device`: the kernel's copy, else the answer
// to an INQUIRY as scsi_id makes it. False when neither comes (no SCSI device behind the
// path, an image file, a failed command): only scsi_id is left to ask.
bool ReadUnitSerialPage(const std::string& device, std::vector<uint8_t>& page) {
  page.assign(kInquiryBytes, 0);
  // Where the kernel keeps no page, newer kernels have no file, older ones fail the read.
  const FileSystem::Descriptor copy(::open(("/sys/block/" + device.substr(device.rfind('/') + 1) + "/device/vpd_pg80").c_str(),
                               O_RDONLY | O_CLOEXEC));
  const ssize_t count = copy.get() < 0 ? -1 : ::read(copy.get(), page.data(), page.size());
  if (count > 0) {
    page.resize(static_cast<size_t>(count));
    return true;
  }

  const FileSystem::Descriptor disk(::open(device.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  uint8_t command[6] = {0x12, 1, 0x80, 0, kInquiryBytes, 0};  // INQUIRY, EVPD, page 0x80
  uint8_t sense[32] = {};
  sg_io_hdr_t io{};
  io.interface_id = 'S';
  io.dxfer_direction = SG_DXFER_FROM_DEV;
  io.cmd_len = sizeof command;
  io.mx_sb_len = sizeof sense;
  io.dxfer_len = kInquiryBytes;
  io.dxferp = page.data();
  io.cmdp = command;
  io.sbp = sense;
  io.timeout = 5000;
  if (disk.get() < 0 || ::ioctl(disk.get(), SG_IO, &io) != 0) return false;
  const unsigned status = io.status & 0x7e;
  if (status == 0 && io.host_status == 0 && io.driver_status == 0) return true;
  // As scsi_id reads the sense (CHECK CONDITION, COMMAND TERMINATED, DRIVER_SENSE): a
  // recovered error (key 1) keeps the data; an illegal request (key 5) means the disk has
  // no such page, so no serial.
  const bool sensed = status == 0x02 || status == 0x22 || (io.driver_status & 0xf) == 0x08;
  const int key = sensed && io.sb_len_wr > 2 ? ((sense[0] & 2) ? sense[1] : sense[2]) & 0xf : 0;
  if (key == 5) page[1] = 0;
  return key == 1 || key == 5;
}

// Starts a change and waits for the kernel to report it, with the handler attached
// to the notification proxy for exactly that long.
bool WaitForChange(const std::shared_ptr<Detail::DiskSubsystemHandler>& handler) {
  Detail::AttachedHandler attached(handler);
  return handler->Execute(kChangeTimeoutMs);
}

class DiskSubsystemImpl : public DiskSubsystem, public std::enable_shared_from_this<DiskSubsystemImpl> {
 public:
  DiskSubsystemImpl();

  std::shared_ptr<Common::SharedMutex> Lock() override;
  Common::Error Refresh() override;
  Common::Error Enumerate(std::vector<Disk>& disks) override;
  Common::Error AddDisk(const Disk& disk, String& name) override;
  Common::Error RemoveDisk(const Disk& disk) override;
  Common::Error GetScsiSerialID(const String& devicePath, GUID& id) override;

 private:
  void EnumerateDisks(std::vector<Disk>& disks);
  bool IsDiskOffline(const std::string& name);

  std::unique_ptr<Common::SharedMutex> mutex_;
};

DiskSubsystemImpl::DiskSubsystemImpl() : mutex_(Common::SharedMutex::Create("SCSISubsystemLocker")) {
  dsk_supp::ecodes code = dsk_supp::ec_ok;
  if (!dsk_supp::InitInternals(code))
    throw Common::Error(kErrorDisk, GetTextFromMessageFile(Messages::FailedToInitializeDiskSubsystem),
                        AS_LOCATION("DiskSubsystemImpl", 333));
  if (dsk_supp::Instance.load() == nullptr)
    throw Common::Error(kErrorDisk, GetTextFromMessageFile(Messages::FailedToInitializeDiskSubsystem),
                        AS_LOCATION("DiskSubsystemImpl", 338));
}

std::shared_ptr<Common::SharedMutex> DiskSubsystemImpl::Lock() {
  mutex_->Lock();
  // The holder keeps the subsystem, and so the mutex, alive until it unlocks.
  std::shared_ptr<DiskSubsystemImpl> self = shared_from_this();
  // A throw from a deleter would end the process; Unlock leaves nothing held anyway.
  return std::shared_ptr<Common::SharedMutex>(mutex_.get(), [self](Common::SharedMutex* m) {
    try {
      m->Unlock();
    } catch (const Common::Error& error) {
      TraceErrorObject(Common::EventLevelError, error);
    }
  });
}

Common::Error DiskSubsystemImpl::Refresh() {
  try {
    Detail::HostTable hosts;
    Detail::EnumerateHosts(hosts);
    for (const auto& host : hosts) Detail::RefreshHost(host.first);
    std::vector<Disk> disks;
    if (Common::Error e = Enumerate(disks)) throw e;
    for (const Disk& disk : disks) {
      const std::string rescan = Core::FormatString("/sys/block/{0}/device/rescan", disk.name);
      if (Common::Error e = Detail::WriteCommand(rescan, "- - -\n")) throw e;
    }
    return Common::Error();
  } catch (const Common::Error& e) {
    return Common::Error(kErrorDisk, GetTextFromMessageFile(Messages::FailedToRefreshScsiSubsystem),
                         AS_LOCATION("Refresh", 366))
        .WithCause(e);
  }
}

Common::Error DiskSubsystemImpl::Enumerate(std::vector<Disk>& disks) {
  try {
    EnumerateDisks(disks);
    return Common::Error();
  } catch (const Common::Error& e) {
    return Common::Error(kErrorDisk, GetTextFromMessageFile(Messages::FailedToEnumerateDisks),
                         AS_LOCATION("Enumerate", 430))
        .WithCause(e);
  }
}

void DiskSubsystemImpl::EnumerateDisks(std::vector<Disk>& out) {
  Detail::HostTable hosts;
  Detail::EnumerateHosts(hosts);
  std::vector<Disk> disks;
  Common::Error error;
  std::unique_ptr<FileSystem::Directory> blocks = FileSystem::Directory::Open("/sys/block", &error);
  if (!blocks) throw error;
  FileSystem::Directory::Entry entry;
  while (blocks->Next(entry)) {
    if (entry.name.compare(0, 2, "sd") != 0 || entry.kind != FileSystem::kDirectoryLink) continue;
    std::unique_ptr<FileSystem::Directory> block = OpenIfPresent(blocks.get(), entry.name);
    if (!block) continue;
    std::unique_ptr<FileSystem::Directory> addresses = OpenIfPresent(block.get(), "device/scsi_disk");
    if (!addresses) continue;

    Disk disk;
    disk.name = Common::FromUtf8(entry.name);
    bool found = false;
    FileSystem::Directory::Entry address;
    while (!found && addresses->Next(address)) {
      if (Common::Error e = GetScsiSerialID(Common::FromUtf8(kDevPrefix + entry.name), disk.id)) throw e;
      uint32_t host = 0, target = 0;
      if (!Detail::SplitAddress(address.name, host, target)) continue;
      const auto known = hosts.find(host);
      if (known == hosts.end()) continue;
      disk.type = known->second;
      disk.host = host;
      disk.target = target;
      found = true;
    }
    if (!found) {
      if (addresses->Status() != FileSystem::kStatusEndOfDirectory)
        throw InvalidWalk(AS_LOCATION("Enumerate", 401), *addresses);
      continue;
    }
    disk.readable = !IsDiskOffline(entry.name) && Detail::ReadFile(kDevPrefix + entry.name, 512).size() == 512;
    disks.push_back(std::move(disk));
  }
  if (blocks->Status() != FileSystem::kStatusEndOfDirectory) throw InvalidWalk(AS_LOCATION("Enumerate", 384), *blocks);
  std::sort(disks.begin(), disks.end());
  out.swap(disks);
}

bool DiskSubsystemImpl::IsDiskOffline(const std::string& name) {
  const std::string state = Detail::ReadFile(Core::FormatString("/sys/block/{0}/device/state", name), 32);
  bool offline = false;
  // An unknown state never fails the enumeration: the disk counts as online.
  if (Common::Error unknown = Detail::ParseDiskState(name, state, offline))
    TraceErrorObject(Common::EventLevelNotice, unknown);
  return offline;
}

Common::Error DiskSubsystemImpl::GetScsiSerialID(const String& devicePath, GUID& id) {
  const std::string device = Common::ToUtf8(devicePath);
  std::vector<uint8_t> page;
  Common::Error empty;
  if (ReadUnitSerialPage(device, page)) {
    empty = Detail::ParseScsiSerial(Detail::UnitSerialText(page.data(), page.size()) + "\n", devicePath, id);
  } else {
    const LinuxEx::ToolRun run =
        LinuxEx::RunTool({"scsi_id", "--page=0x83", "--export", "--whitelisted", "--device=" + device});
    if (!run.started)
      return Common::Error(kErrorScsiIdFailed, Core::FormatMessage(Messages::FailedToGetScsiId, devicePath),
                           AS_LOCATION("GetScsiSerialID", 499));
    // A failed scsi_id leaves the disk without identity, as one that printed none.
    if (run.status != 0)
      id = GUID(), empty = Common::Error(kErrorScsiIdFailed, Core::FormatMessage(Messages::FailedToGetScsiId, devicePath),
                            AS_LOCATION("GetScsiSerialID", 500), {{"status", int64_t{run.status}}});
    else
      empty = Detail::ReadScsiSerial(run.output, devicePath, id);
  }
  if (empty) TraceErrorObject(Common::EventLevelNotice, empty);
  return Common::Error();
}

Common::Error DiskSubsystemImpl::AddDisk(const Disk& disk, String& name) {
  try {
    dsk_supp::UnixVolID expected;
    expected.ScsiHost = disk.host;
    expected.ScsiTarget = disk.target;
    auto handler = std::make_shared<Detail::AddDiskHandler>(expected);
    OperationTimer timer("DiskSubsystemImpl::AddDisk");
    if (!WaitForChange(handler))
      throw Common::Error(kErrorDisk, GetTextFromMessageFile(Messages::CannotFindAttachedDisks),
                          AS_LOCATION("AddDisk", 447));
    const std::string& node = handler->Volume().DevNode;
    const size_t slash = node.rfind('/');
    name = Common::Widen(slash == std::string::npos ? node : node.substr(slash + 1));
    return Common::Error();
  } catch (const Common::Error& e) {
    // Host and target numbers stay plain digits in every locale.
    return Common::Error(kErrorDisk,
                         Core::FormatMessage(Messages::FailedToAddScsiDisk, std::to_string(disk.host),
                                             std::to_string(disk.target)),
                         AS_LOCATION("AddDisk", 456))
        .WithCause(e);
  }
}

Common::Error DiskSubsystemImpl::RemoveDisk(const Disk& disk) {
  try {
    dsk_supp::UnixVolID volume;
    volume.DevNode = kDevPrefix + Common::ToUtf8(disk.name);
    dsk_supp::index_t index = 0;
    if (!dsk_supp::IndexbyDevName(volume, dsk_supp::mt_disk, index) ||
        !dsk_supp::VolIDbyIndex(index, dsk_supp::mt_disk, volume))
      throw Common::Error(kErrorDisk, GetTextFromMessageFile(Messages::CannotFindAttachedDisks),
                          AS_LOCATION("RemoveDisk", 474));
    auto handler = std::make_shared<Detail::RemoveDiskHandler>(disk.name, volume.Major, volume.Minor);
    OperationTimer timer("DiskSubsystemImpl::RemoveDisk");
    if (!WaitForChange(handler))
      throw Common::Error(kErrorDisk, GetTextFromMessageFile(Messages::DiskSubsystemUpdateTimedOut),
                          AS_LOCATION("RemoveDisk", 483));
    return Common::Error();
  } catch (const Common::Error& e) {
    return Common::Error(kErrorDisk, Core::FormatMessage(Messages::FailedToDeleteScsiDisk, disk.name),
                         AS_LOCATION("RemoveDisk", 490))
        .WithCause(e);
  }
}

}  // namespace

std::shared_ptr<DiskSubsystem> CreateDiskSubsystem() { return std::make_shared<DiskSubsystemImpl>(); }

namespace Detail {

Common::Error ReadScsiSerial(const std::string& output, const String& devicePath, GUID& id) {
  const std::string key = std::string("\n") + kSerialKey;
  const size_t at = ("\n" + output).find(key);
  return ParseScsiSerial(at == std::string::npos ? std::string() : output.substr(at + key.size() - 1), devicePath, id);
}

Common::Error ParseScsiSerial(const std::string& value, const String& devicePath, GUID& id) {
  const size_t feed = value.find('\n');
  const std::string line = feed == std::string::npos ? value : value.substr(0, feed + 1);
  // Both thresholds count the trailing line feed.
  std::string text;
  if (line.find('-') != std::string::npos) {
    if (line.size() >= 36) text = line.substr(0, 36);
  } else if (line.size() >= 32) {
    text = line.substr(0, 8) + "-" + line.substr(8, 4) + "-" + line.substr(12, 4) + "-" + line.substr(16, 4) + "-" +
           line.substr(20, 12);
  }
  GUID parsed;
  if (!text.empty() && GUID::Parse(text, parsed)) {
    id = parsed;
    return Common::Error();
  }
  id = GUID();
  return Common::Error(kErrorScsiIdEmpty, Core::FormatMessage(Messages::ScsiIdIsEmpty, devicePath),
                       AS_LOCATION("GetScsiSerialID", 538));
}

bool SplitAddress(std::string_view entry, uint32_t& host, uint32_t& target) {
  uint32_t parts[4];
  if (!Common::ParseDecimals(entry, parts)) return false;
  host = parts[0], target = parts[2];
  return true;
}

Common::Error ParseDiskState(const std::string& name, const std::string& state, bool& offline) {
  offline = state.find(kOffline) != std::string::npos;
  if (offline || state.find(kRunning) != std::string::npos) return Common::Error();
  return Common::Error(kErrorDisk, Core::FormatMessage(Messages::ScsiDiskUnknownState, name, state),
                       AS_LOCATION("IsDiskOffline", 120));
}

}  // namespace Detail

}  // namespace SCSI
