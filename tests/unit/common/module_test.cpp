#include "core/common/module.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "../../support/temp_dir.h"
#include "core/common/error.h"
#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "core/common/unicode.h"
#include "resource_api.h"

namespace {

String Text(TextFromMessageFile id) { return GetTextFromMessageFile(id); }  // never null here
std::string Words(std::vector<uint32_t> w) { return {reinterpret_cast<char*>(w.data()), 4 * w.size()}; }

// A refused file is logged; the log copies its lines to standard error only if asked before its first.
const bool kLogToStandardError = setenv("ZEMLORA_LOG_STDERR", "1", 1) == 0;

// Message files of a made-up language "xx" in a resource directory of the test's own, with the log lines about them.
class MessageFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mkdir((dir_ / "xx").c_str(), 0755));
    setenv("ZEMLORA_RESOURCE_DIR", dir_.path().c_str(), 1);
    builtIn_ = Text(Messages::InternalError);  // also subscribes to language changes
    std::ifstream ru(std::string(AS_TEST_RESOURCES) + "/ru/appliance_storage.msg", std::ios::binary);
    russian_.assign(std::istreambuf_iterator<char>(ru), {});
    ASSERT_GT(russian_.size(), 12u);
    ASSERT_TRUE(kLogToStandardError);
  }
  void TearDown() override { ResourceApi::SetLanguage("en"), unsetenv("ZEMLORA_RESOURCE_DIR"); }
  void Install(const std::string& bytes) {
    std::ofstream(dir_ / "xx/appliance_storage.msg", std::ios::binary | std::ios::trunc) << bytes;
    ::testing::internal::CaptureStderr();
    ResourceApi::SetLanguage("xx");
    std::istringstream lines(::testing::internal::GetCapturedStderr());
    logged_.clear();
    for (std::string line; std::getline(lines, line);)
      if (line.find("Message file 'appliance_storage.msg' of language 'xx'") != std::string::npos)
        logged_.push_back(line);
  }
  std::string With(size_t at, uint32_t w) const { return std::string(russian_).replace(at, 4, Words({w})); }
  // Whether every message's text lies in the table in use.
  static bool EveryTextInTable() {
    const auto* table = static_cast<const char*>(TextsFromMessageFileBase);
    for (uint32_t i = 0; i < Messages::Count; ++i) {
      const auto* at = reinterpret_cast<const char*>(GetTextFromMessageFile({i}));
      if (at < table || at >= table + *reinterpret_cast<const uint32_t*>(table)) return false;
    }
    return GetTextFromMessageFile({Messages::Count}) == nullptr;
  }
  TestSupport::TempDir dir_;
  String builtIn_;
  std::string russian_;
  std::vector<std::string> logged_;
};

// A switch changes the text of the next error only. Damaged files fall back to the built-in
// texts; a valid file with fewer messages than the library knows (even none) keeps the rest built in.
TEST_F(MessageFiles, SwitchesBrokenFilesAndShortOnes) {
  const String builtIn0 = Text({0});
  EXPECT_TRUE(EveryTextInTable());
  Install(russian_);
  const void* russianTable = TextsFromMessageFileBase;
  EXPECT_TRUE(russianTable != DefaultTextsBase && EveryTextInTable());
  const String russian = Text(Messages::InternalError);
  const Common::Error before(0x530040, GetTextFromMessageFile(Messages::InternalError), AS_HERE);
  ResourceApi::SetLanguage("C");
  EXPECT_EQ(builtIn_, Text(Messages::InternalError));
  EXPECT_EQ(russian, before.GetText());  // shared with a table that is kept
  Install(russian_);
  EXPECT_EQ(russianTable, TextsFromMessageFileBase);  // the same file again costs no memory
  EXPECT_TRUE(logged_.empty());
  const uint32_t n = static_cast<uint32_t>(russian_.size());
  // why: a part of the one log line of a refused file; null for a file accepted.
  const struct { const char* what; std::string bytes; const char* why; String first = {}; } cases[] = {
      {"shorter than two words", Words({6, 1636}).substr(0, 6), "shorter than"},
      {"only two words", Words({8, 1636}), "no message count"}, {"wrong magic", With(4, 1637), "magic word"},
      {"size word too big", With(0, n + 4), "size word"}, {"size word too small", With(0, n - 4), "size word"},
      {"count beyond the file", With(8, n), "table runs past"}, {"entry beyond", With(12, n), "outside the file"},
      {"entry at an odd offset", With(12, 5), "outside the file"},
      {"unterminated text", With(12, n - 14).replace(n - 2, 2, "x\0", 2), "text runs past"},
      {"no messages", Words({12, 1636, 0}), nullptr},
      {"one message", Words({20, 1636, 1, 4, '0'}), nullptr, Common::Str(u"0")},
      {"five sharing one text", Words({36, 1636, 5, 20, 16, 12, 8, 4, '0'}), nullptr, Common::Str(u"0")},  // fills it
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Install(c.bytes);
    EXPECT_EQ(c.why == nullptr, DefaultTextsBase != TextsFromMessageFileBase);
    ASSERT_EQ(c.why == nullptr ? 0u : 1u, logged_.size());
    if (c.why) { EXPECT_NE(std::string::npos, logged_[0].find(c.why)) << logged_[0]; }
    EXPECT_EQ(builtIn_, Text(Messages::InternalError));
    EXPECT_EQ(c.first.empty() ? builtIn0 : c.first, Text({0}));
  }
  std::filesystem::remove(dir_ / "xx/appliance_storage.msg");
  ASSERT_EQ(0, mkdir((dir_ / "xx/appliance_storage.msg").c_str(), 0755));  // unreadable
  ResourceApi::SetLanguage("xx");
  EXPECT_EQ(DefaultTextsBase, TextsFromMessageFileBase);
  ResourceApi::SetLanguage("../xx");  // a language is a name, never a path
  EXPECT_EQ(DefaultTextsBase, TextsFromMessageFileBase);
}

}  // namespace
