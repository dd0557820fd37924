#include "core/common/module.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>

#include "../../support/temp_dir.h"
#include "core/common/error.h"
#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "core/common/unicode.h"
#include "resource_api.h"

namespace {

String Text(TextFromMessageFile id) { const unsigned short* t = GetTextFromMessageFile(id); return t ? String(t) : String(); }

TEST(MessageTable, EveryMessageHasABuiltInText) {
  uint32_t size;
  std::memcpy(&size, DefaultTextsBase, 4);
  for (uint32_t i = 0; i < Messages::Count; ++i) {
    const unsigned short* t = GetTextFromMessageFile(TextFromMessageFile{i});
    const auto* at = reinterpret_cast<const char*>(t);
    EXPECT_TRUE(at >= DefaultTextsBase && at < static_cast<const char*>(DefaultTextsBase) + size) << i;
  }
  EXPECT_EQ(nullptr, GetTextFromMessageFile(TextFromMessageFile{Messages::Count + 1000}));
}

// Message files of a made-up language "xx", in a resource directory of the test's own.
class MessageFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mkdir((dir_ / "xx").c_str(), 0755));
    setenv("ZEMLORA_RESOURCE_DIR", dir_.path().c_str(), 1);
    builtIn_ = Text(Messages::InternalError);  // also subscribes to language changes
    std::ifstream ru(std::string(AS_TEST_RESOURCES) + "/ru/appliance_storage.msg", std::ios::binary);
    russian_.assign(std::istreambuf_iterator<char>(ru), {});
    ASSERT_GT(russian_.size(), 12u);
  }
  void TearDown() override { ResourceApi::SetLanguage("en"), unsetenv("ZEMLORA_RESOURCE_DIR"); }
  void Install(const std::string& bytes) {
    std::ofstream(dir_ / "xx/appliance_storage.msg", std::ios::binary | std::ios::trunc) << bytes;
    ResourceApi::SetLanguage("xx");
  }
  static std::string& Put32(std::string& s, size_t at, uint32_t v) { return s.replace(at, 4, reinterpret_cast<char*>(&v), 4); }
  TestSupport::TempDir dir_;
  String builtIn_;
  std::string russian_;
};

TEST_F(MessageFiles, AValidFileReplacesTheTextsAndStaysValidAfterASwitch) {
  const String untranslated = Text(Messages::DroppingOrphanedAttributeNode);
  Install(russian_);
  EXPECT_NE(DefaultTextsBase, TextsFromMessageFileBase);
  EXPECT_EQ(Common::FromUtf8("Внутренняя ошибка."), Text(Messages::InternalError));
  EXPECT_EQ(untranslated, Text(Messages::DroppingOrphanedAttributeNode));
  const unsigned short* translated = GetTextFromMessageFile(Messages::InternalError);
  Common::Error e(0x530040, translated, AS_HERE);
  EXPECT_EQ(static_cast<const void*>(translated), e.GetTextAddress());  // shared, not copied
  ResourceApi::SetLanguage("en");
  EXPECT_EQ(DefaultTextsBase, TextsFromMessageFileBase);
  EXPECT_EQ(Common::FromUtf8("Внутренняя ошибка."), e.GetText());  // the old table is kept
  Common::Error later(0x530040, translated, AS_HERE);                // no longer current: copied
  EXPECT_NE(static_cast<const void*>(translated), later.GetTextAddress());
}

// Damaged files fall back to the built-in texts; a valid file with fewer messages than
// the library knows (even none) keeps the missing ones built in.
TEST_F(MessageFiles, BrokenFilesFallBackAndShortOnesKeepTheRestBuiltIn) {
  const auto header = [](uint32_t size, uint32_t count) {
    std::string s(size, '\0');
    return Put32(Put32(Put32(s, 0, size), 4, 1636), 8, count);
  };
  const String builtIn0 = Text(TextFromMessageFile{0});
  const struct { const char* what; std::function<std::string(std::string)> make; bool accepted; String first = {}; } cases[] = {
      {"empty", [](std::string) { return std::string(); }, false},
      {"shorter than two words", [](std::string) { return std::string("\x07\0\0\0\x64\x06", 6); }, false},
      {"only two words", [](std::string) { return std::string("\x08\0\0\0\x64\x06\0\0", 8); }, false},
      {"size word too big", [](std::string s) { return Put32(s, 0, s.size() + 4); }, false},
      {"size word too small", [](std::string s) { return Put32(s, 0, s.size() - 4); }, false},
      {"truncated", [](std::string s) { return s.substr(0, s.size() / 2); }, false},
      {"wrong magic", [](std::string s) { return Put32(s, 4, 1637); }, false},
      {"count beyond the file", [](std::string s) { return Put32(s, 8, s.size()); }, false},
      {"entry beyond the file", [](std::string s) { return Put32(s, 12, s.size()); }, false},
      {"entry at an odd offset", [](std::string s) { return Put32(s, 12, 5); }, false},
      {"unterminated text", [](std::string s) { return Put32(s, 12, s.size() - 14).replace(s.size() - 2, 2, "x\0", 2); }, false},
      {"no messages", [&](std::string) { return header(12, 0); }, true},
      {"one message", [&](std::string) { std::string s = header(20, 1); Put32(s, 12, 4)[16] = '0'; return s; }, true, Common::Str(u"0")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Install(c.make(russian_));
    EXPECT_EQ(c.accepted, DefaultTextsBase != TextsFromMessageFileBase);
    EXPECT_EQ(builtIn_, Text(Messages::InternalError));
    EXPECT_EQ(c.first.empty() ? builtIn0 : c.first, Text(TextFromMessageFile{0}));
    ResourceApi::SetLanguage("en");
  }
  std::remove((dir_ / "xx/appliance_storage.msg").c_str());
  ASSERT_EQ(0, mkdir((dir_ / "xx/appliance_storage.msg").c_str(), 0755));  // unreadable
  ResourceApi::SetLanguage("xx");
  EXPECT_EQ(DefaultTextsBase, TextsFromMessageFileBase);
  ResourceApi::SetLanguage("../xx");  // a language is a name, never a path
  EXPECT_EQ(DefaultTextsBase, TextsFromMessageFileBase);
}

}  // namespace
