// The two sysfs helpers of the disk subsystem: their limits and their errors.
#include "quillenmark/raw/common/scsi_disk_helpers/impl/utils.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <fstream>

#include "../../support/temp_dir.h"
#include "core/common/unicode.h"

namespace {

using SCSI::Detail::ReadFile;
using SCSI::Detail::WriteCommand;

// Reads stop at the limit. Each error names what failed (command before path) and keeps
// the errno two causes below.
TEST(SysfsHelpers, LimitsAndFailures) {
  const TestSupport::TempDir dir;
  std::ofstream(dir / "state") << "transport-offline, and then some more text than 32 bytes\n";
  std::vector<uint8_t> buffer;
  EXPECT_EQ(32u, ReadFile(dir / "state", buffer, 32));
  std::ofstream(dir / "state", std::ios::trunc) << "running\n";
  EXPECT_EQ(8u, ReadFile(dir / "state", buffer, 32));
  EXPECT_EQ("running\n", std::string(buffer.begin(), buffer.begin() + 8));
  EXPECT_FALSE(WriteCommand("/dev/null", "1\n"));
  Common::Error read;
  try {
    ReadFile(dir.path(), buffer, 32);
  } catch (const Common::Error& e) {
    read = e;
  }
  const struct {
    Common::Error e;
    uint32_t code;
    std::string named;  // a regular expression
    int err;
  } cases[] = {
      {read, 0x530124, dir.path(), EISDIR},
      {WriteCommand("/dev/full", "1\n"), 0x5300C6, "1\n.*/dev/full", ENOSPC},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.named);
    EXPECT_EQ(c.code, c.e.GetCode());
    EXPECT_THAT(Common::ToUtf8(c.e.GetText()), testing::ContainsRegex(c.named));
    EXPECT_EQ(c.err, c.e.GetCause().GetCause().GetNumericField("code"));
  }
}

}  // namespace
