#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "core/common/assert.h"
#include "ext/include/logging/log.h"

namespace {

TEST(Log, ReachesStandardErrorWhenAsked) {
  Logging_SetStandardError(1);
  testing::internal::CaptureStderr();
  AS_LOG(4, AS_LOG_PREFIX "Retrieving mount point of '%s' failed", "/dev/sdb1");
  _log_line_tag tag;
  Logging_BuildLineTag(&tag, "a/b.cpp", "void F()", 9);
  Log(tag, 2, "storage", "%d partitions", 3);
  const std::string err = testing::internal::GetCapturedStderr();
  Logging_SetStandardError(0);

  EXPECT_NE(std::string::npos, err.find("error "));
  EXPECT_NE(std::string::npos, err.find("log_test.cpp:"));
  EXPECT_NE(std::string::npos, err.find("[Appliance Storage] Retrieving mount point of '/dev/sdb1' failed\n"));
  EXPECT_NE(std::string::npos, err.find("notice a/b.cpp:9 void F(): storage: 3 partitions\n"));
}

TEST(Log, SilentOnStandardErrorUnlessAsked) {
  Logging_SetStandardError(0);
  testing::internal::CaptureStderr();
  AS_LOG(1, "quiet");
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

// A null format is reported through the assertion handler and still logged.
TEST(Log, NullFormatRaisesTheAssertion) {
  EXPECT_EXIT(
      {
        setenv("ZEMLORA_SAFE_ASSERT", "log", 1);
        setenv("ZEMLORA_SAFE_ASSERT_LOGFILE", "stderr", 1);
        Logging_SetStandardError(1);
        _log_line_tag tag;
        Logging_BuildLineTag(&tag, "x.cpp", "f", 1);
        Log(tag, 4, nullptr, nullptr);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "Assertion failed: format, file ext/include/logging/log, line 251");
}

}  // namespace
