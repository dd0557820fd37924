#include "virtualization/common/storage/impl/mount_table.h"

#include <libmount.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>

#include "core/common/decimal.h"
#include "core/include/file/file.h"
#include "virtualization/common/storage/impl/storage_internal.h"

namespace Virtualization {
namespace Appliance {
namespace Detail {

namespace {

constexpr char kMountInfo[] = "/proc/self/mountinfo";

thread_local bool t_brokenLine = false;
thread_local const MountTable* t_shared = nullptr;

// libmount skips a line it cannot parse unless told otherwise; a skipped line could
// be the mount that matters. It may still end without error at a broken last line.
int OnBrokenLine(libmnt_table*, const char*, int) {
  t_brokenLine = true;
  return -EBADMSG;
}

using Table = std::unique_ptr<libmnt_table, void (*)(libmnt_table*)>;
using Iterator = std::unique_ptr<libmnt_iter, void (*)(libmnt_iter*)>;

template <class Parse>
std::vector<MountTable::Entry> Load(const char* name, Parse parse) {
  const auto fail = [name](uint32_t code, int err) {
    return FileSystem::MakeError(code, name, err, AS_LOCATION("MountTable::Read", __LINE__));
  };
  Table table(mnt_new_table(), mnt_unref_table);
  Iterator it(mnt_new_iter(MNT_ITER_FORWARD), mnt_free_iter);
  if (!table || !it) throw fail(FileSystem::kErrorRead, ENOMEM);
  mnt_table_set_parser_errcb(table.get(), OnBrokenLine);
  t_brokenLine = false;
  const int rc = parse(table.get());
  if (t_brokenLine) throw fail(FileSystem::kErrorRead, EBADMSG);
  if (rc < 0) throw fail(FileSystem::kErrorOpen, -rc);
  std::vector<MountTable::Entry> entries;
  for (libmnt_fs* fs = nullptr; mnt_table_next_fs(table.get(), it.get(), &fs) == 0;) {
    const char *root = mnt_fs_get_root(fs), *target = mnt_fs_get_target(fs), *source = mnt_fs_get_source(fs);
    // Lines that libmount took for another format (fstab, swaps) are no mounts.
    if (!mnt_fs_is_kernel(fs) || !root || !target) throw fail(FileSystem::kErrorRead, EBADMSG);
    entries.push_back({mnt_fs_get_devno(fs), root, target, source ? source : ""});
  }
  return entries;
}

}  // namespace

BlockDeviceId BlockDeviceOf(const std::string& sysfsDir, const std::string& path) {
  BlockDeviceId id{std::nullopt, path};
  std::string text;
  try {
    text = ReadSysfsFile(sysfsDir + "/dev");
  } catch (const Common::Error& error) {
    if (FileSystem::ErrnoOf(error) != ENOENT) throw;
    return id;
  }
  unsigned int numbers[2];  // "MAJ:MIN"
  if (Common::ParseDecimals(std::string_view(text).substr(0, text.find('\n')), numbers))
    id.devno = makedev(numbers[0], numbers[1]);
  return id;
}

MountTable MountTable::Read() {
  MountTable table;
  table.entries_ = Load(kMountInfo, [](libmnt_table* t) { return mnt_table_parse_file(t, kMountInfo); });
  return table;
}

MountTable MountTable::Parse(const std::string& text) {
  MountTable table;
  if (text.empty()) return table;  // fmemopen refuses a size of 0
  table.entries_ = Load("mountinfo text", [&](libmnt_table* t) {
    std::unique_ptr<FILE, int (*)(FILE*)> stream(fmemopen(const_cast<char*>(text.data()), text.size(), "r"), fclose);
    return stream ? mnt_table_parse_stream(t, stream.get(), "mountinfo text") : -errno;
  });
  return table;
}

std::string MountTable::MountPointOf(const BlockDeviceId& device) const {
  const Entry* last = nullptr;
  for (auto it = entries_.rbegin(); it != entries_.rend(); ++it) {
    if ((!device.devno || it->devno != *device.devno) && it->source != device.path) continue;
    if (it->root == "/") return it->target;
    if (!last) last = &*it;
  }
  return last ? last->target : std::string();
}

SharedMountTable::SharedMountTable() : table_(t_shared) {
  if (table_) return;
  own_.emplace(MountTable::Read());
  table_ = t_shared = &*own_;
}

SharedMountTable::~SharedMountTable() {
  if (own_) t_shared = nullptr;
}

}  // namespace Detail
}  // namespace Appliance
}  // namespace Virtualization
