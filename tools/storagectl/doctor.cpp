// What the appliance needs for the library to work, one check a line: "ok" or what to do.
#include <sys/stat.h>
#include <unistd.h>


#include "core/common/module.h"
#include "core/common/unicode.h"
#include "core/linex/create_process.h"
#include "storagectl.h"
#include "virtualization/common/storage/storage_config.h"

namespace Storagectl {
namespace {

// The tools the library runs to change disks, with where to get them; it reads disks
// without any.
const char* const kTools[][2] = {
    {"tune2fs", "install e2fsprogs"},
    {"mke2fs", "install e2fsprogs"},
    {"gdisk", "install gdisk"},
    {"dd", "install coreutils"},
    {"mount", "install mount"},
    {"umount", "install mount"},
    // Only for a disk whose kernel keeps no serial page and that answers no INQUIRY.
    {"scsi_id",
     "install udev; it lives in /lib/udev, which is rarely in PATH: add it, or link scsi_id into /usr/local/sbin"},
};

bool IsDirectory(const std::string& path, int access_mode) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && access(path.c_str(), access_mode) == 0;
}

}  // namespace

Json Doctor() {
  Json checks = Json::array();
  bool all = true;
  const auto check = [&](const std::string& name, bool ok, const std::string& todo) {
    checks.push_back({{"check", name}, {"ok", ok}, {"detail", ok ? "ok" : todo}});
    all = all && ok;
  };
  check("root", geteuid() == 0, "run as root: the library partitions, mounts and writes to sysfs");
  for (const auto& tool : kTools) check(tool[0], !ChildProcess::FindProgram(tool[0]).empty(), std::string("not in PATH: ") + tool[1]);
  const std::string root = Common::ToUtf8(MigrationManagement::StorageConfig::GetStoragesRoot());
  // The library makes the root on first use: a missing one under a writable parent is fine.
  const bool rootUsable = IsDirectory(root, W_OK) || (access(root.c_str(), F_OK) != 0 &&
                                                      IsDirectory(root.substr(0, root.find_last_of('/')), W_OK));
  check("mount root " + root, rootUsable, "not a writable directory: mkdir -p " + root);
  const std::string registry = Common::ToUtf8(REG_LINUX_DIR, Common::Length(REG_LINUX_DIR));
  check("registry " + registry, IsDirectory(registry, W_OK), "missing or not writable: mkdir -p " + registry);
  check("lock directory /tmp", IsDirectory("/tmp", W_OK), "/tmp must be a writable directory");
  return {{"checks", checks}, {"ok", all}};
}

}  // namespace Storagectl
