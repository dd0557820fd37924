#include "core/common/module.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "../../support/temp_dir.h"
#include "core/common/error.h"
#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "core/common/unicode.h"
#include "core/trace/trace_tools.h"
#include "resource_api.h"

namespace {

String Text(TextFromMessageFile id) { const unsigned short* t = GetTextFromMessageFile(id); return t ? String(t) : String(); }

// Every message's text lies in the built-in table, and in the table of each compiled
// message file, which therefore loads and translates every message.
TEST(MessageTable, EveryMessageHasATextInEveryLanguage) {
  setenv("ZEMLORA_RESOURCE_DIR", AS_TEST_RESOURCES, 1);
  std::vector<std::string> languages = {"C"};
  for (const auto& dir : std::filesystem::directory_iterator(AS_TEST_RESOURCES)) languages.push_back(dir.path().filename());
  ASSERT_GT(languages.size(), 1u);
  for (const std::string& language : languages) {
    SCOPED_TRACE(language);
    ResourceApi::SetLanguage(language.c_str());
    const auto* table = static_cast<const char*>(TextsFromMessageFileBase);
    EXPECT_EQ(language == "C", table == DefaultTextsBase);
    uint32_t size;
    std::memcpy(&size, table, 4);
    for (uint32_t i = 0; i < Messages::Count; ++i) {
      const auto* at = reinterpret_cast<const char*>(GetTextFromMessageFile(TextFromMessageFile{i}));
      EXPECT_TRUE(at >= table && at < table + size) << i;
    }
  }
  EXPECT_EQ(nullptr, GetTextFromMessageFile(TextFromMessageFile{Messages::Count}));
  ResourceApi::SetLanguage("C"), unsetenv("ZEMLORA_RESOURCE_DIR");
}

// Message files of a made-up language "xx", in a resource directory of the test's own;
// the library's trace events are kept.
class MessageFiles : public ::testing::Test, TraceTools::TraceSubscriber {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mkdir((dir_ / "xx").c_str(), 0755));
    setenv("ZEMLORA_RESOURCE_DIR", dir_.path().c_str(), 1);
    builtIn_ = Text(Messages::InternalError);  // also subscribes to language changes
    std::ifstream ru(std::string(AS_TEST_RESOURCES) + "/ru/appliance_storage.msg", std::ios::binary);
    russian_.assign(std::istreambuf_iterator<char>(ru), {});
    ASSERT_GT(russian_.size(), 12u);
    TraceTools::Subscribe(this);
  }
  void TearDown() override { TraceTools::Unsubscribe(this), ResourceApi::SetLanguage("en"), unsetenv("ZEMLORA_RESOURCE_DIR"); }
  bool WantsEveryEvent() const override { return true; }
  void OnTraceEvent(const TraceTools::TraceEvent& e) override { traced_.push_back(Common::ToUtf8(e.text, e.length)); }
  void Install(const std::string& bytes) {
    std::ofstream(dir_ / "xx/appliance_storage.msg", std::ios::binary | std::ios::trunc) << bytes;
    traced_.clear();
    ResourceApi::SetLanguage("xx");
  }
  static std::string& Put32(std::string& s, size_t at, uint32_t v) { return s.replace(at, 4, reinterpret_cast<char*>(&v), 4); }
  TestSupport::TempDir dir_;
  String builtIn_;
  std::string russian_;
  std::vector<std::string> traced_;
};

TEST_F(MessageFiles, ASwitchChangesTheTextOfTheNextErrorOnly) {
  Install(russian_);
  const void* russianTable = TextsFromMessageFileBase;
  const String russian = Text(Messages::InternalError);
  EXPECT_NE(builtIn_, russian);
  Common::Error before(0x530040, GetTextFromMessageFile(Messages::InternalError), AS_HERE);
  EXPECT_EQ(static_cast<const void*>(GetTextFromMessageFile(Messages::InternalError)), before.GetTextAddress());
  ResourceApi::SetLanguage("C");
  EXPECT_EQ(DefaultTextsBase, TextsFromMessageFileBase);
  EXPECT_EQ(builtIn_, Common::Error(0x530040, GetTextFromMessageFile(Messages::InternalError), AS_HERE).GetText());
  EXPECT_EQ(russian, before.GetText());  // shared with a table that is kept
  Install(russian_);
  EXPECT_EQ(russianTable, TextsFromMessageFileBase);  // the same file again costs no memory
  EXPECT_TRUE(traced_.empty());
}

// Damaged files fall back to the built-in texts; a valid file with fewer messages than
// the library knows (even none) keeps the missing ones built in.
TEST_F(MessageFiles, BrokenFilesFallBackAndShortOnesKeepTheRestBuiltIn) {
  const auto header = [](uint32_t size, uint32_t count) {
    std::string s(size, '\0');
    return Put32(Put32(Put32(s, 0, size), 4, 1636), 8, count);
  };
  const String builtIn0 = Text(TextFromMessageFile{0});
  // why: what the one trace line of a refused file says; null for a file accepted.
  const struct { const char* what; std::function<std::string(std::string)> make; const char* why; String first = {}; } cases[] = {
      {"empty", [](std::string) { return std::string(); }, "shorter than its size and magic"},
      {"shorter than two words", [](std::string) { return std::string("\x07\0\0\0\x64\x06", 6); }, "shorter than"},
      {"only two words", [](std::string) { return std::string("\x08\0\0\0\x64\x06\0\0", 8); }, "no message count"},
      {"size word too big", [](std::string s) { return Put32(s, 0, s.size() + 4); }, "size word"},
      {"size word too small", [](std::string s) { return Put32(s, 0, s.size() - 4); }, "size word"},
      {"truncated", [](std::string s) { return s.substr(0, s.size() / 2); }, "size word"},
      {"wrong magic", [](std::string s) { return Put32(s, 4, 1637); }, "magic word"},
      {"count beyond the file", [](std::string s) { return Put32(s, 8, s.size()); }, "table runs past"},
      {"entry beyond the file", [](std::string s) { return Put32(s, 12, s.size()); }, "outside the file"},
      {"entry at an odd offset", [](std::string s) { return Put32(s, 12, 5); }, "outside the file"},
      {"unterminated text", [](std::string s) { return Put32(s, 12, s.size() - 14).replace(s.size() - 2, 2, "x\0", 2); }, "text runs past"},
      {"no messages", [&](std::string) { return header(12, 0); }, nullptr},
      {"one message", [&](std::string) { std::string s = header(20, 1); Put32(s, 12, 4)[16] = '0'; return s; }, nullptr, Common::Str(u"0")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Install(c.make(russian_));
    EXPECT_EQ(c.why == nullptr, DefaultTextsBase != TextsFromMessageFileBase);
    ASSERT_EQ(c.why == nullptr ? 0u : 1u, traced_.size());
    if (c.why) {  // one line, saying why
      EXPECT_TRUE(traced_[0].find(c.why) != std::string::npos && traced_[0].find("'xx'") != std::string::npos) << traced_[0];
    }
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
