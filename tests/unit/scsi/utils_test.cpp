// The two sysfs helpers of the disk subsystem: their limits and their errors.
#include "quillenmark/raw/common/scsi_disk_helpers/impl/utils.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <vector>

#include "../../support/temp_dir.h"
#include "core/common/unicode.h"

namespace {

using SCSI::Detail::ReadFile;
using SCSI::Detail::WriteCommand;

// Reads stop at the limit. Each error names what failed (command before path) and where,
// and keeps the errno two causes below.
TEST(SysfsHelpers, LimitsAndFailures) {
  const TestSupport::TempDir dir;
  std::ofstream(dir / "state") << "transport-offline, and then some more text than 32 bytes\n";
  std::vector<uint8_t> buffer;
  EXPECT_EQ(32u, ReadFile(dir / "state", buffer, 32));
  EXPECT_GE(buffer.size(), 32u);
  std::ofstream(dir / "state", std::ios::trunc) << "running\n";
  EXPECT_EQ(8u, ReadFile(dir / "state", buffer, 32));
  EXPECT_EQ("running\n", std::string(buffer.begin(), buffer.begin() + 8));
  EXPECT_FALSE(WriteCommand("/dev/null", "1\n"));

  auto thrown = [&](const std::string& path) {
    try {
      ReadFile(path, buffer, 32);
    } catch (const Common::Error& e) {
      return e;
    }
    return Common::Error();
  };
  const struct {
    Common::Error e;
    uint32_t code;
    const char* function;
    std::vector<std::string> named;  // in this order
    int err;
  } cases[] = {
      {thrown(dir.path()), 0x530124, "ReadFile", {dir.path()}, EISDIR},
      {WriteCommand("/dev/full", "1\n"), 0x5300C6, "WriteCommand", {"1\n", "/dev/full"}, ENOSPC},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.named.back());
    const Common::Error& e = c.e;
    EXPECT_EQ(c.code, e.GetCode());
    EXPECT_STREQ(c.function, e.GetLocation().function);
    const std::string text = Common::ToUtf8(e.GetText());
    size_t at = 0;
    for (const std::string& part : c.named) {
      at = text.find(part, at);
      ASSERT_NE(std::string::npos, at) << text;
    }
    EXPECT_EQ(c.err, e.GetCause().GetCause().GetNumericField("code"));
  }
}

}  // namespace
