#include "core/common/module.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "core/common/unicode.h"
#include "resource_api.h"

namespace {

using Common::Str;

String Text(TextFromMessageFile id) {
  const unsigned short* t = GetTextFromMessageFile(id);
  return t ? String(t, Common::Length(t)) : String();
}

TEST(ModuleIdentity, Globals) {
  EXPECT_EQ(18, major_version);
  EXPECT_EQ(0, minor_version);
  EXPECT_EQ(38811, build_number);
  EXPECT_STREQ("appliance_storage.msg", MsgFileName);
  EXPECT_STREQ("appliance_storage_glxa64_38811", _ErrorModuleName);
  EXPECT_EQ(Str(u"/etc/Zemlora"), String(REG_LINUX_DIR));
  EXPECT_EQ(Str(u"/Library/Application Support/Zemlora/Registry"), String(REG_MAC_DIR));
  EXPECT_EQ(Str(u"/Library/Application Support"), String(LIBRARY_MAC_DIR));
  EXPECT_STREQ("Software\\Zemlora", ResourceApi::GetResourceString("registry_brand_key"));
  EXPECT_EQ(nullptr, ResourceApi::GetResourceString("no_such_key"));
}

TEST(ModuleIdentity, BuiltInTextsAreTheCataloguesWording) {
  EXPECT_EQ(Str(u"Failed to get disks with storages."), Text(Messages::FailedToGetDisksWithStorages));
  EXPECT_EQ(Str(u"External call '{0}' returns error code {1}."), Text(Messages::ExternalCallReturnsErrorCode));
  EXPECT_EQ(Str(u"Failed to initialize storage {0}."), Text(Messages::FailedToInitializeStorageUnquoted));
  EXPECT_EQ(Str(u"Failed to write command '{0}' to file '{1}'."), Text(Messages::FailedToWriteCommand));
  // Every message has a text that lies inside the built-in table.
  for (uint32_t i = 0; i < Messages::Count; ++i) {
    const unsigned short* t = GetTextFromMessageFile(TextFromMessageFile{i});
    ASSERT_NE(nullptr, t) << i;
    uint32_t size;
    std::memcpy(&size, DefaultTextsBase, 4);
    EXPECT_GE(static_cast<const void*>(t), DefaultTextsBase);
    EXPECT_LT(reinterpret_cast<const char*>(t), static_cast<const char*>(DefaultTextsBase) + size);
  }
}

// Message files of a made-up language "xx", in a resource directory of the test's own.
class MessageFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/as_msgXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    root_ = dir;
    ASSERT_EQ(0, mkdir((root_ + "/xx").c_str(), 0755));
    setenv("ZEMLORA_RESOURCE_DIR", root_.c_str(), 1);
    (void)GetTextFromMessageFile(Messages::InternalError);  // subscribes to language changes
    std::ifstream ru(std::string(AS_TEST_RESOURCES) + "/ru/appliance_storage.msg", std::ios::binary);
    russian_.assign(std::istreambuf_iterator<char>(ru), {});
    ASSERT_GT(russian_.size(), 12u);
  }
  void TearDown() override {
    ResourceApi::SetLanguage("en");
    unsetenv("ZEMLORA_RESOURCE_DIR");
    std::system(("rm -rf " + root_).c_str());
  }
  void Install(const std::string& bytes) {
    std::ofstream(root_ + "/xx/appliance_storage.msg", std::ios::binary | std::ios::trunc) << bytes;
    ResourceApi::SetLanguage("xx");
  }
  static void Put32(std::string& s, size_t at, uint32_t v) { std::memcpy(&s[at], &v, 4); }

  std::string root_;
  std::string russian_;
};

TEST_F(MessageFiles, AValidFileReplacesTheTextsAndStaysValidAfterASwitch) {
  Install(russian_);
  EXPECT_NE(DefaultTextsBase, TextsFromMessageFileBase);
  EXPECT_EQ(Common::FromUtf8("Внутренняя ошибка."), Text(Messages::InternalError));
  // Untranslated messages keep the English wording.
  EXPECT_EQ(Str(u"Dropping orphaned attribute node."), Text(Messages::DroppingOrphanedAttributeNode));

  const unsigned short* translated = GetTextFromMessageFile(Messages::InternalError);
  Common::Error e(0x530040, translated, AS_HERE);
  EXPECT_EQ(static_cast<const void*>(translated), e.GetTextAddress());  // shared, not copied

  ResourceApi::SetLanguage("en");
  EXPECT_EQ(DefaultTextsBase, TextsFromMessageFileBase);
  EXPECT_EQ(Common::FromUtf8("Внутренняя ошибка."), e.GetText());  // the old table is kept
  Common::Error later(0x530040, translated, AS_HERE);                // no longer current: copied
  EXPECT_NE(static_cast<const void*>(translated), later.GetTextAddress());
}

TEST_F(MessageFiles, BrokenFilesFallBackToTheBuiltInTexts) {
  struct Case {
    const char* what;
    std::function<std::string(std::string)> damage;
  } cases[] = {
      {"empty", [](std::string) { return std::string(); }},
      {"shorter than two words", [](std::string) { return std::string("\x07\0\0\0\x64\x06", 6); }},
      {"size word too big", [](std::string s) { Put32(s, 0, s.size() + 4); return s; }},
      {"size word too small", [](std::string s) { Put32(s, 0, s.size() - 4); return s; }},
      {"truncated", [](std::string s) { s.resize(s.size() / 2); return s; }},
      {"wrong magic", [](std::string s) { Put32(s, 4, 1637); return s; }},
      {"count beyond the file", [](std::string s) { Put32(s, 8, s.size()); return s; }},
      {"entry beyond the file", [](std::string s) { Put32(s, 12, s.size()); return s; }},
      {"unterminated text",
       [](std::string s) {
         Put32(s, 12, s.size() - 12 - 2);
         s[s.size() - 1] = 'x';
         s[s.size() - 2] = 'x';
         return s;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Install(c.damage(russian_));
    EXPECT_EQ(DefaultTextsBase, TextsFromMessageFileBase);
    EXPECT_EQ(Str(u"An internal error."), Text(Messages::InternalError));
    ResourceApi::SetLanguage("en");
  }
}

TEST_F(MessageFiles, AnUnreadableFileFallsBack) {
  ASSERT_EQ(0, mkdir((root_ + "/xx/appliance_storage.msg").c_str(), 0755));
  ResourceApi::SetLanguage("xx");
  EXPECT_EQ(DefaultTextsBase, TextsFromMessageFileBase);
  ResourceApi::SetLanguage("../xx");  // a language is a name, never a path
  EXPECT_EQ(DefaultTextsBase, TextsFromMessageFileBase);
}

TEST_F(MessageFiles, AnOlderFileWithFewerMessagesKeepsTheNewOnesBuiltIn) {
  // A table of one message only.
  std::string s(12 + 4 + 4, '\0');
  Put32(s, 0, s.size());
  Put32(s, 4, 1636);
  Put32(s, 8, 1);
  Put32(s, 12, 4);
  s[16] = '0';
  Install(s);
  ASSERT_NE(DefaultTextsBase, TextsFromMessageFileBase);
  EXPECT_EQ(Str(u"0"), Text(TextFromMessageFile{0}));
  EXPECT_EQ(Str(u"An internal error."), Text(Messages::InternalError));
}

}  // namespace
