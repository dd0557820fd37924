// The two sysfs helpers of the disk subsystem: their limits and their error words.
#include "quillenmark/raw/common/scsi_disk_helpers/impl/utils.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include "core/common/unicode.h"

namespace {

using SCSI::Detail::ReadFile;
using SCSI::Detail::WriteCommand;

TEST(SysfsHelpers, ReadFileStopsAtTheLimit) {
  char path[] = "/tmp/as_stateXXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  std::ofstream(path) << "transport-offline, and then some more text than 32 bytes\n";
  std::vector<uint8_t> buffer;
  EXPECT_EQ(32u, ReadFile(path, buffer, 32));
  EXPECT_GE(buffer.size(), 32u);
  std::ofstream(path, std::ios::trunc) << "running\n";
  EXPECT_EQ(8u, ReadFile(path, buffer, 32));
  EXPECT_EQ("running\n", std::string(buffer.begin(), buffer.begin() + 8));
  unlink(path);

  try {
    ReadFile(path, buffer, 32);
    ADD_FAILURE() << "the file is gone";
  } catch (const Common::Error& e) {
    EXPECT_EQ(0x530123u, e.GetCode());
    EXPECT_EQ("Failed to open file '" + std::string(path) + "'.", Common::ToUtf8(e.GetText()));
    EXPECT_STREQ("OpenFile", e.GetLocation().function);
  }
  try {
    ReadFile("/proc/self", buffer, 32);  // opens, but a directory cannot be read
    ADD_FAILURE() << "a directory has no data";
  } catch (const Common::Error& e) {
    EXPECT_EQ(0x530124u, e.GetCode());
    EXPECT_EQ(EISDIR, e.GetCause().GetCause().GetNumericField("code"));
  }
}

TEST(SysfsHelpers, WriteCommandNamesCommandThenPath) {
  const Common::Error missing = WriteCommand("/nonexistent/host3/scan", "- - -\n");
  EXPECT_EQ(0x5300C6u, missing.GetCode());
  EXPECT_EQ("Failed to write command '- - -\n' to file '/nonexistent/host3/scan'.",
            Common::ToUtf8(missing.GetText()));
  EXPECT_STREQ("WriteCommand", missing.GetLocation().function);
  EXPECT_EQ(ENOENT, missing.GetCause().GetCause().GetNumericField("code"));

  const Common::Error full = WriteCommand("/dev/full", "1\n");
  EXPECT_EQ(0x5300C6u, full.GetCode());
  EXPECT_EQ(ENOSPC, full.GetCause().GetCause().GetNumericField("code"));

  EXPECT_FALSE(WriteCommand("/dev/null", "1\n"));
}

}  // namespace
