// Replayed captures of a real kernel's sysfs read back the way the kernel showed them.
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "../../support/files.h"
#include "fake_machine.h"

namespace FakeMachineTesting {
namespace {

std::string Resolved(const std::string& path) {
  char buffer[PATH_MAX];
  return ::realpath(path.c_str(), buffer) ? std::string(buffer) : std::string();
}

off_t FileSize(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// Every fixture the appliance VM captured: each attribute reads back with its line
// feed, each link leads somewhere, each disk has its index link and an image of its size.
TEST(Replay, FixturesOfTheApplianceVm) {
  const std::string fixtures = std::string(AS_SOURCE_ROOT) + "/tests/vm/fixtures";
  bool any = false;
  for (const std::string& name : ListDir(fixtures)) {
    if (name.size() < 7 || name.compare(name.size() - 6, 6, ".sysfs") != 0) continue;
    any = true;
    SCOPED_TRACE(name);
    AS_FAKE_MACHINE(m);
    m.Replay(fixtures + "/" + name.substr(0, name.size() - 6));
    for (const std::string& line : ReadLines(fixtures + "/" + name)) {
      const size_t space = line.find(' ', 2);
      if (line.compare(0, 2, "f ") == 0 && line.find('\\') == std::string::npos) {
        EXPECT_EQ(line.substr(space + 1) + "\n", m.ReadFile(line.substr(2, space - 2))) << line;
      } else if (line.compare(0, 2, "l ") == 0) {
        EXPECT_FALSE(Resolved(line.substr(2, space - 2)).empty()) << line;
      }
    }
    for (const std::string& disk : ListDir("/sys/block")) {
      SCOPED_TRACE(disk);
      const std::string dev = m.ReadFile("/sys/block/" + disk + "/dev");
      const std::string size = m.ReadFile("/sys/block/" + disk + "/size");
      EXPECT_EQ(static_cast<off_t>(std::strtoull(size.c_str(), nullptr, 10) * 512), FileSize("/dev/" + disk));
      EXPECT_EQ(Resolved("/sys/block/" + disk), Resolved("/sys/dev/block/" + dev.substr(0, dev.find('\n'))));
    }
  }
  if (!any) GTEST_SKIP() << "no fixtures in " << fixtures;
}

}  // namespace
}  // namespace FakeMachineTesting
